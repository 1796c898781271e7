// Path helpers of the application framework (internal).
#pragma once

#include <DorvikCore/DKString.h>

namespace dkapp {

// A path cut in three: the directory with its final separator (empty when there is none), the
// base name, and the extension with its dot (empty when there is none).
struct PathParts {
  DKString directory;
  DKString baseName;
  DKString extension;
};

PathParts SplitPath(const DKString& path);
// dir + separator + name; name alone when dir is empty or name is absolute.
DKString JoinPath(const DKString& directory, const DKString& name);
// The path made absolute against the working directory, with "." components and repeated or
// final separators removed.
DKString MakeAbsolute(const DKString& path);
// The working directory; empty when the system cannot tell.
DKString CurrentDirectory();
// Whether the file exists and can be opened for reading.
bool IsReadableFile(const DKString& path);

} // namespace dkapp
