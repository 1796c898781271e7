// What the test suites need from the operating system, with one implementation per system
// (posix/ and win32/ beside this file): the environment, scratch folders, the process's own
// facts, and child processes whose output is read back.
#pragma once

#include <ctime>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace dktest {

// Sets or removes a variable of this process's environment (the C runtime's getenv sees it).
void SetEnvironment(const std::string& name, const std::string& value);
void UnsetEnvironment(const std::string& name);

// A new empty folder under the system's temporary folder, named prefix plus a unique part.
// Throws std::runtime_error when it cannot be made.
std::filesystem::path MakeScratchFolder(const std::string& prefix);

// This process's id, the calling thread's system id, and the path of the executable.
long CurrentProcessId();
long CurrentThreadId();
std::filesystem::path CurrentExecutable();

// The program's arguments after its name, as paths: from the wide command line on Windows, so
// that a name the ANSI code page cannot spell arrives whole.
std::vector<std::filesystem::path> ProgramArguments(int argc, char** argv);

// Sets the system's last error (errno; GetLastError on Windows), and the system's own text
// for an error code as its C library or system message table gives it.
void SetLastSystemError(int code);
std::string SystemErrorText(int code);

// The environment variable that names the temporary folder ("TMPDIR"; "TMP" on Windows).
std::string TempFolderVariable();

// The local reading of a moment, in the process's zone.
std::tm LocalTime(std::time_t moment);

// A folder that exists and in which no file can be created or opened for writing, even by a
// privileged process; empty where the system offers none (the tests that need one skip).
std::filesystem::path UnwritableFolder();

// Whether setting TZ changes the process's local zone (not on Windows, whose zone comes from
// the system settings only).
bool TimeZoneFollowsTZ();

struct ProcessResult {
  int exitCode = -1;  // -1 when it did not start or did not exit normally
  std::string output; // its standard output, bytes as written
  long pid = 0;       // its process id, 0 when it did not start
  long mainThread = 0; // the system id of its first thread (the process id on Linux)
};

// Runs a program (arguments[0] is its path) and waits for it. Its environment is this
// process's without the variables whose names start with dropPrefix (none when empty), with set
// added or replacing; its standard error is this process's.
ProcessResult RunProcess(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& set = {},
                         const std::string& dropPrefix = {});

} // namespace dktest
