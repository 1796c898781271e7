// The test suites' operating-system helpers on Windows (DKTestPlatform.h).
#include "support/DKTestPlatform.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <fcntl.h>
#include <io.h>
#include <shellapi.h>

#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <cwchar>
#include <mutex>
#include <stdexcept>

namespace dktest {
namespace {

std::wstring Wide(const std::string& utf8) {
  if (utf8.empty())
    return {};
  const int length = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), nullptr, 0);
  std::wstring wide(static_cast<std::size_t>(length), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), wide.data(), length);
  return wide;
}

std::string Utf8(const std::wstring& wide) {
  if (wide.empty())
    return {};
  const int length = WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), nullptr, 0, nullptr, nullptr);
  std::string utf8(static_cast<std::size_t>(length), '\0');
  WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), utf8.data(), length, nullptr, nullptr);
  return utf8;
}

// One argument quoted as the C runtime's command-line parser reads it back.
void AppendQuoted(std::wstring& line, const std::wstring& argument) {
  if (!line.empty())
    line += L' ';
  if (!argument.empty() && argument.find_first_of(L" \t\n\v\"") == std::wstring::npos) {
    line += argument;
    return;
  }
  line += L'"';
  for (auto it = argument.begin();; ++it) {
    std::size_t backslashes = 0;
    while (it != argument.end() && *it == L'\\') {
      ++it;
      ++backslashes;
    }
    if (it == argument.end()) {
      line.append(backslashes * 2, L'\\'); // they precede the closing quote
      break;
    }
    if (*it == L'"')
      line.append(backslashes * 2 + 1, L'\\');
    else
      line.append(backslashes, L'\\');
    line += *it;
  }
  line += L'"';
}

} // namespace

void SetEnvironment(const std::string& name, const std::string& value) {
  // Both the system's block (what children inherit and GetEnvironmentVariableW reads) and the
  // C runtime's copy (what getenv reads). An empty value is set through the system only: the
  // runtime takes "NAME=" as removal.
  SetEnvironmentVariableW(Wide(name).c_str(), Wide(value).c_str());
  _wputenv_s(Wide(name).c_str(), Wide(value).c_str());
  if (value.empty())
    SetEnvironmentVariableW(Wide(name).c_str(), L"");
}

void UnsetEnvironment(const std::string& name) {
  _wputenv_s(Wide(name).c_str(), L"");
  SetEnvironmentVariableW(Wide(name).c_str(), nullptr);
}

std::filesystem::path MakeScratchFolder(const std::string& prefix) {
  static std::atomic<unsigned> counter{0};
  const std::filesystem::path base = std::filesystem::temp_directory_path();
  for (int attempt = 0; attempt < 1000; ++attempt) {
    const std::filesystem::path folder =
        base / (prefix + std::to_string(GetCurrentProcessId()) + "_" + std::to_string(GetTickCount64() % 100000) + "_" +
                std::to_string(counter++));
    if (CreateDirectoryW(folder.wstring().c_str(), nullptr))
      return folder;
    if (GetLastError() != ERROR_ALREADY_EXISTS)
      break;
  }
  throw std::runtime_error("cannot make a scratch folder under " + base.string());
}

long CurrentProcessId() { return static_cast<long>(GetCurrentProcessId()); }

long CurrentThreadId() { return static_cast<long>(GetCurrentThreadId()); }

std::tm LocalTime(std::time_t moment) {
  std::tm local{};
  localtime_s(&local, &moment);
  return local;
}

std::filesystem::path CurrentExecutable() {
  std::wstring path(32768, L'\0');
  const DWORD length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
  path.resize(length);
  return std::filesystem::path(path);
}

std::size_t OpenHandleCount() {
  DWORD count = 0;
  return GetProcessHandleCount(GetCurrentProcess(), &count) ? count : 0;
}

