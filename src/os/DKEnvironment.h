// The process's working directory, its environment and directory listings (internal),
// implemented once per platform in src/platform/<os>/EnvironmentImpl.cpp. Paths are UTF-8.
#pragma once

#include <string>
#include <vector>

class DKEnvironment {
public:
  // The working directory; false when the system cannot tell.
  static bool CurrentDirectory(std::string& path);
  // Makes path the working directory; false when refused.
  static bool ChangeDirectory(const std::string& path);
  // Sets (replaces) an environment variable; false when refused.
  static bool SetVariable(const char* name, const std::string& value);
  // The names of the entries of a directory that are not directories themselves ("." and ".."
  // excluded), in the order the system lists them. False when the directory cannot be read.
  static bool ListFiles(const std::string& directory, std::vector<std::string>& names);
  // Whether anything exists at path.
  static bool PathExists(const std::string& path);
  // Whether path names an existing file (not a directory) that the process may read.
  static bool IsReadableFile(const std::string& path);
  // The separator between the directories of the executable search path (PATH).
  static const char* PathListSeparator() noexcept;
  // Whether path is absolute.
  static bool IsAbsolutePath(const std::string& path);
};
