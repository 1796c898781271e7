// The older values: DKDate (days since 1899-01-01) and DKDateTime (seconds since 1970, UTC).
#include <DorvikCore/DKDate.h>
#include <DorvikCore/DKDateExceptions.h>

#include "os/DKVariant.h"
#include "datetime/DKCalendar.h"
#include "datetime/DKDateTimeText.h"
#include "datetime/DKValueOps.h"
#include "os/DKClock.h"

#include <istream>
#include <ostream>

namespace {

[[noreturn]] void ThrowInvalid(const DKChar* what) {
  throw DKDateException(DKString(DK_T("Invalid source for a date: ")) + what);
}

void Require(bool ok, const DKChar* what) {
  if (!ok)
    ThrowInvalid(what);
}

// The week number of a DKDate, which may lie beyond the packed years.
class DateExtras final : public dkdt::WriteExtras {
public:
  DateExtras(std::int64_t year, int month, int day) noexcept : m_year(year), m_month(month), m_day(day) {}
  int Week() const override { return dkcal::YearWeek(m_year, m_month, m_day); }
  bool Offset(int&) const override { return false; }

private:
  std::int64_t m_year;
  int m_month;
  int m_day;
};

// Oracle date format elements and the codes they stand for, longest first.
struct OracleElement {
  const char* element;
  const DKChar* code;
};
constexpr OracleElement oracleElements[] = {{"YYYY", DK_T("%Y")}, {"HH24", DK_T("%H")}, {"YY", DK_T("%y")}, {"MM", DK_T("%m")},
                                            {"DD", DK_T("%d")},   {"HH", DK_T("%H")},   {"MI", DK_T("%M")}, {"SS", DK_T("%S")}};

constexpr DKChar UpperAscii(DKChar c) noexcept { return c >= 'a' && c <= 'z' ? static_cast<DKChar>(c - 32) : c; }

DKString OracleFormatToCodes(const DKString& oracle) {
  DKString codes;
  for (std::size_t i = 0; i < oracle.Length();) {
    bool matched = false;
    for (const OracleElement& e : oracleElements) {
      std::size_t n = 0;
      while (e.element[n] && i + n < oracle.Length() && UpperAscii(oracle[i + n]) == static_cast<DKChar>(e.element[n]))
        ++n;
      if (e.element[n] == 0) {
        codes += e.code;
        i += n;
        matched = true;
        break;
      }
    }
    if (!matched) {
      if (oracle[i] == '%')
        codes += DK_T('%');
      codes += oracle[i++];
    }
  }
  return codes;
}

// The quoted text at pos ('...'); pos moves past it. False when there is none.
bool ReadQuoted(const DKString& text, std::size_t& pos, DKString& out) {
  pos = text.FindFirstNotOf(DK_T(" \t"), pos);
  if (pos == DKString::npos || text[pos] != '\'')
    return false;
  const std::size_t end = text.Find(DK_T('\''), pos + 1);
  if (end == DKString::npos)
    return false;
  out = text.SubStr(pos + 1, end - pos - 1);
  pos = end + 1;
  return true;
}

// TO_DATE('text'[, 'format']): the text and, when given, the format as "%" codes.
bool SplitToDate(const DKString& text, DKString& body, DKString& format) {
  std::size_t pos = text.FindFirstNotOf(DK_T(" "));
  constexpr std::size_t keywordLength = 8;
  if (pos == DKString::npos || !text.SubStr(pos, keywordLength).IsEqual(DK_T("TO_DATE("), DKString::IgnoreCase))
    return false;
  pos += keywordLength;
  if (!ReadQuoted(text, pos, body))
    return false;
  pos = text.FindFirstNotOf(DK_T(" \t"), pos);
  if (pos != DKString::npos && text[pos] == ',') {
    DKString oracle;
    ++pos;
    if (!ReadQuoted(text, pos, oracle))
      return false;
    format = OracleFormatToCodes(oracle);
    pos = text.FindFirstNotOf(DK_T(" \t"), pos);
  }
  return pos != DKString::npos && text[pos] == ')' && text.FindFirstNotOf(DK_T(" \t"), pos + 1) == DKString::npos;
}

bool StartsWithToDate(const DKString& text) {
  const std::size_t pos = text.FindFirstNotOf(DK_T(" "));
  return pos != DKString::npos && text.SubStr(pos, 8).IsEqual(DK_T("TO_DATE("), DKString::IgnoreCase);
}

} // namespace

