#include <DorvikCore/DKApplication.h>
#include <DorvikCore/DKConsole.h>

#include "AppTestSupport.h"

#include <cstdlib>
#include <iostream>
#include <mutex>
#include <sstream>
#include <thread>

using namespace apptest;

namespace {

// Captures the console for the length of a test.
class DKApplicationTest : public ::testing::Test {
protected:
  void SetUp() override { m_previous = DKLockedCOUT::SetConsoleStream(&m_console); }
  void TearDown() override { DKLockedCOUT::SetConsoleStream(m_previous); }
  std::string Console() const { return m_console.str(); }

  std::ostringstream m_console;
  std::ostream* m_previous = nullptr;
};

// Keeps every line it is given.
class Recorder : public DKLogSubscriberI {
public:
  void Write(std::uint32_t, std::uint32_t, std::string_view text) override {
    std::lock_guard guard(m_lock);
    m_text += text;
  }
  std::string Text() const {
    std::lock_guard guard(m_lock);
    return m_text;
  }

private:
  mutable std::mutex m_lock;
  std::string m_text;
};

// Sets an environment variable for the length of a scope, then restores it.
class ScopedEnv {
public:
  ScopedEnv(const char* name, const char* value) : m_name(name) {
    if (const char* old = std::getenv(name))
      m_old = old, m_had = true;
    if (value)
      setenv(name, value, 1);
    else
      unsetenv(name);
  }
  ~ScopedEnv() {
    if (m_had)
      setenv(m_name, m_old.c_str(), 1);
    else
      unsetenv(m_name);
  }

private:
  const char* m_name;
  std::string m_old;
  bool m_had = false;
};

struct NameCase {
  const char* program;
  const char* both;
  const char* withPath;
  const char* withExtension;
  const char* neither;
  const char* path;
};

class DKApplicationNameTest : public DKApplicationTest, public ::testing::WithParamInterface<NameCase> {};

TEST_P(DKApplicationNameTest, GivesTheFourFormsAndTheDirectory) {
  const NameCase& c = GetParam();
  const char* argv[] = {c.program, "/noConsole"};
  DKApplication app(2, argv);
  EXPECT_EQ(app.GetAppName(true, true).AsUTF8(), c.both);
  EXPECT_EQ(app.GetAppName(true, false).AsUTF8(), c.withPath);
  EXPECT_EQ(app.GetAppName(false, true).AsUTF8(), c.withExtension);
  EXPECT_EQ(app.GetAppName(false, false).AsUTF8(), c.neither);
  EXPECT_EQ(app.GetAppPath().AsUTF8(), c.path);
}

INSTANTIATE_TEST_SUITE_P(
    Programs, DKApplicationNameTest,
    ::testing::Values(NameCase{"/opt/app/host.bin", "/opt/app/host.bin", "/opt/app/host", "host.bin", "host", "/opt/app/"},
                      NameCase{"host", "host", "host", "host.", "host", ""},
                      NameCase{"./v1.2/my.host.exe", "./v1.2/my.host.exe", "./v1.2/my.host", "my.host.exe", "my.host",
                               "./v1.2/"},
                      NameCase{"", "", "", ".", "", ""}));

TEST_F(DKApplicationTest, DefaultsToTraceLevel1WithTheConsoleAndBecomesTheTraceProvider) {
  ScratchDir dir;
  DKApplication app(Text(dir / "prog.exe"));
  EXPECT_EQ(DKApplication::GetApp(), &app);
  EXPECT_EQ(app.GetTraceLevel(), 1u);
  EXPECT_EQ(GlbGetTraceLevel(), 1u);
  EXPECT_EQ(DKApplication::GetLogManager().GetSubscriberCount(app.GetChannelId()), 1u);
  EXPECT_EQ(DKApplication::GetLogManager().GetChannelName(app.GetChannelId()),
            DKString(DK_T("DKApplicationChannel")));
  EXPECT_FALSE(app.GetConfigFile());
  EXPECT_EQ(app.GetMainThreadId(), DKThread::GetCurrentThreadID().m_threadID);
  app.GetCout() << "to the console" << std::endl;
  DKApplication::GetAppCout(2) << "too detailed" << std::endl;
  DKApplication::GetAppCout(1) << "normal" << std::endl;
  app.SetTraceLevel(2);
  EXPECT_EQ(GlbGetTraceLevel(), 2u);
  DKApplication::GetAppCout(2) << "detailed now" << std::endl;
  EXPECT_EQ(Console(), "to the console\nnormal\ndetailed now\n");
}

struct TraceCase {
  const char* option;
  std::uint32_t level;
};

class DKApplicationTraceTest : public DKApplicationTest, public ::testing::WithParamInterface<TraceCase> {};

TEST_P(DKApplicationTraceTest, TraceOptionSetsTheLevel) {
  const char* argv[] = {"prog", GetParam().option};
  DKApplication app(2, argv);
  EXPECT_EQ(app.GetTraceLevel(), GetParam().level);
  EXPECT_EQ(GlbGetTraceLevel(), GetParam().level);
}

INSTANTIATE_TEST_SUITE_P(Options, DKApplicationTraceTest,
                         ::testing::Values(TraceCase{"/trace:0", 0}, TraceCase{"-TRACE:2", 2},
                                           TraceCase{"/trace:abc", 0}, TraceCase{"/other", 1},
                                           TraceCase{"trace", 1}));

TEST_F(DKApplicationTest, TraceZeroSilencesTheConsoleAndSetTraceLevelChangesEverySubscriber) {
  DKSmartPtr<Recorder> recorder(new Recorder);
  DKApplication app(DKString(DK_T("prog /trace:0")), recorder.Get());
  app.GetCout(1) << "silent" << std::endl;
  app.SetTraceLevel(1);
  app.GetCout(1) << "heard" << std::endl;
  EXPECT_EQ(recorder->Text(), "heard\n");
  EXPECT_EQ(Console(), "") << "a passed subscriber takes the console's place";
}

TEST_F(DKApplicationTest, NoConsoleAloneSuppressesEveryOutput) {
  DKApplication app(DKString(DK_T("prog /noconsole")));
  EXPECT_EQ(DKApplication::GetLogManager().GetSubscriberCount(app.GetChannelId()), 0u);
  app.GetCout() << "nowhere" << std::endl;
  EXPECT_EQ(Console(), "");
}

TEST_F(DKApplicationTest, ConsoleToFileWritesTheFileWithOrWithoutTheConsole) {
  ScratchDir dir;
  {
    DKApplication app(Text(dir / "prog.exe /consoleToFile /noConsole"));
    app.GetCout() << "only in the file" << std::endl;
  }
  EXPECT_EQ(ReadFile(dir / "prog.log"), "only in the file\n");
  EXPECT_EQ(Console(), "");
  {
    DKApplication app(Text(dir / "prog.exe /consoleToFile:" + dir / "named.log"));
    app.GetCout() << "in both" << std::endl;
  }
  EXPECT_EQ(ReadFile(dir / "named.log"), "in both\n");
  EXPECT_EQ(Console(), "in both\n");
}

TEST_F(DKApplicationTest, UnwritableLogFileIsReportedAndRefused) {
  ScratchDir dir;
  DKApplication app(Text(dir / "prog.exe /noConsole"));
  EXPECT_FALSE(app.StartLoggingToFile(Text(dir / "missing/x.log"), false));
  EXPECT_NE(Console().find("ERR> *** cannot open the log file " + dir / "missing/x.log"), std::string::npos)
      << Console();
  EXPECT_TRUE(app.StartLoggingToFile(Text(dir / "ok.log"), true));
  app.GetCout() << "line" << std::endl;
  EXPECT_EQ(ReadFile(dir / "ok.log"), "line\n");
}

TEST_F(DKApplicationTest, ConfigurationBesideTheProgramGivesTheTemporaryDirectoryAndErrorLog) {
  ScratchDir dir;
  fs::create_directory(dir / "debug");
  WriteFile(dir / "prog.ini", "[DKORE]\nDebugPath=" + dir / "debug" + "\n[Other]\nkey=value\n");
  DKApplication app(Text(dir / "prog.exe"));
  ASSERT_TRUE(app.GetConfigFile());
  EXPECT_EQ(app.GetConfigFile()->GetString(DK_T("other"), DK_T("KEY")), DKString(DK_T("value")));
  EXPECT_EQ(app.GetTmpDirectory().AsUTF8(), dir / "debug");
  const std::string errorLog = DKApplication::GetLogManager().GetErrorLogFile().AsUTF8();
  EXPECT_EQ(errorLog, dir / "debug/DorvikCoreAppTests-ERROR.LOG");
}

TEST_F(DKApplicationTest, ConfigurationInTheWorkingDirectoryIsFoundByName) {
  ScratchDir dir;
  WriteFile(dir / "prog.ini", "[DKORE]\n");
  const fs::path previous = fs::current_path();
  fs::current_path(dir.Path());
  {
    DKApplication app(DKString(DK_T("/elsewhere/bin/prog.exe")));
    ASSERT_TRUE(app.GetConfigFile());
    EXPECT_EQ(app.GetConfigFile()->GetFileName().AsUTF8(), dir / "prog.ini");
    EXPECT_EQ(app.GetTmpDirectory(), DKString(DK_T("."))) << "DebugPath defaults to \".\"";
  }
  fs::current_path(previous);
}

TEST_F(DKApplicationTest, ExplicitConfigurationThatCannotBeReadIsReported) {
  ScratchDir dir;
  WriteFile(dir / "bad.ini", "[Unclosed\nkey=value\n");
  {
    DKApplication app(Text("prog /config:" + dir / "missing.ini"));
    EXPECT_FALSE(app.GetConfigFile());
  }
  EXPECT_NE(Console().find("ERR> *** Cannot read the configuration file " + dir / "missing.ini"), std::string::npos)
      << Console();
  {
    DKApplication app(Text("prog /config:" + dir / "bad.ini"));
    EXPECT_FALSE(app.GetConfigFile());
  }
  EXPECT_NE(Console().find("ERR> *** The configuration file " + dir / "bad.ini" + " is not valid: "), std::string::npos)
      << Console();
}

TEST_F(DKApplicationTest, WithoutConfigurationTheTemporaryDirectoryComesFromTheEnvironment) {
  ScratchDir dir;
  const std::string missing = dir / "missing";
  struct Case {
    const char* tmp;
    const char* tmpdir;
    std::string expected;
  } cases[] = {
      {dir.Path().c_str(), nullptr, dir.Path().string()},
      {missing.c_str(), dir.Path().c_str(), dir.Path().string()},
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

// The option lines of the usage screen put back together: each name with its description,
// the chunks joined by the blanks the layout took out.
std::vector<std::pair<std::string, std::string>> ReadOptions(const std::vector<std::string>& lines, std::size_t from) {
  std::vector<std::pair<std::string, std::string>> options;
  for (std::size_t i = from; i < lines.size(); ++i) {
    const std::string& line = lines[i];
    const auto trimmed = [](std::string text) {
      text.erase(text.find_last_not_of(' ') + 1);
      return text;
    };
    if (line.rfind("   /", 0) == 0) {
      const std::string rest = line.substr(4);
      const std::size_t nameEnd = rest.find(' ');
      options.emplace_back(rest.substr(0, nameEnd), "");
      if (nameEnd != std::string::npos)
        options.back().second = trimmed(rest.substr(21));
    } else if (line.rfind(std::string(25, ' '), 0) == 0 && !options.empty()) {
      std::string& description = options.back().second;
      description += (description.empty() ? "" : " ") + trimmed(line.substr(25));
    }
  }
  return options;
}

TEST_F(DKApplicationTest, UsageScreenShowsTheStandardOptionsThenTheCustomOnes) {
  DKApplication app(DKString(DK_T("/opt/bin/prog /noConsole")));
  DKUsageInfo custom(DKString(DK_T("Custom part:")));
  custom.AddCmdLineArgDesc("custom", "A custom option.");
  app.AddCustomUsageInfo(custom);
  std::ostringstream out;
  app.DisplayUsage(&out);
  const std::vector<std::string> lines = SplitLines(out.str());
  const std::string stars(78, '*');
  ASSERT_GE(lines.size(), 5u);
  EXPECT_EQ(lines[0], stars);
  EXPECT_EQ(lines[1], stars);
  EXPECT_EQ(lines[2], "USAGE: prog. [options list] ");
  EXPECT_EQ(lines[3], stars);
  EXPECT_EQ(lines[4], "Options list: ");
  const std::vector<std::pair<std::string, std::string>> expected{
      {"config:{filename}",
       "Force the application to use a specific config file. If this option is ommited, then a config file which has "
       "the same file name than the application (+.ini) will be loaded."},
      {"trace:{tracelevel}", "Set the trace level of the application. 0-Silent, 1-Normal, 2-Maximum."},
      {"consoleToFile[:filename]",
       "Redirect the console to the specified file. If no filename is specified, then the application filename with "
       "the .log extension will be used."},
      {"noConsole", "When used with /consoleToFile option, this option will prevent the display to the console. "
                    "Display will only be redirected to the log file."},
      {"custom", "A custom option."},
  };
  EXPECT_EQ(ReadOptions(lines, 5), expected) << out.str();
  EXPECT_NE(out.str().find("\nCustom part:\n"), std::string::npos);
}

TEST_F(DKApplicationTest, UsageScreenIsShownOnlyWhenAskedFor) {
  const struct {
    const DKChar* line;
    bool asked;
  } cases[] = {{DK_T("prog /help"), true},    {DK_T("prog /?"), true},      {DK_T("prog -HELP"), true},
               {DK_T("prog /help:me"), true}, {DK_T("prog /helpme"), false}, {DK_T("prog help"), false}};
  for (const auto& c : cases) {
    DKApplication app{DKString(c.line)};
    std::ostringstream out;
    EXPECT_EQ(app.DisplayUsageIfNecessary(&out), c.asked) << DKString(c.line).AsUTF8();
    EXPECT_EQ(out.str().empty(), !c.asked);
  }
  DKApplication app{DKString(DK_T("prog /?"))};
  EXPECT_TRUE(app.DisplayUsageIfNecessary());
  EXPECT_NE(Console().find("USAGE: prog. [options list] \n"), std::string::npos) << "shown on the console by default";
}

TEST_F(DKApplicationTest, LaterApplicationsPointBackAndShutDownRestoresTheCurrentOne) {
  EXPECT_EQ(DKApplication::GetApp(), nullptr);
  EXPECT_EQ(&DKApplication::GetAppCout(1), &std::cout);
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
}

TEST_F(DKApplicationTest, EmptyCommandLinesMakeAWorkingApplication) {
  {
    DKApplication app{DKString()};
    EXPECT_EQ(app.GetAppName(), DKString());
    EXPECT_FALSE(app.GetConfigFile());
    EXPECT_FALSE(app.DisplayUsageIfNecessary());
  }
  DKApplicationWithPlugIns app(0, static_cast<const char* const*>(nullptr));
  EXPECT_TRUE(app.IsAppWithPlugIn());
  EXPECT_EQ(DKApplicationWithPlugIns::GetApp(), &app);
  EXPECT_TRUE(app.GetLoadedPlugIns().empty());
}

TEST_F(DKApplicationTest, ThreadsWriteWholeLinesThroughTheApplicationStream) {
  DKSmartPtr<Recorder> recorder(new Recorder);
  DKApplication app(DKString(DK_T("prog /noConsole")), recorder.Get());
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([t] {
      for (int i = 0; i < 50; ++i)
        DKApplication::GetAppCout() << "thread " << t << " line " << i << std::endl;
    });
  for (std::thread& thread : threads)
    thread.join();
  const std::vector<std::string> lines = SplitLines(recorder->Text());
  ASSERT_EQ(lines.size(), 200u);
  for (const std::string& line : lines)
    EXPECT_EQ(line.rfind("thread ", 0), 0u) << line;
}

TEST(DKApplicationPathTest, AddToPathPutsTheTextFirst) {
  ScopedEnv path("PATH", "/usr/bin:/bin");
  DKApplication::AddToPath(DK_T("/opt/plugins"));
  EXPECT_STREQ(std::getenv("PATH"), "/opt/plugins:/usr/bin:/bin");
  DKApplication::AddToPath(L"/wide");
  EXPECT_STREQ(std::getenv("PATH"), "/wide:/opt/plugins:/usr/bin:/bin");
}

} // namespace
