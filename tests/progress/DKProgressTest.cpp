// DKProgress, DKRateEstimator and DKProgressConsole: nested fractions, completion through
// children (also dropped ones), increments from many threads, the smoothed estimate on given
// times, and the texts the console display draws.
#include "support/DKCaseFile.h"
#include "support/DKTestSupport.h"

#include <DorvikCore/DKProgress.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <sstream>
#include <vector>

namespace {

using Clock = DKProgress::Clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

DKSmartPtr<DKProgress> Make(const char* label, DKUInt64 total) { return DKProgress::Create(Text(label), total); }

} // namespace

TEST(DKProgressTest, NestedCountersAddTheirChildrensPartToTheirFraction) {
  DKSmartPtr<DKProgress> root = Make("root", 4);
  DKSmartPtr<DKProgress> a = root->AddChild(Text("a"), 10);
  const auto expect = [&](double fraction, DKUInt64 done, const char* path, const char* step) {
    EXPECT_DOUBLE_EQ(root->GetFraction(), fraction) << step;
    EXPECT_EQ(root->GetDone(), done) << step;
    EXPECT_EQ(root->GetActivePath().AsUTF8(), path) << step;
  };
  expect(0.0, 0, "root > a", "nothing done");
  a->Increment(5);
  expect(0.125, 0, "root > a", "half a child");
  root->Increment();
  expect(0.375, 1, "root > a", "a step of its own");
  a->Increment(50); // stops at the total (TotalsAndCountsChangeWithinTheirBounds), completing the child
  expect(0.5, 2, "root", "child complete");
  DKSmartPtr<DKProgress> b = root->AddChild(Text("b"), 4, 2); // worth two steps
  DKSmartPtr<DKProgress> c = b->AddChild(Text("c"), 2);
  c->Increment();
  expect((2 + (0.5 / 4) * 2) / 4, 2, "root > b > c", "grandchild half done");
  b->Increment(3);
  c.Clear(); // dropped unfinished: its step counts as done, which completes b
  EXPECT_TRUE(b->IsComplete());
  expect(1.0, 4, "root", "dropped grandchild");
  EXPECT_TRUE(root->IsComplete());
}

TEST(DKProgressTest, TotalsAndCountsChangeWithinTheirBounds) {
  const struct {
    const char* label;
    void (*change)(DKProgress&);
    DKUInt64 done;
    DKUInt64 total;
    bool complete;
  } cases[] = {
      {"increment", [](DKProgress& p) { p.Increment(3); }, 3, 10, false},
      {"past the total", [](DKProgress& p) { p.Increment(~DKUInt64{0}); }, 10, 10, true},
      {"set done", [](DKProgress& p) { p.SetDone(7); }, 7, 10, false},
      {"set done past", [](DKProgress& p) { p.SetDone(12); }, 10, 10, true},
      {"smaller total", [](DKProgress& p) { p.SetDone(8), p.SetTotal(5); }, 5, 5, true},
      {"larger total", [](DKProgress& p) { p.SetDone(8), p.SetTotal(20); }, 8, 20, false},
      {"complete", [](DKProgress& p) { p.Complete(); }, 10, 10, true},
      {"total zero", [](DKProgress& p) { p.SetTotal(0); }, 0, 0, true},
  };
  for (const auto& c : cases) {
    DKSmartPtr<DKProgress> p = Make(c.label, 10);
    c.change(*p);
    EXPECT_EQ(p->GetDone(), c.done) << c.label;
    EXPECT_EQ(p->GetTotal(), c.total) << c.label;
    EXPECT_EQ(p->IsComplete(), c.complete) << c.label;
    EXPECT_EQ(p->GetFraction() == 1.0, c.complete) << c.label;
  }
  DKSmartPtr<DKProgress> root = Make("root", 2);
  EXPECT_TRUE(root->AddChild(Text("empty"), 0)->IsComplete()); // a child with nothing to do
  EXPECT_EQ(root->GetDone(), 1u);
}

