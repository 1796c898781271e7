// A place where threads wait for a condition that another thread makes true (internal): the
// pool, the timer thread and the application's timer queue sleep on it.
//
// Used like a condition variable, over the event's ticket: the waiter takes a ticket while it
// holds the lock that guards the condition, releases the lock and waits after the ticket; the
// thread that changes the condition (under the same lock) then calls WakeAll. A wake made after
// the ticket is never missed, so nothing is lost between the release and the wait.
#pragma once

#include "threads/DKSyncCommon.h"
#include "threads/DKSyncImpl.h"

#include <chrono>
#include <cstdint>

class DKWaitPoint {
public:
  DKWaitPoint() {
    int error = 0;
    m_event = DKEventImpl::Open(std::string(), false, error);
    if (!m_event)
      DKThrowSystemError(error);
  }
  ~DKWaitPoint() { m_event->Close(); }
  DKWaitPoint(const DKWaitPoint&) = delete;
  DKWaitPoint& operator=(const DKWaitPoint&) = delete;

  std::uint32_t Ticket() const noexcept { return m_event->Ticket(); }
  // True when woken after the ticket, false when the timeout (milliseconds, negative: none)
  // passed first.
  bool WaitAfter(std::uint32_t ticket, int timeoutMs) noexcept {
    return m_event->WaitAfter(ticket, timeoutMs) == DKWaitStatus::Signalled;
  }
  // Releases the lock, waits, and takes the lock again.
  template <class Lock>
  bool Wait(Lock& lock, int timeoutMs) {
    const std::uint32_t ticket = Ticket();
    lock.unlock();
    const bool woken = WaitAfter(ticket, timeoutMs);
    lock.lock();
    return woken;
  }
  // Releases the lock, waits until a wake or the due time (to the system's precision, not
  // rounded to milliseconds), and takes the lock again.
  template <class Lock>
  bool WaitUntil(Lock& lock, std::chrono::steady_clock::time_point due) {
    const std::uint32_t ticket = Ticket();
    lock.unlock();
    const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(due - std::chrono::steady_clock::now());
    const bool woken =
        left.count() > 0 && m_event->WaitAfterNs(ticket, left.count()) == DKWaitStatus::Signalled;
    lock.lock();
    return woken;
  }
  // Wakes every thread waiting after a ticket taken before this call.
  void WakeAll() noexcept { m_event->Pulse(); }

  // A wait in whole milliseconds that ends no earlier than the time left: rounded up, and
  // capped so that it fits an int.
  static int MillisecondsUntil(std::chrono::steady_clock::time_point due, std::chrono::steady_clock::time_point now) {
    if (due <= now)
      return 0;
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(due - now).count();
    const long long ms = (left + 999) / 1000;
    return ms > 0x3FFFFFFF ? 0x3FFFFFFF : static_cast<int>(ms);
  }

private:
  DKEventImpl* m_event;
};
