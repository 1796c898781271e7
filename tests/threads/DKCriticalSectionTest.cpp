// DKCriticalSection and DKSynchronizedCriticalSection: recursion, the meaning of IsLocked, and
// exclusion under real contention.
#include "ThreadsTestSupport.h"

#include <DorvikCore/DKSync.h>

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

namespace {

unsigned IsLockedFromOtherThread(DKCriticalSection& section) {
  return OnOtherThread([&] { return section.IsLocked(); });
}

bool TryLockFromOtherThread(DKCriticalSection& section) {
  return OnOtherThread([&] {
    const bool taken = section.TryLock();
    section.Unlock(); // does nothing when not taken
    return taken;
  });
}

TEST(DKCriticalSectionTest, IsLockedTellsWhetherTheCallerCouldEnter) {
  DKCriticalSection section;
  EXPECT_EQ(section.IsLocked(), 1u); // free
  section.Lock();
  EXPECT_EQ(section.IsLocked(), 2u); // held by the caller once
  section.lock();
  EXPECT_EQ(section.IsLocked(), 3u);
  EXPECT_EQ(IsLockedFromOtherThread(section), 0u);
  section.Unlock();
  EXPECT_EQ(IsLockedFromOtherThread(section), 0u); // still held once
  section.unlock();
  EXPECT_EQ(IsLockedFromOtherThread(section), 1u);
  EXPECT_EQ(section.IsLocked(), 1u); // IsLocked leaves the section as it found it
}

TEST(DKCriticalSectionTest, ConstructorCanEnterAtOnceAndTryLockIsRecursive) {
  DKCriticalSection section(true);
  EXPECT_FALSE(TryLockFromOtherThread(section));
  EXPECT_TRUE(section.TryLock());
  section.release();
  EXPECT_FALSE(TryLockFromOtherThread(section));
  section.release();
  EXPECT_TRUE(TryLockFromOtherThread(section));
}

TEST(DKCriticalSectionTest, UnlockByAThreadThatDoesNotHoldItChangesNothing) {
  DKCriticalSection section;
  section.obtain();
  std::thread([&] { section.Unlock(); }).join();
  EXPECT_FALSE(TryLockFromOtherThread(section));
  section.Unlock();
  section.Unlock(); // one more than entered: ignored
  EXPECT_TRUE(TryLockFromOtherThread(section));
}

TEST(DKCriticalSectionTest, ManyThreadsIncrementingUnderTheSectionLoseNothing) {
  constexpr int kThreads = 8;
  constexpr int kIncrements = 20000;
  DKCriticalSection section;
  long counter = 0; // deliberately not atomic: the section is the only protection
  std::atomic<int> maxInside{0};
  int inside = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < kIncrements; ++i) {
        const bool useTry = (t % 2 == 1) && (i % 3 == 0);
        if (useTry) {
          while (!section.TryLock())
            std::this_thread::yield();
        } else {
          section.Lock();
        }
        std::lock_guard<DKCriticalSection> nested(section); // recursion under contention
        if (++inside > maxInside.load(std::memory_order_relaxed))
          maxInside.store(inside, std::memory_order_relaxed);
        ++counter;
        --inside;
        section.Unlock();
      }
    });
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(counter, long(kThreads) * kIncrements);
  EXPECT_EQ(maxInside.load(), 1);
  EXPECT_EQ(section.IsLocked(), 1u);
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
  // UnlockWait does not enter the section again on return.
  EXPECT_TRUE(TryLockFromOtherThread(section));
}

} // namespace
