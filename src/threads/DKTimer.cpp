// DKTimer, DKAppTimer and DKTimerWnd.
//
// The timer service keeps the armed timers in a binary min-heap ordered by due time (and by the
// order of arming among equal due times); every entry knows its place in the heap, so removing
// one is O(log n). One lock guards the heap and every entry's state; callbacks always run
// without it.
//
// Each arming has a generation: Start and Cancel move it on, and a firing handed to a pool or to
// the main thread runs its callback only while its generation is still the entry's. "pending"
// marks such a firing on its way, "running" a callback under way. A due time that finds the
// previous firing of the same arming pending or running is skipped, which keeps an overrunning
// timer from piling up callbacks; one that finds a callback of an earlier arming still running
// (a callback that re-armed its own timer) is deferred until that callback returns, so that a
// callback never runs twice at once and a new arming is never lost.
#include <DorvikCore/DKTimer.h>

#include <DorvikCore/DKConsole.h>
#include <DorvikCore/DKException.h>
#include <DorvikCore/DKThreadPool.h>
#include <DorvikCore/DKTrace.h>

#include "os/DKSystem.h"
#include "threads/DKThreadImpl.h"
#include "threads/DKTimerWndImpl.h"
#include "threads/DKWaitPoint.h"

#include <cstdlib>
#include <deque>
#include <limits>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using Clock = DKTimer::Clock;
constexpr std::size_t kNotInHeap = std::numeric_limits<std::size_t>::max();

thread_local const DKTimerFiring* t_firing = nullptr;

DKString ExceptionText(const std::exception& e) {
  if (const auto* own = dynamic_cast<const DKException*>(&e))
    return own->What();
  return DKString::FromUTF8(e.what());
}

// Runs a callback; an exception is reported as one leaving a thread would be, and goes no
// further.
void CallGuarded(DKCallback& callback, const char* where) {
  try {
    callback.Call();
  } catch (const std::exception& e) {
    const DKString text = ExceptionText(e);
    DKTrace::Msg(TL_NORMAL, TS_DK, where, "a timer callback threw: %s\n", text);
    if (GlbGetTraceLevel() != 0)
      DKLockedCOUT() << where << ": unhandled exception in a timer callback: " << text << std::endl;
  } catch (...) {
    DKTrace::Msg(TL_NORMAL, TS_DK, where, "a timer callback threw an unknown exception\n");
    if (GlbGetTraceLevel() != 0)
      DKLockedCOUT() << where << ": unhandled exception in a timer callback" << std::endl;
  }
}

} // namespace

// The state of one timer, shared by the DKTimer and the firings on their way. Guarded by the
// service lock, except the fields set at construction.
class DKTimerEntry : public DKRefCount {
public:
  DKSmartPtr<DKCallback> callback;
  DKTimerTarget target = DKTimerTarget::Pool;
  DKThreadPool* pool = nullptr;

  std::size_t heapIndex = kNotInHeap;
  std::uint64_t order = 0; // arming order, among equal due times
  Clock::time_point due{};
  Clock::duration period{};
  std::uint64_t generation = 0;
  bool armed = false;    // a firing is still to come
  bool pending = false;  // a firing of this generation is on its way to its thread
  bool running = false;  // a callback runs
  bool deferred = false; // due, waiting for the callback of an earlier arming to return
  std::uint64_t runningGeneration = 0;
  std::thread::id runner;
  std::uint64_t fired = 0;
  std::uint64_t skipped = 0;
  std::uint64_t number = 0; // firings handed out since Start

  bool Before(const DKTimerEntry& other) const noexcept {
    return due < other.due || (due == other.due && order < other.order);
  }
};

namespace {

class TimerService {
public:
  static TimerService& Get() {
    // Never destroyed: timers may be cancelled from static destructors. The exit handler ends
    // the thread before the static objects go.
    static TimerService* const service = [] {
      DKThreadPool::GetDefault(); // made first, so that it is shut down after the timer thread
      auto* made = new TimerService;
      std::atexit([] {
        if (!DKThreadImpl::OtherThreadsEnded()) // else the timer thread is gone already
          Get().Stop();
      });
      return made;
    }();
    return *service;
  }

  DKCriticalSection lock;

