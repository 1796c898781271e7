// Operating-system services used by the portable code of the library. Internal: the
// functions are implemented once per platform, in src/platform/<os>/SystemImpl.cpp.
#pragma once

#include <cstdint>
#include <string>

class DKSystem {
public:
  // The calling thread's call stack as UTF-8 text, one frame a line (no final line break),
  // innermost first. skipFrames drops that many of the caller's innermost frames; the frame
  // of CaptureStack itself is never shown. Each line names the function (demangled) and the
  // module, or the bare address when the function has no exported name.
  static std::string CaptureStack(unsigned skipFrames);

  // The operating system's identifier of the calling thread.
  static std::uint64_t CurrentThreadId() noexcept;

  // The local wall-clock time now, "YYYY/MM/DD HH:MM:SS.mmm".
  static std::string LocalTimeNow();

  // Whether the process's standard output is a terminal (a console), as opposed to a file or a
  // pipe.
  static bool StandardOutputIsTerminal() noexcept;

  // The calling thread's last system error code.
  static int LastErrorCode() noexcept;
  // The system's text for an error code, UTF-8 ("No such file or directory").
  static std::string ErrorCodeText(int code);

  // A crash number (signal here) as text, "Signal 11 (SIGSEGV)".
  static std::string CrashCodeText(int code);
};
