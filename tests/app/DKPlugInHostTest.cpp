// The plug-in host end to end: a host program in a child process loads real modules, and its
// console lines are compared with the framework's texts.
#include "AppTestSupport.h"

#include <algorithm>
#include <csignal>

using namespace apptest;

namespace {

const std::string kPlugIns = DK_TEST_PLUGIN_DIR;

std::string Module(const std::string& kind) { return kPlugIns + "/" + kind + ".osx"; }

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

std::vector<std::string> HostCommand(const std::vector<std::string>& arguments) {
  std::vector<std::string> command{DK_TEST_HOST_PATH};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return command;
}

HostRun RunHost(const std::vector<std::string>& arguments, const std::string& workingDirectory) {
  Child host(HostCommand(arguments), workingDirectory);
  const int exitCode = host.Finish();
  return {exitCode, host.Lines(), host.Output()};
}

// A list file naming the modules of the given kinds by their full paths.
void WriteList(const std::string& path, const std::vector<std::string>& kinds) {
  std::string text;
  for (const std::string& kind : kinds)
    text += Module(kind) + "\n";
  WriteFile(path, text);
}

HostRun RunList(const std::vector<std::string>& kinds, const std::vector<std::string>& extra = {}) {
  ScratchDir dir;
  WriteList(dir / "osx.lst", kinds);
  std::vector<std::string> arguments{"/osxpath:" + dir.Path().string()};
  arguments.insert(arguments.end(), extra.begin(), extra.end());
  return RunHost(arguments, dir.Path().string());
}

const std::string kQuit = ">>>> Quit signal received. Requesting exit to all plug-ins...";
const std::string kExit = "Exiting application...";

} // namespace

