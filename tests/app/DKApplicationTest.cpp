#include <DorvikCore/DKApplication.h>
#include <DorvikCore/DKTrace.h>

#include "AppTestSupport.h"
#include "support/DKCaseFile.h"

#include <cstdlib>
#include <iostream>

using namespace apptest;

namespace {

using DKApplicationTest = ConsoleTest;

TEST_F(DKApplicationTest, GivesTheFourFormsOfTheNameAndTheDirectory) {
  for (const dktest::CaseLine& c : dktest::ReadCases(fs::path(DK_APP_CASES) / "app_names.txt", 6)) {
    SCOPED_TRACE(c.where);
    const char* argv[] = {c[0].c_str(), "/noConsole"};
    DKApplication app(2, argv);
    EXPECT_EQ(app.GetAppName(true, true).AsUTF8(), c[1]);
    EXPECT_EQ(app.GetAppName(true, false).AsUTF8(), c[2]);
    EXPECT_EQ(app.GetAppName(false, true).AsUTF8(), c[3]);
    EXPECT_EQ(app.GetAppName(false, false).AsUTF8(), c[4]);
    EXPECT_EQ(app.GetAppPath().AsUTF8(), c[5]);
  }
}

TEST_F(DKApplicationTest, DefaultsToTraceLevel1WithTheConsoleAndBecomesTheTraceProvider) {
  ScratchDir dir;
  DKApplication app(Text(dir / "prog.exe"));
  EXPECT_EQ(DKApplication::GetLogManager().GetSubscriberCount(app.GetChannelId()), 1u);
  EXPECT_EQ(DKApplication::GetLogManager().GetChannelName(app.GetChannelId()),
            DKString(DK_T("DKApplicationChannel")));
  EXPECT_EQ(app.GetMainThreadId(), DKThread::GetCurrentThreadID().m_threadID);
  app.GetCout() << "to the console" << std::endl;
  DKApplication::GetAppCout(2) << "too detailed" << std::endl;
  DKApplication::GetAppCout(1) << "normal" << std::endl;
  app.SetTraceLevel(2);
  EXPECT_EQ(GlbGetTraceLevel(), 2u);
  DKApplication::GetAppCout(2) << "detailed now" << std::endl;
  EXPECT_EQ(Console(), "to the console\nnormal\ndetailed now\n");
}

TEST_F(DKApplicationTest, TraceOptionSetsTheLevelAndSetTraceLevelChangesEverySubscriber) {
  for (const dktest::CaseLine& c : dktest::ReadCases(fs::path(DK_APP_CASES) / "trace_options.txt", 2)) {
    const char* argv[] = {"prog", c[0].c_str()};
    DKApplication app(2, argv);
    EXPECT_EQ(app.GetTraceLevel(), c.Int(1)) << c.where;
  }
  // Level 0 silences a passed subscriber until the level is raised.
  DKSmartPtr<Recorder> recorder(new Recorder);
  DKApplication app(DKString(DK_T("prog /trace:0")), recorder.Get());
  app.GetCout(1) << "silent" << std::endl;
  app.SetTraceLevel(1);
  app.GetCout(1) << "heard" << std::endl;
  EXPECT_EQ(recorder->Text(), "heard\n");
  EXPECT_EQ(Console(), "") << "a passed subscriber takes the console's place";
}

TEST_F(DKApplicationTest, ConsoleOptionsSendTheOutputToTheConsoleTheFileBothOrNowhere) {
  ScratchDir dir;
  const struct {
    std::string options, file;
    bool console;
  } cases[] = {{"", "", true},
               {"/noconsole", "", false},
               {"/consoleToFile /noConsole", "prog.log", false},
               {"/consoleToFile:" + dir / "named.log", "named.log", true}};
  for (const auto& c : cases) {
    m_console.Clear();
    {
      DKApplication app(Text(dir / "prog.exe " + c.options));
      app.GetCout() << "line" << std::endl;
    }
    EXPECT_EQ(Console(), c.console ? "line\n" : "") << c.options;
    EXPECT_EQ(fs::exists(dir / "prog.log"), c.file == "prog.log") << c.options;
    if (!c.file.empty()) {
      EXPECT_EQ(ReadWholeFile(dir / c.file), "line\n") << c.options;
      fs::remove(dir / c.file);
    }
  }
}

TEST_F(DKApplicationTest, LogFilesAreWrittenOnceWhateverTheirNameAndAnUnwritableOneIsRefused) {
  ScratchDir dir;
  DKApplication app(Text(dir / "prog.exe /noConsole"));
  EXPECT_FALSE(app.StartLoggingToFile(Text(dir / "missing/x.log"), false));
  EXPECT_NE(Console().find("ERR> *** cannot open the log file " + dir / "missing/x.log"), std::string::npos)
      << Console();
  EXPECT_TRUE(app.StartLoggingToFile(Text(dir / "ok.log"), true));
  fs::create_hard_link(dir / "ok.log", dir / "hard.log");
  std::vector<std::string> names{dir / "ok.log", dir / "./ok.log", dir / "hard.log"};
  std::error_code noLink; // Wine makes no symbolic links
  fs::create_symlink(dir / "ok.log", dir / "soft.log", noLink);
#if !defined(_WIN32)
  ASSERT_FALSE(noLink) << noLink.message();
#endif
  if (!noLink)
    names.push_back(dir / "soft.log");
  for (const std::string& again : names)
    EXPECT_TRUE(app.StartLoggingToFile(Text(again), true)) << again;
  EXPECT_TRUE(app.StartLoggingToFile(Text(dir / "other.log"), false));
  app.GetCout() << "line" << std::endl;
  EXPECT_EQ(ReadWholeFile(dir / "ok.log"), "line\n");
  EXPECT_EQ(ReadWholeFile(dir / "other.log"), "line\n");
  const std::vector<std::string> lines = SplitLines(Console());
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "line"), 1) << "the console is added once too: " << Console();
}

