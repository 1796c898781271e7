// POSIX implementation of the file primitives (os/DKFile.h).
#include "os/DKFile.h"


#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

namespace {

std::string Native(const DKString& path) { return path.AsUTF8(); }

// Retries a call that a signal interrupted.
template <class Call>
auto Retry(Call call) {
  decltype(call()) result;
  do
    result = call();
  while (result == -1 && errno == EINTR);
  return result;
}

// 0 for a plain file, the kind code of anything else.
int KindCode(mode_t mode) noexcept {
  if (S_ISREG(mode))
    return 0;
  if (S_ISDIR(mode))
    return EISDIR;
  if (S_ISFIFO(mode))
    return FileImpl::kIsFifo;
  if (S_ISSOCK(mode))
    return FileImpl::kIsSocket;
  if (S_ISCHR(mode) || S_ISBLK(mode))
    return FileImpl::kIsDevice;
  return FileImpl::kIsOtherKind;
}

// Opens a plain file. What the path names is looked at before the open, so that no FIFO, socket
// or device is opened on purpose, and the open itself never waits (a FIFO without a writer would
// block it). The path may change in between: with checkNow, what the descriptor turns out to be
// is checked at once, and size comes from the descriptor; without it the caller checks later
// (FileImpl::Read) and size comes from the look. O_NONBLOCK stays set: it changes nothing for a
// plain file, the only kind kept open.
int Open(const DKString& path, int flags, bool checkNow, std::intptr_t& handle, std::uint64_t& size) {
  const std::string native = Native(path);
  struct stat info {};
  if (::stat(native.c_str(), &info) == 0) {
    if (const int kind = KindCode(info.st_mode))
      return kind;
  } // missing: the open says why
  const int fd = Retry([&] { return ::open(native.c_str(), flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0666); });
  if (fd < 0)
    return errno;
  if (checkNow) {
    if (const int code = ::fstat(fd, &info) == 0 ? KindCode(info.st_mode) : errno) {
      ::close(fd);
      return code;
    }
  }
  handle = fd;
  size = info.st_size > 0 ? static_cast<std::uint64_t>(info.st_size) : 0;
  return 0;
}

struct FreeDeleter {
  void operator()(char* p) const noexcept { ::free(p); }
};

} // namespace

FileImpl::~FileImpl() { Close(); }

int FileImpl::OpenForReading(const DKString& path) {
  Close();
  // A plain file that stays as it was is read without a second look: the descriptor's kind is
  // checked only once the reads depart from the size the look saw (Read).
  if (const int code = Open(path, O_RDONLY, false, m_handle, m_openSize))
    return code;
  m_kindChecked = false;
  return 0;
}

int FileImpl::OpenForWriting(const DKString& path) {
  Close();
  // Emptied only once it is known to be a plain file.
  if (const int code = Open(path, O_WRONLY | O_CREAT, true, m_handle, m_openSize))
    return code;
  if (::ftruncate(static_cast<int>(m_handle), 0) != 0) {
    const int code = errno;
    Close();
    return code;
  }
  m_openSize = 0;
  return 0;
}

int FileImpl::CheckWritable(const DKString& path) {
  FileImpl probe;
  const int code = Open(path, O_WRONLY, true, probe.m_handle, probe.m_openSize);
  return code == ENOENT ? 0 : code;
}

std::uint64_t FileImpl::SizeHint() { return m_openSize; }

int FileImpl::Read(void* buffer, std::size_t size, std::size_t& got) {
  const int fd = static_cast<int>(m_handle);
  const ssize_t n = Retry([&] { return ::read(fd, buffer, size); });
  const int code = n < 0 ? errno : 0;
  got = n < 0 ? 0 : static_cast<std::size_t>(n);
  if (!m_kindChecked) {
    // Up to the size the path had before the open, the bytes are what that plain file holds.
    // A failure, an end before that size or bytes past it may mean the path was swapped for a
    // FIFO or a device in between: the descriptor's own kind decides, once.
    const std::uint64_t end = m_position + got;
    if (code || end > m_openSize || (got == 0 && end < m_openSize)) {
      struct stat info {};
      if (const int kind = ::fstat(fd, &info) == 0 ? KindCode(info.st_mode) : errno) {
        got = 0;
        return kind;
      }
      m_kindChecked = true;
    }
    m_position = end;
  }
  return code;
}

