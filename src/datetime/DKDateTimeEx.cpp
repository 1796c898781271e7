// DKDateTimeEx: a date and a time of day held in UTC, its zone conversions, arithmetic and text.
#include <DorvikCore/DKDate.h>
#include <DorvikCore/DKDateEx.h>
#include <DorvikCore/DKDateExceptions.h>

#include "os/DKVariant.h"
#include "datetime/DKCalendar.h"
#include "datetime/DKDateTimeText.h"
#include "datetime/DKValueOps.h"
#include "os/DKClock.h"

#include <istream>
#include <limits>
#include <ostream>

namespace {

using dkcal::Moment;

constexpr DKInt64 msPerSecond = 1000;

// Years a broken-down moment may reach on its way between zones: one beyond each end.
constexpr bool YearNearRange(DKInt64 year) noexcept { return year >= DKDateEx::minYear - 1 && year <= DKDateEx::maxYear + 1; }

dkcal::Civil CivilOf(const DKDateEx& date) noexcept {
  return {date.GetYear(), static_cast<int>(date.GetMonth()), static_cast<int>(date.GetDay())};
}

// UTC milliseconds since 1970 of a value holding both parts.
DKInt64 UtcMs(const DKDateTimeEx& value) noexcept {
  const DKDateEx date = value.GetDate();
  return dkcal::DaysFromCivil(date.GetYear(), static_cast<int>(date.GetMonth()), static_cast<int>(date.GetDay())) * dkcal::msPerDay +
         value.GetTime().AsMilliseconds();
}

// The wall-clock moment in a zone of a value holding both parts.
Moment ToZone(const DKDateTimeEx& value, const DKTimeZone& zone) noexcept {
  Moment utc;
  utc.date = CivilOf(value.GetDate());
  utc.msOfDay = value.GetTime().AsMilliseconds();
  if (zone.IsUTC())
    return utc;
  return dkcal::Shift(utc, DKInt64{zone.GetOffset(dkcal::FloorDiv(UtcMs(value), msPerSecond))} * msPerSecond);
}

// The UTC moment of a wall-clock moment in a zone. The year must be near the range.
Moment FromZone(const Moment& wall, const DKTimeZone& zone) noexcept {
  if (zone.IsUTC())
    return wall;
  const DKInt64 wallSeconds = dkcal::FloorDiv(dkcal::MomentToMs(wall), msPerSecond);
  return dkcal::Shift(wall, (zone.ToUTC(wallSeconds) - wallSeconds) * msPerSecond);
}

DKDateEx PackDate(const dkcal::Civil& date) noexcept {
  return DKDateEx::Pack(static_cast<std::int32_t>(date.year), static_cast<std::uint32_t>(date.month),
                        static_cast<std::uint32_t>(date.day));
}

// A UTC moment as a value; false outside minimum..maximum.
bool PackMoment(const Moment& moment, DKDateTimeEx& value) noexcept {
  if (moment.date.year < DKDateEx::minYear || moment.date.year > DKDateEx::maxYear)
    return false;
  value = DKDateTimeEx::FromParts(PackDate(moment.date), DKTimeEx::FromMilliseconds(static_cast<std::int32_t>(moment.msOfDay)));
  return true;
}


[[noreturn]] void ThrowOutOfRange(DKInt64 year) {
  throw DKDateExceptionEx(year > 0 ? DKDateTimeEx::maximum : DKDateTimeEx::minimum);
}

void Require(bool ok, const DKChar* what) {
  if (!ok)
    throw DKDateExceptionEx(DKString(DK_T("Invalid source for a date and time: ")) + what);
}

// The default formats, built once.
struct DefaultFormats {
  DKString full{DK_T("%Y/%m/%d %H:%M:%S")};
  DKString dateTimeMs{DK_T("%Y/%m/%d %H:%M:%S.%L")};
  DKString date{DK_T("%Y/%m/%d")};
  DKString timeMs{DK_T("%H:%M:%S.%L")};
  DKString time{DK_T("%H:%M:%S")};
  DKString none;
};

const DefaultFormats& Formats() {
  static const DefaultFormats formats;
  return formats;
}

// What "%W" and "%Z" print for one value.
class Extras final : public dkdt::WriteExtras {
public:
  Extras(const DKDateTimeEx& value, const DKTimeZone& zone) noexcept : m_value(value), m_zone(zone) {}

