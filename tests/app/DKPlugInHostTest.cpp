// The plug-in host end to end: a host program in a child process loads real modules, and its
// console lines are compared with the framework's texts.
#include "AppTestSupport.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <csignal>

using namespace apptest;

namespace {

const std::string kPlugIns = DK_TEST_PLUGIN_DIR;

std::string Module(const std::string& kind) { return kPlugIns + "/" + kind + ".osx"; }

// A path in a folder, with the system's separator, as the host writes the paths it makes.
std::string In(const std::string& folder, const std::string& name) { return (fs::path(folder) / name).string(); }

struct HostRun {
  int exitCode;
  std::vector<std::string> lines;
  std::string output;

  bool Has(const std::string& line) const { return std::find(lines.begin(), lines.end(), line) != lines.end(); }
  std::size_t Count(const std::string& line) const {
    return static_cast<std::size_t>(std::count(lines.begin(), lines.end(), line));
  }
  // The index of the first line equal to line; lines.size() when there is none.
  std::size_t IndexOf(const std::string& line) const {
    return static_cast<std::size_t>(std::find(lines.begin(), lines.end(), line) - lines.begin());
  }
  // The lines that start with prefix, in order.
  std::vector<std::string> Starting(const std::string& prefix) const {
    std::vector<std::string> found;
    for (const std::string& line : lines)
      if (line.rfind(prefix, 0) == 0)
        found.push_back(line);
    return found;
  }
};

std::vector<std::string> HostCommand(const std::vector<std::string>& arguments,
                                     const std::string& program = DK_TEST_HOST_PATH) {
  std::vector<std::string> command{program};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return command;
}

HostRun RunHost(const std::vector<std::string>& arguments, const std::string& workingDirectory,
                const std::string& program = DK_TEST_HOST_PATH) {
  Child host(HostCommand(arguments, program), workingDirectory);
  const int exitCode = host.Finish();
  return {exitCode, host.Lines(), host.Output()};
}

// A list file naming the modules of the given kinds by their full paths.
void WriteList(const std::string& path, const std::vector<std::string>& kinds) {
  std::string text;
  for (const std::string& kind : kinds)
    text += Module(kind) + "\n";
  WriteWholeFile(path, text);
}

HostRun RunList(const std::vector<std::string>& kinds, const std::vector<std::string>& extra = {},
                const std::string& program = DK_TEST_HOST_PATH) {
  ScratchDir dir;
  if (!kinds.empty())
    WriteList(dir / "osx.lst", kinds);
  std::vector<std::string> arguments{"/osxpath:" + dir.Path().string()};
  arguments.insert(arguments.end(), extra.begin(), extra.end());
  return RunHost(arguments, dir.Path().string(), program);
}

#if defined(_WIN32)
const std::string kExecutableExtension = "exe";
#else
const std::string kExecutableExtension;
#endif

const std::string kQuit = ">>>> Quit signal received. Requesting exit to all plug-ins...";
const std::string kExit = "Exiting application...";

} // namespace

TEST(PlugInHostTest, ListFileWithCommentsBlanksAndBareNamesLoadsFromItsDirectory) {
  ScratchDir dir;
  fs::copy_file(Module("good"), dir / "good.osx");
  WriteWholeFile(dir / "osx.lst", "# sample list\r\n\r\n   ; indented comment\n\t good.osx  \n");
  const HostRun run = RunHost({"/osxpath:" + dir.Path().string()}, "/");
  const std::string folder = dir.Path().string();
  const std::vector<std::string> expected{
      "Retrieving plug-ins from " + In(folder, "osx.lst") + "...",
      "LoadLibrary on " + In(folder, "good.osx") + "...",
      ">>>> Initializing <Good>... Done.",
      "RUN> Running <Good>...",
      "Good: run",
      kQuit,
      ">>>> Unloading <Good>...",
      "Good: unload",
      kExit,
  };
  EXPECT_EQ(run.lines, expected) << run.output;
  EXPECT_EQ(run.exitCode, 0);
}

