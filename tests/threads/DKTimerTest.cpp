// DKTimer, DKAppTimer and DKTimerWnd: firing order, never early, periodic timers on their grid
// (no drift) that skip instead of piling up, Cancel against running callbacks and its races,
// re-arming from a callback, bad arguments, exceptions, and delivery on the pumping thread.
// Time appears only as the order of events and as due times the timers report; nothing
// depends on how fast the machine is.
#include "ThreadsTestSupport.h"
#include "support/DKTestWindowMessages.h"

#include <DorvikCore/DKThreadPool.h>
#include <DorvikCore/DKTimer.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using Clock = DKTimer::Clock;
using std::chrono::milliseconds;

// What the callbacks saw, in the order they ran.
struct Firings {
  std::mutex lock;
  std::vector<int> ids;
  std::vector<DKTimerFiring> firings;
  std::vector<Clock::time_point> ranAt;

  void Add(int id) {
    const Clock::time_point now = Clock::now();
    std::lock_guard<std::mutex> guard(lock);
    ids.push_back(id);
    firings.push_back(*DKTimer::CurrentFiring());
    ranAt.push_back(now);
  }
  std::size_t Count() {
    std::lock_guard<std::mutex> guard(lock);
    return ids.size();
  }
};

// The cases that run once on the timer thread and once handed over to a pool.
class DKTimerOnEachTargetTest : public ::testing::TestWithParam<DKTimerTarget> {};
INSTANTIATE_TEST_SUITE_P(Targets, DKTimerOnEachTargetTest,
                         ::testing::Values(DKTimerTarget::TimerThread, DKTimerTarget::Pool),
                         [](const auto& info) { return info.param == DKTimerTarget::Pool ? "Pool" : "TimerThread"; });

} // namespace

TEST_P(DKTimerOnEachTargetTest, OneShotTimersFireOnceInTheOrderOfTheirDueTimesAndNeverEarly) {
  // Cancelled ones never fire; equal due times fire in the order of arming. A pool of one
  // thread keeps the order of the hand-over.
  DKThreadPool pool(0, 1);
  Firings seen;
  // The timer thread is held until every timer is armed and the cancelled ones are cancelled,
  // however long that takes: then all are due, and the heap alone decides the order.
  DKEventSemaphore armed;
  DKTimer holder([&] { armed.Wait(); }, DKTimerTarget::TimerThread);
  ASSERT_TRUE(holder.Start(0).Good());
  ASSERT_TRUE(WaitUntil([&] { return !holder.IsArmed(); }));
  const std::size_t before = DKTimer::GetArmedCount();
  std::mt19937 random(7);
  const Clock::time_point base = Clock::now() + milliseconds(5);
  std::vector<std::unique_ptr<DKTimer>> timers;
  std::vector<int> offsets;
  std::vector<int> expected; // ids of the timers left armed, in the order of their due times
  for (int id = 0; id < 300; ++id) {
    offsets.push_back(static_cast<int>(random() % 40));
    timers.push_back(std::make_unique<DKTimer>([&seen, id] { seen.Add(id); }, GetParam(), &pool));
    ASSERT_TRUE(timers.back()->StartAt(base + milliseconds(offsets.back())).Good());
    if (id % 7 != 0)
      expected.push_back(id);
  }
  EXPECT_EQ(DKTimer::GetArmedCount(), before + 300);
  for (int id = 0; id < 300; id += 7) { // once all are in the heap; every other one by its destructor
    if (id % 14 == 0)
      EXPECT_TRUE(timers[id]->Cancel());
    else
      timers[id].reset();
  }
  EXPECT_EQ(DKTimer::GetArmedCount(), before + expected.size());
  std::stable_sort(expected.begin(), expected.end(), [&](int a, int b) { return offsets[a] < offsets[b]; });
  armed.Post();
  ASSERT_TRUE(WaitUntil([&] { return seen.Count() == expected.size(); }));
  timers.clear(); // the destructors wait for a running callback
  EXPECT_EQ(seen.ids, expected);
  for (std::size_t i = 0; i < seen.firings.size(); ++i) {
    EXPECT_EQ(seen.firings[i].number, 1u);
    EXPECT_GE(seen.ranAt[i], seen.firings[i].due) << "firing " << i << " ran early";
  }
}