  int Week() const override {
    if (m_value.IsOnlyDate())
      return m_value.GetDate().GetYearWeek();
    if (!m_value.IsDateAndTime())
      return 0;
    // Always the week of the date in the local zone.
    const Moment local = ToZone(m_value, DKTimeZone::Local);
    return dkcal::YearWeek(local.date.year, local.date.month, local.date.day);
  }

  bool Offset(int& seconds) const override {
    if (!m_value.IsDateAndTime())
      return false;
    seconds = m_zone.GetOffset(dkcal::FloorDiv(UtcMs(m_value), msPerSecond));
    return true;
  }

private:
  const DKDateTimeEx& m_value;
  const DKTimeZone& m_zone;
};

// The fields to print; false for a value that prints as the empty text.
bool FieldsToWrite(const DKDateTimeEx& value, const DKTimeZone& zone, dkdt::WriteFields& fields) noexcept {
  if (!value.IsValid())
    return false;
  DKInt64 msOfDay = 0;
  if (value.IsDateAndTime()) {
    const Moment moment = ToZone(value, zone);
    fields.year = moment.date.year;
    fields.month = moment.date.month;
    fields.day = moment.date.day;
    msOfDay = moment.msOfDay;
  } else if (value.HasDate()) {
    fields.year = value.GetDate().GetYear();
    fields.month = static_cast<int>(value.GetDate().GetMonth());
    fields.day = static_cast<int>(value.GetDate().GetDay());
  } else {
    msOfDay = value.GetTime().AsMilliseconds();
  }
  if (value.HasTime())
    dkcal::SplitTime(msOfDay, fields.hour, fields.minute, fields.second, fields.millisecond);
  return true;
}

} // namespace

// ---------------------------------------------------------------------------------------------
// Construction

// The class constants are defined here, in the library, and nowhere else: on Windows a program
// imports an exported class's members and may hold no copy of its own.
constinit const DKDateTimeEx DKDateTimeEx::null{};
constinit const DKDateTimeEx DKDateTimeEx::minimum =
    DKDateTimeEx::FromParts(DKDateEx::Pack(DKDateEx::minYear, 1, 1), DKTimeEx::FromMilliseconds(0));
constinit const DKDateTimeEx DKDateTimeEx::maximum =
    DKDateTimeEx::FromParts(DKDateEx::Pack(DKDateEx::maxYear, 12, 31), DKTimeEx::FromMilliseconds(DKTimeEx::msPerDay - 1));

DKDateTimeEx::DKDateTimeEx(std::int32_t year, std::uint32_t month, std::uint32_t day, std::uint32_t hour, std::uint32_t minute,
                           std::uint32_t second, std::uint32_t millisecond, const DKTimeZone& zone)
    : DKDateTimeEx() {
  Require(SetDateAndTime(DKDateAndTime(year, month, day, hour, minute, second, millisecond, zone)), DK_T("parts"));
}

DKDateTimeEx::DKDateTimeEx(const DKDateEx& date, const DKTimeEx& time, const DKTimeZone& zone) : DKDateTimeEx() {
  Require((date.IsNull() || date.IsValid()) && (time.IsNull() || time.IsValid()), DK_T("parts"));
  DKDateAndTime fields(date.GetYear(), date.GetMonth(), date.GetDay(), time.GetHour(), time.GetMinute(), time.GetSecond(),
                       time.GetMillisecond(), zone);
  fields.flags = DKDateAndTime::FlagsFor(!date.IsNull(), !time.IsNull());
  Require(SetDateAndTime(fields), DK_T("parts"));
}

DKDateTimeEx::DKDateTimeEx(const DKString& text, const DKString& format, const DKTimeZone& zone) : DKDateTimeEx() {
  const DKErrorID result = FromString(text, format, zone);
  if (result.Bad())
    throw DKDateExceptionEx(result.AsString());
}

