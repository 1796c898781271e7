// DKCountingSemaphore and DKBaton, built from the kernel-style mutex and event.
#include <DorvikCore/DKSync.h>

#include "threads/DKSyncCommon.h"

#include <algorithm>
#include <chrono>
#include <mutex>
#include <thread>

DKCountingSemaphore::DKCountingSemaphore(std::uint32_t initial) : DKCountingSemaphore(initial, DefaultMaximum) {}

DKCountingSemaphore::DKCountingSemaphore(std::uint32_t initial, std::uint32_t maximum)
    : m_count(initial), m_maximum(maximum) {
  if (initial > maximum)
    throw DKException(DK_T("DKCountingSemaphore exception: initial greater than the maximum"));
}

DKCountingSemaphore::~DKCountingSemaphore() = default;

void DKCountingSemaphore::Lock(std::uint32_t n) {
  if (n > m_maximum)
    throw DKException(DK_T("DKCountingSemaphore exception: request greater than the maximum"));
  std::unique_lock guard(m_mutex);
  // There is no kernel semaphore underneath: poll every 10 milliseconds.
  while (m_count < n) {
    guard.unlock();
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    guard.lock();
  }
  m_count -= n;
}

bool DKCountingSemaphore::TryLock(std::uint32_t n) {
  std::lock_guard guard(m_mutex);
  if (m_count < n)
    return false;
  m_count -= n;
  return true;
}

bool DKCountingSemaphore::TryLockUntil(std::chrono::steady_clock::time_point deadline) {
  for (;;) {
    if (TryLock(1))
      return true;
    const auto now = std::chrono::steady_clock::now();
    if (now >= deadline)
      return false;
    std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(std::chrono::milliseconds(10), deadline - now));
  }
}

void DKCountingSemaphore::Unlock(std::uint32_t n) {
  std::lock_guard guard(m_mutex);
  if (static_cast<std::uint64_t>(m_count) + n > m_maximum)
    throw DKException(DK_T("DKCountingSemaphore overflow"));
  m_count += n;
}

std::uint32_t DKCountingSemaphore::GetCount() {
  std::lock_guard guard(m_mutex);
  return m_count;
}

std::uint32_t DKCountingSemaphore::GetSize() {
  std::lock_guard guard(m_mutex);
  return m_maximum;
}

DKBaton::DKBaton() : m_mutex(nullptr), m_event(nullptr), m_turn(0) {
  int error = 0;
  m_mutex = DKMutexImpl::Open(std::string(), true, error);
  m_event = DKEventImpl::Open(std::string(), false, error);
  if (m_mutex)
    m_mutex->Unlock();
}

DKBaton::~DKBaton() {
  int error = 0;
  if (m_mutex)
    m_mutex->Lock(-1, error);
  if (m_event)
    m_event->Close();
  if (m_mutex) {
    m_mutex->Unlock();
    m_mutex->Close();
  }
}

void DKBaton::Lock(std::uint32_t turn) {
  if (m_turn.load(std::memory_order_acquire) >= turn)
    return;
  if (!m_mutex || !m_event)
    return;
  int error = 0;
  m_mutex->Lock(-1, error);
  while (m_turn.load(std::memory_order_relaxed) + 1 < turn) {
    // Release the baton and wait for the next Unlock as one step: the ticket is taken while
    // holding the mutex, and Unlock pulses while holding it, so no pulse is missed.
    const std::uint32_t ticket = m_event->Ticket();
    m_mutex->Unlock();
    m_event->WaitAfter(ticket, -1);
    m_mutex->Lock(-1, error);
  }
  m_turn.store(turn, std::memory_order_release);
}

void DKBaton::Unlock() {
  if (m_event)
    m_event->Pulse();
  if (m_mutex)
    m_mutex->Unlock();
}
