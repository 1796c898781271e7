// DKThreadPool and DKThreadServer: results and exceptions of tasks, order, the bounded queue,
// cancellation and its races, stop requests, shutdown with running and queued tasks, growth and
// shrinking of the pool, and the server's per-sender order.
#include "ThreadsTestSupport.h"

#include <DorvikCore/DKException.h>
#include <DorvikCore/DKThreadPool.h>

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

DKThreadPoolOptions Options(unsigned minThreads, unsigned maxThreads, std::size_t capacity = 64, int idleMs = 30000) {
  return {DKString(DK_T("test pool")), minThreads, maxThreads, idleMs, capacity, DK_THREAD_PRIORITY_NORMAL};
}

struct Marker {}; // thrown as a value that is no std::exception

} // namespace

TEST(DKThreadPoolTest, TicketsCarryTheResultOrTheExceptionAndAThrowingTaskNeverEndsItsThread) {
  ConsoleCapture console;
  TraceLevelOverride verbose(1);
  DKThreadPool pool(Options(1, 1));
  std::atomic<std::uint32_t> firstThread{0};
  const struct {
    const char* label;
    DKTaskTicket ticket;
    long code;
    const char* text; // part of the result's text
    bool threw;
  } cases[] = {
      {"void", pool.Submit([&] { firstThread = DKThread::GetCurrentThreadID().m_threadID; }), 0, "SUCCESS", false},
      {"error", pool.Submit([] { return DKLibraryErrorID(DK_MSG_INVALID_ARGUMENT, "bad port"); }),
       DK_MSG_INVALID_ARGUMENT, "bad port", false},
      {"standard exception", pool.Submit([]() -> DKErrorID { throw std::runtime_error("disk full"); }),
       DK_MSG_TASK_EXCEPTION, "disk full", true},
      {"library exception", pool.Submit([] { throw DKException(DK_T("no route")); }), DK_MSG_TASK_EXCEPTION,
       "no route", true},
      {"other exception", pool.Submit([] { throw Marker(); }), DK_MSG_TASK_EXCEPTION, "unknown exception", true},
      {"callback", pool.Submit(DKMakeCallback([] {})), 0, "SUCCESS", false},
      {"on a pool thread, a DKThread", pool.Submit([&] {
         return pool.IsPoolThread() && DKThread::GetCurrentThreadP() ? DKErrorID() : DKErrorID::FromText(Text("no"));
       }),
       0, "SUCCESS", false},
  };
  for (const auto& c : cases) {
    ASSERT_TRUE(c.ticket.Wait()) << c.label;
    const DKErrorID result = c.ticket.GetResult();
    EXPECT_EQ(result.GetCode(), c.code) << c.label;
    EXPECT_NE(result.AsString().AsUTF8().find(c.text), std::string::npos) << c.label << ": " << result.AsString();
    EXPECT_EQ(c.ticket.GetException() != nullptr, c.threw) << c.label;
  }
  EXPECT_THROW(cases[4].ticket.RethrowException(), Marker);
  // A posted task has no ticket: its exception is reported. Its thread finds the queue empty
  // afterwards and must go idle, not end.
  std::atomic<bool> postedRan{false};
  ASSERT_TRUE(pool.Post([&] {
                    postedRan = true;
                    throw std::logic_error("posted task failed");
                  }).Good());
  ASSERT_TRUE(WaitUntil([&] { return postedRan && (pool.GetIdleThreadCount() == 1 || pool.GetThreadCount() == 0); }));
  // The one thread of the pool survived every exception.
  std::atomic<std::uint32_t> lastThread{0};
  ASSERT_TRUE(pool.Submit([&] { lastThread = DKThread::GetCurrentThreadID().m_threadID; }).Wait());
  EXPECT_EQ(lastThread.load(), firstThread.load());
  EXPECT_EQ(console.Text(), "test pool: unhandled exception in a task: posted task failed\n");
}

