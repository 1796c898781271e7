// DKThreadPool, its tickets, and DKThreadServer.
//
// One lock guards the queue (a ring that grows up to the capacity), the idle threads and the
// counters. A thread with nothing to do first looks at the queue for a moment without the lock
// (a burst of tasks then finds it awake), then puts itself on the idle stack and sleeps on its
// own wait point; Enqueue wakes exactly one idle thread, the one that went idle last (its cache
// is warm), or starts a new thread while the pool is below its maximum. The per-thread records
// are kept until the pool is destroyed and reused by later threads, so a late wake never
// reaches freed memory.
//
// A task's status moves once from Queued to Running (the thread that runs it), Cancelled (its
// ticket) or Refused (Enqueue), and from Running to Finished: whoever wins that exchange owns
// the task's next step. Waiting for a task uses one process-wide wait point; a finishing task
// wakes it only while someone waits.
#include <DorvikCore/DKThreadPool.h>

#include <DorvikCore/DKConsole.h>
#include <DorvikCore/DKException.h>
#include <DorvikCore/DKTrace.h>

#include "threads/DKThreadImpl.h"
#include "threads/DKWaitPoint.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace {

// Waiting for tasks to end: one wait point for the process, created on first use and never
// destroyed, so that tickets outlive their pools safely.
std::atomic<int> g_doneWaiters{0};

DKWaitPoint& DoneWaitPoint() {
  static DKWaitPoint* const point = new DKWaitPoint;
  return *point;
}

void NotifyDone() {
  if (g_doneWaiters.load(std::memory_order_seq_cst) > 0)
    DoneWaitPoint().WakeAll();
}

constexpr int kQueued = static_cast<int>(DKTaskStatus::Queued);
constexpr int kRunning = static_cast<int>(DKTaskStatus::Running);
constexpr int kFinished = static_cast<int>(DKTaskStatus::Finished);
constexpr int kCancelled = static_cast<int>(DKTaskStatus::Cancelled);
constexpr int kRefused = static_cast<int>(DKTaskStatus::Refused);

// How many times an idle thread looks at the queue, giving up the processor between looks,
// before it goes to sleep.
constexpr int kIdleLooks = 64;

thread_local const DKThreadPoolCore* t_pool = nullptr;
thread_local DKPoolTask* t_task = nullptr;

DKString ExceptionText(const std::exception& e) {
  if (const auto* own = dynamic_cast<const DKException*>(&e))
    return own->What();
  return DKString::FromUTF8(e.what());
}

} // namespace

DKPoolTask::~DKPoolTask() = default;

// ---------------------------------------------------------------------------------------------

class DKThreadPoolCore {
public:
  explicit DKThreadPoolCore(const DKThreadPoolOptions& options);
  ~DKThreadPoolCore();

  DKErrorID Enqueue(DKPoolTask* task, bool withTicket, int waitMs);
  bool Shutdown(DKThreadPool::ShutdownMode mode, int timeoutMs);
  void StartMinimum();

  struct Worker {
    DKSmartPtr<DKThread> thread;
    DKWaitPoint wake;
    bool woken = false; // taken off the idle stack by Enqueue or Shutdown
  };

  DKThreadPoolOptions options;
  mutable DKCriticalSection lock;
  // The queue: a ring of count tasks from head, each holding a reference.
  std::vector<DKPoolTask*> ring;
  std::size_t head = 0;
  std::size_t count = 0;
  std::atomic<std::size_t> queued{0}; // count, readable without the lock
  std::atomic<int> looking{0};        // threads looking at the queue before they go idle
  std::vector<std::unique_ptr<Worker>> workers; // every record ever made, in use or free
  std::vector<Worker*> freeWorkers;
  std::vector<Worker*> idle; // a stack: the last to go idle is woken first
  unsigned threads = 0;      // running or starting
  bool accepting = true;
  std::atomic<bool> cancelling{false}; // Shutdown(Cancel): the running tasks are asked to stop
  int roomWaiters = 0;
  DKWaitPoint room;  // woken when a full queue gets room, and at shutdown
  DKWaitPoint ended; // woken when a thread ends

private:
  void Run(Worker* worker);
  void RunTask(DKPoolTask* task);
  DKPoolTask* Pop();
  bool Push(DKPoolTask* task);
  void DropCancelled(std::vector<DKPoolTask*>& dropped);
  DKErrorID StartWorker();
  DKErrorID Refuse(DKPoolTask& task, DKErrorID reason);
};