TEST_P(DKTimerOnEachTargetTest, PeriodicDueTimesStayOnTheirGridAndOverrunsAreSkippedNotPiledUp) {
  Firings seen;
  std::atomic<int> inside{0};
  std::atomic<int> mostInside{0};
  const Clock::duration period = milliseconds(2);
  DKTimer timer(
      [&] {
        const int now = ++inside;
        mostInside = std::max(mostInside.load(), now);
        seen.Add(0);
        // The third callback overruns: it lasts until four more due times have passed.
        const DKTimerFiring firing = *DKTimer::CurrentFiring();
        if (firing.number == 3)
          while (Clock::now() < firing.due + 4 * period)
            DKThread::yield();
        --inside;
      },
      GetParam());
  const Clock::time_point start = Clock::now() + milliseconds(1);
  ASSERT_TRUE(timer.StartAt(start, period).Good());
  ASSERT_TRUE(WaitUntil([&] { return seen.Count() >= 8; }));
  EXPECT_TRUE(timer.Cancel());
  EXPECT_EQ(mostInside.load(), 1);
  std::lock_guard<std::mutex> guard(seen.lock);
  for (std::size_t i = 0; i < seen.firings.size(); ++i) {
    const DKTimerFiring& firing = seen.firings[i];
    EXPECT_EQ(firing.number, i + 1);
    // No drift: every due time is the start plus a whole number of periods, and each period
    // either fired or was counted as skipped.
    EXPECT_EQ(firing.due, start + static_cast<Clock::rep>(firing.number - 1 + firing.skipped) * period)
        << "firing " << i;
    EXPECT_GE(seen.ranAt[i], firing.due);
  }
  EXPECT_GE(seen.firings.back().skipped, 3u);
  EXPECT_EQ(timer.GetFiredCount(), seen.firings.size());
}

TEST_P(DKTimerOnEachTargetTest, CancelReturnsOnlyOnceTheRunningCallbackHasFinished) {
  Gate gate;
  std::atomic<bool> finished{false};
  DKTimer timer(
      [&] {
        gate.Pass();
        finished = true;
      },
      GetParam());
  ASSERT_TRUE(timer.Start(0, 1).Good());
  ASSERT_TRUE(gate.Reached(1));
  std::atomic<bool> cancelReturned{false};
  bool finishedWhenCancelReturned = false;
  std::thread canceller([&] {
    EXPECT_TRUE(timer.Cancel()); // periodic: still armed
    finishedWhenCancelReturned = finished.load();
    cancelReturned = true;
  });
  ASSERT_TRUE(WaitUntil([&] { return !timer.IsArmed(); })); // Cancel has disarmed, and waits
  EXPECT_FALSE(cancelReturned.load());
  gate.open.Post();
  canceller.join();
  EXPECT_TRUE(finishedWhenCancelReturned);
}

TEST_P(DKTimerOnEachTargetTest, NoCallbackStartsAfterCancelReturnsWhateverTheRace) {
  DKThreadPool pool(2, 2);
  std::atomic<int> late{0};
  std::atomic<bool> cancelled{false};
  DKTimer timer([&] { late += cancelled.load(); }, GetParam(), &pool);
  for (int round = 0; round < 300; ++round) {
    cancelled = false;
    ASSERT_TRUE(timer.Start(0, round % 3 == 0 ? 0 : 1).Good());
    if (round % 2)
      DKThread::yield();
    timer.Cancel();
    cancelled = true;
  }
  pool.Submit([] {}).Wait(); // every firing handed to the pool has been looked at
  EXPECT_EQ(late.load(), 0);
}

