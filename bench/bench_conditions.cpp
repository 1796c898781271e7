// Conditions and their regular expressions, against the standard library in the same run:
// - whole-text match of "[A-Z][a-z]+[0-9]*" on 64-character texts: DKRegEx::Match on UTF-16
//   against std::regex_match (ECMAScript) on the same texts as std::string;
// - "(a+)+b" on texts of n "a": DKRegEx up to n = 10,000; std::regex, which backtracks, only
//   on short texts, where its time doubles with every "a";
// - programs of about 2,000 instructions written out, too large for the cache of automaton
//   states to hold every state a text could meet: "(?:a{0,1000})+b" and "(?:[ab]{0,1000})+c"
//   on 100,000 "a"; "(?:a{0,1000}c?)+b" on 100,000 "a", which meets a thousand states of up to
//   a thousand instructions; "(?:a|b)*a(?:a|b){n}c" on random a/b text, where nearly every
//   character is a new state. std::regex only on "(?:a{0,1000})+b" with 10 "a": it backtracks
//   through every way of cutting the run, each "a" tripling the time (22 ms for 10, 1.5 s for
//   14), so that longer texts do not finish;
// - compiling the pattern: DKRegEx::Compile against constructing a std::regex;
// - evaluating a parsed condition of three links through a derived class that reads typed
//   row values, against a hand-written std::function chain doing the same comparisons with
//   std::regex_match; and parsing that condition.
#include <DorvikCore/DKCondition.h>
#include <DorvikCore/DKRegEx.h>

#include <benchmark/benchmark.h>

#include "DKBenchInputs.h"

#include <functional>
#include <regex>
#include <string>
#include <vector>

namespace {

DKString FromUtf8(const std::string& text) {
  DKString s;
  s.SetFromUTF8(text.c_str()).IgnoreError(); // the texts here are ASCII
  return s;
}

using dkbench::simplePattern;
using dkbench::SimpleTexts;

// Matches the 64-character texts in turn.
void MatchTexts(benchmark::State& state, const DKRegEx& re) {
  std::vector<DKString> texts;
  for (const std::string& t : SimpleTexts())
    texts.push_back(FromUtf8(t));
  std::size_t i = 0, matches = 0;
  for (auto _ : state) {
    matches += re.Match(texts[i++ % texts.size()]);
    benchmark::DoNotOptimize(matches);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * 64 * 2);
}

void BM_DKRegEx_Match64(benchmark::State& state) { MatchTexts(state, DKRegEx(FromUtf8(simplePattern))); }
BENCHMARK(BM_DKRegEx_Match64);

void BM_StdRegex_Match64(benchmark::State& state) {
  const std::regex re(simplePattern, std::regex::ECMAScript);
  const std::vector<std::string> texts = SimpleTexts();
  std::size_t i = 0, matches = 0;
  for (auto _ : state) {
    matches += std::regex_match(texts[i++ % texts.size()], re);
    benchmark::DoNotOptimize(matches);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * 64);
}
BENCHMARK(BM_StdRegex_Match64);

// The same texts without the cache of automaton states: the plain automaton simulation.
void BM_DKRegEx_Match64_Uncached(benchmark::State& state) {
  DKRegEx re;
  re.Compile(FromUtf8(simplePattern), 0).IgnoreError(); // a fixed pattern that compiles
  MatchTexts(state, re);
}
BENCHMARK(BM_DKRegEx_Match64_Uncached);

void BM_DKRegEx_NestedPlus(benchmark::State& state) {
  const DKRegEx re(DK_T("(a+)+b"));
  const DKString text(DK_T('a'), static_cast<std::size_t>(state.range(0)));
  for (auto _ : state)
    benchmark::DoNotOptimize(re.Match(text));
  state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_DKRegEx_NestedPlus)->Arg(12)->Arg(16)->Arg(20)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

void BM_StdRegex_NestedPlus(benchmark::State& state) {
  const std::regex re("(a+)+b", std::regex::ECMAScript);
  const std::string text(static_cast<std::size_t>(state.range(0)), 'a');
  for (auto _ : state)
    benchmark::DoNotOptimize(std::regex_match(text, re));
}
BENCHMARK(BM_StdRegex_NestedPlus)->Arg(12)->Arg(16)->Arg(20)->Unit(benchmark::kMicrosecond);

// Large programs on long texts; the time per character is the figure to read.
void LargeProgram(benchmark::State& state, const char* pattern, const DKString& text) {
  const DKRegEx re(FromUtf8(pattern));
  if (!re.IsCompiled())
    state.SkipWithError("the pattern is refused");
  for (auto _ : state)
    benchmark::DoNotOptimize(re.Match(text));
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * text.Length()));
}

void BM_DKRegEx_LargeProgram_Repeat(benchmark::State& state) {
  LargeProgram(state, "(?:a{0,1000})+b", DKString(DK_T('a'), static_cast<std::size_t>(state.range(0))));
}
BENCHMARK(BM_DKRegEx_LargeProgram_Repeat)->Arg(10)->Arg(100000)->Unit(benchmark::kMicrosecond);

void BM_StdRegex_LargeProgram_Repeat(benchmark::State& state) {
  const std::regex re("(?:a{0,1000})+b", std::regex::ECMAScript);
  const std::string text(static_cast<std::size_t>(state.range(0)), 'a');
  for (auto _ : state)
    benchmark::DoNotOptimize(std::regex_match(text, re));
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_StdRegex_LargeProgram_Repeat)->Arg(10)->Unit(benchmark::kMicrosecond);

