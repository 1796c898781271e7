// Threads as the operating system gives them (internal): creation held at a start gate, the
// thread handle that waits for the end, priorities, thread-local slots and the system's view
// of a thread (CPU times, creation). Implemented once per platform, in
// src/platform/<os>/ThreadImpl.cpp.
#pragma once

#include <cstddef>
#include <cstdint>

// A thread handle: counted, so that the thread itself, the registry and the thread object can
// each hold it. Any number of threads may wait on it; Close reclaims the thread exactly once.
class DKThreadHandleImpl;

// The system's view of one thread, times in 100-nanosecond units. Zero when the thread is gone.
struct DKThreadTimes {
  std::int64_t creationUnix100ns = 0; // since 1970-01-01 UTC; 0 when unknown
  std::int64_t kernel100ns = 0;
  std::int64_t user100ns = 0;
};

class DKThreadImpl {
public:
  typedef void (*Entry)(void* argument);

  // Creates a thread that waits at its start gate until Resume (or ends at once after Cancel)
  // and then runs entry(argument). stackSize 0 means the system's default. Gives the thread's
  // identifier in id. Null, with error set, when the system refuses.
  static DKThreadHandleImpl* CreateHeld(std::size_t stackSize, Entry entry, void* argument, std::uint32_t& id,
                                        int& error) noexcept;
  static void Resume(DKThreadHandleImpl* handle) noexcept;
  // Lets a held thread end without running its entry.
  static void Cancel(DKThreadHandleImpl* handle) noexcept;

  static void AddRef(DKThreadHandleImpl* handle) noexcept;
  static void Release(DKThreadHandleImpl* handle) noexcept;
  // True once the thread has finished its entry. timeoutMs < 0 waits without limit. A thread
  // that waits for itself is told false at once (without limit it would never return).
  static bool Wait(DKThreadHandleImpl* handle, int timeoutMs) noexcept;
  // Reclaims the thread's system resources (waiting for its end, unless the caller is that
  // thread) and drops one reference.
  static void Close(DKThreadHandleImpl* handle) noexcept;

  // The stack size of the calling thread, in bytes (0 when unknown).
  static std::size_t CurrentStackSize() noexcept;
  // True while the process ends after the system has already ended every other thread (on
  // Windows, a DLL's exit handlers run then): a wait for another thread would never return.
  static bool OtherThreadsEnded() noexcept;

  // Priorities are the Windows thread priority values; 0 or the system error.
  static int SetPriority(std::uint32_t id, int priority) noexcept;
  // The thread's priority value; false when the thread is unknown to the system.
  static bool GetPriority(std::uint32_t id, int& priority) noexcept;
  // The process's priority class, as the Windows constant value.
  static int ProcessPriorityClass() noexcept;

  static bool GetTimes(std::uint32_t id, DKThreadTimes& times) noexcept;
  // The wall clock now, 100-nanosecond units since 1970-01-01 UTC.
  static std::int64_t WallClockNow100ns() noexcept;

  // Called in a catch (...) block: rethrows the exception when it is the system's own
  // unwinding of a cancelled thread, which must not be swallowed; returns otherwise.
  static void RethrowIfCancellation();

  // Thread-local slots.
  static bool AllocateKey(std::uint32_t& key, int& error) noexcept;
  static void ReleaseKey(std::uint32_t key) noexcept;
  static bool SetKeyValue(std::uint32_t key, void* value) noexcept;
  static void* GetKeyValue(std::uint32_t key) noexcept;
};
