// The thread pool and the timers against the standard library in the same run:
//   - throughput of empty tasks (each only counts itself): DKThreadPool (Post, and Submit with a
//     ticket) against std::async and a hand-made pool of std::threads around a std::mutex, a
//     std::condition_variable and a std::deque of std::function. DKThreadPool and the hand-made
//     pool run 1,000,000 tasks an iteration; std::async, which starts a thread for every task,
//     runs 20,000. Compare items per second.
//   - submit-to-start latency of one task into an idle pool (manual time: from the submit to the
//     first instruction of the task).
//   - arming and cancelling 100,000 timers: DKTimer against a std::multimap timer queue (insert,
//     then erase by iterator), the structure a hand-made timer thread would use.
//   - timer lateness under load (p50 and p99 in microseconds, as counters): 300 one-shot timers
//     a millisecond apart while both processors are kept busy by other threads, against a
//     std::thread sleeping with std::this_thread::sleep_until for each due time.
#include <DorvikCore/DKThreadPool.h>
#include <DorvikCore/DKTimer.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

unsigned Processors() { return std::max(2u, std::thread::hardware_concurrency()); }

// The pool everyone writes first.
class HandMadePool {
public:
  explicit HandMadePool(unsigned threads) {
    for (unsigned i = 0; i < threads; ++i)
      m_threads.emplace_back([this] { Work(); });
  }
  ~HandMadePool() {
    {
      std::lock_guard<std::mutex> guard(m_lock);
      m_stop = true;
    }
    m_wake.notify_all();
    for (std::thread& thread : m_threads)
      thread.join();
  }
  void Post(std::function<void()> task) {
    {
      std::lock_guard<std::mutex> guard(m_lock);
      m_queue.push_back(std::move(task));
    }
    m_wake.notify_one();
  }

private:
  void Work() {
    for (;;) {
      std::function<void()> task;
      {
        std::unique_lock<std::mutex> guard(m_lock);
        m_wake.wait(guard, [this] { return m_stop || !m_queue.empty(); });
        if (m_queue.empty())
          return;
        task = std::move(m_queue.front());
        m_queue.pop_front();
      }
      task();
    }
  }

  std::mutex m_lock;
  std::condition_variable m_wake;
  std::deque<std::function<void()>> m_queue;
  bool m_stop = false;
  std::vector<std::thread> m_threads;
};

DKThreadPoolOptions BenchPool() {
  DKThreadPoolOptions options;
  options.name = DK_T("bench");
  options.maxThreads = Processors();
  options.capacity = 1 << 21;
  return options;
}

void WaitFor(const std::atomic<long>& done, long count) {
  while (done.load(std::memory_order_acquire) < count)
    std::this_thread::yield();
}

// ---------------------------------------------------------------------------------------------
// Throughput

constexpr long kTasks = 1000000;
constexpr long kAsyncTasks = 20000;

void BM_Throughput_DKThreadPool_Post(benchmark::State& state) {
  DKThreadPool pool(BenchPool());
  std::atomic<long> done{0};
  for (auto _ : state) {
    done = 0;
    for (long i = 0; i < kTasks; ++i)
      if (pool.Post([&done] { done.fetch_add(1, std::memory_order_release); }).Bad())
        state.SkipWithError("refused");
    WaitFor(done, kTasks);
  }
  state.SetItemsProcessed(state.iterations() * kTasks);
}
BENCHMARK(BM_Throughput_DKThreadPool_Post)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Throughput_DKThreadPool_SubmitTicket(benchmark::State& state) {
  DKThreadPool pool(BenchPool());
  std::atomic<long> done{0};
  for (auto _ : state) {
    done = 0;
    for (long i = 0; i < kTasks; ++i) {
      DKTaskTicket ticket = pool.Submit([&done] { done.fetch_add(1, std::memory_order_release); });
      benchmark::DoNotOptimize(ticket);
    }
    WaitFor(done, kTasks);
  }
  state.SetItemsProcessed(state.iterations() * kTasks);
}
BENCHMARK(BM_Throughput_DKThreadPool_SubmitTicket)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Throughput_HandMadePool(benchmark::State& state) {
  HandMadePool pool(Processors());
  std::atomic<long> done{0};
  for (auto _ : state) {
    done = 0;
    for (long i = 0; i < kTasks; ++i)
      pool.Post([&done] { done.fetch_add(1, std::memory_order_release); });
    WaitFor(done, kTasks);
  }
  state.SetItemsProcessed(state.iterations() * kTasks);
}
BENCHMARK(BM_Throughput_HandMadePool)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Throughput_StdAsync(benchmark::State& state) {
  std::atomic<long> done{0};
  std::vector<std::future<void>> futures;
  futures.reserve(kAsyncTasks);
  for (auto _ : state) {
    done = 0;
    futures.clear();
    for (long i = 0; i < kAsyncTasks; ++i)
      futures.push_back(std::async(std::launch::async, [&done] { done.fetch_add(1, std::memory_order_release); }));
    for (std::future<void>& future : futures)
      future.wait();
  }
  state.SetItemsProcessed(state.iterations() * kAsyncTasks);
}
BENCHMARK(BM_Throughput_StdAsync)->Unit(benchmark::kMillisecond)->UseRealTime();

