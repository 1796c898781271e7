// Whole-file reading and writing built on the platform's FileImpl.
#include "os/DKFile.h"


#include "os/DKFileSystem.h"
#include "os/DKProcess.h"
#include "os/DKSystem.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// What a FileImpl result code means.
DKString CodeText(int code) {
  switch (code) {
  case FileImpl::kIsFifo: return DK_T("it is a named pipe (FIFO), not a plain file");
  case FileImpl::kIsSocket: return DK_T("it is a socket, not a plain file");
  case FileImpl::kIsDevice: return DK_T("it is a device, not a plain file");
  case FileImpl::kIsOtherKind: return DK_T("it is not a plain file");
  default: break;
  }
  return DKString::FromUTF8(DKSystem::ErrorCodeText(code));
}

bool Failed(int code, const DKChar* what, const DKString& path, DKString& error) {
  error = DKStrCat(what, DK_T(" "), path, DK_T(": "), CodeText(code));
  return false;
}

constexpr int kTempAttempts = 100;

// Files up to this size are read into the heap, larger ones into pages of their own.
constexpr std::size_t kHeapBytes = 256 * 1024;

// Where the last path component starts.
std::size_t NameStart(const DKString& path) {
  for (std::size_t i = path.Length(); i > 0; --i)
    if (DKFileSystem::IsSeparator(path[i - 1]))
      return i;
  return 0;
}

} // namespace

DKString DKFile::FolderOf(const DKString& path) {
  const std::size_t start = NameStart(path);
  if (start == 0)
    return DKString(DK_T("."));
  return start == 1 ? path.SubStr(0, 1) : path.SubStr(0, start - 1);
}

DKString DKFile::TempSiblingName(const DKString& path) {
  static std::atomic<std::uint64_t> counter{0};
  const std::size_t nameStart = NameStart(path);
  DKString name;
  name.Format(DK_T(".%s.%llu.%llu.tmp"), path.SubStr(nameStart).c_str(),
              static_cast<unsigned long long>(DKProcess::ProcessId()),
              static_cast<unsigned long long>(counter.fetch_add(1, std::memory_order_relaxed)));
  return path.SubStr(0, nameStart) + name;
}

bool DKFile::ReadAll(const DKString& path, std::string& bytes, DKString& error) {
  FileImpl file;
  if (const int code = file.OpenForReading(path))
    return Failed(code, DK_T("cannot open"), path, error);
  // One more byte than the size, so that the end is seen without growing; reads on to the real
  // end whatever the size said (a file that grows, special files). A read that stops short
  // exactly at the size the file was opened with has met its end.
  const std::uint64_t hint = file.SizeHint();
  bytes.resize(hint ? static_cast<std::size_t>(hint) + 1 : 65536);
  std::size_t used = 0;
  for (;;) {
    if (used == bytes.size())
      bytes.resize(bytes.size() * 2);
    std::size_t got = 0;
    if (const int code = file.Read(bytes.data() + used, bytes.size() - used, got)) {
      bytes.clear();
      return Failed(code, DK_T("cannot read"), path, error);
    }
    used += got;
    if (got == 0 || (hint && used == hint))
      break;
  }
  bytes.resize(used);
  return true;
}

DKFileBytes::~DKFileBytes() { Free(); }

void DKFileBytes::Free() noexcept {
  if (m_data && m_mapped)
    FileImpl::FreePages(m_data, m_mapped);
  else
    std::free(m_data);
  m_data = nullptr;
  m_size = m_mapped = m_released = 0;
}

void DKFileBytes::Release(std::size_t offset) noexcept {
  if (!m_mapped)
    return;
  const std::size_t page = FileImpl::PageSize();
  const std::size_t end = std::min(offset, m_size) / page * page;
  if (end <= m_released)
    return;
  FileImpl::DiscardPages(m_data + m_released, end - m_released);
  m_released = end;
}

