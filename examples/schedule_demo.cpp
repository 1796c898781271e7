// A tour of DKSchedule: the text form as a configuration file would hold it, its canonical
// writing, bad text with the place of the problem, the next occurrences in local time across a
// daylight-saving change, and a DKScheduleTimer.
//
//   dk_schedule_demo ["schedule text"]
#include <DorvikCore/DKSchedule.h>

#include <atomic>
#include <iostream>
#include <thread>

int main(int argc, char** argv) {
  const char* texts[] = {"weekdays at 8:30, 12:30", "every 15 minutes between 09:00 and 17:00",
                         "the last day of the month at 23:00", "on Monday and thursdays at 18:00 UTC",
                         "every day at 25:00"};
  for (const char* text : texts) {
    DKSchedule schedule;
    const DKErrorID read = schedule.FromString(DKString::FromUTF8(text));
    if (read.Bad())
      std::cout << "\"" << text << "\": " << read.AsString() << "\n";
    else
      std::cout << "\"" << text << "\" is \"" << schedule.ToString() << "\"\n";
  }

  // The next occurrences in the local zone (set TZ, for example TZ=CET-1CEST,M3.5.0,M10.5.0/3, a
  // rule that Windows reads too, or TZ=Europe/Paris on Linux, to see a daylight-saving change:
  // "every day at 02:30" then runs at 03:00 on the day the clocks go forward, and once on the
  // day they go back).
  DKSchedule schedule;
  const DKString text = DKString::FromUTF8(argc > 1 ? argv[1] : "every day at 02:30");
  if (const DKErrorID read = schedule.FromString(text); read.Bad()) {
    std::cout << read.AsString() << "\n";
    return 1;
  }
  DKDateTimeEx when(2024, 3, 29, 12, 0, 0);
  std::cout << "next occurrences of \"" << schedule.ToString() << "\" after " << when.AsString() << ":\n";
  for (int i = 0; i < 5; ++i) {
    when = schedule.NextAfter(when);
    std::cout << "  " << when.AsString(DK_T("%Y-%m-%d %H:%M:%S %Z")) << "  ("
              << when.AsString(DK_T("%H:%M"), DKTimeZone::UTC) << " UTC)\n";
  }

  // A schedule driving a timer: every second, three times.
  DKSchedule everySecond;
  everySecond.SetInterval(1);
  std::atomic<int> runs{0};
  DKScheduleTimer timer(everySecond, DKMakeCallback([&] { ++runs; }));
  if (timer.Start().Bad())
    return 1;
  while (runs.load() < 3)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  timer.Cancel();
  std::cout << "the schedule timer ran " << runs.load() << " times\n";
  return 0;
}