  DKErrorID Arm(DKTimerEntry& entry, Clock::time_point due, Clock::duration period) {
    std::unique_lock<DKCriticalSection> guard(lock);
    if (m_stopped)
      return DKLibraryErrorID(DK_MSG_SHUT_DOWN, "DKTimer thread");
    if (!entry.callback)
      return DKLibraryErrorID(DK_MSG_INVALID_ARGUMENT, "DKTimer::Start: the timer has no callback");
    Disarm(entry);
    entry.due = due;
    entry.period = period;
    entry.fired = 0;
    entry.skipped = 0;
    entry.number = 0;
    SetArmed(entry, true);
    Push(entry);
    const bool first = entry.heapIndex == 0;
    const bool start = !m_thread;
    if (start)
      m_thread = new DKThread(DKMakeCallback([this] { Run(); }));
    guard.unlock();
    if (start) {
      // Started outside the lock: the new thread takes it first thing.
      try {
        const DKErrorID started = m_thread->Start();
        if (started.Bad())
          return StartFailed(entry, started);
      } catch (const std::exception& e) {
        return StartFailed(entry, DKLibraryErrorID(DK_MSG_SYSTEM_ERROR, -1, ExceptionText(e)));
      }
    } else if (first) {
      m_wake.WakeAll();
    }
    return DKErrorID();
  }

  // Disarms under the lock; waits (releasing it) while the callback runs on another thread.
  bool Cancel(DKTimerEntry& entry, std::unique_lock<DKCriticalSection>& guard) {
    const bool wasArmed = entry.armed;
    Disarm(entry);
    while (entry.running && entry.runner != std::this_thread::get_id())
      m_callbackEnded.Wait(guard, DK_INFINITE);
    return wasArmed;
  }

  std::size_t ArmedCount() {
    std::lock_guard<DKCriticalSection> guard(lock);
    return m_armed;
  }
  bool MainThreadArmed() {
    std::lock_guard<DKCriticalSection> guard(lock);
    return m_mainThreadArmed > 0;
  }

  // The firing of a pool or the main thread: runs the callback unless the arming it belongs to
  // was cancelled or replaced meanwhile.
  void RunFiring(DKTimerEntry& entry, std::uint64_t generation, const DKTimerFiring& firing) {
    std::unique_lock<DKCriticalSection> guard(lock);
    if (entry.generation != generation)
      return;
    entry.pending = false;
    if (entry.period == Clock::duration::zero())
      SetArmed(entry, false); // the one-shot's firing has come
    RunCallback(entry, firing, guard);
  }

private:
  TimerService() = default;

  void Stop() {
    DKSmartPtr<DKThread> thread;
    {
      std::lock_guard<DKCriticalSection> guard(lock);
      m_stopped = true;
      thread = m_thread;
    }
    m_wake.WakeAll();
    if (thread)
      thread->Join();
  }

  DKErrorID StartFailed(DKTimerEntry& entry, const DKErrorID& error) {
    std::lock_guard<DKCriticalSection> guard(lock);
    Disarm(entry);
    m_thread.Clear();
    return error;
  }

  // Off the heap, with any firing on its way dropped. Under the lock.
  void Disarm(DKTimerEntry& entry) {
    ++entry.generation;
    SetArmed(entry, false);
    entry.pending = false;
    entry.deferred = false;
    if (entry.heapIndex != kNotInHeap)
      Remove(entry);
  }

  // Runs the callback with the lock released; under the lock again on return.
  void RunCallback(DKTimerEntry& entry, const DKTimerFiring& firing, std::unique_lock<DKCriticalSection>& guard) {
    DKSmartPtr<DKCallback> callback = entry.callback;
    if (!callback)
      return;
    entry.running = true;
    entry.runningGeneration = entry.generation;
    entry.runner = std::this_thread::get_id();
    ++entry.fired;
    guard.unlock();
    const DKTimerFiring* outer = t_firing;
    t_firing = &firing;
    CallGuarded(*callback, "DKTimer");
    t_firing = outer;
    callback.Clear(); // before the lock: its destructor may cancel timers
    guard.lock();
    entry.running = false;
    entry.runner = std::thread::id();
    m_callbackEnded.WakeAll();
    if (entry.deferred) { // its firing came while this callback ran: now it may go
      entry.deferred = false;
      Push(entry);
      m_wake.WakeAll();
    }
  }

  void Run() {
    DKTrace::Msg(TL_DETAIL, TS_DK, "DKTimer", "timer thread started\n");
    std::unique_lock<DKCriticalSection> guard(lock);
    while (!m_stopped) {
      if (m_heap.empty()) {
        m_wake.Wait(guard, DK_INFINITE);
        continue;
      }
      const Clock::time_point now = Clock::now();
      DKTimerEntry& entry = *m_heap.front();
      if (entry.due > now) {
        m_wake.WaitUntil(guard, entry.due);
        continue;
      }
      DKSmartPtr<DKTimerEntry> held(&entry); // the heap's reference goes with Remove
      Remove(entry);
      Fire(entry, now, guard);
    }
    DKTrace::Msg(TL_DETAIL, TS_DK, "DKTimer", "timer thread ended\n");
  }