TEST(DKThreadPoolTest, AFullQueueRefusesWithAClearErrorAndLosesNothingQueued) {
  Gate gate;
  DKThreadPool pool(Options(1, 1, 2));
  std::vector<int> journal; // written by the pool's one thread, read once it is shut down
  DKTaskTicket blocker = pool.Submit([&] { gate.Pass(); });
  ASSERT_TRUE(gate.Reached(1));
  DKTaskTicket a = pool.Submit([&] { journal.push_back(1); });
  DKTaskTicket b = pool.Submit([&] { journal.push_back(2); });
  DKTaskTicket refused = pool.Submit([&] { journal.push_back(3); });
  const DKErrorID posted = pool.Post([&] { journal.push_back(4); });
  EXPECT_EQ(pool.GetQueuedCount(), 2u);
  EXPECT_EQ(refused.GetStatus(), DKTaskStatus::Refused);
  EXPECT_TRUE(refused.IsDone());
  EXPECT_EQ(refused.GetResult().GetCode(), DK_MSG_QUEUE_FULL);
  EXPECT_EQ(refused.GetResult().AsString().AsUTF8(), "test pool: the queue is full (2 tasks)");
  EXPECT_EQ(posted.GetCode(), DK_MSG_QUEUE_FULL);
  // A cancelled task gives its room back, and the order of the others stays.
  EXPECT_TRUE(a.Cancel());
  DKTaskTicket c = pool.Submit([&] { journal.push_back(6); });
  EXPECT_EQ(pool.GetQueuedCount(), 2u);

  // A submitter that may wait gets in once there is room, behind the others.
  std::thread waiter([&] { EXPECT_TRUE(pool.Submit([&] { journal.push_back(5); }, DK_INFINITE).Wait()); });
  ASSERT_TRUE(WaitUntil([&] { return pool.GetQueuedCount() == 2; }));
  gate.open.Post();
  waiter.join();
  ASSERT_TRUE(pool.Shutdown(DKThreadPool::Drain));
  EXPECT_EQ(journal, (std::vector<int>{2, 6, 5}));
  EXPECT_EQ(pool.Post([] {}).GetCode(), DK_MSG_SHUT_DOWN);
}

// Neither for room in its own full queue nor for its own end in a shutdown.
TEST(DKThreadPoolTest, ATaskOfThePoolNeverWaitsForItself) {
  DKThreadPool pool(Options(1, 1, 1));
  Gate gate;
  DKTaskTicket filler;
  DKTaskTicket inner;
  std::atomic<int> shutDown{-1};
  DKTaskTicket outer = pool.Submit([&] {
    gate.Pass();
    inner = pool.Submit([] {}, DK_INFINITE); // the queue holds the filler: refused, not waited for
    shutDown = pool.Shutdown(DKThreadPool::Drain) ? 1 : 0;
  });
  ASSERT_TRUE(gate.Reached(1));
  filler = pool.Submit([] {});
  gate.open.Post();
  ASSERT_TRUE(outer.Wait());
  EXPECT_EQ(inner.GetResult().GetCode(), DK_MSG_QUEUE_FULL);
  EXPECT_EQ(shutDown.load(), 0);
  EXPECT_TRUE(pool.Shutdown(DKThreadPool::Drain));       // from outside it waits for the thread
  EXPECT_EQ(filler.GetStatus(), DKTaskStatus::Finished); // queued before the shutdown: drained
}

TEST(DKThreadPoolTest, CancelTakesOnlyQueuedTasksAndReleasesTheirWaitersAndRequestStopReachesARunningOne) {
  Gate gate;
  DKThreadPool pool(Options(1, 1));
  std::atomic<int> ran{0};
  DKTaskTicket running = pool.Submit([&] {
    ++gate.waiting; // reached, but it polls for a stop request instead of waiting
    while (!DKThreadPool::IsStopRequested())
      DKThread::yield();
    ++ran;
    return DKLibraryErrorID(DK_MSG_INVALID_ARGUMENT, "stopped");
  });
  ASSERT_TRUE(gate.Reached(1));
  DKTaskTicket queued = pool.Submit([&] { ran += 100; });
  DKTaskTicket kept = pool.Submit([&] { ran += 10; });
  std::thread waiter([&] { EXPECT_TRUE(queued.Wait()); }); // released by the cancel
  EXPECT_FALSE(running.Cancel()); // already running
  EXPECT_TRUE(queued.Cancel());
  EXPECT_FALSE(queued.Cancel()); // once
  waiter.join();
  EXPECT_EQ(queued.GetResult().GetCode(), DK_MSG_TASK_CANCELLED);
  EXPECT_FALSE(running.Wait(5)); // cannot have finished: nothing asked it to stop yet
  EXPECT_FALSE(DKThreadPool::IsStopRequested()); // not a pool task here
  running.RequestStop();
  ASSERT_TRUE(kept.Wait());
  EXPECT_EQ(running.GetResult().GetCode(), DK_MSG_INVALID_ARGUMENT);
  EXPECT_FALSE(kept.Cancel()); // finished
  EXPECT_EQ(ran.load(), 11);
  EXPECT_EQ(DKTaskTicket().GetResult().GetCode(), DK_MSG_TASK_CANCELLED);
  EXPECT_TRUE(DKTaskTicket().Wait(0));
}

