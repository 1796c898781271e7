// Windows file-system primitives (os/DKFileSystem.h).
#include "os/DKFileSystem.h"

#include "Win32Util.h"

#include <windows.h>

#include <fcntl.h>
#include <io.h>
#include <stdio.h>

#include <iterator>
#include <string_view>

namespace {

// The file behind a C stream.
HANDLE HandleOf(std::FILE* file) noexcept {
  const int fd = _fileno(file);
  return fd < 0 ? INVALID_HANDLE_VALUE : reinterpret_cast<HANDLE>(_get_osfhandle(fd));
}

bool SameFile(HANDLE a, HANDLE b) noexcept {
  BY_HANDLE_FILE_INFORMATION first{}, second{};
  return GetFileInformationByHandle(a, &first) && GetFileInformationByHandle(b, &second) &&
         first.dwVolumeSerialNumber == second.dwVolumeSerialNumber && first.nFileIndexHigh == second.nFileIndexHigh &&
         first.nFileIndexLow == second.nFileIndexLow;
}

} // namespace

DKChar DKFileSystem::Separator() noexcept { return L'\\'; }

bool DKFileSystem::IsSeparator(DKChar ch) noexcept { return dkwin::IsSeparator(ch); }

std::size_t DKFileSystem::RootLength(DKStringView path) noexcept { return dkwin::RootLength(path.data(), path.size()); }

bool DKFileSystem::IsDirectory(const std::string& path) noexcept {
  return !path.empty() && dkwin::WithPath(path, [](const wchar_t* wide) {
    const DWORD attributes = GetFileAttributesW(wide);
    if (attributes == INVALID_FILE_ATTRIBUTES || !(attributes & FILE_ATTRIBUTE_DIRECTORY))
      return false;
    if (!(attributes & FILE_ATTRIBUTE_REPARSE_POINT))
      return true;
    // A link: it counts when what it leads to is a directory that exists.
    HANDLE handle = CreateFileW(wide, FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (handle == INVALID_HANDLE_VALUE)
      return false;
    BY_HANDLE_FILE_INFORMATION info{};
    const bool directory = GetFileInformationByHandle(handle, &info) && (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY);
    CloseHandle(handle);
    return directory;
  });
}

bool DKFileSystem::MakeDirectory(const std::string& path) noexcept {
  return dkwin::WithPath(path, [](const wchar_t* wide) { return CreateDirectoryW(wide, nullptr) != 0; });
}

bool DKFileSystem::DeleteDirectory(const std::string& path) noexcept {
  return dkwin::WithPath(path, [](const wchar_t* wide) { return RemoveDirectoryW(wide) != 0; });
}

std::FILE* DKFileSystem::OpenFile(const std::string& path, const char* mode) noexcept {
  // The file is opened by the system and handed to the runtime, so that others may rename or
  // delete it while it is open (a log file is renamed for its rotation), as they may elsewhere.
  const std::string_view text = mode ? mode : "";
  DWORD access = 0, disposition = 0;
  int flags = 0;
  switch (text.empty() ? '\0' : text[0]) {
  case 'r': access = GENERIC_READ, disposition = OPEN_EXISTING, flags = _O_RDONLY; break;
  case 'w': access = GENERIC_WRITE, disposition = CREATE_ALWAYS, flags = _O_WRONLY; break;
  // Appending without the right to write elsewhere: the system puts every write at the end,
  // whoever else appends at the same time.
  case 'a': access = FILE_GENERIC_WRITE & ~FILE_WRITE_DATA, disposition = OPEN_ALWAYS, flags = _O_WRONLY | _O_APPEND; break;
  default: SetLastError(ERROR_INVALID_PARAMETER); return nullptr;
  }
  // The runtime's mode without what only the opening needs; text mode unless binary is asked.
  wchar_t wideMode[8] = {static_cast<wchar_t>(text[0])};
  std::size_t used = 1;
  bool binary = false;
  for (std::size_t i = 1; i < text.size(); ++i) {
    const char c = text[i];
    if (c == 'x' && disposition == CREATE_ALWAYS) {
      disposition = CREATE_NEW;
      continue;
    }
    if ((c != '+' && c != 'b' && c != 't') || used + 1 == std::size(wideMode)) {
      SetLastError(ERROR_INVALID_PARAMETER);
      return nullptr;
    }
    if (c == '+') {
      access |= GENERIC_READ | (text[0] == 'a' ? 0 : GENERIC_WRITE);
      flags = (flags & ~(_O_RDONLY | _O_WRONLY)) | _O_RDWR;
    }
    binary = binary || c == 'b';
    wideMode[used++] = static_cast<wchar_t>(c);
  }
  if (!binary)
    flags |= _O_TEXT;
  return dkwin::WithPath(path, [&](const wchar_t* wide) -> std::FILE* {
    HANDLE file = CreateFileW(wide, access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                              disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
      return nullptr;
    const int fd = _open_osfhandle(reinterpret_cast<std::intptr_t>(file), flags);
    if (fd < 0) {
      CloseHandle(file);
      SetLastError(ERROR_TOO_MANY_OPEN_FILES);
      return nullptr;
    }
    std::FILE* stream = _wfdopen(fd, wideMode);
    if (!stream) {
      _close(fd); // closes the handle too
      SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    }
    return stream;
  });
}

bool DKFileSystem::FileSize(std::FILE* file, std::uint64_t& size) noexcept {
  LARGE_INTEGER bytes{};
  if (!file || !GetFileSizeEx(HandleOf(file), &bytes) || bytes.QuadPart < 0)
    return false;
  size = static_cast<std::uint64_t>(bytes.QuadPart);
  return true;
}

bool DKFileSystem::IsSameFile(std::FILE* a, std::FILE* b) noexcept { return a && b && SameFile(HandleOf(a), HandleOf(b)); }

bool DKFileSystem::RenameFile(const std::string& from, const std::string& to) noexcept {
  return dkwin::WithPath(from, [&](const wchar_t* wideFrom) {
    return dkwin::WithPath(to, [&](const wchar_t* wideTo) {
      return MoveFileExW(wideFrom, wideTo, MOVEFILE_REPLACE_EXISTING) != 0;
    });
  });
}

bool DKFileSystem::RemoveFile(const std::string& path) noexcept {
  return dkwin::WithPath(path, [](const wchar_t* wide) { return DeleteFileW(wide) != 0; });
}
