// DKTrace and DKLogger: the cost of a message that the filters drop, and of a written line
// against the same line written with fprintf and fflush.
//
// Allocations are counted by replacing the global operator new of the bench program with one
// that bumps a per-thread counter (a plain increment, so the other suites of this program are
// not slowed measurably), and by the memory pool's own counter.
#include <DorvikCore/DKError.h>
#include <DorvikCore/DKLog.h>
#include <DorvikCore/DKMemoryPool.h>
#include <DorvikCore/DKString.h>
#include <DorvikCore/DKTrace.h>

#include <benchmark/benchmark.h>

#include <atomic>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <string>
#include <system_error>

namespace {
thread_local std::size_t t_operatorNewCalls = 0;
} // namespace

void* operator new(std::size_t size) {
  ++t_operatorNewCalls;
  if (void* block = std::malloc(size ? size : 1))
    return block;
  throw std::bad_alloc();
}
void operator delete(void* block) noexcept {
  std::free(block);
}
void operator delete(void* block, std::size_t) noexcept {
  std::free(block);
}

namespace {

// A fresh folder for the trace file of one benchmark, removed with everything in it afterwards.
class BenchFolder {
public:
  BenchFolder() {
    m_path = std::filesystem::temp_directory_path() / ("dk_bench_trace_" + std::to_string(std::rand()));
    std::filesystem::create_directories(m_path);
  }
  ~BenchFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  BenchFolder(const BenchFolder&) = delete;
  BenchFolder& operator=(const BenchFolder&) = delete;

  const std::filesystem::path& Path() const { return m_path; }

private:
  std::filesystem::path m_path;
};

// Tracing on for subject SO at level 1, into the given folder.
void EnableTrace(const BenchFolder& folder) {
  DKString path;
  path.SetFromUTF8(folder.Path().string().c_str());
  DKTrace::SetTraceLevel(TL_NORMAL);
  DKTrace::SetTraceDelim(9);
  DKTrace::SetTraceFolderName(path.c_str());
  DKTrace::SetTraceSubjects(DK_T("SO"));
}

void DisableTrace() {
  DKTrace::SetTraceSubjects(nullptr);
}

// Reports the allocations made inside the timed loop, per iteration.
class AllocationCounter {
public:
  AllocationCounter() : m_news(t_operatorNewCalls), m_poolBlocks(DMMemoryPool::GetTotalBlocks()) {}
  void Report(benchmark::State& state) const {
    const double iterations = static_cast<double>(state.iterations());
    state.counters["news/iter"] = static_cast<double>(t_operatorNewCalls - m_news) / iterations;
    state.counters["poolBlocks/iter"] = static_cast<double>(DMMemoryPool::GetTotalBlocks() - m_poolBlocks) / iterations;
  }

private:
  std::size_t m_news;
  std::size_t m_poolBlocks;
};

// ---- Messages the filters drop --------------------------------------------------------------

// Tracing is on for SO at level 1 (or off altogether); the message misses the filter.
void BM_TraceMsg_Filtered(benchmark::State& state, TracelLevels level, TracelSubjects subject, bool tracingOn) {
  BenchFolder folder;
  if (tracingOn)
    EnableTrace(folder);
  else
    DisableTrace();
  int i = 0;
  AllocationCounter allocations;
  for (auto _ : state) {
    DKTrace::Msg(level, subject, "bench", "request %d took %.3f ms for %s\n", ++i, 1.5, "client-42");
    benchmark::ClobberMemory();
  }
  allocations.Report(state);
  DisableTrace();
}
BENCHMARK_CAPTURE(BM_TraceMsg_Filtered, SubjectOff, TL_NORMAL, TS_DB, true);
BENCHMARK_CAPTURE(BM_TraceMsg_Filtered, LevelOff, TL_DATA, TS_SO, true);
BENCHMARK_CAPTURE(BM_TraceMsg_Filtered, TracingOff, TL_NORMAL, TS_SO, false);

// The reference for the filtered cases: a call guarded by one relaxed atomic level, the least a
// logger can test at its call site.
std::atomic<int> g_referenceLevel{0};
[[gnu::noinline]] void ReferenceWrite(int i) { benchmark::DoNotOptimize(i); }
void BM_GuardedCall_Off(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) {
    if (g_referenceLevel.load(std::memory_order_relaxed) >= 1) [[unlikely]]
      ReferenceWrite(++i);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_GuardedCall_Off);

// ---- Written lines --------------------------------------------------------------------------
// Both write the same line: a 23-character date-time, the thread id, source, level, subject,
// then the caller's text; each line is flushed at once. The fprintf side gets its prefix
// values for free (computed once), so it is the stricter reference.

constexpr int kWrittenLines = 300000;

void BM_TraceMsg_Written(benchmark::State& state) {
  BenchFolder folder;
  EnableTrace(folder);
  int i = 0;
  AllocationCounter allocations;
  for (auto _ : state)
    DKTrace::Msg(TL_NORMAL, TS_SO, "bench", "request %d took %.3f ms for %s\n", ++i, 1.5, "client-42");
  allocations.Report(state);
  DisableTrace();
}
BENCHMARK(BM_TraceMsg_Written)->Iterations(kWrittenLines)->Repetitions(3);

void BM_Fprintf_Fflush(benchmark::State& state) {
  BenchFolder folder;
  std::FILE* file = std::fopen((folder.Path() / "fprintf.log").string().c_str(), "w");
  if (!file) {
    state.SkipWithError("cannot open the reference file");
    return;
  }
  int i = 0;
  AllocationCounter allocations;
  for (auto _ : state) {
    std::fprintf(file, "%s.%03d\t%lu\t%s\t%d\t%s\trequest %d took %.3f ms for %s\n", "2024-03-01;14:05:09", 42,
                 123456ul, "bench", 1, "SO", ++i, 1.5, "client-42");
    std::fflush(file);
  }
  allocations.Report(state);
  std::fclose(file);
}
BENCHMARK(BM_Fprintf_Fflush)->Iterations(kWrittenLines)->Repetitions(3);

// ---- DKLogger --------------------------------------------------------------------------------
// A logger on a channel of its own, with a file subscriber at level 1 (error, warning, info):
// each written line carries a local ISO 8601 time stamp and the severity, and is flushed.

class LoggerToFile {
public:
  explicit LoggerToFile(const BenchFolder& folder)
      : m_logs(DKLogManager::Get()), m_channel(m_logs.AddChannel(DK_T("bench"))), m_logger(m_channel) {
    DKString path;
    path.SetFromUTF8((folder.Path() / "logger.log").string().c_str());
    m_ok = m_logs.Subscribe(m_channel, new DKFileLogSubscriber(path), 1);
  }
  ~LoggerToFile() { m_logs.RemoveChannel(m_channel); }
  LoggerToFile(const LoggerToFile&) = delete;
  LoggerToFile& operator=(const LoggerToFile&) = delete;

