// Fuzz target for the schedule reader (DKSchedule::FromString) and the next occurrence.
//
// Input: the schedule text as UTF-8 (other inputs are passed over); a hash of the bytes also
// picks one of the instants the occurrences are looked for after.
// Properties checked besides "no crash, no hang, no exception":
//   - a text that does not read gives DK_MSG_INVALID_SCHEDULE with a position within the text,
//     and leaves the schedule as it was;
//   - what ToString writes reads back to an equal schedule, and writes again the same text;
//   - in UTC, after each instant: the next occurrence is later, falls on a day and at a time
//     the schedule names (checked by a calendar of this file's own), and no occurrence of the
//     schedule lies between the instant and it;
//   - in the schedule's own zone: occurrences strictly increase, and the next occurrence after
//     the second before one is that same one.
#include <DorvikCore/DKSchedule.h>

#include "FuzzCheck.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <vector>

namespace {

constexpr std::int64_t kDay = 86400;

std::int64_t FloorDiv(std::int64_t a, std::int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }

// The day of the month of a day number (days since 1970-01-01), from the standard calendar.
unsigned MonthDay(std::int64_t dayNumber) {
  const std::chrono::year_month_day date{std::chrono::sys_days{std::chrono::days{dayNumber}}};
  return static_cast<unsigned>(date.day());
}

bool RunsOn(const DKSchedule& schedule, std::int64_t dayNumber) {
  if (schedule.GetDayKind() == DKSchedule::WeekDays) {
    const int mondayFirst = static_cast<int>(((dayNumber + 3) % 7 + 7) % 7); // 1970-01-01 was a Thursday
    return (schedule.GetWeekDays() >> mondayFirst) & 1u;
  }
  const bool last = MonthDay(dayNumber + 1) == 1;
  return ((schedule.GetMonthDays() >> MonthDay(dayNumber)) & 1u) ||
         ((schedule.GetMonthDays() & DKSchedule::LastDayOfMonth) && last);
}

// The first time of the day (seconds) the schedule names at or after `from`; -1 when none.
std::int64_t FirstTimeFrom(const DKSchedule& schedule, std::int64_t from) {
  if (schedule.GetIntervalStep() == 0) {
    const auto& times = schedule.GetTimes();
    const auto it = std::lower_bound(times.begin(), times.end(), from);
    return it == times.end() ? -1 : *it;
  }
  const std::int64_t first = schedule.GetIntervalFirst();
  const std::int64_t step = schedule.GetIntervalStep();
  const std::int64_t k = from <= first ? 0 : (from - first + step - 1) / step;
  const std::int64_t time = first + k * step;
  return time <= schedule.GetIntervalLast() ? time : -1;
}

void CheckUtc(const DKSchedule& schedule, std::int64_t after) {
  std::int64_t next = 0;
  FUZZ_CHECK(schedule.NextAfter(after, next));
  FUZZ_CHECK(next > after);
  FUZZ_CHECK(next - after <= 62 * kDay); // at worst from one 31st to the next
  const std::int64_t nextDay = FloorDiv(next, kDay);
  FUZZ_CHECK(RunsOn(schedule, nextDay));
  FUZZ_CHECK(FirstTimeFrom(schedule, next - nextDay * kDay) == next - nextDay * kDay);
  // Nothing in between: on every day from the instant's to the occurrence's, the first time
  // after the instant is not before the occurrence.
  for (std::int64_t day = FloorDiv(after, kDay); day <= nextDay; ++day) {
    if (!RunsOn(schedule, day))
      continue;
    const std::int64_t from = day == FloorDiv(after, kDay) ? after - day * kDay + 1 : 0;
    const std::int64_t time = FirstTimeFrom(schedule, from);
    if (time >= 0)
      FUZZ_CHECK(day * kDay + time >= next);
  }
}

void CheckOwnZone(const DKSchedule& schedule, std::int64_t after) {
  std::int64_t previous = after;
  for (int i = 0; i < 4; ++i) {
    std::int64_t next = 0;
    FUZZ_CHECK(schedule.NextAfter(previous, next));
    FUZZ_CHECK(next > previous);
    std::int64_t again = 0;
    FUZZ_CHECK(schedule.NextAfter(next - 1, again) && again == next);
    previous = next;
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 6000)
    return 0;
  DKString text;
  if (text.SetFromUTF8(reinterpret_cast<const char*>(data), size).Bad())
    return 0;

  DKSchedule schedule;
  FUZZ_CHECK(schedule.SetWeekDays(DKSchedule::Saturday));
  const DKSchedule before = schedule;
  const DKErrorID read = schedule.FromString(text);
  if (read.Bad()) {
    FUZZ_CHECK(read.GetCode() == DK_MSG_INVALID_SCHEDULE);
    const auto* error = dynamic_cast<const DKErrorWithArgs*>(read.GetError().Get());
    long position = -1;
    FUZZ_CHECK(error && error->GetParam(position, 1));
    FUZZ_CHECK(position >= 0 && static_cast<std::size_t>(position) <= text.Length());
    FUZZ_CHECK(schedule == before);
    return 0;
  }

  const DKString written = schedule.ToString();
  DKSchedule back;
  FUZZ_CHECK(back.FromString(written).Good());
  FUZZ_CHECK(back == schedule);
  FUZZ_CHECK(back.ToString() == written);

  std::uint64_t hash = 1469598103934665603ull;
  for (std::size_t i = 0; i < size; ++i)
    hash = (hash ^ data[i]) * 1099511628211ull;
  const std::int64_t instants[] = {
      0,
      951782399,                                            // 2000-02-28 23:59:59
      1711846799,                                           // 2024-03-31 00:59:59, a DST change in Europe
      static_cast<std::int64_t>(hash % 8000000000ull) - 2000000000, // 1906 to 2223
  };
  DKSchedule utc = schedule;
  utc.SetZone(DKTimeZone::UTC);
  for (const std::int64_t after : instants) {
    CheckUtc(utc, after);
    CheckOwnZone(schedule, after);
  }
  return 0;
}
