// DKThreadPool: tasks run on a pool of DKThreads; DKThreadServer: one thread that serves
// requests in the order they came.
//
//   DKThreadPool& pool = DKThreadPool::GetDefault();        // sized from the processors
//   DKTaskTicket ticket = pool.Submit([&] { return Compress(file); }); // DKErrorID or void
//   if (ticket.Wait(5000)) ... ticket.GetResult() ...      // the task's DKErrorID
//
// A pool keeps between a minimum and a maximum of threads: a task that finds no idle thread
// starts a new one up to the maximum, and a thread idle for longer than the idle timeout ends
// while the pool has more than the minimum. Tasks wait in one queue, first in first out, of a
// bounded capacity: Submit refuses a task when the queue is full (DK_MSG_QUEUE_FULL) or the
// pool is shut down (DK_MSG_SHUT_DOWN); the refused task never runs and its ticket says why. A
// task cancelled while queued gives its room back, at the latest when the room is needed.
//
// A task is a callable returning void or DKErrorID, or a DKSmartPtr<DKCallback>. Its ticket
// waits for it (with a timeout), cancels it while it is still queued, asks it to stop once it
// runs (the task polls DKThreadPool::IsStopRequested()), and carries its result: the DKErrorID
// it returned, or the exception it threw (DK_MSG_TASK_EXCEPTION, with the exception itself in
// GetException). An exception never ends a pool thread. Tasks posted without a ticket report
// an exception on the console while GlbGetTraceLevel() is non-zero.
//
// Shutdown(Drain) runs what is queued and then ends the threads; Shutdown(Cancel) cancels what
// is queued and asks the running tasks to stop. The destructor is Shutdown(Cancel) and waits for
// the running tasks: it never hangs on a task that observes its stop request.
//
// DKThreadServer is a pool of exactly one thread: requests run one at a time in the order they
// were queued, so the requests of one sender keep their order whatever other threads post.
// Post queues a request; Send queues it and waits for its result (on the server's own thread
// it runs the request at once, since waiting there could never end).
//
// The threads are DKThreads (the registry and the thread dump list them). Trace lines go to
// subject "DK".
#pragma once

#include <DorvikCore/DKError.h>
#include <DorvikCore/DKRefCount.h>
#include <DorvikCore/DKString.h>
#include <DorvikCore/DKSync.h>
#include <DorvikCore/DKThread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <type_traits>
#include <utility>

class DKThreadPoolCore;

// Where a task is in its life.
enum class DKTaskStatus : int {
  Queued = 0,    // waiting in the queue
  Running = 1,   // a pool thread runs it
  Finished = 2,  // it returned (GetResult) or threw (GetException)
  Cancelled = 3, // taken off the queue before it started
  Refused = 4,   // never queued: the queue was full or the pool shut down
};

// The shared state of one task: its status, its stop request and its outcome. Held by the
// queue, the thread that runs it and its tickets.
class DK_EXPORT DKPoolTask : public DKRefCount {
public:
  DKPoolTask() noexcept = default;
  ~DKPoolTask() override;

  // Where the task is in its life.
  DKTaskStatus GetStatus() const noexcept { return static_cast<DKTaskStatus>(m_status.load(std::memory_order_acquire)); }
  // Whether its pool asked it to stop (a cancelling shutdown): a long task looks now and then.
  bool IsStopRequested() const noexcept { return m_stopRequested.load(std::memory_order_acquire); }

protected:
  // The work itself.
  virtual DKErrorID Execute() = 0;

private:
  friend class DKThreadPoolCore;
  friend class DKTaskTicket;
  friend class DKThreadServer;

  std::atomic<int> m_status{static_cast<int>(DKTaskStatus::Queued)};
  std::atomic<bool> m_stopRequested{false};
  bool m_hasTicket = false;     // set before queuing: an exception is kept instead of reported
  DKErrorID m_result;           // written before the status becomes final
  std::exception_ptr m_exception;
};

// A task made of a callable returning void or something convertible to DKErrorID.
template <class F>
class DKPoolTaskOf final : public DKPoolTask {
  static_assert(std::is_invocable_v<F&>, "a task is called without arguments");

public:
  // The task that calls function.
  explicit DKPoolTaskOf(F function) : m_function(std::move(function)) {}

private:
  DKErrorID Execute() override {
    if constexpr (std::is_void_v<std::invoke_result_t<F&>>) {
      m_function();
      return DKErrorID();
    } else {
      return DKErrorID(m_function());
    }
  }
  F m_function;
};

