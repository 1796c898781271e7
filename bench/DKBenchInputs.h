// Inputs shared by the benchmark programs, so that the library's cases, the standard library's
// and the peer libraries' (built with -DDK_BENCH_PEERS=ON) do the same work on the same data.
#pragma once

#include <DorvikCore/DKString.h>

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace dkbench {

// ---- Text ------------------------------------------------------------------------------------

// n lower-case letters in a pattern that repeats rarely.
inline std::u16string MakeText(std::size_t n) {
  std::u16string s;
  s.reserve(n);
  for (std::size_t i = 0; i < n; ++i)
    s.push_back(static_cast<char16_t>(u'a' + (i * 7 + i / 13) % 26));
  return s;
}

// A 16-unit needle placed at the very end of 1 MiB of text that often matches its first units.
struct SearchData {
  std::u16string hay = MakeText(512 * 1024);
  std::u16string needle = u"qwertyuiopasdfgh";
  SearchData() { hay.replace(hay.size() - needle.size(), needle.size(), needle); }
};

// ---- Configuration files ---------------------------------------------------------------------

// A temporary file that lives for the whole run.
class TempFile {
public:
  explicit TempFile(const std::string& name) : m_path(std::filesystem::temp_directory_path() / name) {}
  ~TempFile() {
    std::error_code ignored;
    std::filesystem::remove(m_path, ignored);
  }
  std::string Path() const { return m_path.string(); }
  DKString DKPath() const {
    DKString path;
    path.SetFromUTF8(Path().c_str()).IgnoreError(); // a temporary folder's path is valid UTF-8
    return path;
  }

private:
  std::filesystem::path m_path;
};

// 100,000 sections of about 100 bytes: a header, three key lines, and a comment every tenth.
inline std::string LargeFileText() {
  std::string text;
  text.reserve(10'200'000);
  char line[128];
  for (int s = 0; s < 100'000; ++s) {
    if (s % 10 == 0)
      text += "; settings of the next group\n";
    std::snprintf(line, sizeof line, "[Section%06d]\n", s);
    text += line;
    for (int k = 0; k < 3; ++k) {
      std::snprintf(line, sizeof line, "Key%d=value-%06d-abcdefgh\n", k, s);
      text += line;
    }
  }
  return text;
}

// The 10 MB file of LargeFileText, written once per program.
inline const TempFile& LargeFile() {
  static const TempFile file = [] {
    TempFile f("dk-bench-config-large.ini");
    std::ofstream(f.Path(), std::ios::binary) << LargeFileText();
    return f;
  }();
  return file;
}

// 50 sections of 20 keys, and 1024 look-ups of existing keys in random order.
struct LookupSet {
  std::string text;
  std::vector<std::pair<int, int>> order;
  LookupSet() {
    for (int s = 0; s < 50; ++s) {
      text += "[Section" + std::to_string(s) + "]\n";
      for (int k = 0; k < 20; ++k)
        text += "Key" + std::to_string(k) + "=value " + std::to_string(s * 100 + k) + "\n";
    }
    std::mt19937 random(7);
    for (int i = 0; i < 1024; ++i)
      order.emplace_back(static_cast<int>(random() % 50), static_cast<int>(random() % 20));
  }
};

// ---- Command lines ---------------------------------------------------------------------------

// A program path and 100 arguments of the usual kinds: valued and flag switches with both
// prefixes, file names, absolute paths and quoted values with blanks. Argument 97 is
// "-noConsoles6".
inline std::u16string MakeCommandLine() {
  std::u16string text = u"/usr/local/bin/tool";
  for (int i = 0; i < 100; ++i) {
    const std::u16string n = std::u16string(1, static_cast<char16_t>(u'a' + i % 26)) + static_cast<char16_t>(u'0' + i % 10);
    switch (i % 5) {
    case 0: text += u" /trace" + n + u":" + n; break;
    case 1: text += u" -noConsole" + n; break;
    case 2: text += u" input" + n + u".txt"; break;
    case 3: text += u" /usr/lib/x" + n; break;
    default: text += u" /config:\"my file " + n + u".ini\""; break;
    }
  }
  return text;
}

inline const std::u16string& CommandLine() {
  static const std::u16string text = MakeCommandLine();
  return text;
}

// ---- Regular expressions ---------------------------------------------------------------------

// 64-character texts: a capitalised word with digits (matching) and variants that fail early,
// late, or in the middle.
inline std::vector<std::string> SimpleTexts() {
  const std::string lower = "abcdefghijklmnopqrstuvwxyz";
  std::vector<std::string> texts;
  for (int i = 0; i < 16; ++i) {
    std::string t(1, static_cast<char>('A' + i));
    while (t.size() < 48)
      t += lower[(t.size() * 7 + i) % 26];
    while (t.size() < 64)
      t += static_cast<char>('0' + t.size() % 10);
    switch (i % 4) {
    case 1: t[63] = 'x'; break;  // fails at the end
    case 2: t[30] = '_'; break;  // fails in the middle
    case 3: t[0] = 'a'; break;   // fails at once
    default: break;              // matches
    }
    texts.push_back(t);
  }
  return texts;
}

// Programs too large for a regular-expression engine's state cache (about 2,000 instructions
// and up): "(?:a{0,1000}c?)+b" meets a thousand states of up to a thousand instructions on a run
// of "a"; "(?:a|b)*a(?:a|b){n}c" on random a/b text makes nearly every character a new state.
inline const char* const growPattern = "(?:a{0,1000}c?)+b";
inline std::string NewStatesPattern(std::int64_t n) {
  // A count is at most 1,000 in the engines measured: larger ones are nested.
  return n <= 1000 ? "(?:a|b)*a(?:a|b){" + std::to_string(n) + "}c"
                   : "(?:a|b)*a(?:(?:a|b){1000}){" + std::to_string(n / 1000) + "}c";
}
// 20,000 characters of a and b from a fixed linear congruential sequence.
inline std::string RandomABText() {
  std::string text;
  std::uint32_t x = 12345;
  for (int i = 0; i < 20000; ++i) {
    x = x * 1103515245u + 12345u;
    text += (x >> 16) & 1 ? 'a' : 'b';
  }
  return text;
}

inline constexpr const char* simplePattern = "[A-Z][a-z]+[0-9]*";

// ---- Locks -----------------------------------------------------------------------------------

// Uncontended lock and unlock by one thread, through the standard names every lock here has.
template <class Lock>
void BM_LockUnlock(benchmark::State& state) {
  Lock lock;
  for (auto _ : state) {
    lock.lock();
    lock.unlock();
  }
  benchmark::DoNotOptimize(lock);
}

} // namespace dkbench
