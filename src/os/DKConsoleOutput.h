// The process's standard output as the stream of the library's console (internal), implemented
// once per platform in src/platform/<os>/ConsoleImpl.cpp.
#pragma once

#include <ostream>

class DKConsoleOutput {
public:
  // The standard output, taking UTF-8 text. It is never destroyed, so it serves static
  // constructors and destructors too. Where the system's console takes another encoding, the
  // stream converts complete characters as they are flushed, and it writes UTF-8 bytes unchanged
  // when the output is redirected to a pipe or a file.
  static std::ostream& Stream() noexcept;
};
