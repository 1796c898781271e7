// The synchronisation objects: critical sections, mutexes (recursion, timeouts, abandonment,
// names shared between processes), events, counting semaphores and the baton.
#include "ThreadsTestSupport.h"
#include "support/DKCaseFile.h"

#include <DorvikCore/DKException.h>
#include <DorvikCore/DKSync.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <numeric>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

bool TryLockFromOtherThread(DKCriticalSection& section) {
  return OnOtherThread([&] {
    const bool taken = section.TryLock();
    section.Unlock(); // does nothing when not taken
    return taken;
  });
}

bool LockFromOtherThread(DKMutex& mutex, int timeoutMs) {
  return OnOtherThread([&] {
    const bool taken = mutex.Lock(timeoutMs);
    if (taken)
      mutex.Unlock();
    return taken;
  });
}

TEST(DKCriticalSectionTest, IsLockedRecursionAndUnlockByANonHolder) {
  DKCriticalSection section;
  EXPECT_EQ(section.IsLocked(), 1u); // free
  section.Lock();
  EXPECT_EQ(section.IsLocked(), 2u); // held by the caller once
  section.lock();
  EXPECT_EQ(section.IsLocked(), 3u);
  EXPECT_EQ(OnOtherThread([&] { return section.IsLocked(); }), 0u);
  std::thread([&] { section.Unlock(); }).join(); // not the holder: changes nothing
  section.Unlock();
  EXPECT_FALSE(TryLockFromOtherThread(section)); // still held once
  section.unlock();
  section.Unlock(); // one more than entered: ignored
  EXPECT_EQ(OnOtherThread([&] { return section.IsLocked(); }), 1u);
  EXPECT_EQ(section.IsLocked(), 1u); // IsLocked leaves the section as it found it

  DKCriticalSection entered(true);
  EXPECT_FALSE(TryLockFromOtherThread(entered));
  entered.release();
  EXPECT_TRUE(TryLockFromOtherThread(entered));
}

TEST(DKSynchronizedCriticalSectionTest, UnlockWaitReturnsAfterPostUnlockRoundAfterRound) {
  constexpr int kRounds = 50;
  DKSynchronizedCriticalSection section;
  std::atomic<int> waiting{0};
  std::atomic<int> woken{0};
  std::thread waiter([&] {
    for (int round = 1; round <= kRounds; ++round) {
      section.Lock();
      waiting.store(round);
      section.UnlockWait(); // leaves the section and sleeps until posted
      woken.store(round);
    }
  });
  for (int round = 1; round <= kRounds; ++round) {
    ASSERT_TRUE(WaitUntil([&] { return waiting.load() == round; }));
    // The waiter has left the section only once it is inside UnlockWait.
    section.Lock();
    section.PostUnlock();
    ASSERT_TRUE(WaitUntil([&] { return woken.load() == round; }));
  }
  waiter.join();
  EXPECT_TRUE(TryLockFromOtherThread(section)); // UnlockWait does not enter again on return
}

TEST(DKMutexTest, RecursionTimeoutsAndUnlockWithoutHolding) {
  DKMutex mutex;
  EXPECT_TRUE(mutex.Lock());
  EXPECT_TRUE(mutex.lock(0)); // recursive, even without waiting
  EXPECT_FALSE(LockFromOtherThread(mutex, 0));
  mutex.Unlock();
  EXPECT_FALSE(LockFromOtherThread(mutex, 0));
  mutex.unlock();
  EXPECT_TRUE(LockFromOtherThread(mutex, 0));
  try {
    mutex.Unlock(); // not held
    FAIL() << "no exception";
  } catch (const DKWindowsLastErrorException& e) {
    EXPECT_NE(e.GetErrorCode(), 0);
    EXPECT_FALSE(e.What().IsEmpty());
  }
  EXPECT_TRUE(mutex.Lock(0)); // nothing is damaged
  std::thread([&] { EXPECT_THROW(mutex.Unlock(), DKWindowsLastErrorException); }).join();
  mutex.Unlock();

  DKMutex owned(DKMutex::defaultValue, true);
  std::atomic<bool> taken{false};
  std::thread other([&] {
    taken = owned.Lock(-5); // a negative timeout waits without limit
    owned.Unlock();
  });
  owned.release();
  other.join();
  EXPECT_TRUE(taken.load());
}