TEST_P(DKTimerOnEachTargetTest, CallbacksMayCancelAndReArmTheirOwnTimer) {
  std::atomic<int> runs{0};
  std::unique_ptr<DKTimer> timer;
  timer = std::make_unique<DKTimer>(
      [&] {
        const int run = ++runs;
        if (run < 5) {
          EXPECT_TRUE(timer->Start(0).Good()); // a one-shot that arms itself again
        } else if (run == 5) {
          EXPECT_FALSE(timer->Cancel()); // not armed any more, and no deadlock on itself
          EXPECT_TRUE(timer->Start(0, 1).Good()); // now periodic
        } else if (run == 7) {
          EXPECT_TRUE(timer->Cancel()); // a periodic timer cancelled from its own callback stops there
        }
      },
      GetParam());
  ASSERT_TRUE(timer->Start(0).Good());
  ASSERT_TRUE(WaitUntil([&] { return runs.load() == 7 && !timer->IsArmed(); }));
  timer.reset();
  EXPECT_EQ(runs.load(), 7);
}

TEST(DKTimerTest, BadArgumentsAreRefusedAndNothingIsArmed) {
  DKTimer empty;
  EXPECT_EQ(empty.Start(10).GetCode(), DK_MSG_INVALID_ARGUMENT);
  EXPECT_FALSE(empty.IsArmed());
  std::atomic<int> runs{0};
  DKTimer timer([&] { ++runs; });
  EXPECT_EQ(timer.Start(10, -1).GetCode(), DK_MSG_INVALID_ARGUMENT);
  EXPECT_FALSE(timer.IsArmed());
  EXPECT_EQ(timer.GetNextDue(), Clock::time_point());
  ASSERT_TRUE(timer.Start(std::chrono::hours(1), std::chrono::hours(1)).Good());
  EXPECT_TRUE(timer.IsArmed());
  EXPECT_GT(timer.GetNextDue(), Clock::now());
  EXPECT_EQ(timer.SetCallback(DKMakeCallback([] {})).GetCode(), DK_MSG_INVALID_ARGUMENT);
  EXPECT_TRUE(timer.Cancel());
  EXPECT_TRUE(timer.SetCallback(DKMakeCallback([&] { runs += 10; }), DKTimerTarget::TimerThread).Good());
  ASSERT_TRUE(timer.Start(-5).Good()); // in the past: at once
  ASSERT_TRUE(WaitUntil([&] { return !timer.IsArmed(); }));
  EXPECT_EQ(runs.load(), 10);
  EXPECT_EQ(DKTimer::CurrentFiring(), nullptr);
}

TEST(DKAppTimerTest, CallbacksRunOnlyWhenPumpedAndWaitForItWithoutPilingUp) {
  std::atomic<int> runs{0};
  DKAppTimer timer([&] { ++runs; });
  ASSERT_TRUE(timer.Start(0, 1).Good());
  EXPECT_TRUE(DKAppTimer::HasArmedTimers());
  // Nobody pumps: one firing waits, the others are skipped.
  ASSERT_TRUE(WaitUntil([&] { return timer.GetSkippedCount() >= 3; }));
  EXPECT_EQ(DKTimerWnd::GetQueuedCount(), 1u);
  EXPECT_EQ(runs.load(), 0);
  EXPECT_EQ(DKTimerWnd::Pump(0), 1);
  EXPECT_EQ(runs.load(), 1);
  while (runs.load() < 4)
    DKTimerWnd::Pump(DK_INFINITE);
  ASSERT_TRUE(WaitUntil([&] { return DKTimerWnd::GetQueuedCount() == 1; }));
  EXPECT_TRUE(timer.Cancel());
  EXPECT_EQ(DKTimerWnd::Pump(0), 1); // the firing queued before the cancel does nothing now
  EXPECT_EQ(runs.load(), 4);
  EXPECT_FALSE(DKAppTimer::HasArmedTimers());

  // A one-shot keeps the loop alive until its callback ran.
  DKAppTimer once([&] { runs += 10; });
  ASSERT_TRUE(once.Start(0).Good());
  ASSERT_TRUE(WaitUntil([&] { return DKTimerWnd::GetQueuedCount() == 1; }));
  EXPECT_TRUE(DKAppTimer::HasArmedTimers());
  EXPECT_EQ(DKTimerWnd::Pump(0), 1);
  EXPECT_EQ(runs.load(), 14);
  EXPECT_FALSE(DKAppTimer::HasArmedTimers());
}

