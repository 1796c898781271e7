// Named objects shared between processes, in POSIX shared memory (internal to the POSIX
// platform files).
//
// A segment "/DorvikCore.<kind>.<name>" holds a header and the object. Every process that has
// the object open holds a shared lock on the segment's first byte (an open-file-description
// lock, which the system drops when the process ends, however it ends); the last close, the
// one that can turn its lock exclusive, removes the name, so the next open builds a new object,
// as the last handle closed on a Windows named object destroys it. Any number of processes may
// have one name open; a process keeps one descriptor and one mapping per name it has open,
// shared by all its opens of that name.
//
// A process that dies with the object open leaves no trace in the segment. An opener that
// finds no other process holding the lock builds the object anew from its initial state. While
// other processes still have it open, the object lives on: a mutex the dead process held
// reports abandoned at the next lock, an event keeps its state.
#pragma once

#include <cstddef>
#include <string>
#include <utility>

class DKSharedSegment {
public:
  // Builds the object in place; called with the header locked, when the segment is created and
  // when every process that had it open ended without closing it.
  typedef int (*Initialise)(void* object, void* context);

  // Creates or opens the segment of that kind and name (UTF-8) with room for an object of
  // objectSize bytes, aligned on 64 bytes. Null, with error set, on failure. A name this
  // process has open already gives the same segment (the object is not initialised again).
  static DKSharedSegment* Open(const char* kind, const std::string& name, std::size_t objectSize, Initialise initialise,
                               void* context, int& error) noexcept;
  void* Object() const noexcept;
  // Ends one use of the segment; the process's last one ends its use of the object, and the
  // last process's removes the object. The segment may be deleted.
  void Close() noexcept;

  // The shared-memory name used for a kind and a name.
  static std::string SegmentName(const char* kind, const std::string& name);

private:
  DKSharedSegment(std::string shmName, int fd, void* base, std::size_t size, int pid) noexcept
      : m_shmName(std::move(shmName)), m_fd(fd), m_base(base), m_size(size), m_pid(pid) {}
  static DKSharedSegment* OpenNew(const std::string& shmName, std::size_t objectSize, Initialise initialise,
                                  void* context, int& error);

  std::string m_shmName;
  int m_fd;          // holds the process's shared lock
  void* m_base;
  std::size_t m_size;
  int m_pid;         // the process that opened it (a forked child only inherits it)
  unsigned m_opens = 1; // guarded by the process's table of open segments
};
