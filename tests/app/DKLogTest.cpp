#include "AppTestSupport.h"
#include "support/DKCaseFile.h"
#include "support/DKIsoText.h"

#include <DorvikCore/DKTimeZone.h>

#include <atomic>
#include <cerrno>
#include <ctime>

using namespace apptest;

namespace {

class DKLogManagerTest : public ::testing::Test {
protected:
  void SetUp() override { m_channel = m_logs.AddChannel(DK_T("LogTest")); }
  void TearDown() override { m_logs.RemoveChannel(m_channel); }

  DKLogManager& m_logs = DKLogManager::Get();
  DKLogManager::ChannelId m_channel = DKLogManager::NoChannel;
};

TEST_F(DKLogManagerTest, SubscribersTakeTextUpToTheirLevelAndSubscriptionsAndChannelsEnd) {
  DKSmartPtr<Recorder> normal(new Recorder);
  DKSmartPtr<Recorder> maximum(new Recorder);
  DKSmartPtr<Recorder> silent(new Recorder);
  ASSERT_TRUE(m_logs.Subscribe(m_channel, normal, 1));
  ASSERT_TRUE(m_logs.Subscribe(m_channel, maximum, 2));
  ASSERT_TRUE(m_logs.Subscribe(m_channel, silent, 0));
  m_logs.Publish(m_channel, 1, "one\n");
  m_logs.Publish(m_channel, 2, "two\n");
  m_logs.Publish(m_channel, 0, "always\n");
  EXPECT_EQ(normal->Text(), "one\nalways\n");
  EXPECT_EQ(maximum->Text(), "one\ntwo\nalways\n");
  EXPECT_EQ(silent->Text(), "always\n");
  EXPECT_TRUE(m_logs.IsLogged(m_channel, 2));
  EXPECT_FALSE(m_logs.IsLogged(m_channel, 3));

  // Subscriptions change and end.
  DKSmartPtr<Recorder> recorder(new Recorder);
  EXPECT_FALSE(m_logs.ChangeSubscriptionLevel(m_channel, recorder.Get(), 2)) << "not subscribed yet";
  ASSERT_TRUE(m_logs.Subscribe(m_channel, recorder, 1));
  ASSERT_TRUE(m_logs.Subscribe(m_channel, recorder, 1)) << "subscribing again keeps one subscription";
  m_logs.Publish(m_channel, 2, "hidden\n");
  ASSERT_TRUE(m_logs.ChangeSubscriptionLevel(m_channel, recorder.Get(), 2));
  std::uint32_t level = 0;
  ASSERT_TRUE(m_logs.GetSubscriptionLevel(m_channel, recorder.Get(), level));
  EXPECT_EQ(level, 2u);
  m_logs.Publish(m_channel, 2, "shown\n");
  ASSERT_TRUE(m_logs.Unsubscribe(m_channel, recorder.Get()));
  EXPECT_FALSE(m_logs.Unsubscribe(m_channel, recorder.Get()));
  m_logs.Publish(m_channel, 1, "after\n");
  EXPECT_EQ(recorder->Text(), "shown\n");

  // Channels are distinct even with one name, and go away with their subscribers.
  const DKLogManager::ChannelId second = m_logs.AddChannel(DK_T("logtest"));
  EXPECT_NE(second, m_channel);
  EXPECT_EQ(m_logs.FindChannel(DK_T("LOGTEST")), m_channel);
  EXPECT_EQ(m_logs.GetChannelName(second), DKString(DK_T("logtest")));
  DKSmartPtr<Recorder> other(new Recorder);
  ASSERT_TRUE(m_logs.Subscribe(second, other, 1));
  m_logs.Publish(m_channel, 1, "other channel\n");
  EXPECT_TRUE(m_logs.RemoveChannel(second));
  EXPECT_FALSE(m_logs.HasChannel(second));
  EXPECT_FALSE(m_logs.Subscribe(second, other, 1));
  m_logs.Publish(second, 1, "nowhere\n");
  EXPECT_EQ(other->Text(), "");
  EXPECT_EQ(other->NbRef(), 1u) << "the removed channel released its subscriber";
}

TEST_F(DKLogManagerTest, StreamPublishesWholeLinesAndFlushedParts) {
  DKSmartPtr<Recorder> recorder(new Recorder);
  ASSERT_TRUE(m_logs.Subscribe(m_channel, recorder, 2));
  {
    DKLogStream out(m_channel);
    out << "first " << 1 << "\nsecond" << '\n' << "partial" << std::flush;
    out << " rest\n";
    out.SetLevel(2);
    out << DKString(DK_T("caf\u00E9")) << " unfinished";
  }
  const std::vector<std::pair<std::uint32_t, std::string>> expected{
      {1, "first 1\n"}, {1, "second\n"}, {1, "partial"}, {1, " rest\n"}, {2, "caf\xC3\xA9 unfinished"}};
  EXPECT_EQ(recorder->Pieces(), expected);
}

TEST_F(DKLogManagerTest, EachThreadWritesThroughItsOwnStream) {
  DKSmartPtr<Recorder> recorder(new Recorder);
  ASSERT_TRUE(m_logs.Subscribe(m_channel, recorder, 1));
  DKLogStream* streams[4] = {};
  std::atomic<int> arrived{0};
  RunOnThreads(4, 1, [&](int t, int) {
    streams[t] = &DKLogStream::ForThread(m_channel);
    EXPECT_EQ(streams[t], &DKLogStream::ForThread(m_channel));
    // All threads hold their streams at once, so that no two can share an address.
    ++arrived;
    WaitUntil([&] { return arrived.load() == 4; });
    for (int i = 0; i < 100; ++i)
      DKLogStream::ForThread(m_channel) << "thread " << t << " line " << i << std::endl;
  });
  for (int a = 0; a < 4; ++a)
    for (int b = a + 1; b < 4; ++b)
      EXPECT_NE(streams[a], streams[b]);
  const auto pieces = recorder->Pieces();
  ASSERT_EQ(pieces.size(), 400u);
  for (const auto& piece : pieces)
    EXPECT_EQ(piece.second.rfind("thread ", 0), 0u) << "a line came in pieces: " << piece.second;
}

// (What a file subscriber writes: the rotation tests below.)
TEST_F(DKLogManagerTest, FileSubscriberThatCannotOpenItsFileIsRefused) {
  ScratchDir dir;
  DKSmartPtr<DKFileLogSubscriber> missing(new DKFileLogSubscriber(Text(dir / "missing/log.txt")));
  EXPECT_FALSE(missing->IsGood());
#if defined(_WIN32)
  const std::string notFound = dktest::SystemErrorText(3); // ERROR_PATH_NOT_FOUND: the folder is missing
#else
  const std::string notFound = dktest::SystemErrorText(ENOENT);
#endif
  EXPECT_NE(missing->GetErrorText().AsUTF8().find(notFound), std::string::npos)
      << missing->GetErrorText().AsUTF8();
  EXPECT_FALSE(m_logs.Subscribe(m_channel, missing, 1));
  EXPECT_FALSE(m_logs.Subscribe(m_channel, DKSmartPtr<DKLogSubscriberI>(), 1));
}

TEST(DKErrorLogTest, AppendsLinesToTheNamedFile) {
  ScratchDir dir;
  DKLogManager& logs = DKLogManager::Get();
  const DKString previous = logs.GetErrorLogFile();
  logs.SetErrorLogFile(Text(dir.Path().string()), DK_T("prog-ERROR.LOG"));
  EXPECT_TRUE(logs.AppendToErrorLog(DK_T("first")));
  EXPECT_TRUE(logs.AppendToErrorLog(DK_T("second")));
  EXPECT_EQ(ReadWholeFile(dir / "prog-ERROR.LOG"), "first\nsecond\n");
  logs.SetErrorLogFile(Text(dir / "missing"), DK_T("x.log"));
  EXPECT_FALSE(logs.AppendToErrorLog(DK_T("lost")));
  const std::size_t cut = previous.RFind(DK_T('/'));
  logs.SetErrorLogFile(cut == DKString::npos ? DKString() : previous.SubStr(0, cut),
                       cut == DKString::npos ? previous : previous.SubStr(cut + 1));
}

// ---- DKLogger --------------------------------------------------------------------------------

using Clock = std::chrono::system_clock;

Clock::time_point At(long long milliseconds) { return Clock::time_point(std::chrono::milliseconds(milliseconds)); }

// The time stamp as std::chrono's calendar writes it, in UTC or at the offset that the C library
// gives the local time.
std::string ReferenceStamp(long long milliseconds, bool utc) {
  using namespace std::chrono;
  const sys_time<std::chrono::milliseconds> instant{std::chrono::milliseconds(milliseconds)};
  if (utc)
    return dktest::IsoText(instant, 0);
  const std::time_t t = static_cast<std::time_t>(floor<seconds>(instant).time_since_epoch().count());
  const std::tm parts = dktest::LocalTime(t);
  // The zone's offset: the local reading, counted as if it were UTC, less the moment.
  const sys_days day = sys_days(year(parts.tm_year + 1900) / (parts.tm_mon + 1) / parts.tm_mday);
  const long long offset = day.time_since_epoch().count() * 86400LL + parts.tm_hour * 3600 + parts.tm_min * 60 +
                           parts.tm_sec - static_cast<long long>(t);
  return dktest::IsoText(instant, static_cast<int>(offset / 60));
}

// Instants around the ends of days, months and leap days, before 1970, and on both sides of a
// daylight-saving change in the zone set below.
constexpr long long kInstants[] = {0,           -1,           1709251199999, 1709164800000, 951782400123,
                                   -2208988800001, 4102444800000, 1710054000000, 1710053999999, 1699164000500,
                                   1699163999999};

TEST(DKLoggerTest, TimeStampsMatchTheCLibraryInUtcAndLocalTime) {
  for (const long long instant : kInstants)
    EXPECT_EQ(DKLogger::TimeStamp(At(instant), DKLogger::TimeZone::Utc), ReferenceStamp(instant, true)) << instant;
#if defined(_WIN32)
  GTEST_SKIP() << "the UTC stamps passed; the C runtime reads a TZ rule by rules of its own, so it is no reference "
                  "for the local ones";
#endif
  // The library's reload also has the C library read TZ again (tzset).
  const ScopedEnv zone("TZ", "EST5EDT,M3.2.0,M11.1.0", &DKTimeZone::Reload);
  for (const long long instant : kInstants)
    EXPECT_EQ(DKLogger::TimeStamp(At(instant), DKLogger::TimeZone::Local), ReferenceStamp(instant, false)) << instant;
}

// The names and levels of the severities show in the lines of tests/app/cases/log_levels.txt.
TEST(DKLoggerTest, UnknownSeverityNamesAreRefused) {
  DKLogSeverity parsed = DKLogSeverity::Warning;
  for (const char* bad : {"", "inf", "errors", "warning ", "d\xC3\xA9" "bug"})
    EXPECT_FALSE(DKLogSeverityFromName(bad, parsed) && parsed != DKLogSeverity::Warning) << bad;
  EXPECT_STREQ(DKLogSeverityName(static_cast<DKLogSeverity>(9)), "?");
}

// A line is written exactly when its severity is within the threshold and a subscriber takes
// its level; IsEnabled tells the same without a lock, and follows every change of the channel.
TEST_F(DKLogManagerTest, LinesGoWhereTheLevelsAndTheThresholdLetThem) {
  DKLogger log(DK_T("logtest"));
  ASSERT_EQ(log.GetChannel(), m_channel) << "the logger found the channel by name";
  // The default pattern (how patterns lay out lines: the log_pattern fuzz target).
  EXPECT_EQ(log.GetPattern(), DKString(DK_T("%t %s %m")));
  log.SetPattern(DK_T("%s %m"));
  constexpr DKLogSeverity all[] = {DKLogSeverity::Error, DKLogSeverity::Warning, DKLogSeverity::Info,
                                   DKLogSeverity::Debug, DKLogSeverity::Trace};
  for (const DKLogSeverity severity : all)
    EXPECT_FALSE(log.IsEnabled(severity)) << "no subscriber";
  DKSmartPtr<Recorder> recorder(new Recorder);
  for (const dktest::CaseLine& c : dktest::ReadCases(fs::path(DK_APP_CASES) / "log_levels.txt", 3)) {
    SCOPED_TRACE(c.where);
    const auto level = static_cast<std::uint32_t>(c.Int(0));
    DKLogSeverity threshold = DKLogSeverity::Trace;
    ASSERT_TRUE(DKLogSeverityFromName(c[1], threshold));
    DKSmartPtr<Recorder> lines(new Recorder);
    ASSERT_TRUE(m_logs.Subscribe(m_channel, lines, level));
    log.SetThreshold(threshold);
    log.Error("%s", "e");
    log.Warning("w");
    log.Info("%c", 'i');
    log.Debug("d\n");
    log.Trace("t");
    EXPECT_EQ(lines->Text(), c[2]);
    for (const DKLogSeverity severity : all)
      EXPECT_EQ(log.IsEnabled(severity), severity <= threshold && DKLogLevelOf(severity) <= level);
    ASSERT_TRUE(m_logs.Unsubscribe(m_channel, lines.Get()));
  }
  ASSERT_TRUE(m_logs.Subscribe(m_channel, recorder, 3));
  log.SetThreshold(DKLogSeverity::Trace);
  ASSERT_TRUE(m_logs.ChangeSubscriptionLevel(m_channel, recorder.Get(), 1));
  EXPECT_FALSE(log.IsEnabled(DKLogSeverity::Debug));
  EXPECT_TRUE(log.IsEnabled(DKLogSeverity::Info));
  const std::vector<std::pair<std::uint32_t, std::string>> pieces{{1, "INFO published at level 1\n"}};
  log.Info("published at level %d", 1);
  EXPECT_EQ(recorder->Pieces(), pieces);
  EXPECT_TRUE(m_logs.RemoveChannel(m_channel));
  EXPECT_FALSE(log.IsEnabled(DKLogSeverity::Error)) << "a removed channel closes its gate";
  log.Error("nowhere");
  EXPECT_EQ(recorder->Pieces(), pieces);
  m_channel = m_logs.AddChannel(DK_T("LogTest"));
}

// ---- Rotation -------------------------------------------------------------------------------

std::string Line(int number) { return "line " + std::to_string(100 + number) + " of the rotated log\n"; } // 29 bytes

TEST_F(DKLogManagerTest, FilesRotateBySizeKeepingTheNewestWholeLines) {
  for (const dktest::CaseLine& row : dktest::ReadCases(fs::path(DK_APP_CASES) / "log_rotation.txt", 4)) {
    SCOPED_TRACE(row.where);
    const auto maxBytes = static_cast<std::uint64_t>(row.Int(0));
    const auto keep = static_cast<unsigned>(row.Int(1));
    const auto linesPerFile = static_cast<std::size_t>(row.Int(2));
    const bool pieces = row.YesNo(3);
    ScratchDir dir;
    DKSmartPtr<DKFileLogSubscriber> file(new DKFileLogSubscriber(Text(dir / "log.txt")));
    file->SetRotation(maxBytes, keep);
    constexpr int total = 20;
    std::string all;
    for (int i = 0; i < total; ++i) {
      if (pieces) {
        file->Write(1, 1, Line(i).substr(0, 10));
        file->Write(1, 1, Line(i).substr(10));
      } else {
        file->Write(1, 1, Line(i));
      }
      all += Line(i);
    }
    const std::size_t files = linesPerFile == 0 ? 1 : std::min<std::size_t>(keep + 1, (total + linesPerFile - 1) / linesPerFile);
    for (unsigned n = 1; n <= keep + 1; ++n)
      EXPECT_EQ(fs::exists(dir / ("log.txt." + std::to_string(n))), n < files) << n;
    std::string kept; // what the kept files hold, oldest file first
    for (unsigned n = keep; n >= 1; --n)
      kept += ReadWholeFile(dir / ("log.txt." + std::to_string(n)));
    kept += ReadWholeFile(dir / "log.txt");
    const std::size_t keptLines = linesPerFile == 0 ? total : (total - 1) % linesPerFile + 1 + keep * linesPerFile;
    EXPECT_EQ(kept, all.substr(all.size() - std::min<std::size_t>(keptLines, total) * Line(0).size()));
    EXPECT_EQ(file->GetErrorText(), DKString());
  }
}

TEST_F(DKLogManagerTest, AFileIsAppendedCountingWhatItHoldsOrTruncatedAndAFailedRotationLosesNothing) {
  ScratchDir dir;
  WriteWholeFile(dir / "log.txt", std::string(90, 'x') + "\n");
  {
    DKSmartPtr<DKFileLogSubscriber> file(new DKFileLogSubscriber(Text(dir / "log.txt")));
    ASSERT_TRUE(file->IsGood());
    ASSERT_TRUE(m_logs.Subscribe(m_channel, file, 1));
    file->SetRotation(100, 1);
    m_logs.Publish(m_channel, 1, Line(0));
    EXPECT_EQ(ReadWholeFile(dir / "log.txt.1"), std::string(90, 'x') + "\n");
    EXPECT_EQ(ReadWholeFile(dir / "log.txt"), Line(0)) << "on disk without closing the file";
    ASSERT_TRUE(m_logs.Unsubscribe(m_channel, file.Get()));
  }
  DKSmartPtr<DKFileLogSubscriber>(
      new DKFileLogSubscriber(Text(dir / "log.txt.1"), DKFileLogSubscriber::Truncate));
  EXPECT_EQ(ReadWholeFile(dir / "log.txt.1"), "");
  // The name the file would be renamed to is a folder that is not empty: the rename fails.
  fs::remove(dir / "log.txt.1");
  fs::create_directories(dir / "log.txt.1/in");
  DKSmartPtr<DKFileLogSubscriber> file(new DKFileLogSubscriber(Text(dir / "log.txt")));
  file->SetRotation(40, 1);
  for (int i = 1; i <= 4; ++i)
    file->Write(1, 1, Line(i));
  EXPECT_EQ(ReadWholeFile(dir / "log.txt"), Line(0) + Line(1) + Line(2) + Line(3) + Line(4));
  EXPECT_NE(file->GetErrorText().AsUTF8().find("cannot rotate the log file"), std::string::npos)
      << file->GetErrorText().AsUTF8();
  EXPECT_TRUE(fs::is_directory(dir / "log.txt.1/in"));
}

} // namespace
