// DKTimer: one-shot and periodic timers on one shared timer thread; DKAppTimer: a timer whose
// callback runs on the application's main thread; DKTimerWnd: the queue through which the
// main thread receives those callbacks.
//
//   DKTimer poll(DKMakeCallback([&] { Poll(); }));        // runs on the default pool
//   poll.Start(std::chrono::seconds(1), std::chrono::seconds(1));
//   ...
//   poll.Cancel(); // returns once the callback is not running and will not run again
//
// Every timer of the process waits on one timer thread (a DKThread started at the first Start)
// in a binary heap: arming and cancelling cost O(log n) however many timers are armed. Times
// are read from the monotonic clock, so changing the wall clock does not move a timer.
//
// A periodic timer does not drift: each due time is the previous due time plus the period,
// whenever the callback actually ran. When a callback overruns (it still runs, or waits for a
// thread, when the next due time comes), that firing is skipped, not queued: the timer stays on
// its grid and counts the firings it skipped. A callback never runs twice at once.
//
// The callback runs where the timer says:
//   Pool         on a DKThreadPool (the default pool unless one is given); a full or shut-down
//                pool makes the firing count as skipped;
//   TimerThread  on the timer thread itself: for short callbacks only, since every other timer
//                waits while it runs;
//   MainThread   on the thread that pumps DKTimerWnd: the application's run loop (DKAppTimer).
//
// Cancel (and the destructor) return only once the callback is not running and will not run
// again; called from the timer's own callback they cannot wait for it, and only disarm. The
// timer thread ends when the process exits; timers armed then never fire.
#pragma once

#include <DorvikCore/DKError.h>
#include <DorvikCore/DKRefCount.h>
#include <DorvikCore/DKThread.h>
#include <DorvikCore/DKTypes.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

class DKThreadPool;
class DKTimerEntry;

// Where a timer's callback runs.
enum class DKTimerTarget : int {
  Pool = 0,
  TimerThread = 1,
  MainThread = 2,
};

// The firing a callback runs for (DKTimer::CurrentFiring).
struct DKTimerFiring {
  std::chrono::steady_clock::time_point due; // when it was due (the callback runs at or after it)
  std::uint64_t number = 0;                  // 1 for the first firing since Start
  std::uint64_t skipped = 0;                 // firings skipped since Start, up to this one
};

// A one-shot or periodic timer on the shared timer thread: its callback runs on a pool or on
// the timer thread itself, periodic firings keep their schedule (no drift) and skip rather than
// pile up behind a slow callback, and Cancel returns only when the callback is not running and
// will not run again. Monotonic: a change of the wall clock does not move it.
class DK_EXPORT DKTimer {
public:
  // The monotonic clock of due times.
  typedef std::chrono::steady_clock Clock;

  // A timer without a callback (SetCallback gives it one).
  DKTimer();
  // pool: for target Pool; null means the default pool. It must outlive the timer.
  explicit DKTimer(const DKSmartPtr<DKCallback>& callback, DKTimerTarget target = DKTimerTarget::Pool,
                   DKThreadPool* pool = nullptr);
  template <class F, class = std::enable_if_t<!std::is_convertible_v<const std::decay_t<F>&, DKSmartPtr<DKCallback>> &&
                                              std::is_invocable_v<std::decay_t<F>&>>>
  explicit DKTimer(F&& callback, DKTimerTarget target = DKTimerTarget::Pool, DKThreadPool* pool = nullptr)
      : DKTimer(DKMakeCallback(std::forward<F>(callback)), target, pool) {}
  // Cancels the timer and lets go of the callback.
  virtual ~DKTimer();
  DKTimer(const DKTimer&) = delete;
  DKTimer& operator=(const DKTimer&) = delete;

  // Replaces the callback and where it runs; refused (DK_MSG_INVALID_ARGUMENT) while armed.
  DKErrorID SetCallback(const DKSmartPtr<DKCallback>& callback, DKTimerTarget target = DKTimerTarget::Pool,
                        DKThreadPool* pool = nullptr);

  // Arms the timer: first due after `due` (0 or less: at once), then every `period` (0: once).
  // An armed timer is re-armed: its pending firing is dropped, a running callback finishes.
  // Errors: no callback, a negative period (DK_MSG_INVALID_ARGUMENT); the process is exiting
  // (DK_MSG_SHUT_DOWN).
  DKErrorID Start(int dueMs, int periodMs = 0);
  DKErrorID Start(Clock::duration due, Clock::duration period = Clock::duration::zero());
  // The same with the first due time given on the monotonic clock.
  DKErrorID StartAt(Clock::time_point due, Clock::duration period = Clock::duration::zero());
  // Disarms the timer and waits until its callback is not running. True when it was armed (a
  // firing was still to come).
  bool Cancel();

