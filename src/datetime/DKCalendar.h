// Calendar arithmetic shared by the date and time classes (internal).
//
// Day numbers count days since 1970-01-01. Years from 0 on follow the Gregorian calendar;
// before year 0 a year is a leap year when DKIsLeapYear says so for its unsigned form, and
// the day numbers follow that rule, so that every valid date has exactly one day number.
#pragma once

#include <DorvikCore/DKDurationEx.h>
#include <DorvikCore/DKTypes.h>

#include <cstdint>

namespace dkcal {

constexpr std::int64_t secondsPerDay = 86400;
constexpr std::int64_t msPerDay = 86400000;
// Day number of 1899-01-01, the origin of DKDate counts.
constexpr std::int64_t dkDateOrigin = -25932;
// Day number of 1899-12-30, the origin of automation dates.
constexpr std::int64_t variantOrigin = -25569;
// Milliseconds from 1601-01-01 (the FILETIME origin) to 1970-01-01.
constexpr std::int64_t fileTimeOriginMs = 11644473600000;

constexpr std::int64_t FloorDiv(std::int64_t a, std::int64_t b) noexcept {
  const std::int64_t q = a / b;
  return (a % b != 0 && (a < 0) != (b < 0)) ? q - 1 : q;
}
constexpr std::int64_t FloorMod(std::int64_t a, std::int64_t b) noexcept { return a - FloorDiv(a, b) * b; }

// DKIsLeapYear's rule, inline.
constexpr bool IsLeap(std::int64_t year) noexcept {
  const auto u = static_cast<std::uint32_t>(static_cast<std::uint64_t>(year));
  return u % 4 == 0 && (u % 100 != 0 || u % 400 == 0);
}

// Length of a month (1..12); 0 for any other month.
constexpr int DaysInMonth(std::int64_t year, std::int64_t month) noexcept {
  constexpr int lengths[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (month < 1 || month > 12)
    return 0;
  return lengths[month - 1] + (month == 2 && IsLeap(year) ? 1 : 0);
}

constexpr bool IsValidDate(std::int64_t year, std::int64_t month, std::int64_t day) noexcept {
  return day >= 1 && day <= DaysInMonth(year, month);
}

// Days of the year before the month.
constexpr int DaysBeforeMonth(std::int64_t year, int month) noexcept {
  constexpr int before[12] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
  return before[month - 1] + (month > 2 && IsLeap(year) ? 1 : 0);
}

// The day-count formula on whatever integer type it is given: days from 1 March of year 0
// (day 1). Exact for years from 1 on (and from March of year 0).
template <class T>
constexpr T JulianDayFormula(T day, T month, T year) noexcept {
  const T y = month < 3 ? year - 1 : year;
  const T m = month < 3 ? month + 9 : month - 3;
  return (153 * m + 2) / 5 + (y / 100 * 146097) / 4 + (y % 100 * 1461) / 4 + day;
}

// Day number of a valid date.
std::int64_t DaysFromCivil(std::int64_t year, int month, int day) noexcept;
// The date of a day number.
void CivilFromDays(std::int64_t days, std::int64_t& year, int& month, int& day) noexcept;

// 0 = Sunday .. 6 = Saturday, the true day of the week.
constexpr int WeekDayOfDays(std::int64_t days) noexcept { return static_cast<int>(FloorMod(days + 4, 7)); }

// A calendar date with room to leave the packed ranges while it is being worked on.
struct Civil {
  std::int64_t year = 0;
  int month = 1;
  int day = 1;
};

// Moves a valid date by days.
void AddDays(Civil& date, std::int64_t days) noexcept;
// Moves a valid date by count units of year, month, week or day (negative backwards); the
// day is clamped to the month's length after a year or month step. Clock units do nothing.
void AddCalendarUnits(Civil& date, DKDurationEx::Unit unit, std::int64_t count) noexcept;

// The week number of DKDateEx::GetYearWeek: Mondays from 1 January up to and including the
// date, where every date before 1970 counts as a Sunday. The date must be valid.
int YearWeek(std::int64_t year, int month, int day) noexcept;
// The day of the week as DKDateEx::GetWeekDay gives it: 0 for every date before 1970.
int DKWeekDay(std::int64_t year, int month, int day) noexcept;

// The count of a duration that arithmetic is about to use. -2147483648, which only the copy
// carried by a DKDurationExceptionEx holds, cannot change sign: it throws DKDurationExceptionEx
// carrying the duration again.
std::int32_t UsableCount(const DKDurationEx& duration);

// A count of `unit` as a duration, moved to coarser units (milliseconds to seconds, minutes,
// hours, days, then weeks) until it fits; the rest is truncated.
DKDurationEx FittingDuration(std::int64_t count, DKDurationEx::Unit unit);

// A moment broken down: a date and milliseconds within the day.
struct Moment {
  Civil date;
  std::int64_t msOfDay = 0;
};
// The moment deltaMs later (earlier when negative).
Moment Shift(const Moment& moment, std::int64_t deltaMs) noexcept;
// Milliseconds since 1970 <-> broken-down moment (both in the same zone).
std::int64_t MomentToMs(const Moment& moment) noexcept;
Moment MsToMoment(std::int64_t ms) noexcept;

// Parts of milliseconds within a day.
inline void SplitTime(std::int64_t ms, int& hour, int& minute, int& second, int& millisecond) noexcept {
  hour = static_cast<int>(ms / 3600000);
  minute = static_cast<int>(ms / 60000 % 60);
  second = static_cast<int>(ms / 1000 % 60);
  millisecond = static_cast<int>(ms % 1000);
}
constexpr bool IsValidTime(std::int64_t hour, std::int64_t minute, std::int64_t second, std::int64_t millisecond) noexcept {
  return hour >= 0 && hour < 24 && minute >= 0 && minute < 60 && second >= 0 && second < 60 && millisecond >= 0 &&
         millisecond < 1000;
}
constexpr std::int64_t TimeMs(std::int64_t hour, std::int64_t minute, std::int64_t second, std::int64_t millisecond) noexcept {
  return ((hour * 60 + minute) * 60 + second) * 1000 + millisecond;
}

} // namespace dkcal
