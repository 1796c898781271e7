// DKCountingSemaphore (counts, bounds, producers and consumers) and DKBaton (turns in order).
#include "ThreadsTestSupport.h"

#include <DorvikCore/DKException.h>
#include <DorvikCore/DKSync.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <mutex>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

namespace {

std::string MessageOf(const DKException& e) { return e.What().AsUTF8(); }

TEST(DKCountingSemaphoreTest, ConstructionSetsCountAndMaximum) {
  DKCountingSemaphore unbounded(2);
  EXPECT_EQ(unbounded.GetCount(), 2u);
  EXPECT_EQ(unbounded.GetSize(), 2147483647u);
  DKCountingSemaphore full(3, 3);
  EXPECT_EQ(full.GetCount(), 3u);
  EXPECT_EQ(full.GetSize(), 3u);
  try {
    DKCountingSemaphore wrong(5, 3);
    FAIL() << "no exception";
  } catch (const DKException& e) {
    EXPECT_EQ(MessageOf(e), "DKCountingSemaphore exception: initial greater than the maximum");
  }
}

TEST(DKCountingSemaphoreTest, TryLockTakesOnlyWhatTheCountCovers) {
  DKCountingSemaphore semaphore(2);
  EXPECT_FALSE(semaphore.TryLock(3));
  EXPECT_EQ(semaphore.GetCount(), 2u);
  EXPECT_TRUE(semaphore.TryLock(0));
  EXPECT_TRUE(semaphore.TryLock());
  EXPECT_TRUE(semaphore.TryLock(1));
  EXPECT_FALSE(semaphore.TryLock());
  EXPECT_EQ(semaphore.GetCount(), 0u);
  semaphore.post(2);
  semaphore.wait(2); // covered: returns at once
  EXPECT_EQ(semaphore.GetCount(), 0u);
}

TEST(DKCountingSemaphoreTest, OverflowAndImpossibleRequestsThrowAndChangeNothing) {
  const struct {
    const char* label;
    std::uint32_t initial;
    std::uint32_t maximum;
    std::uint32_t n;
  } overflows[] = {
      {"at the maximum", 3, 3, 1},
      {"past the maximum", 1, 3, 3},
      {"past 32 bits", 5, DKCountingSemaphore::DefaultMaximum, 0xFFFFFFFFu},
  };
  for (const auto& c : overflows) {
    DKCountingSemaphore semaphore(c.initial, c.maximum);
    try {
      semaphore.Unlock(c.n);
      ADD_FAILURE() << c.label << ": no exception";
    } catch (const DKException& e) {
      EXPECT_EQ(MessageOf(e), "DKCountingSemaphore overflow") << c.label;
    }
    EXPECT_EQ(semaphore.GetCount(), c.initial) << c.label;
  }
  DKCountingSemaphore small(1, 2);
  EXPECT_THROW(small.Lock(3), DKException); // could never be met: no endless wait
  EXPECT_EQ(small.GetCount(), 1u);
}

TEST(DKCountingSemaphoreTest, ProducersAndConsumersThroughABoundedQueue) {
  constexpr int kProducers = 3;
  constexpr int kConsumers = 3;
  constexpr int kItemsEach = 40;
  constexpr std::uint32_t kCapacity = 4;
  DKCountingSemaphore slots(kCapacity, kCapacity);
  DKCountingSemaphore items(0, kCapacity);
  DKCriticalSection queueLock;
  std::deque<int> queue;
  std::atomic<long> consumedSum{0};
  std::atomic<int> consumedCount{0};
  std::atomic<int> maxQueued{0};

  std::vector<std::thread> threads;
  for (int p = 0; p < kProducers; ++p)
    threads.emplace_back([&, p] {
      for (int i = 0; i < kItemsEach; ++i) {
        slots.Lock();
        {
          std::lock_guard<DKCriticalSection> guard(queueLock);
          queue.push_back(p * kItemsEach + i);
          maxQueued.store(std::max<int>(maxQueued.load(), static_cast<int>(queue.size())));
        }
        items.Unlock();
      }
    });
  for (int c = 0; c < kConsumers; ++c)
    threads.emplace_back([&] {
      for (int i = 0; i < kItemsEach; ++i) {
        items.wait();
        int value = 0;
        {
          std::lock_guard<DKCriticalSection> guard(queueLock);
          value = queue.front();
          queue.pop_front();
        }
        slots.post();
        consumedSum += value;
        ++consumedCount;
      }
    });
  for (std::thread& thread : threads)
    thread.join();

  constexpr int kTotal = kProducers * kItemsEach;
  EXPECT_EQ(consumedCount.load(), kTotal);
  EXPECT_EQ(consumedSum.load(), long(kTotal) * (kTotal - 1) / 2); // every item exactly once
  EXPECT_LE(maxQueued.load(), int(kCapacity));
  EXPECT_EQ(slots.GetCount(), kCapacity);
  EXPECT_EQ(items.GetCount(), 0u);
}

TEST(DKBatonTest, ThreadsTakeTheirTurnsInOrderWhateverOrderTheyStartIn) {
  constexpr std::uint32_t kThreads = 8;
  constexpr std::uint32_t kRounds = 3;
  DKBaton baton;
  std::vector<std::uint32_t> order; // written only while holding the baton
  for (std::uint32_t round = 0; round < kRounds; ++round) {
    std::vector<std::thread> threads;
    for (std::uint32_t i = kThreads; i >= 1; --i) { // the last turn starts first
      const std::uint32_t turn = round * kThreads + i;
      threads.emplace_back([&, turn] {
        baton.Lock(turn);
        order.push_back(turn);
        baton.Unlock();
      });
    }
    for (std::thread& thread : threads)
      thread.join();
  }
  std::vector<std::uint32_t> expected(kThreads * kRounds);
  std::iota(expected.begin(), expected.end(), 1u);
  EXPECT_EQ(order, expected);
  EXPECT_EQ(baton.GetTurn(), kThreads * kRounds);
}

TEST(DKBatonTest, ATurnAlreadyReachedReturnsAtOnceWithoutTheBaton) {
  DKBaton baton;
  baton.Lock(1); // turn 0 = 1 - 1: taken at once
  EXPECT_EQ(baton.GetTurn(), 1u);
  bool returned = false;
  std::thread([&] {
    baton.lock(0); // reached already: does not wait for the holder
    baton.Lock(1);
    returned = true;
  }).join();
  EXPECT_TRUE(returned);
  baton.unlock();

  std::atomic<bool> second{false};
  std::thread next([&] {
    baton.Lock(2);
    second = true;
    baton.Unlock();
  });
  next.join();
  EXPECT_TRUE(second.load());
  EXPECT_EQ(baton.GetTurn(), 2u);
}

} // namespace
