// File-system primitives of the operating system (internal), implemented once per platform in
// src/platform/<os>/DirectoryImpl.cpp. Paths are UTF-8 here; the portable classes (DKDirectory,
// the trace file) convert from DKString and build their logic on these calls.
#pragma once

#include <DorvikCore/DKTypes.h>

#include <cstdint>
#include <cstdio>
#include <string>

class DKFileSystem {
public:
  // The separator this platform puts between path components.
  static DKChar Separator() noexcept;
  // Whether ch separates path components here (on some systems more than one character does).
  static bool IsSeparator(DKChar ch) noexcept;
  // The length of the root that path starts with ("/" here, "C:\" or "\\server\share\" on
  // some systems); 0 for a relative path.
  static std::size_t RootLength(DKStringView path) noexcept;

  // Whether path names an existing directory; a symbolic link to one counts.
  static bool IsDirectory(const std::string& path) noexcept;
  // Creates one directory whose parent exists. True when it was created.
  static bool MakeDirectory(const std::string& path) noexcept;
  // Removes one empty directory. True when it was removed.
  static bool DeleteDirectory(const std::string& path) noexcept;
  // Opens a file with a C stdio mode ("w", "rb", ...); null, with the system's error code in
  // DKSystem::LastErrorCode, on failure.
  static std::FILE* OpenFile(const std::string& path, const char* mode) noexcept;
  // The size of an open file on the disk (what its stream still buffers not counted).
  static bool FileSize(std::FILE* file, std::uint64_t& size) noexcept;
  // Whether two open files are one file on the disk, whatever names (links, relative paths)
  // they were opened by.
  static bool IsSameFile(std::FILE* a, std::FILE* b) noexcept;
  // Renames a file (UTF-8 paths), replacing a file of the new name. False, with the
  // system's error code in DKSystem::LastErrorCode, when it cannot.
  static bool RenameFile(const std::string& from, const std::string& to) noexcept;
  // Removes a file. False, with the system's error code in DKSystem::LastErrorCode, when it
  // cannot (or there is none).
  static bool RemoveFile(const std::string& path) noexcept;
};
