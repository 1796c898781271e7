// Facts about the running process (internal): its executable, its identifier, the temporary
// folder, the wall clock and the environment. The functions marked "platform" are implemented
// once per operating system in src/platform/<os>/ProcessImpl.cpp; the others are portable and
// built on them in src/os/DKProcess.cpp.
#pragma once

#include <DorvikCore/DKString.h>

#include <cstdint>
#include <ctime>
#include <string>

class DKProcess {
public:
  // Platform: the full path of the running executable, UTF-8. False when it cannot be had.
  static bool ExecutablePathUTF8(std::string& path);
  // Platform: the process identifier.
  static unsigned long ProcessId() noexcept;
  // Platform: the temporary folder as the system names it, UTF-8 (it may end in a separator);
  // empty when there is none.
  static std::string TempFolderUTF8();
  // Platform: the value of an environment variable, UTF-8 bytes as stored. False when the
  // variable is not defined; a defined empty variable gives true and an empty value.
  static bool EnvironmentVariableUTF8(const char* name, std::string& value);
  // Platform: a count that goes up in a child process each time the process forks.
  static unsigned ForkGeneration() noexcept;
  // Platform: the local calendar time of a second of the system clock (DKClock::Now), in the
  // process's time zone.
  static bool ToLocalTime(std::int64_t seconds, std::tm& local) noexcept;

  // The operating system's identifier of the calling thread (DKSystem::CurrentThreadId),
  // remembered per thread so that asking again costs no system call; a forked child asks anew.
  static std::uint64_t CurrentThreadId() noexcept;

  // The executable's path as text. False when it cannot be had.
  static bool GetExecutablePath(DKString& path);
  // The temporary folder without one trailing separator; empty when there is none.
  static DKString GetTempFolder();
  // The value of an environment variable as text (bytes that are not UTF-8 become U+FFFD).
  // False when the variable is not defined.
  static bool EnvironmentVariable(const char* name, DKString& value);
};