bool FeedStandardInput(const std::string& text) {
  HANDLE readEnd = nullptr, writeEnd = nullptr;
  if (!CreatePipe(&readEnd, &writeEnd, nullptr, static_cast<DWORD>(text.size() + 4096)))
    return false;
  DWORD written = 0;
  const bool wrote = WriteFile(writeEnd, text.data(), static_cast<DWORD>(text.size()), &written, nullptr) &&
                     written == text.size();
  CloseHandle(writeEnd);
  const int fd = wrote ? _open_osfhandle(reinterpret_cast<intptr_t>(readEnd), _O_RDONLY | _O_BINARY) : -1;
  if (fd < 0) {
    CloseHandle(readEnd);
    return false;
  }
  const bool replaced = _dup2(fd, 0) == 0;
  _close(fd);
  SetStdHandle(STD_INPUT_HANDLE, reinterpret_cast<HANDLE>(_get_osfhandle(0)));
  return replaced;
}

std::vector<std::filesystem::path> ProgramArguments(int, char**) {
  int count = 0;
  wchar_t** arguments = CommandLineToArgvW(GetCommandLineW(), &count);
  if (!arguments)
    throw std::runtime_error("the command line cannot be read");
  std::vector<std::filesystem::path> paths(arguments + (count > 0 ? 1 : 0), arguments + (count > 0 ? count : 0));
  LocalFree(arguments);
  return paths;
}

void SetLastSystemError(int code) { SetLastError(static_cast<DWORD>(code)); }

std::string SystemErrorText(int code) {
  char* buffer = nullptr;
  const DWORD length =
      FormatMessageA(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                     static_cast<DWORD>(code), 0, reinterpret_cast<char*>(&buffer), 0, nullptr);
  std::string text(buffer ? buffer : "", buffer ? length : 0);
  LocalFree(buffer);
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' '))
    text.pop_back();
  return text;
}

std::string TempFolderVariable() { return "TMP"; }

// Under Wine the host's root is drive Z:, and its /proc takes no files. Windows itself has no
// such folder without changing a folder's security, which the tests do not do.
std::filesystem::path UnwritableFolder() {
  std::error_code error;
  return std::filesystem::is_directory("Z:\\proc\\self", error) ? std::filesystem::path("Z:\\proc")
                                                                    : std::filesystem::path();
}

namespace {

// The environment block of a child: this process's entries without the variables whose names
// start with dropPrefix, with set added or replacing; each NAME=value ended by a NUL, then one
// more NUL. Names starting with "=" (the drives' current folders) are kept as they are.
std::wstring EnvironmentBlock(const std::map<std::string, std::string>& set, const std::string& dropPrefix) {
  std::wstring block;
  if (wchar_t* own = GetEnvironmentStringsW()) {
    for (const wchar_t* entry = own; *entry; entry += std::wcslen(entry) + 1) {
      const std::wstring text = entry;
      const std::size_t equals = text.find(L'=', 1);
      const std::string name = Utf8(text.substr(0, equals));
      if ((dropPrefix.empty() || name.rfind(dropPrefix, 0) != 0) && !set.count(name))
        block.append(text).push_back(L'\0');
    }
    FreeEnvironmentStringsW(own);
  }
  for (const auto& [name, value] : set)
    block.append(Wide(name + "=" + value)).push_back(L'\0');
  block.push_back(L'\0');
  return block;
}

// A pipe's write end is inherited by every process started while it is open: starts are one at
// a time, so that a child gets only its own pipe (and its output ends when it does).
std::mutex g_starting;

// Starts the program with its standard output on a new pipe (and its standard error there too
// when bothOnPipe, else this process's); the pipe's read end in readEnd. False when it cannot.
bool Start(const std::vector<std::string>& arguments, const std::wstring& environment,
           const std::string& workingDirectory, bool bothOnPipe, HANDLE& readEnd, PROCESS_INFORMATION& process) {
  std::wstring commandLine;
  for (const std::string& argument : arguments)
    AppendQuoted(commandLine, Wide(argument));
  std::wstring block = environment;
  const std::wstring folder = Wide(workingDirectory);
  std::lock_guard guard(g_starting);
  SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
  HANDLE writeEnd = nullptr;
  if (!CreatePipe(&readEnd, &writeEnd, &inherit, 0))
    return false;
  SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
  startup.hStdOutput = writeEnd;
  startup.hStdError = bothOnPipe ? writeEnd : GetStdHandle(STD_ERROR_HANDLE);
  const BOOL started =
      CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, CREATE_UNICODE_ENVIRONMENT, block.data(),
                     folder.empty() ? nullptr : folder.c_str(), &startup, &process);
  CloseHandle(writeEnd);
  if (!started) {
    CloseHandle(readEnd);
    readEnd = nullptr;
  }
  return started != 0;
}

