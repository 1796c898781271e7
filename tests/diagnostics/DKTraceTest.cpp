// The trace writers and setters, in this process: every case fixes level, delimiter and folder
// by their setters first, so the environment of the test run plays no part.
#include "TraceTestSupport.h"

#include <DorvikCore/DKString.h>
#include <DorvikCore/DKTrace.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <regex>
#include <thread>
#include <vector>

namespace {

fs::path OwnTraceFile(const fs::path& folder) {
  return TraceFile(folder, dktest::CurrentExecutable().stem().string(), dktest::CurrentProcessId());
}

std::string LocalStamp(std::chrono::system_clock::time_point when) {
  const std::time_t t = std::chrono::system_clock::to_time_t(when);
  const std::tm local = dktest::LocalTime(t);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d;%H:%M:%S", &local);
  return text;
}

// Tracing on for SO and DB at level 1, TAB-delimited, into a fresh folder.
class DKTraceFileTest : public ::testing::Test {
protected:
  void SetUp() override {
    DKTrace::SetTraceLevel(TL_NORMAL);
    DKTrace::SetTraceDelim(9);
    ASSERT_TRUE(DKTrace::SetTraceFolderName(Text(m_folder.Path().string()).c_str()));
    ASSERT_TRUE(DKTrace::SetTraceSubjects(DK_T("SO,DB")));
  }
  void TearDown() override { DKTrace::SetTraceSubjects(nullptr); }
  Texts Lines(const fs::path& folder) const { return TraceFileLines(OwnTraceFile(folder)); }
  Texts Lines() const { return Lines(m_folder.Path()); }

