// Whole-file reading and writing for the library's own files (configuration files, plug-in
// lists). Internal. DKFile is the portable face; FileImpl holds the operating-system calls and is
// implemented once per platform (src/platform/<os>/FileImpl.cpp).
//
// Only plain files are read or written: a FIFO, a socket or a device is refused at once with an
// error that names it, and nothing ever waits for a writer or a reader at the other end.
#pragma once

#include <DorvikCore/DKString.h>

#include <cstddef>
#include <cstdint>
#include <string>

// A file's bytes in memory pages of their own. A reader that walks through them can hand the
// pages it has passed back to the system (Release), so that a large file is not held twice, once
// as bytes and once as what the reader made of them.
class DKFileBytes {
public:
  DKFileBytes() noexcept = default;
  ~DKFileBytes();
  DKFileBytes(const DKFileBytes&) = delete;
  DKFileBytes& operator=(const DKFileBytes&) = delete;

  const unsigned char* Data() const noexcept { return m_data; }
  std::size_t Size() const noexcept { return m_size; }
  // Gives the whole pages below offset back to the system. They must not be read again: on
  // this platform reading them faults. A small file is held in one heap block, which stays
  // whole until the end.
  void Release(std::size_t offset) noexcept;

private:
  friend class DKFile;
  void Free() noexcept;

  unsigned char* m_data = nullptr;
  std::size_t m_size = 0;
  std::size_t m_mapped = 0;   // bytes of pages held from the system; 0: a heap block
  std::size_t m_released = 0; // bytes at the start given back
};

class DKFile {
public:
  // Reads the whole file. False when it cannot be opened or read, or is not a plain file;
  // error then says why.
  static bool ReadAll(const DKString& path, std::string& bytes, DKString& error);
  static bool ReadAll(const DKString& path, DKFileBytes& bytes, DKString& error);
  // Replaces the file's content in place, creating the file when it is missing. The data is
  // not flushed to the disk.
  static bool WriteAll(const DKString& path, const void* data, std::size_t size, DKString& error);
  // Writes the data to a new temporary sibling of the file, flushes it to the disk and renames
  // it over the file, so the file is always either the old one or the new one. A file that the
  // caller could not open for writing is refused, as WriteAll refuses it. A symbolic link is
  // followed: its target is replaced and the link stays. The new file takes the old one's
  // permissions, and its owner where the system allows. On failure the temporary file is
  // removed and the file is left as it was.
  static bool ReplaceAtomically(const DKString& path, const void* data, std::size_t size, DKString& error);
  // The name of a temporary sibling of path: a hidden file in the same folder whose name
  // holds the process id and a counter.
  static DKString TempSiblingName(const DKString& path);
  // The folder part of path ("." when it has none).
  static DKString FolderOf(const DKString& path);
};

class FileImpl {
public:
  // Results of the operations beside the system's error codes (which are positive): the path
  // names something that is not a plain file.
  enum : int { kIsFifo = -1, kIsSocket = -2, kIsDevice = -3, kIsOtherKind = -4 };

  FileImpl() noexcept = default;
  ~FileImpl();
  FileImpl(const FileImpl&) = delete;
  FileImpl& operator=(const FileImpl&) = delete;

  // Each operation returns 0, the system's error code or one of the codes above. None of them
  // blocks on a FIFO or a device.
  int OpenForReading(const DKString& path);
  int OpenForWriting(const DKString& path); // created when missing, else emptied
  int CreateNew(const DKString& path);      // fails with the "exists" code when it exists
  // 0 when path is missing, or is a plain file that this process may open for writing; what
  // opening it for writing would fail with otherwise. Nothing is changed.
  static int CheckWritable(const DKString& path);
  // The size the system gives for the open file (0 when it gives none); on POSIX, the size
  // the path had just before it was opened.
  std::uint64_t SizeHint();
  // Reads at most size bytes; got is 0 at the end of the file.
  int Read(void* buffer, std::size_t size, std::size_t& got);
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
  // The system's code for "not enough memory".
  static int OutOfMemory() noexcept;

  // Memory pages straight from the system, zero-filled; null when none can be had.
  static void* AllocatePages(std::size_t size) noexcept;
  // Gives pages back while keeping the address range: afterwards they cannot be read.
  static void DiscardPages(void* start, std::size_t size) noexcept;
  static void FreePages(void* start, std::size_t size) noexcept;
  static std::size_t PageSize() noexcept;

private:
  std::intptr_t m_handle = -1;
  std::uint64_t m_openSize = 0; // POSIX: from the look made before the open
  std::uint64_t m_position = 0; // POSIX: bytes read while the kind is unchecked
  bool m_kindChecked = true;    // POSIX: false until the descriptor's own kind is known
};
