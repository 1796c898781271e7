#include "AppTestSupport.h"

#include <atomic>
#include <thread>

using namespace apptest;

namespace {

class DKLogManagerTest : public ::testing::Test {
protected:
  void SetUp() override { m_channel = m_logs.AddChannel(DK_T("LogTest")); }
  void TearDown() override { m_logs.RemoveChannel(m_channel); }

  DKLogManager& m_logs = DKLogManager::Get();
  DKLogManager::ChannelId m_channel = DKLogManager::NoChannel;
};

TEST_F(DKLogManagerTest, SubscribersTakeTextUpToTheirLevel) {
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
}

TEST_F(DKLogManagerTest, SubscriptionsChangeAndEnd) {
  DKSmartPtr<Recorder> recorder(new Recorder);
  EXPECT_FALSE(m_logs.ChangeSubscriptionLevel(m_channel, recorder.Get(), 2)) << "not subscribed yet";
  ASSERT_TRUE(m_logs.Subscribe(m_channel, recorder, 1));
  ASSERT_TRUE(m_logs.Subscribe(m_channel, recorder, 1)) << "subscribing again keeps one subscription";
  EXPECT_EQ(m_logs.GetSubscriberCount(m_channel), 1u);
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
}

TEST_F(DKLogManagerTest, ChannelsAreDistinctEvenWithOneNameAndGoAway) {
  const DKLogManager::ChannelId second = m_logs.AddChannel(DK_T("logtest"));
  EXPECT_NE(second, m_channel);
  EXPECT_EQ(m_logs.FindChannel(DK_T("LOGTEST")), m_channel);
  EXPECT_EQ(m_logs.GetChannelName(second), DKString(DK_T("logtest")));
  DKSmartPtr<Recorder> recorder(new Recorder);
  ASSERT_TRUE(m_logs.Subscribe(second, recorder, 1));
  m_logs.Publish(m_channel, 1, "other channel\n");
  EXPECT_TRUE(m_logs.RemoveChannel(second));
  EXPECT_FALSE(m_logs.HasChannel(second));
  EXPECT_FALSE(m_logs.Subscribe(second, recorder, 1));
  m_logs.Publish(second, 1, "nowhere\n");
  EXPECT_EQ(recorder->Text(), "");
  EXPECT_EQ(recorder->NbRef(), 1u) << "the removed channel released its subscriber";
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
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([this, t, &streams, &arrived] {
      streams[t] = &DKLogStream::ForThread(m_channel);
      EXPECT_EQ(streams[t], &DKLogStream::ForThread(m_channel));
      // All threads hold their streams at once, so that no two can share an address.
      ++arrived;
      WaitUntil([&] { return arrived.load() == 4; });
      for (int i = 0; i < 100; ++i)
        DKLogStream::ForThread(m_channel) << "thread " << t << " line " << i << std::endl;
    });
  for (std::thread& thread : threads)
    thread.join();
  for (int a = 0; a < 4; ++a)
    for (int b = a + 1; b < 4; ++b)
      EXPECT_NE(streams[a], streams[b]);
  const auto pieces = recorder->Pieces();
  ASSERT_EQ(pieces.size(), 400u);
  for (const auto& piece : pieces)
    EXPECT_EQ(piece.second.rfind("thread ", 0), 0u) << "a line came in pieces: " << piece.second;
}

TEST_F(DKLogManagerTest, FileSubscriberAppendsAndFlushesEveryPieceOrIsRefused) {
  ScratchDir dir;
  const std::string path = dir / "log.txt";
  WriteFile(path, "before\n");
  DKSmartPtr<DKFileLogSubscriber> file(new DKFileLogSubscriber(Text(path)));
  ASSERT_TRUE(file->IsGood());
  ASSERT_TRUE(m_logs.Subscribe(m_channel, file, 1));
  m_logs.Publish(m_channel, 1, "line\n");
  EXPECT_EQ(ReadFile(path), "before\nline\n") << "on disk without closing the file";
  DKSmartPtr<DKFileLogSubscriber> fresh(new DKFileLogSubscriber(Text(path), DKFileLogSubscriber::Truncate));
  EXPECT_EQ(ReadFile(path), "");

  DKSmartPtr<DKFileLogSubscriber> missing(new DKFileLogSubscriber(Text(dir / "missing/log.txt")));
  EXPECT_FALSE(missing->IsGood());
  EXPECT_NE(missing->GetErrorText().AsUTF8().find("No such file or directory"), std::string::npos)
      << missing->GetErrorText().AsUTF8();
  EXPECT_FALSE(m_logs.Subscribe(m_channel, missing, 1));
  EXPECT_FALSE(m_logs.Subscribe(m_channel, DKSmartPtr<DKLogSubscriberI>(), 1));
}

TEST_F(DKLogManagerTest, ConsoleSubscriberWritesToTheLockedConsole) {
  std::ostringstream console;
  std::ostream* previous = DKLockedCOUT::SetConsoleStream(&console);
  ASSERT_TRUE(m_logs.Subscribe(m_channel, new DKConsoleLogSubscriber, 1));
  DKLogStream(m_channel) << "to the console" << std::endl;
  DKLockedCOUT::SetConsoleStream(previous);
  EXPECT_EQ(console.str(), "to the console\n");
}

TEST(DKErrorLogTest, AppendsLinesToTheNamedFile) {
  ScratchDir dir;
  DKLogManager& logs = DKLogManager::Get();
  const DKString previous = logs.GetErrorLogFile();
  logs.SetErrorLogFile(Text(dir.Path().string()), DK_T("prog-ERROR.LOG"));
  EXPECT_EQ(logs.GetErrorLogFile().AsUTF8(), dir / "prog-ERROR.LOG");
  EXPECT_TRUE(logs.AppendToErrorLog(DK_T("first")));
  EXPECT_TRUE(logs.AppendToErrorLog(DK_T("second")));
  EXPECT_EQ(ReadFile(dir / "prog-ERROR.LOG"), "first\nsecond\n");
  logs.SetErrorLogFile(Text(dir / "missing"), DK_T("x.log"));
  EXPECT_FALSE(logs.AppendToErrorLog(DK_T("lost")));
  const std::size_t cut = previous.RFind(DK_T('/'));
  logs.SetErrorLogFile(cut == DKString::npos ? DKString() : previous.SubStr(0, cut),
                       cut == DKString::npos ? previous : previous.SubStr(cut + 1));
}

} // namespace