TEST(PlugInHostTest, DirectoryWithoutListFileLoadsEveryModuleInNameOrder) {
  ScratchDir dir;
  fs::copy_file(Module("good"), dir / "good.osx");
  fs::copy_file(Module("chain_c"), dir / "CHAIN_C.OSX");
  WriteWholeFile(dir / "readme.txt", "not a module");
  fs::create_directory(dir / "folder.osx");
  const HostRun run = RunHost({"/osxpath:" + dir.Path().string()}, "/");
  const std::string folder = dir.Path().string();
  EXPECT_EQ(run.lines.at(0), "Retrieving plug-ins from " + In(folder, "*.osx") + "...") << run.output;
  EXPECT_EQ(run.Starting("LoadLibrary on "),
            (std::vector<std::string>{"LoadLibrary on " + In(folder, "CHAIN_C.OSX") + "...",
                                      "LoadLibrary on " + In(folder, "good.osx") + "..."}));
  EXPECT_TRUE(run.Has("ChainC: run") && run.Has("Good: run")) << run.output;
  EXPECT_EQ(run.exitCode, 0);
}

TEST(PlugInHostTest, MissingListFileIsReportedAndTheWorkingDirectoryIsSearched) {
  ScratchDir dir;
  fs::copy_file(Module("good"), dir / "good.osx");
  const HostRun run = RunHost({"/osxpath:" + dir / "missing.lst"}, dir.Path().string());
  ASSERT_GE(run.lines.size(), 3u) << run.output;
  EXPECT_EQ(run.lines[0], "The plug-ins list file " + dir / "missing.lst" + " does not exist.");
  EXPECT_EQ(run.lines[1], "Retrieving plug-ins from " + In(dir.Path().string(), "*.osx") + "...");
  EXPECT_TRUE(run.Has("Good: run")) << run.output;
  EXPECT_EQ(run.exitCode, 0);
}

TEST(PlugInHostTest, NoModuleAnywhereEndsWithCode1) {
  ScratchDir dir;
  const HostRun run = RunHost({}, dir.Path().string());
  const std::vector<std::string> expected{
      "Retrieving plug-ins from " + In(dir.Path().string(), "*.osx") + "...",
      "Couldn't find any OSX to load.",
      kQuit,
      kExit,
  };
  EXPECT_EQ(run.lines, expected) << run.output;
  EXPECT_EQ(run.exitCode, 1);
}

TEST(PlugInHostTest, BrokenModulesAreReportedAndTheOthersStillLoad) {
  const HostRun run = RunList({"noentry", "notamodule", "entrythrows", "nullentry", "good"});
  for (const std::string& line :
       {"LoadPlugIn failed on " + Module("noentry") + ": Cannot locate \"GetPlugInObject\" entry point",
        "LoadPlugIn failed on " + Module("entrythrows") + ": GetPlugInObject threw: the plug-in cannot be made",
        "LoadPlugIn failed on " + Module("nullentry") + ": GetPlugInObject returned no plug-in",
        std::string("Good: run")})
    EXPECT_TRUE(run.Has(line)) << line << "\n" << run.output;
  const std::vector<std::string> notModule = run.Starting("LoadLibrary fails on " + Module("notamodule") + ": ");
  ASSERT_EQ(notModule.size(), 1u) << run.output;
  EXPECT_NE(notModule[0].find("notamodule.osx", notModule[0].find(": ")), std::string::npos)
      << "the system's text names the file: " << notModule[0];
  EXPECT_EQ(run.Starting(">>>> Initializing <"), std::vector<std::string>{">>>> Initializing <Good>... Done."});
  EXPECT_EQ(run.lines.back(), kExit);
  EXPECT_EQ(run.exitCode, 0);
}