TEST(DKAppTimerTest, PostRunsInOrderWakeEndsAWaitAndExceptionsDoNotStopThePump) {
  ConsoleCapture console;
  TraceLevelOverride verbose(1);
  std::vector<int> order;
  for (int i = 0; i < 3; ++i)
    DKTimerWnd::Post(DKMakeCallback([&order, i] {
      order.push_back(i);
      if (i == 1)
        throw std::runtime_error("posted failure");
    }));
  DKTimerWnd::Post(DKSmartPtr<DKCallback>()); // null: ignored
  EXPECT_EQ(DKTimerWnd::GetQueuedCount(), 3u);
  EXPECT_EQ(DKTimerWnd::Pump(0), 3);
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
  EXPECT_EQ(console.Text(), "DKTimerWnd: unhandled exception in a timer callback: posted failure\n");

  std::atomic<int> pumped{-1};
  std::thread pump([&] { pumped = DKTimerWnd::Pump(DK_INFINITE); });
  DKTimerWnd::Wake();
  pump.join();
  EXPECT_EQ(pumped.load(), 0);
  DKTimerWnd::Wake(); // nobody pumps: the next pump does not wait
  EXPECT_EQ(DKTimerWnd::Pump(DK_INFINITE), 0);
}

// The hidden timer window: a thread's own message loop runs the queued callbacks (Windows only;
// elsewhere attaching refuses).
TEST(DKTimerWndTest, TheHiddenWindowBelongsToOneThreadAndExistsOnlyWithWindowMessages) {
  if (!dktest::HasWindowMessages()) {
    EXPECT_TRUE(DKTimerWnd::Attach().Bad());
    EXPECT_EQ(DKTimerWnd::GetWindowHandle(), nullptr);
    DKTimerWnd::Detach(); // nothing to destroy
    return;
  }
  ASSERT_TRUE(DKTimerWnd::Attach().Good());
  void* const handle = DKTimerWnd::GetWindowHandle();
  ASSERT_NE(handle, nullptr);
  EXPECT_TRUE(DKTimerWnd::Attach().Good()); // the owner again: the same window
  EXPECT_EQ(DKTimerWnd::GetWindowHandle(), handle);
  std::thread other([] {
    EXPECT_TRUE(DKTimerWnd::Attach().Bad()); // owned by the test's thread
    DKTimerWnd::Detach();                    // not the owner: nothing
  });
  other.join();
  EXPECT_EQ(DKTimerWnd::GetWindowHandle(), handle);
  DKTimerWnd::Detach();
  EXPECT_EQ(DKTimerWnd::GetWindowHandle(), nullptr);
  // Free again, any thread may take it.
  std::thread next([] {
    EXPECT_TRUE(DKTimerWnd::Attach().Good());
    EXPECT_NE(DKTimerWnd::GetWindowHandle(), nullptr);
    DKTimerWnd::Detach();
  });
  next.join();
  EXPECT_EQ(DKTimerWnd::GetWindowHandle(), nullptr);
}

class DKTimerWndWindowTest : public ::testing::Test {
protected:
  void SetUp() override {
    if (!dktest::HasWindowMessages())
      GTEST_SKIP() << "the system has no window messages";
    ASSERT_TRUE(DKTimerWnd::Attach().Good());
  }
  void TearDown() override {
    DKTimerWnd::Detach();
    DKTimerWnd::Pump(0);
    dktest::DropThreadMessages();
  }
};