  ScratchFolder m_folder;
};

// A null format writes the prefix alone (no line end), and a null source is named.
TEST_F(DKTraceFileTest, LineCarriesTimeThreadSourceLevelSubjectAndText) {
  const std::string before = LocalStamp(std::chrono::system_clock::now());
  // Arguments are typed: a DKString prints with %s, and 0 and nullptr are arguments.
  DKTrace::Msg(TL_NORMAL, TS_SO, "Socket", "errCode=%d, errMess=%S, peer=%s, retries=%d, proxy=%s\n", 10054,
               DK_T("connexion r\u00e9initialis\u00e9e"), DKString(DK_T("h\u00f4te")), 0, nullptr);
  const std::string after = LocalStamp(std::chrono::system_clock::now());
  DKTrace::Msg(TL_NORMAL, TS_SO, "first", nullptr);
  DKTrace::Msg(TL_NORMAL, TS_SO, nullptr, "second\n");
  const Texts lines = Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(Parsed(lines[1]).source, "first");
  EXPECT_EQ(Digests({Parsed(lines[1]).text}), Texts{"(null)|1|SO|second"});
  const TraceLine line = Parsed(lines[0]);
  EXPECT_TRUE(std::regex_match(line.stamp, std::regex(R"(\d{4}-\d\d-\d\d;\d\d:\d\d:\d\d\.\d{3})"))) << line.stamp;
  EXPECT_LE(before, line.stamp.substr(0, 19));
  EXPECT_GE(after, line.stamp.substr(0, 19));
  EXPECT_EQ(line.threadId, std::to_string(dktest::CurrentThreadId()));
  EXPECT_EQ(Digests({lines[0]}), Texts{"Socket|1|SO|errCode=10054, errMess=connexion r\xc3\xa9initialis\xc3\xa9"
                                       "e, peer=h\xc3\xb4te, retries=0, proxy=(null)"});
}

// The subjects of cases/subjects.txt.
TEST_F(DKTraceFileTest, EachSubjectIsWrittenWithItsCodeAndAnythingElseAsQuestionMarks) {
  ASSERT_TRUE(DKTrace::SetTraceSubjects(DK_T("SO,CO,BR,PE,DB,REQ,DP,SQL,DK,DL")));
  Texts expected;
  for (const dktest::CaseLine& c : Cases("subjects.txt", 2)) {
    const int subject = static_cast<int>(Number(c, 0));
    DKTrace::Msg(TL_NORMAL, static_cast<TracelSubjects>(subject), "s", "%d\n", subject);
    if (c[1] != "-")
      expected.push_back("s|1|" + c[1] + "|" + std::to_string(subject));
  }
  EXPECT_EQ(Digests(Lines()), expected);
}

// The masks and levels of cases/levels.txt.
TEST_F(DKTraceFileTest, LevelMaskKeepsLevelOneAndPrintsTheMessageLevel) {
  Texts expected;
  for (const dktest::CaseLine& c : Cases("levels.txt", 3)) {
    ASSERT_TRUE(DKTrace::SetTraceLevel(static_cast<int>(Number(c, 0))));
    const auto level = static_cast<TracelLevels>(Number(c, 1));
    EXPECT_EQ(DKTrace::TraceThisSubject(level, TS_SO), c.YesNo(2)) << c.where;
    DKTrace::Msg(level, TS_SO, "s", "x\n");
    if (c.YesNo(2))
      expected.push_back("s|" + std::to_string(level) + "|SO|x");
  }
  EXPECT_EQ(Digests(Lines()), expected);
}

TEST_F(DKTraceFileTest, SwitchingOffClosesTheFileAndSwitchingOnStartsAFreshOne) {
  DKTrace::Msg(TL_NORMAL, TS_SO, "s", "first\n");
  ASSERT_TRUE(DKTrace::SetTraceSubjects(DK_T("XX")));
  DKTrace::Msg(TL_NORMAL, TS_SO, "s", "while off\n");
  EXPECT_EQ(Digests(Lines()), Texts{"s|1|SO|first"});
  ASSERT_TRUE(DKTrace::SetTraceSubjects(DK_T("SO")));
  DKTrace::Msg(TL_NORMAL, TS_SO, "s", "second\n");
  EXPECT_EQ(Digests(Lines()), Texts{"s|1|SO|second"});
}

// The values of cases/delimiters.txt.
TEST_F(DKTraceFileTest, DelimiterSetterAcceptsCharacterCodesOneTo255) {
  ConsoleCapture console;
  for (const dktest::CaseLine& c : Cases("delimiters.txt", 3)) {
    ASSERT_TRUE(DKTrace::SetTraceDelim(44));
    console.Clear();
    EXPECT_EQ(DKTrace::SetTraceDelim(static_cast<int>(Number(c, 0))), c.YesNo(1)) << c.where;
    EXPECT_EQ(console.Text(), c.YesNo(1) ? "" : kIllegalDelimiter) << c.where;
    DKTrace::Msg(TL_NORMAL, TS_SO, "s", "text\n");
    EXPECT_EQ(Digests({Lines().back()}, static_cast<char>(Number(c, 2))), Texts{"s|1|SO|text"}) << c.where;
  }
}

TEST_F(DKTraceFileTest, ChangingTheFolderReopensTheFileThereOrLosesOutputWhenItCannot) {
  DKTrace::Msg(TL_NORMAL, TS_SO, "s", "before\n");
  const ScratchFolder other;
  const fs::path nested = other / "a" / "b";
  ASSERT_TRUE(DKTrace::SetTraceFolderName(Text(nested.string()).c_str()));
  DKTrace::Msg(TL_NORMAL, TS_SO, "s", "after\n");
  EXPECT_EQ(Digests(Lines()), Texts{"s|1|SO|before"});
  EXPECT_EQ(Digests(Lines(nested)), Texts{"s|1|SO|after"});

  ConsoleCapture console;
  const fs::path unwritable = dktest::UnwritableFolder();
  if (unwritable.empty())
    GTEST_SKIP() << "no folder refuses files on this system";
  EXPECT_FALSE(DKTrace::SetTraceFolderName(Text(unwritable.string()).c_str()));
  EXPECT_EQ(console.Text(), "Cannot open trace file " + OwnTraceFile(unwritable).string() + "\n");
  EXPECT_TRUE(DKTrace::IsTracingEnabled());
  EXPECT_FALSE(DKTrace::TraceThisSubject(TL_NORMAL, TS_SO));
  DKTrace::Msg(TL_NORMAL, TS_SO, "s", "lost\n");
  DKTrace::MsgHex(TL_NORMAL, TS_SO, "s", "abc", 3);
  EXPECT_EQ(Lines(nested).size(), 1u);
}

// ---- MsgHex ---------------------------------------------------------------------------------

// The summary keeps the printable bytes only; the rows show 16 bytes each. No bytes to read (a
// null buffer, a length of 0 or less) writes the summary alone.
TEST_F(DKTraceFileTest, HexDumpOf20BytesHasAFullRowAndAPaddedRow) {
  ASSERT_TRUE(DKTrace::SetTraceLevel(TL_DATA | TL_HEX));
  const unsigned char bytes[20] = {'A', 'B', 'C', 'D', 'E', 'F', 'G',  'H',  'I',  'J',
                                   'K', 'L', 'M', 'N', 'O', 'P', 0x00, 0x7F, 0x20, 0x7E};
  DKTrace::MsgHex(TL_DATA, TS_SO, "Socket", bytes, 20);
  const std::pair<const void*, std::int32_t> unreadable[] = {
      {nullptr, 10}, {bytes, -5}, {bytes, INT32_MIN}, {bytes, 0}, {nullptr, 0}};
  for (const auto& [buffer, length] : unreadable)
    DKTrace::MsgHex(TL_NORMAL, TS_SO, "s", buffer, length);
  const Texts lines = Lines();
  ASSERT_EQ(lines.size(), 8u);
  EXPECT_EQ(Digests({lines[0]}), Texts{"Socket|4|SO|(nrbytes=20): ABCDEFGHIJKLMNOP ~"});
  EXPECT_EQ(lines[1], "  0000: 41 42 43 44 45 46 47 48 49 4A 4B 4C 4D 4E 4F 50 ;ABCDEFGHIJKLMNOP");
  EXPECT_EQ(lines[2], "  0016: 00 7F 20 7E " + std::string(12 * 3, ' ') + ";.. ~");
  for (std::size_t i = 0; i < std::size(unreadable); ++i)
    EXPECT_EQ(Digests({lines[3 + i]}), Texts{"s|1|SO|(nrbytes=" + std::to_string(unreadable[i].second) + "): "});
}

TEST_F(DKTraceFileTest, HexDumpOf5000BytesKeeps4095CharactersInTheSummary) {
  ASSERT_TRUE(DKTrace::SetTraceLevel(TL_HEX));
  std::string bytes(5000, ' ');
  for (std::size_t i = 0; i < bytes.size(); ++i)
    bytes[i] = static_cast<char>('a' + i % 26);
  DKTrace::MsgHex(TL_NORMAL, TS_SO, "s", bytes.data(), 5000);

  const Texts lines = Lines();
  ASSERT_EQ(lines.size(), 1u + 313u); // 312 full rows and one of 8 bytes
  EXPECT_EQ(Parsed(lines[0]).text, "(nrbytes=5000): " + bytes.substr(0, 4095));
  for (std::size_t row = 0; row < 313; ++row) {
    char offset[16];
    std::snprintf(offset, sizeof offset, "  %04zu: ", row * 16);
    ASSERT_EQ(lines[1 + row].rfind(offset, 0), 0u) << lines[1 + row];
    ASSERT_EQ(lines[1 + row].size(), row < 312 ? 73u : 65u) << lines[1 + row];
  }
  EXPECT_EQ(lines.back(), "  4992: 61 62 63 64 65 66 67 68 " + std::string(8 * 3, ' ') + ";abcdefgh");
}

// ---- Threads --------------------------------------------------------------------------------

TEST_F(DKTraceFileTest, LinesOfConcurrentThreadsNeverInterleave) {
  ASSERT_TRUE(DKTrace::SetTraceLevel(TL_HEX));
  constexpr int kThreads = 6;
  constexpr int kLines = 800;
  const std::string payload(300, 'x');
  const std::string hexBytes = "0123456789abcdefghijklmnopqrstuvwxyzABCD"; // 40 bytes: three rows
  std::vector<long> threadIds(kThreads);
  RunOnThreads(kThreads, kLines, [&](int t, int i) {
    threadIds[t] = dktest::CurrentThreadId();
    DKTrace::Msg(TL_NORMAL, TS_SO, "worker", "thread=%d line=%d %s\n", t, i, payload.c_str());
    if (i % 100 == 0)
      DKTrace::MsgHex(TL_NORMAL, TS_DB, "worker", hexBytes.data(), 40);
  });

  const Texts lines = Lines();
  std::vector<int> next(kThreads, 0);
  const std::regex text(R"(thread=(\d+) line=(\d+) (x+))");
  int hexDumps = 0;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    TraceLine line;
    ASSERT_TRUE(ParseTraceLine(lines[i], '\t', line)) << "line " << i << ": " << lines[i];
    if (line.subject == "DB") {
      ASSERT_EQ(line.text, "(nrbytes=40): " + hexBytes);
      ASSERT_LT(i + 3, lines.size());
      for (const char* offset : {"  0000: ", "  0016: ", "  0032: "})
        EXPECT_EQ(lines[++i].substr(0, 8), offset);
      ++hexDumps;
      continue;
    }
    std::smatch match;
    ASSERT_TRUE(std::regex_match(line.text, match, text)) << line.text;
    const int t = std::stoi(match[1]);
    ASSERT_LT(t, kThreads);
    EXPECT_EQ(line.threadId, std::to_string(threadIds[t]));
    EXPECT_EQ(std::stoi(match[2]), next[t]++);
    EXPECT_EQ(match[3].length(), static_cast<long>(payload.size()));
  }
  EXPECT_EQ(next, std::vector<int>(kThreads, kLines));
  EXPECT_EQ(hexDumps, kThreads * kLines / 100);
}

