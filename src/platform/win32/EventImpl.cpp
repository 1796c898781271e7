// Windows manual-reset event (threads/DKSyncImpl.h).
//
// The event is the library's event word (threads/DKSyncImpl.h), as on the other systems. The
// kernel's PulseEvent is not used: it misses a waiter that is momentarily out of its wait, and
// it knows nothing of a ticket taken before the wait.
//
// An unnamed event sleeps in WaitOnAddress on the word (and so does the critical section, through
// DKWordWaitImpl). A named event keeps the word in a named file mapping that every process
// opening the name shares. WaitOnAddress sees one process only, so there the sleepers count
// themselves beside the word and sleep on a named semaphore, which whoever moves the word on
// releases once per counted sleeper (a kernel event cannot be that channel: its state does not
// count how many wakes are owed). Nothing is held while waiting, so a process that dies waiting
// blocks no one; at worst a later waiter wakes once for nothing and waits again.
#include "threads/DKSyncImpl.h"

#include "ObjectNameImpl.h"

#include <windows.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <new>

namespace {

// What a named event keeps in its mapping. The kernel hands out a new mapping zero-filled,
// which is an event that is not posted and has no sleepers.
struct SharedState {
  std::atomic<std::uint32_t> word;
  std::atomic<std::uint32_t> sleepers; // counted sleepers on the semaphore, in every process
};

class WinEvent final : public DKEventImpl {
public:
  using DKEventImpl::m_word;
  std::atomic<std::uint32_t> local{0};
  // A named event only:
  SharedState* shared = nullptr;
  HANDLE mapping = nullptr;
  HANDLE wake = nullptr; // the semaphore its sleepers wait on

  ~WinEvent() {
    if (shared)
      UnmapViewOfFile(shared);
    if (mapping)
      CloseHandle(mapping);
    if (wake)
      CloseHandle(wake);
  }
};

WinEvent* Self(DKEventImpl* impl) { return static_cast<WinEvent*>(impl); }

int LastError() {
  const DWORD error = GetLastError();
  return error != 0 ? static_cast<int>(error) : ERROR_GEN_FAILURE;
}

// Milliseconds left until deadline, rounded up, so that a wait never ends just short of it.
DWORD MillisecondsLeft(std::chrono::steady_clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
  if (left <= 0)
    return 0;
  return left >= static_cast<long long>(INFINITE) ? INFINITE - 1 : static_cast<DWORD>(left);
}

// A count taken back by a sleeper that leaves without being woken. When a waker has already
// claimed every count, one release on the semaphore is owed to this sleeper: it stays there,
// and some later sleeper wakes once for nothing and counts itself again.
void Uncount(SharedState* shared) {
  std::uint32_t count = shared->sleepers.load();
  while (count != 0 && !shared->sleepers.compare_exchange_weak(count, count - 1)) {
  }
}

bool OpenNamed(WinEvent* event, const std::string& name, bool& created) {
  try {
    const std::wstring mappingName = DKKernelObjectName("event", name);
    const std::wstring wakeName = DKKernelObjectName("event-wake", name);
    event->mapping =
        CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(SharedState), mappingName.c_str());
    if (!event->mapping)
      return false;
    created = GetLastError() != ERROR_ALREADY_EXISTS;
    event->shared = static_cast<SharedState*>(MapViewOfFile(event->mapping, FILE_MAP_ALL_ACCESS, 0, 0, sizeof(SharedState)));
    if (!event->shared)
      return false;
    event->wake = CreateSemaphoreW(nullptr, 0, LONG_MAX, wakeName.c_str());
    return event->wake != nullptr;
  } catch (const std::bad_alloc&) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return false;
  }
}

DKWaitStatus WaitUnnamed(WinEvent* self, std::uint32_t ticket, std::int64_t timeoutNs) {
  const auto released = [ticket](std::uint32_t w) { return dkevent::Released(w, ticket); };
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
    DWORD wait = INFINITE;
    if (timeoutNs > 0 && (wait = MillisecondsLeft(deadline)) == 0) {
      w = self->m_word->load(std::memory_order_acquire);
      return released(w) ? DKWaitStatus::Signalled : DKWaitStatus::TimedOut;
    }
    // Returns at a wake, at the timeout, or at once when the word is no longer w.
    WaitOnAddress(self->m_word, &w, sizeof w, wait);
    w = self->m_word->load(std::memory_order_acquire);
  }
}

