// Synchronisation objects: critical sections, kernel-style mutexes and events (optionally named
// and then shared between processes), a counting semaphore and a baton that makes threads take
// turns in a fixed order.
//
// Timeouts are in milliseconds: DK_INFINITE (any negative value) waits without limit, 0 tries
// once. Lock and unlock exist under two spellings (Lock/lock, Unlock/unlock, ...). Besides,
// DKCriticalSection, DKSynchronizedCriticalSection, DKMutex and DKCountingSemaphore (for one
// unit) have the standard forms lock(), try_lock(), try_lock_for(duration),
// try_lock_until(time point) and unlock(), so the standard guards work with them:
//   DKMutex mutex(DK_T("jobs"));
//   {
//     std::lock_guard guard(mutex);           // returns holding it, also when abandoned
//     if (mutex.WasAbandoned()) RepairSharedState();
//   }
//   std::unique_lock lock(mutex, std::chrono::milliseconds(200)); // try_lock_for
//   if (lock.owns_lock()) ...
//   std::scoped_lock both(section, mutex);   // several at once, without deadlock
// A standard lock() returns only once the caller holds the object; unlock() after it cannot
// fail, so a guard's destructor never throws.
//
// Named mutexes and events live in shared memory, one object per name (mutexes and events have
// names of their own), shared by the processes of one user; the last close removes the object.
// When a process ends without closing them (a crash), the next open notices it: a named mutex the
// dead process held reports abandoned at the next Lock, and an object that no living process
// has open any more is built anew from the opener's initial state, as on a system that closes a
// dead process's handles. Any number of processes may open one name; a process holds one file
// descriptor per name it has open, however many objects it opened with that name.
#pragma once

#include <DorvikCore/DKString.h>
#include <DorvikCore/DKTypes.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

// Wait without limit.
inline constexpr int DK_INFINITE = -1;

// A standard duration for the timed forms, clamped to what a millisecond count can hold, so
// that std::chrono::duration::max() waits long rather than overflowing.
template <class Rep, class Period>
std::chrono::steady_clock::duration DKSyncClampedDuration(const std::chrono::duration<Rep, Period>& d) {
  using Ms = std::chrono::duration<double, std::milli>;
  const double ms = std::chrono::duration_cast<Ms>(d).count();
  if (!(ms > 0))
    return std::chrono::steady_clock::duration::zero();
  constexpr double longest = 2147483647.0; // about 24 days, as a millisecond timeout holds
  return std::chrono::duration_cast<std::chrono::steady_clock::duration>(Ms(ms < longest ? ms : longest));
}

// Milliseconds left until a deadline, rounded up and within [0, INT_MAX].
DK_EXPORT int DKSyncMillisecondsUntil(std::chrono::steady_clock::time_point deadline) noexcept;

// The standard timed tries of a lockable class, over its TryLockUntil(steady deadline).
template <class Lockable>
class DKTimedTries {
public:
  // True when the object was taken within timeout (measured on the steady clock; a timeout of 0
  // or less tries once, one beyond about 24 days waits that long).
  template <class Rep, class Period>
  bool try_lock_for(const std::chrono::duration<Rep, Period>& timeout) {
    return static_cast<Lockable*>(this)->TryLockUntil(std::chrono::steady_clock::now() + DKSyncClampedDuration(timeout));
  }
  // True when the object was taken before deadline, a time point of any clock (read as the time
  // left until it, as the standard allows).
  template <class Clock, class Duration>
  bool try_lock_until(const std::chrono::time_point<Clock, Duration>& deadline) {
    return try_lock_for(deadline - Clock::now());
  }
};
// The raw results of DKEventSemaphore::Wait.
inline constexpr std::uint32_t DK_WAIT_OBJECT_0 = 0; // The event is posted.
inline constexpr std::uint32_t DK_WAIT_TIMEOUT = 258; // The timeout passed first.

class DKMutexImpl;
class DKEventImpl;

// A recursive lock for the threads of one process. The owning thread may enter again; it must
// leave as many times as it entered. Unlocking a section the caller does not hold does nothing.
// Entering a free section and leaving it cost one atomic operation each; a thread that finds
// the section held spins briefly, then sleeps until it is released. The owner is told by the
// library's own code only: on Windows each module links its own threads runtime, whose
// std::thread::id of one thread differs from module to module.
class DK_EXPORT DKCriticalSection : public DKTimedTries<DKCriticalSection> {
public:
  // lockNow: enter the section at once.
  explicit DKCriticalSection(bool lockNow = false);
  ~DKCriticalSection();
  // Not copyable: threads share one section.
  DKCriticalSection(const DKCriticalSection&) = delete;
  DKCriticalSection& operator=(const DKCriticalSection&) = delete;

