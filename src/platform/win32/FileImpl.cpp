// Windows implementation of the file primitives (os/DKFile.h). Error codes are the system's
// (GetLastError).
#include "os/DKFile.h"

#include "Win32Util.h"

#include <windows.h>

#include <aclapi.h>

namespace {

// "An operation is not supported on a directory" (missing from some SDK headers).
constexpr int kDirectoryNotSupported = 336;
constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
// The most one ReadFile or WriteFile call is given.
constexpr std::size_t kMaxChunk = std::size_t{1} << 30;

HANDLE AsHandle(std::intptr_t handle) noexcept { return reinterpret_cast<HANDLE>(handle); }

// The last error, never 0 after a failure.
int LastError() noexcept {
  const DWORD code = GetLastError();
  return code ? static_cast<int>(code) : ERROR_GEN_FAILURE;
}

// The system form of a DKString path (UTF-16 already).
bool PathOf(const DKString& path, std::wstring& wide) {
  return dkwin::SystemPath(std::wstring_view(path.c_str(), path.Length()), wide);
}

// 0 for a plain file, the kind code of anything else that an open handle shows.
int KindOfHandle(HANDLE handle) noexcept {
  switch (GetFileType(handle)) {
  case FILE_TYPE_DISK: {
    BY_HANDLE_FILE_INFORMATION info{};
    if (!GetFileInformationByHandle(handle, &info))
      return LastError();
    return info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY ? kDirectoryNotSupported : 0;
  }
  case FILE_TYPE_PIPE: return FileImpl::kIsFifo;
  case FILE_TYPE_CHAR: return FileImpl::kIsDevice;
  default: return FileImpl::kIsOtherKind;
  }
}

// Opens a plain file. What the handle turns out to be is checked before anything is changed,
// so a device or a pipe is left alone (an open of a pipe never waits for its other end here).
int Open(const DKString& path, DWORD access, DWORD disposition, std::intptr_t& handle) {
  std::wstring wide;
  if (!PathOf(path, wide))
    return LastError();
  // A read-only file is never written, whoever asks: the system refuses it too, and checking
  // first keeps that answer where permissions are not enforced (an emulator run as root).
  if (access & GENERIC_WRITE) {
    const DWORD attributes = GetFileAttributesW(wide.c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_READONLY) &&
        !(attributes & FILE_ATTRIBUTE_DIRECTORY))
      return ERROR_ACCESS_DENIED;
  }
  HANDLE file = CreateFileW(wide.c_str(), access, kShareAll, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    const int code = LastError();
    // A directory is refused as "access denied": say what it is instead.
    if (code == ERROR_ACCESS_DENIED) {
      const DWORD attributes = GetFileAttributesW(wide.c_str());
      if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY))
        return kDirectoryNotSupported;
    }
    return code;
  }
  if (const int kind = KindOfHandle(file)) {
    CloseHandle(file);
    return kind;
  }
  handle = reinterpret_cast<std::intptr_t>(file);
  return 0;
}

} // namespace

FileImpl::~FileImpl() { Close(); }

int FileImpl::OpenForReading(const DKString& path) {
  Close();
  return Open(path, GENERIC_READ, OPEN_EXISTING, m_handle);
}

int FileImpl::OpenForWriting(const DKString& path) {
  Close();
  // Emptied only once it is known to be a plain file.
  if (const int code = Open(path, GENERIC_WRITE, OPEN_ALWAYS, m_handle))
    return code;
  if (!SetEndOfFile(AsHandle(m_handle))) {
    const int code = LastError();
    Close();
    return code;
  }
  return 0;
}

int FileImpl::CreateNew(const DKString& path) {
  Close();
  // READ_CONTROL and WRITE_DAC, which the creator holds anyway, let the permissions be copied.
  return Open(path, GENERIC_WRITE | READ_CONTROL | WRITE_DAC, CREATE_NEW, m_handle);
}

int FileImpl::CheckWritable(const DKString& path) {
  FileImpl probe;
  const int code = Open(path, GENERIC_WRITE, OPEN_EXISTING, probe.m_handle);
  return code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND ? 0 : code;
}

std::uint64_t FileImpl::SizeHint() {
  LARGE_INTEGER size{};
  return GetFileSizeEx(AsHandle(m_handle), &size) && size.QuadPart > 0 ? static_cast<std::uint64_t>(size.QuadPart) : 0;
}

int FileImpl::Read(void* buffer, std::size_t size, std::size_t& got) {
  DWORD n = 0;
  got = 0;
  if (!ReadFile(AsHandle(m_handle), buffer, static_cast<DWORD>(size < kMaxChunk ? size : kMaxChunk), &n, nullptr))
    return LastError();
  got = n;
  return 0;
}

int FileImpl::WriteAll(const void* data, std::size_t size) {
  const char* p = static_cast<const char*>(data);
  while (size) {
    DWORD n = 0;
    if (!WriteFile(AsHandle(m_handle), p, static_cast<DWORD>(size < kMaxChunk ? size : kMaxChunk), &n, nullptr))
      return LastError();
    p += n;
    size -= n;
  }
  return 0;
}

int FileImpl::Flush() { return FlushFileBuffers(AsHandle(m_handle)) ? 0 : LastError(); }

int FileImpl::Close() {
  if (m_handle == -1)
    return 0;
  HANDLE file = AsHandle(m_handle);
  m_handle = -1;
  return CloseHandle(file) ? 0 : LastError();
}

