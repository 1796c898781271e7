// DKSchedule: when something recurs, in local time (or UTC), with a short text form that a
// configuration file can hold; DKScheduleTimer: runs a callback at each occurrence.
//
//   DKSchedule backup;
//   if (backup.FromString(config->GetString(DK_T("Backup"), DK_T("When"), DK_T("every day at 02:00"))).Bad()) ...
//   DKScheduleTimer timer(backup, DKMakeCallback([&] { RunBackup(); }));
//   timer.Start();
//
// The text form, words in any case, "," or "and" between the items of a list:
//
//   [days] [times] [zone]
//   days:   every day | daily | weekdays | weekends | on <weekday list> | every <weekday list>
//           | the last day of the month | on day <day list> of the month
//   times:  at <time list> | every [<n>] second(s)|minute(s)|hour(s) [between <time> and <time>]
//   zone:   utc | local (the default)
//
// Weekdays are named in full or by three letters ("mon", "tuesday", "Fridays"); days of the
// month are 1 to 31 or "last"; times are H:MM or HH:MM[:SS] on the 24-hour clock, "noon" or
// "midnight". Without days the schedule runs every day; without times it runs at 00:00. A list
// of times runs at each of them; "every n minutes" runs at the start of the window (00:00 by
// default) and every n minutes after it while within the window (its end included; 23:59:59 by
// default), starting again each day. A day of the month that a month lacks (31 in April) is
// skipped that month; "last" is always there. Examples:
//
//   every day at 02:00            weekdays at 08:30, 12:30
//   the last day of the month     every 15 minutes between 09:00 and 17:00
//   on mon and thu at 18:00 utc   on day 1, 15 of the month at 06:00
//
// ToString writes the canonical form of these ("weekdays at 08:30, 12:30"), which reads back as
// the same schedule.
//
// Daylight saving: every occurrence is a wall-clock reading of the zone. A reading that does
// not exist (the hour skipped when the clocks go forward) runs at the first instant after the
// gap; a reading that occurs twice (the hour repeated when they go back) runs once, at its first
// occurrence.
#pragma once

#include <DorvikCore/DKDateEx.h>
#include <DorvikCore/DKError.h>
#include <DorvikCore/DKString.h>
#include <DorvikCore/DKThread.h>
#include <DorvikCore/DKTimeZone.h>
#include <DorvikCore/DKTimer.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

// When something runs: the days (every day, some weekdays, some days of the month, the last
// day of the month) and the times of those days (a list, or every so many seconds between two
// times), in local time or a given zone; read from and written to the short text form above.
class DK_EXPORT DKSchedule {
public:
  // Which days a schedule runs on.
  enum DayKind : int {
    WeekDays = 0,  // the days of the week in GetWeekDays
    MonthDays = 1, // the days of the month in GetMonthDays
  };
  // Days of the week as bits of GetWeekDays (Monday first).
  enum : unsigned {
    Monday = 1u << 0,
    Tuesday = 1u << 1,
    Wednesday = 1u << 2,
    Thursday = 1u << 3,
    Friday = 1u << 4,
    Saturday = 1u << 5,
    Sunday = 1u << 6,
    EveryDay = 0x7F,
    MondayToFriday = 0x1F,
    Weekend = Saturday | Sunday,
  };
  // The last day of the month, as bit 0 of GetMonthDays (days 1 to 31 are bits 1 to 31).
  static constexpr std::uint32_t LastDayOfMonth = 1u;
  // At most this many times in a list, and this many code units of text.
  static constexpr std::size_t MaxTimes = 256;
  static constexpr std::size_t MaxTextLength = 4096;

  // Every day at 00:00, local time.
  DKSchedule();

  // Reads the text form. On error (DK_MSG_INVALID_SCHEDULE: the text, the position of the
  // problem, what is wrong) the schedule is left as it was.
  DKErrorID FromString(const DKString& text);
  // The canonical text form.
  DKString ToString() const;

  // The first occurrence strictly after an instant (seconds since 1970-01-01 UTC); false when
  // there is none within the next 400 days (never for a valid schedule).
  bool NextAfter(DKInt64 utcSeconds, DKInt64& next) const;
  // The same with date-time values; the null value when there is none.
  DKDateTimeEx NextAfter(const DKDateTimeEx& after) const;

