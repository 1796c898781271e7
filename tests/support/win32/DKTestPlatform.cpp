// The test suites' operating-system helpers on Windows (DKTestPlatform.h).
#include "support/DKTestPlatform.h"

#include <windows.h>

#include <shellapi.h>

#include <atomic>
#include <cstdlib>
#include <cwchar>
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

bool TimeZoneFollowsTZ() { return false; }

ProcessResult RunProcess(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& set,
                         const std::string& dropPrefix) {
  ProcessResult result;
  if (arguments.empty())
    return result;
  std::wstring commandLine;
  for (const std::string& argument : arguments)
    AppendQuoted(commandLine, Wide(argument));

  // The environment block: NAME=value entries, each ended by a NUL, then one more NUL. Names
  // starting with "=" (the drives' current folders) are kept as they are.
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

  SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
  HANDLE readEnd = nullptr, writeEnd = nullptr;
  if (!CreatePipe(&readEnd, &writeEnd, &inherit, 0))
    return result;
  SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
  startup.hStdOutput = writeEnd;
  startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
  PROCESS_INFORMATION process{};
  const BOOL started = CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, CREATE_UNICODE_ENVIRONMENT,
                                      block.data(), nullptr, &startup, &process);
  CloseHandle(writeEnd);
  char buffer[4096];
  DWORD count = 0;
  while (started && ReadFile(readEnd, buffer, sizeof buffer, &count, nullptr) && count > 0)
    result.output.append(buffer, count);
  CloseHandle(readEnd);
  if (!started)
    return result;
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

} // namespace dktest
