// The kernel-style synchronisation objects behind DKMutex, DKEventSemaphore, DKCountingSemaphore
// and DKBaton (internal). Each is implemented once per platform, in
// src/platform/<os>/MutexImpl.cpp and EventImpl.cpp; a named object lives where every process
// of the user can open it.
#pragma once

#include <cstdint>
#include <string>

// How a wait ended.
enum class DKWaitStatus {
  Signalled, // the mutex is held, or the event was posted or pulsed
  TimedOut,
  Abandoned, // the mutex is held, but its previous owner ended while holding it
  Failed,
};

// A recursive mutex that notices when its owner dies. Abandoned means the caller now holds the
// mutex and that it has been made consistent again.
class DKMutexImpl {
public:
  // Creates an unnamed mutex (empty name) or creates or opens the named one (UTF-8 name).
  // initiallyOwned counts only when the mutex is created. Null, with error set, on failure.
  static DKMutexImpl* Open(const std::string& name, bool initiallyOwned, int& error) noexcept;
  // Destroys an unnamed mutex; ends this process's use of a named one.
  void Close() noexcept;

  // timeoutMs < 0 waits without limit, 0 tries once. error is set when the result is Failed.
  DKWaitStatus Lock(int timeoutMs, int& error) noexcept;
  // 0, or the system error (the caller does not hold the mutex, for instance).
  int Unlock() noexcept;

protected:
  DKMutexImpl() = default;
  ~DKMutexImpl() = default;
};

// A manual-reset event with Pulse. A wait ends when the event is posted, or when it moves on
// from the state the wait started from (a post or a pulse since then).
class DKEventImpl {
public:
  // As DKMutexImpl::Open.
  static DKEventImpl* Open(const std::string& name, bool initiallyPosted, int& error) noexcept;
  void Close() noexcept;

  void Post() noexcept;
  void Reset() noexcept;
  void Pulse() noexcept;
  bool IsPosted() const noexcept;

  // The state a later WaitAfter starts from. Taken while holding a lock that the poster also
  // holds, then WaitAfter once the lock is released, it releases the lock and waits as one step:
  // a post or pulse made after the ticket is never missed.
  std::uint32_t Ticket() const noexcept;
  DKWaitStatus WaitAfter(std::uint32_t ticket, int timeoutMs) noexcept;
  // WaitAfter with the timeout in nanoseconds (negative: without limit; 0: no wait), for timers
  // that must not round up to the next millisecond. The system may still wake a little late.
  DKWaitStatus WaitAfterNs(std::uint32_t ticket, std::int64_t timeoutNs) noexcept;
  DKWaitStatus Wait(int timeoutMs) noexcept { return WaitAfter(Ticket(), timeoutMs); }

protected:
  DKEventImpl() = default;
  ~DKEventImpl() = default;
};
