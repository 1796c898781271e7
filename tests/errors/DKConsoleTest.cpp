#include <DorvikCore/DKConsole.h>

#include "ErrorsTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <iostream>
#include <map>
#include <thread>
#include <vector>

namespace {

TEST(DKLockedCOUTTest, RedirectionReturnsThePreviousStream) {
  std::ostringstream first;
  std::ostringstream second;
  std::ostream* original = DKLockedCOUT::SetConsoleStream(&first);
  EXPECT_EQ(original, &std::cout);
  EXPECT_EQ(DKLockedCOUT::SetConsoleStream(&second), &first);
  DKLockedCOUT() << "to second";
  EXPECT_EQ(DKLockedCOUT::SetConsoleStream(nullptr), &second); // null restores standard output
  EXPECT_EQ(DKLockedCOUT::SetConsoleStream(original), &std::cout);
  EXPECT_EQ(first.str(), "");
  EXPECT_EQ(second.str(), "to second");
}

TEST(DKLockedCOUTTest, WritesEveryTextKindAsUtf8) {
  ConsoleCapture console;
  DKLockedCOUT().GetCout() << DKString(DK_T("caf\u00e9")) << ' ' << 42 << std::endl;
  DKLockedCOUT() << DK_T("\u20ac") << L"\u00e0" << "|" << DKString(DK_T("\U0001F600")) << std::endl;
  EXPECT_EQ(console.Text(), "caf\xc3\xa9 42\n\xe2\x82\xac\xc3\xa0|\xf0\x9f\x98\x80\n");
}

TEST(DKLockedCOUTTest, LockIsRecursiveOnOneThread) {
  ConsoleCapture console;
  DKLockedCOUT outer;
  outer.GetCout() << "outer ";
  {
    DKLockedCOUT inner;
    inner.GetCout() << "inner ";
  }
  outer.GetCout() << "done";
  EXPECT_EQ(console.Text(), "outer inner done");
}

TEST(DKLockedCOUTTest, LinesFromManyThreadsStayWhole) {
  constexpr int kThreads = 6;
  constexpr int kLines = 300;
  ConsoleCapture console;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kLines; ++i) {
        // Many small pieces, so that an unlocked stream would interleave them.
        DKLockedCOUT lock;
        std::ostream& out = lock.GetCout();
        out << "thread " << t;
        for (int piece = 0; piece < 8; ++piece)
          out << ' ' << piece;
        out << " line " << i << std::endl;
      }
    });
  }
  for (auto& thread : threads)
    thread.join();

  std::map<int, int> nextLine; // each thread's lines arrive in its own order
  const auto lines = SplitLines(console.Text());
  ASSERT_EQ(lines.size(), static_cast<std::size_t>(kThreads * kLines));
  for (const std::string& line : lines) {
    int thread = -1;
    int number = -1;
    int consumed = 0;
    ASSERT_EQ(std::sscanf(line.c_str(), "thread %d 0 1 2 3 4 5 6 7 line %d%n", &thread, &number, &consumed), 2) << line;
    ASSERT_EQ(static_cast<std::size_t>(consumed), line.size()) << line;
    EXPECT_EQ(number, nextLine[thread]++);
  }
}

// ---- Console verbosity ---------------------------------------------------------------------

TEST(GlbGetTraceLevelTest, ProviderAnswersWhileInstalled) {
  EXPECT_EQ(GlbGetTraceLevel(), 1u);
  {
    TraceLevelOverride silent(0);
    EXPECT_EQ(GlbGetTraceLevel(), 0u);
  }
  EXPECT_EQ(GlbGetTraceLevel(), 1u);
  {
    TraceLevelOverride maximum(2);
    EXPECT_EQ(GlbGetTraceLevel(), 2u);
  }
  EXPECT_EQ(GlbGetTraceLevel(), 1u);
}

struct CountingProvider {
  std::atomic<int> calls{0};
  static std::uint32_t Provide(void* context) {
    static_cast<CountingProvider*>(context)->calls.fetch_add(1);
    std::this_thread::yield();
    return 2;
  }
};

TEST(GlbGetTraceLevelTest, RemovedProviderIsNeverCalledAgain) {
  CountingProvider provider;
  DKSetTraceLevelProvider(&CountingProvider::Provide, &provider);
  BackgroundReaders readers(3, [] {
    const std::uint32_t level = GlbGetTraceLevel();
    return level == 1 || level == 2;
  });
  while (provider.calls < 1000)
    std::this_thread::yield();
  DKSetTraceLevelProvider(nullptr);
  const int callsWhenRemoved = provider.calls;
  while (GlbGetTraceLevel() != 1) {
  }
  EXPECT_EQ(readers.Stop(), 0);
  EXPECT_EQ(provider.calls, callsWhenRemoved);
}

} // namespace
