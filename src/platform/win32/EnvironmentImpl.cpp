// Windows working directory, environment and directory listings (os/DKEnvironment.h).
#include "os/DKEnvironment.h"

#include "Win32Util.h"

#include <windows.h>

#include <stdlib.h>

bool DKEnvironment::CurrentDirectory(std::string& path) {
  std::wstring buffer(MAX_PATH, L'\0');
  for (;;) {
    const DWORD length = GetCurrentDirectoryW(static_cast<DWORD>(buffer.size()), buffer.data());
    if (length == 0)
      return false;
    if (length < buffer.size()) { // the length without the NUL: it fitted
      buffer.resize(length);
      break;
    }
    buffer.resize(length); // the size needed, with the NUL
  }
  path = dkwin::ToUtf8(buffer);
  return true;
}

bool DKEnvironment::ChangeDirectory(const std::string& path) {
  return !path.empty() && dkwin::WithPath(path, [](const wchar_t* wide) { return SetCurrentDirectoryW(wide) != 0; });
}

bool DKEnvironment::SetVariable(const char* name, const std::string& value) {
  std::wstring wideName, wideValue;
  if (!name || !*name || !dkwin::ToWide(name, wideName) || !dkwin::ToWide(value, wideValue) ||
      wideName.find(L'=') != std::wstring::npos)
    return false;
  // The C runtime keeps its own copy of the environment, which getenv reads: it is updated
  // first. It cannot hold an empty value (it removes the variable then), so the system's
  // environment, where the library reads, is set last and holds the value either way.
  const bool runtime = _wputenv_s(wideName.c_str(), wideValue.c_str()) == 0;
  return SetEnvironmentVariableW(wideName.c_str(), wideValue.c_str()) && (runtime || wideValue.empty());
}

bool DKEnvironment::ListFiles(const std::string& directory, std::vector<std::string>& names) {
  std::wstring pattern;
  if (directory.empty() || !dkwin::SystemPath(directory, pattern))
    return false;
  if (!dkwin::IsSeparator(pattern.back()))
    pattern += L'\\';
  pattern += L'*';
  WIN32_FIND_DATAW entry{};
  HANDLE find = FindFirstFileExW(pattern.c_str(), FindExInfoBasic, &entry, FindExSearchNameMatch, nullptr,
                                 FIND_FIRST_EX_LARGE_FETCH);
  if (find == INVALID_HANDLE_VALUE)
    return GetLastError() == ERROR_FILE_NOT_FOUND; // a drive's empty root has not even "." and ".."
  struct Closer {
    HANDLE find;
    ~Closer() { FindClose(find); }
  } closer{find};
  do {
    // A link to a directory is marked as a directory too, as it is where the link is followed.
    if (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
      continue;
    names.push_back(dkwin::ToUtf8(entry.cFileName));
  } while (FindNextFileW(find, &entry));
  return GetLastError() == ERROR_NO_MORE_FILES;
}

bool DKEnvironment::PathExists(const std::string& path) {
  return !path.empty() &&
         dkwin::WithPath(path, [](const wchar_t* wide) { return GetFileAttributesW(wide) != INVALID_FILE_ATTRIBUTES; });
}

bool DKEnvironment::IsReadableFile(const std::string& path) {
  return !path.empty() && dkwin::WithPath(path, [](const wchar_t* wide) {
    const DWORD attributes = GetFileAttributesW(wide);
    if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY))
      return false;
    // Readable when it opens for reading (the access rights and the sharing of others decide).
    HANDLE file = CreateFileW(wide, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                              OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
      return false;
    CloseHandle(file);
    return true;
  });
}

const char* DKEnvironment::PathListSeparator() noexcept { return ";"; }

bool DKEnvironment::IsAbsolutePath(const std::string& path) { return dkwin::IsAbsolute(path.data(), path.size()); }
