// Command-line parsing of 100 arguments: DKCommandLine (split, quote removal and
// classification) against a plain split of the same text into std::vector<std::u16string>.
#include <DorvikCore/DKCommandLine.h>

#include <benchmark/benchmark.h>

#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace {

// A program path and 100 arguments of the usual kinds: valued and flag switches with both
// prefixes, file names, absolute paths and quoted values with blanks.
std::u16string MakeCommandLine() {
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

const std::u16string& CommandLine() {
  static const std::u16string text = MakeCommandLine();
  return text;
}

// The standard library's nearest equivalent: words separated by blanks and tabs outside
// quotes, quotes removed; no classification.
std::vector<std::u16string> StdSplit(const std::u16string& text) {
  std::vector<std::u16string> words;
  std::u16string word;
  bool inQuotes = false;
  bool inWord = false;
  for (const char16_t ch : text) {
    if (ch == u'"') {
      inQuotes = !inQuotes;
      inWord = true;
    } else if (!inQuotes && (ch == u' ' || ch == u'\t')) {
      if (inWord)
        words.push_back(std::move(word));
      word.clear();
      inWord = false;
    } else {
      word.push_back(ch);
      inWord = true;
    }
  }
  if (inWord)
    words.push_back(std::move(word));
  return words;
}

void BM_Parse100_DKCommandLine(benchmark::State& state) {
  const DKString text(CommandLine());
  for (auto _ : state) {
    DKCommandLine cl(text);
    benchmark::DoNotOptimize(cl.GetParsedArgumentVector().data());
  }
  state.counters["args"] = static_cast<double>(DKCommandLine(text).GetParsedArgumentVector().size());
}
BENCHMARK(BM_Parse100_DKCommandLine)->Unit(benchmark::kMicrosecond);

void BM_Split100_StdVectorU16String(benchmark::State& state) {
  const std::u16string& text = CommandLine();
  for (auto _ : state) {
    std::vector<std::u16string> words = StdSplit(text);
    benchmark::DoNotOptimize(words.data());
  }
  state.counters["args"] = static_cast<double>(StdSplit(text).size() - 1);
}
BENCHMARK(BM_Split100_StdVectorU16String)->Unit(benchmark::kMicrosecond);

// Constructs command lines from an already split vector: wide (as from wmain) or UTF-8.
template <class Char>
void ParseVector(benchmark::State& state, const std::vector<const Char*>& argv) {
  for (auto _ : state) {
    DKCommandLine cl(argv.size(), argv.data());
    benchmark::DoNotOptimize(cl.GetParsedArgumentVector().data());
  }
}

// Classification alone.
void BM_Classify100_DKCommandLineFromVector(benchmark::State& state) {
  const std::vector<DKString> words = DKCommandLine::SplitCommandLine(DKString(CommandLine()));
  std::vector<const DKChar*> argv;
  for (const DKString& word : words)
    argv.push_back(word.c_str());
  ParseVector(state, argv);
}
BENCHMARK(BM_Classify100_DKCommandLineFromVector)->Unit(benchmark::kMicrosecond);

// main()'s UTF-8 vector: decoding and classification.
void BM_Parse100_DKCommandLineFromUtf8Argv(benchmark::State& state) {
  std::vector<std::string> words;
  for (const DKString& word : DKCommandLine::SplitCommandLine(DKString(CommandLine())))
    words.push_back(word.AsUTF8());
  std::vector<const char*> argv;
  for (const std::string& word : words)
    argv.push_back(word.c_str());
  ParseVector(state, argv);
}
BENCHMARK(BM_Parse100_DKCommandLineFromUtf8Argv)->Unit(benchmark::kMicrosecond);

// A case-insensitive look-up of the last switch among 100 arguments.
void BM_LookupLast_DKCommandLine(benchmark::State& state) {
  const DKCommandLine cl{DKString(CommandLine())};
  const DKString name(u"NOCONSOLES6"); // argument 97, "-noConsoles6"
  if (!cl.ArgPresent(name))
    state.SkipWithError("the switch is missing");
  for (auto _ : state)
    benchmark::DoNotOptimize(cl.ArgPresent(name));
}
BENCHMARK(BM_LookupLast_DKCommandLine);

// The standard library's nearest equivalent: switch names folded to upper case in an
// unordered_map, the query folded into a reused buffer before the find.
void BM_LookupLast_StdUnorderedMap(benchmark::State& state) {
  auto fold = [](std::u16string_view text, std::u16string& out) {
    out.assign(text);
    for (char16_t& ch : out)
      if (ch >= u'a' && ch <= u'z')
        ch = static_cast<char16_t>(ch - 0x20);
  };
  std::unordered_map<std::u16string, std::size_t> names;
  std::u16string key;
  const std::vector<std::u16string> words = StdSplit(CommandLine());
  for (std::size_t i = 1; i < words.size(); ++i) {
    const std::u16string_view word = words[i];
    if (word.empty() || (word[0] != u'/' && word[0] != u'-'))
      continue;
    fold(word.substr(1, word.find(u':') == std::u16string_view::npos ? word.npos : word.find(u':') - 1), key);
    names.emplace(key, i);
  }
  const std::u16string name = u"NOCONSOLES6";
  if (names.find(name) == names.end())
    state.SkipWithError("the switch is missing");
  for (auto _ : state) {
    fold(name, key);
    benchmark::DoNotOptimize(names.find(key) != names.end());
  }
}
BENCHMARK(BM_LookupLast_StdUnorderedMap);

} // namespace
