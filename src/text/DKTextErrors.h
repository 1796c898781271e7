// The errors of the text layer (internal). The text layer reports failures with the codes of
// the library's message set (DKErrorID.h), but the messages and the error classes that carry
// them live in the errors layer above it. That layer registers a factory when the library is
// loaded; text code asks for its errors through DKTextError and never includes it.
#pragma once

#include <DorvikCore/DKErrorID.h>

#include <cstddef>
#include <initializer_list>

// Builds the error of a library message code with integer parameters.
using DKTextErrorFactory = DKErrorID (*)(long code, const long* params, std::size_t count);

// Set once by the errors layer while the library loads.
void DKSetTextErrorFactory(DKTextErrorFactory factory) noexcept;

// The error of code with its parameters. Before the factory is set (only while the library's
// own static objects are built) the error carries the code and a plain text naming it.
DKErrorID DKTextError(DKLibraryMessage code, std::initializer_list<long> params);