// ---------------------------------------------------------------------------------------------
// DKDate

// The class constants are defined here, in the library, and nowhere else: on Windows a program
// imports an exported class's members and may hold no copy of its own.
constinit const DKDate DKDate::minimum = DKDate::FromDays(-693230);
constinit const DKDate DKDate::maximum = DKDate::FromDays(2147483647);

long DKDate::JulianDay(unsigned short day, unsigned short month, unsigned short year) noexcept {
  return dkcal::JulianDayFormula<long>(day, month, year);
}

DKDate::DKDate(unsigned day, unsigned month, int year) : m_date(0) {
  if (!SetDate(day, month, year)) {
    DKString text(DK_T("Invalid date: "));
    dkdt::AppendInt(text, year);
    text += DK_T('/');
    dkdt::AppendInt(text, month);
    text += DK_T('/');
    dkdt::AppendInt(text, day);
    throw DKDateException(text);
  }
}

DKDate::DKDate(const DKString& text, const DKString& format) : m_date(0) {
  const DKErrorID result = FromString(text, format);
  if (result.Bad())
    throw DKDateException(result.AsString());
}
DKDate::DKDate(const dk::SYSTEMTIME& time) : m_date(0) { Require(FromSystemTime(time), DK_T("SYSTEMTIME")); }
DKDate::DKDate(const std::tm& time) : m_date(0) { Require(FromStructTM(time), DK_T("struct tm")); }
DKDate::DKDate(const dk::FILETIME& time, const DKTimeZone& zone) : m_date(0) { Require(FromFileTime(time, zone), DK_T("FILETIME")); }
DKDate::DKDate(const dk::VARIANT& value) : m_date(0) { Require(FromVariant(value), DK_T("VARIANT")); }
DKDate::DKDate(double variantDate) : m_date(0) { Require(FromVariant(variantDate), DK_T("automation date")); }
DKDate::DKDate(const DKDateTime& time, const DKTimeZone& zone) : m_date(0) {
  Require(FromDKDateTime(time, zone), DK_T("DKDateTime"));
}
DKDate::DKDate(const DKDateAndTime& fields) : m_date(0) { Require(SetDateAndTime(fields), DK_T("DKDateAndTime")); }
DKDate::DKDate(const DKDateEx& date) : m_date(0) {
  Require(date.IsValid() && SetDate(date.GetDay(), date.GetMonth(), date.GetYear()), DK_T("DKDateEx"));
}

bool DKDate::SetDate(unsigned day, unsigned month, int year) noexcept {
  if (!dkcal::IsValidDate(year, month, day))
    return false;
  const DKInt64 count = year >= 1 && year <= 65535
                            ? JulianDay(static_cast<unsigned short>(day), static_cast<unsigned short>(month),
                                        static_cast<unsigned short>(year)) - static_cast<DKInt64>(reference)
                            : dkcal::DaysFromCivil(year, static_cast<int>(month), static_cast<int>(day)) - dkcal::dkDateOrigin;
  if (count < minimum.m_date || count > maximum.m_date)
    return false;
  m_date = static_cast<std::int32_t>(count);
  return true;
}

void DKDate::GetDate(int& year, unsigned& month, unsigned& day) const noexcept {
  std::int64_t y;
  int m, d;
  dkcal::CivilFromDays(m_date + dkcal::dkDateOrigin, y, m, d);
  year = static_cast<int>(y);
  month = static_cast<unsigned>(m);
  day = static_cast<unsigned>(d);
}

int DKDate::year() const noexcept {
  int y;
  unsigned m, d;
  GetDate(y, m, d);
  return y;
}

unsigned DKDate::month() const noexcept {
  int y;
  unsigned m, d;
  GetDate(y, m, d);
  return m;
}

unsigned DKDate::day() const noexcept {
  int y;
  unsigned m, d;
  GetDate(y, m, d);
  return d;
}

int DKDate::weekday() const noexcept { return static_cast<int>(dkcal::FloorMod(m_date, 7)); } // 1899-01-01 was a Sunday