DKDateTimeEx::DKDateTimeEx(const dk::SYSTEMTIME& time, const DKTimeZone& zone) : DKDateTimeEx() {
  Require(FromSystemTime(time, zone), DK_T("SYSTEMTIME"));
}
DKDateTimeEx::DKDateTimeEx(const std::tm& time, const DKTimeZone& zone) : DKDateTimeEx() {
  Require(FromStructTM(time, zone), DK_T("struct tm"));
}
DKDateTimeEx::DKDateTimeEx(const dk::FILETIME& time) : DKDateTimeEx() { Require(FromFileTime(time), DK_T("FILETIME")); }
DKDateTimeEx::DKDateTimeEx(const dk::VARIANT& value, const DKTimeZone& zone) : DKDateTimeEx() {
  Require(FromVariant(value, zone), DK_T("VARIANT"));
}
DKDateTimeEx::DKDateTimeEx(double variantDate, const DKTimeZone& zone) : DKDateTimeEx() {
  Require(FromVariant(variantDate, zone), DK_T("automation date"));
}
DKDateTimeEx::DKDateTimeEx(const DKDateTime& time) : DKDateTimeEx() { Require(FromDKDateTime(time), DK_T("DKDateTime")); }
DKDateTimeEx::DKDateTimeEx(const DKDateAndTime& fields) : DKDateTimeEx() {
  Require(SetDateAndTime(fields), DK_T("DKDateAndTime"));
}

bool DKDateTimeEx::IsValid() const noexcept {
  // A time below -1 (FromParts takes any count) is neither absent nor a time of day.
  return !IsNull() && (!HasDate() || m_date.IsValid()) && (m_time.IsNull() || m_time.IsValid());
}

// ---------------------------------------------------------------------------------------------
// Broken-down form

bool DKDateTimeEx::GetDateAndTime(DKDateAndTime& fields, const DKTimeZone& zone) const noexcept {
  fields = DKDateAndTime();
  fields.zone = zone;
  if (IsNull()) {
    fields.flags = DKDateAndTime::NoDate | DKDateAndTime::NoTime;
    return true;
  }
  if (!IsValid())
    return false;
  Moment moment;
  if (IsDateAndTime()) {
    moment = ToZone(*this, zone);
  } else {
    moment.date = HasDate() ? CivilOf(m_date) : dkcal::Civil{0, 0, 0};
    moment.msOfDay = HasTime() ? m_time.AsMilliseconds() : 0;
    fields.flags = HasDate() ? DKDateAndTime::NoTime : DKDateAndTime::NoDate;
  }
  fields.year = static_cast<std::int32_t>(moment.date.year);
  fields.month = static_cast<std::uint32_t>(moment.date.month);
  fields.day = static_cast<std::uint32_t>(moment.date.day);
  int hour, minute, second, millisecond;
  dkcal::SplitTime(moment.msOfDay, hour, minute, second, millisecond);
  fields.hour = static_cast<std::uint32_t>(hour);
  fields.minute = static_cast<std::uint32_t>(minute);
  fields.second = static_cast<std::uint32_t>(second);
  fields.millisecond = static_cast<std::uint32_t>(millisecond);
  return true;
}

bool DKDateTimeEx::SetDateAndTime(const DKDateAndTime& fields) noexcept {
  const bool hasDate = !(fields.flags & DKDateAndTime::NoDate);
  const bool hasTime = !(fields.flags & DKDateAndTime::NoTime);
  if (hasDate && !dkcal::IsValidDate(fields.year, fields.month, fields.day))
    return false;
  if (hasTime && !dkcal::IsValidTime(fields.hour, fields.minute, fields.second, fields.millisecond))
    return false;
  Moment moment;
  moment.date = {fields.year, static_cast<int>(fields.month), static_cast<int>(fields.day)};
  moment.msOfDay = dkcal::TimeMs(fields.hour, fields.minute, fields.second, fields.millisecond);
  if (hasDate && hasTime)
    return YearNearRange(moment.date.year) && PackMoment(FromZone(moment, fields.zone), *this);
  if (hasDate && (moment.date.year < DKDateEx::minYear || moment.date.year > DKDateEx::maxYear))
    return false;
  *this = FromParts(hasDate ? PackDate(moment.date) : DKDateEx(),
                    hasTime ? DKTimeEx::FromMilliseconds(static_cast<std::int32_t>(moment.msOfDay)) : DKTimeEx());
  return true;
}

// ---------------------------------------------------------------------------------------------
// Records

bool DKDateTimeEx::FromSystemTime(const dk::SYSTEMTIME& time, const DKTimeZone& zone) noexcept {
  return DKIsValidSystemTime(time) && SetDateAndTime(DKDateAndTime(time.wYear, time.wMonth, time.wDay, time.wHour, time.wMinute,
                                                                   time.wSecond, time.wMilliseconds, zone));
}

