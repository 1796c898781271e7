// DKDateEx (packed date) and DKTimeEx (time of day).
#include <DorvikCore/DKDate.h>
#include <DorvikCore/DKDateEx.h>
#include <DorvikCore/DKDateExceptions.h>

#include "os/DKVariant.h"
#include "datetime/DKCalendar.h"
#include "datetime/DKDateTimeText.h"
#include "datetime/DKValueOps.h"

#include <istream>
#include <limits>
#include <ostream>

namespace {

[[noreturn]] void ThrowInvalid(const DKChar* what) { throw DKDateExceptionEx(DKString(DK_T("Invalid source for a date or time: ")) + what); }

void Require(bool ok, const DKChar* what) {
  if (!ok)
    ThrowInvalid(what);
}

void RequireRead(const DKErrorID& result) {
  if (result.Bad())
    throw DKDateExceptionEx(result.AsString());
}

// The date of an instant in a zone.
bool DateOfInstant(const DKDateTimeEx& instant, const DKTimeZone& zone, DKDateEx& date) noexcept {
  DKDateAndTime fields;
  return instant.IsDateAndTime() && instant.GetDateAndTime(fields, zone) && date.SetDate(fields.year, fields.month, fields.day);
}

bool TimeOfInstant(const DKDateTimeEx& instant, const DKTimeZone& zone, DKTimeEx& time) noexcept {
  DKDateAndTime fields;
  return instant.IsDateAndTime() && instant.GetDateAndTime(fields, zone) &&
         time.SetTime(fields.hour, fields.minute, fields.second, fields.millisecond);
}

// A record of the automation origin, 1899-12-30, at a time of day.
dk::SYSTEMTIME OriginRecord(const DKTimeEx& time) noexcept {
  return DKSystemTime(1899, 12, 6, 30, static_cast<std::uint16_t>(time.GetHour()), static_cast<std::uint16_t>(time.GetMinute()),
                      static_cast<std::uint16_t>(time.GetSecond()), static_cast<std::uint16_t>(time.GetMillisecond()));
}

} // namespace

// ---------------------------------------------------------------------------------------------
// DKDateEx

// The class constants are defined here, in the library, and nowhere else: on Windows a program
// imports an exported class's members and may hold no copy of its own.
constinit const DKDateEx DKDateEx::null{};
constinit const DKDateEx DKDateEx::minimum = DKDateEx::Pack(DKDateEx::minYear, 1, 1);
constinit const DKDateEx DKDateEx::maximum = DKDateEx::Pack(DKDateEx::maxYear, 12, 31);

DKDateEx::DKDateEx(std::int32_t year, std::uint32_t month, std::uint32_t day) : m_date(0) {
  if (!SetDate(year, month, day)) {
    DKString text(DK_T("Invalid date: "));
    dkdt::AppendInt(text, year);
    text += DK_T('/');
    dkdt::AppendInt(text, month);
    text += DK_T('/');
    dkdt::AppendInt(text, day);
    throw DKDateExceptionEx(text);
  }
}

DKDateEx::DKDateEx(const DKString& text, const DKString& format) : m_date(0) { RequireRead(FromString(text, format)); }
DKDateEx::DKDateEx(const dk::SYSTEMTIME& time) : m_date(0) { Require(FromSystemTime(time), DK_T("SYSTEMTIME")); }
DKDateEx::DKDateEx(const std::tm& time) : m_date(0) { Require(FromStructTM(time), DK_T("struct tm")); }
DKDateEx::DKDateEx(const dk::FILETIME& time, const DKTimeZone& zone) : m_date(0) { Require(FromFileTime(time, zone), DK_T("FILETIME")); }
DKDateEx::DKDateEx(const dk::VARIANT& value) : m_date(0) { Require(FromVariant(value), DK_T("VARIANT")); }
DKDateEx::DKDateEx(double variantDate) : m_date(0) { Require(FromVariant(variantDate), DK_T("automation date")); }
DKDateEx::DKDateEx(const DKDateTime& time, const DKTimeZone& zone) : m_date(0) {
  Require(FromDKDateTime(time, zone), DK_T("DKDateTime"));
}
DKDateEx::DKDateEx(const DKDateAndTime& fields) : m_date(0) { Require(SetDateAndTime(fields), DK_T("DKDateAndTime")); }

