// Internal: a token per thread for the library's own locks, and the thread-local storage model
// that makes reading one cheap. The token is the address of a thread-local of the library, so it
// is the same whichever module asks (std::thread::id is not, where each module carries its own
// thread library), is never null, and costs one instruction to read where the system allows.
#pragma once

#if defined(__GNUC__) && !defined(_WIN32)
// The library is loaded with the program, so its thread-locals can sit in the static block.
#  define DK_FAST_TLS __attribute__((tls_model("initial-exec")))
#else
#  define DK_FAST_TLS
#endif

namespace dkbase {

inline thread_local char t_threadToken DK_FAST_TLS = 0;

// The calling thread's token.
inline const void* ThreadToken() noexcept { return &t_threadToken; }

} // namespace dkbase