int DKDate::days_in_month() const noexcept {
  int y;
  unsigned m, d;
  GetDate(y, m, d);
  return dkcal::DaysInMonth(y, m);
}

int DKDate::days_in_month(unsigned short month, short year) noexcept { return dkcal::DaysInMonth(year, month); }

DKErrorID DKDate::FromString(const DKString& text, const DKString& format) {
  if (dkdt::IsSysdate(text)) {
    *this = GetCurrentDate(true);
    return DKErrorID();
  }
  if (dkdt::IsBlank(text)) {
    m_date = 0;
    return DKErrorID();
  }
  dkdt::ReadFields fields;
  dkdt::ReadText(text, format.IsEmpty() ? dkdt::DefaultReadFormat() : format, fields);
  if (!fields.HasDate() || !fields.IsValidDate(1, 6000000) ||
      !SetDate(static_cast<unsigned>(fields.day()), static_cast<unsigned>(fields.month()), static_cast<int>(fields.year())))
    return dkdt::InvalidDate(text);
  return DKErrorID();
}

DKString DKDate::AsString(const DKString& format) const {
  int y;
  unsigned m, d;
  GetDate(y, m, d);
  dkdt::WriteFields fields;
  fields.year = y;
  fields.month = static_cast<int>(m);
  fields.day = static_cast<int>(d);
  return dkdt::WriteString((format.IsEmpty() ? DKString(defaultStringFormat) : format).c_str(), fields,
                           DateExtras(y, static_cast<int>(m), static_cast<int>(d)));
}

bool DKDate::FromSystemTime(const dk::SYSTEMTIME& time) noexcept { return SetDate(time.wDay, time.wMonth, time.wYear); }

bool DKDate::FromStructTM(const std::tm& time) noexcept {
  DKDateEx date;
  return date.FromStructTM(time) && SetDate(date.GetDay(), date.GetMonth(), date.GetYear());
}

bool DKDate::FromFileTime(const dk::FILETIME& time, const DKTimeZone& zone) noexcept {
  DKDateEx date;
  return date.FromFileTime(time, zone) && SetDate(date.GetDay(), date.GetMonth(), date.GetYear());
}

template <class Variant>
bool DKDate::FromVariantDate(const Variant& value) noexcept {
  DKDateEx date;
  if (!date.FromVariant(value))
    return false;
  if (date.IsNull()) {
    m_date = 0;
    return true;
  }
  return SetDate(date.GetDay(), date.GetMonth(), date.GetYear());
}

bool DKDate::FromVariant(const dk::VARIANT& value) noexcept { return FromVariantDate(value); }

bool DKDate::FromVariant(double value) noexcept { return FromVariantDate(value); }

bool DKDate::FromDKDateTime(const DKDateTime& time, const DKTimeZone& zone) noexcept {
  DKDateEx date;
  return date.FromDKDateTime(time, zone) && SetDate(date.GetDay(), date.GetMonth(), date.GetYear());
}

bool DKDate::SetDateAndTime(const DKDateAndTime& fields) noexcept {
  if (fields.flags & DKDateAndTime::NoDate) {
    m_date = 0;
    return true;
  }
  return SetDate(fields.day, fields.month, fields.year);
}

void DKDate::GetDateAndTime(DKDateAndTime& fields) const noexcept {
  fields = DKDateAndTime();
  unsigned m, d;
  GetDate(fields.year, m, d);
  fields.month = m;
  fields.day = d;
  fields.flags = DKDateAndTime::NoTime;
}

bool DKDate::AsDKDateEx(DKDateEx& date) const noexcept {
  int y;
  unsigned m, d;
  GetDate(y, m, d);
  return date.SetDate(y, m, d);
}

bool DKDate::AsSystemTime(dk::SYSTEMTIME& time) const noexcept {
  DKDateEx date;
  return AsDKDateEx(date) && date.AsSystemTime(time);
}

bool DKDate::AsStructTM(std::tm& time) const noexcept {
  DKDateEx date;
  return AsDKDateEx(date) && date.AsStructTM(time);
}

bool DKDate::AsFileTime(dk::FILETIME& time, const DKTimeZone& zone) const noexcept {
  DKDateEx date;
  return AsDKDateEx(date) && date.AsFileTime(time, zone);
}

