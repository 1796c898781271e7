// The console stream here is the C++ standard output, which takes UTF-8 as it is
// (os/DKConsoleOutput.h).
#include "os/DKConsoleOutput.h"

#include <iostream>

std::ostream& DKConsoleOutput::Stream() noexcept { return std::cout; }