DKThreadPoolCore::DKThreadPoolCore(const DKThreadPoolOptions& given) : options(given) {
  if (options.maxThreads == 0)
    options.maxThreads = std::max(2u, std::thread::hardware_concurrency());
  options.minThreads = std::min(options.minThreads, options.maxThreads);
  options.capacity = std::max<std::size_t>(options.capacity, 1);
  ring.resize(std::min<std::size_t>(options.capacity, 64));
  workers.reserve(options.maxThreads);
  DKTrace::Msg(TL_DETAIL, TS_DK, "DKThreadPool", "%s: %u to %u threads, queue of %zu\n", options.name,
               options.minThreads, options.maxThreads, options.capacity);
}

// Shutdown has drained or cancelled the queue and joined every thread by now.
DKThreadPoolCore::~DKThreadPoolCore() = default;

void DKThreadPoolCore::StartMinimum() {
  for (unsigned i = 0; i < options.minThreads; ++i) {
    {
      std::lock_guard<DKCriticalSection> guard(lock);
      ++threads;
    }
    if (StartWorker().Bad())
      break;
  }
}

bool DKThreadPoolCore::Push(DKPoolTask* task) {
  if (count == ring.size()) {
    if (ring.size() >= options.capacity)
      return false;
    std::vector<DKPoolTask*> bigger(std::min(ring.size() * 2, options.capacity));
    for (std::size_t i = 0; i < count; ++i)
      bigger[i] = ring[(head + i) % ring.size()];
    ring.swap(bigger);
    head = 0;
  }
  ring[(head + count) % ring.size()] = task;
  ++count;
  queued.store(count, std::memory_order_relaxed);
  return true;
}

DKPoolTask* DKThreadPoolCore::Pop() {
  DKPoolTask* task = ring[head];
  ring[head] = nullptr;
  head = head + 1 == ring.size() ? 0 : head + 1;
  --count;
  queued.store(count, std::memory_order_relaxed);
  return task;
}

// Takes the tasks cancelled while they waited out of the queue, keeping the order of the others.
void DKThreadPoolCore::DropCancelled(std::vector<DKPoolTask*>& dropped) {
  std::size_t kept = 0;
  for (std::size_t i = 0; i < count; ++i) {
    DKPoolTask*& slot = ring[(head + i) % ring.size()];
    DKPoolTask* task = std::exchange(slot, nullptr);
    if (task->m_status.load(std::memory_order_acquire) == kQueued)
      ring[(head + kept++) % ring.size()] = task;
    else
      dropped.push_back(task);
  }
  count = kept;
  queued.store(count, std::memory_order_relaxed);
}

DKErrorID DKThreadPoolCore::Refuse(DKPoolTask& task, DKErrorID reason) {
  task.m_result = reason;
  int expected = kQueued;
  task.m_status.compare_exchange_strong(expected, kRefused, std::memory_order_acq_rel);
  DKTrace::Msg(TL_DETAIL, TS_DK, "DKThreadPool", "%s: task refused: %S\n", options.name, reason.AsString());
  return reason;
}

