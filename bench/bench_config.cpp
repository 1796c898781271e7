// Configuration files: DKConfigFile::Reload and Save of a 10 MB file of 100,000 sections, against
// the standard library's nearest equivalent (the file read into a std::string with std::ifstream
// and split into a tree of std::string sections, keys and values; the same tree written with
// std::ofstream); DKConfigFile::GetString on 50 sections of 20 keys against a nested std::map
// look-up (case-sensitive, where GetString ignores case); and the peak memory of a load, as times
// the file's size, for files of long lines and for the file of 100,000 sections, against the
// standard library's reading of the same file.
#include <DorvikCore/DKConfigFile.h>
#include <DorvikCore/DKError.h>

#include <benchmark/benchmark.h>

#include "DKBenchInputs.h"
#include "support/DKPeakMemory.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

namespace fs = std::filesystem;

using dkbench::LargeFile;
using dkbench::LookupSet;
using dkbench::TempFile;

struct StdSection {
  std::string name;
  std::vector<std::string> comments;
  std::vector<std::pair<std::string, std::string>> lines;
};

// The standard library's reading: the whole file into a string, split at line feeds, headers
// and key lines split into their parts.
std::vector<StdSection> StdRead(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  in.seekg(0, std::ios::end);
  std::string text(static_cast<std::size_t>(in.tellg()), '\0');
  in.seekg(0);
  in.read(text.data(), static_cast<std::streamsize>(text.size()));

  std::vector<StdSection> sections;
  std::vector<std::string> comments;
  std::size_t pos = 0;
  while (pos < text.size()) {
    std::size_t end = text.find('\n', pos);
    if (end == std::string::npos)
      end = text.size();
    const std::string_view line(text.data() + pos, end - pos);
    pos = end + 1;
    if (line.empty() || line[0] == ';') {
      comments.emplace_back(line.empty() ? line : line.substr(1));
    } else if (line[0] == '[') {
      sections.push_back({std::string(line.substr(1, line.find(']') - 1)), std::move(comments), {}});
      comments.clear();
    } else if (!sections.empty()) {
      const std::size_t eq = line.find('=');
      sections.back().lines.emplace_back(line.substr(0, eq), line.substr(eq + 1));
    }
  }
  return sections;
}

void StdWrite(const std::string& path, const std::vector<StdSection>& sections) {
  std::string text;
  for (const StdSection& s : sections) {
    for (const std::string& c : s.comments)
      text += c.empty() ? "\n" : ";" + c + "\n";
    text += "[" + s.name + "]\n";
    for (const auto& [key, value] : s.lines)
      text += key + "=" + value + "\n";
  }
  std::ofstream(path, std::ios::binary | std::ios::trunc).write(text.data(), static_cast<std::streamsize>(text.size()));
}

void BM_ConfigReload(benchmark::State& state) {
  const TempFile& large = LargeFile();
  DKSmartPtr<DKConfigFile> file(new DKConfigFile(large.DKPath()));
  for (auto _ : state)
    if (!file->Reload())
      state.SkipWithError("Reload failed");
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * fs::file_size(large.Path())));
  state.counters["sections"] = static_cast<double>(file->GetSectionCount());
}
BENCHMARK(BM_ConfigReload)->Unit(benchmark::kMillisecond);

void BM_StdReadAndSplit(benchmark::State& state) {
  const TempFile& large = LargeFile();
  std::size_t sections = 0;
  for (auto _ : state) {
    auto tree = StdRead(large.Path());
    sections = tree.size();
    benchmark::DoNotOptimize(tree);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * fs::file_size(large.Path())));
  state.counters["sections"] = static_cast<double>(sections);
}
BENCHMARK(BM_StdReadAndSplit)->Unit(benchmark::kMillisecond);

// Save writes the file in place; Save2 adds a flush to the disk, so its time depends on the
// disk far more than on the library.
void BM_ConfigSave(benchmark::State& state, bool (DKConfigFile::*save)() const, const char* name) {
  const TempFile out(name);
  const auto file = DKConfigFile::Load(LargeFile().DKPath());
  if (!file) {
    state.SkipWithError("Load failed");
    return;
  }
  file->SetFileName(out.DKPath());
  for (auto _ : state)
    if (!((*file).*save)())
      state.SkipWithError("saving failed");
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * fs::file_size(out.Path())));
}
BENCHMARK_CAPTURE(BM_ConfigSave, Save, &DKConfigFile::Save, "dk-bench-config-save.ini")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_ConfigSave, Save2, &DKConfigFile::Save2, "dk-bench-config-save2.ini")
    ->Unit(benchmark::kMillisecond);