// A callback a DKSmartPtr holds is called through it.
template <>
class DKPoolTaskOf<DKSmartPtr<DKCallback>> final : public DKPoolTask {
public:
  // The task that calls callback.
  explicit DKPoolTaskOf(DKSmartPtr<DKCallback> callback) : m_callback(std::move(callback)) {}

private:
  DKErrorID Execute() override {
    if (m_callback)
      m_callback->Call();
    return DKErrorID();
  }
  DKSmartPtr<DKCallback> m_callback;
};

// The task type that holds F: a callable as it is, any smart pointer to a callback as a
// DKSmartPtr<DKCallback>.
template <class F>
using DKPoolTaskFor = std::conditional_t<std::is_convertible_v<const std::decay_t<F>&, DKSmartPtr<DKCallback>>,
                                         DKPoolTaskOf<DKSmartPtr<DKCallback>>, DKPoolTaskOf<std::decay_t<F>>>;

// The caller's handle on a submitted task. Copies share the task; an empty ticket has none.
class DK_EXPORT DKTaskTicket {
public:
  // An empty ticket, or one for task.
  DKTaskTicket() noexcept = default;
  explicit DKTaskTicket(DKSmartPtr<DKPoolTask> task) noexcept : m_task(std::move(task)) {}

  // Whether the ticket has no task.
  bool IsNull() const noexcept { return m_task.IsNull(); }
  // An empty ticket reports Refused.
  DKTaskStatus GetStatus() const noexcept { return m_task ? m_task->GetStatus() : DKTaskStatus::Refused; }
  // Finished, cancelled or refused: nothing more will happen to the task.
  bool IsDone() const noexcept;

  // Waits until the task is done; false when the timeout (milliseconds; DK_INFINITE: none)
  // passed first. An empty ticket is done.
  bool Wait(int timeoutMs = DK_INFINITE) const;
  // Takes a queued task off the queue: it will never run, and its waiters are released. False
  // when the task already runs or is done.
  bool Cancel();
  // Asks a running (or still queued) task to stop: DKThreadPool::IsStopRequested() turns true
  // for it. The task decides what stopping means.
  void RequestStop() noexcept;

  // Waits until the task is done, then: its DKErrorID when it returned; DK_MSG_TASK_EXCEPTION
  // (with the exception's text) when it threw; DK_MSG_TASK_CANCELLED when it was cancelled; the
  // reason it was refused. An empty ticket gives DK_MSG_TASK_CANCELLED.
  DKErrorID GetResult() const;
  // The exception the task threw (after Wait); null when it threw none.
  std::exception_ptr GetException() const;
  // Throws the task's exception again, if it threw one.
  void RethrowException() const;

private:
  DKSmartPtr<DKPoolTask> m_task;
};

// What a pool looks like.
struct DKThreadPoolOptions {
  DKString name = DKString(DK_T("DKThreadPool")); // in errors and trace lines
  unsigned minThreads = 0;                          // kept even when idle (started at once)
  unsigned maxThreads = 0;                          // 0: the number of processors (at least 2)
  int idleTimeoutMs = 30000;                        // an idle thread above the minimum ends then
  std::size_t capacity = 65536;                     // tasks the queue holds at most (at least 1)
  int priority = DK_THREAD_PRIORITY_NORMAL;         // of every pool thread
};

// A pool of DKThreads that runs submitted tasks: between a minimum and a maximum of threads,
// idle ones above the minimum ending after a while, a bounded queue, tickets to wait on or
// cancel, a clean shutdown. GetDefault() is the process's pool, sized from the processors.
class DK_EXPORT DKThreadPool {
public:
  // What a shutdown does with the tasks still queued.
  enum ShutdownMode {
    Drain,  // run the queued tasks first
    Cancel, // cancel the queued tasks and ask the running ones to stop
  };

  // A pool with those options, or with those sizes and the other options as they default.
  explicit DKThreadPool(const DKThreadPoolOptions& options = DKThreadPoolOptions());
  DKThreadPool(unsigned minThreads, unsigned maxThreads, int idleTimeoutMs = 30000, std::size_t capacity = 65536);
  // Shutdown(Cancel), waiting without limit.
  ~DKThreadPool();
  DKThreadPool(const DKThreadPool&) = delete;
  DKThreadPool& operator=(const DKThreadPool&) = delete;

  // The process-wide pool, made at first use with the default options (as many threads as
  // processors, at least 2) and shut down when the process exits.
  static DKThreadPool& GetDefault();

