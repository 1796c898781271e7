// Case- and accent-insensitive comparison of 64-unit texts: DKString::Compare with flags against
// std::u16string's plain compare and a std::towlower loop, the standard library's nearest
// equivalent of an ignore-case compare. Each pair is equal once folded, so every unit is visited.
#include <DorvikCore/DKString.h>

#include <benchmark/benchmark.h>

#include <clocale>
#include <cwctype>
#include <string>

namespace {

// 64 units each.
const char16_t kAsciiMixed[] = u"The Quick Brown Fox Jumps Over The Lazy Dog While 42 Cats Watch!";
const char16_t kAsciiUpper[] = u"THE QUICK BROWN FOX JUMPS OVER THE LAZY DOG WHILE 42 CATS WATCH!";
const char16_t kGreekMixed[] = u"Γρήγορη Καφέ Αλεπού Πηδάει Πάνω Από Τον Τεμπέλη Σκύλο Και Τρέχει";
const char16_t kGreekUpper[] = u"ΓΡΉΓΟΡΗ ΚΑΦΈ ΑΛΕΠΟΎ ΠΗΔΆΕΙ ΠΆΝΩ ΑΠΌ ΤΟΝ ΤΕΜΠΈΛΗ ΣΚΎΛΟ ΚΑΙ ΤΡΈΧΕΙ";
const char16_t kAccented[] = u"Résumé the naïve café owner's façade in Zürich, São Paulo Kraków";
const char16_t kUnaccented[] = u"Resume the naive cafe owner's facade in Zurich, Sao Paulo Krakow";
const char16_t kUnaccentedLower[] = u"resume the naive cafe owner's facade in zurich, sao paulo krakow";

static_assert(std::size(kAsciiMixed) == 65 && std::size(kAsciiUpper) == 65);
static_assert(std::size(kGreekMixed) == 65 && std::size(kGreekUpper) == 65);
static_assert(std::size(kAccented) == 65 && std::size(kUnaccented) == 65 && std::size(kUnaccentedLower) == 65);

void CompareDKString(benchmark::State& state, const char16_t* a, const char16_t* b, long flags) {
  const DKString x(a), y(b);
  if (x.Compare(y, flags) != 0)
    state.SkipWithError("the texts are expected to be equal under these flags");
  for (auto _ : state) {
    benchmark::DoNotOptimize(x);
    benchmark::DoNotOptimize(y);
    int r = x.Compare(y, flags);
    benchmark::DoNotOptimize(r);
  }
}

void ComparePlainStdU16String(benchmark::State& state, const char16_t* a) {
  const std::u16string x(a), y(a);
  for (auto _ : state) {
    benchmark::DoNotOptimize(x);
    benchmark::DoNotOptimize(y);
    int r = x.compare(y);
    benchmark::DoNotOptimize(r);
  }
}

// What a program without a table of its own writes: fold each unit with std::towlower under a
// Unicode locale and compare.
int TowlowerCompare(const std::u16string& a, const std::u16string& b) {
  const std::size_t n = std::min(a.size(), b.size());
  for (std::size_t i = 0; i < n; ++i) {
    const std::wint_t ca = std::towlower(static_cast<std::wint_t>(a[i]));
    const std::wint_t cb = std::towlower(static_cast<std::wint_t>(b[i]));
    if (ca != cb)
      return ca < cb ? -1 : 1;
  }
  return (a.size() > n) - (b.size() > n);
}

void CompareTowlower(benchmark::State& state, const char16_t* a, const char16_t* b) {
  const char* previous = std::setlocale(LC_CTYPE, nullptr);
  const std::string saved = previous ? previous : "C";
  if (!std::setlocale(LC_CTYPE, "C.UTF-8")) {
    state.SkipWithError("the C.UTF-8 locale is not available");
    return;
  }
  const std::u16string x(a), y(b);
  if (TowlowerCompare(x, y) != 0)
    state.SkipWithError("the texts are expected to be equal ignoring case");
  for (auto _ : state) {
    benchmark::DoNotOptimize(x);
    benchmark::DoNotOptimize(y);
    int r = TowlowerCompare(x, y);
    benchmark::DoNotOptimize(r);
  }
  std::setlocale(LC_CTYPE, saved.c_str());
}

void BM_IgnoreCase64Ascii_DKString(benchmark::State& s) { CompareDKString(s, kAsciiMixed, kAsciiUpper, 1); }
void BM_IgnoreCase64Ascii_Towlower(benchmark::State& s) { CompareTowlower(s, kAsciiMixed, kAsciiUpper); }
void BM_Plain64Ascii_StdU16String(benchmark::State& s) { ComparePlainStdU16String(s, kAsciiMixed); }
void BM_IgnoreCase64Greek_DKString(benchmark::State& s) { CompareDKString(s, kGreekMixed, kGreekUpper, 1); }
void BM_IgnoreCase64Greek_Towlower(benchmark::State& s) { CompareTowlower(s, kGreekMixed, kGreekUpper); }
void BM_Plain64Greek_StdU16String(benchmark::State& s) { ComparePlainStdU16String(s, kGreekMixed); }
void BM_IgnoreAccent64Latin_DKString(benchmark::State& s) { CompareDKString(s, kAccented, kUnaccented, 2); }
void BM_IgnoreCaseAndAccent64Latin_DKString(benchmark::State& s) { CompareDKString(s, kAccented, kUnaccentedLower, 3); }
void BM_Plain64Latin_StdU16String(benchmark::State& s) { ComparePlainStdU16String(s, kAccented); }

BENCHMARK(BM_IgnoreCase64Ascii_DKString);
BENCHMARK(BM_IgnoreCase64Ascii_Towlower);
BENCHMARK(BM_Plain64Ascii_StdU16String);
BENCHMARK(BM_IgnoreCase64Greek_DKString);
BENCHMARK(BM_IgnoreCase64Greek_Towlower);
BENCHMARK(BM_Plain64Greek_StdU16String);
BENCHMARK(BM_IgnoreAccent64Latin_DKString);
BENCHMARK(BM_IgnoreCaseAndAccent64Latin_DKString);
BENCHMARK(BM_Plain64Latin_StdU16String);

} // namespace
