// Internal: symbol names in their readable form through the GNU C++ ABI, which the toolchains of
// both platforms share (GCC and Clang on Linux, MinGW-w64 GCC on Windows).
#pragma once

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <string>

namespace dkplatform {

// Demangled when it is a C++ name, else as it is.
inline std::string Demangle(const char* name) {
  struct FreeDeleter {
    void operator()(char* p) const noexcept { std::free(p); }
  };
  int status = 0;
  const std::unique_ptr<char, FreeDeleter> demangled(abi::__cxa_demangle(name, nullptr, nullptr, &status));
  return status == 0 && demangled ? std::string(demangled.get()) : std::string(name);
}

} // namespace dkplatform
