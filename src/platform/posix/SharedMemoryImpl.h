// Named objects shared between processes, in POSIX shared memory (internal to the POSIX
// platform files).
//
// A segment "/DorvikCore.<kind>.<name>" holds a header and the object. The header keeps a
// robust lock and the processes that have the object open, with a count each; the last close
// removes the name, so the next open builds a new object, as the last handle closed on a
// Windows named object destroys it.
//
// A process that dies with the object open leaves its count behind. The next open notices that
// the process is gone (its identifier no longer exists) and drops the count; when no living
// process had the object open, the object is built anew from the opener's initial state. While
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
  // objectSize bytes, aligned on 64 bytes. Null, with error set, on failure.
  static DKSharedSegment* Open(const char* kind, const std::string& name, std::size_t objectSize, Initialise initialise,
                               void* context, int& error) noexcept;
  void* Object() const noexcept;
  // Ends this process's use of the object; the last one removes it. Deletes this.
  void Close() noexcept;

  // The shared-memory name used for a kind and a name.
  static std::string SegmentName(const char* kind, const std::string& name);

private:
  DKSharedSegment(std::string shmName, void* base, std::size_t size) noexcept
      : m_shmName(std::move(shmName)), m_base(base), m_size(size) {}

  std::string m_shmName;
  void* m_base;
  std::size_t m_size;
};