  // Enters the section, waiting as long as another thread holds it; lock and obtain are the same.
  void Lock() noexcept;
  void lock() noexcept { Lock(); }
  void obtain() noexcept { Lock(); }
  // Leaves the section once; the last leave frees it. unlock and release are the same.
  void Unlock() noexcept;
  void unlock() noexcept { Unlock(); }
  void release() noexcept { Unlock(); }
  // Enters when the section is free or already held by the caller, without waiting; true when it
  // entered.
  bool TryLock() noexcept;
  bool try_lock() noexcept { return TryLock(); }
  // try_lock_for and try_lock_until enter when the section becomes free within the time
  // (waiting in growing steps of at most a millisecond: a section is meant to be held briefly).

  // Whether the caller could enter now: 0 when another thread holds the section, otherwise the
  // recursion count the caller had while trying (1 when the section was free, more when the
  // caller already held it). A non-zero result does not mean the section is held by anyone.
  unsigned IsLocked();

private:
  friend class DKTimedTries<DKCriticalSection>;
  enum : std::uint32_t { Free = 0, Held = 1, HeldWaited = 2 };
  bool TryLockUntil(std::chrono::steady_clock::time_point deadline);
  void LockContended() noexcept;
  void WakeWaiter();

  // Free, Held, or HeldWaited: held, and someone may be asleep waiting for it.
  std::atomic<std::uint32_t> m_state;
  // Written only by the holder: a thread that finds itself here holds the section.
  std::atomic<std::thread::id> m_owner;
  unsigned m_count;
};

// A recursive mutex with timed locking that notices when its owner died: the next Lock then
// returns false and leaves the mutex free and usable. A mutex with a name is shared by every
// process of the user that opens the same name; the last close destroys it.
// Failures of the system throw DKWindowsLastErrorException.
class DK_EXPORT DKMutex : public DKTimedTries<DKMutex> {
public:
  // The empty name: an unnamed mutex.
  static const DKString defaultValue;

  // initiallyOwned is honoured when the mutex is created, not when a named mutex that already
  // exists is opened.
  explicit DKMutex(const DKString& name = DKString(), bool initiallyOwned = false);
  // Closes the mutex (a named one is destroyed by the last close in any process).
  ~DKMutex();
  // Not copyable: open the name again to share a named mutex.
  DKMutex(const DKMutex&) = delete;
  DKMutex& operator=(const DKMutex&) = delete;

  // True when the caller now holds the mutex. False when the timeout passed, or when the
  // previous owner ended while holding it (the mutex is then made consistent and left free).
  bool Lock(int timeoutMs = DK_INFINITE);
  bool lock(int timeoutMs) { return Lock(timeoutMs); }
  // Locks without limit; returns holding the mutex (an abandoned mutex is taken over).
  void obtain();
  // Leaves the mutex once (the last leave frees it); unlock and release are the same. Throws when
  // the caller does not hold the mutex.
  void Unlock();
  void unlock() { Unlock(); }
  void release() { Unlock(); }

  // The standard forms. Each returns holding the mutex (or false for the tries): a mutex whose
  // previous owner ended while holding it is made consistent and taken over, as the kernel
  // hands it over, and WasAbandoned() then tells the new holder, who may want to repair what
  // the mutex guards.
  void lock();
  bool try_lock() { return LockTakingOver(0); }
  // try_lock_for and try_lock_until: the same, waiting at most that long.

  // Whether the holder's last successful standard lock took the mutex over from an owner that
  // ended while holding it. Meaningful to the holder only.
  bool WasAbandoned() const noexcept { return m_abandoned; }

  // The library's object behind the mutex (opaque): the same for the life of the object.
  void* GetHandle() const noexcept { return m_handle; }

private:
  friend class DKTimedTries<DKMutex>;
  bool LockTakingOver(int timeoutMs);
  bool TryLockUntil(std::chrono::steady_clock::time_point deadline) {
    return LockTakingOver(DKSyncMillisecondsUntil(deadline));
  }

  DKMutexImpl* m_handle;
  bool m_abandoned = false;
};

// A manual-reset event: once posted it stays posted, releasing every waiter, until Reset.
// Pulse releases the threads waiting at that moment and leaves the event reset. A named event
// is shared by every process of the user that opens the same name; the last close destroys it.
class DK_EXPORT DKEventSemaphore {
public:
  // The empty name: an unnamed event.
  static const DKString defaultValue;

  // initiallyPosted is honoured when the event is created, not when a named event that already
  // exists is opened. Failures of the system throw DKWindowsLastErrorException.
  explicit DKEventSemaphore(const DKString& name = DKString(), bool initiallyPosted = false);
  // Closes the event (a named one is destroyed by the last close in any process).
  ~DKEventSemaphore();
  // Not copyable: open the name again to share a named event.
  DKEventSemaphore(const DKEventSemaphore&) = delete;
  DKEventSemaphore& operator=(const DKEventSemaphore&) = delete;