void BM_StdWrite(benchmark::State& state) {
  const TempFile out("dk-bench-config-stdsave.ini");
  const auto tree = StdRead(LargeFile().Path());
  for (auto _ : state)
    StdWrite(out.Path(), tree);
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * fs::file_size(out.Path())));
}
BENCHMARK(BM_StdWrite)->Unit(benchmark::kMillisecond);

void BM_ConfigGetString(benchmark::State& state) {
  const LookupSet set;
  DKSmartPtr<DKConfigFile> file(new DKConfigFile());
  file->ReloadFromBytes(set.text.data(), set.text.size());
  std::vector<std::pair<DKString, DKString>> keys;
  for (const auto& [s, k] : set.order)
    keys.emplace_back(DKString().Format(DK_T("Section%d"), s), DKString().Format(DK_T("Key%d"), k));
  std::size_t i = 0;
  for (auto _ : state) {
    const auto& [section, key] = keys[i++ & 1023];
    DKString value = file->GetString(section, key);
    benchmark::DoNotOptimize(value);
  }
}
BENCHMARK(BM_ConfigGetString);

// The last key of the last section: the longest search.
void BM_ConfigGetStringLast(benchmark::State& state) {
  const LookupSet set;
  DKSmartPtr<DKConfigFile> file(new DKConfigFile());
  file->ReloadFromBytes(set.text.data(), set.text.size());
  const DKString section(DK_T("Section49")), key(DK_T("Key19"));
  for (auto _ : state) {
    DKString value = file->GetString(section, key);
    benchmark::DoNotOptimize(value);
  }
}
BENCHMARK(BM_ConfigGetStringLast);

void BM_StdMapLookup(benchmark::State& state) {
  const LookupSet set;
  std::map<std::u16string, std::map<std::u16string, std::u16string>> map;
  for (int s = 0; s < 50; ++s)
    for (int k = 0; k < 20; ++k) {
      const std::string value = "value " + std::to_string(s * 100 + k);
      map[u"Section" + std::u16string(1, u'0' + s / 10) + std::u16string(1, u'0' + s % 10)]
         [u"Key" + std::u16string(1, u'0' + k / 10) + std::u16string(1, u'0' + k % 10)] =
             std::u16string(value.begin(), value.end());
    }
  const auto number = [](const char16_t* prefix, int n) {
    return std::u16string(prefix) + std::u16string(1, u'0' + n / 10) + std::u16string(1, u'0' + n % 10);
  };
  std::vector<std::pair<std::u16string, std::u16string>> keys;
  for (const auto& [s, k] : set.order)
    keys.emplace_back(number(u"Section", s), number(u"Key", k));
  std::size_t i = 0;
  for (auto _ : state) {
    const auto& [section, key] = keys[i++ & 1023];
    std::u16string value;
    if (const auto sec = map.find(section); sec != map.end())
      if (const auto line = sec->second.find(key); line != sec->second.end())
        value = line->second;
    benchmark::DoNotOptimize(value);
  }
}
BENCHMARK(BM_StdMapLookup);

// Counters: peak_per_file_byte for DKConfigFile::Load, std_peak_per_file_byte for StdRead.
void BM_ConfigLoadPeakMemory(benchmark::State& state, int megabytesOfOneLine) {
  std::unique_ptr<TempFile> oneLine;
  std::string path = LargeFile().Path();
  if (megabytesOfOneLine) {
    oneLine = std::make_unique<TempFile>("dk-bench-config-one-line.ini");
    path = oneLine->Path();
    std::ofstream out(path, std::ios::binary);
    out << "[Section]\nKey=";
    for (int i = 0; i < megabytesOfOneLine; ++i)
      out << std::string(1 << 20, 'v');
    out << "\n";
  }
  DKString dkPath;
  dkPath.SetFromUTF8(path.c_str()).IgnoreError(); // a temporary path is valid UTF-8
  double dk = 0, standard = 0;
  for (auto _ : state) {
    dk = dktest::PeakResidentPerFileByte(path, [&] { benchmark::DoNotOptimize(DKConfigFile::Load(dkPath)); });
    standard = dktest::PeakResidentPerFileByte(path, [&] { benchmark::DoNotOptimize(StdRead(path)); });
  }
  if (dk < 0 || standard < 0)
    state.SkipWithError("the system gives no peak resident size");
  state.counters["peak_per_file_byte"] = dk;
  state.counters["std_peak_per_file_byte"] = standard;
}
BENCHMARK_CAPTURE(BM_ConfigLoadPeakMemory, OneLineOf10MB, 10)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_ConfigLoadPeakMemory, OneLineOf50MB, 50)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_ConfigLoadPeakMemory, Sections100k, 0)->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace
