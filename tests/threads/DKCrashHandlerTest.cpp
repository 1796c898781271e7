// Crash catching: each case ends a child process by a fatal signal (on Windows an exception)
// and reads its report.
#include <DorvikCore/DKCrashHandler.h>

#include <gtest/gtest.h>

#include "support/DKTestSupport.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// A sanitizer's own handler ends the process after the report, with its own status.
constexpr bool kSanitizerHandlesTheEnd = true;
#else
constexpr bool kSanitizerHandlesTheEnd = false;
#endif

const std::string kEnd = "****** End of crash report ******";

struct CrashRun {
  int exitCode;
  std::string output;
  std::vector<std::string> lines;

  bool Has(const std::string& line) const { return std::find(lines.begin(), lines.end(), line) != lines.end(); }
  bool HasStarting(const std::string& start) const {
    return std::any_of(lines.begin(), lines.end(), [&](const std::string& l) { return l.rfind(start, 0) == 0; });
  }
  // The lines between "Stack:" and the next report section.
  std::size_t StackFrames() const {
    auto at = std::find(lines.begin(), lines.end(), "Stack:");
    std::size_t frames = 0;
    for (++at; at < lines.end() && !at->empty() && at->rfind("******", 0) != 0; ++at)
      ++frames;
    return frames;
  }
};

CrashRun RunCrash(const std::vector<std::string>& arguments) {
#if defined(__SANITIZE_THREAD__)
  // The thread dump after the signal-safe part of a report allocates on purpose (under the
  // report's watchdog); ThreadSanitizer would stop the child there.
  static const bool allowed = [] {
    const char* options = std::getenv("TSAN_OPTIONS");
    const std::string value = std::string(options ? options : "") + ":report_signal_unsafe=0";
    dktest::SetEnvironment("TSAN_OPTIONS", value);
    return true;
  }();
  EXPECT_TRUE(allowed);
#endif
  std::vector<std::string> command{DK_CRASH_CHILD_PATH};
  command.insert(command.end(), arguments.begin(), arguments.end());
  dktest::Child child(command);
  const int exitCode = child.Finish();
  return {exitCode, child.Output(), child.Lines()};
}

struct CrashCase {
  const char* how;
  int exitCode;
  const char* header; // the report's first line
  const char* cause;  // a line the report must hold, or null
  bool inThread;
};

#if defined(_WIN32)
// The process ends with the exception's code; an abort with the C runtime's code 3. Under Wine
// the whole 32-bit code reaches a Windows parent (a Linux parent of Wine sees its low 8 bits).
constexpr int kAccessViolation = static_cast<int>(0xC0000005u);
const char* const kAccessHeader = "****** Fatal exception 0xc0000005 EXCEPTION_ACCESS_VIOLATION (access violation) ******";
const char* const kOverflowHeader = "****** Fatal exception 0xc00000fd EXCEPTION_STACK_OVERFLOW (stack overflow) ******";
const CrashCase kCrashCases[] = {
    {"segv", kAccessViolation, kAccessHeader, "Cause: write to an address that may not be written", false},
    {"fpe", static_cast<int>(0xC0000094u),
     "****** Fatal exception 0xc0000094 EXCEPTION_INT_DIVIDE_BY_ZERO (integer divide by zero) ******", nullptr, false},
    {"abort", 3, "****** Fatal signal SIGABRT (abort) ******", "Cause: raised by the process itself", false},
    {"overflow", static_cast<int>(0xC00000FDu), kOverflowHeader, nullptr, false},
    {"thread-segv", kAccessViolation, kAccessHeader, "Address: 0x0000000000000000", true},
    {"thread-overflow", static_cast<int>(0xC00000FDu), kOverflowHeader, nullptr, true},
};
#else
constexpr int kAccessViolation = 128 + SIGSEGV;
const char* const kAccessHeader = "****** Fatal signal SIGSEGV (segmentation fault) ******";
const CrashCase kCrashCases[] = {
    {"segv", 128 + SIGSEGV, kAccessHeader, "Cause: address not mapped", false},
    {"fpe", 128 + SIGFPE, "****** Fatal signal SIGFPE (arithmetic error) ******", "Cause: integer divide by zero", false},
    {"abort", 128 + SIGABRT, "****** Fatal signal SIGABRT (abort) ******", "Cause: raised by the process itself", false},
    {"overflow", 128 + SIGSEGV, kAccessHeader, nullptr, false},
    {"thread-segv", 128 + SIGSEGV, kAccessHeader, "Address: 0x0000000000000000", true},
    {"thread-overflow", 128 + SIGSEGV, kAccessHeader, nullptr, true},
};
#endif
const std::string kFpeHeader = kCrashCases[1].header;