// Runs of listed modules: each expected line is there exactly once (in the given order when
// ordered), the absent ones are not, and the host ends with its exit line and code.
TEST(PlugInHostTest, ListedModulesGiveTheirLinesAndExitCode) {
  ScratchDir dir;
  WriteWholeFile(dir / "host.ini", "[Worker]\nTicks=3\n[Worker2]\nTicks=1\n[StopThrows]\nTicks=10\n");
  const struct {
    std::vector<std::string> kinds, extra;
    bool ordered;
    std::vector<std::string> lines, absent;
    int exitCode;
  } cases[] = {
      {{"good", "duplicate"}, {}, true,
       {"ERR> *** Duplicate plug-in id Duplicate", "LoaPlugIn failed on " + Module("duplicate") + ": AddPlugIn failed",
        "Good: run"},
       {"Duplicate: run", "Duplicate: unload"}, 0},
      {{"initfail", "good"}, {}, true,
       {">>>> Initializing <InitFail>...Failed.", "ERR> *** <InitFail>: InitFail refuses", "Good: run"},
       {"RUN> Running <InitFail>...", ">>>> Unloading <InitFail>..."}, 0},
      {{"good", "runthrows"}, {}, true,
       {"ERR> *** <RunThrows>: RunThrows is broken", ">>>> Unloading <RunThrows>...", ">>>> Unloading <Good>..."},
       {}, 2},
      {{"box"}, {}, true,
       {">>>> Initializing <BoxOne>... Done.", ">>>> Initializing <BoxTwo>... Done.", "BoxOne: run", "BoxTwo: run",
        kQuit, ">>>> Unloading <BoxTwo>...", ">>>> Unloading <BoxOne>..."},
       {">>>> Initializing <Box>... Done.", ">>>> Unloading <Box>..."}, 0},
      {{"chain_a", "chain_b", "chain_c"}, {}, true,
       {">>>> Initializing <ChainC>... Done.", ">>>> Initializing <ChainB>... Done.",
        ">>>> Initializing <ChainA>... Done.", "RUN> Running <ChainC>...", "RUN> Running <ChainB>...",
        "RUN> Running <ChainA>...", ">>>> Unloading <ChainA>...", ">>>> Unloading <ChainB>...",
        ">>>> Unloading <ChainC>..."},
       {}, 0},
      {{"cycle_a", "cycle_b", "good"}, {}, true,
       {"ERR> *** Dependency cycle: CycleA -> CycleB -> CycleA",
        "ERR> *** <CycleB> needs <CycleA> {7E57AB1E-0000-0000-0000-00000000000D}, which is not initialised",
        "ERR> *** <CycleA> needs <CycleB> {7E57AB1E-0000-0000-0000-00000000000E}, which is not initialised",
        ">>>> Initializing <Good>... Done.", "Good: run"},
       {">>>> Initializing <CycleA>... Done.", ">>>> Initializing <CycleB>... Done.", "CycleA: run"}, 0},
      {{"missingdep", "good"}, {}, true,
       {"ERR> *** <MissingDep> needs <Absent> {7E57AB1E-0000-0000-0000-000000000063}, which is not loaded",
        "Good: run"},
       {"MissingDep: run"}, 0},
      {{"worker", "worker2"}, {"/config:" + dir / "host.ini"}, false,
       {"RUN> Running <Worker>...(threaded)", "Worker: done after 3 ticks", "Worker2: done after 1 ticks"},
       {"Worker: stop requested", "Worker2: stop requested"}, 0},
      {{"threadthrows"}, {}, false, {"ERR> *** ThreadThrows: ThreadThrows is broken"}, {}, 0},
      {{"nameless"}, {}, false,
       {"RUN> Running <(plug-in without a name)>...(threaded)", "ERR> *** (plug-in without a name): ThreadThrows is broken"},
       {}, 0},
      // The run step's exception ends the run (code 2); the threaded plug-in whose Stop throws
      // is waited for until its run ends by itself, and only then unloaded.
      {{"stopthrows", "runthrows"}, {"/config:" + dir / "host.ini"}, true,
       {"ERR> *** <RunThrows>: RunThrows is broken", "StopThrows: stop requested", "StopThrows: done after 10 ticks",
        "ERR> *** <StopThrows>: RequestExit threw: StopThrows cannot stop", ">>>> Unloading <StopThrows>..."},
       {}, 2},
      {{"depsthrow", "good"}, {}, true,
       {"ERR> *** <DepsThrow>: GetDependentV threw: DepsThrow cannot tell", "Good: run", ">>>> Unloading <Good>..."},
       {">>>> Initializing <DepsThrow>...", "DepsThrow: run"}, 0},
      {{"selfbox", "good"}, {}, true,
       {"ERR> *** Plug-in container cycle: SelfBox -> SelfBox",
        "LoaPlugIn failed on " + Module("selfbox") + ": AddPlugIn failed", ">>>> Initializing <SelfBoxOne>... Done.",
        "Good: run"},
       {}, 0},
      {{"good", "missingdep"}, {"/trace:0"}, false, {}, {}, 0},
  };
  for (const auto& c : cases) {
    const HostRun run = RunList(c.kinds, c.extra);
    SCOPED_TRACE(c.kinds.front() + ":\n" + run.output);
    std::size_t last = 0;
    for (const std::string& line : c.lines) {
      EXPECT_EQ(run.Count(line), 1u) << line;
      EXPECT_TRUE(!c.ordered || last <= run.IndexOf(line)) << "out of order: " << line;
      last = run.IndexOf(line);
    }
    for (const std::string& line : c.absent)
      EXPECT_FALSE(run.Has(line)) << line;
    EXPECT_EQ(run.output.empty(), c.lines.empty()) << "/trace:0 silences the console";
    EXPECT_TRUE(run.lines.empty() || run.lines.back() == kExit);
    EXPECT_EQ(run.exitCode, c.exitCode);
  }
}

