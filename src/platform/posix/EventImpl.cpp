// POSIX manual-reset event (threads/DKSyncImpl.h).
//
// The event is one 32-bit word: bit 0 posted, bit 1 "a waiter may sleep", and above them a
// generation that every post and pulse moves on. A waiter returns when the word is posted or
// its generation differs from the one the wait started from, so a pulse (which moves the
// generation and leaves the event reset) releases exactly the threads already waiting. Sleeping
// is a futex wait on the word. Nothing is held while waiting, so a process that dies waiting on
// a named event (whose word lives in shared memory) cannot block anyone, which a process-shared
// condition variable does not promise.
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

constexpr std::uint32_t kPosted = 1;
constexpr std::uint32_t kWaiters = 2;
constexpr std::uint32_t kGenerationStep = 4;
constexpr std::uint32_t kGenerationMask = ~(kPosted | kWaiters);

static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t) &&
                  std::atomic<std::uint32_t>::is_always_lock_free,
              "the event word is shared with the kernel and other processes");

class PosixEvent final : public DKEventImpl {
public:
  std::atomic<std::uint32_t>* word = nullptr;
  DKSharedSegment* segment = nullptr;
  std::atomic<std::uint32_t> local{0};
};

PosixEvent* Self(DKEventImpl* impl) { return static_cast<PosixEvent*>(impl); }
const PosixEvent* Self(const DKEventImpl* impl) { return static_cast<const PosixEvent*>(impl); }

int InitSharedEvent(void* object, void* context) {
  new (object) std::atomic<std::uint32_t>(*static_cast<bool*>(context) ? kPosted : 0);
  return 0;
}

// Private futexes are faster; a named event's word is shared between processes.
int FutexOp(const PosixEvent* event, int op) { return event->segment ? op : (op | FUTEX_PRIVATE_FLAG); }

void WakeAll(const PosixEvent* event) {
  syscall(SYS_futex, event->word, FutexOp(event, FUTEX_WAKE), INT_MAX, nullptr, nullptr, 0);
}

// Moves the word on with change(old); wakes the sleepers when there were any.
template <class Change>
void Update(PosixEvent* event, Change change) {
  std::uint32_t old = event->word->load(std::memory_order_relaxed);
  std::uint32_t next;
  do {
    next = change(old);
    if (next == old)
      return;
  } while (!event->word->compare_exchange_weak(old, next, std::memory_order_acq_rel, std::memory_order_relaxed));
  if (old & kWaiters)
    WakeAll(event);
}

} // namespace

DKEventImpl* DKEventImpl::Open(const std::string& name, bool initiallyPosted, int& error) noexcept {
  auto* impl = new (std::nothrow) PosixEvent;
  if (!impl) {
    error = ENOMEM;
    return nullptr;
  }
  if (name.empty()) {
    impl->local.store(initiallyPosted ? kPosted : 0, std::memory_order_relaxed);
    impl->word = &impl->local;
    return impl;
  }
  impl->segment = DKSharedSegment::Open("event", name, sizeof(std::atomic<std::uint32_t>), InitSharedEvent,
                                        &initiallyPosted, error);
  if (!impl->segment) {
    delete impl;
    return nullptr;
  }
  impl->word = static_cast<std::atomic<std::uint32_t>*>(impl->segment->Object());
  return impl;
}

void DKEventImpl::Close() noexcept {
  PosixEvent* self = Self(this);
  if (self->segment)
    self->segment->Close();
  delete self;
}

void DKEventImpl::Post() noexcept {
  Update(Self(this), [](std::uint32_t w) {
    return (w & kPosted) ? w : (((w & kGenerationMask) + kGenerationStep) | kPosted);
  });
}

void DKEventImpl::Reset() noexcept { Self(this)->word->fetch_and(~kPosted, std::memory_order_acq_rel); }

void DKEventImpl::Pulse() noexcept {
  Update(Self(this), [](std::uint32_t w) { return (w & kGenerationMask) + kGenerationStep; });
}

bool DKEventImpl::IsPosted() const noexcept { return (Self(this)->word->load(std::memory_order_acquire) & kPosted) != 0; }

std::uint32_t DKEventImpl::Ticket() const noexcept { return Self(this)->word->load(std::memory_order_acquire); }

DKWaitStatus DKEventImpl::WaitAfter(std::uint32_t ticket, int timeoutMs) noexcept {
  return WaitAfterNs(ticket, timeoutMs < 0 ? -1 : std::int64_t{timeoutMs} * 1000000);
}

DKWaitStatus DKEventImpl::WaitAfterNs(std::uint32_t ticket, std::int64_t timeoutNs) noexcept {
  PosixEvent* self = Self(this);
  const auto released = [ticket](std::uint32_t w) {
    return (w & kPosted) != 0 || (w & kGenerationMask) != (ticket & kGenerationMask);
  };
  if (ticket & kPosted)
    return DKWaitStatus::Signalled;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::nanoseconds(timeoutNs < 0 ? 0 : timeoutNs);
  std::uint32_t w = self->word->load(std::memory_order_acquire);
  for (;;) {
    if (released(w))
      return DKWaitStatus::Signalled;
    if (timeoutNs == 0)
      return DKWaitStatus::TimedOut;
    if (!(w & kWaiters)) {
      if (!self->word->compare_exchange_weak(w, w | kWaiters, std::memory_order_acquire, std::memory_order_acquire))
        continue;
      w |= kWaiters;
    }
    timespec relative{};
    const timespec* timeout = nullptr;
    if (timeoutNs > 0) {
      const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) {
        w = self->word->load(std::memory_order_acquire);
        return released(w) ? DKWaitStatus::Signalled : DKWaitStatus::TimedOut;
      }
      relative.tv_sec = static_cast<time_t>(left.count() / 1000000000);
      relative.tv_nsec = static_cast<long>(left.count() % 1000000000);
      timeout = &relative;
    }
    // Returns at a wake, at the timeout, or at once when the word is no longer w.
    syscall(SYS_futex, self->word, FutexOp(self, FUTEX_WAIT), w, timeout, nullptr, 0);
    w = self->word->load(std::memory_order_acquire);
  }
}