class CrashReportTest : public ::testing::TestWithParam<CrashCase> {};

TEST_P(CrashReportTest, ReportsTheCrashThenEndsWithItsCode) {
  const CrashCase& c = GetParam();
  const fs::path reportFile =
      fs::temp_directory_path() / ("dk-crash-" + std::to_string(dktest::CurrentProcessId()) + "-" + c.how);
  fs::remove(reportFile);
  const CrashRun run = RunCrash({c.how, reportFile.string()});

  EXPECT_TRUE(run.Has(c.header)) << run.output;
  if (c.cause) {
    EXPECT_TRUE(run.Has(c.cause)) << run.output;
  }
  for (const char* field : {"Process: ", "Thread: ", "Time: "})
    EXPECT_TRUE(run.HasStarting(field)) << run.output;
  EXPECT_GE(run.StackFrames(), 2u) << run.output;
  EXPECT_TRUE(run.Has("****** Writing thread info ******")) << run.output;
  EXPECT_TRUE(run.Has("****** Thread info written ******")) << run.output;
  EXPECT_TRUE(run.Has(kEnd)) << run.output;
  if (c.inThread) { // the crashing thread is one of the library's: the dump lists it
    EXPECT_NE(run.output.find("_PRIORITY_CLASS"), std::string::npos) << run.output;
  }
  if (!kSanitizerHandlesTheEnd) {
    EXPECT_EQ(run.exitCode, c.exitCode) << run.output;
  } else {
    EXPECT_NE(run.exitCode, 0) << run.output;
  }

  const std::string report = ReadWholeFile(reportFile);
  EXPECT_NE(report.find(c.header), std::string::npos) << report;
  EXPECT_NE(report.find(kEnd), std::string::npos) << report;
  fs::remove(reportFile);
}

INSTANTIATE_TEST_SUITE_P(Signals, CrashReportTest, ::testing::ValuesIn(kCrashCases),
                         [](const ::testing::TestParamInfo<CrashCase>& info) {
                           std::string name = info.param.how;
                           std::replace(name.begin(), name.end(), '-', '_');
                           return name;
                         });

TEST(CrashHandlerTest, AHandlerInstalledBeforeRunsAfterTheReport) {
  const CrashRun run = RunCrash({"chained"});
  EXPECT_TRUE(run.Has(kEnd)) << run.output;
  ASSERT_TRUE(run.Has("earlier handler ran")) << run.output;
  EXPECT_LT(std::find(run.lines.begin(), run.lines.end(), kEnd),
            std::find(run.lines.begin(), run.lines.end(), "earlier handler ran"));
  EXPECT_EQ(run.exitCode, 42) << run.output;
}

TEST(CrashHandlerTest, AThreadRecoveredByAnEarlierHandlerIsReportedAgainWhenItCrashesAgain) {
  const CrashRun run = RunCrash({"recover"});
  EXPECT_EQ(std::count(run.lines.begin(), run.lines.end(), kFpeHeader), 2) << run.output;
  EXPECT_EQ(std::count(run.lines.begin(), run.lines.end(), "recovered"), 2) << run.output;
  EXPECT_TRUE(run.Has(kAccessHeader)) << run.output;
  if (!kSanitizerHandlesTheEnd) {
    EXPECT_EQ(run.exitCode, kAccessViolation) << run.output;
  }
}

TEST(CrashHandlerTest, AnUnwritableReportFileLeavesTheReportOnTheStandardError) {
  const fs::path missing = fs::temp_directory_path() / "dk-no-such-folder" / "deeper" / "report.log";
  const CrashRun run = RunCrash({"segv", missing.string()});
  EXPECT_TRUE(run.Has(kEnd)) << run.output;
  EXPECT_FALSE(fs::exists(missing));
  if (!kSanitizerHandlesTheEnd) {
    EXPECT_EQ(run.exitCode, kAccessViolation) << run.output;
  }
}

TEST(CrashHandlerTest, ReportFileIsKeptUnlessTooLong) {
  const DKString before = DKGetCrashReportFile();
  EXPECT_TRUE(DKSetCrashReportFile(Text("/tmp/dk-crash-ééé.log")));
  EXPECT_EQ(DKGetCrashReportFile(), Text("/tmp/dk-crash-ééé.log"));
  EXPECT_FALSE(DKSetCrashReportFile(Text("/" + std::string(5000, 'x'))));
  EXPECT_TRUE(DKGetCrashReportFile().IsEmpty()) << "a path that cannot be kept whole is not kept at all";
  EXPECT_TRUE(DKSetCrashReportFile(DKString()));
  DKSetCrashReportFile(before);
}

} // namespace
