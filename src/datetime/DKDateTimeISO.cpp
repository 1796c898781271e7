// The forms other code exchanges dates in: ISO 8601 text for DKDateTimeEx, and std::chrono
// day counts for DKDateEx and DKDateTimeEx (the time points are inline in DKDateEx.h).
#include <DorvikCore/DKDateEx.h>

#include "datetime/DKCalendar.h"
#include "datetime/DKDateTimeText.h"

namespace {

// Day numbers of the first and the last valid date.
std::int64_t FirstDay() noexcept {
  static const std::int64_t day = dkcal::DaysFromCivil(DKDateEx::minYear, 1, 1);
  return day;
}
std::int64_t LastDay() noexcept {
  static const std::int64_t day = dkcal::DaysFromCivil(DKDateEx::maxYear, 12, 31);
  return day;
}

// ---------------------------------------------------------------------------------------------
// Writing

// Years 0..9999 in four digits; others signed, with at least four.
void AppendYear(DKString& out, DKInt64 year) {
  if (year > 9999)
    out += DK_T('+');
  dkdt::AppendInt(out, year, 4);
}

// ---------------------------------------------------------------------------------------------
// Reading

constexpr bool IsDigit(DKChar c) noexcept { return c >= '0' && c <= '9'; }

// A cursor over the text with the few steps the forms are made of.
class Cursor {
public:
  explicit Cursor(const DKString& text) noexcept : m_p(text.c_str()), m_end(m_p + text.Length()) {}