// A thread that ends holding several mutexes, one of them entered twice and one destroyed by
// the thread while it held it: each mutex still alive reports the abandonment once (without
// waiting) and is free again, and the destroyed one leaves nothing behind for the thread's end
// to touch. obtain takes an abandoned mutex over.
TEST(DKMutexTest, AThreadEndingWithSeveralMutexesAbandonsEachAndForgetsOneItDestroyed) {
  DKMutex a, b;
  std::thread([&] {
    ASSERT_TRUE(a.Lock());
    ASSERT_TRUE(a.Lock());
    auto doomed = std::make_unique<DKMutex>();
    ASSERT_TRUE(doomed->Lock());
    ASSERT_TRUE(b.Lock());
    doomed.reset();
  }).join();
  EXPECT_FALSE(a.Lock());
  EXPECT_FALSE(b.Lock(0));
  EXPECT_TRUE(LockFromOtherThread(a, 0));
  EXPECT_TRUE(LockFromOtherThread(b, 0));
  EXPECT_TRUE(a.Lock(0)) << "one report per abandonment";
  a.Unlock();

  std::thread([&] { ASSERT_TRUE(a.Lock()); }).join();
  a.obtain();
  EXPECT_FALSE(LockFromOtherThread(a, 0));
  a.Unlock();
}

TEST(DKMutexTest, NamedMutexIsOneMutexForEveryObjectAndProcess) {
  const std::string name = UniqueName("mutex-shared");
  DKMutex first(Text(name), true); // created owned
  DKMutex second(Text(name), true); // exists already: not owned
  EXPECT_FALSE(LockFromOtherThread(second, 0));
  first.Unlock();
  EXPECT_TRUE(LockFromOtherThread(second, 0));
}

TEST(DKMutexTest, NamesAreKeptApartWhateverTheirCharactersOrLength) {
  const std::string base = UniqueName("");
  const std::string longPrefix(300, 'x');
  const std::string names[] = {base + "a/b", base + "a%2Fb", base + "a\\b", base + longPrefix + "1",
                               base + longPrefix + "2", base + "\xc3\xa9t\xc3\xa9"};
  std::vector<std::unique_ptr<DKMutex>> mutexes;
  for (const std::string& name : names) {
    mutexes.push_back(std::make_unique<DKMutex>(Text(name)));
    ASSERT_TRUE(mutexes.back()->Lock(0)) << name; // free: no earlier name mapped onto it
  }
  for (const std::string& name : names) {
    DKMutex again(Text(name));
    EXPECT_FALSE(LockFromOtherThread(again, 0)) << name;
  }
  for (auto& mutex : mutexes)
    mutex->Unlock();
}

// A semaphore of one unit: locked and unlocked as a mutex is.
struct BinarySemaphore : DKCountingSemaphore {
  BinarySemaphore() : DKCountingSemaphore(1, 1) {}
};
struct NamedMutex : DKMutex {
  NamedMutex() : DKMutex(Text(UniqueName("guarded"))) {}
};

// The standard guards over every lockable class: one contract, one typed test.
template <class Lockable>
class DKStandardGuardsTest : public ::testing::Test {};
using Lockables =
    ::testing::Types<DKCriticalSection, DKSynchronizedCriticalSection, DKMutex, NamedMutex, BinarySemaphore>;
TYPED_TEST_SUITE(DKStandardGuardsTest, Lockables);

