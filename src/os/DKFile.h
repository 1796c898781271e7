// Whole-file reading and writing for the library's own files (configuration files). Internal.
// DKFile is the portable face; FileImpl holds the operating-system calls and is implemented
// once per platform (src/platform/<os>/FileImpl.cpp).
#pragma once

#include <DorvikCore/DKString.h>

#include <cstddef>
#include <cstdint>
#include <string>

class DKFile {
public:
  // Reads the whole file. False when it cannot be opened or read; error then says why.
  static bool ReadAll(const DKString& path, std::string& bytes, DKString& error);
  // Replaces the file's content in place, creating the file when it is missing. The data is
  // not flushed to the disk.
  static bool WriteAll(const DKString& path, const void* data, std::size_t size, DKString& error);
  // Writes the data to a new temporary sibling of the file, flushes it to the disk and renames
  // it over the file, so the file is always either the old one or the new one. A symbolic link
  // is followed: its target is replaced and the link stays. The new file takes the old one's
  // permissions. On failure the temporary file is removed and the file is left as it was.
  static bool ReplaceAtomically(const DKString& path, const void* data, std::size_t size, DKString& error);
  // The name of a temporary sibling of path: a hidden file in the same folder whose name
  // holds the process id and a counter.
  static DKString TempSiblingName(const DKString& path);
  // The folder part of path ("." when it has none).
  static DKString FolderOf(const DKString& path);
};

class FileImpl {
public:
  FileImpl() noexcept = default;
  ~FileImpl();
  FileImpl(const FileImpl&) = delete;
  FileImpl& operator=(const FileImpl&) = delete;

  // Each operation returns 0 or the system's error code.
  int OpenForReading(const DKString& path);
  int OpenForWriting(const DKString& path); // created when missing, else emptied
  int CreateNew(const DKString& path);      // fails with the "exists" code when it exists
  int ReadAll(std::string& bytes);
  int WriteAll(const void* data, std::size_t size);
  int Flush(); // to the disk
  int Close();
  // Gives the open file the permissions (and, where allowed, the owner) of the file at path;
  // nothing to do when that file does not exist.
  int CopyPermissionsFrom(const DKString& path);

  static int Rename(const DKString& from, const DKString& to);
  static int Remove(const DKString& path);
  static int FlushFolder(const DKString& folder);
  // The file a chain of symbolic links at path leads to; path itself when it is no link.
  static DKString ResolveLinks(const DKString& path);
  static bool IsAlreadyExists(int error) noexcept;

private:
  std::intptr_t m_handle = -1;
};
