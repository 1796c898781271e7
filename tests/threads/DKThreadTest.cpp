// DKThread: start and join, the registry, flags, priorities, exit functions and exceptions,
// delete-on-end and reference-counted objects, thread-local slots, the COM model, the thread
// dump, and the stack size from the environment.
#include "ThreadsTestSupport.h"

#include <DorvikCore/DKException.h>
#include <DorvikCore/DKThread.h>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

// The registry's record of the thread of that id, if there is one.
std::optional<DKThreadInfo> Registered(std::uint32_t id) {
  for (const DKThreadInfo& info : DKThread::GetAllThreadsInfo())
    if (info.GetThreadId() == id)
      return info;
  return std::nullopt;
}

// Counts its destructions.
std::atomic<int> g_destroyed{0};
class CountedThread : public DKThread {
public:
  using DKThread::DKThread;
  ~CountedThread() override {
    Join();
    ++g_destroyed;
  }
};

// A run callback that destroys its own thread object, and notes whether it was freed before
// its call returned (its captures would then be freed memory for the rest of the call).
std::atomic<bool> g_inSelfDestroyingCall{false};
std::atomic<bool> g_callbackFreedDuringItsCall{false};
class SelfDestroyingCallback : public DKCallback {
public:
  explicit SelfDestroyingCallback(std::function<void()> record) : m_record(std::move(record)) {}
  ~SelfDestroyingCallback() override {
    if (g_inSelfDestroyingCall.load())
      g_callbackFreedDuringItsCall = true;
  }
  void Call() override {
    g_inSelfDestroyingCall = true;
    delete DKThread::GetCurrentThreadP();
    m_record();
    g_inSelfDestroyingCall = false;
  }

private:
  std::function<void()> m_record;
};

// The thread polls a flag that another thread sets by the thread's id, as a request to stop; the
// registry reports the system's times of the running thread.
TEST(DKThreadTest, StartJoinTheRegistryAndFlagsSetByThreadIdWhileTheThreadRuns) {
  constexpr int kStop = 0x100;
  std::atomic<int> runs{0};
  std::atomic<long> polls{0};
  std::atomic<DKThread*> seenSelf{nullptr};
  std::atomic<std::uint32_t> seenId{0};
  DKThread thread(DKMakeCallback([&] {
    seenId = DKThread::GetCurrentThreadID().m_threadID;
    DKThread* self = DKThread::GetCurrentThreadP();
    self->Join(); // a thread cannot wait for itself: returns at once and changes nothing
    seenSelf = DKThread::GetCurrentThreadP();
    ++runs;
    while (!self->IsFlagSet(kStop)) {
      ++polls;
      DKThread::yield();
    }
  }));
  EXPECT_FALSE(thread.IsStarted());
  thread.Join(); // never started: returns at once
  EXPECT_EQ(DKThread::GetCurrentThreadP(), nullptr); // this thread is not a DKThread
  ASSERT_TRUE(thread.Start().Good());
  EXPECT_TRUE(thread.IsStarted());
  EXPECT_TRUE(thread.Start().Bad()); // started before
  ASSERT_TRUE(WaitUntil([&] { return polls.load() > 0; }));
  EXPECT_EQ(seenSelf.load(), &thread);
  const std::uint32_t id = seenId.load();
  EXPECT_NE(id, 0u);
  EXPECT_EQ(id, thread.GetThreadID().m_threadID);
  EXPECT_TRUE(thread.Exists());
  EXPECT_TRUE(thread.IsRunning());
  std::optional<DKThreadInfo> info; // the polling has used some time the system counted
  ASSERT_TRUE(WaitUntil([&] { return (info = Registered(id)) && info->GetUserTime() + info->GetKernelTime() > 0; }));
  EXPECT_FALSE(info->GetCreationTime().IsNull());
  EXPECT_LE(info->GetCreationTime(), DKDateTimeEx::GetCurrentDateTime());
  EXPECT_GE(info->GetElapsedTime(), 0);
  EXPECT_NE(info->GetPriorityClassText().AsUTF8().find("_PRIORITY_CLASS"), std::string::npos);
  std::ostringstream dump;
  DKThread::DumpAllThreadsInfo(dump);
  EXPECT_NE(dump.str().find(std::to_string(id) + ", "), std::string::npos) << dump.str();
  EXPECT_FALSE(DKThread::IsFlagSet(id, kStop));
  EXPECT_TRUE(DKThread::SetFlag(id, kStop));
  EXPECT_TRUE(DKThread::IsFlagSet(id, kStop));
  EXPECT_TRUE(WaitUntil([&] { return !thread.IsRunning(); })); // finished, not yet joined
  thread.Join();
  EXPECT_EQ(runs.load(), 1);
  EXPECT_FALSE(Registered(id));
  EXPECT_FALSE(DKThread::SetFlag(id, kStop)); // no longer registered
  EXPECT_FALSE(DKThread::IsFlagSet(id, kStop));

  thread.SetFlag(0x30);
  EXPECT_TRUE(thread.IsFlagSet(0x10));
  EXPECT_TRUE(thread.IsFlagSet(0x130));
  EXPECT_FALSE(thread.IsFlagSet(0x1000));
}