  // Posts the event: every waiter is released, and so is every later Wait until Reset.
  void Post();
  void post() { Post(); }
  // Resets the event: later waits wait.
  void Reset();
  void reset() { Reset(); }
  // Releases the threads waiting now and leaves the event reset.
  void Pulse();
  void pulse() { Pulse(); }
  // DK_WAIT_OBJECT_0 (0) when the event is or becomes posted (or is pulsed) within the
  // timeout, DK_WAIT_TIMEOUT (258) otherwise.
  std::uint32_t Wait(int timeoutMs = DK_INFINITE);
  std::uint32_t wait(int timeoutMs = DK_INFINITE) { return Wait(timeoutMs); }
  // Whether the event is posted now (a wait that does not wait).
  bool Posted();
  bool posted() { return Posted(); }

  // The library's object behind the event (opaque): the same for the life of the object.
  void* GetHandle() const noexcept { return m_handle; }

private:
  DKEventImpl* m_handle;
};

// A critical section with an event, for a simple condition wait: one thread waits in
// UnlockWait, another wakes it with PostUnlock.
class DK_EXPORT DKSynchronizedCriticalSection : public DKCriticalSection {
public:
  // A free section and a reset event.
  DKSynchronizedCriticalSection();
  ~DKSynchronizedCriticalSection();

  // Posts the event, then leaves the section.
  void PostUnlock();
  // Resets the event, leaves the section (once), waits for the event without limit and resets
  // it again. The section is not entered again on return.
  void UnlockWait();

private:
  DKEventSemaphore m_event;
};

// A counting semaphore built from a mutex: Lock waits, polling every 10 milliseconds, until the
// count covers the request. Unlock beyond the maximum throws "DKCountingSemaphore overflow".
class DK_EXPORT DKCountingSemaphore : public DKTimedTries<DKCountingSemaphore> {
public:
  // The maximum when none is given.
  static constexpr std::uint32_t DefaultMaximum = 2147483647;

  // A count of initial, at most maximum (DefaultMaximum unless given). Throws
  // "DKCountingSemaphore exception: initial greater than the maximum".
  explicit DKCountingSemaphore(std::uint32_t initial);
  DKCountingSemaphore(std::uint32_t initial, std::uint32_t maximum);
  ~DKCountingSemaphore();
  // Not copyable: threads share one semaphore.
  DKCountingSemaphore(const DKCountingSemaphore&) = delete;
  DKCountingSemaphore& operator=(const DKCountingSemaphore&) = delete;

  // Takes n from the count, waiting until it is there. A request above the maximum could never
  // be met: it throws instead of waiting for ever. wait is the same.
  void Lock(std::uint32_t n = 1);
  void wait(std::uint32_t n = 1) { Lock(n); }
  // Takes n when the count covers it, without waiting; true when it took them.
  bool TryLock(std::uint32_t n = 1);
  // Gives n back; throws "DKCountingSemaphore overflow", the count unchanged, when that would
  // pass the maximum. post is the same.
  void Unlock(std::uint32_t n = 1);
  void post(std::uint32_t n = 1) { Unlock(n); }

  // The standard forms, for one unit: a guard takes one unit and gives it back (the timed tries
  // poll every 10 milliseconds, as Lock does).
  void lock() { Lock(1); }
  bool try_lock() { return TryLock(1); }
  void unlock() { Unlock(1); }

  // The count now (it may change as soon as it is read).
  std::uint32_t GetCount();
  // The maximum.
  std::uint32_t GetSize();

private:
  friend class DKTimedTries<DKCountingSemaphore>;
  bool TryLockUntil(std::chrono::steady_clock::time_point deadline);

  DKMutex m_mutex;
  std::uint32_t m_count;
  std::uint32_t m_maximum;
};

// Threads taking turns in a fixed order: the thread of turn k calls Lock(k), does its work and
// calls Unlock. Lock(k) waits until turn k - 1 has been taken and released, then holds the
// baton. A turn already reached returns at once without holding anything. Failures of the
// system are ignored.
class DK_EXPORT DKBaton {
public:
  // No turn taken yet (GetTurn is 0): turn 1 goes first.
  DKBaton();
  ~DKBaton();
  // Not copyable: threads share one baton.
  DKBaton(const DKBaton&) = delete;
  DKBaton& operator=(const DKBaton&) = delete;

  // Takes turn: waits until the turn before it was taken and released, then holds the baton
  // and makes turn the last one taken. Returns at once, holding nothing, for a turn reached
  // already. lock is the same.
  void Lock(std::uint32_t turn);
  void lock(std::uint32_t turn) { Lock(turn); }
  // Wakes the threads waiting for their turn and lets go of the baton.
  void Unlock();
  void unlock() { Unlock(); }

  // The last turn taken (0 at first).
  std::uint32_t GetTurn() const noexcept { return m_turn.load(std::memory_order_acquire); }

private:
  DKMutexImpl* m_mutex;
  DKEventImpl* m_event;
  std::atomic<std::uint32_t> m_turn;
};
