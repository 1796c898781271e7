// The trace switched on from the environment. The environment is read once per process, so each
// case runs the trace child program with an environment of its own and checks what it printed and
// the trace file that appeared.
#include "TraceTestSupport.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

namespace {

using Environment = std::map<std::string, std::string>;

struct TracedRun {
  ChildResult child;
  Texts lines; // of its trace file
  bool folderMade = false;
};

// Runs the child with DK_TRACE=SO and a trace folder that does not exist yet, so every case also
// checks that the folder is made with its parents; `env` adds variables or replaces these.
TracedRun RunTracing(const Texts& commands, Environment env = {}) {
  const ScratchFolder scratch;
  const fs::path folder = scratch / "one" / "two";
  env.emplace("DK_TRACE", "SO");
  env.emplace("DK_TRACE_FOLDER", folder.string());
  TracedRun run{RunTraceChild(commands, env), {}};
  run.lines = ChildTraceLines(folder, run.child);
  run.folderMade = fs::exists(folder);
  return run;
}

Texts Quietly(bool quiet, Texts commands) {
  if (quiet)
    commands.insert(commands.begin(), "quiet");
  return commands;
}

// The values of cases/env_no_subjects.txt.
TEST(DKTraceEnvironmentTest, WithoutKnownSubjectsNothingIsTracedAndNoFileAppears) {
  for (const dktest::CaseLine& c : Cases("env_no_subjects.txt", 1)) {
    const ScratchFolder folder;
    Environment env{{"DK_TRACE_FOLDER", folder.Path().string()}};
    if (c[0] != "-")
      env["DK_TRACE"] = c[0];
    const ChildResult child = RunTraceChild({"enabled", "filter", "1", "0x3FF", "msg", "1", "1", "hello"}, env);
    EXPECT_EQ(child.exitCode, 0) << c.where;
    EXPECT_EQ(child.output, "enabled=0\nfilter=0\n") << c.where;
    EXPECT_TRUE(FilesIn(folder.Path()).empty()) << c.where;
  }
}

TEST(DKTraceEnvironmentTest, SubjectListKeepsExactCodesAndTracesBesideTheExecutable) {
  Texts commands{"enabled"};
  for (const char* subject : {"0x1", "0x2", "0x4", "0x8", "0x10", "0x20", "0x40", "0x80", "0x100", "0x200"})
    commands.insert(commands.end(), {"filter", "1", subject});
  commands.insert(commands.end(), {"msg", "1", "0x1", "socket line", "msg", "1", "0x10", "database line"});
  const ChildResult child = RunTraceChild(commands, {{"DK_TRACE", " so, SO ,XX"}});

  const fs::path file =
      TraceFile(fs::canonical(fs::path(DK_TRACE_CHILD_PATH).parent_path()), ChildExecutableBase(), child.pid);
  const Texts lines = TraceFileLines(file);
  std::error_code ignored;
  fs::remove(file, ignored);

  EXPECT_EQ(child.exitCode, 0);
  std::string expected = "enabled=1\nfilter=1\n";
  for (int i = 1; i < 10; ++i)
    expected += "filter=0\n";
  EXPECT_EQ(child.output, expected);
  ASSERT_EQ(lines.size(), 1u) << file;
  EXPECT_EQ(Parsed(lines[0]).threadId, std::to_string(child.mainThread));
  EXPECT_EQ(Digests(lines), Texts{"child|1|SO|socket line"});
}

// The values of cases/env_levels.txt: level 1 always passes; the hex block needs bit 8.
TEST(DKTraceEnvironmentTest, TraceLevelIsAMaskWithLevelOneAlwaysOn) {
  for (const dktest::CaseLine& c : Cases("env_levels.txt", 2)) {
    const TracedRun run =
        RunTracing({"filter", "1", "1", "filter", "2", "1", "filter", "4", "1", "filter", "8", "1", "hex", "1", "20"},
                   {{"DK_TRACE_LEVEL", c[0]}});
    std::string expected;
    for (const char passes : c[1])
      expected += std::string("filter=") + passes + "\n";
    EXPECT_EQ(run.child.output, expected) << c.where;
    // The summary, then the two rows of 20 bytes when bit 8 is on (the rows' text:
    // DKTraceFileTest.HexDumpOf20BytesHasAFullRowAndAPaddedRow).
    ASSERT_EQ(run.lines.size(), c[1][3] == '1' ? 3u : 1u) << c.where;
    EXPECT_EQ(Parsed(run.lines[0]).text, "(nrbytes=20): ");
  }
}

// The values of cases/env_delimiters.txt, each with the console's complaints on and off.
TEST(DKTraceEnvironmentTest, DelimiterIsACharacterCodeOneTo255) {
  for (const dktest::CaseLine& c : Cases("env_delimiters.txt", 3)) {
    for (const bool quiet : {false, true}) {
      const TracedRun run =
          RunTracing(Quietly(quiet, {"enabled", "msg", "1", "1", "text"}), {{"DK_TRACE_DELIM", c[0]}});
      EXPECT_EQ(run.child.output, (c.YesNo(2) && !quiet ? kIllegalDelimiter : "") + "enabled=1\n")
          << c.where << (quiet ? " quiet" : "");
      EXPECT_EQ(Digests(run.lines, static_cast<char>(Number(c, 1))), Texts{"child|1|SO|text"}) << c.where;
    }
  }
}

TEST(DKTraceEnvironmentTest, FolderThatCannotBeCreatedFallsBackToTheTemporaryFolder) {
  const ScratchFolder scratch;
  const fs::path temp = scratch / "tmp";
  fs::create_directory(temp);
  WriteWholeFile(scratch / "file", "in the way");
  for (const fs::path& folder : {scratch / "file", scratch / "file" / "sub"}) {
    for (const bool quiet : {false, true}) {
      const ChildResult child =
          RunTraceChild(Quietly(quiet, {"enabled", "msg", "1", "1", "text"}),
                        {{"DK_TRACE", "SO"}, {"DK_TRACE_FOLDER", folder.string()}, {dktest::TempFolderVariable(), temp.string() + "/"}});
      EXPECT_EQ(child.output, (quiet ? "" : "Cannot create folder " + folder.string() + "\n") + "enabled=1\n");
      EXPECT_EQ(ChildTraceLines(temp, child).size(), 1u) << folder;
    }
  }
  EXPECT_EQ(ReadWholeFile(scratch / "file"), "in the way");
}

// The file cannot be opened when the environment switches tracing on, so tracing stays off.
TEST(DKTraceEnvironmentTest, FolderWithoutWriteAccessLeavesTracingOff) {
  if (dktest::UnwritableFolder().empty())
    GTEST_SKIP() << "no folder refuses files on this system";
  const TracedRun run = RunTracing({"enabled", "filter", "1", "1", "msg", "1", "1", "lost", "hex", "1", "20"},
                                   {{"DK_TRACE_FOLDER", dktest::UnwritableFolder().string()}});
  EXPECT_EQ(run.child.exitCode, 0);
  EXPECT_EQ(run.child.output, "Cannot open trace file " +
                                  TraceFile(dktest::UnwritableFolder(), ChildExecutableBase(), run.child.pid).string() +
                                  "\nenabled=0\nfilter=0\n");
}

TEST(DKTraceEnvironmentTest, SettersBeforeTheFirstQueryWinOverTheEnvironment) {
  const ScratchFolder ownFolder;
  const TracedRun run = RunTracing({"level",    "2",    "delim",  "59", "folder", ownFolder.Path().string(),
                                    "subjects", "DB",   "filter", "1",  "0x1",    "filter",
                                    "1",        "0x10", "filter", "8",  "0x10",   "filter",
                                    "2",        "0x10", "msg",    "2",  "0x10",   "mine"},
                                   {{"DK_TRACE_LEVEL", "8"}, {"DK_TRACE_DELIM", "44"}});
  EXPECT_EQ(run.child.output, "level=1\ndelim=1\nfolder=1\nsubjects=1\nfilter=0\nfilter=1\nfilter=0\nfilter=1\n");
  EXPECT_FALSE(run.folderMade);
  EXPECT_EQ(Digests(ChildTraceLines(ownFolder.Path(), run.child), ';'), Texts{"child|2|DB|mine"});
}

TEST(DKTraceEnvironmentTest, SubjectSetterAloneStillTakesTheOtherVariables) {
  const TracedRun run =
      RunTracing({"subjects", "DB", "filter", "8", "0x10", "filter", "1", "0x1", "msg", "1", "0x10", "x"},
                 {{"DK_TRACE_LEVEL", "8"}, {"DK_TRACE_DELIM", "59"}});
  EXPECT_EQ(run.child.output, "subjects=1\nfilter=1\nfilter=0\n");
  EXPECT_EQ(Digests(run.lines, ';'), Texts{"child|1|DB|x"});
}

} // namespace