// ---------------------------------------------------------------------------------------------
// Submit-to-start latency: one task into an idle pool, the time until it starts.

template <class Post>
void MeasureLatency(benchmark::State& state, Post post) {
  std::atomic<std::int64_t> started{0};
  for (auto _ : state) {
    started.store(0, std::memory_order_relaxed);
    const Clock::time_point submitted = Clock::now();
    post([&started] { started.store(Clock::now().time_since_epoch().count(), std::memory_order_release); });
    std::int64_t at = 0;
    while ((at = started.load(std::memory_order_acquire)) == 0)
      std::this_thread::yield();
    state.SetIterationTime(std::chrono::duration<double>(Clock::duration(at) - submitted.time_since_epoch()).count());
  }
}

void BM_Latency_DKThreadPool(benchmark::State& state) {
  DKThreadPool pool(BenchPool());
  MeasureLatency(state, [&](auto task) {
    if (pool.Post(std::move(task)).Bad())
      std::abort();
  });
}
BENCHMARK(BM_Latency_DKThreadPool)->UseManualTime()->Unit(benchmark::kMicrosecond);

void BM_Latency_HandMadePool(benchmark::State& state) {
  HandMadePool pool(Processors());
  MeasureLatency(state, [&](auto task) { pool.Post(std::move(task)); });
}
BENCHMARK(BM_Latency_HandMadePool)->UseManualTime()->Unit(benchmark::kMicrosecond);

void BM_Latency_StdAsync(benchmark::State& state) {
  std::future<void> last;
  MeasureLatency(state, [&](auto task) { last = std::async(std::launch::async, std::move(task)); });
}
BENCHMARK(BM_Latency_StdAsync)->UseManualTime()->Unit(benchmark::kMicrosecond);

// ---------------------------------------------------------------------------------------------
// Arming and cancelling 100,000 timers

constexpr int kTimers = 100000;

std::vector<Clock::duration> FarDueTimes() {
  std::mt19937 random(11);
  std::vector<Clock::duration> dues(kTimers);
  for (Clock::duration& due : dues)
    due = std::chrono::hours(1) + std::chrono::microseconds(random() % 10000000);
  return dues;
}

void BM_ArmCancel100k_DKTimer(benchmark::State& state) {
  const std::vector<Clock::duration> dues = FarDueTimes();
  std::vector<std::unique_ptr<DKTimer>> timers;
  for (int i = 0; i < kTimers; ++i)
    timers.push_back(std::make_unique<DKTimer>([] {}, DKTimerTarget::TimerThread));
  for (auto _ : state) {
    for (int i = 0; i < kTimers; ++i)
      timers[i]->Start(dues[i]);
    for (int i = kTimers - 1; i >= 0; i -= 2) // cancelled out of order
      timers[i]->Cancel();
    for (int i = kTimers - 2; i >= 0; i -= 2)
      timers[i]->Cancel();
  }
  state.SetItemsProcessed(state.iterations() * kTimers);
}
BENCHMARK(BM_ArmCancel100k_DKTimer)->Unit(benchmark::kMillisecond);