  // The next due time on the grid of a periodic entry, the first after now; counts the points
  // passed over as skipped.
  static void Advance(DKTimerEntry& entry, Clock::time_point now) {
    entry.due += entry.period;
    if (entry.due <= now) {
      const auto behind = (now - entry.due) / entry.period + 1;
      entry.due += behind * entry.period;
      entry.skipped += static_cast<std::uint64_t>(behind);
    }
  }

  // The entry is due and off the heap. Under the lock (released while an inline callback runs).
  void Fire(DKTimerEntry& entry, Clock::time_point now, std::unique_lock<DKCriticalSection>& guard) {
    const bool periodic = entry.period > Clock::duration::zero();
    if (entry.pending || (entry.running && entry.runningGeneration == entry.generation)) {
      // The previous firing of this arming is not over: skip this one.
      ++entry.skipped;
      if (periodic) {
        Advance(entry, now);
        Push(entry);
      } else {
        SetArmed(entry, false);
      }
      return;
    }
    if (entry.running) { // a callback of an earlier arming: fire once it returns
      entry.deferred = true;
      return;
    }
    const DKTimerFiring firing{entry.due, ++entry.number, entry.skipped};
    const std::uint64_t generation = entry.generation;
    if (entry.target == DKTimerTarget::TimerThread) {
      if (!periodic)
        SetArmed(entry, false);
      RunCallback(entry, firing, guard);
      // Back on the grid after the callback, unless it re-armed or cancelled its timer.
      if (periodic && entry.generation == generation && entry.heapIndex == kNotInHeap) {
        Advance(entry, Clock::now());
        Push(entry);
      }
      return;
    }
    if (periodic) {
      Advance(entry, now);
      Push(entry);
    }
    entry.pending = true;
    DKSmartPtr<DKTimerEntry> held(&entry);
    DKSmartPtr<DKCallback> deliver =
        DKMakeCallback([held, generation, firing] { Get().RunFiring(*held, generation, firing); });
    if (entry.target == DKTimerTarget::MainThread) {
      DKTimerWnd::Post(deliver);
      return;
    }
    DKThreadPool& pool = entry.pool ? *entry.pool : DKThreadPool::GetDefault();
    if (pool.Post(deliver).Bad()) { // a full or shut-down pool: this firing is skipped
      entry.pending = false;
      --entry.number;
      ++entry.skipped;
      if (!periodic)
        SetArmed(entry, false);
    }
  }

  // Armed main-thread timers keep the run loop going.
  void SetArmed(DKTimerEntry& entry, bool armed) {
    if (entry.armed == armed)
      return;
    m_armed += armed ? 1 : -1;
    if (entry.target == DKTimerTarget::MainThread)
      m_mainThreadArmed += armed ? 1 : -1;
    entry.armed = armed;
  }

  void Push(DKTimerEntry& entry) {
    entry.AddRef();
    entry.order = ++m_order;
    entry.heapIndex = m_heap.size();
    m_heap.push_back(&entry);
    Up(entry.heapIndex);
  }

  void Remove(DKTimerEntry& entry) {
    const std::size_t at = entry.heapIndex;
    const std::size_t last = m_heap.size() - 1;
    if (at != last) {
      Place(m_heap[last], at);
      m_heap.pop_back();
      if (at > 0 && m_heap[at]->Before(*m_heap[(at - 1) / 2]))
        Up(at);
      else
        Down(at);
    } else {
      m_heap.pop_back();
    }
    entry.heapIndex = kNotInHeap;
    entry.Release(); // the heap's; the caller still holds one
  }

  void Place(DKTimerEntry* entry, std::size_t at) {
    m_heap[at] = entry;
    entry->heapIndex = at;
  }

  void Up(std::size_t at) {
    DKTimerEntry* entry = m_heap[at];
    while (at > 0) {
      const std::size_t parent = (at - 1) / 2;
      if (!entry->Before(*m_heap[parent]))
        break;
      Place(m_heap[parent], at);
      at = parent;
    }
    Place(entry, at);
  }

  void Down(std::size_t at) {
    DKTimerEntry* entry = m_heap[at];
    const std::size_t size = m_heap.size();
    for (;;) {
      std::size_t child = 2 * at + 1;
      if (child >= size)
        break;
      if (child + 1 < size && m_heap[child + 1]->Before(*m_heap[child]))
        ++child;
      if (!m_heap[child]->Before(*entry))
        break;
      Place(m_heap[child], at);
      at = child;
    }
    Place(entry, at);
  }