TEST(DKThreadTest, WaitForThreadWaitsByIdentityFromManyThreadsAndRejectsUnknownIds) {
  const DKThread_t unknown{0x7FFFFFF0, nullptr};
  EXPECT_EQ(ThrownText([&] { DKThread::WaitForThread(unknown, 10); }), "Invalid Thread ID");

  std::atomic<bool> finished{false};
  DKEventSemaphore release;
  DKThread thread(DKMakeCallback([&] {
    release.Wait();
    finished = true;
  }));
  ASSERT_TRUE(thread.Start().Good());
  const DKThread_t identity = thread.GetThreadID();
  std::atomic<int> returnedAfterTheEnd{0};
  std::vector<std::thread> waiters;
  for (const int slice : {3, 0, -9, DK_INFINITE}) // 0 and negative slices mean no limit
    waiters.emplace_back([&, slice] {
      try {
        DKThread::WaitForThread(identity, slice);
      } catch (const DKException&) { // registered no more when this waiter looked
      }
      returnedAfterTheEnd += finished.load();
    });
  waiters.emplace_back([&] {
    thread.Join();
    returnedAfterTheEnd += finished.load();
  });
  release.Post();
  for (std::thread& waiter : waiters)
    waiter.join();
  EXPECT_EQ(returnedAfterTheEnd.load(), 5);
}

TEST(DKThreadTest, ExceptionsNeverLeaveTheThreadAreReportedWhileVerboseAndExitFunctionsStillRun) {
  const struct {
    const char* label;
    std::uint32_t verbosity;
    void (*body)();
    const char* text; // the whole console text, or with exact false a part of it
    bool exact;
  } cases[] = {
      {"standard", 1, [] { throw std::runtime_error("disk full"); },
       "std::exception: disk full\nunhandled exception in DKThread\n", true},
      {"other", 1, [] { throw 7; }, "unhandled exception in DKThread\n", true},
      {"quiet", 0, [] { throw 42; }, "", true},
      {"none", 1, [] {}, "", true},
      {"library", 1, [] { throw DKException(DK_T("library failure###***###shown"), true); }, "library failure", false},
  };
  for (const auto& c : cases) {
    ConsoleCapture console; // read once the writers are joined
    TraceLevelOverride verbosity(c.verbosity);
    std::vector<int> order; // written by the thread only; read after Join
    DKThread thread(DKMakeCallback([&] {
      order.push_back(0);
      c.body();
    }));
    for (int i = 1; i <= 3; ++i)
      thread.AddExitFunction(DKMakeCallback([&order, i] { order.push_back(i); }));
    ASSERT_TRUE(thread.Start().Good());
    thread.Join();
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3})) << c.label;
    const std::string text = console.Text();
    if (c.exact) {
      EXPECT_EQ(text, c.text) << c.label;
    } else {
      EXPECT_NE(text.find(c.text), std::string::npos) << text;
      EXPECT_NE(text.find("unhandled exception in DKThread\n"), std::string::npos) << text;
    }
  }
}

