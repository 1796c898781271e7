// What the test suites need from the operating system, with one implementation per system
// (posix/ and win32/ beside this file): the environment, scratch folders, the process's own
// facts, and child processes whose output is read back.
#pragma once

#include <algorithm>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace dktest {

// How long a test waits for something that should happen at once: long enough for a loaded
// machine or a sanitizer build, and only ever spent when the test is failing.
inline constexpr auto kGenerousBound = std::chrono::seconds(60);

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

// How many files and system objects this process holds open: its descriptors on POSIX, its
// handles on Windows.
std::size_t OpenHandleCount();

// Makes text the whole of this process's standard input (a pipe holding it in place of file
// descriptor 0), as every module of the process reads it: a DLL with a C++ runtime of its own
// has a std::cin of its own, but shares the C runtime's standard input. False when it cannot.
bool FeedStandardInput(const std::string& text);

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

// A program run with its standard output and error on one pipe, in this process's environment
// with set added or replacing, in workingDirectory (this process's when empty). A child that
// outlives its bound is killed and fails the test; one still running when its Child goes is
// killed.
class Child {
public:
  Child(const std::vector<std::string>& arguments, const std::string& workingDirectory = {},
        const std::map<std::string, std::string>& set = {});
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // Reads until the output holds text; false when the output ended or the bound passed first.
  bool WaitFor(const std::string& text) {
    const auto deadline = std::chrono::steady_clock::now() + kGenerousBound;
    while (m_output.find(text) == std::string::npos) {
      if (!ReadSome(deadline))
        return m_output.find(text) != std::string::npos;
    }
    return true;
  }

  // Asks the program to quit the way its user or the system would: the signal on POSIX; on
  // Windows SIGINT is Ctrl+C and SIGBREAK is Ctrl+Break, sent as console control events to the
  // console this process shares with its children. False, with the system's reason in why, when
  // the system cannot send it.
  bool Quit(int signalNumber, std::string* why = nullptr);

  // Reads to the end of the output and waits for the program (killed when it outlives the
  // bound). Its exit code: on POSIX 128 + the signal that ended it; on Windows the whole 32-bit
  // code, such as an exception's.
  int Finish();
  // Ends the program at once, as a crash or a power cut would, without a chance to clean up
  // (SIGKILL; TerminateProcess). Finish then reaps it.
  void Kill();

  long Pid() const noexcept;
  const std::string& Output() const noexcept { return m_output; }
  // The output's lines, without their line ends.
  std::vector<std::string> Lines() const {
    std::vector<std::string> lines;
    for (std::size_t start = 0; start < m_output.size();) {
      const std::size_t end = std::min(m_output.find('\n', start), m_output.size());
      lines.push_back(m_output.substr(start, end - start));
      start = end + 1;
    }
    return lines;
  }

private:
  struct Process;
  // Appends what the program wrote; false at the end of the output or at the deadline.
  bool ReadSome(std::chrono::steady_clock::time_point deadline);

  std::unique_ptr<Process> m_process;
  std::string m_output;
};

#if !defined(_WIN32)
// Runs body in a forked copy of this process, which ends with body's result as its exit code,
// and waits for it: the exit code, or 128 + the signal that ended it. A child that outlives
// the bound is ended by an alarm. Unprivileged, a child of the superuser first gives up the
// privileges that would bypass file permissions. POSIX only: Windows has no fork.
int RunForked(const std::function<int()>& body, bool unprivileged = false);
#endif

} // namespace dktest