bool DKDateEx::SetDate(std::int32_t year, std::uint32_t month, std::uint32_t day) noexcept {
  if (year < minYear || year > maxYear || !dkcal::IsValidDate(year, month, day))
    return false;
  *this = Pack(year, month, day);
  return true;
}

bool DKDateEx::IsValid() const noexcept {
  return m_date != 0 && GetYear() >= minYear && dkcal::IsValidDate(GetYear(), GetMonth(), GetDay());
}

int DKDateEx::GetDaysInMonth(int year, unsigned month) noexcept { return dkcal::DaysInMonth(year, month); }

int DKDateEx::GetWeekDay() const noexcept {
  return IsValid() ? dkcal::DKWeekDay(GetYear(), static_cast<int>(GetMonth()), static_cast<int>(GetDay())) : 0;
}

int DKDateEx::GetYearDay() const noexcept {
  return IsValid() ? dkcal::DaysBeforeMonth(GetYear(), static_cast<int>(GetMonth())) + static_cast<int>(GetDay()) : 0;
}

int DKDateEx::GetYearWeek() const noexcept {
  return IsValid() ? dkcal::YearWeek(GetYear(), static_cast<int>(GetMonth()), static_cast<int>(GetDay())) : 0;
}

DKErrorID DKDateEx::FromString(const DKString& text, const DKString& format) {
  SetNull();
  if (dkdt::IsSysdate(text)) {
    *this = GetCurrentDate(true);
    return DKErrorID();
  }
  if (dkdt::IsBlank(text))
    return DKErrorID();
  dkdt::ReadFields fields;
  dkdt::ReadText(text, format.IsEmpty() ? dkdt::DefaultReadFormat() : format, fields);
  if (!fields.HasDate() || !fields.IsValidDate(minYear, maxYear))
    return dkdt::InvalidDate(text);
  *this = Pack(static_cast<std::int32_t>(fields.year()), static_cast<std::uint32_t>(fields.month()), static_cast<std::uint32_t>(fields.day()));
  return DKErrorID();
}

bool DKDateEx::FromSystemTime(const dk::SYSTEMTIME& time) noexcept { return SetDate(time.wYear, time.wMonth, time.wDay); }

bool DKDateEx::FromStructTM(const std::tm& time) noexcept {
  const DKInt64 year = static_cast<DKInt64>(time.tm_year) + 1900;
  return year >= minYear && year <= maxYear && time.tm_mon >= 0 &&
         SetDate(static_cast<std::int32_t>(year), static_cast<std::uint32_t>(time.tm_mon) + 1, static_cast<std::uint32_t>(time.tm_mday));
}

bool DKDateEx::FromFileTime(const dk::FILETIME& time, const DKTimeZone& zone) noexcept {
  DKDateTimeEx instant;
  return instant.FromFileTime(time) && DateOfInstant(instant, zone, *this);
}

bool DKDateEx::FromVariant(const dk::VARIANT& value) noexcept { return dkdt::FromVariantRecord(*this, value); }

bool DKDateEx::FromVariant(double value) noexcept {
  SetNull();
  if (value > -1.0 && value < 1.0) // the day 1899-12-30 stands for no date
    return true;
  dk::SYSTEMTIME record;
  return DKVariantTimeToSystemTime(value, record) && FromSystemTime(record);
}

bool DKDateEx::FromDKDateTime(const DKDateTime& time, const DKTimeZone& zone) noexcept {
  return DateOfInstant(time.AsDKDateTimeEx(), zone, *this);
}

bool DKDateEx::SetDateAndTime(const DKDateAndTime& fields) noexcept {
  if (fields.flags & DKDateAndTime::NoDate) {
    SetNull();
    return true;
  }
  return SetDate(fields.year, fields.month, fields.day);
}

void DKDateEx::GetDateAndTime(DKDateAndTime& fields) const noexcept {
  fields = DKDateAndTime();
  fields.flags = DKDateAndTime::FlagsFor(!IsNull(), false);
  fields.year = GetYear();
  fields.month = GetMonth();
  fields.day = GetDay();
}