bool DKDateTimeEx::AsSystemTime(dk::SYSTEMTIME& time, const DKTimeZone& zone) const noexcept {
  DKDateAndTime fields;
  if (!IsDateAndTime() || !GetDateAndTime(fields, zone) || fields.year < 0 || fields.year > 65535)
    return false;
  const int weekDay = dkcal::WeekDayOfDays(dkcal::DaysFromCivil(fields.year, static_cast<int>(fields.month), static_cast<int>(fields.day)));
  time = DKSystemTime(static_cast<std::uint16_t>(fields.year), static_cast<std::uint16_t>(fields.month),
                      static_cast<std::uint16_t>(weekDay), static_cast<std::uint16_t>(fields.day),
                      static_cast<std::uint16_t>(fields.hour), static_cast<std::uint16_t>(fields.minute),
                      static_cast<std::uint16_t>(fields.second), static_cast<std::uint16_t>(fields.millisecond));
  return true;
}

bool DKDateTimeEx::FromStructTM(const std::tm& time, const DKTimeZone& zone) noexcept {
  const DKInt64 year = static_cast<DKInt64>(time.tm_year) + 1900;
  if (year < DKDateEx::minYear - 1 || year > DKDateEx::maxYear + 1 || time.tm_mon < 0 || time.tm_mday < 0 || time.tm_hour < 0 ||
      time.tm_min < 0 || time.tm_sec < 0)
    return false;
  return SetDateAndTime(DKDateAndTime(static_cast<std::int32_t>(year), static_cast<std::uint32_t>(time.tm_mon) + 1,
                                      static_cast<std::uint32_t>(time.tm_mday), static_cast<std::uint32_t>(time.tm_hour),
                                      static_cast<std::uint32_t>(time.tm_min), static_cast<std::uint32_t>(time.tm_sec), 0, zone));
}

bool DKDateTimeEx::AsStructTM(std::tm& time, const DKTimeZone& zone) const noexcept {
  DKDateAndTime fields;
  if (!IsDateAndTime() || !GetDateAndTime(fields, zone))
    return false;
  bool daylight = false;
  zone.GetOffset(dkcal::FloorDiv(UtcMs(*this), msPerSecond), &daylight);
  const std::int64_t days = dkcal::DaysFromCivil(fields.year, static_cast<int>(fields.month), static_cast<int>(fields.day));
  time = std::tm{};
  time.tm_year = fields.year - 1900;
  time.tm_mon = static_cast<int>(fields.month) - 1;
  time.tm_mday = static_cast<int>(fields.day);
  time.tm_hour = static_cast<int>(fields.hour);
  time.tm_min = static_cast<int>(fields.minute);
  time.tm_sec = static_cast<int>(fields.second);
  time.tm_wday = dkcal::WeekDayOfDays(days);
  time.tm_yday = static_cast<int>(days - dkcal::DaysFromCivil(fields.year, 1, 1));
  time.tm_isdst = daylight ? 1 : 0;
  return true;
}

bool DKDateTimeEx::FromFileTime(const dk::FILETIME& time) noexcept {
  const DKUInt64 ticks = static_cast<DKUInt64>(time.dwHighDateTime) << 32 | time.dwLowDateTime;
  if (ticks > static_cast<DKUInt64>(std::numeric_limits<DKInt64>::max()))
    return false;
  return PackMoment(dkcal::MsToMoment(static_cast<DKInt64>(ticks / 10000) - dkcal::fileTimeOriginMs), *this);
}

bool DKDateTimeEx::AsFileTime(dk::FILETIME& time) const noexcept {
  if (!IsDateAndTime() || !IsValid())
    return false;
  const DKInt64 ms = UtcMs(*this) + dkcal::fileTimeOriginMs;
  if (ms < 0 || ms > std::numeric_limits<DKInt64>::max() / 10000)
    return false;
  const DKUInt64 ticks = static_cast<DKUInt64>(ms) * 10000;
  time.dwLowDateTime = static_cast<std::uint32_t>(ticks);
  time.dwHighDateTime = static_cast<std::uint32_t>(ticks >> 32);
  return true;
}

bool DKDateTimeEx::FromVariant(const dk::VARIANT& value, const DKTimeZone& zone) noexcept {
  return dkdt::FromVariantRecord(*this, value, zone);
}