TEST(DKThreadPoolTest, CancellingRacesWithRunningNeitherLosesNorRepeatsATask) {
  DKThreadPool pool(Options(2, 4, 100000));
  constexpr int kTasks = 4000;
  std::vector<std::atomic<int>> runs(kTasks);
  std::vector<DKTaskTicket> tickets;
  tickets.reserve(kTasks);
  for (int i = 0; i < kTasks; ++i)
    tickets.push_back(pool.Submit([&runs, i] { ++runs[i]; }));
  std::atomic<int> cancelled{0};
  RunOnThreads(3, (kTasks + 2) / 3, [&](int t, int i) { // from the last task down, each thread a third
    if (const int task = kTasks - 1 - t - 3 * i; task >= 0)
      cancelled += tickets[task].Cancel();
  });
  ASSERT_TRUE(pool.Shutdown(DKThreadPool::Drain));
  int finished = 0;
  for (int i = 0; i < kTasks; ++i) {
    const DKTaskStatus status = tickets[i].GetStatus();
    ASSERT_TRUE(status == DKTaskStatus::Finished || status == DKTaskStatus::Cancelled) << i;
    EXPECT_EQ(runs[i].load(), status == DKTaskStatus::Finished ? 1 : 0) << i;
    finished += status == DKTaskStatus::Finished;
  }
  EXPECT_EQ(finished + cancelled.load(), kTasks);
}

TEST(DKThreadPoolTest, ShutdownAndTheDestructorDrainOrCancelQueuedTasksAndStopRunningOnes) {
  enum Way { Drain, Cancel, Destroy }; // Destroy: the destructor, which cancels
  for (const Way way : {Drain, Cancel, Destroy}) {
    Gate gate;
    std::optional<DKThreadPool> pool(std::in_place, Options(2, 2));
    std::atomic<bool> stopSeen{false};
    DKTaskTicket observer = pool->Submit([&] {
      ++gate.waiting; // reached, but it polls instead of waiting
      while (!DKThreadPool::IsStopRequested() && !gate.open.Posted())
        DKThread::yield();
      stopSeen = DKThreadPool::IsStopRequested();
    });
    ASSERT_TRUE(pool->Post([&] { gate.Pass(); }).Good());
    ASSERT_TRUE(gate.Reached(2));
    std::atomic<int> queuedRuns{0};
    std::vector<DKTaskTicket> queued;
    for (int i = 0; i < 5; ++i)
      queued.push_back(pool->Submit([&] { ++queuedRuns; }));
    std::thread opener([&] {
      // Draining, the observer ends when the gate opens; cancelling, when asked to stop. The
      // blocker ignores stop requests: it ends when the gate opens.
      WaitUntil([&] { return way == Drain ? pool->IsShutDown() : stopSeen.load(); });
      gate.open.Post();
    });
    if (way == Destroy)
      pool.reset();
    else
      EXPECT_TRUE(pool->Shutdown(way == Drain ? DKThreadPool::Drain : DKThreadPool::Cancel));
    opener.join();
    EXPECT_EQ(queuedRuns.load(), way == Drain ? 5 : 0);
    for (const DKTaskTicket& ticket : queued)
      EXPECT_EQ(ticket.GetStatus(), way == Drain ? DKTaskStatus::Finished : DKTaskStatus::Cancelled);
    EXPECT_EQ(stopSeen.load(), way != Drain);
    EXPECT_EQ(observer.GetStatus(), DKTaskStatus::Finished);
    if (pool) {
      EXPECT_EQ(pool->GetThreadCount(), 0u);
      EXPECT_TRUE(pool->IsShutDown());
    }
  }
}

