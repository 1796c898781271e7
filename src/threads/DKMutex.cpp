// DKMutex and DKEventSemaphore: thin layers over the platform's kernel-style objects.
#include <DorvikCore/DKSync.h>

#include "threads/DKSyncCommon.h"

const DKString DKMutex::defaultValue;
const DKString DKEventSemaphore::defaultValue;

DKMutex::DKMutex(const DKString& name, bool initiallyOwned) {
  int error = 0;
  m_handle = DKMutexImpl::Open(name.AsUTF8(), initiallyOwned, error);
  if (!m_handle)
    DKThrowSystemError(error);
}

DKMutex::~DKMutex() { m_handle->Close(); }

bool DKMutex::Lock(int timeoutMs) {
  if (!LockTakingOver(timeoutMs))
    return false;
  if (m_abandoned) {
    // The previous owner died holding it. Whoever sees false does not hold the mutex, so the
    // repaired mutex is given back rather than kept by a caller that believes it failed.
    m_abandoned = false;
    Unlock();
    return false;
  }
  return true;
}

void DKMutex::obtain() {
  while (!Lock(DK_INFINITE)) {
  }
}

void DKMutex::Unlock() { DKUnlockOrThrow(m_handle); }

bool DKMutex::LockTakingOver(int timeoutMs) {
  int error = 0;
  switch (m_handle->Lock(timeoutMs, error)) {
  case DKWaitStatus::Signalled:
    m_abandoned = false;
    return true;
  case DKWaitStatus::Abandoned:
    m_abandoned = true; // made consistent by the platform, and now held by the caller
    return true;
  case DKWaitStatus::TimedOut:
    return false;
  case DKWaitStatus::Failed:
    break;
  }
  DKThrowSystemError(error);
}

void DKMutex::lock() {
  while (!LockTakingOver(DK_INFINITE)) {
  }
}

int DKSyncMillisecondsUntil(std::chrono::steady_clock::time_point deadline) noexcept {
  const auto left = deadline - std::chrono::steady_clock::now();
  if (left <= std::chrono::steady_clock::duration::zero())
    return 0;
  const auto ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
  return ms > 2147483647 ? 2147483647 : static_cast<int>(ms);
}

DKEventSemaphore::DKEventSemaphore(const DKString& name, bool initiallyPosted) {
  int error = 0;
  m_handle = DKEventImpl::Open(name.AsUTF8(), initiallyPosted, error);
  if (!m_handle)
    DKThrowSystemError(error);
}

DKEventSemaphore::~DKEventSemaphore() { m_handle->Close(); }

void DKEventSemaphore::Post() { m_handle->Post(); }

void DKEventSemaphore::Reset() { m_handle->Reset(); }

void DKEventSemaphore::Pulse() { m_handle->Pulse(); }

std::uint32_t DKEventSemaphore::Wait(int timeoutMs) {
  return m_handle->Wait(timeoutMs) == DKWaitStatus::Signalled ? DK_WAIT_OBJECT_0 : DK_WAIT_TIMEOUT;
}

bool DKEventSemaphore::Posted() { return m_handle->IsPosted(); }