DKWaitStatus WaitNamed(WinEvent* self, std::uint32_t ticket, std::int64_t timeoutNs) {
  const auto released = [ticket](std::uint32_t w) { return dkevent::Released(w, ticket); };
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::nanoseconds(timeoutNs < 0 ? 0 : timeoutNs);
  for (;;) {
    if (released(self->m_word->load()))
      return DKWaitStatus::Signalled;
    if (timeoutNs == 0)
      return DKWaitStatus::TimedOut;
    DWORD wait = INFINITE;
    if (timeoutNs > 0 && (wait = MillisecondsLeft(deadline)) == 0)
      return DKWaitStatus::TimedOut;
    self->shared->sleepers.fetch_add(1);
    if (released(self->m_word->load())) {
      Uncount(self->shared);
      return DKWaitStatus::Signalled;
    }
    const DWORD rc = WaitForSingleObject(self->wake, wait);
    if (rc == WAIT_OBJECT_0)
      continue; // the waker took this sleeper's count
    Uncount(self->shared);
    if (rc != WAIT_TIMEOUT)
      return DKWaitStatus::Failed;
  }
}

} // namespace

DKEventImpl* DKEventImpl::Open(const std::string& name, bool initiallyPosted, int& error) noexcept {
  auto* impl = new (std::nothrow) WinEvent;
  if (!impl) {
    error = ERROR_NOT_ENOUGH_MEMORY;
    return nullptr;
  }
  if (name.empty()) {
    impl->local.store(initiallyPosted ? dkevent::posted : 0, std::memory_order_relaxed);
    impl->m_word = &impl->local;
    return impl;
  }
  bool created = false;
  if (!OpenNamed(impl, name, created)) {
    error = LastError();
    delete impl;
    return nullptr;
  }
  impl->m_word = &impl->shared->word;
  // The creator posts after the mapping is visible: a process that opens the name in between
  // sees the event as if it had been created reset and posted at once, which it then is.
  if (created && initiallyPosted)
    impl->Post();
  return impl;
}

void DKEventImpl::Close() noexcept { delete Self(this); }

void DKEventImpl::WakeSleepers(std::uint32_t old) noexcept {
  WinEvent* event = Self(this);
  if (!event->shared) {
    if (old & dkevent::waiters)
      WakeByAddressAll(m_word);
    return;
  }
  // The word was changed by a sequentially consistent exchange before this load, and a sleeper
  // counts itself before it reads the word again: either it sees the change or it is counted.
  if (event->shared->sleepers.load() == 0)
    return;
  const std::uint32_t owed = event->shared->sleepers.exchange(0);
  if (owed != 0)
    ReleaseSemaphore(event->wake, owed > LONG_MAX ? LONG_MAX : static_cast<LONG>(owed), nullptr);
}

// The system's waits count whole milliseconds: a wait is rounded up to the next one, never down,
// so that it does not end early.
DKWaitStatus DKEventImpl::WaitAfterNs(std::uint32_t ticket, std::int64_t timeoutNs) noexcept {
  if (ticket & dkevent::posted)
    return DKWaitStatus::Signalled;
  WinEvent* self = Self(this);
  return self->shared ? WaitNamed(self, ticket, timeoutNs) : WaitUnnamed(self, ticket, timeoutNs);
}

void DKWordWaitImpl::Wait(const std::atomic<std::uint32_t>& word, std::uint32_t expected) noexcept {
  WaitOnAddress(const_cast<std::atomic<std::uint32_t>*>(&word), &expected, sizeof expected, INFINITE);
}

void DKWordWaitImpl::WakeOne(std::atomic<std::uint32_t>& word) noexcept { WakeByAddressSingle(&word); }