DKErrorID DKThreadPoolCore::Enqueue(DKPoolTask* task, bool withTicket, int waitMs) {
  task->m_hasTicket = withTicket;
  Worker* toWake = nullptr;
  bool startThread = false;
  std::vector<DKPoolTask*> dropped;
  bool queuedIt = false; // else the reference handed over goes with the dropped ones
  struct Release { // the dropped tasks go once the lock is released: their callables are the user's
    std::vector<DKPoolTask*>& tasks;
    ~Release() {
      for (DKPoolTask* task : tasks)
        task->Release();
    }
  } release{dropped};
  struct Keep {
    std::vector<DKPoolTask*>& dropped;
    DKPoolTask* task;
    bool& queued;
    ~Keep() {
      if (!queued)
        dropped.push_back(task);
    }
  };
  {
    const Keep keep{dropped, task, queuedIt}; // destroyed before release: the refused task joins the dropped
    std::unique_lock<DKCriticalSection> guard(lock);
    if (waitMs != 0 && t_pool == this)
      waitMs = 0; // a pool thread waiting for room could wait for itself
    std::chrono::steady_clock::time_point deadline{};
    for (bool first = true;; first = false) {
      if (!accepting)
        return Refuse(*task, DKLibraryErrorID(DK_MSG_SHUT_DOWN, options.name));
      if (count < options.capacity)
        break;
      DropCancelled(dropped); // a cancelled task gives its room back when the room is needed
      if (count < options.capacity)
        break;
      const auto now = std::chrono::steady_clock::now();
      if (first)
        deadline = now + std::chrono::milliseconds(std::max(waitMs, 0));
      if (waitMs == 0 || (waitMs > 0 && now >= deadline))
        return Refuse(*task, DKLibraryErrorID(DK_MSG_QUEUE_FULL, options.name, options.capacity));
      ++roomWaiters;
      room.Wait(guard, waitMs < 0 ? DK_INFINITE : DKWaitPoint::MillisecondsUntil(deadline, now));
      --roomWaiters;
    }
    if (!Push(task))
      return Refuse(*task, DKLibraryErrorID(DK_MSG_QUEUE_FULL, options.name, options.capacity));
    queuedIt = true;
    // The threads still looking at the queue take as many tasks without being woken; an idle one
    // is woken for each task beyond them.
    if (!idle.empty() && count > static_cast<std::size_t>(looking.load(std::memory_order_relaxed))) {
      toWake = idle.back();
      idle.pop_back();
      toWake->woken = true;
    } else if (idle.empty() && threads < options.maxThreads) {
      ++threads;
      startThread = true;
    }
  }
  if (toWake)
    toWake->wake.WakeAll();
  if (startThread) {
    const DKErrorID started = StartWorker();
    if (started.Bad()) {
      std::lock_guard<DKCriticalSection> guard(lock);
      if (threads == 0) // nobody will ever run it
        return Refuse(*task, started);
    }
  }
  return DKErrorID();
}

DKErrorID DKThreadPoolCore::StartWorker() {
  Worker* worker = nullptr;
  {
    std::lock_guard<DKCriticalSection> guard(lock);
    if (!freeWorkers.empty()) {
      worker = freeWorkers.back();
      freeWorkers.pop_back();
    } else {
      workers.push_back(std::make_unique<Worker>());
      worker = workers.back().get();
    }
  }
  if (worker->thread)
    worker->thread->Join(); // the record's previous thread, ended or about to
  DKErrorID result;
  try {
    worker->woken = false;
    worker->thread = new DKThread(DKMakeCallback([this, worker] { Run(worker); }));
    result = worker->thread->Start(options.priority);
  } catch (const std::exception& e) {
    result = DKLibraryErrorID(DK_MSG_SYSTEM_ERROR, -1, ExceptionText(e));
  }
  if (result.Good())
    return result;
  DKTrace::Msg(TL_NORMAL, TS_DK, "DKThreadPool", "%s: a thread could not start: %S\n", options.name, result.AsString());
  std::lock_guard<DKCriticalSection> guard(lock);
  worker->thread.Clear();
  freeWorkers.push_back(worker);
  --threads;
  ended.WakeAll();
  return result;
}