int FileImpl::CreateNew(const DKString& path) {
  Close();
  return Open(path, O_WRONLY | O_CREAT | O_EXCL, true, m_handle, m_openSize);
}

int FileImpl::WriteAll(const void* data, std::size_t size) {
  const int fd = static_cast<int>(m_handle);
  const char* p = static_cast<const char*>(data);
  while (size) {
    const ssize_t n = Retry([&] { return ::write(fd, p, size); });
    if (n < 0)
      return errno;
    p += n;
    size -= static_cast<std::size_t>(n);
  }
  return 0;
}

int FileImpl::Flush() { return ::fsync(static_cast<int>(m_handle)) == 0 ? 0 : errno; }

int FileImpl::Close() {
  if (m_handle < 0)
    return 0;
  const int fd = static_cast<int>(m_handle);
  m_handle = -1;
  m_openSize = m_position = 0;
  m_kindChecked = true;
  // close is not retried: the descriptor is gone even when it reports EINTR.
  return ::close(fd) == 0 || errno == EINTR ? 0 : errno;
}

int FileImpl::CopyPermissionsFrom(const DKString& path) {
  struct stat info {};
  if (::stat(Native(path).c_str(), &info) != 0)
    return errno == ENOENT ? 0 : errno;
  const int fd = static_cast<int>(m_handle);
  // Changing the owner needs privileges; without them the file keeps the process's owner.
  const bool ownerCopied = ::fchown(fd, info.st_uid, info.st_gid) == 0;
  static_cast<void>(ownerCopied);
  return ::fchmod(fd, info.st_mode & 07777) == 0 ? 0 : errno;
}

int FileImpl::Rename(const DKString& from, const DKString& to) {
  return ::rename(Native(from).c_str(), Native(to).c_str()) == 0 ? 0 : errno;
}

int FileImpl::Remove(const DKString& path) { return ::unlink(Native(path).c_str()) == 0 ? 0 : errno; }

int FileImpl::FlushFolder(const DKString& folder) {
  const int fd = Retry([&] { return ::open(Native(folder).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
  if (fd < 0)
    return errno;
  const int code = ::fsync(fd) == 0 ? 0 : errno;
  ::close(fd);
  return code;
}

DKString FileImpl::ResolveLinks(const DKString& path) {
  const std::string native = Native(path);
  struct stat info {};
  if (::lstat(native.c_str(), &info) != 0 || !S_ISLNK(info.st_mode))
    return path;
  std::unique_ptr<char, FreeDeleter> resolved(::realpath(native.c_str(), nullptr));
  if (!resolved)
    return path; // a dangling link: replacing the link itself is all that can be done
  DKString result;
  return result.SetFromUTF8(resolved.get()).IsSuccess() ? result : path;
}

bool FileImpl::IsAlreadyExists(int error) noexcept { return error == EEXIST; }

int FileImpl::OutOfMemory() noexcept { return ENOMEM; }

void* FileImpl::AllocatePages(std::size_t size) noexcept {
  void* p = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return p == MAP_FAILED ? nullptr : p;
}

void FileImpl::DiscardPages(void* start, std::size_t size) noexcept {
  // The pages go back to the system; taking away access makes a stray read fault instead of
  // seeing zeros.
  ::madvise(start, size, MADV_DONTNEED);
  ::mprotect(start, size, PROT_NONE);
}

void FileImpl::FreePages(void* start, std::size_t size) noexcept { ::munmap(start, size); }

std::size_t FileImpl::PageSize() noexcept {
  static const std::size_t size = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  return size;
}
