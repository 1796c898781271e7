// POSIX threads (threads/DKThreadImpl.h).
//
// A thread is created at once and waits at a start gate in its first lines until it is resumed
// (or cancelled, and then ends without running its entry). Its handle is a counted record that
// any number of threads may wait on: the first that waits without limit joins the thread, the
// others wait for the record to say it ended. Closing the handle joins the thread, or detaches it
// when the thread closes its own handle.
#include "threads/DKThreadImpl.h"

#include <errno.h>
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cxxabi.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

class DKThreadHandleImpl {
public:
  enum Gate { Held, Run, Cancelled };

  std::atomic<int> refs{2}; // the creator's and the thread's
  pthread_t thread{};
  DKThreadImpl::Entry entry = nullptr;
  void* argument = nullptr;
  std::atomic<int> gate{Held};

  std::mutex lock; // guards what follows
  std::condition_variable changed;
  pid_t tid = 0;
  bool ended = false;   // the thread finished its entry (or was cancelled)
  bool joining = false; // a thread is inside pthread_join
  bool joined = false;
  bool detached = false;
};

namespace {

pid_t CurrentTid() { return static_cast<pid_t>(syscall(SYS_gettid)); }

bool IsCaller(const DKThreadHandleImpl* handle) { return pthread_equal(handle->thread, pthread_self()) != 0; }

// Marks the handle ended when the thread leaves its entry, however it leaves it.
struct EndGuard {
  DKThreadHandleImpl* handle;
  ~EndGuard() {
    {
      std::lock_guard<std::mutex> guard(handle->lock);
      handle->ended = true;
    }
    handle->changed.notify_all();
    DKThreadImpl::Release(handle);
  }
};

void* Trampoline(void* argument) {
  auto* handle = static_cast<DKThreadHandleImpl*>(argument);
  EndGuard end{handle};
  {
    std::lock_guard<std::mutex> guard(handle->lock);
    handle->tid = CurrentTid();
  }
  handle->changed.notify_all();

  // The creator usually opens the gate within a microsecond or two of creating the thread: look
  // a few times before going to sleep.
  for (int i = 0; i < 64 && handle->gate.load(std::memory_order_acquire) == DKThreadHandleImpl::Held; ++i)
    sched_yield();
  if (handle->gate.load(std::memory_order_acquire) == DKThreadHandleImpl::Held) {
    std::unique_lock<std::mutex> guard(handle->lock);
    handle->changed.wait(guard, [&] { return handle->gate.load(std::memory_order_acquire) != DKThreadHandleImpl::Held; });
  }
  if (handle->gate.load(std::memory_order_acquire) == DKThreadHandleImpl::Run)
    handle->entry(handle->argument);
  return nullptr;
}

// The thread's kernel id without waiting for the thread: the kernel writes it into the thread's
// descriptor before pthread_create returns, and the C library hands it out encoded in the
// thread's CPU-time clock (~id << 3 | 6, a Linux ABI). 0 when that cannot be had.
pid_t TidFromClock(pthread_t thread) {
  clockid_t clock = 0;
  if (pthread_getcpuclockid(thread, &clock) != 0 || (clock & 7) != 6)
    return 0;
  const pid_t tid = ~(clock >> 3);
  return tid > 0 ? tid : 0;
}

// Joins the thread; called holding the handle's lock, which it releases while joining and
// gives back released. Nobody else may be joining.
void Join(DKThreadHandleImpl* handle, std::unique_lock<std::mutex>& guard) {
  handle->joining = true;
  guard.unlock();
  pthread_join(handle->thread, nullptr);
  guard.lock();
  handle->joining = false;
  handle->joined = true;
  handle->ended = true;
  guard.unlock();
  handle->changed.notify_all();
}

void OpenGate(DKThreadHandleImpl* handle, int state) {
  // Once the gate is open the thread may run to its end and every other holder let go of the
  // handle before this function is done with it.
  DKThreadImpl::AddRef(handle);
  handle->gate.store(state, std::memory_order_release);
  { std::lock_guard<std::mutex> guard(handle->lock); } // a sleeper is either asleep or will see it
  handle->changed.notify_all();
  DKThreadImpl::Release(handle);
}

// Windows thread priorities as nice values: one step of Windows priority is five nice steps,
// counted from the process's nice value; idle and time-critical are the ends of the range.
bool NiceForPriority(int priority, int base, int& nice) {
  switch (priority) {
  case -15: nice = 19; return true;
  case 15: nice = -20; return true;
  case -2: case -1: case 0: case 1: case 2: nice = base - 5 * priority; break;
  default: return false;
  }
  if (nice < -20)
    nice = -20;
  if (nice > 19)
    nice = 19;
  return true;
}

bool ProcessNice(int& nice) {
  errno = 0;
  nice = getpriority(PRIO_PROCESS, static_cast<id_t>(getpid()));
  return !(nice == -1 && errno != 0);
}

// A line of /proc/self/task/<id>/stat, split after the command name (which may hold blanks).
bool ReadTaskStat(std::uint32_t id, char (&fields)[1024]) {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/self/task/%u/stat", id);
  std::FILE* file = std::fopen(path, "re");
  if (!file)
    return false;
  char line[1024];
  const bool read = std::fgets(line, sizeof line, file) != nullptr;
  std::fclose(file);
  if (!read)
    return false;
  const char* close = std::strrchr(line, ')');
  if (!close)
    return false;
  std::snprintf(fields, sizeof fields, "%s", close + 1);
  return true;
}

std::int64_t Clock100ns(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<std::int64_t>(now.tv_sec) * 10000000 + now.tv_nsec / 100;
}

} // namespace

