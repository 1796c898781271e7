// The complete automation variant, for the code that reads or writes its members (internal).
// The public headers only declare it on Windows, so that a user's program does not receive
// the whole automation header set; the system's definition comes in here.
#pragma once

#include <DorvikCore/DKSystemTime.h>

#if defined(_WIN32)
#  include <oaidl.h>
#endif