TEST(DKThreadPoolTest, ThePoolGrowsToItsMaximumAndShrinksToItsMinimumWhenIdle) {
  Gate gate;
  DKThreadPool pool(Options(1, 3, 64, 1));
  EXPECT_EQ(pool.GetThreadCount(), 1u); // the minimum starts at once
  std::vector<DKTaskTicket> tickets;
  for (int i = 0; i < 4; ++i)
    tickets.push_back(pool.Submit([&] { gate.Pass(); }));
  ASSERT_TRUE(gate.Reached(3));
  EXPECT_EQ(pool.GetThreadCount(), 3u);
  EXPECT_EQ(pool.GetQueuedCount(), 1u); // the fourth waits for a thread: none beyond the maximum
  gate.open.Post();
  for (const DKTaskTicket& ticket : tickets)
    ASSERT_TRUE(ticket.Wait());
  EXPECT_TRUE(WaitUntil([&] { return pool.GetThreadCount() == 1; }));
  // Still serving after shrinking.
  EXPECT_TRUE(pool.Submit([] {}).Wait());
}

TEST(DKThreadServerTest, RequestsOfEachSenderKeepTheirOrderAndSendWaitsForTheResult) {
  DKThreadServer server(DK_T("orders"));
  constexpr int kSenders = 4;
  constexpr int kRequests = 500;
  std::vector<std::pair<int, int>> served; // touched by the server's thread only
  RunOnThreads(kSenders, kRequests, [&](int s, int r) {
    const auto request = [&, s, r] { served.emplace_back(s, r); };
    // Now and then a synchronous request in the middle of the stream.
    EXPECT_TRUE((r % 50 == 49 ? server.Send(request) : server.Post(request, DK_INFINITE)).Good());
  });
  EXPECT_EQ(server.Send([] { return DKLibraryErrorID(DK_MSG_INVALID_ARGUMENT, "answer"); }).GetCode(),
            DK_MSG_INVALID_ARGUMENT);
  ASSERT_EQ(served.size(), static_cast<std::size_t>(kSenders * kRequests));
  std::map<int, int> next;
  for (const auto& [sender, request] : served) {
    EXPECT_EQ(request, next[sender]) << "sender " << sender;
    next[sender] = request + 1;
  }
}

TEST(DKThreadServerTest, SendRethrowsRunsInlineOnTheServerThreadAndStopDrainsOrCancels) {
  DKThreadServer server;
  EXPECT_THROW((void)server.Send([] { throw std::out_of_range("index"); }), std::out_of_range);
  // A request that sends to its own server runs the inner request at once instead of waiting.
  std::vector<int> order;
  EXPECT_TRUE(server
                  .Send([&] {
                    order.push_back(1);
                    EXPECT_TRUE(server.Send([&] { order.push_back(2); }).Good());
                    order.push_back(3);
                  })
                  .Good());
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
  EXPECT_FALSE(server.IsServerThread());

  for (const bool drain : {true, false}) {
    DKThreadServer stopping(DK_T("stopping"));
    Gate gate;
    std::atomic<int> ran{0};
    ASSERT_TRUE(stopping.Post([&] { gate.Pass(); }).Good());
    ASSERT_TRUE(gate.Reached(1));
    ASSERT_TRUE(stopping.Post([&] { ++ran; }).Good());
    DKErrorID sent;
    std::thread sender([&] { sent = stopping.Send([&] { ++ran; }); });
    ASSERT_TRUE(WaitUntil([&] { return stopping.GetQueuedCount() == 2; }));
    std::thread opener([&] {
      WaitUntil([&] { return stopping.IsStopped(); });
      gate.open.Post();
    });
    stopping.Stop(drain);
    sender.join();
    opener.join();
    EXPECT_EQ(ran.load(), drain ? 2 : 0);
    EXPECT_EQ(sent.GetCode(), drain ? 0L : long{DK_MSG_TASK_CANCELLED});
    EXPECT_EQ(stopping.Send([] {}).AsString().AsUTF8(), "stopping is shut down");
  }
}
