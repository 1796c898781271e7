// Names of the library's named kernel objects (internal to the Windows platform files).
#pragma once

#include <string>

// The kernel name of a named object of one kind (mutex, event, ...): "Local\DorvikCore.<kind>.<name>",
// in the session's namespace, so that every process of the user's session finds it. A name
// that starts with "Local\" already has that prefix dropped, as on the other systems. The name
// is made injective over what the kernel accepts: "\" (which the kernel refuses in a name), "%",
// control characters and bytes that are not UTF-8 are written "%XX"; a name too long for the
// kernel keeps its beginning and a hash of the whole. Throws std::bad_alloc.
std::wstring DKKernelObjectName(const char* kind, const std::string& name);