DKThreadHandleImpl* DKThreadImpl::CreateHeld(std::size_t stackSize, Entry entry, void* argument, std::uint32_t& id,
                                             int& error) noexcept {
  auto* handle = new (std::nothrow) DKThreadHandleImpl;
  if (!handle) {
    error = ENOMEM;
    return nullptr;
  }
  handle->entry = entry;
  handle->argument = argument;

  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  if (stackSize != 0) {
    // As the system would: at least the minimum, whole pages.
    const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    std::size_t size = stackSize < static_cast<std::size_t>(PTHREAD_STACK_MIN) ? PTHREAD_STACK_MIN : stackSize;
    size = (size + page - 1) / page * page;
    pthread_attr_setstacksize(&attributes, size);
  }
  // The new thread starts with the quit signals blocked, so that SIGINT and SIGTERM sent to the
  // process reach a thread of the application's own rather than one of the library's workers,
  // which may be parked in a wait that a signal handler must not depend on.
  sigset_t quit, previous;
  sigemptyset(&quit);
  sigaddset(&quit, SIGINT);
  sigaddset(&quit, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &quit, &previous);
  const int rc = pthread_create(&handle->thread, &attributes, Trampoline, handle);
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  pthread_attr_destroy(&attributes);
  if (rc != 0) {
    delete handle;
    error = rc;
    return nullptr;
  }
  pid_t tid = TidFromClock(handle->thread);
  if (tid == 0) { // the thread tells it itself before it waits at the gate
    std::unique_lock<std::mutex> guard(handle->lock);
    handle->changed.wait(guard, [&] { return handle->tid != 0; });
    tid = handle->tid;
  }
  id = static_cast<std::uint32_t>(tid);
  return handle;
}

void DKThreadImpl::Resume(DKThreadHandleImpl* handle) noexcept { OpenGate(handle, DKThreadHandleImpl::Run); }

void DKThreadImpl::Cancel(DKThreadHandleImpl* handle) noexcept { OpenGate(handle, DKThreadHandleImpl::Cancelled); }

void DKThreadImpl::AddRef(DKThreadHandleImpl* handle) noexcept { handle->refs.fetch_add(1, std::memory_order_relaxed); }

void DKThreadImpl::Release(DKThreadHandleImpl* handle) noexcept {
  if (handle->refs.fetch_sub(1, std::memory_order_acq_rel) != 1)
    return;
  // Nobody can wait on it any more: let the system reclaim the thread when it ends.
  if (!handle->joined && !handle->detached)
    pthread_detach(handle->thread);
  delete handle;
}

bool DKThreadImpl::Wait(DKThreadHandleImpl* handle, int timeoutMs) noexcept {
  std::unique_lock<std::mutex> guard(handle->lock);
  if (IsCaller(handle))
    return handle->ended;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs < 0 ? 0 : timeoutMs);
  for (;;) {
    if (handle->ended)
      return true;
    if (timeoutMs < 0 && !handle->joining && !handle->joined && !handle->detached) {
      Join(handle, guard); // waiting without limit: join, the cheapest wait there is
      return true;
    }
    if (timeoutMs < 0)
      handle->changed.wait(guard);
    else if (handle->changed.wait_until(guard, deadline) == std::cv_status::timeout)
      return handle->ended;
  }
}

void DKThreadImpl::Close(DKThreadHandleImpl* handle) noexcept {
  {
    std::unique_lock<std::mutex> guard(handle->lock);
    if (IsCaller(handle)) {
      // A thread cannot join itself; one that is joining it reclaims it, else the system will.
      if (!handle->joining && !handle->joined && !handle->detached) {
        pthread_detach(handle->thread);
        handle->detached = true;
      }
    } else {
      handle->changed.wait(guard, [&] { return !handle->joining; });
      if (!handle->joined && !handle->detached)
        Join(handle, guard);
    }
  }
  Release(handle);
}

// The exit handlers run before any thread is ended.
bool DKThreadImpl::OtherThreadsEnded() noexcept { return false; }

