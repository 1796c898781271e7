#include <DorvikCore/DKException.h>

#include "ErrorsTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <thread>
#include <type_traits>

static_assert(std::is_nothrow_copy_constructible_v<DKException>);
static_assert(std::is_nothrow_copy_assignable_v<DKException>);

// Outside an unnamed namespace so that the function has an exported name in the stack.
namespace dkerrorstest {
[[gnu::noinline]] DKException BuildExceptionInNamedFunction() {
  DKException e(DK_T("from a named function"));
  return e;
}
[[gnu::noinline]] DKStackDump CaptureDumpInNamedFunction() { return DKStackDump::Capture(SIGSEGV); }
} // namespace dkerrorstest

namespace {

const std::string kDefaultNotice =
    "The application encountered an unexpected situation. Please contact technical support for assistance.";

bool StackCaptureIsDisabledHere() { return std::getenv("DK_DISABLE_STACK") != nullptr; }

// ---- Message and marker --------------------------------------------------------------------

TEST(DKExceptionTest, MarkerSplitsUserTextFromInternalText) {
  const struct {
    const DKChar* message;
    const char* userText;     // What and what
    const char* consoleLine;  // what LogInErrorFile writes; null for the full report
  } cases[] = {
      {DK_T("disk full###***###Please free space"), "Please free space", "disk full"},
      {DK_T("###***###user only"), "user only", ""},
      {DK_T("internal only###***###"), "", "internal only"},
      {DK_T("a###***###b###***###c"), "b###***###c", "a"},
      {DK_T("caf\u00e9###***###d\u00e9j\u00e0 vu"), "d\xc3\xa9j\xc3\xa0 vu", "caf\xc3\xa9"},
      {DK_T("##*## not a marker"), "##*## not a marker", nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.userText);
    DKException e{DKString(c.message)};
    EXPECT_EQ(e.GetMessage(), c.message);
    EXPECT_STREQ(e.what(), c.userText);
    EXPECT_EQ(e.What().AsUTF8(), c.userText);

    ConsoleCapture console;
    e.LogInErrorFile();
    if (c.consoleLine) {
      EXPECT_EQ(console.Text(), std::string(c.consoleLine) + "\n");
    } else {
      const auto lines = SplitLines(console.Text());
      ASSERT_GE(lines.size(), 4u);
      EXPECT_EQ(lines[3], "EXCEPTION: " + e.GetMessage().AsUTF8());
    }
  }
}

TEST(DKExceptionTest, ThrownByValueAndCaughtByReference) {
  try {
    throw DKConfigStreamException(DK_T("Missing ]"));
  } catch (const DKException& e) {
    EXPECT_EQ(e.What(), DK_T("Missing ]"));
  }
  try {
    throw DKBinaryStream::Exception(DK_T("short read"));
  } catch (const std::exception& e) {
    EXPECT_STREQ(e.what(), "short read");
  }

  DKException original(DK_T("inner###***###outer"));
  DKException copy = original;
  EXPECT_EQ(copy.GetMessage(), original.GetMessage());
  EXPECT_EQ(copy.Stack(), original.Stack());
  EXPECT_STREQ(copy.what(), "outer");
  DKException other(DK_T("other"), true);
  other = original;
  EXPECT_STREQ(other.what(), "outer");
}

// ---- Incident report -----------------------------------------------------------------------

TEST(DKExceptionTest, ReportHasTheFixedLinesInOrder) {
  DKException e(DK_T("something broke"));
  ConsoleCapture console;
  e.LogInErrorFile();
  EXPECT_TRUE(e.IsLogged());

  const auto lines = SplitLines(console.Text());
  const auto stackLines = SplitLines(e.Stack().AsUTF8());
  ASSERT_EQ(lines.size(), 5 + stackLines.size() + 1);
  EXPECT_EQ(lines[0], kDefaultNotice);
  EXPECT_TRUE(MatchesDigitPattern(lines[1], "DATE:      ####/##/## ##:##:##.###")) << lines[1];
  const std::string threadId = lines[2].substr(std::min<std::size_t>(lines[2].size(), 11));
  EXPECT_TRUE(MatchesDigitPattern(lines[2], "THREAD:    " + std::string(threadId.size(), '#'))) << lines[2];
  EXPECT_NE(threadId.substr(0, 1), "0");
  EXPECT_EQ(lines[3], "EXCEPTION: something broke");
  EXPECT_EQ(lines[4], "STACK:");
  for (std::size_t i = 0; i < stackLines.size(); ++i)
    EXPECT_EQ(lines[5 + i], stackLines[i]);
  EXPECT_EQ(lines.back(), "");
}

TEST(DKExceptionTest, ReportNamesTheThreadThatWritesIt) {
  DKException here(DK_T("here"), true);
  DKException there(DK_T("there"), true);
  const auto threadLine = [](const DKException& e) { return SplitLines(e.BuildReport().AsUTF8()).at(2); };
  std::string otherThread;
  std::thread([&] { otherThread = threadLine(there); }).join();
  EXPECT_NE(threadLine(here), otherThread);
}

TEST(DKExceptionTest, ReportsOnceUnlessAskedAgain) {
  DKException e(DK_T("once"), true);
  ConsoleCapture console;
  const auto reports = [&] {
    const std::string text = console.Text();
    std::size_t count = 0;
    for (auto pos = text.find("EXCEPTION: once"); pos != std::string::npos; pos = text.find("EXCEPTION: once", pos + 1))
      ++count;
    return count;
  };
  e.LogInErrorFile(DKException::LogOnce);
  e.LogInErrorFile(DKException::LogOnce);
  e.LogInErrorFile(static_cast<DKException::LogOpt>(2));
  EXPECT_EQ(reports(), 1u);
  e.LogInErrorFile(DKException::LogAgain);
  EXPECT_EQ(reports(), 2u);

  DKException copy = e; // a copy of a reported exception counts as reported
  copy.LogInErrorFile();
  EXPECT_EQ(reports(), 2u);
}

TEST(DKExceptionTest, SilentConsoleStillMarksTheExceptionReported) {
  DKException e(DK_T("quiet###***###user"), true);
  ConsoleCapture console;
  {
    TraceLevelOverride silent(0);
    e.LogInErrorFile();
  }
  EXPECT_TRUE(e.IsLogged());
  e.LogInErrorFile();
  EXPECT_EQ(console.Text(), "");
  e.LogInErrorFile(DKException::LogAgain);
  EXPECT_EQ(console.Text(), "quiet\n");
}

TEST(DKExceptionTest, SupportNoticeIsSetProcessWide) {
  EXPECT_EQ(DKException::GetSupportNotice().AsUTF8(), kDefaultNotice);
  DKException::SetSupportNotice(DK_T("Call the help desk on 555."));
  const std::string first = SplitLines(DKException(DK_T("x"), true).BuildReport().AsUTF8()).at(0);
  DKException::SetSupportNotice(DKException::DefaultSupportNotice);
  EXPECT_EQ(first, "Call the help desk on 555.");
  EXPECT_EQ(SplitLines(DKException(DK_T("x"), true).BuildReport().AsUTF8()).at(0), kDefaultNotice);
}

// ---- Stack ---------------------------------------------------------------------------------

TEST(DKExceptionStackTest, CapturedStackNamesTheBuildingFunction) {
  if (StackCaptureIsDisabledHere())
    GTEST_SKIP() << "DK_DISABLE_STACK is set";
  const DKException e = dkerrorstest::BuildExceptionInNamedFunction();
  const std::string stack = e.Stack().AsUTF8();
  EXPECT_NE(stack.find("dkerrorstest::BuildExceptionInNamedFunction()"), std::string::npos) << stack;
  // The capture machinery itself is not shown.
  EXPECT_EQ(stack.find("CaptureStack"), std::string::npos) << stack;

  const DKStackDump dump = dkerrorstest::CaptureDumpInNamedFunction();
  EXPECT_EQ(dump.GetSeHNumber(), SIGSEGV);
  EXPECT_NE(dump.GetStackText().AsUTF8().find("dkerrorstest::CaptureDumpInNamedFunction()"), std::string::npos);
}

TEST(DKExceptionStackTest, NoStackFlagLeavesTheStackEmpty) {
  EXPECT_TRUE(DKException(DK_T("x"), true).Stack().IsEmpty());
}

TEST(DKExceptionStackTest, EnvironmentDisablesCaptureForTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe"); // a fresh process reads the environment anew
  setenv("DK_DISABLE_STACK", "", 1);              // set to anything, even empty
  EXPECT_EXIT(
      {
        const DKException e(DK_T("x"));
        const DKStackDump dump = DKStackDump::Capture(SIGSEGV);
        const bool ok = e.Stack() == DKException::StackDisabledText &&
                        e.Stack() == DK_T("(Stack disabled - DK_DISABLE_STACK is defined)") &&
                        dump.GetStackText() == DKException::StackDisabledText;
        std::exit(ok ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
  unsetenv("DK_DISABLE_STACK");
}

// ---- Subclasses ----------------------------------------------------------------------------

TEST(DKExceptionSubclassTest, LastErrorExceptionCarriesTheSystemText) {
  errno = ENOENT;
  const DKWindowsLastErrorException fromErrno;
  EXPECT_EQ(fromErrno.GetErrorCode(), ENOENT);
  EXPECT_EQ(fromErrno.What(), DK_T("No such file or directory"));

  const struct {
    int code;
    const char* text;
  } cases[] = {{EACCES, "Permission denied"}, {EINVAL, "Invalid argument"}, {987654, "Unknown error 987654"}};
  for (const auto& c : cases) {
    const DKWindowsLastErrorException e(c.code);
    EXPECT_EQ(e.GetErrorCode(), c.code);
    EXPECT_STREQ(e.what(), c.text);
  }
}

TEST(DKExceptionSubclassTest, SignalExceptionReportsAnUnreportedDumpAtOnce) {
  ConsoleCapture console;
  const DKSignalException reported(DKStackDump(SIGSEGV, DK_T("frame one\nframe two")));
  EXPECT_EQ(reported.GetSeHNumber(), SIGSEGV);
  EXPECT_TRUE(reported.IsLogged());
  EXPECT_EQ(reported.Stack(), DK_T("frame one\nframe two"));
  const auto lines = SplitLines(console.Text());
  ASSERT_EQ(lines.size(), 8u);
  EXPECT_EQ(lines[3], "EXCEPTION: Signal " + std::to_string(SIGSEGV) + " (SIGSEGV)");
  EXPECT_EQ(lines[5], "frame one");
  EXPECT_EQ(lines[6], "frame two");

  console.Clear();
  DKStackDump dump(SIGFPE, DK_T("frame"));
  dump.SetAlreadyReported();
  const DKSignalException quiet(dump);
  EXPECT_FALSE(quiet.IsLogged());
  EXPECT_EQ(console.Text(), "");
  EXPECT_NE(quiet.What().AsUTF8().find("SIGFPE"), std::string::npos);
}

TEST(DKExceptionSubclassTest, MsgExceptionTakesItsTextFromTheSource) {
  DKSmartPtr<DKMessageSource> own(new DKMemoryMessageSource{{5, DK_T("Five")}});
  const struct {
    long code;
    DKSmartPtr<DKMessageSource> source;
    const DKChar* text;
  } cases[] = {
      {DK_MSG_UNSPECIFIED, DKGetLibraryMessageSource(), DK_T("Unspecified failure")},
      {DK_MSG_INVALID_ARGUMENT, DKGetLibraryMessageSource(), DK_T("Invalid argument: %0:s")},
      {5, own, DK_T("Five")},
      {6, own, DK_T("Unknown message 6")},
      {7, DKSmartPtr<DKMessageSource>(), DK_T("Unknown message 7")},
  };
  for (const auto& c : cases) {
    const DKMsgException e(c.code, c.source);
    EXPECT_EQ(e.What(), c.text);
    EXPECT_EQ(e.GetCode(), c.code);
    EXPECT_EQ(e.GetSource().Get(), c.source.Get());
  }
}

} // namespace
