// POSIX kernel-style mutex (threads/DKSyncImpl.h). A named mutex is a robust recursive pthread
// mutex in shared memory (SharedMemoryImpl.h), since another process may die holding it. A
// mutex of one process is a futex word of its own (LocalMutex below), as cheap as a critical
// section when free, with the abandonment that a robust mutex reports kept by the threads
// themselves.
#include "threads/DKSyncImpl.h"

#include "base/DKThreadToken.h"

#include "SharedMemoryImpl.h"
#include "os/DKProcess.h"

#include <errno.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

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

// ---------------------------------------------------------------------------------------------
// A mutex of one process

struct HeldList;

// The word is 0 free, 1 held, 2 held and waited for. The owner is the holder's thread token;
// only the holder writes owner, depth and the links of its list of held mutexes.
struct LocalMutex {
  std::atomic<std::uint32_t> word{0};
  std::atomic<const void*> owner{nullptr};
  std::uint32_t depth = 0;
  bool abandoned = false; // written by an owner that ended holding it, before it let go
  LocalMutex* previous = nullptr;
  LocalMutex* next = nullptr;
};

void Wake(LocalMutex* mutex) {
  syscall(SYS_futex, &mutex->word, FUTEX_WAKE | FUTEX_PRIVATE_FLAG, 1, nullptr, nullptr, 0);
}

void LetGo(LocalMutex* mutex) {
  if (mutex->word.exchange(0, std::memory_order_release) == 2)
    Wake(mutex);
}

// The local mutexes a thread holds. When the thread ends holding some, each is marked abandoned
// and let go, so that the next taker learns of it, as the kernel tells the next taker of a robust
// mutex; no mutex is left naming an ended thread, whose token a new thread may reuse.
struct HeldList {
  LocalMutex* first = nullptr;
  bool ended = false;

  void Add(LocalMutex* mutex) noexcept {
    mutex->previous = nullptr;
    mutex->next = first;
    if (first)
      first->previous = mutex;
    first = mutex;
  }
  void Remove(LocalMutex* mutex) noexcept {
    (mutex->previous ? mutex->previous->next : first) = mutex->next;
    if (mutex->next)
      mutex->next->previous = mutex->previous;
    mutex->previous = mutex->next = nullptr;
  }
  ~HeldList() {
    ended = true;
    while (LocalMutex* mutex = first) {
      Remove(mutex);
      mutex->abandoned = true;
      mutex->depth = 0;
      mutex->owner.store(nullptr, std::memory_order_relaxed);
      LetGo(mutex);
    }
  }
};

thread_local HeldList t_held DK_FAST_TLS;

// The calling thread's list; null once the thread's thread-locals are being destroyed (as the
// main thread's are before the exit handlers run): a mutex taken that late is not tracked.
HeldList* HeldByCaller() noexcept { return t_held.ended ? nullptr : &t_held; }

// Waits for the word until timeoutMs (negative: without limit); false at the timeout.
bool LockContended(LocalMutex* mutex, int timeoutMs) noexcept {
  for (int i = 0; i < 100; ++i) {
    std::uint32_t expected = 0;
    if (mutex->word.load(std::memory_order_relaxed) == 0 &&
        mutex->word.compare_exchange_weak(expected, 1, std::memory_order_acquire, std::memory_order_relaxed))
      return true;
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs < 0 ? 0 : timeoutMs);
  // From here on the word says "waited for", so that the release wakes a sleeper.
  while (mutex->word.exchange(2, std::memory_order_acquire) != 0) {
    timespec relative{};
    const timespec* timeout = nullptr;
    if (timeoutMs >= 0) {
      const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0)
        return false;
      relative.tv_sec = static_cast<time_t>(left.count() / 1000000000);
      relative.tv_nsec = static_cast<long>(left.count() % 1000000000);
      timeout = &relative;
    }
    syscall(SYS_futex, &mutex->word, FUTEX_WAIT | FUTEX_PRIVATE_FLAG, 2, timeout, nullptr, 0);
  }
  return true;
}

[[gnu::always_inline]] inline DKWaitStatus LockLocal(LocalMutex* mutex, int timeoutMs) noexcept {
  const void* const self = dkbase::ThreadToken();
  if (mutex->owner.load(std::memory_order_relaxed) == self) {
    ++mutex->depth;
    return DKWaitStatus::Signalled;
  }
  std::uint32_t expected = 0;
  if (!mutex->word.compare_exchange_strong(expected, 1, std::memory_order_acquire, std::memory_order_relaxed) &&
      (timeoutMs == 0 || !LockContended(mutex, timeoutMs)))
    return DKWaitStatus::TimedOut;
  mutex->owner.store(self, std::memory_order_relaxed);
  mutex->depth = 1;
  if (HeldList* held = HeldByCaller())
    held->Add(mutex);
  if (mutex->abandoned) {
    mutex->abandoned = false;
    return DKWaitStatus::Abandoned;
  }
  return DKWaitStatus::Signalled;
}

[[gnu::always_inline]] inline int UnlockLocal(LocalMutex* mutex) noexcept {
  if (mutex->owner.load(std::memory_order_relaxed) != dkbase::ThreadToken())
    return EPERM;
  if (--mutex->depth != 0)
    return 0;
  if (HeldList* held = HeldByCaller(); held && (held->first == mutex || mutex->previous))
    held->Remove(mutex);
  mutex->owner.store(nullptr, std::memory_order_relaxed);
  LetGo(mutex);
  return 0;
}

class PosixMutex final : public DKMutexImpl {
public:
  MutexState* state = nullptr; // a named mutex's, in shared memory
  DKSharedSegment* segment = nullptr;
  LocalMutex local;
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
    if (initiallyOwned)
      LockLocal(&impl->local, -1);
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
  if (self->segment) {
    self->segment->Close(); // the memory goes with the last user: nothing to destroy
  } else if (self->local.owner.load(std::memory_order_relaxed) == dkbase::ThreadToken()) {
    // Destroyed by its holder: the thread's list forgets it.
    if (HeldList* held = HeldByCaller(); held && (held->first == &self->local || self->local.previous))
      held->Remove(&self->local);
  }
  delete self;
}

namespace {

// A named mutex's lock and unlock, kept out of line so that the unnamed mutex's fast path
// takes no stack frame of theirs.
[[gnu::noinline]] DKWaitStatus LockNamed(MutexState* state, int timeoutMs, int& error) noexcept {
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

[[gnu::noinline]] int UnlockNamed(MutexState* state) noexcept {
  if (state->owner.load(std::memory_order_relaxed) != CurrentOwnerId())
    return EPERM;
  if (--state->depth == 0)
    state->owner.store(0, std::memory_order_relaxed);
  return pthread_mutex_unlock(&state->mutex);
}

} // namespace

DKWaitStatus DKMutexImpl::Lock(int timeoutMs, int& error) noexcept {
  if (!Self(this)->segment) [[likely]]
    return LockLocal(&Self(this)->local, timeoutMs);
  return LockNamed(Self(this)->state, timeoutMs, error);
}

int DKMutexImpl::Unlock() noexcept {
  if (!Self(this)->segment) [[likely]]
    return UnlockLocal(&Self(this)->local);
  return UnlockNamed(Self(this)->state);
}