TEST_F(DKApplicationTest, ConfigurationIsFoundBesideTheProgramThenInTheWorkingDirectoryOrReported) {
  ScratchDir dir;
  fs::create_directory(dir / "debug");
  WriteWholeFile(dir / "prog.ini", "[DKORE]\nDebugPath=" + dir / "debug" + "\n[Other]\nkey=value\n");
  {
    DKApplication app(Text(dir / "prog.exe"));
    ASSERT_TRUE(app.GetConfigFile());
    EXPECT_EQ(app.GetConfigFile()->GetString(DK_T("other"), DK_T("KEY")), DKString(DK_T("value")));
    EXPECT_EQ(app.GetTmpDirectory().AsUTF8(), dir / "debug");
    const std::string errorLog = DKApplication::GetLogManager().GetErrorLogFile().AsUTF8();
    EXPECT_EQ(errorLog, (fs::path(dir / "debug") / "DorvikCoreAppTests-ERROR.LOG").string());
  }
  // Not beside the program: found by name in the working directory.
  WriteWholeFile(dir / "prog.ini", "[DKORE]\n");
  const fs::path previous = fs::current_path();
  fs::current_path(dir.Path());
  {
    DKApplication app(DKString(DK_T("/elsewhere/bin/prog.exe")));
    ASSERT_TRUE(app.GetConfigFile());
    EXPECT_EQ(app.GetConfigFile()->GetFileName().AsUTF8(), dir / "prog.ini");
    EXPECT_EQ(app.GetTmpDirectory(), DKString(DK_T("."))) << "DebugPath defaults to \".\"";
  }
  fs::current_path(previous);

  // Named by /config but missing or not valid: reported, and there is no configuration.
  WriteWholeFile(dir / "bad.ini", "[Unclosed\nkey=value\n");
  const std::pair<std::string, std::string> cases[] = {
      {dir / "missing.ini", "ERR> *** Cannot read the configuration file " + dir / "missing.ini"},
      {dir / "bad.ini", "ERR> *** The configuration file " + dir / "bad.ini" + " is not valid: "}};
  for (const auto& [file, message] : cases) {
    DKApplication app(Text("prog /config:" + file));
    EXPECT_FALSE(app.GetConfigFile());
    EXPECT_NE(Console().find(message), std::string::npos) << Console();
  }
}