void DKThreadPoolCore::Run(Worker* worker) {
  t_pool = this;
  DKTrace::Msg(TL_DETAIL, TS_DK, "DKThreadPool", "%s: thread started\n", options.name);
  std::unique_lock<DKCriticalSection> guard(lock);
  for (;;) {
    if (count > 0) {
      DKPoolTask* task = Pop();
      const bool wakeRoom = roomWaiters > 0;
      guard.unlock();
      if (wakeRoom)
        room.WakeAll();
      RunTask(task);
      guard.lock();
      continue;
    }
    if (!accepting)
      break;
    // Nothing queued: look again for a while before sleeping.
    looking.fetch_add(1, std::memory_order_relaxed);
    guard.unlock();
    for (int look = 0; look < kIdleLooks && queued.load(std::memory_order_relaxed) == 0; ++look)
      std::this_thread::yield();
    looking.fetch_sub(1, std::memory_order_relaxed);
    guard.lock();
    if (count > 0 || !accepting)
      continue;
    worker->woken = false;
    idle.push_back(worker);
    const bool woken = worker->wake.Wait(guard, options.idleTimeoutMs < 0 ? DK_INFINITE : options.idleTimeoutMs);
    if (worker->woken)
      continue;
    idle.erase(std::find(idle.begin(), idle.end(), worker));
    if (!woken && threads > options.minThreads && count == 0)
      break; // idle for the whole timeout
  }
  --threads;
  freeWorkers.push_back(worker);
  guard.unlock();
  DKTrace::Msg(TL_DETAIL, TS_DK, "DKThreadPool", "%s: thread ended\n", options.name);
  ended.WakeAll(); // the core outlives every thread: Shutdown waits for them all
  t_pool = nullptr;
}

void DKThreadPoolCore::RunTask(DKPoolTask* task) {
  // Only a ticket can cancel a task, and only a ticket can see its status: a task without one
  // needs no exchange, just a look for a refusal.
  const bool ticket = task->m_hasTicket;
  int expected = kQueued;
  if (ticket ? !task->m_status.compare_exchange_strong(expected, kRunning, std::memory_order_acq_rel)
             : task->m_status.load(std::memory_order_acquire) != kQueued) {
    task->Release(); // cancelled or refused while it waited
    return;
  }
  t_task = task;
  DKErrorID result;
  std::exception_ptr thrown;
  DKString text;
  try {
    result = task->Execute();
  } catch (const std::exception& e) {
    thrown = std::current_exception();
    text = ExceptionText(e);
  } catch (...) {
    thrown = std::current_exception();
    text = DK_T("unknown exception");
  }
  t_task = nullptr;
  if (thrown) {
    result = DKLibraryErrorID(DK_MSG_TASK_EXCEPTION, text);
    DKTrace::Msg(TL_NORMAL, TS_DK, "DKThreadPool", "%s: a task threw: %s\n", options.name, text);
    if (!ticket && GlbGetTraceLevel() != 0)
      DKLockedCOUT() << options.name << ": unhandled exception in a task: " << text << std::endl;
  }
  if (ticket) {
    task->m_result = result;
    task->m_exception = thrown;
    task->m_status.store(kFinished, std::memory_order_seq_cst);
    NotifyDone();
  }
  task->Release();
}