bool DKDateTimeEx::FromVariant(double value, const DKTimeZone& zone) noexcept {
  dk::SYSTEMTIME record;
  if (!DKVariantTimeToSystemTime(value, record))
    return false;
  if (value > -1.0 && value < 1.0) { // no date: the time of day alone
    *this = DKDateTimeEx(DKTimeEx::FromMilliseconds(static_cast<std::int32_t>(dkcal::TimeMs(record.wHour, record.wMinute, record.wSecond, 0))));
    return true;
  }
  return FromSystemTime(record, zone);
}

bool DKDateTimeEx::AsVariant(dk::VARIANT& value, const DKTimeZone& zone) const noexcept {
  if (IsNull()) {
    DKVariant::SetNull(value);
    return true;
  }
  if (!IsValid())
    return false;
  if (IsOnlyDate())
    return m_date.AsVariant(value);
  if (IsOnlyTime())
    return m_time.AsVariant(value);
  dk::SYSTEMTIME record;
  double date = 0;
  if (!AsSystemTime(record, zone) || record.wYear < 1601 || record.wYear > 9999 || !DKSystemTimeToVariantTime(record, date))
    return false;
  DKVariant::SetDate(value, date);
  return true;
}

bool DKDateTimeEx::FromDKDateTime(const DKDateTime& time) noexcept { return FromUnixTime(time.GetTime_t()); }

bool DKDateTimeEx::AsUnixTime(DKInt64& seconds, std::int32_t* milliseconds) const noexcept {
  if (!IsDateAndTime() || !IsValid())
    return false;
  const DKInt64 ms = UtcMs(*this);
  seconds = dkcal::FloorDiv(ms, msPerSecond);
  if (milliseconds)
    *milliseconds = static_cast<std::int32_t>(dkcal::FloorMod(ms, msPerSecond));
  return true;
}

bool DKDateTimeEx::FromUnixTime(DKInt64 seconds, std::int32_t milliseconds) noexcept {
  constexpr DKInt64 limit = DKInt64{1} << 50; // far beyond the range, far from overflowing
  if (milliseconds < 0 || milliseconds > 999 || seconds > limit || seconds < -limit)
    return false;
  return PackMoment(dkcal::MsToMoment(seconds * msPerSecond + milliseconds), *this);
}

// ---------------------------------------------------------------------------------------------
// Now

DKDateTimeEx DKDateTimeEx::GetCurrentDateTime() {
  const DKClockReading now = DKClock::Now();
  DKDateTimeEx value;
  value.FromUnixTime(now.seconds, now.milliseconds);
  return value;
}

namespace {

// One part of the current moment, as the local or the UTC clock reads it.
DKDateTimeEx CurrentPart(bool local, std::uint32_t absent) {
  DKDateAndTime fields;
  DKDateTimeEx::GetCurrentDateTime().GetDateAndTime(fields, local ? DKTimeZone::Local : DKTimeZone::UTC);
  fields.flags = absent;
  DKDateTimeEx value;
  value.SetDateAndTime(fields);
  return value;
}

} // namespace

DKDateTimeEx DKDateTimeEx::GetCurrentDate(bool local) { return CurrentPart(local, DKDateAndTime::NoTime); }
DKDateTimeEx DKDateTimeEx::GetTheCurrentTime(bool local) { return CurrentPart(local, DKDateAndTime::NoDate); }

// ---------------------------------------------------------------------------------------------
// Arithmetic

void DKDateTimeEx::AddOrSubstract(const DKDurationEx& duration, bool add) {
  const DKDurationEx::Unit unit = duration.GetUnit();
  std::int32_t count = duration.GetDuration();
  if (!duration.IsValid() || count == 0 || !IsValid())
    return;
  count = dkcal::UsableCount(duration);
  if (count < 0) {
    count = -count;
    add = !add;
  }
  const DKInt64 signedCount = add ? count : -static_cast<DKInt64>(count);

  if (unit <= DKDurationEx::Day) {
    if (!HasDate())
      return;
    if (!HasTime()) {
      dkcal::Civil date = CivilOf(m_date);
      dkcal::AddCalendarUnits(date, unit, signedCount);
      if (date.year < DKDateEx::minYear || date.year > DKDateEx::maxYear)
        ThrowOutOfRange(date.year);
      m_date = PackDate(date);
      return;
    }
    // Calendar units move the local wall-clock reading: a day later is the same clock time.
    Moment local = ToZone(*this, DKTimeZone::Local);
    dkcal::AddCalendarUnits(local.date, unit, signedCount);
    if (!YearNearRange(local.date.year))
      ThrowOutOfRange(local.date.year);
    const Moment utc = FromZone(local, DKTimeZone::Local);
    if (!PackMoment(utc, *this))
      ThrowOutOfRange(utc.date.year);
    return;
  }

  // Clock units move the instant, in UTC.
  DKTimeEx time = HasTime() ? m_time : DKTimeEx::minimum;
  const DKInt64 days = time.AddOrSubstractAux(count, unit, add);
  if (HasDate()) {
    dkcal::Civil date = CivilOf(m_date);
    dkcal::AddDays(date, days);
    if (date.year < DKDateEx::minYear || date.year > DKDateEx::maxYear)
      ThrowOutOfRange(date.year);
    m_date = PackDate(date);
  }
  m_time = time;
}