// This process lets the console's control events pass: they are meant for its children.
BOOL WINAPI LetThrough(DWORD) { return TRUE; }

// Gives this process a console of its own, which the children it starts share, so that a
// control event reaches them and no other process (a console shared with CTest would pass it
// on to CTest). A process started without one (a test under CTest, or Wine's stand-in when the
// output is a pipe) could send none. Standard handles that are pipes or files stay; those of the
// console left behind are replaced by the new console's.
void ShareAConsole() {
  static const bool once = [] {
    const DWORD ids[] = {STD_INPUT_HANDLE, STD_OUTPUT_HANDLE, STD_ERROR_HANDLE};
    HANDLE kept[3];
    for (int i = 0; i < 3; ++i) {
      DWORD mode = 0;
      kept[i] = GetConsoleMode(GetStdHandle(ids[i]), &mode) ? nullptr : GetStdHandle(ids[i]);
    }
    FreeConsole();
    const bool made = AllocConsole() != 0;
    for (int i = 0; i < 3; ++i)
      if (kept[i])
        SetStdHandle(ids[i], kept[i]);
    SetConsoleCtrlHandler(&LetThrough, TRUE);
    return made;
  }();
  (void)once;
}

} // namespace

ProcessResult RunProcess(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& set,
                         const std::string& dropPrefix) {
  ProcessResult result;
  HANDLE readEnd = nullptr;
  PROCESS_INFORMATION process{};
  if (arguments.empty() || !Start(arguments, EnvironmentBlock(set, dropPrefix), {}, false, readEnd, process))
    return result;
  char buffer[4096];
  DWORD count = 0;
  while (ReadFile(readEnd, buffer, sizeof buffer, &count, nullptr) && count > 0)
    result.output.append(buffer, count);
  CloseHandle(readEnd);
  WaitForSingleObject(process.hProcess, INFINITE);
  DWORD code = 0;
  if (GetExitCodeProcess(process.hProcess, &code))
    result.exitCode = static_cast<int>(code);
  result.pid = static_cast<long>(process.dwProcessId);
  result.mainThread = static_cast<long>(process.dwThreadId);
  CloseHandle(process.hThread);
  CloseHandle(process.hProcess);
  return result;
}

// The output is read on a thread of its own (a pipe cannot be waited on with a deadline), into
// a buffer that ReadSome empties.
struct Child::Process {
  PROCESS_INFORMATION info{};
  HANDLE readEnd = nullptr;
  HANDLE reader = nullptr;
  std::mutex lock;
  std::condition_variable changed;
  std::string pending;
  bool ended = false;
  bool finished = false;

  void Read() {
    char buffer[4096];
    DWORD count = 0;
    while (ReadFile(readEnd, buffer, sizeof buffer, &count, nullptr) && count > 0) {
      std::lock_guard guard(lock);
      pending.append(buffer, count);
      changed.notify_all();
    }
    std::lock_guard guard(lock);
    ended = true;
    changed.notify_all();
  }
  static DWORD WINAPI ReaderMain(void* process) {
    static_cast<Process*>(process)->Read();
    return 0;
  }
};

