// A tour of DKTimer and DKAppTimer: one-shot and periodic timers on the shared timer thread,
// a periodic timer that stays on its grid and skips what it overruns, and application timers
// delivered on the main thread by a loop that pumps DKTimerWnd.
#include <DorvikCore/DKTimer.h>

#include <atomic>
#include <chrono>
#include <iostream>
#include <mutex>
#include <thread>

using namespace std::chrono_literals;

int main() {
  std::mutex out; // the callbacks print from other threads

  // One-shot timers fire in the order of their due times, on the default pool.
  std::atomic<int> fired{0};
  DKTimer late([&] {
    std::lock_guard<std::mutex> guard(out);
    std::cout << "one-shot: 30 ms\n";
    ++fired;
  });
  DKTimer early([&] {
    std::lock_guard<std::mutex> guard(out);
    std::cout << "one-shot: 10 ms\n";
    ++fired;
  });
  if (late.Start(30ms).Bad() || early.Start(10ms).Bad())
    return 1;
  while (fired.load() < 2)
    std::this_thread::sleep_for(1ms);

  // A periodic timer: every due time is the previous one plus the period. Its third callback
  // takes 35 ms, so the due times that pass meanwhile are skipped, not queued.
  const DKTimer::Clock::time_point start = DKTimer::Clock::now();
  DKTimer periodic([&] {
    const DKTimerFiring& firing = *DKTimer::CurrentFiring();
    {
      std::lock_guard<std::mutex> guard(out);
      std::cout << "periodic: firing " << firing.number << " due at +"
                << std::chrono::duration_cast<std::chrono::milliseconds>(firing.due - start).count()
                << " ms, skipped so far " << firing.skipped << "\n";
    }
    if (firing.number == 3)
      std::this_thread::sleep_for(35ms);
  });
  if (periodic.StartAt(start + 10ms, 10ms).Bad())
    return 1;
  while (periodic.GetFiredCount() < 6)
    std::this_thread::sleep_for(1ms);
  periodic.Cancel(); // returns once the callback is not running
  std::cout << "periodic: " << periodic.GetFiredCount() << " ran, " << periodic.GetSkippedCount() << " skipped\n";

  // Application timers run on the thread that pumps DKTimerWnd: the application's run loop, or
  // a loop of the program's own as here. No lock needed: everything runs on this thread.
  int ticks = 0;
  DKAppTimer tick([&] {
    std::cout << "main-thread tick " << ++ticks << "\n";
  });
  if (tick.Start(0, 20).Bad())
    return 1;
  while (ticks < 3)
    DKTimerWnd::Pump(DK_INFINITE);
  tick.Cancel();
  std::cout << "application timers armed: " << (DKAppTimer::HasArmedTimers() ? "yes" : "no") << "\n";
  return 0;
}