  std::vector<DKTimerEntry*> m_heap; // each holds a reference
  std::uint64_t m_order = 0;
  std::size_t m_armed = 0;
  std::size_t m_mainThreadArmed = 0; // armed main-thread timers
  bool m_stopped = false;
  DKSmartPtr<DKThread> m_thread;
  DKWaitPoint m_wake;          // the timer thread: a new first entry, or the stop
  DKWaitPoint m_callbackEnded; // Cancel: a callback ended
};

} // namespace

// ---------------------------------------------------------------------------------------------

DKTimer::DKTimer() : m_entry(new DKTimerEntry) { m_entry->AddRef(); }

DKTimer::DKTimer(const DKSmartPtr<DKCallback>& callback, DKTimerTarget target, DKThreadPool* pool) : DKTimer() {
  m_entry->callback = callback;
  m_entry->target = target;
  m_entry->pool = pool;
}

DKTimer::~DKTimer() {
  DKSmartPtr<DKCallback> callback;
  if (m_entry->generation != 0) { // armed once at least: the service knows it
    TimerService& service = TimerService::Get();
    std::unique_lock<DKCriticalSection> guard(service.lock);
    service.Cancel(*m_entry, guard);
    callback = std::move(m_entry->callback); // let go of it here, not on a late firing's thread
  }
  m_entry->Release();
}

DKErrorID DKTimer::SetCallback(const DKSmartPtr<DKCallback>& callback, DKTimerTarget target, DKThreadPool* pool) {
  DKSmartPtr<DKCallback> old;
  TimerService& service = TimerService::Get();
  std::lock_guard<DKCriticalSection> guard(service.lock);
  if (m_entry->armed)
    return DKLibraryErrorID(DK_MSG_INVALID_ARGUMENT, "DKTimer::SetCallback: the timer is armed");
  old = std::move(m_entry->callback);
  m_entry->callback = callback;
  m_entry->target = target;
  m_entry->pool = pool;
  return DKErrorID();
}

DKErrorID DKTimer::Start(int dueMs, int periodMs) {
  return Start(std::chrono::milliseconds(dueMs), std::chrono::milliseconds(periodMs));
}

DKErrorID DKTimer::Start(Clock::duration due, Clock::duration period) {
  return StartAt(Clock::now() + std::max(due, Clock::duration::zero()), period);
}

DKErrorID DKTimer::StartAt(Clock::time_point due, Clock::duration period) {
  if (period < Clock::duration::zero())
    return DKLibraryErrorID(DK_MSG_INVALID_ARGUMENT, "DKTimer::Start: the period is negative");
  return TimerService::Get().Arm(*m_entry, due, period);
}

bool DKTimer::Cancel() {
  TimerService& service = TimerService::Get();
  std::unique_lock<DKCriticalSection> guard(service.lock);
  return service.Cancel(*m_entry, guard);
}

namespace {

// Reads a field of an entry under the service's lock.
template <class Read>
auto ReadLocked(const DKTimerEntry& entry, Read read) {
  std::lock_guard<DKCriticalSection> guard(TimerService::Get().lock);
  return read(entry);
}

} // namespace

bool DKTimer::IsArmed() const {
  return ReadLocked(*m_entry, [](const DKTimerEntry& e) { return e.armed; });
}

DKTimer::Clock::time_point DKTimer::GetNextDue() const {
  return ReadLocked(*m_entry, [](const DKTimerEntry& e) { return e.heapIndex != kNotInHeap ? e.due : Clock::time_point(); });
}

std::uint64_t DKTimer::GetFiredCount() const {
  return ReadLocked(*m_entry, [](const DKTimerEntry& e) { return e.fired; });
}

std::uint64_t DKTimer::GetSkippedCount() const {
  return ReadLocked(*m_entry, [](const DKTimerEntry& e) { return e.skipped; });
}

DKTimer::Clock::duration DKTimer::GetPeriod() const {
  return ReadLocked(*m_entry, [](const DKTimerEntry& e) { return e.period; });
}

DKTimerTarget DKTimer::GetTarget() const {
  return ReadLocked(*m_entry, [](const DKTimerEntry& e) { return e.target; });
}

const DKTimerFiring* DKTimer::CurrentFiring() noexcept { return t_firing; }

std::size_t DKTimer::GetArmedCount() { return TimerService::Get().ArmedCount(); }

DKAppTimer::~DKAppTimer() = default;