std::size_t DKThreadImpl::CurrentStackSize() noexcept {
  pthread_attr_t attributes;
  if (pthread_getattr_np(pthread_self(), &attributes) != 0)
    return 0;
  std::size_t size = 0;
  pthread_attr_getstacksize(&attributes, &size);
  pthread_attr_destroy(&attributes);
  return size;
}

int DKThreadImpl::SetPriority(std::uint32_t id, int priority) noexcept {
  int base = 0;
  if (!ProcessNice(base))
    return errno;
  int nice = 0;
  if (!NiceForPriority(priority, base, nice))
    return EINVAL;
  if (setpriority(PRIO_PROCESS, static_cast<id_t>(id), nice) != 0)
    return errno;
  return 0;
}

bool DKThreadImpl::GetPriority(std::uint32_t id, int& priority) noexcept {
  errno = 0;
  const int nice = getpriority(PRIO_PROCESS, static_cast<id_t>(id));
  int base = 0;
  if ((nice == -1 && errno != 0) || !ProcessNice(base))
    return false;
  // The named priority whose nice value is nearest; the common ones first on a tie.
  static const int kOrder[] = {0, -1, 1, -2, 2, -15, 15};
  int best = 0;
  int bestDistance = INT_MAX;
  for (const int candidate : kOrder) {
    int candidateNice = 0;
    NiceForPriority(candidate, base, candidateNice);
    const int distance = std::abs(candidateNice - nice);
    if (distance < bestDistance) {
      best = candidate;
      bestDistance = distance;
    }
  }
  priority = best;
  return true;
}

int DKThreadImpl::ProcessPriorityClass() noexcept {
  const int policy = sched_getscheduler(getpid());
  if (policy == SCHED_FIFO || policy == SCHED_RR)
    return 0x100; // REALTIME_PRIORITY_CLASS
  int nice = 0;
  if (!ProcessNice(nice))
    nice = 0;
  if (nice >= 15)
    return 0x40; // IDLE_PRIORITY_CLASS
  if (nice >= 5)
    return 0x4000; // BELOW_NORMAL_PRIORITY_CLASS
  if (nice > -5)
    return 0x20; // NORMAL_PRIORITY_CLASS
  if (nice > -10)
    return 0x8000; // ABOVE_NORMAL_PRIORITY_CLASS
  return 0x80;     // HIGH_PRIORITY_CLASS
}

bool DKThreadImpl::GetTimes(std::uint32_t id, DKThreadTimes& times) noexcept {
  times = DKThreadTimes();
  char fields[1024];
  if (!ReadTaskStat(id, fields))
    return false;
  // After the command come the state (field 3) ... utime (14), stime (15) ... starttime (22).
  unsigned long long values[20] = {};
  const char* cursor = fields;
  for (int field = 3; field <= 22; ++field) {
    while (*cursor == ' ')
      ++cursor;
    if (!*cursor)
      return false;
    values[field - 3] = std::strtoull(cursor, nullptr, 10);
    while (*cursor && *cursor != ' ')
      ++cursor;
  }
  const unsigned long long utime = values[14 - 3], stime = values[15 - 3], start = values[22 - 3];
  const long ticks = sysconf(_SC_CLK_TCK);
  if (ticks <= 0)
    return false;
  const auto to100ns = [ticks](unsigned long long count) {
    return static_cast<std::int64_t>(count / static_cast<unsigned long long>(ticks)) * 10000000 +
           static_cast<std::int64_t>(count % static_cast<unsigned long long>(ticks)) * 10000000 / ticks;
  };
  times.kernel100ns = to100ns(stime);
  times.user100ns = to100ns(utime);
  // The start is counted from boot; the boot instant on the wall clock is now less the time since.
  times.creationUnix100ns = Clock100ns(CLOCK_REALTIME) - Clock100ns(CLOCK_BOOTTIME) + to100ns(start);
  return true;
}

std::int64_t DKThreadImpl::WallClockNow100ns() noexcept { return Clock100ns(CLOCK_REALTIME); }

void DKThreadImpl::RethrowIfCancellation() {
  try {
    throw;
  } catch (const abi::__forced_unwind&) {
    throw; // pthread_cancel and pthread_exit unwind the thread with this exception
  } catch (...) {
  }
}

bool DKThreadImpl::AllocateKey(std::uint32_t& key, int& error) noexcept {
  pthread_key_t created;
  const int rc = pthread_key_create(&created, nullptr);
  if (rc != 0) {
    error = rc;
    return false;
  }
  key = static_cast<std::uint32_t>(created);
  return true;
}

void DKThreadImpl::ReleaseKey(std::uint32_t key) noexcept { pthread_key_delete(static_cast<pthread_key_t>(key)); }

bool DKThreadImpl::SetKeyValue(std::uint32_t key, void* value) noexcept {
  return pthread_setspecific(static_cast<pthread_key_t>(key), value) == 0;
}

void* DKThreadImpl::GetKeyValue(std::uint32_t key) noexcept { return pthread_getspecific(static_cast<pthread_key_t>(key)); }