  // Queues a task. When the queue is full, waits up to waitMs for room (DK_INFINITE: without
  // limit; never on a thread of this pool, where waiting could block the pool for ever). The
  // ticket of a refused task is already done: GetStatus() is Refused, GetResult() the reason.
  template <class F>
  [[nodiscard]] DKTaskTicket Submit(F&& task, int waitMs = 0) {
    DKPoolTask* made = MakeTask(std::forward<F>(task));
    DKTaskTicket ticket{DKSmartPtr<DKPoolTask>(made)};
    made->AddRef(); // the queue's reference, handed to Enqueue
    Enqueue(made, true, waitMs).IgnoreError(); // a refusal is on the ticket too
    return ticket;
  }
  // Queues a task that nobody waits for; the error says why it was refused.
  template <class F>
  [[nodiscard]] DKErrorID Post(F&& task, int waitMs = 0) {
    DKPoolTask* made = MakeTask(std::forward<F>(task));
    made->AddRef(); // the queue's reference, handed to Enqueue
    return Enqueue(made, false, waitMs);
  }

  // Refuses new tasks, then Drain or Cancel, and waits up to timeoutMs for every thread to end.
  // True when they all ended; false on a timeout, the pool then goes on shutting down (a later
  // call or the destructor waits again). On a thread of this pool it cannot wait for itself:
  // it starts the shutdown and returns false.
  bool Shutdown(ShutdownMode mode = Drain, int timeoutMs = DK_INFINITE);
  bool IsShutDown() const noexcept;

  // Whether the task running on the calling thread has been asked to stop (by its ticket, or by
  // a Shutdown(Cancel) of its pool). False outside pool tasks.
  static bool IsStopRequested() noexcept;
  // Whether the caller is one of this pool's threads.
  bool IsPoolThread() const noexcept;

  // A snapshot of the counters.
  unsigned GetThreadCount() const noexcept;
  unsigned GetIdleThreadCount() const noexcept;
  std::size_t GetQueuedCount() const noexcept;
  std::size_t GetCapacity() const noexcept;
  unsigned GetMaxThreads() const noexcept;
  const DKString& GetName() const noexcept;

private:
  template <class F>
  static DKPoolTask* MakeTask(F&& task) {
    return new DKPoolTaskFor<F>(std::forward<F>(task));
  }
  // Takes over one reference to the task: the queue's, or released when the task is refused.
  DKErrorID Enqueue(DKPoolTask* task, bool withTicket, int waitMs);

  DKThreadPoolCore* m_core;
};

// One thread that serves requests in order.
class DK_EXPORT DKThreadServer {
public:
  // name: in errors and trace lines; capacity: requests the queue holds at most.
  explicit DKThreadServer(const DKString& name = DKString(DK_T("DKThreadServer")), std::size_t capacity = 65536);
  // Stop(true): the queued requests still run.
  ~DKThreadServer();
  DKThreadServer(const DKThreadServer&) = delete;
  DKThreadServer& operator=(const DKThreadServer&) = delete;

  // Queues a request (a callable returning void or DKErrorID, or a DKSmartPtr<DKCallback>);
  // waits up to waitMs for room when the queue is full.
  template <class F>
  [[nodiscard]] DKErrorID Post(F&& request, int waitMs = 0) {
    return m_pool.Post(std::forward<F>(request), IsServerThread() ? 0 : waitMs);
  }
  // Queues a request and waits for it: its DKErrorID, or the reason it was refused or
  // cancelled; an exception it threw is thrown again here. On the server's own thread the
  // request runs at once.
  template <class F>
  DKErrorID Send(F&& request) {
    if (IsServerThread()) {
      DKPoolTaskFor<F> now(std::forward<F>(request));
      return RunHere(now);
    }
    DKTaskTicket ticket = m_pool.Submit(std::forward<F>(request), DK_INFINITE);
    ticket.Wait();
    ticket.RethrowException();
    return ticket.GetResult();
  }
  // Refuses new requests, runs the queued ones (drain) or cancels them, and waits for the
  // thread to end. Called on the server's thread, it stops the server without waiting.
  void Stop(bool drain = true);
  bool IsStopped() const noexcept { return m_pool.IsShutDown(); }
  bool IsServerThread() const noexcept { return m_pool.IsPoolThread(); }
  std::size_t GetQueuedCount() const noexcept { return m_pool.GetQueuedCount(); }

private:
  static DKErrorID RunHere(DKPoolTask& request);
  DKThreadPool m_pool;
};
