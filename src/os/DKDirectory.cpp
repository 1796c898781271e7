#include "os/DKFileSystem.h"

#include <DorvikCore/DKDirectory.h>

#include <string>

namespace {

// The UTF-8 form of a path for the system calls. False when the path cannot be passed on: empty,
// or holding a NUL that would cut it short.
bool SystemPath(const DKString& path, std::string& utf8) {
  if (path.IsEmpty())
    return false;
  utf8 = path.AsUTF8();
  return utf8.find('\0') == std::string::npos;
}

// One directory whose parent exists. Another process may create it at the same moment, so a
// refused creation still counts when the directory is there afterwards.
bool MakeOne(const std::string& path) {
  return DKFileSystem::IsDirectory(path) || DKFileSystem::MakeDirectory(path) || DKFileSystem::IsDirectory(path);
}

} // namespace

bool DKDirectory::IsPathExists(const DKString& path) {
  std::string utf8;
  return SystemPath(path, utf8) && DKFileSystem::IsDirectory(utf8);
}

bool DKDirectory::Create(const DKString& path, bool createParents) {
  std::string utf8;
  if (!SystemPath(path, utf8))
    return false;
  if (!createParents)
    return MakeOne(utf8);

  // Walk down from the top: every prefix that ends before a separator names one level. The root
  // (a leading separator, a drive, a network share) and repeated separators never end a component.
  const std::size_t length = path.Length();
  const std::size_t root = DKFileSystem::RootLength(path.View());
  for (std::size_t i = root > 1 ? root : 1; i < length; ++i) {
    if (!DKFileSystem::IsSeparator(path[i]) || DKFileSystem::IsSeparator(path[i - 1]))
      continue;
    if (!MakeOne(path.SubStr(0, i).AsUTF8()))
      return false;
  }
  return MakeOne(utf8);
}

bool DKDirectory::Remove(const DKString& path) {
  std::string utf8;
  return SystemPath(path, utf8) && DKFileSystem::DeleteDirectory(utf8);
}