bool DKDateEx::AsSystemTime(dk::SYSTEMTIME& time) const noexcept {
  if (!IsValid() || GetYear() < 0 || GetYear() > 65535)
    return false;
  const std::int64_t days = dkcal::DaysFromCivil(GetYear(), static_cast<int>(GetMonth()), static_cast<int>(GetDay()));
  time = DKSystemTime(static_cast<std::uint16_t>(GetYear()), static_cast<std::uint16_t>(GetMonth()),
                      static_cast<std::uint16_t>(dkcal::WeekDayOfDays(days)), static_cast<std::uint16_t>(GetDay()), 0, 0, 0, 0);
  return true;
}

bool DKDateEx::AsStructTM(std::tm& time) const noexcept {
  if (!IsValid())
    return false;
  const std::int64_t days = dkcal::DaysFromCivil(GetYear(), static_cast<int>(GetMonth()), static_cast<int>(GetDay()));
  time = std::tm{};
  time.tm_year = GetYear() - 1900;
  time.tm_mon = static_cast<int>(GetMonth()) - 1;
  time.tm_mday = static_cast<int>(GetDay());
  time.tm_wday = dkcal::WeekDayOfDays(days);
  time.tm_yday = GetYearDay() - 1;
  time.tm_isdst = -1;
  return true;
}

bool DKDateEx::AsFileTime(dk::FILETIME& time, const DKTimeZone& zone) const noexcept {
  DKDateTimeEx midnight;
  DKDateAndTime fields;
  GetDateAndTime(fields);
  fields.flags = 0;
  fields.zone = zone;
  return IsValid() && midnight.SetDateAndTime(fields) && midnight.AsFileTime(time);
}

bool DKDateEx::AsVariant(dk::VARIANT& value) const noexcept {
  if (IsNull()) {
    DKVariant::SetNull(value);
    return true;
  }
  dk::SYSTEMTIME record;
  double date = 0;
  if (!IsValid() || GetYear() < 1601 || GetYear() > 9999 || !AsSystemTime(record) || !DKSystemTimeToVariantTime(record, date))
    return false;
  DKVariant::SetDate(value, date);
  return true;
}

// A date that is not valid is passed on as it stands (the constructor would refuse it), so
// that it writes as the empty text.
DKErrorID DKDateEx::AsString(DKChar* buffer, unsigned size, const DKChar* format) const {
  return DKDateTimeEx::FromParts(*this, DKTimeEx()).AsString(buffer, size, format ? format : defaultFormat, DKTimeZone::UTC);
}

DKString DKDateEx::AsString(const DKString& format) const {
  return DKDateTimeEx::FromParts(*this, DKTimeEx()).AsString(format.IsEmpty() ? DKString(defaultFormat) : format, DKTimeZone::UTC);
}

DKDateEx DKDateEx::GetCurrentDate(bool local) { return DKDateTimeEx::GetCurrentDate(local).GetDate(); }

void DKDateEx::AddOrSubstract(const DKDurationEx& duration, bool add) {
  const DKDurationEx::Unit unit = duration.GetUnit();
  if (!duration.IsValid() || duration.GetDuration() == 0 || unit > DKDurationEx::Day || !IsValid())
    return;
  const DKInt64 usable = dkcal::UsableCount(duration);
  const DKInt64 count = add ? usable : -usable;
  dkcal::Civil date{GetYear(), static_cast<int>(GetMonth()), static_cast<int>(GetDay())};
  dkcal::AddCalendarUnits(date, unit, count);
  if (date.year > maxYear)
    throw DKDateExceptionEx(DKDateTimeEx(maximum));
  if (date.year < minYear)
    throw DKDateExceptionEx(DKDateTimeEx(minimum));
  *this = Pack(static_cast<std::int32_t>(date.year), static_cast<std::uint32_t>(date.month), static_cast<std::uint32_t>(date.day));
}

DKDateEx& DKDateEx::operator+=(long days) {
  // Further than any two dates lie apart: out of range whichever the date.
  constexpr DKInt64 span = 4000000000;
  if (IsValid() && (DKInt64{days} > span || DKInt64{days} < -span))
    throw DKDateExceptionEx(DKDateTimeEx(days > 0 ? maximum : minimum));
  if (IsValid() && days != 0) {
    dkcal::Civil date{GetYear(), static_cast<int>(GetMonth()), static_cast<int>(GetDay())};
    dkcal::AddDays(date, days);
    if (date.year > maxYear || date.year < minYear)
      throw DKDateExceptionEx(DKDateTimeEx(date.year > maxYear ? maximum : minimum));
    *this = Pack(static_cast<std::int32_t>(date.year), static_cast<std::uint32_t>(date.month), static_cast<std::uint32_t>(date.day));
  }
  return *this;
}