  bool Ok() const { return m_ok; }
  DKLogger& Logger() { return m_logger; }

private:
  DKLogManager& m_logs;
  DKLogManager::ChannelId m_channel;
  DKLogger m_logger;
  bool m_ok = false;
};

void BM_Logger_Written(benchmark::State& state) {
  BenchFolder folder;
  LoggerToFile log(folder);
  if (!log.Ok()) {
    state.SkipWithError("cannot open the log file");
    return;
  }
  int i = 0;
  AllocationCounter allocations;
  for (auto _ : state)
    log.Logger().Info("request %d took %.3f ms for %s", ++i, 1.5, "client-42");
  allocations.Report(state);
}
BENCHMARK(BM_Logger_Written)->Iterations(kWrittenLines)->Repetitions(3);

// The subscriber takes level 1; a debug line (level 2) is dropped by the channel's gate, an
// info line by the logger's threshold.
void BM_Logger_Dropped(benchmark::State& state, DKLogSeverity severity, DKLogSeverity threshold) {
  BenchFolder folder;
  LoggerToFile log(folder);
  log.Logger().SetThreshold(threshold);
  int i = 0;
  AllocationCounter allocations;
  for (auto _ : state) {
    log.Logger().Log(severity, "request %d took %.3f ms for %s", ++i, 1.5, "client-42");
    benchmark::ClobberMemory();
  }
  allocations.Report(state);
}
BENCHMARK_CAPTURE(BM_Logger_Dropped, LevelOff, DKLogSeverity::Debug, DKLogSeverity::Trace);
BENCHMARK_CAPTURE(BM_Logger_Dropped, ThresholdOff, DKLogSeverity::Info, DKLogSeverity::Warning);

// A hex dump of 256 bytes with the hexadecimal block, for scale.
void BM_TraceMsgHex256_Written(benchmark::State& state) {
  BenchFolder folder;
  EnableTrace(folder);
  DKTrace::SetTraceLevel(TL_DATA | TL_HEX);
  unsigned char bytes[256];
  for (int b = 0; b < 256; ++b)
    bytes[b] = static_cast<unsigned char>(b);
  for (auto _ : state)
    DKTrace::MsgHex(TL_DATA, TS_SO, "bench", bytes, static_cast<std::int32_t>(sizeof bytes));
  DisableTrace();
}
BENCHMARK(BM_TraceMsgHex256_Written)->Iterations(50000);

} // namespace