TYPED_TEST(DKStandardGuardsTest, LockGuardAndUniqueLockExcludeAndTimeOut) {
  TypeParam object;
  // Threads increment a plain counter, each entering its own way: waiting, spinning on tries, or
  // polling with timed tries. No two are ever inside at once, and no increment is lost.
  long counter = 0; // deliberately not atomic: the lock is the only protection
  int inside = 0;
  std::atomic<int> maxInside{0};
  RunOnThreads(6, 2000, [&](int t, int) {
    if (t % 3 == 0) {
      object.lock();
    } else {
      while (t % 3 == 1 ? !object.try_lock() : !object.try_lock_for(std::chrono::milliseconds(1)))
        std::this_thread::yield();
    }
    if (++inside > maxInside.load(std::memory_order_relaxed))
      maxInside.store(inside, std::memory_order_relaxed);
    ++counter;
    --inside;
    object.unlock();
  });
  EXPECT_EQ(counter, 6L * 2000);
  EXPECT_EQ(maxInside.load(), 1);
  {
    std::lock_guard guard(object);
    // Held here: another thread's timed tries give up, by duration and by deadline.
    EXPECT_FALSE(OnOtherThread([&] {
      std::unique_lock<TypeParam> lock(object, std::chrono::milliseconds(30));
      return lock.owns_lock();
    }));
    EXPECT_FALSE(OnOtherThread([&] {
      return object.try_lock_until(std::chrono::system_clock::now() + std::chrono::milliseconds(5));
    }));
  }
  // A wait of "forever" (the largest duration) is clamped, not overflowed: free, so at once.
  EXPECT_TRUE(object.try_lock_for(std::chrono::nanoseconds::max()));
  object.unlock();
  EXPECT_TRUE(object.try_lock_for(std::chrono::milliseconds(-5))); // a past deadline still tries once
  object.unlock();
}

// Lock reports the abandonment once and leaves the mutex free; a standard guard takes it over.
TEST(DKMutexTest, NamedMutexAbandonedByADeadProcessReportsFalseOnceOrIsTakenOverByAGuard) {
  const std::string name = UniqueName("mutex-abandoned");
  DKMutex mutex(Text(name));
  ASSERT_EQ(RunHelper({"mutex-abandon", name}), 0);
  EXPECT_FALSE(mutex.Lock()); // abandoned: does not wait
  EXPECT_TRUE(mutex.Lock(0));
  EXPECT_EQ(RunHelper({"mutex-try", name}), 10);
  mutex.Unlock();
  EXPECT_EQ(RunHelper({"mutex-try", name}), 0);

  ASSERT_EQ(RunHelper({"mutex-abandon", name}), 0);
  {
    std::lock_guard guard(mutex); // returns holding it
    EXPECT_TRUE(mutex.WasAbandoned());
    EXPECT_EQ(RunHelper({"mutex-try", name}), 10); // another process finds it held
  } // the guard's unlock does not throw
  EXPECT_EQ(RunHelper({"mutex-try", name}), 0);
  {
    std::unique_lock lock(mutex, std::chrono::milliseconds(100));
    ASSERT_TRUE(lock.owns_lock());
    EXPECT_FALSE(mutex.WasAbandoned()); // an ordinary lock this time
  }
  // In one process too: a thread that ended holding it hands it over to the guard.
  std::thread([&] { ASSERT_TRUE(mutex.Lock()); }).join();
  std::lock_guard guard(mutex);
  EXPECT_TRUE(mutex.WasAbandoned());
}

TEST(DKEventSemaphoreTest, ManualResetStatesAndWaitResults) {
  const std::map<std::string, std::function<void(DKEventSemaphore&)>> calls = {
      {"post", [](DKEventSemaphore& e) { e.post(); }},
      {"reset", [](DKEventSemaphore& e) { e.reset(); }},
      {"pulse", [](DKEventSemaphore& e) { e.pulse(); }},
  };
  for (const dktest::CaseLine& c : dktest::ReadCases(std::filesystem::path(DK_THREADS_CASES) / "events.txt", 4)) {
    DKEventSemaphore event(DKEventSemaphore::defaultValue, c.YesNo(1));
    std::istringstream made(c[2] == "-" ? "" : c[2]);
    for (std::string call; made >> call;)
      calls.at(call)(event); // an unknown call throws: the test fails
    const std::uint32_t expected = c.YesNo(3) ? DK_WAIT_OBJECT_0 : DK_WAIT_TIMEOUT;
    EXPECT_EQ(event.Wait(0), expected) << c[0];
    EXPECT_EQ(event.wait(5), expected) << c[0];
    EXPECT_EQ(event.posted(), c.YesNo(3)) << c[0]; // waiting consumed nothing
  }
}

