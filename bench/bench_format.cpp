// The formatting engine against the C library on the same line: an integer, a double and a
// string. std::swprintf and std::snprintf write into a stack buffer; the engine builds a new
// string (one allocation) or appends to a reused one (none).
#include <DorvikCore/DKFormat.h>
#include <DorvikCore/DKString.h>

#include <benchmark/benchmark.h>

#include <cstdarg>
#include <cstdio>
#include <cwchar>
#include <string>

namespace {

void BM_Line_DKStringFormat(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) {
    ++i;
    DKString s;
    s.Format(u"Line %d: value=%.3f name=%s", i, 3.14159 * i, u"connection");
    benchmark::DoNotOptimize(s);
  }
}
BENCHMARK(BM_Line_DKStringFormat);

// The same line through the va_list entry point: the typed front end's overhead is the
// difference between these two rows.
DKString& FormatVa(DKString& s, const DKChar* format, ...) {
  va_list args;
  va_start(args, format);
  s.FormatV(format, args);
  va_end(args);
  return s;
}

void BM_Line_DKStringFormatV(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) {
    ++i;
    DKString s;
    FormatVa(s, u"Line %d: value=%.3f name=%s", i, 3.14159 * i, u"connection");
    benchmark::DoNotOptimize(s);
  }
}
BENCHMARK(BM_Line_DKStringFormatV);

void BM_Line_StdSwprintf(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) {
    ++i;
    wchar_t buffer[256];
    std::swprintf(buffer, 256, L"Line %d: value=%.3f name=%ls", i, 3.14159 * i, L"connection");
    benchmark::DoNotOptimize(buffer);
  }
}
BENCHMARK(BM_Line_StdSwprintf);

// Flags, widths and precisions on every conversion.
void BM_FlaggedLine_DKStringFormat(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) {
    DKString s;
    s.Format(u"[%+08.2f|%-6d|%#x] %-12s", 3.14159 * i, i, i, u"flags");
    ++i;
    benchmark::DoNotOptimize(s);
  }
}
BENCHMARK(BM_FlaggedLine_DKStringFormat);

void BM_FlaggedLine_StdSwprintf(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) {
    wchar_t buffer[256];
    std::swprintf(buffer, 256, L"[%+08.2f|%-6d|%#x] %-12ls", 3.14159 * i, i, i, L"flags");
    ++i;
    benchmark::DoNotOptimize(buffer);
  }
}
BENCHMARK(BM_FlaggedLine_StdSwprintf);

// The "#" form of a floating-point value is left to snprintf: the engine's slowest route.
void BM_AlternateFloat_DKStringFormat(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) {
    ++i;
    DKString s;
    s.Format(u"[%#10.4g] %s", 3.14159 * i, u"alternate");
    benchmark::DoNotOptimize(s);
  }
}
BENCHMARK(BM_AlternateFloat_DKStringFormat);

void BM_AlternateFloat_StdSwprintf(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) {
    ++i;
    wchar_t buffer[256];
    std::swprintf(buffer, 256, L"[%#10.4g] %ls", 3.14159 * i, L"alternate");
    benchmark::DoNotOptimize(buffer);
  }
}
BENCHMARK(BM_AlternateFloat_StdSwprintf);

void BM_Line_DKFormatNarrow(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) {
    ++i;
    std::string s = DKFormatNarrow("Line %d: value=%.3f name=%s", i, 3.14159 * i, "connection");
    benchmark::DoNotOptimize(s);
  }
}
BENCHMARK(BM_Line_DKFormatNarrow);

void AppendF(std::string& out, const char* format, ...) {
  va_list args;
  va_start(args, format);
  DKFormatAppendV(out, format, args);
  va_end(args);
}

// Appending to a string whose buffer is reused: no allocation at all.
void BM_Line_DKFormatAppendReused(benchmark::State& state) {
  int i = 0;
  std::string s;
  s.reserve(256);
  for (auto _ : state) {
    ++i;
    s.clear();
    AppendF(s, "Line %d: value=%.3f name=%s", i, 3.14159 * i, "connection");
    benchmark::DoNotOptimize(s);
  }
}
BENCHMARK(BM_Line_DKFormatAppendReused);

void BM_Line_StdSnprintf(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) {
    ++i;
    char buffer[256];
    std::snprintf(buffer, sizeof buffer, "Line %d: value=%.3f name=%s", i, 3.14159 * i, "connection");
    benchmark::DoNotOptimize(buffer);
  }
}
BENCHMARK(BM_Line_StdSnprintf);

// A wide string argument in a narrow line (the trace writers' case), against snprintf's %ls.
void BM_WideArgInNarrowLine_DKFormatNarrow(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) {
    std::string s = DKFormatNarrow("thread %d: %S", ++i, u"connection closed by peer");
    benchmark::DoNotOptimize(s);
  }
}
BENCHMARK(BM_WideArgInNarrowLine_DKFormatNarrow);

void BM_WideArgInNarrowLine_StdSnprintf(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) {
    char buffer[256];
    std::snprintf(buffer, sizeof buffer, "thread %d: %ls", ++i, L"connection closed by peer");
    benchmark::DoNotOptimize(buffer);
  }
}
BENCHMARK(BM_WideArgInNarrowLine_StdSnprintf);

} // namespace