bool DKDate::AsVariant(dk::VARIANT& value) const noexcept {
  DKDateEx date;
  if (IsNull()) {
    DKVariant::SetNull(value);
    return true;
  }
  return AsDKDateEx(date) && date.AsVariant(value);
}

DKDate DKDate::GetCurrentDate(bool local) { return DKDate(DKDateEx::GetCurrentDate(local)); }

void DKDate::MoveDays(DKInt64 days) {
  const DKInt64 count = m_date + days;
  if (count > maximum.m_date)
    throw DKDateException(DK_T("Date beyond DKDate::maximum"));
  if (count < minimum.m_date)
    throw DKDateException(DK_T("Date before DKDate::minimum"));
  m_date = static_cast<std::int32_t>(count);
}

namespace {

// Further than any two counts lie apart, even a count below the minimum (FromDays) and the
// maximum, yet far from overflowing: a move this long leaves the range from anywhere.
constexpr DKInt64 farDays = DKInt64{1} << 40;

} // namespace

DKDate& DKDate::operator+=(long days) {
  const DKInt64 count = days;
  MoveDays(count > farDays ? farDays : count < -farDays ? -farDays : count);
  return *this;
}

DKDate& DKDate::operator-=(long days) {
  const DKInt64 count = days;
  MoveDays(count > farDays ? -farDays : count < -farDays ? farDays : -count);
  return *this;
}

void DKDate::AddOrSubstract(const DKDurationEx& duration, bool add) {
  if (!duration.IsValid() || duration.GetDuration() == 0 || duration.GetUnit() > DKDurationEx::Day)
    return;
  const DKInt64 count = dkcal::UsableCount(duration);
  int y;
  unsigned m, d;
  GetDate(y, m, d);
  dkcal::Civil date{y, static_cast<int>(m), static_cast<int>(d)};
  dkcal::AddCalendarUnits(date, duration.GetUnit(), add ? count : -count);
  constexpr std::int64_t farYear = 100000000; // beyond both ends, short of overflowing
  if (date.year > farYear || date.year < -farYear)
    MoveDays(date.year > 0 ? farDays : -farDays);
  MoveDays(dkcal::DaysFromCivil(date.year, date.month, date.day) - dkcal::dkDateOrigin - m_date);
}

DKDate& DKDate::operator+=(const DKDurationEx& duration) {
  AddOrSubstract(duration, true);
  return *this;
}

DKDate& DKDate::operator-=(const DKDurationEx& duration) {
  AddOrSubstract(duration, false);
  return *this;
}
DKDate& DKDate::operator++() { return *this += 1L; }
DKDate& DKDate::operator--() { return *this -= 1L; }
DKDate DKDate::operator++(int) { return dkdt::PostIncrement(*this); }
DKDate DKDate::operator--(int) { return dkdt::PostDecrement(*this); }

DKDate operator+(const DKDate& date, const DKDurationEx& duration) { return DKDate(date) += duration; }
DKDate operator-(const DKDate& date, const DKDurationEx& duration) { return DKDate(date) -= duration; }
DKDurationEx operator-(const DKDate& a, const DKDate& b) {
  return dkcal::FittingDuration(static_cast<DKInt64>(a.GetDays()) - b.GetDays(), DKDurationEx::Day);
}

// ---------------------------------------------------------------------------------------------
// DKDateTime

constinit const DKDateTime DKDateTime::minimum = DKDateTime::FromCount(-2147397248);
constinit const DKDateTime DKDateTime::maximum = DKDateTime::FromCount(2147397247);

void DKDateTime::SetCount(DKInt64 seconds) {
  if (seconds > maximum.m_time)
    throw DKDateException(maximum);
  if (seconds < minimum.m_time)
    throw DKDateException(minimum);
  m_time = static_cast<std::int32_t>(seconds);
}

DKDateTime::DKDateTime(std::time_t seconds) : m_time(0) { SetCount(static_cast<DKInt64>(seconds)); }

DKDateTime::DKDateTime(int year, unsigned month, unsigned day, unsigned hour, unsigned minute, unsigned second,
                       const DKTimeZone& zone)
    : m_time(0) {
  Require(SetDateAndTime(DKDateAndTime(year, month, day, hour, minute, second, 0, zone)), DK_T("parts"));
}