void BM_DKRegEx_LargeProgram_Class(benchmark::State& state) {
  LargeProgram(state, "(?:[ab]{0,1000})+c", DKString(DK_T('a'), 100000));
}
BENCHMARK(BM_DKRegEx_LargeProgram_Class)->Unit(benchmark::kMicrosecond);

void BM_DKRegEx_LargeProgram_Grow(benchmark::State& state) {
  LargeProgram(state, dkbench::growPattern, DKString(DK_T('a'), 100000));
}
BENCHMARK(BM_DKRegEx_LargeProgram_Grow)->Unit(benchmark::kMicrosecond);

// Every window of n + 1 characters is a state of its own: the cache can never settle. With n =
// 6,000 the program is near the size limit (about 18,000 instructions).
void BM_DKRegEx_LargeProgram_NewStates(benchmark::State& state) {
  LargeProgram(state, dkbench::NewStatesPattern(state.range(0)).c_str(), FromUtf8(dkbench::RandomABText()));
}
BENCHMARK(BM_DKRegEx_LargeProgram_NewStates)->Arg(200)->Arg(6000)->Unit(benchmark::kMicrosecond);

void BM_DKRegEx_Compile(benchmark::State& state) {
  const DKString pattern = FromUtf8(simplePattern);
  for (auto _ : state) {
    DKRegEx re(pattern);
    benchmark::DoNotOptimize(re.IsCompiled());
  }
}
BENCHMARK(BM_DKRegEx_Compile);

void BM_StdRegex_Compile(benchmark::State& state) {
  for (auto _ : state) {
    std::regex re(simplePattern, std::regex::ECMAScript);
    benchmark::DoNotOptimize(re.mark_count());
  }
}
BENCHMARK(BM_StdRegex_Compile);

// ---- Conditions ----------------------------------------------------------------------------------

struct Row {
  int qty;
  double price;
  DKString name;
  std::string nameUtf8;
};

struct RowParams : DKConditionParams {
  const Row* row = nullptr;
};

// Resolves the field name once, when it is assigned; OnEvaluate then reads the typed value.
class RowCondition : public DKCondition {
public:
  enum Field { None, Qty, Price, Name };

  DKSmartPtr<DKCondition> NewChild() const override { return DKSmartPtr<DKCondition>(new RowCondition()); }
  bool AssignFieldName(const DKString& name) override {
    m_field = name == DK_T("qty") ? Qty : name == DK_T("price") ? Price : name == DK_T("name") ? Name : None;
    return m_field != None && DKCondition::AssignFieldName(name);
  }
  void LocalCopy(const DKCondition& other) override {
    DKCondition::LocalCopy(other);
    if (const auto* row = dynamic_cast<const RowCondition*>(&other))
      m_field = row->m_field;
  }
  bool OnEvaluate(const DKConditionParams& params) const override {
    const Row& row = *static_cast<const RowParams&>(params).row;
    switch (m_field) {
    case Qty: return EvaluateValue(row.qty);
    case Price: return EvaluateValue(row.price);
    case Name: return EvaluateValue(row.name);
    default: return false;
    }
  }

private:
  Field m_field = None;
};

constexpr const DKChar* conditionText = DK_T("qty >= 10 AND price < 2.5 AND name % [A-M][a-z]+ AND qty != 99");

std::vector<Row> Rows() {
  std::vector<Row> rows;
  const char* names[] = {"Apple", "Banana", "Mango", "Pineapple", "Kiwi", "Zucchini", "Lemon", "Cherry"};
  for (int i = 0; i < 8; ++i)
    rows.push_back({i * 7, 0.5 + i * 0.4, FromUtf8(names[i]), names[i]});
  return rows;
}

void BM_DKCondition_Evaluate3Links(benchmark::State& state) {
  RowCondition condition;
  if (!condition.FromString(conditionText)) {
    state.SkipWithError("the condition does not parse");
    return;
  }
  const std::vector<Row> rows = Rows();
  RowParams params;
  std::size_t i = 0, hits = 0;
  for (auto _ : state) {
    params.row = &rows[i++ % rows.size()];
    hits += condition.Evaluate(params);
    benchmark::DoNotOptimize(hits);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}
BENCHMARK(BM_DKCondition_Evaluate3Links);

void BM_StdFunction_Evaluate3Links(benchmark::State& state) {
  const std::regex name("[A-M][a-z]+", std::regex::ECMAScript);
  const std::vector<std::function<bool(const Row&)>> tests = {
      [](const Row& r) { return r.qty >= 10; },
      [](const Row& r) { return r.price < 2.5; },
      [&name](const Row& r) { return std::regex_match(r.nameUtf8, name); },
      [](const Row& r) { return r.qty != 99; },
  };
  const std::vector<Row> rows = Rows();
  std::size_t i = 0, hits = 0;
  for (auto _ : state) {
    const Row& row = rows[i++ % rows.size()];
    bool result = true;
    for (const auto& test : tests)
      if (result)
        result = test(row);
    hits += result;
    benchmark::DoNotOptimize(hits);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}
BENCHMARK(BM_StdFunction_Evaluate3Links);

void BM_DKCondition_Parse3Links(benchmark::State& state) {
  for (auto _ : state) {
    RowCondition condition;
    benchmark::DoNotOptimize(condition.FromString(conditionText));
  }
}
BENCHMARK(BM_DKCondition_Parse3Links);

} // namespace
