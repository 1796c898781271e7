// DKMutex: recursion, timeouts, release by a non-owner, abandonment by a dead owner (thread or
// process), and named mutexes shared between processes.
#include "ThreadsTestSupport.h"

#include <DorvikCore/DKException.h>
#include <DorvikCore/DKSync.h>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

bool LockFromOtherThread(DKMutex& mutex, int timeoutMs) {
  return OnOtherThread([&] {
    const bool taken = mutex.Lock(timeoutMs);
    if (taken)
      mutex.Unlock();
    return taken;
  });
}

TEST(DKMutexTest, RecursiveLockingAndTimeouts) {
  DKMutex mutex;
  EXPECT_TRUE(mutex.Lock());
  EXPECT_TRUE(mutex.lock(0)); // recursive, even without waiting
  EXPECT_FALSE(LockFromOtherThread(mutex, 0));
  EXPECT_FALSE(LockFromOtherThread(mutex, 20));
  mutex.Unlock();
  EXPECT_FALSE(LockFromOtherThread(mutex, 0));
  mutex.unlock();
  EXPECT_TRUE(LockFromOtherThread(mutex, 0));
}

TEST(DKMutexTest, ANegativeTimeoutWaitsWithoutLimit) {
  DKMutex mutex(DKMutex::defaultValue, true);
  std::atomic<bool> taken{false};
  std::thread other([&] {
    taken = mutex.Lock(-5);
    mutex.Unlock();
  });
  EXPECT_FALSE(taken.load());
  mutex.release();
  other.join();
  EXPECT_TRUE(taken.load());
}

TEST(DKMutexTest, UnlockWithoutHoldingThrowsTheSystemError) {
  DKMutex mutex;
  try {
    mutex.Unlock();
    FAIL() << "no exception";
  } catch (const DKWindowsLastErrorException& e) {
    EXPECT_NE(e.GetErrorCode(), 0);
    EXPECT_FALSE(e.What().IsEmpty());
  }
  // Nothing is damaged: the mutex still works.
  EXPECT_TRUE(mutex.Lock(0));
  std::thread([&] { EXPECT_THROW(mutex.Unlock(), DKWindowsLastErrorException); }).join();
  mutex.Unlock();
}

TEST(DKMutexTest, ManyThreadsIncrementingUnderTheMutexLoseNothing) {
  constexpr int kThreads = 6;
  constexpr int kIncrements = 5000;
  DKMutex mutex;
  long counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < kIncrements; ++i) {
        if (t % 2 == 0) {
          mutex.obtain();
        } else {
          while (!mutex.Lock(1)) {
          }
        }
        ++counter;
        mutex.Unlock();
      }
    });
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(counter, long(kThreads) * kIncrements);
}

TEST(DKMutexTest, AMutexAbandonedByADeadThreadReportsFalseOnceAndStaysUsable) {
  DKMutex mutex;
  std::thread([&] { ASSERT_TRUE(mutex.Lock()); }).join(); // ends holding it
  EXPECT_FALSE(mutex.Lock()); // abandoned: does not wait
  EXPECT_TRUE(LockFromOtherThread(mutex, 0)); // repaired and free
  EXPECT_TRUE(mutex.Lock(0));
  mutex.Unlock();

  std::thread([&] { ASSERT_TRUE(mutex.Lock()); }).join();
  mutex.obtain(); // takes an abandoned mutex over
  EXPECT_FALSE(LockFromOtherThread(mutex, 0));
  mutex.Unlock();
}

TEST(DKMutexTest, NamedMutexIsOneMutexForEveryObjectAndProcess) {
  const std::string name = UniqueName("mutex-shared");
  DKMutex first(Text(name));
  DKMutex second(Text(name), true); // exists already: not owned
  ASSERT_TRUE(first.Lock(0));
  EXPECT_FALSE(LockFromOtherThread(second, 0));
  EXPECT_EQ(RunHelper("mutex-try " + name), 10);
  first.Unlock();
  EXPECT_TRUE(LockFromOtherThread(second, 0));
  EXPECT_EQ(RunHelper("mutex-try " + name), 0);
}

TEST(DKMutexTest, NamedMutexCreatedOwnedIsHeldByItsCreator) {
  const std::string name = UniqueName("mutex-owned");
  DKMutex mutex(Text(name), true);
  EXPECT_EQ(RunHelper("mutex-try " + name), 10);
  mutex.Unlock();
  EXPECT_EQ(RunHelper("mutex-try " + name), 0);
}

TEST(DKMutexTest, NamedMutexAbandonedByADeadProcessReportsFalseOnce) {
  const std::string name = UniqueName("mutex-abandoned");
  DKMutex mutex(Text(name));
  ASSERT_EQ(RunHelper("mutex-abandon " + name), 0);
  EXPECT_FALSE(mutex.Lock()); // abandoned: does not wait
  EXPECT_TRUE(mutex.Lock(0));
  EXPECT_EQ(RunHelper("mutex-try " + name), 10);
  mutex.Unlock();
  EXPECT_EQ(RunHelper("mutex-try " + name), 0);
}

TEST(DKMutexTest, NamesAreKeptApartWhateverTheirCharactersOrLength) {
  const std::string base = UniqueName("");
  const std::string longPrefix(300, 'x');
  const std::string names[] = {base + "a/b", base + "a%2Fb", base + "a\\b", base + longPrefix + "1",
                               base + longPrefix + "2", base + "\xc3\xa9t\xc3\xa9"};
  std::vector<std::unique_ptr<DKMutex>> mutexes;
  for (const std::string& name : names) {
    mutexes.push_back(std::make_unique<DKMutex>(Text(name)));
    ASSERT_TRUE(mutexes.back()->Lock(0)) << name;
  }
  // Each is its own mutex: held here, so the same name elsewhere cannot be taken, while a
  // mutex of another name could.
  for (const std::string& name : names) {
    DKMutex again(Text(name));
    EXPECT_FALSE(LockFromOtherThread(again, 0)) << name;
  }
  for (auto& mutex : mutexes)
    mutex->Unlock();
}

} // namespace
