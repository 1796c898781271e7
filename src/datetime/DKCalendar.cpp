// Calendar arithmetic (datetime/DKCalendar.h).
#include "datetime/DKCalendar.h"

#include <DorvikCore/DKDateExceptions.h>

#include <limits>

namespace dkcal {

namespace {

// Day number of 0000-01-01.
constexpr std::int64_t yearZero = -719528;

// Gregorian day number (Howard Hinnant's days_from_civil), for years from 0 on.
constexpr std::int64_t GregorianDays(std::int64_t year, int month, int day) noexcept {
  const std::int64_t y = year - (month <= 2 ? 1 : 0);
  const std::int64_t era = FloorDiv(y, 400);
  const std::int64_t yoe = y - era * 400;
  const std::int64_t doy = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
  const std::int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

// Multiples of n in [first, last], both positive.
constexpr std::int64_t Multiples(std::int64_t n, std::int64_t first, std::int64_t last) noexcept {
  return last / n - (first - 1) / n;
}

// Leap years in [year, -1] under DKIsLeapYear's unsigned rule.
constexpr std::int64_t LeapYearsBeforeZero(std::int64_t year) noexcept {
  constexpr std::int64_t wrap = std::int64_t{1} << 32;
  const std::int64_t first = year + wrap;
  const std::int64_t last = wrap - 1;
  return Multiples(4, first, last) - Multiples(100, first, last) + Multiples(400, first, last);
}

static_assert(GregorianDays(1970, 1, 1) == 0);
static_assert(GregorianDays(0, 1, 1) == yearZero);
static_assert(GregorianDays(1899, 1, 1) == dkDateOrigin);
static_assert(GregorianDays(1899, 12, 30) == variantOrigin);
static_assert(LeapYearsBeforeZero(-1) == 0 && LeapYearsBeforeZero(-4) == 1 && LeapYearsBeforeZero(-100) == 25);

} // namespace

std::int64_t DaysFromCivil(std::int64_t year, int month, int day) noexcept {
  if (year >= 0)
    return GregorianDays(year, month, day);
  const std::int64_t yearsBefore = -year * 365 + LeapYearsBeforeZero(year);
  return yearZero - yearsBefore + DaysBeforeMonth(year, month) + day - 1;
}

void CivilFromDays(std::int64_t days, std::int64_t& year, int& month, int& day) noexcept {
  if (days >= yearZero) {
    // Hinnant's civil_from_days.
    const std::int64_t z = days + 719468;
    const std::int64_t era = FloorDiv(z, 146097);
    const std::int64_t doe = z - era * 146097;
    const std::int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const std::int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const std::int64_t mp = (5 * doy + 2) / 153;
    day = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
    month = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
    year = yoe + era * 400 + (month <= 2 ? 1 : 0);
    return;
  }
  // Before year 0 the leap years follow the unsigned rule: estimate the year with the mean
  // Gregorian year, which that rule shares, then settle it on the exact year starts.
  const std::int64_t back = yearZero - days; // >= 1
  std::int64_t y = -((back * 400 + 146096) / 146097);
  while (DaysFromCivil(y, 1, 1) > days)
    --y;
  while (DaysFromCivil(y + 1, 1, 1) <= days)
    ++y;
  int rest = static_cast<int>(days - DaysFromCivil(y, 1, 1));
  int m = 1;
  while (rest >= DaysInMonth(y, m)) {
    rest -= DaysInMonth(y, m);
    ++m;
  }
  year = y;
  month = m;
  day = rest + 1;
}

void AddDays(Civil& date, std::int64_t days) noexcept {
  const std::int64_t day = date.day + days;
  if (day >= 1 && day <= DaysInMonth(date.year, date.month)) {
    date.day = static_cast<int>(day);
    return;
  }
  CivilFromDays(DaysFromCivil(date.year, date.month, date.day) + days, date.year, date.month, date.day);
}

void AddCalendarUnits(Civil& date, DKDurationEx::Unit unit, std::int64_t count) noexcept {
  switch (unit) {
  case DKDurationEx::Year:
    date.year += count;
    break;
  case DKDurationEx::Month: {
    const std::int64_t months = date.month - 1 + count;
    date.year += FloorDiv(months, 12);
    date.month = static_cast<int>(FloorMod(months, 12)) + 1;
    break;
  }
  case DKDurationEx::Week:
    AddDays(date, count * 7);
    return;
  case DKDurationEx::Day:
    AddDays(date, count);
    return;
  default:
    return;
  }
  const int length = DaysInMonth(date.year, date.month);
  if (date.day > length)
    date.day = length;
}

int DKWeekDay(std::int64_t year, int month, int day) noexcept {
  return year < 1970 ? 0 : WeekDayOfDays(DaysFromCivil(year, month, day));
}

int YearWeek(std::int64_t year, int month, int day) noexcept {
  const int yd = DaysBeforeMonth(year, month) + day - 1;
  const int wd = DKWeekDay(year, month, day);
  const int k = wd != 0 ? wd - 1 : 6; // days since the last Monday
  if (yd < k)
    return 0;
  return yd / 7 + (yd % 7 >= k ? 1 : 0);
}

std::int32_t UsableCount(const DKDurationEx& duration) {
  if (duration.GetDuration() == std::numeric_limits<std::int32_t>::min())
    throw DKDurationExceptionEx(duration);
  return duration.GetDuration();
}

DKDurationEx FittingDuration(std::int64_t count, DKDurationEx::Unit unit) {
  // The factor from each unit to the next coarser one on the way.
  while ((count > DKDurationEx::maximum_ || count < DKDurationEx::minimum_) && unit > DKDurationEx::Week) {
    const DKDurationEx::Unit coarser = static_cast<DKDurationEx::Unit>(unit - 1);
    count /= DKDurationEx::GetConversionStep(coarser, unit);
    unit = coarser;
  }
  return DKDurationEx(static_cast<long>(count), unit);
}

std::int64_t MomentToMs(const Moment& moment) noexcept {
  return DaysFromCivil(moment.date.year, moment.date.month, moment.date.day) * msPerDay + moment.msOfDay;
}

Moment Shift(const Moment& moment, std::int64_t deltaMs) noexcept {
  const std::int64_t ms = moment.msOfDay + deltaMs;
  Moment shifted;
  shifted.date = moment.date;
  shifted.msOfDay = FloorMod(ms, msPerDay);
  if (const std::int64_t days = FloorDiv(ms, msPerDay))
    AddDays(shifted.date, days);
  return shifted;
}

Moment MsToMoment(std::int64_t ms) noexcept {
  Moment moment;
  CivilFromDays(FloorDiv(ms, msPerDay), moment.date.year, moment.date.month, moment.date.day);
  moment.msOfDay = FloorMod(ms, msPerDay);
  return moment;
}

} // namespace dkcal