void BM_ArmCancel100k_StdMultimap(benchmark::State& state) {
  const std::vector<Clock::duration> dues = FarDueTimes();
  std::mutex lock; // a timer queue is shared with its timer thread
  std::multimap<Clock::time_point, std::function<void()>> queue;
  std::vector<std::multimap<Clock::time_point, std::function<void()>>::iterator> armed(kTimers);
  for (auto _ : state) {
    for (int i = 0; i < kTimers; ++i) {
      const Clock::time_point due = Clock::now() + dues[i];
      std::lock_guard<std::mutex> guard(lock);
      armed[i] = queue.emplace(due, [] {});
    }
    for (int i = kTimers - 1; i >= 0; i -= 2) {
      std::lock_guard<std::mutex> guard(lock);
      queue.erase(armed[i]);
    }
    for (int i = kTimers - 2; i >= 0; i -= 2) {
      std::lock_guard<std::mutex> guard(lock);
      queue.erase(armed[i]);
    }
  }
  state.SetItemsProcessed(state.iterations() * kTimers);
}
BENCHMARK(BM_ArmCancel100k_StdMultimap)->Unit(benchmark::kMillisecond);

// ---------------------------------------------------------------------------------------------
// Lateness under load

constexpr int kLateTimers = 300;

// Keeps every processor busy for its lifetime.
class Load {
public:
  Load() {
    for (unsigned i = 0; i < Processors(); ++i)
      m_threads.emplace_back([this] {
        while (!m_stop.load(std::memory_order_relaxed))
          benchmark::DoNotOptimize(m_spins.fetch_add(1, std::memory_order_relaxed));
      });
  }
  ~Load() {
    m_stop = true;
    for (std::thread& thread : m_threads)
      thread.join();
  }

private:
  std::atomic<bool> m_stop{false};
  std::atomic<long> m_spins{0};
  std::vector<std::thread> m_threads;
};

void ReportLateness(benchmark::State& state, std::vector<double>& lateMicroseconds) {
  std::sort(lateMicroseconds.begin(), lateMicroseconds.end());
  state.counters["p50_us"] = lateMicroseconds[lateMicroseconds.size() / 2];
  state.counters["p99_us"] = lateMicroseconds[lateMicroseconds.size() * 99 / 100];
}

void BM_LatenessUnderLoad_DKTimer(benchmark::State& state) {
  std::vector<double> late;
  for (auto _ : state) {
    const Load load;
    std::mutex lock;
    std::vector<std::unique_ptr<DKTimer>> timers;
    std::atomic<int> fired{0};
    const Clock::time_point start = Clock::now() + std::chrono::milliseconds(5);
    for (int i = 0; i < kLateTimers; ++i) {
      timers.push_back(std::make_unique<DKTimer>(
          [&] {
            const Clock::time_point now = Clock::now();
            const double micros = std::chrono::duration<double, std::micro>(now - DKTimer::CurrentFiring()->due).count();
            std::lock_guard<std::mutex> guard(lock);
            late.push_back(micros);
            ++fired;
          },
          DKTimerTarget::TimerThread));
      timers.back()->StartAt(start + std::chrono::milliseconds(i));
    }
    while (fired.load() < kLateTimers)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ReportLateness(state, late);
}
BENCHMARK(BM_LatenessUnderLoad_DKTimer)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_LatenessUnderLoad_StdSleepUntil(benchmark::State& state) {
  std::vector<double> late;
  for (auto _ : state) {
    const Load load;
    std::thread sleeper([&] {
      const Clock::time_point start = Clock::now() + std::chrono::milliseconds(5);
      for (int i = 0; i < kLateTimers; ++i) {
        const Clock::time_point due = start + std::chrono::milliseconds(i);
        std::this_thread::sleep_until(due);
        late.push_back(std::chrono::duration<double, std::micro>(Clock::now() - due).count());
      }
    });
    sleeper.join();
  }
  ReportLateness(state, late);
}
BENCHMARK(BM_LatenessUnderLoad_StdSleepUntil)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
