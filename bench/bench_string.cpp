// DKString against std::u16string on the same work: copying, appending and searching.
#include <DorvikCore/DKString.h>

#include <benchmark/benchmark.h>

#include "DKBenchInputs.h"

#include <chrono>
#include <string>
#include <vector>

namespace {

using dkbench::MakeText;
using dkbench::SearchData;

void BM_Copy1KiB_DKString(benchmark::State& state) {
  const DKString source(MakeText(512).c_str()); // 512 units = 1 KiB
  for (auto _ : state) {
    DKString copy(source);
    benchmark::DoNotOptimize(copy);
  }
}
BENCHMARK(BM_Copy1KiB_DKString);

void BM_Copy1KiB_StdU16String(benchmark::State& state) {
  const std::u16string source = MakeText(512);
  for (auto _ : state) {
    std::u16string copy(source);
    benchmark::DoNotOptimize(copy);
  }
}
BENCHMARK(BM_Copy1KiB_StdU16String);

// The copy alone: 1,000 copies are kept alive and destroyed outside the timed region, as when
// copies are stored in a container.
template <class S>
void CopyBatch(benchmark::State& state, const S& source) {
  constexpr int kBatch = 1000;
  std::vector<S> copies;
  copies.reserve(kBatch);
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kBatch; ++i)
      copies.emplace_back(source);
    const auto stop = std::chrono::steady_clock::now();
    benchmark::DoNotOptimize(copies.data());
    state.SetIterationTime(std::chrono::duration<double>(stop - start).count());
    copies.clear();
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
}

void BM_CopyOnly1KiB_DKString(benchmark::State& state) { CopyBatch(state, DKString(MakeText(512).c_str())); }
BENCHMARK(BM_CopyOnly1KiB_DKString)->UseManualTime();

void BM_CopyOnly1KiB_StdU16String(benchmark::State& state) { CopyBatch(state, MakeText(512)); }
BENCHMARK(BM_CopyOnly1KiB_StdU16String)->UseManualTime();

void BM_Append1M_DKString(benchmark::State& state) {
  for (auto _ : state) {
    DKString s;
    for (int i = 0; i < 1000000; ++i)
      s += static_cast<DKChar>(u'a' + (i & 15));
    benchmark::DoNotOptimize(s);
  }
}
BENCHMARK(BM_Append1M_DKString)->Unit(benchmark::kMillisecond);

void BM_Append1M_StdU16String(benchmark::State& state) {
  for (auto _ : state) {
    std::u16string s;
    for (int i = 0; i < 1000000; ++i)
      s.push_back(static_cast<char16_t>(u'a' + (i & 15)));
    benchmark::DoNotOptimize(s);
  }
}
BENCHMARK(BM_Append1M_StdU16String)->Unit(benchmark::kMillisecond);

void BM_Find16In1MiB_DKString(benchmark::State& state) {
  const SearchData d;
  const DKString hay(d.hay.c_str()), needle(d.needle.c_str());
  for (auto _ : state)
    benchmark::DoNotOptimize(hay.Find(needle));
}
BENCHMARK(BM_Find16In1MiB_DKString)->Unit(benchmark::kMicrosecond);

void BM_Find16In1MiB_StdU16String(benchmark::State& state) {
  const SearchData d;
  for (auto _ : state)
    benchmark::DoNotOptimize(d.hay.find(d.needle));
}
BENCHMARK(BM_Find16In1MiB_StdU16String)->Unit(benchmark::kMicrosecond);

// Five pieces joined: DKStrCat sizes the result once; the + chain builds intermediate strings.
void BM_Concat5_DKStrCat(benchmark::State& state) {
  const DKString name(u"connection"), peer(u"192.168.0.17");
  int i = 0;
  for (auto _ : state) {
    DKString s = DKStrCat(name, u" to ", peer, u": attempt ", ++i);
    benchmark::DoNotOptimize(s);
  }
}
BENCHMARK(BM_Concat5_DKStrCat);

void BM_Concat5_DKStringPlusChain(benchmark::State& state) {
  const DKString name(u"connection"), peer(u"192.168.0.17");
  int i = 0;
  for (auto _ : state) {
    DKString s = name + u" to " + peer + u": attempt " + DKString::Number(++i);
    benchmark::DoNotOptimize(s);
  }
}
BENCHMARK(BM_Concat5_DKStringPlusChain);

void BM_Concat5_StdU16StringPlusChain(benchmark::State& state) {
  const std::u16string name(u"connection"), peer(u"192.168.0.17");
  int i = 0;
  for (auto _ : state) {
    const std::string digits = std::to_string(++i);
    std::u16string s = name + u" to " + peer + u": attempt " + std::u16string(digits.begin(), digits.end());
    benchmark::DoNotOptimize(s);
  }
}
BENCHMARK(BM_Concat5_StdU16StringPlusChain);

} // namespace