  // A firing is still to come.
  bool IsArmed() const;
  // The next due time; the clock's epoch when not armed.
  Clock::time_point GetNextDue() const;
  // Callbacks run and firings skipped since the last Start.
  std::uint64_t GetFiredCount() const;
  std::uint64_t GetSkippedCount() const;
  Clock::duration GetPeriod() const;
  DKTimerTarget GetTarget() const;

  // In a timer's callback: the firing it runs for; null anywhere else.
  static const DKTimerFiring* CurrentFiring() noexcept;
  // Timers armed in the process (a snapshot).
  static std::size_t GetArmedCount();

private:
  DKTimerEntry* m_entry;
};

// A timer whose callback runs on the application's main thread, so that plug-ins can do
// periodic work without threads of their own. The application's run loop delivers the
// callbacks (DKApplicationWithPlugIns::Run pumps DKTimerWnd while it waits; a program with a
// loop of its own calls DKTimerWnd::Pump in it). While an application timer is armed, the run
// loop keeps running until the exit is requested.
class DK_EXPORT DKAppTimer : public DKTimer {
public:
  // A timer without a callback, or one whose callback (a counted callback or any callable)
  // runs on the main thread.
  DKAppTimer() = default;
  explicit DKAppTimer(const DKSmartPtr<DKCallback>& callback) : DKTimer(callback, DKTimerTarget::MainThread) {}
  template <class F, class = std::enable_if_t<!std::is_convertible_v<const std::decay_t<F>&, DKSmartPtr<DKCallback>> &&
                                              std::is_invocable_v<std::decay_t<F>&>>>
  explicit DKAppTimer(F&& callback) : DKTimer(DKMakeCallback(std::forward<F>(callback)), DKTimerTarget::MainThread) {}
  ~DKAppTimer() override;

  // Gives the stopped timer another callback, run on the main thread; refused while armed.
  DKErrorID SetCallback(const DKSmartPtr<DKCallback>& callback) {
    return DKTimer::SetCallback(callback, DKTimerTarget::MainThread);
  }

  // Whether an application timer is armed or has a callback waiting for the main thread.
  static bool HasArmedTimers();
};

// The main thread's timer window: the queue of callbacks that application timers (and any
// thread, through Post) hand to the thread that pumps it. A run loop pumps this queue where it
// used to sleep. On Windows a thread can also attach the hidden window of the same name: each
// post then reaches the thread as a window message, so a program that runs its own message loop
// (GetMessage and DispatchMessage) gets the callbacks run without pumping.
class DK_EXPORT DKTimerWnd {
public:
  // Creates the hidden window on the calling thread. From then on the thread's message loop runs
  // the queued callbacks as they come, and a Pump on this thread dispatches the thread's window
  // messages while it waits. One thread owns the window; the owner attaching again does nothing.
  // An error when another thread owns it, when the system refuses, and on systems without
  // windows (everywhere but Windows).
  static DKErrorID Attach();
  // Destroys the hidden window, on its owner thread (elsewhere: nothing). Queued callbacks stay
  // queued for the next Pump.
  static void Detach();
  // The hidden window's handle (an HWND); null when none is attached.
  static void* GetWindowHandle() noexcept;
  // Whether a quit message (WM_QUIT) ended a wait of Pump on the window's thread since the last
  // call; Pump takes that message out of the thread's queue and keeps its exit code for exitCode.
  static bool TakeQuitMessage(int* exitCode = nullptr);

  // Queues a callback for the pumping thread; any thread may call. Null does nothing.
  static void Post(const DKSmartPtr<DKCallback>& callback);
  // Runs the callbacks queued now, in the order they were posted, on the calling thread. When
  // none is queued, first waits up to waitMs (DK_INFINITE: without limit) for one, or for Wake
  // (or, on the thread of the hidden window, for a quit message).
  // Returns how many ran. One thread pumps at a time: a second one returns 0 at once. An
  // exception a callback throws is reported like one that leaves a DKThread, and the rest run.
  static int Pump(int waitMs = 0);
  // Ends the wait of a Pump (at once when nobody pumps: the next Pump does not wait).
  static void Wake();
  // Callbacks waiting for the pumping thread.
  static std::size_t GetQueuedCount();
};
