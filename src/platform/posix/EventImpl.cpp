// POSIX manual-reset event (threads/DKSyncImpl.h), and the futex waits of DKWordWaitImpl.
//
// The event is the library's event word (threads/DKSyncImpl.h). Sleeping is a futex wait on the
// word. Nothing is held while waiting, so a process that dies waiting on a named event (whose
// word lives in shared memory) cannot block anyone, which a process-shared condition variable
// does not promise.
#include "threads/DKSyncImpl.h"

#include "SharedMemoryImpl.h"

#include <errno.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <new>

namespace {

class PosixEvent final : public DKEventImpl {
public:
  using DKEventImpl::m_word;
  DKSharedSegment* segment = nullptr;
  std::atomic<std::uint32_t> local{0};
};

PosixEvent* Self(DKEventImpl* impl) { return static_cast<PosixEvent*>(impl); }

int InitSharedEvent(void* object, void* context) {
  new (object) std::atomic<std::uint32_t>(*static_cast<bool*>(context) ? dkevent::posted : 0);
  return 0;
}

// Private futexes are faster; a named event's word is shared between processes.
int FutexOp(const PosixEvent* event, int op) { return event->segment ? op : (op | FUTEX_PRIVATE_FLAG); }


} // namespace

DKEventImpl* DKEventImpl::Open(const std::string& name, bool initiallyPosted, int& error) noexcept {
  auto* impl = new (std::nothrow) PosixEvent;
  if (!impl) {
    error = ENOMEM;
    return nullptr;
  }
  if (name.empty()) {
    impl->local.store(initiallyPosted ? dkevent::posted : 0, std::memory_order_relaxed);
    impl->m_word = &impl->local;
    return impl;
  }
  impl->segment = DKSharedSegment::Open("event", name, sizeof(std::atomic<std::uint32_t>), InitSharedEvent,
                                        &initiallyPosted, error);
  if (!impl->segment) {
    delete impl;
    return nullptr;
  }
  impl->m_word = static_cast<std::atomic<std::uint32_t>*>(impl->segment->Object());
  return impl;
}

void DKEventImpl::Close() noexcept {
  PosixEvent* self = Self(this);
  if (self->segment)
    self->segment->Close();
  delete self;
}

void DKEventImpl::WakeSleepers(std::uint32_t old) noexcept {
  if (old & dkevent::waiters)
    syscall(SYS_futex, m_word, FutexOp(Self(this), FUTEX_WAKE), INT_MAX, nullptr, nullptr, 0);
}

DKWaitStatus DKEventImpl::WaitAfterNs(std::uint32_t ticket, std::int64_t timeoutNs) noexcept {
  PosixEvent* self = Self(this);
  const auto released = [ticket](std::uint32_t w) { return dkevent::Released(w, ticket); };
  if (ticket & dkevent::posted)
    return DKWaitStatus::Signalled;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::nanoseconds(timeoutNs < 0 ? 0 : timeoutNs);
  std::uint32_t w = self->m_word->load(std::memory_order_acquire);
  for (;;) {
    if (released(w))
      return DKWaitStatus::Signalled;
    if (timeoutNs == 0)
      return DKWaitStatus::TimedOut;
    if (!(w & dkevent::waiters)) {
      if (!self->m_word->compare_exchange_weak(w, w | dkevent::waiters, std::memory_order_acquire, std::memory_order_acquire))
        continue;
      w |= dkevent::waiters;
    }
    timespec relative{};
    const timespec* timeout = nullptr;
    if (timeoutNs > 0) {
      const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) {
        w = self->m_word->load(std::memory_order_acquire);
        return released(w) ? DKWaitStatus::Signalled : DKWaitStatus::TimedOut;
      }
      relative.tv_sec = static_cast<time_t>(left.count() / 1000000000);
      relative.tv_nsec = static_cast<long>(left.count() % 1000000000);
      timeout = &relative;
    }
    // Returns at a wake, at the timeout, or at once when the word is no longer w.
    syscall(SYS_futex, self->m_word, FutexOp(self, FUTEX_WAIT), w, timeout, nullptr, 0);
    w = self->m_word->load(std::memory_order_acquire);
  }
}

void DKWordWaitImpl::Wait(const std::atomic<std::uint32_t>& word, std::uint32_t expected) noexcept {
  syscall(SYS_futex, &word, FUTEX_WAIT | FUTEX_PRIVATE_FLAG, expected, nullptr, nullptr, 0);
}

void DKWordWaitImpl::WakeOne(std::atomic<std::uint32_t>& word) noexcept {
  syscall(SYS_futex, &word, FUTEX_WAKE | FUTEX_PRIVATE_FLAG, 1, nullptr, nullptr, 0);
}