  bool AtEnd() const noexcept { return m_p == m_end; }
  // The character `ahead` places on, or 0 past the end.
  DKChar Peek(std::size_t ahead = 0) const noexcept {
    return static_cast<std::size_t>(m_end - m_p) > ahead ? m_p[ahead] : DKChar(0);
  }
  bool Take(DKChar c) noexcept {
    if (m_p == m_end || *m_p != c)
      return false;
    ++m_p;
    return true;
  }
  // Exactly `count` digits.
  bool Digits(int count, DKInt64& value) noexcept {
    value = 0;
    for (int i = 0; i < count; ++i, ++m_p) {
      if (m_p == m_end || !IsDigit(*m_p))
        return false;
      value = value * 10 + (*m_p - '0');
    }
    return true;
  }
  // A run of `least` to `most` digits (most <= 18), ending at a character that is not a digit.
  bool DigitRun(int least, int most, DKInt64& value) noexcept {
    value = 0;
    int count = 0;
    for (; m_p != m_end && IsDigit(*m_p); ++m_p, ++count) {
      if (count == most)
        return false;
      value = value * 10 + (*m_p - '0');
    }
    return count >= least;
  }
  // The milliseconds of a fraction's digits (at least one); later digits are passed over.
  bool Fraction(DKInt64& ms) noexcept {
    if (m_p == m_end || !IsDigit(*m_p))
      return false;
    ms = 0;
    int count = 0;
    for (; m_p != m_end && IsDigit(*m_p); ++m_p, ++count)
      if (count < 3)
        ms = ms * 10 + (*m_p - '0');
    for (; count < 3; ++count)
      ms *= 10;
    return true;
  }

private:
  const DKChar* m_p;
  const DKChar* m_end;
};

// What the text held.
struct IsoFields {
  bool hasDate = false;
  bool hasTime = false;
  bool zoneNamed = false;
  DKInt64 year = 0;
  DKInt64 month = 0;
  DKInt64 day = 0;
  DKInt64 msOfDay = 0;
  DKInt64 offsetSeconds = 0; // east of UTC
};

// YYYY-MM-DD, or a signed year of 4 to 9 digits; a valid date in the library's calendar.
bool ReadDate(Cursor& in, IsoFields& f) {
  const bool negative = in.Peek() == '-';
  if (negative || in.Peek() == '+') {
    in.Take(in.Peek());
    if (!in.DigitRun(4, 9, f.year))
      return false;
    if (negative)
      f.year = -f.year;
  } else if (!in.Digits(4, f.year)) {
    return false;
  }
  f.hasDate = true;
  return in.Take('-') && in.Digits(2, f.month) && in.Take('-') && in.Digits(2, f.day) &&
         dkcal::IsValidDate(f.year, f.month, f.day);
}

// hh:mm, hh:mm:ss, hh:mm:ss.f... (or ","), within the day.
bool ReadTime(Cursor& in, IsoFields& f) {
  DKInt64 hour = 0, minute = 0, second = 0, ms = 0;
  if (!in.Digits(2, hour) || !in.Take(':') || !in.Digits(2, minute))
    return false;
  if (in.Take(':')) {
    if (!in.Digits(2, second))
      return false;
    if ((in.Take('.') || in.Take(',')) && !in.Fraction(ms))
      return false;
  }
  if (!dkcal::IsValidTime(hour, minute, second, ms))
    return false;
  f.hasTime = true;
  f.msOfDay = dkcal::TimeMs(hour, minute, second, ms);
  return true;
}

// Z, or +hh:mm, +hhmm, +hh (or "-"), below 24 hours.
bool ReadZone(Cursor& in, IsoFields& f) {
  f.zoneNamed = true;
  if (in.Take('Z') || in.Take('z'))
    return true;
  const bool negative = in.Peek() == '-';
  if (!in.Take('-') && !in.Take('+'))
    return false;
  DKInt64 hours = 0, minutes = 0;
  if (!in.Digits(2, hours))
    return false;
  if (in.Take(':') ? !in.Digits(2, minutes) : !in.AtEnd() && !in.Digits(2, minutes))
    return false;
  if (hours > 23 || minutes > 59)
    return false;
  f.offsetSeconds = (hours * 60 + minutes) * 60 * (negative ? -1 : 1);
  return true;
}

// The whole text in one of the forms.
bool ReadIso(const DKString& text, IsoFields& f) {
  Cursor in(text);
  if (in.Peek(2) == ':') // a time alone
    return ReadTime(in, f) && in.AtEnd();
  if (!ReadDate(in, f))
    return false;
  if (in.AtEnd())
    return true;
  if (!in.Take('T') && !in.Take('t') && !in.Take(' '))
    return false;
  if (!ReadTime(in, f))
    return false;
  return in.AtEnd() || (ReadZone(in, f) && in.AtEnd());
}

DKDateEx PackDate(DKInt64 year, DKInt64 month, DKInt64 day) noexcept {
  return DKDateEx::Pack(static_cast<std::int32_t>(year), static_cast<std::uint32_t>(month), static_cast<std::uint32_t>(day));
}

} // namespace

// ---------------------------------------------------------------------------------------------
// DKDateEx

bool DKDateEx::AsSysDays(std::chrono::sys_days& days) const noexcept {
  if (!IsValid())
    return false;
  days = std::chrono::sys_days(std::chrono::days(dkcal::DaysFromCivil(GetYear(), static_cast<int>(GetMonth()), static_cast<int>(GetDay()))));
  return true;
}

bool DKDateEx::FromSysDays(std::chrono::sys_days days) noexcept {
  const auto count = days.time_since_epoch().count();
  if (count < FirstDay() || count > LastDay())
    return false;
  dkcal::Civil date;
  dkcal::CivilFromDays(count, date.year, date.month, date.day);
  *this = PackDate(date.year, date.month, date.day);
  return true;
}

// ---------------------------------------------------------------------------------------------
// DKDateTimeEx

bool DKDateTimeEx::AsSysDays(std::chrono::sys_days& days) const noexcept { return IsValid() && HasDate() && m_date.AsSysDays(days); }

bool DKDateTimeEx::FromSysDays(std::chrono::sys_days days) noexcept {
  DKDateEx date;
  if (!date.FromSysDays(days))
    return false;
  *this = FromParts(date, DKTimeEx());
  return true;
}