DKDateEx& DKDateEx::operator-=(long days) {
  if (days == std::numeric_limits<long>::min())
    return *this += std::numeric_limits<long>::max(); // out of range either way
  return *this += -days;
}

DKDateEx& DKDateEx::operator+=(const DKDurationEx& duration) {
  AddOrSubstract(duration, true);
  return *this;
}
DKDateEx& DKDateEx::operator-=(const DKDurationEx& duration) {
  AddOrSubstract(duration, false);
  return *this;
}
DKDateEx& DKDateEx::operator++() { return *this += 1L; }
DKDateEx& DKDateEx::operator--() { return *this -= 1L; }
DKDateEx DKDateEx::operator++(int) { return dkdt::PostIncrement(*this); }
DKDateEx DKDateEx::operator--(int) { return dkdt::PostDecrement(*this); }

DKDateEx operator+(const DKDateEx& date, const DKDurationEx& duration) { return DKDateEx(date) += duration; }
DKDateEx operator-(const DKDateEx& date, const DKDurationEx& duration) { return DKDateEx(date) -= duration; }
DKDateEx operator+(const DKDateEx& date, long days) { return DKDateEx(date) += days; }
DKDateEx operator-(const DKDateEx& date, long days) { return DKDateEx(date) -= days; }

DKDurationEx operator-(const DKDateEx& a, const DKDateEx& b) {
  if (!a.IsValid() || !b.IsValid())
    return DKDurationEx::invalid_;
  const std::int64_t days = dkcal::DaysFromCivil(a.GetYear(), static_cast<int>(a.GetMonth()), static_cast<int>(a.GetDay())) -
                            dkcal::DaysFromCivil(b.GetYear(), static_cast<int>(b.GetMonth()), static_cast<int>(b.GetDay()));
  return dkcal::FittingDuration(days, DKDurationEx::Day);
}

// ---------------------------------------------------------------------------------------------
// DKTimeEx

constinit const DKTimeEx DKTimeEx::null{};
constinit const DKTimeEx DKTimeEx::minimum = DKTimeEx::FromMilliseconds(0);
constinit const DKTimeEx DKTimeEx::maximum = DKTimeEx::FromMilliseconds(DKTimeEx::msPerDay - 1);

DKTimeEx::DKTimeEx(std::uint32_t hour, std::uint32_t minute, std::uint32_t second, std::uint32_t millisecond)
    : m_time(NULL_TIME) {
  if (!SetTime(hour, minute, second, millisecond)) {
    DKString text(DK_T("Invalid time: "));
    for (const std::uint32_t part : {hour, minute, second}) {
      dkdt::AppendInt(text, part);
      text += DK_T(':');
    }
    dkdt::AppendInt(text, millisecond);
    throw DKDateExceptionEx(text);
  }
}

DKTimeEx::DKTimeEx(const DKString& text, const DKString& format) : m_time(NULL_TIME) { RequireRead(FromString(text, format)); }
DKTimeEx::DKTimeEx(const dk::SYSTEMTIME& time) : m_time(NULL_TIME) { Require(FromSystemTime(time), DK_T("SYSTEMTIME")); }
DKTimeEx::DKTimeEx(const std::tm& time) : m_time(NULL_TIME) { Require(FromStructTM(time), DK_T("struct tm")); }
DKTimeEx::DKTimeEx(const dk::FILETIME& time, const DKTimeZone& zone) : m_time(NULL_TIME) {
  Require(FromFileTime(time, zone), DK_T("FILETIME"));
}
DKTimeEx::DKTimeEx(const dk::VARIANT& value) : m_time(NULL_TIME) { Require(FromVariant(value), DK_T("VARIANT")); }
DKTimeEx::DKTimeEx(double variantDate) : m_time(NULL_TIME) { Require(FromVariant(variantDate), DK_T("automation date")); }
DKTimeEx::DKTimeEx(const DKDateTime& time, const DKTimeZone& zone) : m_time(NULL_TIME) {
  Require(FromDKDateTime(time, zone), DK_T("DKDateTime"));
}
DKTimeEx::DKTimeEx(const DKDateAndTime& fields) : m_time(NULL_TIME) { Require(SetDateAndTime(fields), DK_T("DKDateAndTime")); }