bool DKThreadPoolCore::Shutdown(DKThreadPool::ShutdownMode mode, int timeoutMs) {
  std::vector<DKPoolTask*> cancelled;
  std::vector<Worker*> toWake;
  {
    std::lock_guard<DKCriticalSection> guard(lock);
    if (accepting)
      DKTrace::Msg(TL_DETAIL, TS_DK, "DKThreadPool", "%s: shutting down (%s), %zu queued\n", options.name,
                   mode == DKThreadPool::Drain ? "drain" : "cancel", count);
    accepting = false;
    if (mode == DKThreadPool::Cancel) {
      while (count > 0)
        cancelled.push_back(Pop());
      cancelling.store(true, std::memory_order_release);
    }
    for (Worker* worker : idle)
      worker->woken = true;
    toWake.swap(idle);
  }
  room.WakeAll();
  for (Worker* worker : toWake)
    worker->wake.WakeAll();
  for (DKPoolTask* task : cancelled) {
    int expected = kQueued;
    task->m_status.compare_exchange_strong(expected, kCancelled, std::memory_order_seq_cst);
    task->Release();
  }
  if (!cancelled.empty())
    NotifyDone();
  if (t_pool == this)
    return false;

  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(std::max(timeoutMs, 0));
  std::unique_lock<DKCriticalSection> guard(lock);
  while (threads > 0) {
    const auto now = std::chrono::steady_clock::now();
    if (timeoutMs >= 0 && now >= deadline)
      return false;
    ended.Wait(guard, timeoutMs < 0 ? DK_INFINITE : DKWaitPoint::MillisecondsUntil(deadline, now));
  }
  // Every thread has left Run; join them so that none is still on its way out.
  std::vector<DKSmartPtr<DKThread>> done;
  for (const auto& worker : workers)
    if (worker->thread)
      done.push_back(std::move(worker->thread));
  guard.unlock();
  for (const DKSmartPtr<DKThread>& thread : done)
    thread->Join();
  return true;
}

// ---------------------------------------------------------------------------------------------

namespace {

DKThreadPoolOptions MakeOptions(unsigned minThreads, unsigned maxThreads, int idleTimeoutMs, std::size_t capacity) {
  DKThreadPoolOptions options;
  options.minThreads = minThreads;
  options.maxThreads = maxThreads;
  options.idleTimeoutMs = idleTimeoutMs;
  options.capacity = capacity;
  return options;
}

} // namespace

DKThreadPool::DKThreadPool(const DKThreadPoolOptions& options) : m_core(new DKThreadPoolCore(options)) {
  m_core->StartMinimum();
}

DKThreadPool::DKThreadPool(unsigned minThreads, unsigned maxThreads, int idleTimeoutMs, std::size_t capacity)
    : DKThreadPool(MakeOptions(minThreads, maxThreads, idleTimeoutMs, capacity)) {}

DKThreadPool::~DKThreadPool() {
  if (!m_core->Shutdown(Cancel, DK_INFINITE)) {
    // Destroyed by one of its own tasks: the threads still use the core, so it stays.
    DKTrace::Msg(TL_NORMAL, TS_DK, "DKThreadPool", "%s: destroyed by its own task; its threads are left to end\n",
                 m_core->options.name);
    return;
  }
  delete m_core;
}

DKThreadPool& DKThreadPool::GetDefault() {
  // Never destroyed, so that it stays usable (refusing tasks) after the process's exit has shut
  // it down; the exit handler ends its threads before the static objects go.
  static DKThreadPool* const pool = [] {
    DKThreadPoolOptions options;
    options.name = DK_T("DKThreadPool default");
    options.capacity = 1 << 20;
    auto* made = new DKThreadPool(options);
    std::atexit([] {
      if (!DKThreadImpl::OtherThreadsEnded()) // else no worker is left to wait for
        GetDefault().Shutdown(Cancel, DK_INFINITE);
    });
    return made;
  }();
  return *pool;
}

DKErrorID DKThreadPool::Enqueue(DKPoolTask* task, bool withTicket, int waitMs) {
  return m_core->Enqueue(task, withTicket, waitMs);
}

bool DKThreadPool::Shutdown(ShutdownMode mode, int timeoutMs) { return m_core->Shutdown(mode, timeoutMs); }

bool DKThreadPool::IsShutDown() const noexcept {
  std::lock_guard<DKCriticalSection> guard(m_core->lock);
  return !m_core->accepting;
}

bool DKThreadPool::IsStopRequested() noexcept {
  return t_task && (t_task->IsStopRequested() || t_pool->cancelling.load(std::memory_order_acquire));
}

bool DKThreadPool::IsPoolThread() const noexcept { return t_pool == m_core; }