TEST_F(DKTraceFileTest, SettersMayRunWhileThreadsWrite) {
  const ScratchFolder second;
  const DKString folders[] = {Text(second.Path().string()), Text(m_folder.Path().string())};
  std::atomic<bool> stop{false};
  RunOnThreads(5, 1, [&](int t, int) { // four writers, and the setters on the fifth thread
    for (int i = 0; t < 4 && !stop.load(); ++i) {
      DKTrace::Msg(TL_NORMAL, TS_SO, "w", "w%d %d %s\n", t, i, "yyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyy");
      DKTrace::MsgHex(TL_NORMAL, TS_SO, "w", "zz", 2);
    }
    for (int round = 0; t == 4 && round < 40; ++round) {
      DKTrace::SetTraceFolderName(folders[round % 2].c_str());
      DKTrace::SetTraceDelim(9);
      DKTrace::SetTraceLevel(round % 3 == 0 ? TL_HEX : TL_NORMAL);
      DKTrace::SetTraceSubjects(round % 5 == 4 ? DK_T("DB") : DK_T("SO,DB"));
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    stop = true; // the writers stop once the setters are done
  });
  DKTrace::SetTraceSubjects(nullptr);

  const std::regex line(R"([^\t]+\t\d+\tw\t1\tSO\t(w\d \d+ y{43}|\(nrbytes=2\): zz)|  0000: 7A 7A {43};zz)");
  for (const fs::path& folder : {second.Path(), m_folder.Path()})
    for (const std::string& text : Lines(folder))
      ASSERT_TRUE(std::regex_match(text, line)) << text;
}

} // namespace
