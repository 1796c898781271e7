// Date and time text and arithmetic against the C and C++ libraries in the same run:
//   - writing a DKDateTimeEx in the default format against strftime of the same fields
//     (in UTC, and in the local zone with the zone conversion on both sides);
//   - reading the same text back against strptime (and strptime + mktime for local text);
//   - adding one day to a date 1,000,000 times against std::chrono's calendar types.
// The values cycle through 1024 moments spread over two centuries so that nothing is hoisted.
#include <DorvikCore/DKDateTime.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

namespace {

constexpr std::size_t kValues = 1024;
const char* const kFormat = "%Y/%m/%d %H:%M:%S";

// A fixed zone for the local-time cases, so runs are comparable.
void UseParis() {
  setenv("TZ", "Europe/Paris", 1);
  tzset();
  DKTimeZone::Reload();
}

const std::vector<DKDateTimeEx>& Values() {
  static const std::vector<DKDateTimeEx> values = [] {
    std::vector<DKDateTimeEx> v;
    DKDateTimeEx t(1950, 1, 1, 0, 0, 0, 0, DKTimeZone::UTC);
    for (std::size_t i = 0; i < kValues; ++i) {
      v.push_back(t);
      t += DKDurationEx(2147483, DKDurationEx::Second); // about 25 days apart
    }
    return v;
  }();
  return values;
}

std::vector<std::time_t> TimeTs() {
  std::vector<std::time_t> out;
  for (const DKDateTimeEx& v : Values()) {
    DKInt64 seconds = 0;
    v.AsUnixTime(seconds);
    out.push_back(static_cast<std::time_t>(seconds));
  }
  return out;
}

std::vector<std::tm> UtcTms() {
  std::vector<std::tm> out;
  for (const DKDateTimeEx& v : Values()) {
    std::tm tm{};
    v.AsStructTM(tm, DKTimeZone::UTC);
    out.push_back(tm);
  }
  return out;
}

// ---- Writing ------------------------------------------------------------------------------------

void BM_Format_DKDateTimeEx_UTC(benchmark::State& state) {
  const auto& values = Values();
  DKChar buffer[64];
  std::size_t i = 0;
  for (auto _ : state) {
    values[i++ % kValues].AsString(buffer, 64, nullptr, DKTimeZone::UTC);
    benchmark::DoNotOptimize(buffer);
  }
}
BENCHMARK(BM_Format_DKDateTimeEx_UTC);

// strftime of fields already broken down: the cheapest the C library can do.
void BM_Format_Strftime_UTC(benchmark::State& state) {
  const std::vector<std::tm> tms = UtcTms();
  char buffer[64];
  std::size_t i = 0;
  for (auto _ : state) {
    std::strftime(buffer, sizeof buffer, kFormat, &tms[i++ % kValues]);
    benchmark::DoNotOptimize(buffer);
  }
}
BENCHMARK(BM_Format_Strftime_UTC);

void BM_Format_DKDateTimeEx_String(benchmark::State& state) {
  const auto& values = Values();
  std::size_t i = 0;
  for (auto _ : state) {
    DKString text = values[i++ % kValues].AsString(DKString(), DKTimeZone::UTC);
    benchmark::DoNotOptimize(text);
  }
}
BENCHMARK(BM_Format_DKDateTimeEx_String);

void BM_Format_DKDateTimeEx_Local(benchmark::State& state) {
  UseParis();
  const auto& values = Values();
  DKChar buffer[64];
  std::size_t i = 0;
  for (auto _ : state) {
    values[i++ % kValues].AsString(buffer, 64, nullptr, DKTimeZone::Local);
    benchmark::DoNotOptimize(buffer);
  }
}
BENCHMARK(BM_Format_DKDateTimeEx_Local);

void BM_Format_LocaltimeStrftime_Local(benchmark::State& state) {
  UseParis();
  const std::vector<std::time_t> times = TimeTs();
  char buffer[64];
  std::size_t i = 0;
  for (auto _ : state) {
    std::tm tm{};
    localtime_r(&times[i++ % kValues], &tm);
    std::strftime(buffer, sizeof buffer, kFormat, &tm);
    benchmark::DoNotOptimize(buffer);
  }
}
BENCHMARK(BM_Format_LocaltimeStrftime_Local);

// ---- Reading ------------------------------------------------------------------------------------

std::vector<DKString> WideTexts() {
  std::vector<DKString> out;
  for (const DKDateTimeEx& v : Values())
    out.push_back(v.AsString(DK_T("%Y/%m/%d %H:%M:%S"), DKTimeZone::UTC));
  return out;
}

std::vector<std::string> NarrowTexts() {
  std::vector<std::string> out;
  for (const DKString& text : WideTexts())
    out.push_back(text.AsUTF8());
  return out;
}

void BM_Parse_DKDateTimeEx_UTC(benchmark::State& state) {
  const std::vector<DKString> texts = WideTexts();
  const DKString format(DK_T("%Y/%m/%d %H:%M:%S"));
  DKDateTimeEx value;
  std::size_t i = 0;
  for (auto _ : state) {
    value.FromString(texts[i++ % kValues], format, DKTimeZone::UTC);
    benchmark::DoNotOptimize(value);
  }
}
BENCHMARK(BM_Parse_DKDateTimeEx_UTC);

void BM_Parse_Strptime_UTC(benchmark::State& state) {
  const std::vector<std::string> texts = NarrowTexts();
  std::tm tm{};
  std::size_t i = 0;
  for (auto _ : state) {
    strptime(texts[i++ % kValues].c_str(), kFormat, &tm);
    benchmark::DoNotOptimize(tm);
  }
}
BENCHMARK(BM_Parse_Strptime_UTC);

void BM_Parse_DKDateTimeEx_Local(benchmark::State& state) {
  UseParis();
  const std::vector<DKString> texts = WideTexts();
  const DKString format(DK_T("%Y/%m/%d %H:%M:%S"));
  DKDateTimeEx value;
  std::size_t i = 0;
  for (auto _ : state) {
    value.FromString(texts[i++ % kValues], format, DKTimeZone::Local);
    benchmark::DoNotOptimize(value);
  }
}
BENCHMARK(BM_Parse_DKDateTimeEx_Local);

void BM_Parse_StrptimeMktime_Local(benchmark::State& state) {
  UseParis();
  const std::vector<std::string> texts = NarrowTexts();
  std::size_t i = 0;
  for (auto _ : state) {
    std::tm tm{};
    strptime(texts[i++ % kValues].c_str(), kFormat, &tm);
    tm.tm_isdst = -1;
    std::time_t t = std::mktime(&tm);
    benchmark::DoNotOptimize(t);
  }
}
BENCHMARK(BM_Parse_StrptimeMktime_Local);

// ---- Adding days --------------------------------------------------------------------------------

constexpr int kAdditions = 1000000;

void BM_AddDay_DKDateEx(benchmark::State& state) {
  for (auto _ : state) {
    DKDateEx date(2000, 1, 1);
    for (int i = 0; i < kAdditions; ++i) {
      date += 1L;
      benchmark::DoNotOptimize(date);
    }
  }
  state.SetItemsProcessed(state.iterations() * kAdditions);
}
BENCHMARK(BM_AddDay_DKDateEx)->Unit(benchmark::kMillisecond);

void BM_AddDay_DKDateExDuration(benchmark::State& state) {
  const DKDurationEx oneDay(1, DKDurationEx::Day);
  for (auto _ : state) {
    DKDateEx date(2000, 1, 1);
    for (int i = 0; i < kAdditions; ++i) {
      date += oneDay;
      benchmark::DoNotOptimize(date);
    }
  }
  state.SetItemsProcessed(state.iterations() * kAdditions);
}
BENCHMARK(BM_AddDay_DKDateExDuration)->Unit(benchmark::kMillisecond);

// The same walk with the standard calendar: a day count stepped and broken down each time.
void BM_AddDay_ChronoYearMonthDay(benchmark::State& state) {
  using namespace std::chrono;
  for (auto _ : state) {
    year_month_day date = year{2000} / 1 / 1;
    for (int i = 0; i < kAdditions; ++i) {
      date = year_month_day{sys_days{date} + days{1}};
      benchmark::DoNotOptimize(date);
    }
  }
  state.SetItemsProcessed(state.iterations() * kAdditions);
}
BENCHMARK(BM_AddDay_ChronoYearMonthDay)->Unit(benchmark::kMillisecond);

// A date and a time in the local zone: a day keeps the wall clock, so each step converts.
void BM_AddDay_DKDateTimeExLocal(benchmark::State& state) {
  UseParis();
  const DKDurationEx oneDay(1, DKDurationEx::Day);
  for (auto _ : state) {
    DKDateTimeEx value(2000, 1, 1, 12, 0, 0, 0, DKTimeZone::Local);
    for (int i = 0; i < kAdditions / 100; ++i) {
      value += oneDay;
      benchmark::DoNotOptimize(value);
    }
  }
  state.SetItemsProcessed(state.iterations() * (kAdditions / 100));
}
BENCHMARK(BM_AddDay_DKDateTimeExLocal)->Unit(benchmark::kMillisecond);

} // namespace