bool DKAppTimer::HasArmedTimers() { return TimerService::Get().MainThreadArmed() || DKTimerWnd::GetQueuedCount() > 0; }

// ---------------------------------------------------------------------------------------------

namespace {

struct TimerWindow {
  DKCriticalSection lock;
  std::deque<DKSmartPtr<DKCallback>> queue;
  bool pumping = false;
  bool wake = false; // Wake was called: the next wait ends at once
  bool quit = false;  // a quit message ended a wait on the hidden window's thread
  int quitCode = 0;
  DKWaitPoint posted;
};

TimerWindow& Window() {
  static TimerWindow* const window = new TimerWindow; // never destroyed, like the timer thread
  return *window;
}

} // namespace

void DKTimerWnd::Post(const DKSmartPtr<DKCallback>& callback) {
  if (!callback)
    return;
  TimerWindow& window = Window();
  {
    std::lock_guard<DKCriticalSection> guard(window.lock);
    window.queue.push_back(callback);
  }
  window.posted.WakeAll();
  DKTimerWindowImpl::Notify();
}

int DKTimerWnd::Pump(int waitMs) {
  TimerWindow& window = Window();
  std::deque<DKSmartPtr<DKCallback>> due;
  {
    std::unique_lock<DKCriticalSection> guard(window.lock);
    if (window.pumping)
      return 0;
    window.pumping = true; // waiting is pumping too: a second thread gets nothing meanwhile
    const auto deadline = Clock::now() + std::chrono::milliseconds(std::max(waitMs, 0));
    // The hidden window's thread waits for its messages, which carry posts and wakes too.
    const bool windowed = waitMs != 0 && DKTimerWindowImpl::IsOwner();
    while (window.queue.empty() && !window.wake && waitMs != 0) {
      const auto now = Clock::now();
      if (waitMs > 0 && now >= deadline)
        break;
      const int leftMs = waitMs < 0 ? DK_INFINITE : DKWaitPoint::MillisecondsUntil(deadline, now);
      if (!windowed) {
        window.posted.Wait(guard, leftMs);
        continue;
      }
      guard.unlock();
      int quitCode = 0;
      const bool goOn = DKTimerWindowImpl::WaitAndDispatch(leftMs, quitCode);
      guard.lock();
      if (!goOn) {
        window.quit = true;
        window.quitCode = quitCode;
        break;
      }
    }
    window.wake = false;
    due.swap(window.queue);
    DKTimerWindowImpl::Drained();
  }
  int ran = 0;
  for (DKSmartPtr<DKCallback>& callback : due) {
    CallGuarded(*callback, "DKTimerWnd");
    callback.Clear();
    ++ran;
  }
  std::lock_guard<DKCriticalSection> guard(window.lock);
  window.pumping = false;
  return ran;
}

void DKTimerWnd::Wake() {
  TimerWindow& window = Window();
  {
    std::lock_guard<DKCriticalSection> guard(window.lock);
    window.wake = true;
  }
  window.posted.WakeAll();
  DKTimerWindowImpl::Notify();
}

DKErrorID DKTimerWnd::Attach() {
  TimerWindow& window = Window();
  std::lock_guard<DKCriticalSection> guard(window.lock);
  if (DKTimerWindowImpl::IsOwner())
    return DKErrorID();
  if (DKTimerWindowImpl::Handle())
    return DKLibraryErrorID(DK_MSG_INVALID_ARGUMENT, "DKTimerWnd::Attach: another thread owns the hidden window");
  int error = 0;
  if (!DKTimerWindowImpl::Create([] { DKTimerWnd::Pump(0); }, error))
    return DKLibraryErrorID(DK_MSG_SYSTEM_ERROR, error, DKSystem::ErrorCodeText(error));
  return DKErrorID();
}

void DKTimerWnd::Detach() {
  TimerWindow& window = Window();
  std::lock_guard<DKCriticalSection> guard(window.lock);
  DKTimerWindowImpl::Destroy();
}

void* DKTimerWnd::GetWindowHandle() noexcept { return DKTimerWindowImpl::Handle(); }

bool DKTimerWnd::TakeQuitMessage(int* exitCode) {
  TimerWindow& window = Window();
  std::lock_guard<DKCriticalSection> guard(window.lock);
  if (!window.quit)
    return false;
  window.quit = false;
  if (exitCode)
    *exitCode = window.quitCode;
  return true;
}

std::size_t DKTimerWnd::GetQueuedCount() {
  TimerWindow& window = Window();
  std::lock_guard<DKCriticalSection> guard(window.lock);
  return window.queue.size();
}