DKDateTime::DKDateTime(const DKString& text, const DKString& format, const DKTimeZone& zone) : m_time(0) {
  const DKErrorID result = FromString(text, format, zone);
  if (result.Bad())
    throw DKDateException(result.AsString());
}
DKDateTime::DKDateTime(const dk::SYSTEMTIME& time, const DKTimeZone& zone) : m_time(0) {
  Require(FromSystemTime(time, zone), DK_T("SYSTEMTIME"));
}
DKDateTime::DKDateTime(const std::tm& time, const DKTimeZone& zone) : m_time(0) {
  Require(FromStructTM(time, zone), DK_T("struct tm"));
}
DKDateTime::DKDateTime(const dk::FILETIME& time) : m_time(0) { Require(FromFileTime(time), DK_T("FILETIME")); }
DKDateTime::DKDateTime(const dk::VARIANT& value, const DKTimeZone& zone) : m_time(0) {
  Require(FromVariant(value, zone), DK_T("VARIANT"));
}
DKDateTime::DKDateTime(double variantDate, const DKTimeZone& zone) : m_time(0) {
  Require(FromVariant(variantDate, zone), DK_T("automation date"));
}
DKDateTime::DKDateTime(const DKDateAndTime& fields) : m_time(0) { Require(SetDateAndTime(fields), DK_T("DKDateAndTime")); }
DKDateTime::DKDateTime(const DKDateTimeEx& value) : m_time(0) { Require(FromDKDateTimeEx(value), DK_T("DKDateTimeEx")); }

DKDateTimeEx DKDateTime::AsDKDateTimeEx() const noexcept {
  DKDateTimeEx value;
  value.FromUnixTime(m_time);
  return value;
}

namespace {

// The seconds since 1970 of a value; a date alone stands for its midnight in the zone.
bool InstantSeconds(const DKDateTimeEx& value, const DKTimeZone& zone, DKInt64& seconds) noexcept {
  DKDateTimeEx instant = value;
  if (value.IsOnlyDate()) {
    DKDateAndTime fields;
    value.GetDateAndTime(fields, zone);
    fields.flags = 0;
    if (!instant.SetDateAndTime(fields))
      return false;
  }
  return instant.AsUnixTime(seconds);
}

} // namespace

bool DKDateTime::FromDKDateTimeEx(const DKDateTimeEx& value) noexcept { return SetFromDKDateTimeEx(value, DKTimeZone::Local); }

bool DKDateTime::SetFromDKDateTimeEx(const DKDateTimeEx& value, const DKTimeZone& zone) noexcept {
  DKInt64 seconds = 0;
  if (!InstantSeconds(value, zone, seconds) || seconds < minimum.m_time || seconds > maximum.m_time)
    return false;
  m_time = static_cast<std::int32_t>(seconds);
  return true;
}

bool DKDateTime::SetDateAndTime(const DKDateAndTime& fields) noexcept {
  DKDateTimeEx value;
  return value.SetDateAndTime(fields) && FromDKDateTimeEx(value);
}

void DKDateTime::GetDateAndTime(DKDateAndTime& fields, const DKTimeZone& zone) const noexcept {
  AsDKDateTimeEx().GetDateAndTime(fields, zone);
}

bool DKDateTime::FromSystemTime(const dk::SYSTEMTIME& time, const DKTimeZone& zone) noexcept {
  DKDateTimeEx value;
  return value.FromSystemTime(time, zone) && FromDKDateTimeEx(value);
}

bool DKDateTime::FromStructTM(const std::tm& time, const DKTimeZone& zone) noexcept {
  DKDateTimeEx value;
  return value.FromStructTM(time, zone) && FromDKDateTimeEx(value);
}

bool DKDateTime::FromFileTime(const dk::FILETIME& time) noexcept {
  DKDateTimeEx value;
  return value.FromFileTime(time) && FromDKDateTimeEx(value);
}

bool DKDateTime::FromVariant(const dk::VARIANT& value, const DKTimeZone& zone) noexcept {
  DKDateTimeEx ex;
  return ex.FromVariant(value, zone) && ex.IsDateAndTime() && FromDKDateTimeEx(ex);
}

