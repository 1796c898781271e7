// What the library's objects cost in memory, beside the standard library's nearest equivalent:
// a string holding "x", a compiled regular expression and an idle thread. Heap bytes come from
// the C library's allocator statistics around 1,000 objects; thread figures are the growth of
// the private resident set around 64 idle threads. The figures are counters; the timings mean nothing here.
// (The configuration file's peak while loading is in bench_config.cpp.)
#include <DorvikCore/DKRegEx.h>
#include <DorvikCore/DKString.h>
#include <DorvikCore/DKSync.h>
#include <DorvikCore/DKThread.h>

#include <benchmark/benchmark.h>

#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <fstream>
#include <memory>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kObjects = 1000;

double HeapInUse() { return static_cast<double>(mallinfo2().uordblks); }

double ResidentBytes() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind("VmRSS:", 0) == 0)
      return std::stod(line.substr(6)) * 1024;
  return 0;
}

// Bytes per object: the object itself plus the heap it holds, over kObjects made by make().
template <class T, class Make>
void PerObject(benchmark::State& state, Make make) {
  double perObject = 0;
  for (auto _ : state) {
    std::vector<T> objects;
    objects.reserve(kObjects);
    const double before = HeapInUse();
    for (int i = 0; i < kObjects; ++i)
      objects.push_back(make());
    perObject = (HeapInUse() - before) / kObjects + static_cast<double>(sizeof(T));
    benchmark::DoNotOptimize(objects);
  }
  state.counters["bytes_per_object"] = perObject;
}

void BM_Memory_DKString_x(benchmark::State& state) {
  PerObject<DKString>(state, [] { return DKString(DK_T("x")); });
}
BENCHMARK(BM_Memory_DKString_x)->Iterations(1);

void BM_Memory_StdU16String_x(benchmark::State& state) {
  PerObject<std::u16string>(state, [] { return std::u16string(u"x"); });
}
BENCHMARK(BM_Memory_StdU16String_x)->Iterations(1);

constexpr const char* kPattern = "[A-Z][a-z]+[0-9]*";

void BM_Memory_DKRegEx(benchmark::State& state) {
  PerObject<std::unique_ptr<DKRegEx>>(state, [] { return std::make_unique<DKRegEx>(DKString(DK_T("[A-Z][a-z]+[0-9]*"))); });
}
BENCHMARK(BM_Memory_DKRegEx)->Iterations(1);

void BM_Memory_StdRegex(benchmark::State& state) {
  PerObject<std::unique_ptr<std::regex>>(state, [] { return std::make_unique<std::regex>(kPattern); });
}
BENCHMARK(BM_Memory_StdRegex)->Iterations(1);

// Private resident bytes per idle thread: 64 threads blocked in a wait, measured once all have
// started, in a child process of its own, so that neither the C library's cache of the stacks of
// earlier threads nor code pages read for the first time count.
constexpr int kThreads = 64;

double AnonymousResidentBytes() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind("RssAnon:", 0) == 0)
      return std::stod(line.substr(8)) * 1024;
  return -1;
}

// Runs startAll (which returns once kThreads threads wait, and a function that releases and
// joins them) in a child; the growth per thread, or -1.
template <class StartAll>
double PerThreadInChild(StartAll startAll) {
  int pipe[2];
  if (::pipe(pipe) != 0)
    return -1;
  const pid_t pid = ::fork();
  if (pid == 0) {
    const double before = AnonymousResidentBytes();
    auto finish = startAll();
    const double perThread = (AnonymousResidentBytes() - before) / kThreads;
    finish();
    const bool written = ::write(pipe[1], &perThread, sizeof perThread) == sizeof perThread;
    ::_exit(written ? 0 : 1);
  }
  ::close(pipe[1]);
  double perThread = -1;
  if (pid < 0 || ::read(pipe[0], &perThread, sizeof perThread) != sizeof perThread)
    perThread = -1;
  ::close(pipe[0]);
  if (pid > 0)
    ::waitpid(pid, nullptr, 0);
  return perThread;
}

void ReportPerThread(benchmark::State& state, double perThread) {
  if (perThread < 0)
    state.SkipWithError("no resident-set figures");
  state.counters["private_bytes_per_thread"] = perThread;
}

void BM_Memory_IdleDKThread(benchmark::State& state) {
  for (auto _ : state)
    ReportPerThread(state, PerThreadInChild([] {
      auto go = std::make_shared<DKEventSemaphore>();
      auto started = std::make_shared<std::atomic<int>>(0);
      const DKSmartPtr<DKCallback> body = DKMakeCallback([go, started] {
        started->fetch_add(1);
        (void)go->Wait();
      });
      auto threads = std::make_shared<std::vector<std::unique_ptr<DKThread>>>();
      for (int i = 0; i < kThreads; ++i) {
        threads->push_back(std::make_unique<DKThread>(body));
        if (threads->back()->Start().Bad())
          ::_exit(2);
      }
      while (started->load() < kThreads)
        std::this_thread::yield();
      return [go, threads] {
        go->Post();
        for (const auto& thread : *threads)
          thread->Join();
      };
    }));
}
BENCHMARK(BM_Memory_IdleDKThread)->Iterations(1)->UseRealTime();

void BM_Memory_IdleStdThread(benchmark::State& state) {
  for (auto _ : state)
    ReportPerThread(state, PerThreadInChild([] {
      struct Gate {
        std::mutex lock;
        std::condition_variable wake;
        bool go = false;
        std::atomic<int> started{0};
      };
      auto gate = std::make_shared<Gate>();
      auto threads = std::make_shared<std::vector<std::thread>>();
      for (int i = 0; i < kThreads; ++i)
        threads->emplace_back([gate] {
          gate->started.fetch_add(1);
          std::unique_lock guard(gate->lock);
          gate->wake.wait(guard, [&] { return gate->go; });
        });
      while (gate->started.load() < kThreads)
        std::this_thread::yield();
      return [gate, threads] {
        {
          std::lock_guard guard(gate->lock);
          gate->go = true;
        }
        gate->wake.notify_all();
        for (std::thread& thread : *threads)
          thread.join();
      };
    }));
}
BENCHMARK(BM_Memory_IdleStdThread)->Iterations(1)->UseRealTime();

} // namespace