TEST(DKThreadTest, ObjectsEndedByTheirOwnThreadsAreDestroyedOnceAndLeaveTheRegistry) {
  constexpr int kDeleteOnEnd = 6;
  g_destroyed = 0;
  std::mutex idsLock;
  std::vector<std::uint32_t> ids;
  const auto record = [&] {
    std::lock_guard<std::mutex> guard(idsLock);
    ids.push_back(DKThread::GetCurrentThreadID().m_threadID);
  };
  for (int i = 0; i < kDeleteOnEnd; ++i) {
    auto* thread = new CountedThread(DKMakeCallback(record));
    thread->SetDeleteOnEnd(true);
    ASSERT_TRUE(thread->Start().Good()); // the object is the thread's from here on
  }
  std::atomic<bool> exitFunctionRan{false};
  auto* self = new CountedThread(DKSmartPtr<DKCallback>(new SelfDestroyingCallback(record)));
  self->AddExitFunction(DKMakeCallback([&] { exitFunctionRan = true; }));
  ASSERT_TRUE(self->Start().Good());
  DKEventSemaphore release;
  {
    DKSmartPtr<CountedThread> counted(new CountedThread(DKMakeCallback([&] {
      release.Wait();
      record();
    })));
    ASSERT_TRUE(counted->Start().Good());
  } // the counted thread holds its last reference now
  ASSERT_TRUE(WaitUntil([] { return g_destroyed.load() == kDeleteOnEnd + 1; }));
  EXPECT_FALSE(exitFunctionRan.load()); // they went with the object
  EXPECT_FALSE(g_callbackFreedDuringItsCall.load()); // the callback outlives its call
  release.Post();
  ASSERT_TRUE(WaitUntil([] { return g_destroyed.load() == kDeleteOnEnd + 2; }));
  std::lock_guard<std::mutex> guard(idsLock);
  ASSERT_EQ(ids.size(), std::size_t(kDeleteOnEnd + 2));
  for (const std::uint32_t id : ids)
    EXPECT_TRUE(WaitUntil([id] { return !Registered(id); }));
}

TEST(DKThreadTest, DeleteOnEndObjectsHeldBySmartPointersLiveUntilTheLastOneLetsGo) {
  for (const bool heldBeforeStart : {true, false}) {
    g_destroyed = 0;
    DKEventSemaphore release;
    auto* raw = new CountedThread(DKMakeCallback([&] { release.Wait(); }));
    DKSmartPtr<CountedThread> held;
    if (heldBeforeStart)
      held = raw;
    ASSERT_TRUE(raw->SetDeleteOnEnd(true));
    ASSERT_TRUE(raw->Start().Good());
    held = raw;
    EXPECT_FALSE(held->SetDeleteOnEnd(false)) << "settled when the thread started";
    EXPECT_TRUE(held->GetDeleteOnEnd());
    release.Post();
    ASSERT_TRUE(WaitUntil([&] { return held->NbRef() == 1; })) << "the ended thread lets go of its reference";
    EXPECT_EQ(g_destroyed.load(), 0) << heldBeforeStart;
    held = nullptr;
    EXPECT_EQ(g_destroyed.load(), 1) << heldBeforeStart;
  }
}

TEST(DKThreadTest, TheDestructorWaitsForTheThread) {
  // Lets the thread go on only once its destruction has begun.
  class ReleasedOnDestruction : public DKThread {
  public:
    ReleasedOnDestruction(const DKSmartPtr<DKCallback>& run, DKEventSemaphore& release) : DKThread(run), m_release(release) {}
    ~ReleasedOnDestruction() override { m_release.Post(); }

  private:
    DKEventSemaphore& m_release;
  };
  DKEventSemaphore release;
  std::atomic<bool> finished{false};
  auto* thread = new ReleasedOnDestruction(DKMakeCallback([&] {
    release.Wait();
    DKThread::GetCurrentThreadP()->SetFlag(0x100); // the object is still there
    finished = true;
  }), release);
  ASSERT_TRUE(thread->Start().Good());
  delete thread;
  EXPECT_TRUE(finished.load()) << "the destructor returned while the thread still ran";
}

TEST(DKThreadDeathTest, DestroyingAnObjectThatCountedReferencesStillHoldEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // Each statement ends by itself (so that the test fails instead of hanging) when the process
  // survives the destruction.
  const struct {
    const char* label;
    void (*run)();
    const char* message;
  } cases[] = {
      {"deleted by its own callback while a smart pointer holds it",
       [] {
         static std::atomic<bool> survived{false};
         DKSmartPtr<DKThread> held(new DKThread(DKMakeCallback([] {
           delete DKThread::GetCurrentThreadP();
           survived = true;
         })));
         (void)held->Start();
         WaitUntil([] { return survived.load(); });
       },
       "destroyed while 2 counted reference"},
      {"a delete-on-end object deleted by another thread while it runs",
       [] {
         static DKEventSemaphore release;
         auto* thread = new DKThread(DKMakeCallback([] { release.Wait(60000); }));
         thread->SetDeleteOnEnd(true);
         (void)thread->Start();
         delete thread;
       },
       "destroyed while 1 counted reference"},
  };
  for (const auto& c : cases)
    EXPECT_DEATH(c.run(), c.message) << c.label;
}