// The quit signals: SIGINT and SIGTERM on POSIX; on Windows Ctrl+C and Ctrl+Break, console
// control events (a console's close cannot be sent). Skipped only when the system refuses to
// send the event (Wine sends Ctrl+C, not Ctrl+Break, to a console's processes).
#if defined(_WIN32)
const int kQuitSignals[] = {SIGINT, SIGBREAK};
#else
const int kQuitSignals[] = {SIGINT, SIGTERM};
#endif

class PlugInHostSignalTest : public ::testing::TestWithParam<int> {};

TEST_P(PlugInHostSignalTest, QuitSignalStopsEveryThreadedPlugInBeforeTheExit) {
  ScratchDir dir;
  WriteList(dir / "osx.lst", {"worker", "good", "worker2"});
  Child host(HostCommand({"/osxpath:" + dir.Path().string()}), dir.Path().string());
  ASSERT_TRUE(host.WaitFor("Worker: started\n")) << host.Output();
  ASSERT_TRUE(host.WaitFor("Worker2: started\n")) << host.Output();
  std::string why;
  if (!host.Quit(GetParam(), &why))
    GTEST_SKIP() << why;
  const int exitCode = host.Finish();
  const HostRun run{exitCode, host.Lines(), host.Output()};

  EXPECT_EQ(run.exitCode, 0) << run.output;
  EXPECT_EQ(run.Count(kQuit), 1u) << run.output;
  for (const std::string name : {"Worker", "Worker2"}) {
    EXPECT_EQ(run.Count(name + ": stop requested"), 1u) << run.output;
    EXPECT_LT(run.IndexOf(kQuit), run.IndexOf(name + ": stop requested")) << run.output;
    EXPECT_LT(run.IndexOf(name + ": stopped"), run.IndexOf(">>>> Unloading <" + name + ">...")) << run.output;
  }
  EXPECT_EQ(run.lines.back(), kExit) << run.output;
}