unsigned DKThreadPool::GetThreadCount() const noexcept {
  std::lock_guard<DKCriticalSection> guard(m_core->lock);
  return m_core->threads;
}

unsigned DKThreadPool::GetIdleThreadCount() const noexcept {
  std::lock_guard<DKCriticalSection> guard(m_core->lock);
  return static_cast<unsigned>(m_core->idle.size());
}

std::size_t DKThreadPool::GetQueuedCount() const noexcept { return m_core->queued.load(std::memory_order_relaxed); }

std::size_t DKThreadPool::GetCapacity() const noexcept { return m_core->options.capacity; }

unsigned DKThreadPool::GetMaxThreads() const noexcept { return m_core->options.maxThreads; }

const DKString& DKThreadPool::GetName() const noexcept { return m_core->options.name; }

// ---------------------------------------------------------------------------------------------

bool DKTaskTicket::IsDone() const noexcept {
  return !m_task || m_task->m_status.load(std::memory_order_acquire) >= kFinished;
}

bool DKTaskTicket::Wait(int timeoutMs) const {
  if (IsDone())
    return true;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(std::max(timeoutMs, 0));
  DKWaitPoint& point = DoneWaitPoint();
  g_doneWaiters.fetch_add(1, std::memory_order_seq_cst);
  for (;;) {
    const std::uint32_t ticket = point.Ticket();
    if (m_task->m_status.load(std::memory_order_seq_cst) >= kFinished)
      break;
    const auto now = std::chrono::steady_clock::now();
    if (timeoutMs >= 0 && now >= deadline)
      break;
    point.WaitAfter(ticket, timeoutMs < 0 ? DK_INFINITE : DKWaitPoint::MillisecondsUntil(deadline, now));
  }
  g_doneWaiters.fetch_sub(1, std::memory_order_seq_cst);
  return IsDone();
}

bool DKTaskTicket::Cancel() {
  if (!m_task)
    return false;
  int expected = kQueued;
  if (!m_task->m_status.compare_exchange_strong(expected, kCancelled, std::memory_order_seq_cst))
    return false;
  NotifyDone();
  return true;
}

void DKTaskTicket::RequestStop() noexcept {
  if (m_task)
    m_task->m_stopRequested.store(true, std::memory_order_release);
}

DKErrorID DKTaskTicket::GetResult() const {
  if (!m_task)
    return DKLibraryErrorID(DK_MSG_TASK_CANCELLED);
  Wait();
  switch (GetStatus()) {
  case DKTaskStatus::Finished:
  case DKTaskStatus::Refused:
    return m_task->m_result;
  default:
    return DKLibraryErrorID(DK_MSG_TASK_CANCELLED);
  }
}

std::exception_ptr DKTaskTicket::GetException() const {
  if (!m_task || m_task->m_status.load(std::memory_order_acquire) != kFinished)
    return nullptr;
  return m_task->m_exception;
}

void DKTaskTicket::RethrowException() const {
  if (std::exception_ptr thrown = GetException())
    std::rethrow_exception(thrown);
}

// ---------------------------------------------------------------------------------------------

namespace {

DKThreadPoolOptions ServerOptions(const DKString& name, std::size_t capacity) {
  DKThreadPoolOptions options;
  options.name = name;
  options.minThreads = 1;
  options.maxThreads = 1;
  options.idleTimeoutMs = DK_INFINITE;
  options.capacity = capacity;
  return options;
}

} // namespace

DKThreadServer::DKThreadServer(const DKString& name, std::size_t capacity) : m_pool(ServerOptions(name, capacity)) {}

DKThreadServer::~DKThreadServer() { Stop(true); }

void DKThreadServer::Stop(bool drain) { m_pool.Shutdown(drain ? DKThreadPool::Drain : DKThreadPool::Cancel); }

DKErrorID DKThreadServer::RunHere(DKPoolTask& request) { return request.Execute(); }
