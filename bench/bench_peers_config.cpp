// Peer libraries on the work of bench_config.cpp, in the same program: reading the 10 MB file of
// 100,000 sections with QSettings (IniFormat) and with Poco::Util::IniFileConfiguration, and
// reading a key of the 50 x 20 set through each. QSettings splits the file into sections when
// it reads it and parses a section's keys when one is first asked for, so its load case asks
// for one key; POCO parses every key into a map at once.
#include "DKBenchInputs.h"

#include <benchmark/benchmark.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#if DK_BENCH_HAVE_QT
#include <QSettings>
#include <QString>
#include <QVariant>
#endif
#if DK_BENCH_HAVE_POCO
#include <Poco/AutoPtr.h>
#include <Poco/Util/IniFileConfiguration.h>
#endif

namespace {

void SetBytes(benchmark::State& state, const dkbench::TempFile& file) {
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * std::filesystem::file_size(file.Path())));
}

#if DK_BENCH_HAVE_QT

// QSettings keeps the files it read in a process-wide cache and reads one again only when its
// size or time stamp changed; touching the time stamp before each load, outside the timed part,
// makes every iteration read the file.
void BM_ConfigLoad_QSettings(benchmark::State& state) {
  const dkbench::TempFile& large = dkbench::LargeFile();
  const QString path = QString::fromStdString(large.Path());
  const QString lastKey = QStringLiteral("Section099999/Key2");
  auto stamp = std::filesystem::last_write_time(large.Path());
  for (auto _ : state) {
    state.PauseTiming();
    stamp += std::chrono::seconds(1);
    std::filesystem::last_write_time(large.Path(), stamp);
    state.ResumeTiming();
    QSettings settings(path, QSettings::IniFormat);
    const QString value = settings.value(lastKey).toString();
    if (value.isEmpty() || settings.status() != QSettings::NoError)
      state.SkipWithError("QSettings did not read the file");
    benchmark::DoNotOptimize(value);
  }
  SetBytes(state, large);
}
BENCHMARK(BM_ConfigLoad_QSettings)->Unit(benchmark::kMillisecond);

void BM_ConfigGetString_QSettings(benchmark::State& state) {
  const dkbench::LookupSet set;
  const dkbench::TempFile file("dk-bench-config-lookup-qt.ini");
  std::ofstream(file.Path(), std::ios::binary) << set.text;
  const QSettings settings(QString::fromStdString(file.Path()), QSettings::IniFormat);
  std::vector<QString> keys;
  for (const auto& [s, k] : set.order)
    keys.push_back(QStringLiteral("Section%1/Key%2").arg(s).arg(k));
  if (settings.value(keys[0]).toString().isEmpty())
    state.SkipWithError("QSettings did not read the file");
  std::size_t i = 0;
  for (auto _ : state) {
    QString value = settings.value(keys[i++ & 1023]).toString();
    benchmark::DoNotOptimize(value);
  }
}
BENCHMARK(BM_ConfigGetString_QSettings);

#endif // DK_BENCH_HAVE_QT

#if DK_BENCH_HAVE_POCO

void BM_ConfigLoad_PocoIniFileConfiguration(benchmark::State& state) {
  const dkbench::TempFile& large = dkbench::LargeFile();
  for (auto _ : state) {
    Poco::AutoPtr<Poco::Util::IniFileConfiguration> config(new Poco::Util::IniFileConfiguration(large.Path()));
    benchmark::DoNotOptimize(config.get());
  }
  SetBytes(state, large);
}
BENCHMARK(BM_ConfigLoad_PocoIniFileConfiguration)->Unit(benchmark::kMillisecond);

void BM_ConfigGetString_PocoIniFileConfiguration(benchmark::State& state) {
  const dkbench::LookupSet set;
  std::istringstream in(set.text);
  Poco::AutoPtr<Poco::Util::IniFileConfiguration> config(new Poco::Util::IniFileConfiguration(in));
  std::vector<std::string> keys;
  for (const auto& [s, k] : set.order)
    keys.push_back("Section" + std::to_string(s) + ".Key" + std::to_string(k));
  if (!config->hasProperty(keys[0]))
    state.SkipWithError("POCO did not read the text");
  std::size_t i = 0;
  for (auto _ : state) {
    std::string value = config->getString(keys[i++ & 1023], std::string());
    benchmark::DoNotOptimize(value);
  }
}
BENCHMARK(BM_ConfigGetString_PocoIniFileConfiguration);

#endif // DK_BENCH_HAVE_POCO

} // namespace