TEST(PlugInHostTest, ListFileWithCommentsBlanksAndBareNamesLoadsFromItsDirectory) {
  ScratchDir dir;
  fs::copy_file(Module("good"), dir / "good.osx");
  WriteFile(dir / "osx.lst", "# sample list\r\n\r\n   ; indented comment\n\t good.osx  \n");
  const HostRun run = RunHost({"/osxpath:" + dir.Path().string()}, "/");
  const std::string folder = dir.Path().string();
  const std::vector<std::string> expected{
      "Retrieving plug-ins from " + folder + "/osx.lst...",
      "LoadLibrary on " + folder + "/good.osx...",
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
  WriteFile(dir / "readme.txt", "not a module");
  fs::create_directory(dir / "folder.osx");
  const HostRun run = RunHost({"/osxpath:" + dir.Path().string()}, "/");
  const std::string folder = dir.Path().string();
  EXPECT_EQ(run.lines.at(0), "Retrieving plug-ins from " + folder + "/*.osx...") << run.output;
  EXPECT_EQ(run.Starting("LoadLibrary on "),
            (std::vector<std::string>{"LoadLibrary on " + folder + "/CHAIN_C.OSX...",
                                      "LoadLibrary on " + folder + "/good.osx..."}));
  EXPECT_TRUE(run.Has("ChainC: run") && run.Has("Good: run")) << run.output;
  EXPECT_EQ(run.exitCode, 0);
}

TEST(PlugInHostTest, MissingListFileIsReportedAndTheWorkingDirectoryIsSearched) {
  ScratchDir dir;
  fs::copy_file(Module("good"), dir / "good.osx");
  const HostRun run = RunHost({"/osxpath:" + dir / "missing.lst"}, dir.Path().string());
  ASSERT_GE(run.lines.size(), 3u) << run.output;
  EXPECT_EQ(run.lines[0], "The plug-ins list file " + dir / "missing.lst" + " does not exist.");
  EXPECT_EQ(run.lines[1], "Retrieving plug-ins from " + dir.Path().string() + "/*.osx...");
  EXPECT_TRUE(run.Has("Good: run")) << run.output;
  EXPECT_EQ(run.exitCode, 0);
}

TEST(PlugInHostTest, NoModuleAnywhereEndsWithCode1) {
  ScratchDir dir;
  const HostRun run = RunHost({}, dir.Path().string());
  const std::vector<std::string> expected{
      "Retrieving plug-ins from " + dir.Path().string() + "/*.osx...",
      "Couldn't find any OSX to load.",
      kQuit,
      kExit,
  };
  EXPECT_EQ(run.lines, expected) << run.output;
  EXPECT_EQ(run.exitCode, 1);
}

TEST(PlugInHostTest, BrokenModulesAreReportedAndTheOthersStillLoad) {
  const HostRun run = RunList({"noentry", "notamodule", "entrythrows", "nullentry", "good"});
  EXPECT_TRUE(run.Has("LoadPlugIn failed on " + Module("noentry") + ": Cannot locate \"GetPlugInObject\" entry point"))
      << run.output;
  const std::vector<std::string> notModule = run.Starting("LoadLibrary fails on " + Module("notamodule") + ": ");
  ASSERT_EQ(notModule.size(), 1u) << run.output;
  EXPECT_NE(notModule[0].find("notamodule.osx", notModule[0].find(": ")), std::string::npos)
      << "the system's text names the file: " << notModule[0];
  EXPECT_TRUE(run.Has("LoadPlugIn failed on " + Module("entrythrows") +
                      ": GetPlugInObject threw: the plug-in cannot be made"))
      << run.output;
  EXPECT_TRUE(run.Has("LoadPlugIn failed on " + Module("nullentry") + ": GetPlugInObject returned no plug-in"))
      << run.output;
  EXPECT_EQ(run.Starting(">>>> Initializing <"), std::vector<std::string>{">>>> Initializing <Good>... Done."});
  EXPECT_TRUE(run.Has("Good: run"));
  EXPECT_EQ(run.lines.back(), kExit);
  EXPECT_EQ(run.exitCode, 0);
}

TEST(PlugInHostTest, DuplicateIdIsRefusedAndTheFirstStays) {
  const HostRun run = RunList({"good", "duplicate"});
  EXPECT_TRUE(run.Has("ERR> *** Duplicate plug-in id Duplicate")) << run.output;
  EXPECT_TRUE(run.Has("LoaPlugIn failed on " + Module("duplicate") + ": AddPlugIn failed")) << run.output;
  EXPECT_EQ(run.Count("Good: run"), 1u);
  EXPECT_FALSE(run.Has("Duplicate: run"));
  EXPECT_FALSE(run.Has("Duplicate: unload"));
  EXPECT_EQ(run.exitCode, 0);
}

TEST(PlugInHostTest, FailedInitLeavesThePlugInLoadedButNeverRunNorUnloaded) {
  const HostRun run = RunList({"initfail", "good"});
  EXPECT_TRUE(run.Has(">>>> Initializing <InitFail>...Failed.")) << run.output;
  EXPECT_TRUE(run.Has("ERR> *** <InitFail>: InitFail refuses")) << run.output;
  EXPECT_FALSE(run.Has("RUN> Running <InitFail>..."));
  EXPECT_FALSE(run.Has(">>>> Unloading <InitFail>..."));
  EXPECT_TRUE(run.Has("Good: run"));
  EXPECT_EQ(run.exitCode, 0);
}

TEST(PlugInHostTest, RunStepThatThrowsEndsTheRunWithCode2AndStillUnloads) {
  const HostRun run = RunList({"good", "runthrows"});
  EXPECT_TRUE(run.Has("ERR> *** <RunThrows>: RunThrows is broken")) << run.output;
  EXPECT_EQ(run.Starting("ERR> ***").size(), 1u) << "reported once: " << run.output;
  EXPECT_TRUE(run.Has(">>>> Unloading <RunThrows>..."));
  EXPECT_TRUE(run.Has(">>>> Unloading <Good>..."));
  EXPECT_EQ(run.lines.back(), kExit);
  EXPECT_EQ(run.exitCode, 2);
}

TEST(PlugInHostTest, ContainerMembersTakeItsPlace) {
  const HostRun run = RunList({"box"});
  EXPECT_EQ(run.Starting(">>>> "), (std::vector<std::string>{
                                       ">>>> Initializing <BoxOne>... Done.",
                                       ">>>> Initializing <BoxTwo>... Done.",
                                       kQuit,
                                       ">>>> Unloading <BoxTwo>...",
                                       ">>>> Unloading <BoxOne>...",
                                   }))
      << run.output;
  EXPECT_TRUE(run.Has("BoxOne: run") && run.Has("BoxTwo: run"));
  EXPECT_EQ(run.exitCode, 0);
}

TEST(PlugInHostTest, DependenciesDecideTheOrderWhateverTheListOrder) {
  const HostRun run = RunList({"chain_a", "chain_b", "chain_c"});
  EXPECT_EQ(run.Starting(">>>> Initializing <"), (std::vector<std::string>{
                                                     ">>>> Initializing <ChainC>... Done.",
                                                     ">>>> Initializing <ChainB>... Done.",
                                                     ">>>> Initializing <ChainA>... Done.",
                                                 }))
      << run.output;
  EXPECT_EQ(run.Starting("RUN> "), (std::vector<std::string>{
                                       "RUN> Running <ChainC>...",
                                       "RUN> Running <ChainB>...",
                                       "RUN> Running <ChainA>...",
                                   }));
  EXPECT_EQ(run.Starting(">>>> Unloading <"), (std::vector<std::string>{
                                                  ">>>> Unloading <ChainA>...",
                                                  ">>>> Unloading <ChainB>...",
                                                  ">>>> Unloading <ChainC>...",
                                              }));
  EXPECT_EQ(run.exitCode, 0);
}

TEST(PlugInHostTest, DependencyCycleIsReportedAndItsMembersAreNotInitialised) {
  const HostRun run = RunList({"cycle_a", "cycle_b", "good"});
  EXPECT_TRUE(run.Has("ERR> *** Dependency cycle: CycleA -> CycleB -> CycleA")) << run.output;
  const std::vector<std::string> refused = run.Starting("ERR> *** <Cycle");
  ASSERT_EQ(refused.size(), 2u) << run.output;
  for (const std::string& line : refused)
    EXPECT_NE(line.find(", which is not initialised"), std::string::npos) << line;
  EXPECT_EQ(run.Starting(">>>> Initializing <"), std::vector<std::string>{">>>> Initializing <Good>... Done."});
  EXPECT_TRUE(run.Has("Good: run"));
  EXPECT_EQ(run.exitCode, 0);
}

TEST(PlugInHostTest, MissingDependencyNamesBothPlugIns) {
  const HostRun run = RunList({"missingdep", "good"});
  EXPECT_TRUE(run.Has("ERR> *** <MissingDep> needs <Absent> {7E57AB1E-0000-0000-0000-000000000063}, which is not loaded"))
      << run.output;
  EXPECT_FALSE(run.Has("MissingDep: run"));
  EXPECT_TRUE(run.Has("Good: run"));
}

class PlugInHostSignalTest : public ::testing::TestWithParam<int> {};

TEST_P(PlugInHostSignalTest, QuitSignalStopsEveryThreadedPlugInBeforeTheExit) {
  ScratchDir dir;
  WriteList(dir / "osx.lst", {"worker", "good", "worker2"});
  Child host(HostCommand({"/osxpath:" + dir.Path().string()}), dir.Path().string());
  ASSERT_TRUE(host.WaitFor("Worker: started\n")) << host.Output();
  ASSERT_TRUE(host.WaitFor("Worker2: started\n")) << host.Output();
  host.Signal(GetParam());
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

INSTANTIATE_TEST_SUITE_P(InterruptAndTerminate, PlugInHostSignalTest, ::testing::Values(SIGINT, SIGTERM));

TEST(PlugInHostTest, ThreadedPlugInsThatFinishLetTheHostEndByItself) {
  ScratchDir dir;
  WriteFile(dir / "host.ini", "[Worker]\nTicks=3\n[Worker2]\nTicks=1\n");
  const HostRun run = RunList({"worker", "worker2"}, {"/config:" + dir / "host.ini"});
  EXPECT_TRUE(run.Has("RUN> Running <Worker>...(threaded)")) << run.output;
  EXPECT_TRUE(run.Has("Worker: done after 3 ticks")) << run.output;
  EXPECT_TRUE(run.Has("Worker2: done after 1 ticks")) << run.output;
  EXPECT_TRUE(run.Starting("Worker: stop").empty()) << "no stop for a finished plug-in: " << run.output;
  EXPECT_EQ(run.exitCode, 0);
}

TEST(PlugInHostTest, ThreadedRunStepThatThrowsStillFinishes) {
  const HostRun run = RunList({"threadthrows"});
  EXPECT_TRUE(run.Has("ERR> *** ThreadThrows: ThreadThrows is broken")) << run.output;
  EXPECT_EQ(run.lines.back(), kExit);
  EXPECT_EQ(run.exitCode, 0);
}

TEST(PlugInHostTest, OverlongAndUnreadableListsAreReported) {
  ScratchDir dir;
  const std::string overlong(261, 'x');
  WriteFile(dir / "osx.lst", Module("good") + "\n" + overlong + "\n" + std::string(260, ' ') + "\n");
  fs::create_directories(dir / "sub/osx.lst"); // a list file that cannot be read
  fs::copy_file(Module("chain_c"), dir / "sub/chain_c.osx");
  const HostRun run = RunHost({"/osxpath:" + dir.Path().string(), "/osxpath:" + dir / "sub"}, "/");

  EXPECT_TRUE(run.Has("ERR> *** " + dir / "osx.lst" + ": line 2 is longer than 260 characters; skipped"))
      << run.output;
  EXPECT_EQ(run.Starting("ERR> *** The plug-ins list file cannot be read: ").size(), 1u) << run.output;
  EXPECT_TRUE(run.Has("Retrieving plug-ins from " + dir / "sub" + "/*.osx...")) << run.output;
  EXPECT_TRUE(run.Has("Good: run") && run.Has("ChainC: run")) << run.output;
  EXPECT_EQ(run.exitCode, 0);
}

TEST(PlugInHostTest, DirectoryGivenTwiceIsSearchedOnce) {
  ScratchDir dir;
  WriteList(dir / "osx.lst", {"good"});
  const std::string again = dir.Path().string() + "/./";
  const HostRun run = RunHost({"/osxpath:" + dir.Path().string(), "-OSXPATH:" + again, "/osxpath"}, "/");
  EXPECT_TRUE(run.Has(">>>> " + again + " is given to /osxpath more than once: searched once.")) << run.output;
  EXPECT_TRUE(run.Has("ERR> *** /osxpath needs a directory or a list file: /osxpath:{directory}")) << run.output;
  EXPECT_EQ(run.Count("Good: run"), 1u) << run.output;
  EXPECT_TRUE(run.Starting("ERR> *** Duplicate").empty()) << run.output;
}

TEST(PlugInHostTest, DependencyInAnEarlierDirectoryIsFound) {
  ScratchDir first;
  ScratchDir second;
  WriteList(first / "osx.lst", {"chain_c"});
  WriteList(second / "osx.lst", {"chain_b"});
  const HostRun run = RunHost({"/osxpath:" + first.Path().string(), "/osxpath:" + second.Path().string()}, "/");
  EXPECT_EQ(run.Starting("RUN> "),
            (std::vector<std::string>{"RUN> Running <ChainC>...", "RUN> Running <ChainB>..."}))
      << run.output;
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

TEST(PlugInHostTest, TraceZeroSilencesTheConsole) {
  const HostRun run = RunList({"good", "missingdep"}, {"/trace:0"});
  EXPECT_EQ(run.output, "");
  EXPECT_EQ(run.exitCode, 0);
}

TEST(PlugInHostTest, ConsoleToFileWithoutConsoleKeepsEveryLineInTheFile) {
  ScratchDir dir;
  WriteList(dir / "osx.lst", {"good"});
  const HostRun run =
      RunHost({"/osxpath:" + dir.Path().string(), "/consoleToFile:" + dir / "host.log", "/noConsole"}, "/");
  EXPECT_EQ(run.output, "");
  const std::vector<std::string> logged = SplitLines(ReadFile(dir / "host.log"));
  ASSERT_FALSE(logged.empty());
  EXPECT_EQ(logged.front(), "Retrieving plug-ins from " + dir / "osx.lst" + "...");
  EXPECT_EQ(std::count(logged.begin(), logged.end(), "Good: run"), 1);
  EXPECT_EQ(logged.back(), kExit);
}