TEST(DKThreadTest, PriorityAppliesToTheNewThreadAndARefusedOneFailsStart) {
  const struct {
    int priority;
    const char* name;
  } cases[] = {
      {DK_THREAD_PRIORITY_BELOW_NORMAL, "THREAD_PRIORITY_BELOW_NORMAL"},
      {DK_THREAD_PRIORITY_LOWEST, "THREAD_PRIORITY_LOWEST"},
      {DK_THREAD_PRIORITY_IDLE, "THREAD_PRIORITY_IDLE"},
  };
  for (const auto& c : cases) {
    std::atomic<int> inside{DK_THREAD_PRIORITY_ERROR_RETURN};
    DKEventSemaphore release;
    DKThread thread(DKMakeCallback([&] {
      inside = DKThread::GetThreadPriority(DKThread::GetCurrentThreadID());
      release.Wait();
    }));
    const auto before = DKThread::GetAllThreadsInfo().size();
    const DKErrorID refused = thread.Start(7); // not a priority the system knows
    EXPECT_TRUE(refused.Bad());
    EXPECT_FALSE(refused.AsString().IsEmpty());
    EXPECT_FALSE(thread.IsStarted());
    EXPECT_EQ(DKThread::GetAllThreadsInfo().size(), before);
    EXPECT_EQ(inside.load(), DK_THREAD_PRIORITY_ERROR_RETURN); // never ran
    ASSERT_TRUE(thread.Start(c.priority).Good()) << c.name; // a failed start can be retried; lowering is allowed
    ASSERT_TRUE(WaitUntil([&] { return inside.load() != DK_THREAD_PRIORITY_ERROR_RETURN; }));
    EXPECT_EQ(inside.load(), c.priority) << c.name;
    EXPECT_EQ(thread.GetThreadPriority(), c.priority) << c.name;
    EXPECT_EQ(DKThreadInfo(nullptr, thread.GetThreadID().m_threadID).GetThreadPriorityText().AsUTF8(), c.name);
    release.Post();
    thread.Join();
    EXPECT_EQ(thread.GetThreadPriority(), DK_THREAD_PRIORITY_ERROR_RETURN) << c.name; // gone
  }
  DKThread never(nullptr);
  EXPECT_FALSE(never.SetThreadPriority(DK_THREAD_PRIORITY_LOWEST));
}

TEST(DKThreadTest, ThreadKeysHoldOneValuePerThread) {
  DKThreadKey key = DKThread::AllocateThreadKey();
  ASSERT_NE(key, DK_INVALID_THREAD_KEY);
  int mine = 1;
  int theirs = 2;
  EXPECT_TRUE(DKThread::Set(key, &mine));
  EXPECT_TRUE(OnOtherThread([&] { // a new thread starts empty and keeps a value of its own
    return DKThread::Get(key) == nullptr && DKThread::Set(key, &theirs) && DKThread::Get(key) == &theirs;
  }));
  EXPECT_EQ(DKThread::Get(key), &mine);
  DKThread::ReleaseThreadKey(key);
  EXPECT_EQ(key, DK_INVALID_THREAD_KEY);
  EXPECT_EQ(DKThread::Get(key), nullptr);
  EXPECT_FALSE(DKThread::Set(key, &mine));
  DKThread::ReleaseThreadKey(key); // released already: nothing happens
}

TEST(DKThreadTest, ComModelIsTakenFromTheProcessAtConstruction) {
  EXPECT_TRUE(DKThread::InitializeCOM(DK_COM_MULTITHREADED));
  DKThread multithreaded(nullptr);
  EXPECT_FALSE(DKThread::IsSingleThreadedCOMApartment());
  EXPECT_TRUE(DKThread::InitializeCOM(DK_COM_APARTMENTTHREADED));
  DKThread apartment(nullptr);
  EXPECT_TRUE(DKThread::IsSingleThreadedCOMApartment());
  EXPECT_FALSE(DKThread::InitializeCOM(16));
  EXPECT_EQ(multithreaded.GetComModel(), DK_COM_MULTITHREADED);
  EXPECT_EQ(apartment.GetComModel(), DK_COM_APARTMENTTHREADED);
  apartment.SetFlag(0x10);
  EXPECT_EQ(apartment.GetComModel(), DK_COM_APARTMENTTHREADED); // application flags sit above
  EXPECT_TRUE(DKThread::InitializeCOM(DK_COM_NONE));
}