DKDateTimeEx& DKDateTimeEx::operator+=(const DKDurationEx& duration) {
  AddOrSubstract(duration, true);
  return *this;
}
DKDateTimeEx& DKDateTimeEx::operator-=(const DKDurationEx& duration) {
  AddOrSubstract(duration, false);
  return *this;
}
DKDateTimeEx& DKDateTimeEx::operator++() {
  return *this += IsOnlyDate() ? DKDurationEx(1, DKDurationEx::Day) : DKDurationEx(1, DKDurationEx::Millisecond);
}
DKDateTimeEx& DKDateTimeEx::operator--() {
  return *this -= IsOnlyDate() ? DKDurationEx(1, DKDurationEx::Day) : DKDurationEx(1, DKDurationEx::Millisecond);
}
DKDateTimeEx DKDateTimeEx::operator++(int) { return dkdt::PostIncrement(*this); }
DKDateTimeEx DKDateTimeEx::operator--(int) { return dkdt::PostDecrement(*this); }

DKDateTimeEx operator+(const DKDateTimeEx& value, const DKDurationEx& duration) { return DKDateTimeEx(value) += duration; }
DKDateTimeEx operator-(const DKDateTimeEx& value, const DKDurationEx& duration) { return DKDateTimeEx(value) -= duration; }

DKDurationEx operator-(const DKDateTimeEx& a, const DKDateTimeEx& b) {
  if (!a.IsValid() || !b.IsValid())
    return DKDurationEx::invalid_;
  const DKInt64 timeA = a.HasTime() ? a.GetTime().AsMilliseconds() : 0;
  const DKInt64 timeB = b.HasTime() ? b.GetTime().AsMilliseconds() : 0;
  if (!a.HasDate() || !b.HasDate())
    return DKDurationEx(static_cast<long>(timeA - timeB), DKDurationEx::Millisecond);
  const DKInt64 days = dkcal::DaysFromCivil(a.GetDate().GetYear(), static_cast<int>(a.GetDate().GetMonth()),
                                            static_cast<int>(a.GetDate().GetDay())) -
                       dkcal::DaysFromCivil(b.GetDate().GetYear(), static_cast<int>(b.GetDate().GetMonth()),
                                            static_cast<int>(b.GetDate().GetDay()));
  if (a.IsOnlyDate() && b.IsOnlyDate())
    return dkcal::FittingDuration(days, DKDurationEx::Day);
  // The whole range spans about 3.1e9 days, 2.7e17 ms: the milliseconds cannot overflow.
  static_assert((DKInt64{DKDateEx::maxYear} - DKDateEx::minYear + 1) * 366 * dkcal::msPerDay <
                std::numeric_limits<DKInt64>::max() / 2);
  return dkcal::FittingDuration(days * dkcal::msPerDay + timeA - timeB, DKDurationEx::Millisecond);
}

// ---------------------------------------------------------------------------------------------
// Text

const DKString& DKDateTimeEx::GetDefaultFormat(bool full, bool withMilliseconds) const {
  const DefaultFormats& formats = Formats();
  if (full)
    return formats.full;
  if (IsDateAndTime())
    return withMilliseconds ? formats.dateTimeMs : formats.full;
  if (HasDate())
    return formats.date;
  if (HasTime())
    return withMilliseconds ? formats.timeMs : formats.time;
  return formats.none;
}