TEST_P(PlugInHostSignalTest, QuitSignalReachesARunStepOnTheMainThread) {
  ScratchDir dir;
  WriteList(dir / "osx.lst", {"worker", "patient"});
  Child host(HostCommand({"/osxpath:" + dir.Path().string()}), dir.Path().string());
  ASSERT_TRUE(host.WaitFor("Patient: waiting\n")) << host.Output();
  std::string why;
  if (!host.Quit(GetParam(), &why))
    GTEST_SKIP() << why;
  const int exitCode = host.Finish();
  const HostRun run{exitCode, host.Lines(), host.Output()};

  EXPECT_EQ(run.exitCode, 0) << run.output;
  EXPECT_TRUE(run.Has("Patient: exit request seen")) << run.output;
  EXPECT_LT(run.IndexOf(kQuit), run.IndexOf("Worker: stopped")) << run.output;
  EXPECT_EQ(run.lines.back(), kExit) << run.output;
}

INSTANTIATE_TEST_SUITE_P(InterruptAndTerminate, PlugInHostSignalTest, ::testing::ValuesIn(kQuitSignals));

// A fault in a plug-in: the host's crash catching writes the report (the plug-in's module among
// the stack's frames) to the standard error and to the error log in the temporary folder, and
// the process ends as the fault ends it: 128 + SIGSEGV on POSIX, the exception's code on Windows
// (a Windows parent reads all 32 bits of it, also under Wine; a Linux parent of Wine would see
// only its low 8 bits).
TEST(PlugInHostTest, AFaultInAPlugInIsReportedAndEndsTheHostWithItsCode) {
#if defined(_WIN32)
  const std::string header = "****** Fatal exception 0xc0000005 EXCEPTION_ACCESS_VIOLATION (access violation) ******";
  const int faultCode = static_cast<int>(0xC0000005u);
#else
  const std::string header = "****** Fatal signal SIGSEGV (segmentation fault) ******";
  const int faultCode = 128 + SIGSEGV;
#endif
  ScratchDir dir;
  WriteList(dir / "osx.lst", {"good", "crasher"});
  std::map<std::string, std::string> environment{{"TMP", dir.Path().string()}, {"TMPDIR", dir.Path().string()}};
#if defined(__SANITIZE_THREAD__)
  // The thread dump after the signal-safe part of a report allocates on purpose (under the
  // report's watchdog); ThreadSanitizer would stop the host there.
  const char* options = std::getenv("TSAN_OPTIONS");
  environment["TSAN_OPTIONS"] = std::string(options ? options : "") + ":report_signal_unsafe=0";
#endif
  Child host(HostCommand({"/osxpath:" + dir.Path().string()}), dir.Path().string(), environment);
  const int exitCode = host.Finish();
  const HostRun run{exitCode, host.Lines(), host.Output()};

  EXPECT_TRUE(run.Has("RUN> Running <Crasher>...")) << run.output;
  EXPECT_EQ(run.Count(header), 1u) << run.output;
  EXPECT_EQ(run.Count("Address: 0x0000000000000000"), 1u) << run.output;
  EXPECT_FALSE(run.Starting("Process: ").empty()) << run.output;
  EXPECT_TRUE(std::any_of(run.lines.begin(), run.lines.end(),
                          [](const std::string& line) { return line.find("crasher.osx(") != std::string::npos; }))
      << "the plug-in's frame names its module: " << run.output;
  EXPECT_FALSE(run.Has(kExit)) << "nothing runs after the report";
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  EXPECT_EQ(run.Count("****** End of crash report ******"), 1u) << run.output;
  EXPECT_EQ(run.exitCode, faultCode) << run.output;
#else
  // The report chains to the sanitizer's own handler, which reports and aborts: that abort is
  // reported too, and the process ends with the sanitizer's status.
  (void)faultCode;
  EXPECT_GE(run.Count("****** End of crash report ******"), 1u) << run.output;
  EXPECT_NE(run.exitCode, 0) << run.output;
#endif
  const std::string errorLog = ReadWholeFile(dir / "dk_test_host-ERROR.LOG");
  EXPECT_NE(errorLog.find(header), std::string::npos) << errorLog;
  EXPECT_NE(errorLog.find("****** End of crash report ******"), std::string::npos) << errorLog;
}