DKString DKDateTimeEx::AsISO8601(const DKTimeZone& zone) const {
  DKString out;
  if (!IsValid())
    return out;
  // The offset is needed only for a value with both parts in a zone other than UTC. ISO
  // offsets have no seconds: an instant whose offset has them is written in UTC.
  DKTimeZone used = zone;
  int offset = 0;
  DKInt64 seconds = 0;
  if (!zone.IsUTC() && AsUnixTime(seconds)) {
    offset = zone.GetOffset(seconds);
    if (offset % 60 != 0) {
      used = DKTimeZone::UTC;
      offset = 0;
    }
  }
  DKDateAndTime fields;
  if (!GetDateAndTime(fields, used))
    return out;
  if (HasDate()) {
    AppendYear(out, fields.year);
    out += DK_T('-');
    dkdt::AppendInt(out, fields.month, 2);
    out += DK_T('-');
    dkdt::AppendInt(out, fields.day, 2);
  }
  if (IsDateAndTime())
    out += DK_T('T');
  if (HasTime()) {
    dkdt::AppendInt(out, fields.hour, 2);
    out += DK_T(':');
    dkdt::AppendInt(out, fields.minute, 2);
    out += DK_T(':');
    dkdt::AppendInt(out, fields.second, 2);
    out += DK_T('.');
    dkdt::AppendInt(out, fields.millisecond, 3);
  }
  if (IsDateAndTime()) {
    if (used.IsUTC()) {
      out += DK_T('Z');
    } else {
      out += offset < 0 ? DK_T('-') : DK_T('+');
      const int magnitude = offset < 0 ? -offset : offset;
      dkdt::AppendInt(out, magnitude / 3600, 2);
      out += DK_T(':');
      dkdt::AppendInt(out, magnitude / 60 % 60, 2);
    }
  }
  return out;
}

DKErrorID DKDateTimeEx::FromISO8601(const DKString& text, const DKTimeZone& zone) {
  SetNull();
  if (text.IsEmpty())
    return DKErrorID();
  IsoFields f;
  if (!ReadIso(text, f))
    return dkdt::InvalidDate(text);
  if (f.hasDate && f.hasTime) {
    // A reading one year beyond either end may still be an instant in range.
    if (f.year < DKDateEx::minYear - 1 || f.year > DKDateEx::maxYear + 1)
      return dkdt::InvalidDate(text);
    dkcal::Moment moment;
    moment.date = {f.year, static_cast<int>(f.month), static_cast<int>(f.day)};
    moment.msOfDay = f.msOfDay;
    DKTimeZone fieldsZone = zone;
    if (f.zoneNamed) {
      moment = dkcal::Shift(moment, -f.offsetSeconds * 1000);
      fieldsZone = DKTimeZone::UTC;
    }
    int hour, minute, second, millisecond;
    dkcal::SplitTime(moment.msOfDay, hour, minute, second, millisecond);
    const DKDateAndTime fields(static_cast<std::int32_t>(moment.date.year), static_cast<std::uint32_t>(moment.date.month),
                               static_cast<std::uint32_t>(moment.date.day), static_cast<std::uint32_t>(hour),
                               static_cast<std::uint32_t>(minute), static_cast<std::uint32_t>(second),
                               static_cast<std::uint32_t>(millisecond), fieldsZone);
    if (!SetDateAndTime(fields)) {
      SetNull();
      return dkdt::InvalidDate(text);
    }
    return DKErrorID();
  }
  if (f.hasDate) {
    if (f.year < DKDateEx::minYear || f.year > DKDateEx::maxYear)
      return dkdt::InvalidDate(text);
    *this = FromParts(PackDate(f.year, f.month, f.day), DKTimeEx());
    return DKErrorID();
  }
  *this = FromParts(DKDateEx(), DKTimeEx::FromMilliseconds(static_cast<std::int32_t>(f.msOfDay)));
  return DKErrorID();
}