bool DKFile::ReadAll(const DKString& path, DKFileBytes& bytes, DKString& error) {
  bytes.Free();
  FileImpl file;
  if (const int code = file.OpenForReading(path))
    return Failed(code, DK_T("cannot open"), path, error);
  const std::size_t page = FileImpl::PageSize();
  // Pages of their own are whole pages; a heap block is only as large as asked.
  const auto fit = [&](std::uint64_t n) {
    return static_cast<std::size_t>(n > kHeapBytes ? (n + page - 1) / page * page : n);
  };
  // One byte more than the size, so that the end is seen without growing; reads on to the real
  // end whatever the size said (a file that grows, files of /proc that give no size).
  const std::uint64_t hint = file.SizeHint();
  std::size_t capacity = fit(hint ? hint + 1 : page);
  for (;;) {
    // Pages of their own only pay for a large file, whose read part the reader gives back as it
    // goes; a small one costs less in the heap than a map, its faults and its unmap.
    const bool pages = capacity > kHeapBytes;
    auto* data = static_cast<unsigned char*>(pages ? FileImpl::AllocatePages(capacity) : std::malloc(capacity));
    if (!data)
      return Failed(FileImpl::OutOfMemory(), DK_T("cannot read"), path, error);
    if (bytes.m_data) {
      std::memcpy(data, bytes.m_data, bytes.m_size);
      const std::size_t size = bytes.m_size;
      bytes.Free();
      bytes.m_size = size;
    }
    bytes.m_data = data;
    bytes.m_mapped = pages ? capacity : 0;
    while (bytes.m_size < capacity) {
      std::size_t got = 0;
      if (const int code = file.Read(data + bytes.m_size, capacity - bytes.m_size, got)) {
        bytes.Free();
        return Failed(code, DK_T("cannot read"), path, error);
      }
      bytes.m_size += got;
      // A plain file's read that stops short exactly at the size it was opened with has met
      // its end: the read that would return 0 is skipped.
      if (got == 0 || (hint && bytes.m_size == hint))
        return true;
    }
    capacity = fit(std::uint64_t{capacity} * 2);
  }
}

bool DKFile::WriteAll(const DKString& path, const void* data, std::size_t size, DKString& error) {
  FileImpl file;
  if (const int code = file.OpenForWriting(path))
    return Failed(code, DK_T("cannot open"), path, error);
  if (const int code = file.WriteAll(data, size))
    return Failed(code, DK_T("cannot write"), path, error);
  if (const int code = file.Close())
    return Failed(code, DK_T("cannot write"), path, error);
  return true;
}

bool DKFile::ReplaceAtomically(const DKString& path, const void* data, std::size_t size, DKString& error) {
  const DKString target = FileImpl::ResolveLinks(path);
  // The caller must be allowed to write the file itself, not only the folder: a read-only file
  // stays as it is, as it does for WriteAll.
  if (const int code = FileImpl::CheckWritable(target))
    return Failed(code, DK_T("cannot open"), target, error);
  DKString temp;
  FileImpl file;
  int code = 0;
  // A name can be taken by a temporary file that a killed process left behind.
  for (int attempt = 0; attempt < kTempAttempts; ++attempt) {
    temp = TempSiblingName(target);
    code = file.CreateNew(temp);
    if (!FileImpl::IsAlreadyExists(code))
      break;
  }
  if (code)
    return Failed(code, DK_T("cannot create a temporary file beside"), target, error);

  file.CopyPermissionsFrom(target); // best effort: the default permissions otherwise
  code = file.WriteAll(data, size);
  if (!code)
    code = file.Flush();
  const int closeCode = file.Close();
  if (!code)
    code = closeCode;
  if (!code)
    code = FileImpl::Rename(temp, target);
  if (code) {
    FileImpl::Remove(temp);
    return Failed(code, DK_T("cannot write"), target, error);
  }
  // Makes the rename itself durable; the file is already complete whatever this gives.
  FileImpl::FlushFolder(FolderOf(target));
  return true;
}
