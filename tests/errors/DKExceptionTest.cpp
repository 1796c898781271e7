#include <DorvikCore/DKConsole.h>
#include <DorvikCore/DKException.h>
#include <DorvikCore/DKMessageSource.h>

#include "support/DKTestPlatform.h"

#include <gtest/gtest.h>

#include "support/DKCaseFile.h"
#include "support/DKTestSupport.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

static_assert(std::is_nothrow_copy_constructible_v<DKException>);
static_assert(std::is_nothrow_copy_assignable_v<DKException>);

// Outside an unnamed namespace so that the function has an exported name in the stack.
namespace dkerrorstest {
[[gnu::noinline]] DKException BuildExceptionInNamedFunction() {
  DKException e(DK_T("from a named function"));
  return e;
}
[[gnu::noinline]] DKStackDump CaptureDumpInNamedFunction() {
  return DKStackDump::Capture(SIGSEGV);
}
} // namespace dkerrorstest

namespace {

// The templates of cases/placeholders.txt. (Without an error nothing is filled: the placeholders
// fuzz target's property.)
TEST(DKMessageSourceTest, FillPlaceholders) {
  for (const dktest::CaseLine& c : dktest::ReadCases(DK_TEST_CASES "/placeholders.txt", 0)) {
    DKSmartPtr<DKErrorWithArgs> error = DKLibraryError(DK_MSG_UNSPECIFIED);
    for (std::size_t i = 2; i < c.fields.size(); ++i) {
      if (c[i].find_first_not_of("0123456789") == std::string::npos)
        error->AddParam(static_cast<int>(c.Int(i)));
      else
        error->AddParam(DKString::FromUTF8(c[i]));
    }
    const DKString text = DKString::FromUTF8(c[0]);
    EXPECT_EQ(DKMessageSource::FillPlaceholders(text, DKFormatContext(error.Get())).AsUTF8(), c[1]) << c.where;
  }
}

TEST(DKMemoryMessageSourceTest, AddReplaceRemoveAndLookUp) {
  DKSmartPtr<DKMemoryMessageSource> source(new DKMemoryMessageSource);
  source->Add(1, DK_T("one"));
  source->Add(-5, DK_T("minus five %0:d"));
  source->Add(1, DK_T("uno"));
  EXPECT_EQ(source->GetCount(), 2u);
  DKString text;
  EXPECT_TRUE(source->GetTemplate(-5, text));
  EXPECT_EQ(text, DK_T("minus five %0:d"));
  EXPECT_TRUE(source->GetText(text, 1, DKFormatContext()).IsSuccess());
  EXPECT_EQ(text, DK_T("uno"));
  EXPECT_TRUE(source->Remove(1));
  EXPECT_FALSE(source->Remove(1));
  EXPECT_FALSE(source->Contains(1));
  text = DK_T("untouched");
  EXPECT_FALSE(source->GetTemplate(1, text));
  EXPECT_EQ(text, DK_T("untouched"));
}

// Records the context a source is asked with.
struct RecordingSource : DKMessageSource {
  DKErrorID GetText(DKString& out, long code, const DKFormatContext& context) const override {
    lastError = context.GetError();
    lastFormat = context.GetExecContext().GetDateTimeFormat();
    out = DKString(std::to_wstring(code));
    return DKErrorID();
  }
  mutable const DKErrorI* lastError = nullptr;
  mutable DKString lastFormat;
};

TEST(DKMessageSourceTest, AnErrorAsksItsSourceWithItselfAndTheExecContext) {
  DKSmartPtr<RecordingSource> source(new RecordingSource);
  DKSmartPtr<DKError> error(new DKError(source, 77));
  DKString text;
  DKSmartPtr<DKErrorWithArgs> someOtherError = DKLibraryError(1);
  EXPECT_TRUE(error->AsString(text, DKFormatContext(someOtherError.Get(), DKExecContext(DK_T("%Y")))).IsSuccess());
  EXPECT_EQ(text, DK_T("77"));
  EXPECT_EQ(source->lastError, error.Get());
  EXPECT_EQ(source->lastFormat, DK_T("%Y"));
}

TEST(DKMessageSourceTest, LibrarySourceHoldsEveryLibraryMessage) {
  DKSmartPtr<DKMessageSource> source = DKGetLibraryMessageSource();
  ASSERT_FALSE(source.IsNull());
  for (long code = DK_MSG_UNSPECIFIED; code <= DK_MSG_LAST; ++code) {
    DKString text;
    EXPECT_TRUE(source->GetText(text, code, DKFormatContext()).IsSuccess()) << code;
    EXPECT_FALSE(text.IsEmpty());
  }
}

TEST(DKMemoryMessageSourceTest, ReadersRunWhileAWriterChangesTheTable) {
  DKSmartPtr<DKMemoryMessageSource> source(new DKMemoryMessageSource{{1, DK_T("stable %0:s")}});
  const DKErrorID error = DKLibraryErrorID(DK_MSG_UNSPECIFIED, DK_T("value"));
  std::atomic<int> failures{0};
  RunOnThreads(4, 5000, [&](int t, int) { // thread 0 writes, the others read
    DKString text;
    if (t == 0) {
      source->Add(2, DK_T("flicker"));
      source->Remove(2);
    } else if (source->GetText(text, 1, DKFormatContext(error.GetError().Get())).Bad() || !(text == DK_T("stable value"))) {
      ++failures;
    } else if (source->GetText(text, 2, DKFormatContext()).IsSuccess() ? !(text == DK_T("flicker"))
                                                                       : !(text == DK_T("Unknown message 2"))) {
      ++failures;
    }
  });
  EXPECT_EQ(failures.load(), 0);
}

const std::string kDefaultNotice =
    "The application encountered an unexpected situation. Please contact technical support for assistance.";

std::string ReportLine(const DKException& e, std::size_t index) {
  return SplitLines(e.BuildReport().AsUTF8()).at(index);
}

// The messages of cases/exception-marker.txt.
TEST(DKExceptionTest, MarkerSplitsUserTextFromInternalTextAndCopiesKeepBoth) {
  for (const dktest::CaseLine& c : dktest::ReadCases(DK_TEST_CASES "/exception-marker.txt", 3)) {
    SCOPED_TRACE(c.where);
    const DKString message = DKString::FromUTF8(c[0]);
    DKException e = DKBinaryStream::Exception(message);
    DKException copy(DK_T("other"), true);
    copy = DKException(e); // copies keep the message, the stack and the user text
    EXPECT_EQ(copy.GetMessage(), message);
    EXPECT_EQ(copy.Stack(), e.Stack());
    EXPECT_EQ(copy.what(), c[1]);
    EXPECT_EQ(e.What().AsUTF8(), c[1]);
    ConsoleCapture console;
    e.LogInErrorFile();
    if (c[2] != "report")
      EXPECT_EQ(console.Text(), c[2] + "\n");
    else
      EXPECT_EQ(SplitLines(console.Text()).at(3), "EXCEPTION: " + c[0]);
  }
  EXPECT_STREQ(DKConfigStreamException(DK_T("Missing ]")).what(), "Missing ]");
}

TEST(DKExceptionTest, ReportHasTheFixedLinesInOrderAndTheProcessWideNotice) {
  DKException e(DK_T("something broke"));
  ConsoleCapture console;
  e.LogInErrorFile();
  const auto lines = SplitLines(console.Text());
  const auto stackLines = SplitLines(e.Stack().AsUTF8());
  ASSERT_EQ(lines.size(), 5 + stackLines.size() + 1);
  EXPECT_EQ(lines[0], kDefaultNotice);
  EXPECT_TRUE(std::regex_match(lines[1], std::regex(R"(DATE:      \d{4}/\d\d/\d\d \d\d:\d\d:\d\d\.\d{3})")))
      << lines[1];
  EXPECT_TRUE(std::regex_match(lines[2], std::regex(R"(THREAD:    [1-9]\d*)"))) << lines[2];
  EXPECT_EQ(lines[4], "STACK:");
  EXPECT_EQ(std::vector<std::string>(lines.begin() + 5, lines.end() - 1), stackLines);
  EXPECT_EQ(lines.back(), "");

  std::string otherThread; // the report names the thread that writes it
  std::thread([&] { otherThread = ReportLine(e, 2); }).join();
  EXPECT_NE(lines[2], otherThread);

  DKException::SetSupportNotice(DK_T("Call the help desk on 555."));
  const std::string first = ReportLine(DKException(DK_T("x"), true), 0);
  DKException::SetSupportNotice(DKException::DefaultSupportNotice);
  EXPECT_EQ(first, "Call the help desk on 555.");
  EXPECT_EQ(ReportLine(DKException(DK_T("x"), true), 0), kDefaultNotice);
}

TEST(DKExceptionTest, ReportsOnceUnlessAskedAgainAndEvenWhenSilent) {
  DKException e(DK_T("once###***###user"), true);
  ConsoleCapture console;
  e.LogInErrorFile(DKException::LogOnce);
  e.LogInErrorFile(DKException::LogOnce);
  e.LogInErrorFile(static_cast<DKException::LogOpt>(2));
  EXPECT_EQ(console.Text(), "once\n");
  e.LogInErrorFile(DKException::LogAgain);
  DKException copy = e; // a copy of a reported exception counts as reported
  copy.LogInErrorFile();
  EXPECT_EQ(console.Text(), "once\nonce\n");

  DKException quiet(DK_T("quiet###***###user"), true);
  {
    const TraceLevelOverride silent(0);
    quiet.LogInErrorFile();
  }
  EXPECT_TRUE(quiet.IsLogged());
  quiet.LogInErrorFile();
  EXPECT_EQ(console.Text(), "once\nonce\n");
  quiet.LogInErrorFile(DKException::LogAgain);
  EXPECT_EQ(console.Text(), "once\nonce\nquiet\n");
}

TEST(DKExceptionStackTest, CapturedStackNamesTheBuildingFunctionUnlessAskedNotTo) {
  EXPECT_TRUE(DKException(DK_T("x"), true).Stack().IsEmpty());
  if (std::getenv("DK_DISABLE_STACK") != nullptr)
    GTEST_SKIP() << "DK_DISABLE_STACK is set";
  const std::string stack = dkerrorstest::BuildExceptionInNamedFunction().Stack().AsUTF8();
  EXPECT_NE(stack.find("dkerrorstest::BuildExceptionInNamedFunction()"), std::string::npos) << stack;
  EXPECT_EQ(stack.find("CaptureStack"), std::string::npos) << stack; // the capture machinery is not shown
  const DKStackDump dump = dkerrorstest::CaptureDumpInNamedFunction();
  EXPECT_EQ(dump.GetSeHNumber(), SIGSEGV);
  EXPECT_NE(dump.GetStackText().AsUTF8().find("dkerrorstest::CaptureDumpInNamedFunction()"), std::string::npos);
}

TEST(DKExceptionStackTest, EnvironmentDisablesCaptureForTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe"); // a fresh process reads the environment anew
  const ScopedEnv disable("DK_DISABLE_STACK", ""); // set to anything, even empty
  EXPECT_EXIT(
      {
        const DKException e(DK_T("x"));
        const DKStackDump dump = DKStackDump::Capture(SIGSEGV);
        const bool ok = e.Stack() == DK_T("(Stack disabled - DK_DISABLE_STACK is defined)") &&
                        dump.GetStackText() == DKException::StackDisabledText;
        std::exit(ok ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST(DKExceptionSubclassTest, LastErrorExceptionCarriesTheSystemText) {
  // The system's last error: errno here, GetLastError on Windows.
#if defined(_WIN32)
  const int notFound = 2, denied = 5; // ERROR_FILE_NOT_FOUND, ERROR_ACCESS_DENIED
#else
  const int notFound = ENOENT, denied = EACCES;
#endif
  dktest::SetLastSystemError(notFound);
  const DKWindowsLastErrorException fromLastError;
  EXPECT_EQ(fromLastError.GetErrorCode(), notFound);
  EXPECT_EQ(fromLastError.What(), Text(dktest::SystemErrorText(notFound)));
  const DKWindowsLastErrorException byCode(denied);
  EXPECT_EQ(byCode.GetErrorCode(), denied);
  EXPECT_EQ(byCode.what(), dktest::SystemErrorText(denied));
  EXPECT_STREQ(DKWindowsLastErrorException(987654).what(), "Unknown error 987654");
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
      {DK_MSG_INVALID_ARGUMENT, DKGetLibraryMessageSource(), DK_T("Invalid argument: %0:s")},
      {5, own, DK_T("Five")},
      {7, DKSmartPtr<DKMessageSource>(), DK_T("Unknown message 7")},
  };
  for (const auto& c : cases) {
    const DKMsgException e(c.code, c.source);
    EXPECT_EQ(e.What(), c.text);
  }
}

TEST(DKLockedCOUTTest, RedirectionReturnsThePreviousStream) {
  std::ostringstream first, second;
  std::ostream* original = DKLockedCOUT::SetConsoleStream(&first);
#if defined(_WIN32)
  EXPECT_NE(original, &std::cout); // the platform's own: UTF-16 to a console, UTF-8 bytes to a pipe
  ASSERT_NE(original, nullptr);
#else
  EXPECT_EQ(original, &std::cout);
#endif
  EXPECT_EQ(DKLockedCOUT::SetConsoleStream(&second), &first);
  DKLockedCOUT() << "to second";
  EXPECT_EQ(DKLockedCOUT::SetConsoleStream(nullptr), &second); // null restores standard output
  EXPECT_EQ(DKLockedCOUT::SetConsoleStream(original), original);
  EXPECT_EQ(first.str(), "");
  EXPECT_EQ(second.str(), "to second");
}

TEST(DKLockedCOUTTest, WritesEveryTextKindAsUtf8AndLocksRecursively) {
  ConsoleCapture console;
  DKLockedCOUT outer;
  outer.GetCout() << DKString(DK_T("caf\u00e9")) << ' ' << 42 << std::endl;
  DKLockedCOUT() << DK_T("\u20ac") << L"\u00e0" << "|" << DKString(DK_T("\U0001F600")) << std::endl;
  outer.GetCout() << "done";
  EXPECT_EQ(console.Text(), "caf\xc3\xa9 42\n\xe2\x82\xac\xc3\xa0|\xf0\x9f\x98\x80\ndone");
}

TEST(DKLockedCOUTTest, LinesFromManyThreadsStayWhole) {
  constexpr int kThreads = 6, kLines = 300;
  ConsoleCapture console;
  RunOnThreads(kThreads, kLines, [](int t, int i) {
    DKLockedCOUT lock; // many small pieces, so that an unlocked stream would interleave them
    lock.GetCout() << "thread " << t;
    for (int piece = 0; piece < 8; ++piece)
      lock.GetCout() << ' ' << piece;
    lock.GetCout() << " line " << i << std::endl;
  });
  std::map<int, int> nextLine; // each thread's lines arrive in its own order
  const auto lines = SplitLines(console.Text());
  ASSERT_EQ(lines.size(), static_cast<std::size_t>(kThreads * kLines));
  for (const std::string& line : lines) {
    int thread = -1, number = -1, consumed = 0;
    ASSERT_EQ(std::sscanf(line.c_str(), "thread %d 0 1 2 3 4 5 6 7 line %d%n", &thread, &number, &consumed), 2) << line;
    ASSERT_EQ(static_cast<std::size_t>(consumed), line.size()) << line;
    EXPECT_EQ(number, nextLine[thread]++);
  }
}

TEST(GlbGetTraceLevelTest, ProviderAnswersUntilRemovedAndIsNeverCalledAgain) {
  static std::atomic<int> calls{0};
  DKSetTraceLevelProvider(
      [](void*) -> std::uint32_t {
        calls.fetch_add(1);
        std::this_thread::yield();
        return 2;
      },
      nullptr);
  std::atomic<int> wrong{0}, callsWhenRemoved{-1};
  RunOnThreads(4, 2000, [&](int t, int i) { // thread 0 removes the provider while the others read
    if (t == 0 && i == 0) {
      WaitUntil([] { return calls.load() >= 1000; });
      DKSetTraceLevelProvider(nullptr);
      callsWhenRemoved = calls.load();
    } else if (const std::uint32_t level = GlbGetTraceLevel(); level != 1 && level != 2) {
      ++wrong;
    }
  });
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(GlbGetTraceLevel(), 1u);
  EXPECT_EQ(calls.load(), callsWhenRemoved.load());
}

} // namespace