bool DKTimeEx::FromInt(std::int32_t ms) noexcept {
  if (ms != NULL_TIME && (ms < 0 || ms >= msPerDay))
    return false;
  m_time = ms;
  return true;
}

bool DKTimeEx::SetTime(std::uint32_t hour, std::uint32_t minute, std::uint32_t second, std::uint32_t millisecond) noexcept {
  if (!dkcal::IsValidTime(hour, minute, second, millisecond))
    return false;
  m_time = static_cast<std::int32_t>(dkcal::TimeMs(hour, minute, second, millisecond));
  return true;
}

DKErrorID DKTimeEx::FromString(const DKString& text, const DKString& format) {
  SetNull();
  if (dkdt::IsSysdate(text)) {
    *this = GetTheCurrentTime(true);
    return DKErrorID();
  }
  if (dkdt::IsBlank(text))
    return DKErrorID();
  dkdt::ReadFields fields;
  dkdt::ReadText(text, format.IsEmpty() ? dkdt::DefaultReadFormat() : format, fields);
  if (!fields.HasTime() || !fields.IsValidTime())
    return dkdt::InvalidDate(text);
  m_time = static_cast<std::int32_t>(fields.TimeMs());
  return DKErrorID();
}

bool DKTimeEx::FromSystemTime(const dk::SYSTEMTIME& time) noexcept {
  return SetTime(time.wHour, time.wMinute, time.wSecond, time.wMilliseconds);
}

bool DKTimeEx::FromStructTM(const std::tm& time) noexcept {
  return time.tm_hour >= 0 && time.tm_min >= 0 && time.tm_sec >= 0 &&
         SetTime(static_cast<std::uint32_t>(time.tm_hour), static_cast<std::uint32_t>(time.tm_min), static_cast<std::uint32_t>(time.tm_sec));
}

bool DKTimeEx::FromFileTime(const dk::FILETIME& time, const DKTimeZone& zone) noexcept {
  DKDateTimeEx instant;
  return instant.FromFileTime(time) && TimeOfInstant(instant, zone, *this);
}

bool DKTimeEx::FromVariant(const dk::VARIANT& value) noexcept { return dkdt::FromVariantRecord(*this, value); }

bool DKTimeEx::FromVariant(double value) noexcept {
  dk::SYSTEMTIME record;
  return DKVariantTimeToSystemTime(value, record) && FromSystemTime(record);
}

bool DKTimeEx::FromDKDateTime(const DKDateTime& time, const DKTimeZone& zone) noexcept {
  return TimeOfInstant(time.AsDKDateTimeEx(), zone, *this);
}

bool DKTimeEx::SetDateAndTime(const DKDateAndTime& fields) noexcept {
  if (fields.flags & DKDateAndTime::NoTime) {
    SetNull();
    return true;
  }
  return SetTime(fields.hour, fields.minute, fields.second, fields.millisecond);
}

void DKTimeEx::GetDateAndTime(DKDateAndTime& fields) const noexcept {
  fields = DKDateAndTime();
  fields.flags = DKDateAndTime::FlagsFor(false, !IsNull());
  fields.hour = GetHour();
  fields.minute = GetMinute();
  fields.second = GetSecond();
  fields.millisecond = GetMillisecond();
}

bool DKTimeEx::AsSystemTime(dk::SYSTEMTIME& time) const noexcept {
  if (!IsValid())
    return false;
  time = OriginRecord(*this);
  return true;
}

bool DKTimeEx::AsStructTM(std::tm& time) const noexcept {
  if (!IsValid())
    return false;
  time = std::tm{};
  time.tm_mday = 1;
  time.tm_wday = 1; // 1900-01-01 was a Monday
  time.tm_hour = static_cast<int>(GetHour());
  time.tm_min = static_cast<int>(GetMinute());
  time.tm_sec = static_cast<int>(GetSecond());
  time.tm_isdst = -1;
  return true;
}

bool DKTimeEx::AsFileTime(dk::FILETIME& time) const noexcept {
  if (!IsValid())
    return false;
  const DKUInt64 ticks = static_cast<DKUInt64>(m_time) * 10000;
  time.dwLowDateTime = static_cast<std::uint32_t>(ticks);
  time.dwHighDateTime = static_cast<std::uint32_t>(ticks >> 32);
  return true;
}

