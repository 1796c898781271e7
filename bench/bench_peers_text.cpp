// Peer libraries on the work of bench_string.cpp and bench_format.cpp, in the same program:
// QString (UTF-16, implicitly shared, the nearest peer of DKString) searching and appending,
// and the typical log line formatted by fmt into a std::string, by QString::asprintf and by
// Poco::format. Each peer's cases compile only where CMake found it.
#include "DKBenchInputs.h"

#include <benchmark/benchmark.h>

#include <string>

#if DK_BENCH_HAVE_QT
#include <QChar>
#include <QString>
#endif
#if DK_BENCH_HAVE_FMT
#include <fmt/format.h>
#include <fmt/printf.h>
#endif
#if DK_BENCH_HAVE_POCO
#include <Poco/Format.h>
#endif

namespace {

#if DK_BENCH_HAVE_QT

QString ToQString(const std::u16string& text) {
  return QString(reinterpret_cast<const QChar*>(text.data()), static_cast<int>(text.size()));
}

void BM_Append1M_QString(benchmark::State& state) {
  for (auto _ : state) {
    QString s;
    for (int i = 0; i < 1000000; ++i)
      s += QChar(static_cast<char16_t>(u'a' + (i & 15)));
    benchmark::DoNotOptimize(s);
  }
}
BENCHMARK(BM_Append1M_QString)->Unit(benchmark::kMillisecond);

void BM_Find16In1MiB_QString(benchmark::State& state) {
  const dkbench::SearchData d;
  const QString hay = ToQString(d.hay), needle = ToQString(d.needle);
  if (hay.indexOf(needle) != static_cast<int>(d.hay.size() - d.needle.size()))
    state.SkipWithError("the needle was not found at the end");
  for (auto _ : state)
    benchmark::DoNotOptimize(hay.indexOf(needle));
}
BENCHMARK(BM_Find16In1MiB_QString)->Unit(benchmark::kMicrosecond);

void BM_Line_QStringAsprintf(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) {
    ++i;
    QString s = QString::asprintf("Line %d: value=%.3f name=%s", i, 3.14159 * i, "connection");
    benchmark::DoNotOptimize(s);
  }
}
BENCHMARK(BM_Line_QStringAsprintf);

#endif // DK_BENCH_HAVE_QT

#if DK_BENCH_HAVE_FMT

void BM_Line_FmtFormat(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) {
    ++i;
    std::string s = fmt::format("Line {}: value={:.3f} name={}", i, 3.14159 * i, "connection");
    benchmark::DoNotOptimize(s);
  }
}
BENCHMARK(BM_Line_FmtFormat);

// The printf syntax of the library's own format strings, through fmt.
void BM_Line_FmtSprintf(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) {
    ++i;
    std::string s = fmt::sprintf("Line %d: value=%.3f name=%s", i, 3.14159 * i, "connection");
    benchmark::DoNotOptimize(s);
  }
}
BENCHMARK(BM_Line_FmtSprintf);

#endif // DK_BENCH_HAVE_FMT

#if DK_BENCH_HAVE_POCO

void BM_Line_PocoFormat(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) {
    ++i;
    std::string s = Poco::format("Line %d: value=%.3f name=%s", i, 3.14159 * i, std::string("connection"));
    benchmark::DoNotOptimize(s);
  }
}
BENCHMARK(BM_Line_PocoFormat);

#endif // DK_BENCH_HAVE_POCO

} // namespace