int FileImpl::CopyPermissionsFrom(const DKString& path) {
  std::wstring wide;
  if (!PathOf(path, wide))
    return LastError();
  const DWORD attributes = GetFileAttributesW(wide.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) {
    const int code = LastError();
    return code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND ? 0 : code;
  }
  HANDLE file = AsHandle(m_handle);
  // The attributes a user sets (hidden, system, not indexed) go over; the new content is marked
  // for the next backup, as any change is. Times left at 0 stay as they are.
  constexpr DWORD kept = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_NOT_CONTENT_INDEXED;
  FILE_BASIC_INFO basic{};
  basic.FileAttributes = (attributes & kept) | FILE_ATTRIBUTE_ARCHIVE;
  int code = SetFileInformationByHandle(file, FileBasicInfo, &basic, sizeof basic) ? 0 : LastError();
  // The access list: the old file's own entries, and the inherited ones again from the folder
  // (which is the same), protected from inheritance when the old one was.
  PACL dacl = nullptr;
  PSID owner = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  const DWORD read = GetNamedSecurityInfoW(wide.c_str(), SE_FILE_OBJECT,
                                           DACL_SECURITY_INFORMATION | OWNER_SECURITY_INFORMATION, &owner, nullptr,
                                           &dacl, nullptr, &descriptor);
  if (read != ERROR_SUCCESS)
    return code ? code : static_cast<int>(read);
  SECURITY_DESCRIPTOR_CONTROL control = 0;
  DWORD revision = 0;
  const bool isProtected = GetSecurityDescriptorControl(descriptor, &control, &revision) && (control & SE_DACL_PROTECTED);
  const DWORD written =
      SetSecurityInfo(file, SE_FILE_OBJECT,
                      DACL_SECURITY_INFORMATION |
                          (isProtected ? PROTECTED_DACL_SECURITY_INFORMATION : UNPROTECTED_DACL_SECURITY_INFORMATION),
                      nullptr, nullptr, dacl, nullptr);
  if (written != ERROR_SUCCESS && !code)
    code = static_cast<int>(written);
  // The owner too, where the process may give files away (that takes a privilege); without it
  // the new file stays the process's own.
  HANDLE forOwner = ReOpenFile(file, WRITE_OWNER, kShareAll, 0);
  if (forOwner != INVALID_HANDLE_VALUE) {
    const bool ownerSet =
        SetSecurityInfo(forOwner, SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION, owner, nullptr, nullptr, nullptr) ==
        ERROR_SUCCESS;
    static_cast<void>(ownerSet);
    CloseHandle(forOwner);
  }
  LocalFree(descriptor);
  return code;
}

int FileImpl::Rename(const DKString& from, const DKString& to) {
  std::wstring wideFrom, wideTo;
  if (!PathOf(from, wideFrom) || !PathOf(to, wideTo))
    return LastError();
  // Write-through: the call returns once the rename is on the disk.
  return MoveFileExW(wideFrom.c_str(), wideTo.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) ? 0
                                                                                                         : LastError();
}

int FileImpl::Remove(const DKString& path) {
  std::wstring wide;
  if (!PathOf(path, wide))
    return LastError();
  return DeleteFileW(wide.c_str()) ? 0 : LastError();
}

// The rename was written through already; a folder cannot be flushed on its own here.
int FileImpl::FlushFolder(const DKString&) { return 0; }

DKString FileImpl::ResolveLinks(const DKString& path) {
  std::wstring wide;
  if (!PathOf(path, wide))
    return path;
  const DWORD attributes = GetFileAttributesW(wide.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES || !(attributes & FILE_ATTRIBUTE_REPARSE_POINT))
    return path;
  // Opening follows the links to the end.
  HANDLE file = CreateFileW(wide.c_str(), 0, kShareAll, nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
  if (file == INVALID_HANDLE_VALUE)
    return path; // a dangling link: replacing the link itself is all that can be done
  std::wstring target(MAX_PATH, L'\0');
  DWORD length = 0;
  for (;;) {
    length = GetFinalPathNameByHandleW(file, target.data(), static_cast<DWORD>(target.size()),
                                       FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
    if (length < target.size())
      break;
    target.resize(length);
  }
  CloseHandle(file);
  if (length == 0)
    return path;
  target.resize(length);
  // The system answers in the extended form; the usual one reads better in messages.
  if (target.compare(0, 8, L"\\\\?\\UNC\\") == 0)
    target.replace(0, 8, L"\\\\");
  else if (target.compare(0, 4, L"\\\\?\\") == 0 && target.size() < MAX_PATH + 4)
    target.erase(0, 4);
  return DKString(target.c_str());
}

bool FileImpl::IsAlreadyExists(int error) noexcept { return error == ERROR_FILE_EXISTS || error == ERROR_ALREADY_EXISTS; }

int FileImpl::OutOfMemory() noexcept { return ERROR_NOT_ENOUGH_MEMORY; }

void* FileImpl::AllocatePages(std::size_t size) noexcept {
  return VirtualAlloc(nullptr, size, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
}

void FileImpl::DiscardPages(void* start, std::size_t size) noexcept {
  // Decommitted pages go back to the system and stay reserved: a stray read faults instead of
  // seeing zeros.
  VirtualFree(start, size, MEM_DECOMMIT);
}

void FileImpl::FreePages(void* start, std::size_t) noexcept { VirtualFree(start, 0, MEM_RELEASE); }

std::size_t FileImpl::PageSize() noexcept {
  static const std::size_t size = [] {
    SYSTEM_INFO info{};
    GetSystemInfo(&info);
    return static_cast<std::size_t>(info.dwPageSize);
  }();
  return size;
}
