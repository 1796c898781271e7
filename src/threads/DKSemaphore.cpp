// DKCountingSemaphore and DKBaton, built from the kernel-style mutex and event.
#include <DorvikCore/DKSync.h>

#include "threads/DKSyncCommon.h"

#include <chrono>
#include <thread>

namespace {

DKMutexImpl* OpenUnnamedMutex(bool owned) {
  int error = 0;
  DKMutexImpl* mutex = DKMutexImpl::Open(std::string(), owned, error);
  if (!mutex)
    DKThrowSystemError(error);
  return mutex;
}

} // namespace

DKCountingSemaphore::DKCountingSemaphore(std::uint32_t initial) : DKCountingSemaphore(initial, DefaultMaximum) {}

DKCountingSemaphore::DKCountingSemaphore(std::uint32_t initial, std::uint32_t maximum)
    : m_mutex(nullptr), m_count(initial), m_maximum(maximum) {
  if (initial > maximum)
    throw DKException(DK_T("DKCountingSemaphore exception: initial greater than the maximum"));
  m_mutex = OpenUnnamedMutex(false);
}

DKCountingSemaphore::~DKCountingSemaphore() { m_mutex->Close(); }

void DKCountingSemaphore::Lock(std::uint32_t n) {
  if (n > m_maximum)
    throw DKException(DK_T("DKCountingSemaphore exception: request greater than the maximum"));
  DKLockOrThrow(m_mutex);
  // There is no kernel semaphore underneath: poll every 10 milliseconds.
  while (m_count < n) {
    DKUnlockOrThrow(m_mutex);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    DKLockOrThrow(m_mutex);
  }
  m_count -= n;
  DKUnlockOrThrow(m_mutex);
}

bool DKCountingSemaphore::TryLock(std::uint32_t n) {
  DKMutexImplGuard guard(m_mutex);
  if (m_count < n)
    return false;
  m_count -= n;
  return true;
}

void DKCountingSemaphore::Unlock(std::uint32_t n) {
  DKMutexImplGuard guard(m_mutex);
  if (static_cast<std::uint64_t>(m_count) + n > m_maximum)
    throw DKException(DK_T("DKCountingSemaphore overflow"));
  m_count += n;
}

std::uint32_t DKCountingSemaphore::GetCount() {
  DKMutexImplGuard guard(m_mutex);
  return m_count;
}

std::uint32_t DKCountingSemaphore::GetSize() {
  DKMutexImplGuard guard(m_mutex);
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