  // Building in code. Times are seconds since midnight (0 to 86399); the setters return false,
  // changing nothing, for a value out of range.
  bool SetWeekDays(unsigned weekDays);
  bool SetMonthDays(std::uint32_t monthDays);
  bool SetTimes(const std::vector<std::int32_t>& secondsOfDay);
  bool SetInterval(std::int32_t stepSeconds, std::int32_t firstSecond = 0, std::int32_t lastSecond = 86399);
  void SetZone(const DKTimeZone& zone) { m_zone = zone; }

  // The kind of days the schedule runs on.
  DayKind GetDayKind() const noexcept { return m_dayKind; }
  // The weekdays as the bits above, Monday first (for WeekDays).
  unsigned GetWeekDays() const noexcept { return m_weekDays; }
  // The days of the month, bit 1 for the 1st to bit 31 for the 31st, bit 0 for the last day
  // (for MonthDays).
  std::uint32_t GetMonthDays() const noexcept { return m_monthDays; }
  // The times of a list, in order; empty for an interval.
  const std::vector<std::int32_t>& GetTimes() const noexcept { return m_times; }
  // The interval's step in seconds; 0 for a list of times.
  std::int32_t GetIntervalStep() const noexcept { return m_step; }
  std::int32_t GetIntervalFirst() const noexcept { return m_first; }
  std::int32_t GetIntervalLast() const noexcept { return m_last; }
  const DKTimeZone& GetZone() const noexcept { return m_zone; }

  friend DK_EXPORT bool operator==(const DKSchedule& a, const DKSchedule& b) noexcept;

private:
  bool RunsOn(DKInt64 dayNumber) const;
  std::size_t SlotCount() const noexcept;
  std::int32_t Slot(std::size_t index) const noexcept;
  DKInt64 Resolve(DKInt64 wallSeconds) const;

  DayKind m_dayKind = WeekDays;
  unsigned m_weekDays = EveryDay;
  std::uint32_t m_monthDays = 0;
  std::vector<std::int32_t> m_times{0};
  std::int32_t m_step = 0;
  std::int32_t m_first = 0;
  std::int32_t m_last = 86399;
  DKTimeZone m_zone = DKTimeZone::Local;
};

// Runs a callback at every occurrence of a schedule, through a DKTimer (on a pool, the timer
// thread or the main thread). The timer wakes at least once a minute to compare the schedule
// with the wall clock, so that a change of the system's clock moves the next occurrence with
// it; occurrences that a change (or a long callback) leaves behind run once, not one by one.
class DK_EXPORT DKScheduleTimer {
public:
  // A timer that calls callback at each occurrence of schedule, on the pool (the default
  // pool when null) or on the timer thread as target says; not started.
  DKScheduleTimer(const DKSchedule& schedule, const DKSmartPtr<DKCallback>& callback,
                  DKTimerTarget target = DKTimerTarget::Pool, DKThreadPool* pool = nullptr);
  // Cancels.
  ~DKScheduleTimer();
  DKScheduleTimer(const DKScheduleTimer&) = delete;
  DKScheduleTimer& operator=(const DKScheduleTimer&) = delete;

  // Arms for the first occurrence after now. DK_MSG_INVALID_SCHEDULE when the schedule never
  // occurs; the timer's own errors otherwise.
  DKErrorID Start();
  // As DKTimer::Cancel: returns once the callback is not running and will not run again.
  bool Cancel();
  bool IsArmed() const;
  // The next occurrence (UTC seconds since 1970); false when not armed.
  bool GetNextOccurrence(DKInt64& utcSeconds) const;
  const DKSchedule& GetSchedule() const noexcept { return m_schedule; }

  // In the callback: the occurrence it runs for (UTC seconds since 1970); 0 anywhere else.
  static DKInt64 CurrentOccurrence() noexcept;

private:
  void OnTimer();
  DKErrorID ArmLocked(DKInt64 nowMs);

  DKSchedule m_schedule;
  DKSmartPtr<DKCallback> m_callback;
  mutable std::mutex m_lock; // guards m_next and m_armed
  DKInt64 m_next = 0;        // the next occurrence, UTC seconds
  bool m_armed = false;
  DKTimer m_timer;
};
