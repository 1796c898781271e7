// DKEventSemaphore: manual-reset states and wait results, Pulse releasing only the threads that
// wait, ping-pong between threads, and named events shared between processes.
#include "ThreadsTestSupport.h"

#include <DorvikCore/DKSync.h>

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <string>
#include <thread>
#include <vector>

namespace {

TEST(DKEventSemaphoreTest, ManualResetStatesAndWaitResults) {
  enum Op { Post, Reset, Pulse };
  const struct {
    const char* label;
    bool initial;
    std::vector<Op> ops;
    bool posted;
  } cases[] = {
      {"fresh", false, {}, false},
      {"initially posted", true, {}, true},
      {"posted", false, {Post}, true},
      {"posted twice", false, {Post, Post}, true},
      {"posted then reset", false, {Post, Reset}, false},
      {"reset then posted", true, {Reset, Post}, true},
      {"pulsed without waiters", false, {Pulse}, false},
      {"pulse resets a posted event", true, {Pulse}, false},
  };
  for (const auto& c : cases) {
    DKEventSemaphore event(DKEventSemaphore::defaultValue, c.initial);
    for (const Op op : c.ops)
      op == Post ? event.post() : op == Reset ? event.reset() : event.pulse();
    const std::uint32_t expected = c.posted ? DK_WAIT_OBJECT_0 : DK_WAIT_TIMEOUT;
    EXPECT_EQ(event.Posted(), c.posted) << c.label;
    EXPECT_EQ(event.Wait(0), expected) << c.label;
    EXPECT_EQ(event.wait(5), expected) << c.label;
    EXPECT_EQ(event.posted(), c.posted) << c.label; // waiting consumed nothing
  }
}

TEST(DKEventSemaphoreTest, PostReleasesEveryWaiterAndLaterOnes) {
  constexpr int kWaiters = 6;
  DKEventSemaphore event;
  std::vector<std::future<std::uint32_t>> waiters;
  for (int i = 0; i < kWaiters; ++i)
    waiters.push_back(std::async(std::launch::async, [&event, i] { return event.Wait(i % 2 ? DK_INFINITE : -7); }));
  event.Post();
  for (auto& waiter : waiters)
    EXPECT_EQ(waiter.get(), DK_WAIT_OBJECT_0);
  EXPECT_EQ(event.Wait(), DK_WAIT_OBJECT_0);
}

TEST(DKEventSemaphoreTest, PulseReleasesOnlyTheThreadsWaitingThenAndLeavesTheEventReset) {
  constexpr int kWaiters = 5;
  DKEventSemaphore event;
  std::atomic<int> released{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < kWaiters; ++i)
    waiters.emplace_back([&] {
      if (event.Wait(DK_INFINITE) == DK_WAIT_OBJECT_0)
        ++released;
    });
  // A waiter that has not reached its wait yet misses a pulse: pulse until all are through.
  ASSERT_TRUE(WaitUntil([&] {
    event.Pulse();
    return released.load() == kWaiters;
  }));
  for (std::thread& waiter : waiters)
    waiter.join();
  EXPECT_FALSE(event.Posted());
  // The pulses released those who waited; a wait that starts afterwards is not released.
  EXPECT_EQ(event.Wait(30), DK_WAIT_TIMEOUT);
}

TEST(DKEventSemaphoreTest, PingPongBetweenTwoThreadsKeepsStrictAlternation) {
  constexpr int kRounds = 2000;
  DKEventSemaphore ping;
  DKEventSemaphore pong;
  int shared = 0; // handed back and forth: each side writes only while the other waits
  std::thread other([&] {
    for (int i = 0; i < kRounds; ++i) {
      ping.Wait();
      ping.Reset();
      ++shared;
      pong.Post();
    }
  });
  for (int i = 0; i < kRounds; ++i) {
    ++shared;
    ping.Post();
    ASSERT_EQ(pong.Wait(), DK_WAIT_OBJECT_0);
    pong.Reset();
    ASSERT_EQ(shared, 2 * (i + 1));
  }
  other.join();
}

TEST(DKEventSemaphoreTest, NamedEventIsOneEventForEveryObject) {
  const std::string name = UniqueName("event-shared");
  DKEventSemaphore first(Text(name));
  DKEventSemaphore second(Text(name), true); // exists already: the initial state is not applied
  EXPECT_FALSE(second.Posted());
  first.Post();
  EXPECT_TRUE(second.Posted());
  second.Reset();
  EXPECT_FALSE(first.Posted());
}

TEST(DKEventSemaphoreTest, NamedEventWakesAWaiterInAnotherProcess) {
  const std::string name = UniqueName("event-cross");
  const std::string readyName = UniqueName("event-ready");
  DKEventSemaphore event(Text(name));
  DKEventSemaphore ready(Text(readyName));
  auto child = std::async(std::launch::async, [&] { return RunHelper("event-wait " + name + " " + readyName); });
  ASSERT_EQ(ready.Wait(30000), DK_WAIT_OBJECT_0);
  event.Post();
  EXPECT_EQ(child.get(), 0);
}

TEST(DKEventSemaphoreTest, NamedEventStateIsSeenByAnotherProcessWhileOpen) {
  const std::string name = UniqueName("event-state");
  DKEventSemaphore event(Text(name), true);
  EXPECT_EQ(RunHelper("event-posted " + name), 0);
  event.Reset();
  EXPECT_EQ(RunHelper("event-posted " + name), 12);
}

TEST(DKEventSemaphoreTest, LastCloseDestroysANamedEvent) {
  const std::string name = UniqueName("event-lifetime");
  { DKEventSemaphore posted(Text(name), true); }
  DKEventSemaphore fresh(Text(name), false);
  EXPECT_FALSE(fresh.Posted());
}

TEST(DKEventSemaphoreTest, EventLeftByADeadProcessIsBuiltAnew) {
  const std::string name = UniqueName("event-orphan");
  ASSERT_EQ(RunHelper("event-create-and-die " + name), 0);
  DKEventSemaphore event(Text(name), false);
  EXPECT_FALSE(event.Posted());
}

} // namespace