TEST(PlugInHostTest, OverlongAndUnreadableListsAreReported) {
  ScratchDir dir;
  const std::string overlong(261, 'x');
  WriteWholeFile(dir / "osx.lst", Module("good") + "\n" + overlong + "\n" + std::string(260, ' ') + "\n");
  fs::create_directories(dir / "sub/osx.lst"); // a list file that cannot be read
  fs::copy_file(Module("chain_c"), dir / "sub/chain_c.osx");
  const HostRun run = RunHost({"/osxpath:" + dir.Path().string(), "/osxpath:" + dir / "sub"}, "/");

  EXPECT_TRUE(run.Has("ERR> *** " + dir / "osx.lst" + ": line 2 is longer than 260 characters; skipped"))
      << run.output;
  EXPECT_EQ(run.Starting("ERR> *** The plug-ins list file cannot be read: ").size(), 1u) << run.output;
  EXPECT_TRUE(run.Has("Retrieving plug-ins from " + In(dir / "sub", "*.osx") + "...")) << run.output;
  EXPECT_TRUE(run.Has("Good: run") && run.Has("ChainC: run")) << run.output;
  EXPECT_EQ(run.exitCode, 0);
}

TEST(PlugInHostTest, DirectoriesAreSearchedOnceInOrderAndShareTheirPlugIns) {
  ScratchDir first;
  ScratchDir second;
  WriteList(first / "osx.lst", {"chain_c"});
  WriteList(second / "osx.lst", {"chain_b"});
  const std::string again = first.Path().string() + "/./";
  const HostRun run = RunHost(
      {"/osxpath:" + first.Path().string(), "/osxpath:" + second.Path().string(), "-OSXPATH:" + again, "/osxpath"},
      "/");
  EXPECT_TRUE(run.Has(">>>> " + again + " is given to /osxpath more than once: searched once.")) << run.output;
  EXPECT_TRUE(run.Has("ERR> *** /osxpath needs a directory or a list file: /osxpath:{directory}")) << run.output;
  EXPECT_TRUE(run.Starting("ERR> *** Duplicate").empty()) << run.output;
  EXPECT_EQ(run.Starting("RUN> "), (std::vector<std::string>{"RUN> Running <ChainC>...", "RUN> Running <ChainB>..."}))
      << "a dependency in an earlier directory is found: " << run.output;
}

TEST(PlugInHostTest, CopiesOfOneModuleAreDistinctPlugIns) {
  ScratchDir dir;
  constexpr int copies = 20;
  for (int i = 0; i < copies; ++i)
    fs::copy_file(Module("trivial"), dir / ("trivial" + std::to_string(i) + ".osx"));
  const HostRun run = RunHost({"/osxpath:" + dir.Path().string()}, "/");
  EXPECT_EQ(run.Count(">>>> Initializing <Trivial>... Done."), static_cast<std::size_t>(copies)) << run.output;
  EXPECT_EQ(run.Count(">>>> Unloading <Trivial>..."), static_cast<std::size_t>(copies));
  EXPECT_EQ(run.exitCode, 0);
}

// Modules whose plug-in classes have one name and one layout, built by dorvikcore_add_plugin:
// each keeps its own id and its own static data, so all are initialised and each counts one Init.
TEST(PlugInHostTest, ClassesOfOneNameInSeveralModulesStayApart) {
  const HostRun run = RunList({"collide_1", "collide_2", "collide_3", "collide_4"});
  for (const std::string index : {"1", "2", "3", "4"}) {
    EXPECT_EQ(run.Count(">>>> Initializing <Collide" + index + ">... Done."), 1u) << run.output;
    EXPECT_EQ(run.Count("Collide" + index + ": 1 Init in this module"), 1u) << run.output;
  }
  EXPECT_TRUE(run.Starting("ERR> ").empty()) << run.output;
  EXPECT_EQ(run.exitCode, 0);
}

