// DKDirectory: directories of the file system.
#pragma once

#include <DorvikCore/DKString.h>
#include <DorvikCore/DKTypes.h>

// Static helpers over directories; paths are UTF-16 text with "/" separators.
class DK_EXPORT DKDirectory {
public:
  // Whether path names an existing directory; a symbolic link to one counts, a file does not.
  static bool IsPathExists(const DKString& path);

  // Creates the directory path; with createParents also every missing directory above it.
  // True when the directory exists afterwards, also when it existed already. False for an empty
  // path, a path that names something other than a directory, or when the system refuses
  // (no permission, a file in the way, ...). With createParents, directories created before a
  // later step failed are left in place.
  static bool Create(const DKString& path, bool createParents = false);

  // Removes an empty directory. False when path is not a directory, is not empty, or the system
  // refuses.
  static bool Remove(const DKString& path);
};