bool DKTimeEx::AsVariant(dk::VARIANT& value) const noexcept {
  if (IsNull()) {
    DKVariant::SetNull(value);
    return true;
  }
  double date = 0;
  if (!IsValid() || !DKSystemTimeToVariantTime(OriginRecord(*this), date))
    return false;
  DKVariant::SetDate(value, date);
  return true;
}

// A count that is not a time of day writes as the empty text, as the null time does.
DKErrorID DKTimeEx::AsString(DKChar* buffer, unsigned size, const DKChar* format) const {
  return DKDateTimeEx::FromParts(DKDateEx(), IsValid() ? *this : null).AsString(buffer, size, format, DKTimeZone::UTC);
}

DKString DKTimeEx::AsString(const DKString& format) const {
  return DKDateTimeEx::FromParts(DKDateEx(), IsValid() ? *this : null).AsString(format, DKTimeZone::UTC);
}

DKTimeEx DKTimeEx::GetTheCurrentTime(bool local) { return DKDateTimeEx::GetTheCurrentTime(local).GetTime(); }

DKInt64 DKTimeEx::AddOrSubstractAux(std::int32_t count, DKDurationEx::Unit unit, bool add) noexcept {
  // Calendar units are whole days: the time of day stays.
  constexpr DKInt64 daysPerUnit[] = {365, 30, 7, 1};
  if (unit <= DKDurationEx::Day)
    return (add ? count : -static_cast<DKInt64>(count)) * daysPerUnit[unit];
  constexpr DKInt64 unitMs[] = {3600000, 60000, 1000, 1};
  const DKInt64 delta = static_cast<DKInt64>(count) * unitMs[unit - DKDurationEx::Hour];
  DKInt64 ms = m_time + (add ? delta : -delta);
  DKInt64 days = ms / msPerDay;
  ms -= days * msPerDay;
  if (ms < 0) {
    ms += msPerDay;
    --days;
  }
  m_time = static_cast<std::int32_t>(ms);
  return days;
}

void DKTimeEx::AddOrSubstract(const DKDurationEx& duration, bool add) {
  const DKDurationEx::Unit unit = duration.GetUnit();
  std::int32_t count = duration.GetDuration();
  if (!IsValid() || !duration.IsValid() || count == 0 || unit < DKDurationEx::Hour)
    return;
  count = dkcal::UsableCount(duration);
  if (count < 0) {
    count = -count;
    add = !add;
  }
  AddOrSubstractAux(count, unit, add);
}

DKTimeEx& DKTimeEx::operator+=(const DKDurationEx& duration) {
  AddOrSubstract(duration, true);
  return *this;
}
DKTimeEx& DKTimeEx::operator-=(const DKDurationEx& duration) {
  AddOrSubstract(duration, false);
  return *this;
}
DKTimeEx& DKTimeEx::operator++() {
  if (IsValid())
    m_time = (m_time + 1) % msPerDay;
  return *this;
}
DKTimeEx& DKTimeEx::operator--() {
  if (IsValid())
    m_time = (m_time + msPerDay - 1) % msPerDay;
  return *this;
}
DKTimeEx DKTimeEx::operator++(int) { return dkdt::PostIncrement(*this); }
DKTimeEx DKTimeEx::operator--(int) { return dkdt::PostDecrement(*this); }

DKTimeEx operator+(const DKTimeEx& time, const DKDurationEx& duration) { return DKTimeEx(time) += duration; }
DKTimeEx operator-(const DKTimeEx& time, const DKDurationEx& duration) { return DKTimeEx(time) -= duration; }

DKDurationEx operator-(const DKTimeEx& a, const DKTimeEx& b) {
  if (!a.IsValid() || !b.IsValid())
    return DKDurationEx::invalid_;
  return DKDurationEx(static_cast<long>(a.AsMilliseconds()) - b.AsMilliseconds(), DKDurationEx::Millisecond);
}

// ---------------------------------------------------------------------------------------------
// Streams

std::ostream& operator<<(std::ostream& os, const DKDateEx& date) { return dkdt::WriteValue(os, date); }
std::istream& operator>>(std::istream& is, DKDateEx& date) { return dkdt::ReadValue(is, date); }
std::ostream& operator<<(std::ostream& os, const DKTimeEx& time) { return dkdt::WriteValue(os, time); }
std::istream& operator>>(std::istream& is, DKTimeEx& time) { return dkdt::ReadValue(is, time); }