TEST(DKEventSemaphoreTest, PostReleasesEveryWaiterAndPulseOnlyThoseWaiting) {
  constexpr int kWaiters = 6;
  DKEventSemaphore event;
  std::vector<std::future<std::uint32_t>> waiters;
  for (int i = 0; i < kWaiters; ++i)
    waiters.push_back(std::async(std::launch::async, [&event, i] { return event.Wait(i % 2 ? DK_INFINITE : -7); }));
  event.Post();
  for (auto& waiter : waiters)
    EXPECT_EQ(waiter.get(), DK_WAIT_OBJECT_0);
  EXPECT_EQ(event.Wait(), DK_WAIT_OBJECT_0);

  event.Reset();
  std::atomic<int> released{0};
  std::vector<std::thread> pulsed;
  for (int i = 0; i < kWaiters; ++i)
    pulsed.emplace_back([&] { released += event.Wait(DK_INFINITE) == DK_WAIT_OBJECT_0; });
  // A waiter that has not reached its wait yet misses a pulse: pulse until all are through.
  ASSERT_TRUE(WaitUntil([&] {
    event.Pulse();
    return released.load() == kWaiters;
  }));
  for (std::thread& waiter : pulsed)
    waiter.join();
  EXPECT_FALSE(event.Posted());
  EXPECT_EQ(event.Wait(30), DK_WAIT_TIMEOUT); // a wait that starts afterwards is not released
}

TEST(DKEventSemaphoreTest, NamedEventIsOneEventForEveryObjectAndProcess) {
  const std::string name = UniqueName("event-shared");
  DKEventSemaphore first(Text(name));
  DKEventSemaphore second(Text(name), true); // exists already: the initial state is not applied
  EXPECT_FALSE(second.Posted());
  first.Post();
  EXPECT_TRUE(second.Posted());
  second.Reset();
  EXPECT_FALSE(first.Posted());
  EXPECT_EQ(RunHelper({"event-posted", name}), 12);
}

TEST(DKEventSemaphoreTest, LastCloseOrADeadCreatorLeavesNoState) {
  const std::string name = UniqueName("event-lifetime");
  { DKEventSemaphore posted(Text(name), true); }
  EXPECT_FALSE(DKEventSemaphore(Text(name), false).Posted());
  ASSERT_EQ(RunHelper({"event-create-and-die", name}), 0);
  EXPECT_FALSE(DKEventSemaphore(Text(name), false).Posted());
}

TEST(DKEventSemaphoreTest, ANamedEventIsSharedByAnyNumberOfProcesses) {
  constexpr int kProcesses = 72; // more than a fixed table of users would hold
  const std::string name = UniqueName("event-crowd");
  const std::string readyName = UniqueName("event-crowd-ready");
  DKEventSemaphore event(Text(name));
  DKEventSemaphore ready(Text(readyName));
  std::vector<std::future<int>> helpers;
  int opened = 0;
  for (; opened < kProcesses; ++opened) { // one at a time, each holding the event open
    ready.Reset();
    helpers.push_back(std::async(std::launch::async, [&] { return RunHelper({"event-wait", name, readyName}); }));
    std::future<int>& helper = helpers.back();
    WaitUntil([&] { return ready.Posted() || helper.wait_for(std::chrono::seconds(0)) == std::future_status::ready; });
    if (!ready.Posted())
      break;
  }
  event.Post(); // lets every helper go
  EXPECT_EQ(opened, kProcesses) << "the process that could not open the event ended with " << helpers.back().get();
  for (std::future<int>& helper : helpers)
    EXPECT_EQ(helper.valid() ? helper.get() : 0, 0); // one may have been read above
}

TEST(DKEventSemaphoreTest, AnOpenThatRunsOutOfMemoryLeavesNothingOpen) {
  EXPECT_EQ(RunHelper({"open-oom", UniqueName("event-oom")}), 0);
}

