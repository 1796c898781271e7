// Peer libraries on the regular expressions of bench_conditions.cpp, in the same program:
// QRegularExpression (PCRE2 on UTF-16, with its JIT where the system's PCRE2 has one) and
// Poco::RegularExpression (PCRE on UTF-8, without JIT), both backtracking engines; PCRE2 itself
// on UTF-16, with and without its JIT; RE2 on UTF-8, an automaton engine like DKRegEx.
// - whole-text match of "[A-Z][a-z]+[0-9]*" on the same 64-character texts;
// - "(a+)+b" on n "a": PCRE2 finds that the text holds no "b" before it backtracks; POCO's PCRE
//   backtracks and gives up at its match limit, which is reported as an error, not timed
//   (QRegularExpression tells a failed match from no match by no means, so it cannot be checked);
// - the programs too large for DKRegEx's state cache: "(?:a{0,1000})+b" on 100,000 "a" in RE2
//   and PCRE2's JIT (whose match limit is reported when it gives up); the growing and the
//   ever-new states of bench_conditions.cpp in RE2.
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
#if DK_BENCH_HAVE_RE2
#include <re2/re2.h>
#endif
#if DK_BENCH_HAVE_PCRE2
#define PCRE2_CODE_UNIT_WIDTH 16
#include <pcre2.h>
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

#if DK_BENCH_HAVE_RE2

void BM_RE2_Match64(benchmark::State& state) {
  const RE2 re(dkbench::simplePattern);
  const std::vector<std::string> texts = dkbench::SimpleTexts();
  std::size_t i = 0, matches = 0;
  for (auto _ : state) {
    matches += RE2::FullMatch(texts[i++ % texts.size()], re);
    benchmark::DoNotOptimize(matches);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
  state.counters["matches/16"] = static_cast<double>(matches) * 16 / static_cast<double>(state.iterations());
}
BENCHMARK(BM_RE2_Match64);

void RE2WholeMatch(benchmark::State& state, const char* pattern, const std::string& text) {
  const RE2 re(pattern);
  if (!re.ok()) {
    state.SkipWithError(("RE2 refuses the pattern: " + re.error()).c_str());
    return;
  }
  for (auto _ : state)
    benchmark::DoNotOptimize(RE2::FullMatch(text, re));
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

void BM_RE2_NestedPlus(benchmark::State& state) {
  RE2WholeMatch(state, "(a+)+b", std::string(static_cast<std::size_t>(state.range(0)), 'a'));
}
BENCHMARK(BM_RE2_NestedPlus)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

void BM_RE2_LargeProgram_Repeat(benchmark::State& state) {
  RE2WholeMatch(state, "(?:a{0,1000})+b", std::string(static_cast<std::size_t>(state.range(0)), 'a'));
}
BENCHMARK(BM_RE2_LargeProgram_Repeat)->Arg(100000)->Unit(benchmark::kMicrosecond);

void BM_RE2_LargeProgram_Grow(benchmark::State& state) {
  RE2WholeMatch(state, dkbench::growPattern, std::string(100000, 'a'));
}
BENCHMARK(BM_RE2_LargeProgram_Grow)->Unit(benchmark::kMicrosecond);

void BM_RE2_LargeProgram_NewStates(benchmark::State& state) {
  RE2WholeMatch(state, dkbench::NewStatesPattern(state.range(0)).c_str(), dkbench::RandomABText());
}
BENCHMARK(BM_RE2_LargeProgram_NewStates)->Arg(200)->Arg(6000)->Unit(benchmark::kMicrosecond);

#endif // DK_BENCH_HAVE_RE2

#if DK_BENCH_HAVE_PCRE2

// A whole-text PCRE2 pattern on UTF-16, compiled for the JIT or for the interpreter.
class Pcre2Pattern {
public:
  Pcre2Pattern(const char* pattern, bool jit) {
    const std::u16string wide(pattern, pattern + std::char_traits<char>::length(pattern));
    int error = 0;
    PCRE2_SIZE offset = 0;
    m_code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(wide.data()), wide.size(), PCRE2_ANCHORED | PCRE2_ENDANCHORED,
                           &error, &offset, nullptr);
    if (m_code && jit && pcre2_jit_compile(m_code, PCRE2_JIT_COMPLETE) != 0)
      Drop();
    if (m_code)
      m_data = pcre2_match_data_create_from_pattern(m_code, nullptr);
  }
  ~Pcre2Pattern() { Drop(); }
  Pcre2Pattern(const Pcre2Pattern&) = delete;
  Pcre2Pattern& operator=(const Pcre2Pattern&) = delete;

  bool Ok() const { return m_code && m_data; }
  // 1 on a match, 0 without one, a negative PCRE2 error when it gave up.
  int Match(const std::u16string& text) const {
    const int rc = pcre2_match(m_code, reinterpret_cast<PCRE2_SPTR>(text.data()), text.size(), 0, 0, m_data, nullptr);
    return rc > 0 ? 1 : rc == PCRE2_ERROR_NOMATCH ? 0 : rc;
  }

private:
  void Drop() {
    pcre2_match_data_free(m_data);
    pcre2_code_free(m_code);
    m_data = nullptr;
    m_code = nullptr;
  }
  pcre2_code* m_code = nullptr;
  pcre2_match_data* m_data = nullptr;
};

void Pcre2Match64(benchmark::State& state, bool jit) {
  const Pcre2Pattern re(dkbench::simplePattern, jit);
  std::vector<std::u16string> texts;
  for (const std::string& t : dkbench::SimpleTexts())
    texts.emplace_back(t.begin(), t.end());
  if (!re.Ok()) {
    state.SkipWithError("PCRE2 refuses the pattern");
    return;
  }
  std::size_t i = 0, matches = 0;
  for (auto _ : state) {
    matches += static_cast<std::size_t>(re.Match(texts[i++ % texts.size()]) == 1);
    benchmark::DoNotOptimize(matches);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
  state.counters["matches/16"] = static_cast<double>(matches) * 16 / static_cast<double>(state.iterations());
}

void BM_PCRE2_JIT_Match64(benchmark::State& state) { Pcre2Match64(state, true); }
BENCHMARK(BM_PCRE2_JIT_Match64);
void BM_PCRE2_Match64(benchmark::State& state) { Pcre2Match64(state, false); }
BENCHMARK(BM_PCRE2_Match64);

void Pcre2WholeMatch(benchmark::State& state, const char* pattern, const std::u16string& text) {
  const Pcre2Pattern re(pattern, true);
  if (!re.Ok()) {
    state.SkipWithError("PCRE2 refuses the pattern");
    return;
  }
  for (auto _ : state) {
    const int rc = re.Match(text);
    if (rc < 0) {
      state.SkipWithError(("PCRE2 gave up, error " + std::to_string(rc)).c_str());
      break;
    }
    benchmark::DoNotOptimize(rc);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

void BM_PCRE2_JIT_NestedPlus(benchmark::State& state) {
  Pcre2WholeMatch(state, "(a+)+b", std::u16string(static_cast<std::size_t>(state.range(0)), u'a'));
}
BENCHMARK(BM_PCRE2_JIT_NestedPlus)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

void BM_PCRE2_JIT_LargeProgram_Repeat(benchmark::State& state) {
  Pcre2WholeMatch(state, "(?:a{0,1000})+b", std::u16string(static_cast<std::size_t>(state.range(0)), u'a'));
}
BENCHMARK(BM_PCRE2_JIT_LargeProgram_Repeat)->Arg(100000)->Unit(benchmark::kMicrosecond);

#endif // DK_BENCH_HAVE_PCRE2

} // namespace