TEST_F(DKTimerWndWindowTest, TheThreadsOwnMessageLoopRunsWhatAnyThreadPostsAndAppTimers) {
  const std::uint32_t self = DKThread::GetCurrentThreadID().m_threadID;
  std::atomic<int> runs{0};
  std::atomic<bool> elsewhere{false};
  std::thread poster([&] {
    for (int i = 0; i < 100; ++i)
      DKTimerWnd::Post(DKMakeCallback([&] {
        if (DKThread::GetCurrentThreadID().m_threadID != self)
          elsewhere = true;
        ++runs;
      }));
  });
  std::atomic<int> ticks{0};
  DKAppTimer timer([&] { ++ticks; });
  ASSERT_TRUE(timer.Start(0, 1).Good());
  EXPECT_TRUE(dktest::DispatchMessagesUntil([&] { return runs.load() == 100 && ticks.load() >= 3; }, 60000));
  poster.join();
  EXPECT_TRUE(timer.Cancel());
  EXPECT_FALSE(elsewhere.load());
  EXPECT_EQ(runs.load(), 100);
}

TEST_F(DKTimerWndWindowTest, WakeUpsAreOneMessageHoweverManyPostsWait) {
  std::atomic<int> runs{0};
  for (int i = 0; i < 1000; ++i)
    DKTimerWnd::Post(DKMakeCallback([&] { ++runs; }));
  EXPECT_EQ(dktest::DropThreadMessages(), 1);
  EXPECT_EQ(DKTimerWnd::Pump(0), 1000);
  // The dropped wake-up does not silence the window: the next post sends another.
  DKTimerWnd::Post(DKMakeCallback([&] { ++runs; }));
  EXPECT_TRUE(dktest::DispatchMessagesUntil([&] { return runs.load() == 1001; }, 60000));
}

TEST_F(DKTimerWndWindowTest, APumpOnTheWindowsThreadWakesForPostsWakesAndQuitMessages) {
  // Posts and wakes from another thread end a wait that sleeps on the thread's messages.
  std::atomic<int> runs{0};
  std::thread poster([&] { DKTimerWnd::Post(DKMakeCallback([&] { ++runs; })); });
  int ran = 0;
  while (ran == 0)
    ran += DKTimerWnd::Pump(DK_INFINITE);
  poster.join();
  EXPECT_EQ(ran, 1);
  std::thread waker([] { DKTimerWnd::Wake(); });
  EXPECT_EQ(DKTimerWnd::Pump(DK_INFINITE), 0);
  waker.join();

  // A quit message ends the wait and is kept, with its code, for the caller.
  EXPECT_FALSE(DKTimerWnd::TakeQuitMessage());
  DKTimerWnd::Post(DKMakeCallback([] { dktest::PostQuitToThisThread(7); }));
  EXPECT_EQ(DKTimerWnd::Pump(0), 1);
  EXPECT_EQ(DKTimerWnd::Pump(DK_INFINITE), 0);
  int code = 0;
  EXPECT_TRUE(DKTimerWnd::TakeQuitMessage(&code));
  EXPECT_EQ(code, 7);
  EXPECT_FALSE(DKTimerWnd::TakeQuitMessage());
  // It was taken out of the queue: the next wait waits.
  EXPECT_EQ(DKTimerWnd::Pump(1), 0);
  EXPECT_FALSE(DKTimerWnd::TakeQuitMessage());
}

// The exit handlers stop the timer thread and the default pool. On Windows the system has ended
// those threads before a DLL's exit handlers run: waiting for them would never end.
TEST(DKTimerTest, AProcessEndsWithATimerArmedAndThePoolBusy) {
  EXPECT_EQ(RunHelper({"exit-with-threads"}), 0);
}