TEST(DKCountingSemaphoreTest, CountsBoundsAndBadRequests) {
  DKCountingSemaphore unbounded(2);
  EXPECT_FALSE(unbounded.TryLock(3));
  EXPECT_EQ(unbounded.GetCount(), 2u);
  EXPECT_TRUE(unbounded.TryLock(0));
  EXPECT_TRUE(unbounded.TryLock());
  EXPECT_TRUE(unbounded.TryLock(1));
  EXPECT_FALSE(unbounded.TryLock());
  unbounded.post(2);
  unbounded.wait(2); // covered: returns at once
  EXPECT_EQ(unbounded.GetCount(), 0u);

  EXPECT_EQ(ThrownText([] { DKCountingSemaphore wrong(5, 3); }),
            "DKCountingSemaphore exception: initial greater than the maximum");
  // Unlock at the maximum, past it, and past 32 bits.
  const std::uint32_t overflows[][3] = {{3, 3, 1}, {1, 3, 3}, {5, DKCountingSemaphore::DefaultMaximum, 0xFFFFFFFFu}};
  for (const auto& [initial, maximum, n] : overflows) {
    DKCountingSemaphore semaphore(initial, maximum);
    EXPECT_EQ(ThrownText([&, n = n] { semaphore.Unlock(n); }), "DKCountingSemaphore overflow") << initial << " + " << n;
    EXPECT_EQ(semaphore.GetCount(), initial);
  }
  DKCountingSemaphore small(1, 2);
  EXPECT_THROW(small.Lock(3), DKException); // could never be met: no endless wait
  EXPECT_EQ(small.GetCount(), 1u);
}

TEST(DKCountingSemaphoreTest, ProducersAndConsumersThroughABoundedQueue) {
  constexpr int kPairs = 3;
  constexpr int kItemsEach = 40;
  constexpr std::uint32_t kCapacity = 4;
  DKCountingSemaphore slots(kCapacity, kCapacity);
  DKCountingSemaphore items(0, kCapacity);
  DKCriticalSection queueLock;
  std::deque<int> queue;
  std::atomic<long> consumedSum{0};
  std::atomic<int> maxQueued{0};
  RunOnThreads(2 * kPairs, kItemsEach, [&](int t, int i) {
    if (t % 2 == 0) { // a producer
      slots.Lock();
      queueLock.Lock();
      queue.push_back(t / 2 * kItemsEach + i);
      maxQueued.store(std::max<int>(maxQueued.load(), static_cast<int>(queue.size())));
      queueLock.Unlock();
      items.Unlock();
    } else { // a consumer
      items.wait();
      queueLock.Lock();
      consumedSum += queue.front();
      queue.pop_front();
      queueLock.Unlock();
      slots.post();
    }
  });
  constexpr int kTotal = kPairs * kItemsEach;
  EXPECT_EQ(consumedSum.load(), long(kTotal) * (kTotal - 1) / 2); // every item exactly once
  EXPECT_LE(maxQueued.load(), int(kCapacity));
  EXPECT_EQ(slots.GetCount(), kCapacity);
  EXPECT_EQ(items.GetCount(), 0u);
}

TEST(DKBatonTest, ThreadsTakeTheirTurnsInOrderAndAReachedTurnReturnsAtOnce) {
  constexpr std::uint32_t kThreads = 8;
  constexpr std::uint32_t kRounds = 3;
  DKBaton baton;
  std::vector<std::uint32_t> order; // written only while holding the baton
  for (std::uint32_t round = 0; round < kRounds; ++round)
    RunOnThreads(kThreads, 1, [&](int t, int) { // the last turn starts first
      const std::uint32_t turn = (round + 1) * kThreads - t;
      baton.Lock(turn);
      order.push_back(turn);
      baton.Unlock();
    });
  std::vector<std::uint32_t> expected(kThreads * kRounds);
  std::iota(expected.begin(), expected.end(), 1u);
  EXPECT_EQ(order, expected);
  EXPECT_EQ(baton.GetTurn(), kThreads * kRounds);

  DKBaton fresh;
  fresh.Lock(1); // turn 0 = 1 - 1: taken at once
  std::thread([&] {
    fresh.lock(0); // reached already: returns without waiting for the holder
    fresh.Lock(1);
  }).join();
  fresh.unlock();
  std::thread([&] { fresh.Lock(2); }).join();
  EXPECT_EQ(fresh.GetTurn(), 2u);
  fresh.Unlock();
}

} // namespace