#if defined(DK_DKHOST_PATH)

// dkhost, the installed host: its exit code tells what went wrong, the lowest code when several
// apply; /strict refuses what no one describes before any plug-in is initialised.
TEST(DkhostTest, ExitCodeTellsWhatWentWrong) {
  const std::string unknown = "Unknown option /bogus:1";
  const struct {
    std::vector<std::string> kinds, extra;
    int exitCode;
    std::vector<std::string> lines, absent;
  } cases[] = {
      {{"good"}, {}, 0, {"Good: run", kExit}, {}},
      {{}, {}, 1, {"Couldn't find any OSX to load."}, {}},
      {{"good", "runthrows"}, {}, 2, {"ERR> *** <RunThrows>: RunThrows is broken"}, {}},
      {{"good", "duplicate"}, {}, 3, {"ERR> *** Duplicate plug-in id Duplicate", "Good: run"}, {}},
      {{"noentry", "good"}, {}, 3, {"Good: run"}, {}},
      {{"initfail", "good"}, {}, 4, {">>>> Initializing <InitFail>...Failed.", "Good: run"}, {}},
      {{"missingdep"}, {}, 4, {}, {"MissingDep: run"}},
      {{"initfail", "good", "duplicate"}, {}, 3, {"Good: run"}, {}},
      {{"good"}, {"/strict", "/bogus:1"}, 5, {"ERR> *** " + unknown}, {">>>> Initializing <Good>... Done.", "Good: run"}},
      {{"good"}, {"/bogus:1"}, 0, {">>>> " + unknown + ": ignored (/strict refuses it)", "Good: run"}, {}},
      {{"good"}, {"/strict", "/stopWait:abc"}, 5, {}, {"Good: run"}},
      {{"good"}, {"/strict", "/stopWait:1", "/TRACE:1"}, 0, {"Good: run"}, {}},
  };
  for (const auto& c : cases) {
    const HostRun run = RunList(c.kinds, c.extra, DK_DKHOST_PATH);
    SCOPED_TRACE((c.kinds.empty() ? std::string("no module") : c.kinds.front()) + ":\n" + run.output);
    EXPECT_EQ(run.exitCode, c.exitCode);
    for (const std::string& line : c.lines)
      EXPECT_EQ(run.Count(line), 1u) << line;
    for (const std::string& line : c.absent)
      EXPECT_FALSE(run.Has(line)) << line;
  }
}

// /help and /? load the modules without initialising them and list every option, the plug-ins'
// included, then the exit codes; the code is 0 even when no plug-in is found.
TEST(DkhostTest, HelpListsThePlugInsOptionsWithoutInitialisingThem) {
  for (const std::string help : {"/help", "/?", "-HELP"}) {
    const HostRun run = RunHost({help, "/osxpath:" DK_SAMPLES_DIR}, "/", DK_DKHOST_PATH);
    SCOPED_TRACE(help + ":\n" + run.output);
    EXPECT_EQ(run.exitCode, 0);
    for (const std::string& line : std::vector<std::string>{"USAGE: dkhost." + kExecutableExtension + " [options list] ", "dkhost options:", "Ticker plug-in:",
                                   "Exit codes (when several apply, the lowest):"})
      EXPECT_EQ(run.Count(line), 1u) << line;
    EXPECT_EQ(run.Starting("   /ticks:{count} ").size(), 1u);
    EXPECT_EQ(run.Starting("   /strict ").size(), 1u);
    EXPECT_EQ(run.Starting("   /osxpath:{directory} ").size(), 1u);
    EXPECT_TRUE(run.Starting(">>>> Initializing").empty());
    EXPECT_TRUE(run.Starting("RUN> ").empty());
    EXPECT_FALSE(run.Has(kExit)) << "nothing ran: no shut-down lines";
  }
  const HostRun none = RunList({}, {"/?"}, DK_DKHOST_PATH);
  EXPECT_EQ(none.exitCode, 0) << none.output;
  EXPECT_TRUE(none.Has("dkhost options:")) << none.output;
}

