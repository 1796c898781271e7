#include "app/DKAppPath.h"

#include <DorvikCore/DKError.h>

#include "os/DKEnvironment.h"
#include "os/DKFileSystem.h"

#include <string>
#include <vector>

namespace dkapp {

PathParts SplitPath(const DKString& path) {
  PathParts parts;
  std::size_t nameStart = 0;
  for (std::size_t i = path.Length(); i > 0; --i)
    if (DKFileSystem::IsSeparator(path[i - 1])) {
      nameStart = i;
      break;
    }
  parts.directory = path.SubStr(0, nameStart);
  const DKString name = path.SubStr(nameStart);
  // A leading dot starts a hidden name, not an extension.
  const std::size_t dot = name.RFind(DK_T('.'));
  if (dot == DKString::npos || dot == 0) {
    parts.baseName = name;
  } else {
    parts.baseName = name.SubStr(0, dot);
    parts.extension = name.SubStr(dot);
  }
  return parts;
}

DKString JoinPath(const DKString& directory, const DKString& name) {
  if (directory.IsEmpty() || (!name.IsEmpty() && DKFileSystem::IsSeparator(name[0])))
    return name;
  if (DKFileSystem::IsSeparator(directory[directory.Length() - 1]))
    return directory + name;
  return directory + DKFileSystem::Separator() + name;
}

DKString CurrentDirectory() {
  std::string utf8;
  return DKEnvironment::CurrentDirectory(utf8) ? DKString::FromUTF8(utf8) : DKString();
}

DKString MakeAbsolute(const DKString& path) {
  DKString full = path;
  if (!DKEnvironment::IsAbsolutePath(path.AsUTF8()))
    full = JoinPath(CurrentDirectory(), path);
  // The root ("/", a drive, a network share) stays, with this platform's separators; the rest is
  // rebuilt component by component, dropping empty and "." components.
  const std::size_t root = DKFileSystem::RootLength(full.View());
  DKString result = root ? DKString() : DKString(DKFileSystem::Separator());
  for (std::size_t i = 0; i < root; ++i)
    result += DKFileSystem::IsSeparator(full[i]) ? DKFileSystem::Separator() : full[i];
  std::size_t start = root;
  const std::size_t length = full.Length();
  for (std::size_t i = root; i <= length; ++i) {
    if (i < length && !DKFileSystem::IsSeparator(full[i]))
      continue;
    const DKString component = full.SubStr(start, i - start);
    if (!component.IsEmpty() && component != DK_T(".")) {
      if (!DKFileSystem::IsSeparator(result[result.Length() - 1]))
        result += DKFileSystem::Separator();
      result += component;
    }
    start = i + 1;
  }
  return result;
}

bool IsReadableFile(const DKString& path) { return DKEnvironment::IsReadableFile(path.AsUTF8()); }

} // namespace dkapp