TEST(DKThreadInfoTest, TimesAndTheDumpOfOneLinePerThread) {
  EXPECT_EQ(DKThreadInfo::FmtTime(DKInt64(1) << 40).AsUTF8(), "305419:53:47.776"); // shorter ones in the dump
  EXPECT_EQ(DKThreadInfo::TimeAsMilliSec(123456789), 12345);
  dk::FILETIME time{};
  time.dwHighDateTime = 1;
  EXPECT_EQ(DKThreadInfo::TimeAsMilliSec(time), (DKInt64(1) << 32) / 10000);

  const std::vector<DKThreadInfo> infos{
      DKThreadInfo(4242, DKDateTimeEx(2024, 3, 1, 14, 5, 9), 1500, 3723004, 90061001, DK_NORMAL_PRIORITY_CLASS,
                   DK_THREAD_PRIORITY_HIGHEST),
      DKThreadInfo(7, DKDateTimeEx(), 0, 0, 0, DK_IDLE_PRIORITY_CLASS, 3),
  };
  std::ostringstream out;
  DKThreadInfo::WriteThreadsInfo(out, infos);
  EXPECT_EQ(out.str(),
            "\n\n****** Writing thread info ******\n\n"
            "    ThreadId, PriorityClass              , ThreadPriority               , CreationTime       , "
            "     KernelTime,        UserTime,     ElapsedTime\n"
            "        4242, NORMAL_PRIORITY_CLASS      , THREAD_PRIORITY_HIGHEST      , 2024/03/01 14:05:09, "
            "    0:00:01.500,     1:02:03.004,    25:01:01.001\n"
            "           7, IDLE_PRIORITY_CLASS        , THREAD_PRIORITY(3)           ,                    , "
            "    0:00:00.000,     0:00:00.000,     0:00:00.000\n"
            "\n****** Thread info written ******\n\n");
}

TEST(DKThreadTest, StackSizeComesFromTheEnvironmentOncePerProcessAndIsTakenWhole) {
  EXPECT_EQ(RunHelper({"stacksize", "1048576"}, {{"DK_THREAD_STACKSIZE", "1048576"}}), 0);
  // 4 GiB + 1 MiB: cut to 32 bits it would be a 1 MiB stack.
  EXPECT_EQ(RunHelper({"stacksize-whole", "4296015872"}, {{"DK_THREAD_STACKSIZE", "4296015872"}}), 0);
}

TEST(DKThreadTest, AThreadTheSystemCannotCreateMakesStartThrow) {
#if defined(DK_TEST_SANITIZER)
  GTEST_SKIP() << "a sanitizer's runtime cannot live under the address-space limit this case sets";
#endif
#if defined(_WIN32)
  // No address-space limit exists for a process (a job's limit counts committed memory, and a
  // stack is only reserved): the system refuses a stack larger than its thread call takes,
  // 4 GiB and more.
  EXPECT_EQ(RunHelper({"stacksize-whole", "4294967297"}, {{"DK_THREAD_STACKSIZE", "4294967297"}}), 0);
#else
  // A 1.5 GB stack in a process limited to 512 MB of address space: refused, since it cannot
  // be given.
  EXPECT_EQ(RunChild({"/bin/sh", "-c", "ulimit -v 524288; exec '" DK_THREADS_HELPER_PATH "' stacksize-whole 1500000000"},
                     {{"DK_THREAD_STACKSIZE", "1500000000"}}),
            0);
#endif
}

TEST(DKThreadTest, ThreadsStartedAndJoinedFromManyThreadsAtOnce) {
  constexpr int kStarters = 4;
  constexpr int kEach = 40;
  std::atomic<int> runs{0};
  const auto callback = DKMakeCallback([&] { ++runs; });
  RunOnThreads(kStarters, kEach, [&](int, int i) {
    DKThread thread(callback);
    ASSERT_TRUE(thread.Start().Good());
    if (i % 2)
      thread.Join();
  }); // the destructor joins the others
  EXPECT_EQ(runs.load(), kStarters * kEach);
}

} // namespace
