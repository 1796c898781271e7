// The kernel-style synchronisation objects behind DKMutex, DKEventSemaphore, DKCountingSemaphore
// and DKBaton (internal). Each is implemented once per platform, in
// src/platform/<os>/MutexImpl.cpp and EventImpl.cpp; a named object lives where every process
// of the user can open it.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

// A hash of a named object's whole name (64-bit FNV-1a): a name too long for the system keeps
// its beginning and this hash.
inline std::uint64_t DKSyncNameHash(const std::string& name) noexcept {
  std::uint64_t hash = 14695981039346656037ull;
  for (const unsigned char c : name) {
    hash ^= c;
    hash *= 1099511628211ull;
  }
  return hash;
}

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

// The state word of DKEventImpl, the same on every platform: bit 0 posted, bit 1 "a waiter may
// sleep", and above them a generation that every post and pulse moves on. A wait that started
// from a ticket (the word when it began) is over once the word is posted or its generation
// differs from the ticket's, so a pulse (which moves the generation and leaves the event reset)
// releases exactly the threads already waiting. The platform files add the sleeping and waking.
namespace dkevent {

inline constexpr std::uint32_t posted = 1;
inline constexpr std::uint32_t waiters = 2;
inline constexpr std::uint32_t generationStep = 4;
inline constexpr std::uint32_t generationMask = ~(posted | waiters);

static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t) &&
                  std::atomic<std::uint32_t>::is_always_lock_free,
              "the event word is slept on by address and shared with other processes");

// The word after a post: posted, in a new generation unless it was posted already.
constexpr std::uint32_t AfterPost(std::uint32_t w) noexcept {
  return (w & posted) ? w : (((w & generationMask) + generationStep) | posted);
}

// The word after a pulse: reset, in a new generation, with nobody marked as sleeping.
constexpr std::uint32_t AfterPulse(std::uint32_t w) noexcept { return (w & generationMask) + generationStep; }

// Whether a wait that started from ticket is over when the word is w.
constexpr bool Released(std::uint32_t w, std::uint32_t ticket) noexcept {
  return (w & posted) != 0 || (w & generationMask) != (ticket & generationMask);
}

// Moves the word on with change(old) in one sequentially consistent step and gives the word it
// replaced; false when change left it as it was (nothing to wake).
template <class Change>
bool Update(std::atomic<std::uint32_t>& word, Change change, std::uint32_t& old) noexcept {
  old = word.load(std::memory_order_relaxed);
  std::uint32_t next;
  do {
    next = change(old);
    if (next == old)
      return false;
  } while (!word.compare_exchange_weak(old, next, std::memory_order_seq_cst, std::memory_order_relaxed));
  return true;
}

} // namespace dkevent

// A manual-reset event with Pulse. A wait ends when the event is posted, or when it moves on
// from the state the wait started from (a post or a pulse since then).
class DKEventImpl {
public:
  // As DKMutexImpl::Open.
  static DKEventImpl* Open(const std::string& name, bool initiallyPosted, int& error) noexcept;
  void Close() noexcept;

  void Post() noexcept { Update(dkevent::AfterPost); }
  void Reset() noexcept { m_word->fetch_and(~dkevent::posted, std::memory_order_acq_rel); }
  void Pulse() noexcept { Update(dkevent::AfterPulse); }
  bool IsPosted() const noexcept { return (m_word->load(std::memory_order_acquire) & dkevent::posted) != 0; }

  // The state a later WaitAfter starts from. Taken while holding a lock that the poster also
  // holds, then WaitAfter once the lock is released, it releases the lock and waits as one step:
  // a post or pulse made after the ticket is never missed.
  std::uint32_t Ticket() const noexcept { return m_word->load(std::memory_order_acquire); }
  DKWaitStatus WaitAfter(std::uint32_t ticket, int timeoutMs) noexcept {
    return WaitAfterNs(ticket, timeoutMs < 0 ? -1 : std::int64_t{timeoutMs} * 1000000);
  }
  // WaitAfter with the timeout in nanoseconds (negative: without limit; 0: no wait), for timers
  // that must not round up to the next millisecond. The system may still wake a little late.
  DKWaitStatus WaitAfterNs(std::uint32_t ticket, std::int64_t timeoutNs) noexcept;
  DKWaitStatus Wait(int timeoutMs) noexcept { return WaitAfter(Ticket(), timeoutMs); }

protected:
  DKEventImpl() = default;
  ~DKEventImpl() = default;

  // The event's word (dkevent), set by Open: in the object for an unnamed event, in memory that
  // the processes share for a named one.
  std::atomic<std::uint32_t>* m_word = nullptr;

private:
  // Wakes the threads sleeping on the word, which has just moved on from old.
  void WakeSleepers(std::uint32_t old) noexcept;

  template <class Change>
  void Update(Change change) noexcept {
    std::uint32_t old = 0;
    if (dkevent::Update(*m_word, change, old))
      WakeSleepers(old);
  }
};

// Sleeping on a 32-bit word of this process (the critical section's lock word), the system's own
// way. The standard library's atomic wait is not used: the one of MinGW's runtime loses wakes.
class DKWordWaitImpl {
public:
  // Returns once woken, at once when the word no longer holds expected, and now and then for
  // nothing: the caller looks at the word again.
  static void Wait(const std::atomic<std::uint32_t>& word, std::uint32_t expected) noexcept;
  // Wakes one thread sleeping on the word.
  static void WakeOne(std::atomic<std::uint32_t>& word) noexcept;
};
