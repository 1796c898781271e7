// DKCriticalSection and DKSynchronizedCriticalSection.
//
// The section is a lock word with the owner and the recursion count beside it. A thread that
// finds it held marks the word "waited for" and sleeps on it until the holder's release wakes one
// sleeper.
#include <DorvikCore/DKSync.h>

#include "threads/DKSyncImpl.h"

#include <algorithm>
#include <thread>

DKCriticalSection::DKCriticalSection(bool lockNow) : m_state(Free), m_owner(std::thread::id()), m_count(0) {
  if (lockNow)
    Lock();
}

DKCriticalSection::~DKCriticalSection() = default;

void DKCriticalSection::Lock() noexcept {
  const std::thread::id self = std::this_thread::get_id();
  if (m_owner.load(std::memory_order_relaxed) == self) {
    ++m_count;
    return;
  }
  std::uint32_t expected = Free;
  if (!m_state.compare_exchange_strong(expected, Held, std::memory_order_acquire, std::memory_order_relaxed))
    LockContended();
  m_owner.store(self, std::memory_order_relaxed);
  m_count = 1;
}

void DKCriticalSection::Unlock() noexcept {
  if (m_owner.load(std::memory_order_relaxed) != std::this_thread::get_id() || --m_count != 0)
    return;
  m_owner.store(std::thread::id(), std::memory_order_relaxed);
  if (m_state.exchange(Free, std::memory_order_release) == HeldWaited)
    WakeWaiter();
}

void DKCriticalSection::LockContended() noexcept {
  // A short spin first: sections are usually held for a few instructions.
  for (int i = 0; i < 100; ++i) {
    std::uint32_t expected = Free;
    if (m_state.load(std::memory_order_relaxed) == Free &&
        m_state.compare_exchange_weak(expected, Held, std::memory_order_acquire, std::memory_order_relaxed))
      return;
  }
  // From here on the word says "waited for", so that the release wakes a sleeper.
  while (m_state.exchange(HeldWaited, std::memory_order_acquire) != Free)
    DKWordWaitImpl::Wait(m_state, HeldWaited);
}

void DKCriticalSection::WakeWaiter() { DKWordWaitImpl::WakeOne(m_state); }

bool DKCriticalSection::TryLock() noexcept {
  const std::thread::id self = std::this_thread::get_id();
  if (m_owner.load(std::memory_order_relaxed) == self) {
    ++m_count;
    return true;
  }
  std::uint32_t expected = Free;
  if (!m_state.compare_exchange_strong(expected, Held, std::memory_order_acquire, std::memory_order_relaxed))
    return false;
  m_owner.store(self, std::memory_order_relaxed);
  m_count = 1;
  return true;
}

bool DKCriticalSection::TryLockUntil(std::chrono::steady_clock::time_point deadline) {
  auto pause = std::chrono::microseconds(20);
  for (;;) {
    if (TryLock())
      return true;
    const auto now = std::chrono::steady_clock::now();
    if (now >= deadline)
      return false;
    std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(pause, deadline - now));
    pause = std::min(pause * 2, std::chrono::microseconds(1000));
  }
}

unsigned DKCriticalSection::IsLocked() {
  if (!TryLock())
    return 0;
  const unsigned count = m_count;
  Unlock();
  return count;
}

DKSynchronizedCriticalSection::DKSynchronizedCriticalSection() = default;

DKSynchronizedCriticalSection::~DKSynchronizedCriticalSection() = default;

void DKSynchronizedCriticalSection::PostUnlock() {
  m_event.Post();
  Unlock();
}

void DKSynchronizedCriticalSection::UnlockWait() {
  m_event.Reset();
  Unlock();
  // A post between Unlock and Wait leaves the event posted, so it is not missed.
  m_event.Wait(DK_INFINITE);
  m_event.Reset();
}