bool DKDateTime::FromVariant(double value, const DKTimeZone& zone) noexcept {
  DKDateTimeEx ex;
  return ex.FromVariant(value, zone) && ex.IsDateAndTime() && FromDKDateTimeEx(ex);
}

bool DKDateTime::AsSystemTime(dk::SYSTEMTIME& time, const DKTimeZone& zone) const noexcept {
  return AsDKDateTimeEx().AsSystemTime(time, zone);
}
bool DKDateTime::AsStructTM(std::tm& time, const DKTimeZone& zone) const noexcept {
  return AsDKDateTimeEx().AsStructTM(time, zone);
}
bool DKDateTime::AsFileTime(dk::FILETIME& time) const noexcept { return AsDKDateTimeEx().AsFileTime(time); }
bool DKDateTime::AsVariant(dk::VARIANT& value, const DKTimeZone& zone) const noexcept {
  return AsDKDateTimeEx().AsVariant(value, zone);
}

DKString DKDateTime::AsString(const DKString& format, const DKTimeZone& zone) const {
  return AsDKDateTimeEx().AsString(format.IsEmpty() ? DKString(defaultStringFormat) : format, zone);
}

DKErrorID DKDateTime::FromString(const DKString& text, const DKString& format, const DKTimeZone& zone) {
  DKString body = text;
  DKString codes = format.IsEmpty() ? dkdt::DefaultReadFormat() : format;
  if (StartsWithToDate(text) && !SplitToDate(text, body, codes))
    return dkdt::InvalidDate(text);
  DKDateTimeEx value;
  if (value.FromString(body, codes, zone).Bad())
    return dkdt::InvalidDate(text);
  if (value.IsNull()) {
    m_time = 0;
    return DKErrorID();
  }
  if (!SetFromDKDateTimeEx(value, zone))
    return dkdt::InvalidDate(text);
  return DKErrorID();
}

DKDateTime DKDateTime::GetCurrentDateTime() { return DKDateTime(static_cast<std::time_t>(DKClock::Now().seconds)); }

DKDateTime& DKDateTime::operator++() {
  SetCount(static_cast<DKInt64>(m_time) + 1);
  return *this;
}
DKDateTime& DKDateTime::operator--() {
  SetCount(static_cast<DKInt64>(m_time) - 1);
  return *this;
}
DKDateTime DKDateTime::operator++(int) { return dkdt::PostIncrement(*this); }
DKDateTime DKDateTime::operator--(int) { return dkdt::PostDecrement(*this); }

void DKDateTime::AddOrSubstract(const DKDurationEx& duration, bool add) {
  DKDateTimeEx value = AsDKDateTimeEx();
  try {
    if (add)
      value += duration;
    else
      value -= duration;
  } catch (const DKDateExceptionEx&) {
    const bool forward = (duration.GetDuration() > 0) == add;
    SetCount(forward ? DKInt64{maximum.m_time} + 1 : DKInt64{minimum.m_time} - 1);
  }
  DKInt64 seconds = 0;
  value.AsUnixTime(seconds);
  SetCount(seconds);
}

DKDateTime& DKDateTime::operator+=(const DKDurationEx& duration) {
  AddOrSubstract(duration, true);
  return *this;
}

DKDateTime& DKDateTime::operator-=(const DKDurationEx& duration) {
  AddOrSubstract(duration, false);
  return *this;
}

DKDateTime operator+(const DKDateTime& value, const DKDurationEx& duration) { return DKDateTime(value) += duration; }
DKDateTime operator-(const DKDateTime& value, const DKDurationEx& duration) { return DKDateTime(value) -= duration; }
DKDurationEx operator-(const DKDateTime& a, const DKDateTime& b) {
  return dkcal::FittingDuration(static_cast<DKInt64>(a.GetTime_t()) - b.GetTime_t(), DKDurationEx::Second);
}

// ---------------------------------------------------------------------------------------------
// Streams

std::ostream& operator<<(std::ostream& os, const DKDate& date) { return dkdt::WriteValue(os, date); }
std::istream& operator>>(std::istream& is, DKDate& date) { return dkdt::ReadValue(is, date); }
std::ostream& operator<<(std::ostream& os, const DKDateTime& value) { return dkdt::WriteValue(os, value); }
std::istream& operator>>(std::istream& is, DKDateTime& value) { return dkdt::ReadValue(is, value); }