TEST_F(DKApplicationTest, WhatTheConfigurationHoldsBesideSettingsGoesToTheTraceAndOneConsoleLine) {
  ScratchDir dir;
  WriteWholeFile(dir / "prog.ini", "# a comment of another kind\n[DKORE]\nDebugPath=.\n[Other]\nkey=value\n");
  const std::string summary = "ERR> *** The configuration file " + dir / "prog.ini" +
                              " holds text that is no setting: lines starting with '#' read as text: 1 (first on line 1); "
                              "section headers inside a key: 1 (first on line 2); keys over several lines: 1 (first on "
                              "line 1); key lines before the first section, kept as text: 1 (first on line 1)";
  fs::create_directory(dir / "trace");
  ASSERT_TRUE(DKTrace::SetTraceFolderName(Text(dir / "trace").c_str()));
  ASSERT_TRUE(DKTrace::SetTraceSubjects(DK_T("DK")));
  {
    DKApplication app(Text(dir / "prog.exe"));
    ASSERT_TRUE(app.GetConfigFile());
    EXPECT_EQ(app.GetConfigFile()->GetString(DK_T("Other"), DK_T("key")), DKString(DK_T("value")));
    EXPECT_TRUE(ConsoleHas(summary)) << Console();
  }
  DKTrace::SetTraceSubjects(nullptr);
  std::string trace;
  for (const auto& entry : fs::directory_iterator(dir / "trace"))
    trace += ReadWholeFile(entry.path().string());
  for (const char* note : {"line 1: a line starting with '#'", "line 2: a section header inside a key",
                           "lines 1-3: a key spans several lines", "lines 1-3: a key line before the first section"})
    EXPECT_NE(trace.find("configuration file " + dir / "prog.ini" + ": " + note), std::string::npos) << note << "\n" << trace;

  // Silent at trace level 0; nothing to say about a file of settings only.
  m_console.Clear();
  { DKApplication app(Text(dir / "prog.exe /trace:0")); }
  EXPECT_EQ(Console().find("holds text"), std::string::npos) << Console();
  WriteWholeFile(dir / "prog.ini", "[DKORE]\nDebugPath=.\n");
  { DKApplication app(Text(dir / "prog.exe")); }
  EXPECT_EQ(Console().find("holds text"), std::string::npos) << Console();
}

TEST_F(DKApplicationTest, WithoutConfigurationTheTemporaryDirectoryComesFromTheEnvironment) {
  ScratchDir dir;
  const std::string missing = dir / "missing", folder = dir.Path().string();
  struct Case {
    const char* tmp;
    const char* tmpdir;
    std::string expected;
  } cases[] = {
      {folder.c_str(), nullptr, folder},
      {missing.c_str(), folder.c_str(), folder},
      {missing.c_str(), missing.c_str(), "."},
      {nullptr, nullptr, "."},
  };
  for (const Case& c : cases) {
    ScopedEnv tmp("TMP", c.tmp);
    ScopedEnv tmpdir("TMPDIR", c.tmpdir);
    DKApplication app(DKString(DK_T("/nowhere/prog /noConsole")));
    EXPECT_EQ(app.GetTmpDirectory().AsUTF8(), c.expected) << (c.tmp ? c.tmp : "(unset)");
  }
}

