// Whole-file reading and writing built on the platform's FileImpl.
#include "os/DKFile.h"

#include <DorvikCore/DKError.h>

#include "os/DKFileSystem.h"
#include "os/DKProcess.h"
#include "os/DKSystem.h"

#include <atomic>
#include <string>

namespace {

bool Failed(int code, const DKChar* what, const DKString& path, DKString& error) {
  error = DKString(what) + DK_T(" ") + path + DK_T(": ");
  error += DKString::FromUTF8(DKSystem::ErrorCodeText(code));
  return false;
}

constexpr int kTempAttempts = 100;

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
  if (const int code = file.ReadAll(bytes))
    return Failed(code, DK_T("cannot read"), path, error);
  return true;
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