DKErrorID DKDateTimeEx::AsString(DKChar* buffer, unsigned size, const DKChar* format, const DKTimeZone& zone) const {
  if (buffer == nullptr || size == 0)
    return DKErrorID();
  buffer[0] = 0;
  dkdt::WriteFields fields;
  if (!FieldsToWrite(*this, zone, fields))
    return DKErrorID();
  if (format == nullptr)
    format = GetDefaultFormat(false, fields.millisecond != 0).c_str();
  dkdt::WriteText(buffer, size, format, fields, Extras(*this, zone));
  return DKErrorID();
}

DKString DKDateTimeEx::AsString(const DKString& format, const DKTimeZone& zone) const {
  dkdt::WriteFields fields;
  if (!FieldsToWrite(*this, zone, fields))
    return DKString();
  const DKString& used = format.IsEmpty() ? GetDefaultFormat(false, fields.millisecond != 0) : format;
  return dkdt::WriteString(used.c_str(), fields, Extras(*this, zone));
}

DKErrorID DKDateTimeEx::FromString(const DKString& text, const DKString& format, const DKTimeZone& zone) {
  SetNull();
  if (dkdt::IsSysdate(text)) {
    *this = GetCurrentDateTime();
    return DKErrorID();
  }
  if (dkdt::IsBlank(text))
    return DKErrorID();

  dkdt::ReadFields read;
  dkdt::ReadText(text, format.IsEmpty() ? dkdt::DefaultReadFormat() : format, read);
  const bool hasDate = read.HasDate();
  const bool hasTime = read.HasTime();
  // A local reading may lie one year beyond either end and still be in range in UTC.
  if ((!hasDate && !hasTime) || (hasDate && !read.IsValidDate(DKDateEx::minYear - 1, DKDateEx::maxYear + 1)) ||
      (hasTime && !read.IsValidTime()))
    return dkdt::InvalidDate(text);
  Moment moment;
  moment.date = {read.year(), static_cast<int>(read.month()), static_cast<int>(read.day())};
  moment.msOfDay = read.TimeMs();
  if (hasDate && hasTime) {
    // Fields with a zone in the text are UTC once its offset is added; others are in `zone`.
    const Moment utc = read.zoneNamed ? dkcal::Shift(moment, DKInt64{read.offset} * msPerSecond) : FromZone(moment, zone);
    if (!PackMoment(utc, *this))
      return dkdt::InvalidDate(text);
    return DKErrorID();
  }
  if (hasDate && (moment.date.year < DKDateEx::minYear || moment.date.year > DKDateEx::maxYear))
    return dkdt::InvalidDate(text);
  *this = FromParts(hasDate ? PackDate(moment.date) : DKDateEx(),
                    hasTime ? DKTimeEx::FromMilliseconds(static_cast<std::int32_t>(moment.msOfDay)) : DKTimeEx());
  if (read.zoneNamed && read.offset != 0) {
    // A date alone or a time alone with an offset: the offset is added as seconds.
    try {
      AddOrSubstract(DKDurationEx(read.offset, DKDurationEx::Second), true);
    } catch (const DKDateExceptionEx&) {
      SetNull();
      return dkdt::InvalidDate(text);
    }
  }
  return DKErrorID();
}

std::ostream& operator<<(std::ostream& os, const DKDateTimeEx& value) { return dkdt::WriteValue(os, value); }
std::istream& operator>>(std::istream& is, DKDateTimeEx& value) { return dkdt::ReadValue(is, value); }

// ---------------------------------------------------------------------------------------------
// DKString conversions

namespace {

template <class T>
T ReadAs(const DKString& text, bool* ok) {
  T value;
  const bool good = value.FromString(text).Good();
  if (ok)
    *ok = good;
  return value;
}

} // namespace

DKDateTimeEx DKString::AsDKDateTimeEx(bool* ok) const { return ReadAs<DKDateTimeEx>(*this, ok); }
DKDateEx DKString::AsDKDateEx(bool* ok) const { return ReadAs<DKDateEx>(*this, ok); }
DKTimeEx DKString::AsDKTimeEx(bool* ok) const { return ReadAs<DKTimeEx>(*this, ok); }
DKDateTime DKString::AsDKDateTime(bool* ok) const { return ReadAs<DKDateTime>(*this, ok); }

DKDurationEx DKString::AsDKDurationEx(bool* ok) const {
  DKDurationEx value;
  const bool good = value.FromString(*this, DKDurationEx::Second);
  if (ok)
    *ok = good;
  return value;
}
