// The application framework: the whole life of 100 trivial plug-in modules (load, initialise,
// run, unload, close) against a bare dlopen/dlsym/dlclose loop over the same modules, the
// nearest standard equivalent; and the start-up of an application without plug-ins.
//
// The modules are copies of the test tree's trivial module (each loaded copy is a plug-in of
// its own). Its path comes from the build, or from the environment variable
// DK_BENCH_TRIVIAL_MODULE.
#include <DorvikCore/DKApplication.h>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

// The bare loop is the yardstick, so it calls the system directly.
#include <dlfcn.h>

namespace {

namespace fs = std::filesystem;

constexpr int kModules = 100;

std::string TrivialModule() {
  if (const char* path = std::getenv("DK_BENCH_TRIVIAL_MODULE"))
    return path;
#if defined(DK_BENCH_TRIVIAL_MODULE)
  return DK_BENCH_TRIVIAL_MODULE;
#else
  return std::string();
#endif
}

DKString Text(const std::string& utf8) {
  DKString text;
  text.SetFromUTF8(utf8.c_str());
  return text;
}

// A directory with kModules copies of the trivial module, and a configuration file; removed at
// the end of the program.
class Fixture {
public:
  Fixture() {
    const std::string module = TrivialModule();
    if (module.empty() || !fs::exists(module)) {
      m_error = "no trivial module: build target dk_test_plugin_trivial or set DK_BENCH_TRIVIAL_MODULE";
      return;
    }
    std::random_device random;
    m_dir = fs::temp_directory_path() / ("dkbench-app-" + std::to_string(random()));
    fs::create_directories(m_dir);
    for (int i = 0; i < kModules; ++i) {
      const fs::path copy = m_dir / ("trivial" + std::to_string(i) + ".osx");
      fs::copy_file(module, copy);
      m_modules.push_back(copy.string());
    }
    std::ofstream(m_dir / "prog.ini") << "[DKORE]\nDebugPath=.\n[Section]\nkey=value\nother=42\n";
  }
  ~Fixture() {
    std::error_code ignored;
    if (!m_dir.empty())
      fs::remove_all(m_dir, ignored);
  }

  const std::string& Error() const { return m_error; }
  const fs::path& Dir() const { return m_dir; }
  const std::vector<std::string>& Modules() const { return m_modules; }

private:
  std::string m_error;
  fs::path m_dir;
  std::vector<std::string> m_modules;
};

// The fixture, or null (the benchmark then skips, saying why).
const Fixture* TheFixture(benchmark::State& state) {
  static Fixture fixture;
  if (fixture.Error().empty())
    return &fixture;
  state.SkipWithError(fixture.Error().c_str());
  return nullptr;
}

void BM_PlugInLife_100Modules(benchmark::State& state) {
  const Fixture* fixture = TheFixture(state);
  if (!fixture)
    return;
  const DKString dir = Text(fixture->Dir().string());
  for (auto _ : state) {
    DKApplicationWithPlugIns app(DKString(DK_T("bench /noConsole")));
    app.LoadPlugInsFromDirectory(dir, DKApplicationWithPlugIns::PlugInExtension,
                                 DKApplicationWithPlugIns::EntryPointName, false);
    if (app.GetLoadedPlugIns().size() != kModules) {
      state.SkipWithError("not every module loaded");
      break;
    }
    app.Run();
  } // the application unloads the plug-ins and closes the modules here
  state.SetItemsProcessed(state.iterations() * kModules);
}
BENCHMARK(BM_PlugInLife_100Modules)->Unit(benchmark::kMillisecond);

void BM_BareDlopenDlsymDlclose_100Modules(benchmark::State& state) {
  const Fixture* fixture = TheFixture(state);
  if (!fixture)
    return;
  std::vector<void*> handles(kModules);
  for (auto _ : state) {
    for (int i = 0; i < kModules; ++i) {
      handles[i] = dlopen(fixture->Modules()[i].c_str(), RTLD_NOW | RTLD_LOCAL);
      benchmark::DoNotOptimize(dlsym(handles[i], "GetPlugInObject"));
    }
    for (int i = kModules; i-- > 0;)
      dlclose(handles[i]);
  }
  state.SetItemsProcessed(state.iterations() * kModules);
}
BENCHMARK(BM_BareDlopenDlsymDlclose_100Modules)->Unit(benchmark::kMillisecond);

void BM_ApplicationStartUp(benchmark::State& state) {
  const DKString line = Text("/nowhere/prog.exe /noConsole /trace:1");
  for (auto _ : state) {
    DKApplication app(line);
    benchmark::DoNotOptimize(app.GetTraceLevel());
  }
}
BENCHMARK(BM_ApplicationStartUp)->Unit(benchmark::kMicrosecond);

void BM_ApplicationStartUpWithConfigFile(benchmark::State& state) {
  const Fixture* fixture = TheFixture(state);
  if (!fixture)
    return;
  const DKString line = Text((fixture->Dir() / "prog.exe").string() + " /noConsole");
  for (auto _ : state) {
    DKApplication app(line);
    benchmark::DoNotOptimize(app.GetConfigFile().Get());
  }
}
BENCHMARK(BM_ApplicationStartUpWithConfigFile)->Unit(benchmark::kMicrosecond);

// The configuration file's share of the start-up: the same file loaded alone.
void BM_ConfigFileLoad(benchmark::State& state) {
  const Fixture* fixture = TheFixture(state);
  if (!fixture)
    return;
  const DKString path = Text((fixture->Dir() / "prog.ini").string());
  for (auto _ : state)
    benchmark::DoNotOptimize(DKConfigFile::Load(path).Get());
}
BENCHMARK(BM_ConfigFileLoad)->Unit(benchmark::kMicrosecond);

} // namespace
