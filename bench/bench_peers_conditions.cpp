// Peer libraries on the regular expressions of bench_conditions.cpp, in the same program:
// QRegularExpression (PCRE2 on UTF-16, with its JIT where the system's PCRE2 has one) and
// Poco::RegularExpression (PCRE on UTF-8, without JIT), both backtracking engines.
// - whole-text match of "[A-Z][a-z]+[0-9]*" on the same 64-character texts;
// - "(a+)+b" on n "a": PCRE2 finds that the text holds no "b" before it backtracks; POCO's PCRE
//   backtracks and gives up at its match limit, which is reported as an error, not timed
//   (QRegularExpression tells a failed match from no match by no means, so it cannot be checked).
#include "DKBenchInputs.h"

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#if DK_BENCH_HAVE_QT
#include <QRegularExpression>
#include <QString>
#endif
#if DK_BENCH_HAVE_POCO
#include <Poco/Exception.h>
#include <Poco/RegularExpression.h>
#endif

namespace {

#if DK_BENCH_HAVE_QT

bool WholeMatch(const QRegularExpression& re, const QString& text) { return re.match(text).hasMatch(); }

QRegularExpression Anchored(const char* pattern) {
  QRegularExpression re(QRegularExpression::anchoredPattern(QString::fromLatin1(pattern)));
  re.optimize();
  return re;
}

void BM_QRegularExpression_Match64(benchmark::State& state) {
  const QRegularExpression re = Anchored(dkbench::simplePattern);
  std::vector<QString> texts;
  for (const std::string& t : dkbench::SimpleTexts())
    texts.push_back(QString::fromStdString(t));
  std::size_t i = 0, matches = 0;
  for (auto _ : state) {
    matches += WholeMatch(re, texts[i++ % texts.size()]);
    benchmark::DoNotOptimize(matches);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
  state.counters["matches/16"] = static_cast<double>(matches) * 16 / static_cast<double>(state.iterations());
}
BENCHMARK(BM_QRegularExpression_Match64);

void BM_QRegularExpression_NestedPlus(benchmark::State& state) {
  const QRegularExpression re = Anchored("(a+)+b");
  const QString text(static_cast<int>(state.range(0)), QLatin1Char('a'));
  for (auto _ : state)
    benchmark::DoNotOptimize(WholeMatch(re, text));
}
BENCHMARK(BM_QRegularExpression_NestedPlus)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

#endif // DK_BENCH_HAVE_QT

#if DK_BENCH_HAVE_POCO

// Poco::RegularExpression::match is a whole match: anchored, and true only when the match ends
// at the end of the subject.
void BM_PocoRegularExpression_Match64(benchmark::State& state) {
  const Poco::RegularExpression re(dkbench::simplePattern);
  const std::vector<std::string> texts = dkbench::SimpleTexts();
  std::size_t i = 0, matches = 0;
  for (auto _ : state) {
    matches += re.match(texts[i++ % texts.size()]);
    benchmark::DoNotOptimize(matches);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
  state.counters["matches/16"] = static_cast<double>(matches) * 16 / static_cast<double>(state.iterations());
}
BENCHMARK(BM_PocoRegularExpression_Match64);

void BM_PocoRegularExpression_NestedPlus(benchmark::State& state) {
  const Poco::RegularExpression re("(a+)+b");
  const std::string text(static_cast<std::size_t>(state.range(0)), 'a');
  for (auto _ : state) {
    try {
      benchmark::DoNotOptimize(re.match(text));
    } catch (const Poco::RegularExpressionException& e) {
      state.SkipWithError(("PCRE gave up: " + e.displayText()).c_str());
      break;
    }
  }
}
BENCHMARK(BM_PocoRegularExpression_NestedPlus)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

#endif // DK_BENCH_HAVE_POCO

} // namespace
