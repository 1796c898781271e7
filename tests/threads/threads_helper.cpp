// The other process of the threads suites. Each mode does one thing and answers by its exit code:
// 0 for what the test expects, another small number for each way it can go wrong.
#include <DorvikCore/DKError.h>
#include <DorvikCore/DKException.h>
#include <DorvikCore/DKSync.h>
#include <DorvikCore/DKThread.h>
#include <DorvikCore/DKThreadPool.h>
#include <DorvikCore/DKTimer.h>

#include "support/DKTestPlatform.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <new>
#include <string>

// Every plain form of new and delete is replaced, so that each allocation of the program and of
// the library goes through one counter and each block is freed as it was allocated (malloc).
#if defined(__GNUC__) && !defined(__clang__)
#  pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
namespace {

// Allocations left before one fails (the mode open-oom arms it); negative: none fails.
std::atomic<long> g_allocationsBeforeFailure{-1};

void* Allocate(std::size_t size) {
  if (g_allocationsBeforeFailure.load(std::memory_order_relaxed) >= 0 &&
      g_allocationsBeforeFailure.fetch_sub(1, std::memory_order_relaxed) == 0)
    throw std::bad_alloc();
  if (void* block = std::malloc(size ? size : 1))
    return block;
  throw std::bad_alloc();
}

void* AllocateOrNull(std::size_t size) noexcept {
  try {
    return Allocate(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

} // namespace

void* operator new(std::size_t size) { return Allocate(size); }
void* operator new[](std::size_t size) { return Allocate(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return AllocateOrNull(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return AllocateOrNull(size); }
void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { std::free(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { std::free(block); }

namespace {

std::size_t StackOfNewThread() {
  std::size_t size = 0;
  DKThread thread(DKMakeCallback([&size] { size = DKThread::GetCurrentThreadStackSize(); }));
  if (thread.Start().Bad())
    return 0;
  thread.Join();
  return size;
}

} // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  DKString name; // the named object, or the number the mode expects
  if (argc > 2)
    name = DKString::FromUTF8(argv[2]);

  // mutex-try NAME: 0 when the mutex could be taken at once, 10 when another holds it.
  if (mode == "mutex-try" && argc == 3) {
    DKMutex mutex(name);
    if (!mutex.Lock(0))
      return 10;
    mutex.Unlock();
    return 0;
  }
  // mutex-abandon NAME: takes the mutex and ends without letting go or closing it.
  if (mode == "mutex-abandon" && argc == 3)
    std::_Exit((new DKMutex(name))->Lock(0) ? 0 : 10);
  // event-wait NAME READY: says it is ready on READY, then 0 when a post of NAME wakes it
  // within 30 s; 13 when it was found posted only once the wait had timed out (the post woke
  // nobody).
  if (mode == "event-wait" && argc == 4) {
    constexpr auto kBound = std::chrono::seconds(30);
    DKEventSemaphore event(name);
    const DKString readyName = DKString::FromUTF8(argv[3]);
    DKEventSemaphore(readyName).Post();
    const auto start = std::chrono::steady_clock::now();
    if (event.Wait(static_cast<int>(std::chrono::milliseconds(kBound).count())) != DK_WAIT_OBJECT_0)
      return 11;
    return std::chrono::steady_clock::now() - start < kBound ? 0 : 13;
  }
  // event-posted NAME: 0 when the event is posted, 12 when not.
  if (mode == "event-posted" && argc == 3)
    return DKEventSemaphore(name).Posted() ? 0 : 12;
  // event-create-and-die NAME: creates the event posted and ends without closing it.
  if (mode == "event-create-and-die" && argc == 3) {
    new DKEventSemaphore(name, true);
    std::_Exit(0);
  }
  // open-oom NAME: opens the named event again and again, each time with one more allocation
  // before one fails, until an open gets through; 0 when no failure left a descriptor (a handle on Windows) open, 17
  // when one did, 18 when an open never got through.
  if (mode == "open-oom" && argc == 3) {
    const std::size_t before = dktest::OpenHandleCount();
    for (long allowed = 0; allowed < 1000; ++allowed) {
      bool opened = false;
      g_allocationsBeforeFailure = allowed;
      try {
        DKEventSemaphore event(name);
        opened = true;
      } catch (const std::bad_alloc&) {
      } catch (const DKException&) {
      }
      g_allocationsBeforeFailure = -1;
      if (dktest::OpenHandleCount() != before)
        return 17;
      if (opened)
        return 0;
    }
    return 18;
  }
  // stacksize BYTES: every thread gets BYTES of stack (from DK_THREAD_STACKSIZE), also after the
  // variable changes; 13 for the first thread, 14 for the one started after the change.
  if (mode == "stacksize" && argc == 3) {
    const std::size_t expected = std::strtoull(argv[2], nullptr, 10);
    if (StackOfNewThread() != expected)
      return 13;
    dktest::SetEnvironment("DK_THREAD_STACKSIZE", "4194304");
    return StackOfNewThread() != expected ? 14 : 0;
  }
  // stacksize-whole BYTES: a thread gets at least BYTES of stack (from DK_THREAD_STACKSIZE), or
  // Start throws the creation failure because the system refuses that much, and the thread is not
  // started; 13 for a smaller stack, 16 for another failure.
  if (mode == "stacksize-whole" && argc == 3) {
    const std::size_t expected = std::strtoull(argv[2], nullptr, 10);
    std::size_t size = 0;
    DKThread thread(DKMakeCallback([&size] { size = DKThread::GetCurrentThreadStackSize(); }));
    try {
      if (thread.Start().Bad())
        return 16;
    } catch (const DKException& e) {
      return e.What().AsUTF8() == "_beginthreadex failed in DKThread::Start()" && !thread.IsStarted() ? 0 : 16;
    }
    thread.Join();
    return size >= expected ? 0 : 13;
  }
  // exit-with-threads: leaves a periodic timer armed and the default pool busy, then returns
  // from main; the process must end (the exit handlers shut both down). 19 when they did not run.
  if (mode == "exit-with-threads" && argc == 2) {
    static std::atomic<int> fired{0};
    static DKTimer* const timer = new DKTimer([] { ++fired; }, DKTimerTarget::TimerThread);
    if (timer->Start(0, 1).Bad())
      return 19;
    const DKTaskTicket busy = DKThreadPool::GetDefault().Submit([] { DKThread::Sleep(200); });
    if (busy.GetStatus() == DKTaskStatus::Refused)
      return 19;
    while (fired.load() < 2)
      DKThread::Sleep(1);
    return 0;
  }
  return 2;
}