TEST_F(DKApplicationTest, UsageScreenShowsTheStandardOptionsThenTheCustomOnesWhenAskedFor) {
  DKApplication app(DKString(DK_T("/opt/bin/prog /noConsole")));
  DKUsageInfo custom(DKString(DK_T("Custom part:")));
  custom.AddCmdLineArgDesc("custom", "A custom option.");
  app.AddCustomUsageInfo(custom);
  std::ostringstream out;
  app.DisplayUsage(&out);
  std::vector<std::string> lines = SplitLines(out.str());
  for (std::string& line : lines) // the padding to the screen's width is the layout's business
    line.erase(line.find_last_not_of(' ') + 1);
  std::vector<std::string> expected;
  for (const dktest::CaseLine& line : dktest::ReadCases(fs::path(DK_APP_CASES) / "usage_screen.txt", 1))
    expected.push_back(line[0]);
  EXPECT_EQ(lines, expected) << out.str();

  // Shown only when asked for.
  for (const dktest::CaseLine& c : dktest::ReadCases(fs::path(DK_APP_CASES) / "usage_asked.txt", 2)) {
    DKApplication asked{Text(c[0])};
    std::ostringstream shown;
    EXPECT_EQ(asked.DisplayUsageIfNecessary(&shown), c.YesNo(1)) << c.where;
    EXPECT_EQ(shown.str().empty(), !c.YesNo(1)) << c.where;
  }
  DKApplication console{DKString(DK_T("prog /?"))};
  EXPECT_TRUE(console.DisplayUsageIfNecessary());
  EXPECT_NE(Console().find("USAGE: prog. [options list] \n"), std::string::npos) << "shown on the console by default";
}

TEST_F(DKApplicationTest, LaterApplicationsPointBackShutDownRestoresTheCurrentOneAndEmptyLinesWork) {
  EXPECT_EQ(DKApplication::GetApp(), nullptr);
  // Without an application: the system's console stream (std::cout on Linux; the DLL's own on
  // Windows), the one the console falls back to.
  std::ostream* const captured = DKLockedCOUT::SetConsoleStream(nullptr);
  std::ostream* const system = DKLockedCOUT::SetConsoleStream(captured);
  EXPECT_EQ(&DKApplication::GetAppCout(1), system);
#if !defined(_WIN32)
  EXPECT_EQ(system, &std::cout);
#endif
  auto first = std::make_unique<DKApplication>(DKString(DK_T("first /trace:2 /noConsole")));
  {
    DKApplication second(DKString(DK_T("second /trace:0 /noConsole")));
    EXPECT_EQ(DKApplication::GetApp(), &second);
    EXPECT_EQ(GlbGetTraceLevel(), 0u);
  }
  EXPECT_EQ(DKApplication::GetApp(), first.get());
  EXPECT_EQ(GlbGetTraceLevel(), 2u);

  // Out of order: the first goes while the third is current.
  auto third = std::make_unique<DKApplication>(DKString(DK_T("third /noConsole")));
  first.reset();
  EXPECT_EQ(DKApplication::GetApp(), third.get());
  third.reset();
  EXPECT_EQ(DKApplication::GetApp(), nullptr) << "never the destroyed first application";
  EXPECT_EQ(GlbGetTraceLevel(), 1u);

  // Empty command lines make working applications.
  {
    DKApplication app{DKString()};
    EXPECT_EQ(app.GetAppName(), DKString());
    EXPECT_FALSE(app.GetConfigFile());
    EXPECT_FALSE(app.DisplayUsageIfNecessary());
  }
  DKApplicationWithPlugIns app(0, static_cast<const char* const*>(nullptr));
  EXPECT_TRUE(app.IsAppWithPlugIn());
  EXPECT_EQ(DKApplicationWithPlugIns::GetApp(), &app);
}

TEST(DKApplicationPathTest, AddToPathPutsTheTextFirst) {
#if defined(_WIN32)
  const std::string separator = ";";
#else
  const std::string separator = ":";
#endif
  ScopedEnv path("PATH", "/usr/bin:/bin");
  DKApplication::AddToPath(DK_T("/opt/plugins"));
  EXPECT_EQ(std::string(std::getenv("PATH")), "/opt/plugins" + separator + "/usr/bin:/bin");
  DKApplication::AddToPath(L"/wide");
  EXPECT_EQ(std::string(std::getenv("PATH")), "/wide" + separator + "/opt/plugins" + separator + "/usr/bin:/bin");
}

} // namespace
