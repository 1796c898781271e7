// POSIX kernel-style mutex (threads/DKSyncImpl.h): a robust recursive pthread mutex, in the
// process's memory or, for a named mutex, in shared memory (SharedMemoryImpl.h).
#include "threads/DKSyncImpl.h"

#include "SharedMemoryImpl.h"
#include "os/DKProcess.h"

#include <errno.h>
#include <pthread.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <new>

#if defined(__SANITIZE_THREAD__)
#  define DK_THREAD_SANITIZER 1
#elif defined(__has_feature)
#  if __has_feature(thread_sanitizer)
#    define DK_THREAD_SANITIZER 1
#  endif
#endif

namespace {

// The mutex and who holds it. The owner is kept beside the mutex so that a release by a
// thread that does not hold it is refused here, before it reaches the system. Only the holder
// writes owner and depth; a named mutex keeps them in shared memory (thread ids are unique across
// processes).
struct MutexState {
  pthread_mutex_t mutex;
  std::atomic<std::uint32_t> owner;
  std::uint32_t depth;
};

class PosixMutex final : public DKMutexImpl {
public:
  MutexState* state = nullptr;
  DKSharedSegment* segment = nullptr;
  MutexState local;
};

std::uint32_t CurrentOwnerId() { return static_cast<std::uint32_t>(DKProcess::CurrentThreadId()); }

void TookIt(MutexState* state, bool abandoned) {
  const std::uint32_t self = CurrentOwnerId();
  if (!abandoned && state->owner.load(std::memory_order_relaxed) == self) {
    ++state->depth;
    return;
  }
  state->owner.store(self, std::memory_order_relaxed);
  state->depth = 1;
}

PosixMutex* Self(DKMutexImpl* impl) { return static_cast<PosixMutex*>(impl); }

int InitMutex(MutexState* state, bool shared) {
  new (&state->owner) std::atomic<std::uint32_t>(0);
  state->depth = 0;
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  if (shared)
    pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  const int rc = pthread_mutex_init(&state->mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
  return rc;
}

int LockAtCreation(MutexState* state) {
  const int rc = pthread_mutex_lock(&state->mutex);
  if (rc == 0)
    TookIt(state, false);
  return rc;
}

int InitSharedMutex(void* object, void* context) {
  auto* state = static_cast<MutexState*>(object);
  int rc = InitMutex(state, true);
  if (rc == 0 && *static_cast<bool*>(context))
    rc = LockAtCreation(state);
  return rc;
}

timespec Add(timespec t, int milliseconds) {
  t.tv_sec += milliseconds / 1000;
  t.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000L;
  if (t.tv_nsec >= 1000000000L) {
    ++t.tv_sec;
    t.tv_nsec -= 1000000000L;
  }
  return t;
}

int TimedLock(pthread_mutex_t* mutex, int timeoutMs) {
#if defined(DK_THREAD_SANITIZER)
  // The sanitizer knows pthread_mutex_timedlock only, whose deadline is on the wall clock: wait in
  // short slices and measure the timeout on the steady clock, so that a clock change cannot
  // stretch the wait by more than one slice.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      const int rc = pthread_mutex_trylock(mutex);
      return rc == EBUSY ? ETIMEDOUT : rc;
    }
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const timespec until = Add(now, static_cast<int>(left.count() < 50 ? left.count() : 50));
    const int rc = pthread_mutex_timedlock(mutex, &until);
    if (rc != ETIMEDOUT)
      return rc;
  }
#else
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const timespec until = Add(now, timeoutMs);
  return pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, &until);
#endif
}

} // namespace

DKMutexImpl* DKMutexImpl::Open(const std::string& name, bool initiallyOwned, int& error) noexcept {
  auto* impl = new (std::nothrow) PosixMutex;
  if (!impl) {
    error = ENOMEM;
    return nullptr;
  }
  if (name.empty()) {
    int rc = InitMutex(&impl->local, false);
    if (rc == 0 && initiallyOwned && (rc = LockAtCreation(&impl->local)) != 0)
      pthread_mutex_destroy(&impl->local.mutex);
    if (rc != 0) {
      delete impl;
      error = rc;
      return nullptr;
    }
    impl->state = &impl->local;
    return impl;
  }
  impl->segment = DKSharedSegment::Open("mutex", name, sizeof(MutexState), InitSharedMutex, &initiallyOwned, error);
  if (!impl->segment) {
    delete impl;
    return nullptr;
  }
  impl->state = static_cast<MutexState*>(impl->segment->Object());
  return impl;
}

void DKMutexImpl::Close() noexcept {
  PosixMutex* self = Self(this);
  if (self->segment)
    self->segment->Close(); // the memory goes with the last user: nothing to destroy
  else
    pthread_mutex_destroy(&self->state->mutex);
  delete self;
}

DKWaitStatus DKMutexImpl::Lock(int timeoutMs, int& error) noexcept {
  MutexState* state = Self(this)->state;
  pthread_mutex_t* mutex = &state->mutex;
  int rc;
  if (timeoutMs < 0)
    rc = pthread_mutex_lock(mutex);
  else if (timeoutMs == 0)
    rc = pthread_mutex_trylock(mutex);
  else
    rc = TimedLock(mutex, timeoutMs);
  switch (rc) {
  case 0:
    TookIt(state, false);
    return DKWaitStatus::Signalled;
  case EOWNERDEAD:
    // The owner ended holding it: the caller owns it now and repairs it.
    pthread_mutex_consistent(mutex);
    TookIt(state, true);
    return DKWaitStatus::Abandoned;
  case EBUSY:
  case ETIMEDOUT:
    return DKWaitStatus::TimedOut;
  default:
    error = rc;
    return DKWaitStatus::Failed;
  }
}

int DKMutexImpl::Unlock() noexcept {
  MutexState* state = Self(this)->state;
  if (state->owner.load(std::memory_order_relaxed) != CurrentOwnerId())
    return EPERM;
  if (--state->depth == 0)
    state->owner.store(0, std::memory_order_relaxed);
  return pthread_mutex_unlock(&state->mutex);
}
