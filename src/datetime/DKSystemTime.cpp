// SYSTEMTIME, FILETIME and automation-date conversions, by arithmetic.
#include <DorvikCore/DKSystemTime.h>

#include "datetime/DKCalendar.h"

#include <cmath>
#include <limits>

namespace {

// Seconds since 1970 of a record read as it stands: a month or day out of range carries into
// the neighbouring months, as arithmetic on the fields would.
std::int64_t RecordSeconds(const dk::SYSTEMTIME& t) noexcept {
  const std::int64_t months = static_cast<std::int64_t>(t.wMonth) - 1;
  const std::int64_t year = t.wYear + dkcal::FloorDiv(months, 12);
  const int month = static_cast<int>(dkcal::FloorMod(months, 12)) + 1;
  const std::int64_t days = dkcal::DaysFromCivil(year, month, 1) + t.wDay - 1;
  return days * dkcal::secondsPerDay + t.wHour * 3600 + t.wMinute * 60 + t.wSecond;
}

// Fills a record from a moment; false when its year does not fit the record.
bool MomentToRecord(const dkcal::Moment& moment, dk::SYSTEMTIME& t) noexcept {
  if (moment.date.year < 0 || moment.date.year > 65535)
    return false;
  int hour, minute, second, millisecond;
  dkcal::SplitTime(moment.msOfDay, hour, minute, second, millisecond);
  const std::int64_t days = dkcal::DaysFromCivil(moment.date.year, moment.date.month, moment.date.day);
  t.wYear = static_cast<std::uint16_t>(moment.date.year);
  t.wMonth = static_cast<std::uint16_t>(moment.date.month);
  t.wDayOfWeek = static_cast<std::uint16_t>(dkcal::WeekDayOfDays(days));
  t.wDay = static_cast<std::uint16_t>(moment.date.day);
  t.wHour = static_cast<std::uint16_t>(hour);
  t.wMinute = static_cast<std::uint16_t>(minute);
  t.wSecond = static_cast<std::uint16_t>(second);
  t.wMilliseconds = static_cast<std::uint16_t>(millisecond);
  return true;
}

dkcal::Moment RecordMoment(const dk::SYSTEMTIME& t) noexcept {
  dkcal::Moment moment;
  moment.date = {t.wYear, t.wMonth, t.wDay};
  moment.msOfDay = dkcal::TimeMs(t.wHour, t.wMinute, t.wSecond, t.wMilliseconds);
  return moment;
}

} // namespace

bool DKIsLeapYear(unsigned year) noexcept { return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0); }

int DKSystemTimeDifference(const dk::SYSTEMTIME& a, const dk::SYSTEMTIME& b) noexcept {
  const std::int64_t difference = RecordSeconds(a) - RecordSeconds(b);
  if (difference > std::numeric_limits<int>::max())
    return std::numeric_limits<int>::max();
  if (difference < std::numeric_limits<int>::min())
    return std::numeric_limits<int>::min();
  return static_cast<int>(difference);
}

bool DKIsValidSystemTime(const dk::SYSTEMTIME& t) noexcept {
  return dkcal::IsValidDate(t.wYear, t.wMonth, t.wDay) && dkcal::IsValidTime(t.wHour, t.wMinute, t.wSecond, t.wMilliseconds);
}

bool DKSystemTimeToVariantTime(const dk::SYSTEMTIME& time, double& variantTime) noexcept {
  if (!DKIsValidSystemTime(time) || time.wYear < 100 || time.wYear > 9999)
    return false;
  const std::int64_t days = dkcal::DaysFromCivil(time.wYear, time.wMonth, time.wDay) - dkcal::variantOrigin;
  const double fraction = (time.wHour * 3600 + time.wMinute * 60 + time.wSecond) / 86400.0;
  // Before the origin the fraction still counts forward from midnight.
  variantTime = days >= 0 ? static_cast<double>(days) + fraction : static_cast<double>(days) - fraction;
  return true;
}

bool DKVariantTimeToSystemTime(double variantTime, dk::SYSTEMTIME& time) noexcept {
  if (!(variantTime > -657435.0 && variantTime < 2958466.0)) // also refuses NaN
    return false;
  const double whole = std::trunc(variantTime);
  std::int64_t days = static_cast<std::int64_t>(whole);
  std::int64_t seconds = std::llround(std::fabs(variantTime - whole) * 86400.0);
  if (seconds >= dkcal::secondsPerDay) {
    seconds -= dkcal::secondsPerDay;
    ++days;
  }
  dkcal::Moment moment;
  dkcal::CivilFromDays(dkcal::variantOrigin + days, moment.date.year, moment.date.month, moment.date.day);
  moment.msOfDay = seconds * 1000;
  if (moment.date.year < 100 || moment.date.year > 9999)
    return false;
  return MomentToRecord(moment, time);
}

bool DKFileTimeToSystemTime(const dk::FILETIME& fileTime, dk::SYSTEMTIME& time) noexcept {
  const std::uint64_t ticks = static_cast<std::uint64_t>(fileTime.dwHighDateTime) << 32 | fileTime.dwLowDateTime;
  if (ticks > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
    return false;
  const std::int64_t ms = static_cast<std::int64_t>(ticks / 10000) - dkcal::fileTimeOriginMs;
  return MomentToRecord(dkcal::MsToMoment(ms), time);
}

bool DKSystemTimeToFileTime(const dk::SYSTEMTIME& time, dk::FILETIME& fileTime) noexcept {
  if (!DKIsValidSystemTime(time) || time.wYear < 1601)
    return false;
  const std::int64_t ms = dkcal::MomentToMs(RecordMoment(time)) + dkcal::fileTimeOriginMs;
  if (ms > std::numeric_limits<std::int64_t>::max() / 10000) // after 30828-09-14
    return false;
  const std::uint64_t ticks = static_cast<std::uint64_t>(ms) * 10000;
  fileTime.dwLowDateTime = static_cast<std::uint32_t>(ticks);
  fileTime.dwHighDateTime = static_cast<std::uint32_t>(ticks >> 32);
  return true;
}