TEST(DKProgressTest, IncrementsFromManyThreadsAreAllCountedAndCompleteTheParentOnce) {
  constexpr int kThreads = 8;
  constexpr DKUInt64 kSteps = 5000;
  DKSmartPtr<DKProgress> root = Make("root", kThreads * 2);
  std::atomic<int> completedSeen{0};
  RunOnThreads(kThreads, 1, [&](int, int) {
    DKSmartPtr<DKProgress> mine = root->AddChild(Text("mine"), kSteps);
    for (DKUInt64 i = 0; i < kSteps; ++i) {
      mine->Increment();
      if (i % 500 == 0) { // readers meanwhile
        const double fraction = root->GetFraction();
        EXPECT_GE(fraction, 0.0);
        EXPECT_LE(fraction, 1.0);
      }
    }
    EXPECT_TRUE(mine->IsComplete());
    root->Increment();
    completedSeen += root->IsComplete();
  });
  EXPECT_EQ(root->GetDone(), DKUInt64{kThreads * 2});
  EXPECT_TRUE(root->IsComplete());
  EXPECT_GE(completedSeen.load(), 1);
  EXPECT_EQ(root->GetActivePath().AsUTF8(), "root");
}

TEST(DKRateEstimatorTest, TheSmoothedRateFollowsThePaceOfTheGivenReadings) {
  const Clock::time_point t0{};
  DKRateEstimator estimate(seconds(1), milliseconds(50));
  Clock::duration remaining{};
  EXPECT_FALSE(estimate.IsKnown());
  EXPECT_FALSE(estimate.GetRemaining(10, remaining));
  // A steady 10 a second is read exactly.
  for (int i = 0; i <= 20; ++i)
    estimate.Add(t0 + milliseconds(100 * i), i * 1.0);
  EXPECT_NEAR(estimate.GetRate(), 10.0, 1e-9);
  ASSERT_TRUE(estimate.GetRemaining(50, remaining));
  EXPECT_EQ(std::chrono::round<milliseconds>(remaining), seconds(5));
  // Readings too close together, or going back in time, change nothing.
  estimate.Add(t0 + milliseconds(2010), 1000);
  estimate.Add(t0 + milliseconds(1000), 1000);
  EXPECT_NEAR(estimate.GetRate(), 10.0, 1e-9);
  // The pace doubles: the estimate climbs towards 20 without overshooting, two thirds of the way
  // after one time constant.
  double previous = estimate.GetRate();
  double amount = 20;
  for (int i = 1; i <= 50; ++i) {
    amount += 2.0;
    estimate.Add(t0 + milliseconds(2000 + 100 * i), amount);
    EXPECT_GT(estimate.GetRate(), previous) << i;
    EXPECT_LT(estimate.GetRate(), 20.0) << i;
    previous = estimate.GetRate();
    if (i == 10) {
      EXPECT_NEAR(estimate.GetRate(), 20.0 - 10.0 * std::exp(-1.0), 1e-9);
    }
  }
  EXPECT_GT(estimate.GetRate(), 19.9);
  // A count set back starts over.
  estimate.Add(t0 + seconds(20), 3);
  EXPECT_FALSE(estimate.IsKnown());
  EXPECT_EQ(estimate.GetRate(), 0.0);
  // No progress: a rate of 0 has no remaining time.
  estimate.Add(t0 + seconds(21), 3);
  EXPECT_TRUE(estimate.IsKnown());
  EXPECT_FALSE(estimate.GetRemaining(1, remaining));
}

TEST(DKRateEstimatorTest, ACounterReadsItsEstimateFromTheSamplesTakenOnIt) {
  DKSmartPtr<DKProgress> p = Make("p", 100);
  const Clock::time_point t0 = Clock::now() - seconds(10);
  for (int i = 0; i <= 10; ++i) {
    p->SetDone(static_cast<DKUInt64>(4 * i));
    p->Sample(t0 + milliseconds(500 * i)); // 8 a second
  }
  double rate = 0;
  bool known = false;
  Clock::duration remaining{};
  p->GetEstimate(rate, known, remaining); // reads once more, now: no progress since
  EXPECT_TRUE(known);
  EXPECT_GT(rate, 0.0);
  EXPECT_LT(rate, 8.0);
  EXPECT_GT(remaining, seconds(60 / 8));
  p->Complete();
  EXPECT_TRUE(p->GetRemaining(remaining));
  EXPECT_EQ(remaining, Clock::duration::zero());
}

