// Placeholder mutexes for the Windows build until the Windows thread layer brings its own:
// unnamed only (a name is ignored), recursive, with timed locking; no abandonment.
#include "threads/DKSyncImpl.h"

#include <chrono>
#include <mutex>
#include <new>

namespace {

struct PlaceholderMutex : DKMutexImpl {
  std::recursive_timed_mutex mutex;
};

} // namespace

DKMutexImpl* DKMutexImpl::Open(const std::string&, bool owned, int& error) noexcept {
  auto* created = new (std::nothrow) PlaceholderMutex;
  if (!created) {
    error = 8; // ERROR_NOT_ENOUGH_MEMORY
    return nullptr;
  }
  if (owned)
    created->mutex.lock();
  return created;
}

void DKMutexImpl::Close() noexcept { delete static_cast<PlaceholderMutex*>(this); }

DKWaitStatus DKMutexImpl::Lock(int timeoutMs, int&) noexcept {
  auto& mutex = static_cast<PlaceholderMutex*>(this)->mutex;
  if (timeoutMs < 0) {
    mutex.lock();
    return DKWaitStatus::Signalled;
  }
  return mutex.try_lock_for(std::chrono::milliseconds(timeoutMs)) ? DKWaitStatus::Signalled : DKWaitStatus::TimedOut;
}

int DKMutexImpl::Unlock() noexcept {
  static_cast<PlaceholderMutex*>(this)->mutex.unlock();
  return 0;
}