// A threaded plug-in that does not stop is named once the grace period is over, and another
// quit signal ends the process: what has stopped is unloaded, the stuck plug-in is not, and the
// exit code is 128 + the signal's number.
TEST(DkhostTest, AQuitSignalWhileStoppingEndsTheProcess) {
  const struct {
    std::string kind, name, member;
    int signal;
  } cases[] = {
      {"stubborn", "Stubborn", "Run", SIGINT},
      {"stuckstop", "StuckStop", "Stop", kQuitSignals[1]},
#if defined(_WIN32)
      {"stuckstop", "StuckStop", "Stop", SIGINT}, // the second signal that Wine can send
#endif
  };
  std::string skipped;
  for (const auto& c : cases) {
    ScratchDir dir;
    WriteList(dir / "osx.lst", {"good", c.kind});
    Child host(HostCommand({"/osxpath:" + dir.Path().string(), "/stopWait:0"}, DK_DKHOST_PATH), dir.Path().string());
    ASSERT_TRUE(host.WaitFor(c.name + ": started\n")) << host.Output();
    std::string why;
    ASSERT_TRUE(host.Quit(SIGINT, &why)) << why;
    ASSERT_TRUE(host.WaitFor(">>>> Still waiting for <" + c.name + "> to return from " + c.member + ".")) << host.Output();
    if (!host.Quit(c.signal, &why)) {
      skipped += why + "\n";
      continue;
    }
    const int exitCode = host.Finish();
    const HostRun run{exitCode, host.Lines(), host.Output()};
    SCOPED_TRACE(run.output);
    const std::string& name = c.name;
    EXPECT_EQ(run.exitCode, 128 + c.signal);
    EXPECT_EQ(run.Count("ERR> *** Quit signal while stopping: ending the process without waiting for <" + name + ">"), 1u);
    EXPECT_EQ(run.Count("Good: unload"), 1u);
    EXPECT_FALSE(run.Has(">>>> Unloading <" + name + ">..."));
    EXPECT_EQ(run.lines.back(), kExit);
  }
  if (!skipped.empty())
    GTEST_SKIP() << "the other cases passed; not sent: " << skipped;
}

// The threaded plug-in of the README, built from the README's text, beats under dkhost with
// the interval of its configuration until a quit signal stops it.
TEST(DkhostTest, TheReadmePlugInBeatsUntilAskedToStop) {
  ScratchDir dir;
  WriteWholeFile(dir / "host.ini", "[Heartbeat]\nIntervalMs=5\n");
  WriteList(dir / "osx.lst", {"heartbeat"});
  Child host(HostCommand({"/osxpath:" + dir.Path().string(), "/config:" + dir / "host.ini"}, DK_DKHOST_PATH),
             dir.Path().string());
  ASSERT_TRUE(host.WaitFor("Heartbeat 3\n")) << host.Output();
  std::string why;
  if (!host.Quit(SIGINT, &why))
    GTEST_SKIP() << why;
  const int exitCode = host.Finish();
  const HostRun run{exitCode, host.Lines(), host.Output()};
  EXPECT_EQ(run.exitCode, 0) << run.output;
  EXPECT_TRUE(run.Has("RUN> Running <Heartbeat>...(threaded)")) << run.output;
  EXPECT_LT(run.IndexOf(kQuit), run.IndexOf(">>>> Unloading <Heartbeat>...")) << run.output;
  EXPECT_EQ(run.lines.back(), kExit) << run.output;
}

#endif
