// A tour of DKThreadPool and DKThreadServer: tasks with results and exceptions, a bounded queue,
// cancelling, stop requests, and a server that keeps each sender's order.
#include <DorvikCore/DKThreadPool.h>

#include <atomic>
#include <iostream>
#include <stdexcept>
#include <vector>

int main() {
  // The process-wide pool: as many threads as processors.
  DKThreadPool& pool = DKThreadPool::GetDefault();
  std::vector<DKTaskTicket> squares;
  std::vector<long> results(8);
  for (int i = 0; i < 8; ++i)
    squares.push_back(pool.Submit([&results, i] { results[i] = static_cast<long>(i) * i; }));
  for (DKTaskTicket& ticket : squares)
    ticket.Wait();
  std::cout << "squares:";
  for (long value : results)
    std::cout << ' ' << value;
  std::cout << "\n";

  // A task's DKErrorID, or the exception it threw, comes back with its ticket.
  DKTaskTicket failing = pool.Submit([] { return DKLibraryErrorID(DK_MSG_INVALID_ARGUMENT, "port 0"); });
  DKTaskTicket throwing = pool.Submit([]() -> DKErrorID { throw std::runtime_error("disk full"); });
  std::cout << "result:    " << failing.GetResult().AsString() << "\n";
  std::cout << "exception: " << throwing.GetResult().AsString() << "\n";

  // A pool of its own: one thread, a queue of two. What does not fit is refused, not lost.
  DKThreadPoolOptions options;
  options.name = DK_T("small pool");
  options.maxThreads = 1;
  options.capacity = 2;
  DKThreadPool small(options);
  DKEventSemaphore gate;
  DKTaskTicket busy = small.Submit([&] { gate.Wait(); });
  while (small.GetQueuedCount() != 0) // until the thread has taken it
    DKThread::yield();
  DKTaskTicket queued = small.Submit([] { std::cout << "never printed\n"; });
  DKTaskTicket second = small.Submit([] {});
  DKTaskTicket refused = small.Submit([] {});
  std::cout << "refused:   " << refused.GetResult().AsString() << "\n";
  std::cout << "cancelled: " << (queued.Cancel() ? "yes" : "no") << ", " << queued.GetResult().AsString() << "\n";
  gate.Post();

  // A long task that watches for its stop request ends when the pool shuts down.
  std::atomic<long> rounds{0};
  DKTaskTicket watcher = small.Submit([&] {
    while (!DKThreadPool::IsStopRequested())
      ++rounds;
  });
  while (rounds.load() == 0)
    DKThread::yield();
  small.Shutdown(DKThreadPool::Cancel);
  std::cout << "stopped after some rounds: " << (watcher.GetStatus() == DKTaskStatus::Finished ? "yes" : "no") << "\n";

  // A thread server: requests run one at a time, in order; Send waits for the answer.
  DKThreadServer server(DK_T("journal"));
  std::vector<int> journal; // touched by the server's thread only
  for (int i = 1; i <= 3; ++i)
    (void)server.Post([&journal, i] { journal.push_back(i); });
  std::size_t size = 0;
  if (server.Send([&] { size = journal.size(); }).Bad())
    return 1;
  std::cout << "the server has handled " << size << " requests before the Send\n";
  return 0;
}
