// Threads and synchronisation against the standard library on the same work: an uncontended
// critical section and mutex against std::recursive_mutex, starting and joining a thread with an empty
// body against std::thread, and a round trip between two threads through events against a
// std::condition_variable round trip.
#include <DorvikCore/DKSync.h>
#include <DorvikCore/DKThread.h>

#include <benchmark/benchmark.h>

#include <condition_variable>
#include <mutex>
#include <thread>

namespace {

// Uncontended lock and unlock by one thread, through the standard names every lock here has.
template <class Lock>
void BM_LockUnlock(benchmark::State& state) {
  Lock lock;
  for (auto _ : state) {
    lock.lock();
    lock.unlock();
  }
  benchmark::DoNotOptimize(lock);
}
BENCHMARK(BM_LockUnlock<DKCriticalSection>)->Name("BM_LockUnlock_DKCriticalSection");
BENCHMARK(BM_LockUnlock<std::recursive_mutex>)->Name("BM_LockUnlock_StdRecursiveMutex");
// The kernel-robust mutex: recursive, timed, abandonment seen.
BENCHMARK(BM_LockUnlock<DKMutex>)->Name("BM_LockUnlock_DKMutex");

void BM_StartJoin_DKThread(benchmark::State& state) {
  const DKSmartPtr<DKCallback> empty = DKMakeCallback([] {});
  for (auto _ : state) {
    DKThread thread(empty);
    if (thread.Start().Bad())
      state.SkipWithError("the thread did not start");
    thread.Join();
  }
}
BENCHMARK(BM_StartJoin_DKThread)->UseRealTime();

void BM_StartJoin_StdThread(benchmark::State& state) {
  for (auto _ : state) {
    std::thread thread([] {});
    thread.join();
  }
}
BENCHMARK(BM_StartJoin_StdThread)->UseRealTime();

// One iteration: this thread wakes the partner, the partner wakes this thread back.
void BM_PingPong_DKEventSemaphore(benchmark::State& state) {
  DKEventSemaphore ping;
  DKEventSemaphore pong;
  bool stop = false; // written before the last ping, read after it
  std::thread partner([&] {
    for (;;) {
      ping.Wait();
      ping.Reset();
      if (stop)
        return;
      pong.Post();
    }
  });
  for (auto _ : state) {
    ping.Post();
    pong.Wait();
    pong.Reset();
  }
  stop = true;
  ping.Post();
  partner.join();
}
BENCHMARK(BM_PingPong_DKEventSemaphore)->UseRealTime();

void BM_PingPong_StdConditionVariable(benchmark::State& state) {
  std::mutex mutex;
  std::condition_variable pingChanged;
  std::condition_variable pongChanged;
  bool ping = false;
  bool pong = false;
  bool stop = false;
  std::thread partner([&] {
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
      pingChanged.wait(lock, [&] { return ping; });
      ping = false;
      if (stop)
        return;
      pong = true;
      pongChanged.notify_one();
    }
  });
  for (auto _ : state) {
    std::unique_lock<std::mutex> lock(mutex);
    ping = true;
    pingChanged.notify_one();
    pongChanged.wait(lock, [&] { return pong; });
    pong = false;
  }
  {
    std::lock_guard<std::mutex> lock(mutex);
    stop = true;
    ping = true;
  }
  pingChanged.notify_one();
  partner.join();
}
BENCHMARK(BM_PingPong_StdConditionVariable)->UseRealTime();

} // namespace