// The times left of cases/durations.txt, then whole bars and lines.
TEST(DKProgressConsoleTest, TextsShowPercentRateAndTimeLeft) {
  for (const dktest::CaseLine& c : dktest::ReadCases(DK_TEST_CASES "/durations.txt", 3))
    EXPECT_EQ(DKProgressConsole::FormatDuration(c.YesNo(0), milliseconds(c.Int(1))).AsUTF8(), c[2]) << c.where;

  EXPECT_EQ(DKProgressConsole::FormatBar(Text("Import > a.csv"), 0.43, 12.4, true, seconds(41), 10).AsUTF8(),
            "Import > a.csv [####------]  43%  12/s  00:41 left");
  EXPECT_EQ(DKProgressConsole::FormatBar(Text("x"), 0.999, 2.24, false, {}, 4).AsUTF8(), "x [###-]  99%  2.2/s  --:-- left");
  EXPECT_EQ(DKProgressConsole::FormatBar(Text("x"), 1.0, 0.0, true, {}, 4).AsUTF8(), "x [####] 100%  --/s  00:00 left");
  EXPECT_EQ(DKProgressConsole::FormatLine(Text("Import"), 0.433, 13, 30, 12.4, true, seconds(41)).AsUTF8(),
            "Import: 43% (13/30), 12/s, 00:41 left");
}

TEST(DKProgressConsoleTest, LinesGoToTheSinkOrStreamAndABarRedrawsOneLine) {
  DKSmartPtr<DKProgress> p = Make("job", 4);
  std::vector<std::string> lines;
  {
    DKProgressConsole display(p, [&](const DKString& line) { lines.push_back(line.AsUTF8()); });
    display.Draw();
    p->Increment(4);
    ASSERT_TRUE(display.Start(1).Good());
    ASSERT_TRUE(WaitUntil([&] { return display.GetDrawCount() >= 3; })); // the timer draws too
    display.Stop();
    const std::uint64_t drawn = display.GetDrawCount();
    display.Stop(); // once is enough
    EXPECT_EQ(display.GetDrawCount(), drawn);
  }
  ASSERT_GE(lines.size(), 3u);
  EXPECT_EQ(lines.front().rfind("job: 0% (0/4), --/s, --:-- left", 0), 0u) << lines.front();
  EXPECT_EQ(lines.back().rfind("job: 100% (4/4), ", 0), 0u) << lines.back();

  std::ostringstream out;
  DKSmartPtr<DKProgress> q = Make("a long label", 2);
  DKSmartPtr<DKProgress> step = q->AddChild(Text("s"), 1);
  {
    DKProgressConsole bar(q, &out, DKProgressConsole::Bar);
    bar.Draw(); // "a long label > s [...]"
    step->Complete();
    ASSERT_TRUE(bar.Start(60000).Good()); // started so that Stop draws the last state
    bar.Stop();
  }
  const std::string text = out.str();
  const std::size_t second = text.find('\r', 1);
  ASSERT_NE(second, std::string::npos) << text;
  const std::string first = text.substr(0, second);
  const std::string last = text.substr(second);
  EXPECT_EQ(first.rfind("\ra long label > s [", 0), 0u) << first;
  EXPECT_EQ(last.rfind("\ra long label [###############---------------]  50%", 0), 0u) << last;
  EXPECT_EQ(last.size(), first.size() + 1) << "the shorter line blanks the rest of the longer one, then ends";
  EXPECT_EQ(last.back(), '\n');

  ConsoleCapture console; // not a terminal: lines
  DKProgressConsole automatic(p);
  automatic.Draw();
  EXPECT_EQ(console.Text().rfind("job: 100% (4/4)", 0), 0u) << console.Text();
  EXPECT_EQ(DKProgressConsole(DKSmartPtr<DKProgress>()).Start().GetCode(), DK_MSG_INVALID_ARGUMENT);
}