Child::Child(const std::vector<std::string>& arguments, const std::string& workingDirectory,
             const std::map<std::string, std::string>& set)
    : m_process(std::make_unique<Process>()) {
  ShareAConsole();
  if (arguments.empty() ||
      !Start(arguments, EnvironmentBlock(set, {}), workingDirectory, true, m_process->readEnd, m_process->info)) {
    ADD_FAILURE() << "cannot start " << (arguments.empty() ? std::string() : arguments[0]) << ": "
                  << SystemErrorText(static_cast<int>(GetLastError()));
    m_process->ended = true;
    return;
  }
  m_process->reader = CreateThread(nullptr, 0, &Process::ReaderMain, m_process.get(), 0, nullptr);
  if (!m_process->reader)
    ADD_FAILURE() << "cannot start the thread that reads the child's output";
}

Child::~Child() {
  if (m_process->info.hProcess && !m_process->finished) {
    TerminateProcess(m_process->info.hProcess, 1);
    WaitForSingleObject(m_process->info.hProcess, INFINITE);
  }
  if (m_process->reader) {
    // A process the child started may still hold the pipe: the read is called off.
    CancelSynchronousIo(m_process->reader);
    WaitForSingleObject(m_process->reader, INFINITE);
    CloseHandle(m_process->reader);
  }
  if (m_process->readEnd)
    CloseHandle(m_process->readEnd);
  if (m_process->info.hProcess) {
    CloseHandle(m_process->info.hThread);
    CloseHandle(m_process->info.hProcess);
  }
}

bool Child::ReadSome(std::chrono::steady_clock::time_point deadline) {
  std::unique_lock guard(m_process->lock);
  m_process->changed.wait_until(guard, deadline, [&] { return !m_process->pending.empty() || m_process->ended; });
  if (m_process->pending.empty())
    return false;
  // The C runtime's text mode writes CR LF: the lines are compared as the program meant them.
  const std::size_t from = m_output.empty() ? 0 : m_output.size() - 1;
  m_output += m_process->pending;
  m_process->pending.clear();
  for (std::size_t at = m_output.find("\r\n", from); at != std::string::npos; at = m_output.find("\r\n", at))
    m_output.erase(at, 1);
  return true;
}

bool Child::Quit(int signalNumber, std::string* why) {
  // A group id of 0 is every process of this console: the children, and this process, which
  // lets the event pass.
  const DWORD event = signalNumber == SIGINT ? CTRL_C_EVENT : signalNumber == SIGBREAK ? CTRL_BREAK_EVENT : ~DWORD{0};
  if (event != ~DWORD{0} && GenerateConsoleCtrlEvent(event, 0))
    return true;
  if (why)
    *why = event == ~DWORD{0} ? "Windows has no console control event for signal " + std::to_string(signalNumber)
                              : "GenerateConsoleCtrlEvent failed: " + SystemErrorText(static_cast<int>(GetLastError()));
  return false;
}

int Child::Finish() {
  const auto deadline = std::chrono::steady_clock::now() + kGenerousBound;
  while (ReadSome(deadline)) {
  }
  if (!m_process->info.hProcess)
    return -1;
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  if (WaitForSingleObject(m_process->info.hProcess, static_cast<DWORD>(std::max<long long>(left.count(), 0))) !=
      WAIT_OBJECT_0) {
    ADD_FAILURE() << "the child did not end; output so far:\n" << m_output;
    TerminateProcess(m_process->info.hProcess, 1);
    WaitForSingleObject(m_process->info.hProcess, INFINITE);
  }
  m_process->finished = true;
  DWORD code = 0;
  return GetExitCodeProcess(m_process->info.hProcess, &code) ? static_cast<int>(code) : -1;
}

void Child::Kill() {
  if (m_process->info.hProcess && !m_process->finished)
    TerminateProcess(m_process->info.hProcess, 1);
}

long Child::Pid() const noexcept { return static_cast<long>(m_process->info.dwProcessId); }

} // namespace dktest
