// Fuzz target for the arithmetic and conversions of the date and time values, driven to the
// edges of their ranges (DKDateEx, DKTimeEx, DKDateTimeEx, DKDurationEx, DKDate, DKDateTime,
// DKTimeZone, and the FILETIME, Unix-time, automation-date, struct tm and SYSTEMTIME forms).
//
// Property: no operation has undefined behaviour, and each one either gives a valid value or
// throws the exception its header names, leaving its operand as it was:
//   - DKDateExceptionEx carries the bound left (minimum or maximum), DKDateException comes
//     only from the older classes, DKDurationExceptionEx only for a duration count out of
//     range (the count -2147483648 that only an exception's copy holds included);
//   - a null value or one that is not valid is never moved;
//   - where an inverse exists it undoes the step: a + d - d == a for days and weeks on a date,
//     clock units on a time or a date and time; b + (a - b) == a for an exact difference;
//     ++ then -- comes back; (a + d) - a is d for clock units on a date and time;
//   - a month or year step lands on the month counted independently, its day clamped;
//   - a date word or a millisecond count that is not a value writes the empty text, in every
//     form (text, buffer, stream), and nothing else does;
//   - conversions that succeed read back the same value (FILETIME to the millisecond, Unix
//     time, automation dates, packed words and counts through their text, struct tm and
//     SYSTEMTIME in UTC), and they succeed exactly where the value's range allows;
//   - a zone's offset lies within a day, and its conversions stay within a day of their
//     input or stop at the ends of the 64-bit range.
//
// Input: a sequence of steps. Each step is a byte choosing the operation, followed by the
// numbers it needs. A number starts with a byte that picks an edge value (the ends of the
// 32-bit and 64-bit ranges and of each value's range) or says that raw bytes follow.
// The local zone is Europe/Paris, so that daylight saving is in play.
#include "FuzzCheck.h"

#include <DorvikCore/DKDateTime.h>

#if defined(_WIN32)
#  include <oaidl.h> // the system's VARIANT, which the date conversions fill
#endif

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <sstream>

namespace {

using U = DKDurationEx::Unit;
constexpr std::int32_t i32min = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t i32max = std::numeric_limits<std::int32_t>::max();
constexpr std::int64_t i64min = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t i64max = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t msPerDay = 86400000;

class Input {
public:
  Input(const std::uint8_t* data, std::size_t size) noexcept : m_data(data), m_left(size) {}

  bool Empty() const noexcept { return m_left == 0; }

  std::uint8_t Byte() noexcept {
    if (m_left == 0)
      return 0;
    --m_left;
    return *m_data++;
  }

  std::uint64_t Raw(int bytes) noexcept {
    std::uint64_t value = 0;
    for (int i = 0; i < bytes; ++i)
      value |= std::uint64_t{Byte()} << (8 * i);
    return value;
  }

  std::int32_t Int32() noexcept {
    static const std::int32_t edges[] = {
        i32min, i32min + 1, -2147483647 + 1, -86400000, -1, 0, 1, 2, 7, 12, 13, 31, 32, 60, 1000, 3600000,
        86399999, 86400000, 2147483646, i32max, DKDateEx::minimum.AsInt(), DKDateEx::maximum.AsInt(),
        DKDateEx::minimum.AsInt() - 1, DKDateEx::maximum.AsInt() + 1, DKDateEx::minYear, DKDateEx::maxYear,
        DKDateEx::minYear - 1, DKDateEx::maxYear + 1, 1899, 1970, 2021, 9999, 65535, 65536, -693230, 2147397247,
        -2147397248, 24855, 2958465, -657434, 106751991, 8388607};
    const std::uint8_t pick = Byte();
    if (pick < sizeof edges / sizeof edges[0])
      return edges[pick];
    if (pick < 200)
      return static_cast<std::int32_t>(static_cast<std::int8_t>(Byte())); // small counts, both signs
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(Raw(4)));
  }

  std::int64_t Int64() noexcept {
    static constexpr std::int64_t edges[] = {
        i64min, i64min + 1, i64min + 86400, -(std::int64_t{1} << 62) - 1, -(std::int64_t{1} << 62), -(std::int64_t{1} << 50) - 1,
        -1, 0, 1, std::int64_t{1} << 50, (std::int64_t{1} << 62) + 1, i64max - 86400, i64max - 1, i64max,
        116444736000000000, 2650467743999999999, 132537600000000000, 1616893200, 1635642000, 67767976233532799,
        -67768040609740800, 132366000000000000};
    const std::uint8_t pick = Byte();
    if (pick < sizeof edges / sizeof edges[0])
      return edges[pick];
    if (pick < 160)
      return Int32();
    return static_cast<std::int64_t>(Raw(8));
  }

  double Double() noexcept {
    static constexpr double edges[] = {0.0, 0.5, -0.5, 1.0, -1.0, -1.25, 0.999999999, -657434.0, -657435.0, 2958465.99999,
                                       2958466.0, 43835.5, -0.99999999};
    const std::uint8_t pick = Byte();
    if (pick < sizeof edges / sizeof edges[0])
      return edges[pick];
    if (pick < 128)
      return Int32() / 86400.0 + Int32(); // whole days and a fraction
    const std::uint64_t bits = Raw(8);
    double value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
  }

private:
  const std::uint8_t* m_data;
  std::size_t m_left;
};

// The month's length by the library's documented rule (a negative year is tested unsigned).
int MonthLength(std::int64_t year, std::int64_t month) {
  static constexpr int lengths[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (month < 1 || month > 12)
    return 0;
  return lengths[month - 1] + (month == 2 && DKIsLeapYear(static_cast<unsigned>(year)) ? 1 : 0);
}

DKDurationEx NeverHeld(U unit) {
  try {
    (void)DKDurationEx(-2147483647L - 1, unit);
  } catch (const DKDurationExceptionEx& e) {
    FUZZ_CHECK(e.GetCount() == i32min);
    return e.GetDuration();
  }
  FUZZ_CHECK(!"the count -2147483648 was accepted");
  return DKDurationEx();
}

// A duration of any count; its unit is mostly one of the table's or Invalid, sometimes any
// number that SetUnit stores.
DKDurationEx MakeDuration(Input& in) {
  const std::uint8_t pick = in.Byte();
  const auto unit = static_cast<U>(pick % 9);
  const std::int32_t count = in.Int32();
  DKDurationEx d = count == i32min ? NeverHeld(unit) : DKDurationEx(static_cast<long>(count), unit);
  if (pick >= 252)
    d.SetUnit(static_cast<U>(in.Int32()));
  return d;
}

// A date: mostly a valid one, sometimes any word.
DKDateEx MakeDate(Input& in) {
  const std::uint8_t how = in.Byte();
  const std::int32_t n = in.Int32();
  DKDateEx date;
  if (how & 1) {
    date.FromInt(n);
    return date;
  }
  const std::int64_t span = std::int64_t{DKDateEx::maxYear} - DKDateEx::minYear + 1;
  const std::int64_t year = DKDateEx::minYear + ((std::int64_t{n} % span) + span) % span;
  const auto month = static_cast<std::uint32_t>(how / 2 % 12 + 1);
  const std::uint32_t day = in.Byte() % static_cast<std::uint32_t>(MonthLength(year, month)) + 1;
  FUZZ_CHECK(date.SetDate(static_cast<std::int32_t>(year), month, day));
  return date;
}

DKTimeEx MakeTime(Input& in) {
  const std::uint8_t how = in.Byte();
  const std::int32_t n = in.Int32();
  if (how & 1)
    return DKTimeEx::FromMilliseconds(n);
  if (how & 2)
    return DKTimeEx();
  return DKTimeEx::FromMilliseconds(static_cast<std::int32_t>(((std::int64_t{n} % msPerDay) + msPerDay) % msPerDay));
}

DKDateTimeEx MakeDateTime(Input& in) {
  const DKDateEx date = in.Byte() & 1 ? DKDateEx() : MakeDate(in);
  return DKDateTimeEx::FromParts(date, MakeTime(in));
}

bool IsBound(const DKDateTimeEx& value) {
  return value == DKDateTimeEx::minimum || value == DKDateTimeEx::maximum || value == DKDateTimeEx(DKDateEx::minimum) ||
         value == DKDateTimeEx(DKDateEx::maximum);
}

// Applies a step to a copy of start. True when it succeeded; on an exception the copy must
// be unchanged and the exception the documented one.
template <class T, class Step>
bool Apply(const T& start, T& value, const DKDurationEx* duration, Step step) {
  value = start;
  try {
    step(value);
    return true;
  } catch (const DKDateExceptionEx& e) {
    FUZZ_CHECK(IsBound(e.dateTime()));
  } catch (const DKDateException&) {
  } catch (const DKDurationExceptionEx& e) {
    FUZZ_CHECK(duration != nullptr && duration->GetDuration() == i32min);
    FUZZ_CHECK(e.GetDuration() == *duration);
  }
  FUZZ_CHECK(value == start);
  return false;
}

// start moved by d, forward when add is set, through Apply.
template <class T>
bool Move(const T& start, T& value, const DKDurationEx& d, bool add) {
  return Apply(start, value, &d, [&](T& v) {
    if (add)
      v += d;
    else
      v -= d;
  });
}

// A month or year step on a valid date, counted independently.
void CheckCalendarStep(const DKDateEx& from, const DKDurationEx& d, bool add, const DKDateEx& to) {
  const std::int64_t count = add ? std::int64_t{d.GetDuration()} : -std::int64_t{d.GetDuration()};
  std::int64_t year = from.GetYear();
  std::int64_t month = from.GetMonth();
  if (d.GetUnit() == U::Year) {
    year += count;
  } else {
    const std::int64_t months = year * 12 + (month - 1) + count;
    year = months >= 0 ? months / 12 : -((-months + 11) / 12);
    month = months - year * 12 + 1;
  }
  const std::int64_t length = MonthLength(year, month);
  const std::int64_t day = from.GetDay() < length ? from.GetDay() : length;
  FUZZ_CHECK(to.GetYear() == year && to.GetMonth() == month && to.GetDay() == day);
}

// The days a day or week duration moves a date.
std::int64_t DaysOf(const DKDurationEx& d, bool add) {
  const std::int64_t days = std::int64_t{d.GetDuration()} * (d.GetUnit() == U::Week ? 7 : 1);
  return add ? days : -days;
}

void DateStep(Input& in) {
  const DKDateEx start = MakeDate(in);
  const DKDurationEx d = MakeDuration(in);
  const bool add = in.Byte() & 1;
  DKDateEx value;
  const bool ok = Move(start, value, d, add);
  const bool moves = start.IsValid() && d.IsValid() && d.GetUnit() <= U::Day && d.GetDuration() != 0;
  if (!ok)
    return;
  if (!moves) {
    FUZZ_CHECK(value == start);
    return;
  }
  FUZZ_CHECK(value.IsValid());
  if (d.GetUnit() <= U::Month) {
    CheckCalendarStep(start, d, add, value);
    return;
  }
  DKDateEx back;
  FUZZ_CHECK(Move(value, back, d, !add));
  FUZZ_CHECK(back == start);
  const std::int64_t days = DaysOf(d, add);
  if (days >= -2147483647 && days <= i32max)
    FUZZ_CHECK(value - start == DKDurationEx(static_cast<long>(days), U::Day));
}

void DateDays(Input& in) {
  const DKDateEx start = MakeDate(in);
  const std::int64_t days = in.Int64();
  DKDateEx value;
  if (!Apply(start, value, nullptr, [&](DKDateEx& v) { v += static_cast<long>(days); }))
    return;
  if (!start.IsValid() || days == 0) {
    FUZZ_CHECK(value == start);
    return;
  }
  FUZZ_CHECK(value.IsValid());
  DKDateEx back;
  FUZZ_CHECK(Apply(value, back, nullptr, [&](DKDateEx& v) { v -= static_cast<long>(days); }));
  FUZZ_CHECK(back == start);
}

void TimeStep(Input& in) {
  const DKTimeEx start = MakeTime(in);
  const DKDurationEx d = MakeDuration(in);
  const bool add = in.Byte() & 1;
  DKTimeEx value;
  if (!Move(start, value, d, add))
    return;
  if (!start.IsValid() || !d.IsValid() || d.GetUnit() < U::Hour) {
    FUZZ_CHECK(value == start);
    return;
  }
  FUZZ_CHECK(value.IsValid());
  DKTimeEx back;
  FUZZ_CHECK(Move(value, back, d, !add));
  FUZZ_CHECK(back == start);
  const std::int64_t moved = (value - start).AsMilliSeconds();
  const std::int64_t expected = add ? d.AsMilliSeconds() : -d.AsMilliSeconds();
  FUZZ_CHECK(((moved - expected) % msPerDay + msPerDay) % msPerDay == 0);
}

void DateTimeStep(Input& in) {
  const DKDateTimeEx start = MakeDateTime(in);
  const DKDurationEx d = MakeDuration(in);
  const bool add = in.Byte() & 1;
  DKDateTimeEx value;
  if (!Move(start, value, d, add))
    return;
  const bool calendar = d.GetUnit() <= U::Day;
  if (!start.IsValid() || !d.IsValid() || d.GetDuration() == 0 || (calendar && !start.HasDate())) {
    FUZZ_CHECK(value == start);
    return;
  }
  FUZZ_CHECK(value.IsValid());
  if (calendar && !start.IsDateAndTime()) { // a date alone moves as DKDateEx does
    DKDateEx date = start.GetDate();
    FUZZ_CHECK(Move(start.GetDate(), date, d, add));
    FUZZ_CHECK(value.GetDate() == date && value.GetTime() == start.GetTime());
    return;
  }
  if (calendar)
    return; // moved in local wall-clock time: no exact inverse across daylight saving
  if (start.IsOnlyDate()) {
    FUZZ_CHECK(value.IsDateAndTime());
    return;
  }
  DKDateTimeEx back;
  FUZZ_CHECK(Move(value, back, d, !add));
  FUZZ_CHECK(back == start);
  if (start.IsDateAndTime()) {
    const std::int64_t expected = add ? d.AsMilliSeconds() : -d.AsMilliSeconds();
    FUZZ_CHECK((value - start).AsMilliSeconds() == expected);
    FUZZ_CHECK(expected > 0 ? start < value : value < start);
  }
}

void Steps(Input& in) {
  const DKDateTimeEx start = MakeDateTime(in);
  const bool up = in.Byte() & 1;
  DKDateTimeEx value, back;
  if (Apply(start, value, nullptr, [&](DKDateTimeEx& v) { up ? ++v : --v; }) && start.IsValid())
    FUZZ_CHECK(Apply(value, back, nullptr, [&](DKDateTimeEx& v) { up ? --v : ++v; }) && back == start);
  DKDateEx date, dateBack;
  if (Apply(start.GetDate(), date, nullptr, [&](DKDateEx& v) { up ? v++ : v--; }) && start.GetDate().IsValid())
    FUZZ_CHECK(Apply(date, dateBack, nullptr, [&](DKDateEx& v) { up ? --v : ++v; }) && dateBack == start.GetDate());
  DKTimeEx time = start.GetTime();
  up ? ++time : --time;
  FUZZ_CHECK(time.IsValid() == start.GetTime().IsValid());
  up ? --time : ++time;
  FUZZ_CHECK(time == start.GetTime());
}

void Differences(Input& in) {
  const DKDateTimeEx a = MakeDateTime(in), b = MakeDateTime(in);
  const DKDurationEx d = a - b;
  FUZZ_CHECK(d.IsValid() == (a.IsValid() && b.IsValid()));
  if (d.IsValid() && d.GetUnit() == U::Millisecond && a.HasDate() == b.HasDate() && a.HasTime() && b.HasTime()) {
    DKDateTimeEx sum;
    FUZZ_CHECK(Apply(b, sum, &d, [&](DKDateTimeEx& v) { v += d; }) && sum == a);
  }
  const DKDateEx da = a.GetDate(), db = b.GetDate();
  const DKDurationEx days = da - db;
  FUZZ_CHECK(days.IsValid() == (da.IsValid() && db.IsValid()));
  if (days.IsValid() && days.GetUnit() == U::Day) {
    DKDateEx sum;
    FUZZ_CHECK(Apply(db, sum, &days, [&](DKDateEx& v) { v += days; }) && sum == da);
  }
  const DKTimeEx ta = a.GetTime(), tb = b.GetTime();
  const DKDurationEx ms = ta - tb;
  FUZZ_CHECK(ms.IsValid() == (ta.IsValid() && tb.IsValid()));
  if (ms.IsValid())
    FUZZ_CHECK(tb + ms == ta);
}

void DurationOps(Input& in) {
  const DKDurationEx d = MakeDuration(in);
  const DKDurationEx e = MakeDuration(in);
  const std::int32_t factor = in.Int32();
  const auto inRange = [](std::int64_t n) { return n >= DKDurationEx::minimum_ && n <= DKDurationEx::maximum_; };
  const auto expectCount = [&](auto make, bool fits, std::int64_t count) {
    try {
      const DKDurationEx r = make();
      FUZZ_CHECK(fits && r.GetDuration() == count && r.GetUnit() == d.GetUnit());
    } catch (const DKDurationExceptionEx&) {
      FUZZ_CHECK(!fits);
    }
  };
  const std::int64_t product = std::int64_t{d.GetDuration()} * factor;
  expectCount([&] { return d * factor; }, inRange(product), product);
  const std::int64_t quotient = factor == 0 ? 0 : std::int64_t{d.GetDuration()} / factor;
  expectCount([&] { return d / factor; }, factor != 0 && inRange(quotient), quotient);
  expectCount([&] { return -d; }, d.GetDuration() != i32min, -std::int64_t{d.GetDuration()});

  for (const bool plus : {true, false}) {
    try {
      const DKDurationEx r = plus ? d + e : d - e;
      FUZZ_CHECK(r.GetDuration() != i32min);
      if (r.IsValid() && d.GetUnit() >= U::Week && e.GetUnit() >= U::Week && d.GetDuration() != i32min && e.GetDuration() != i32min)
        FUZZ_CHECK(r.AsMilliSeconds() == d.AsMilliSeconds() + (plus ? e.AsMilliSeconds() : -e.AsMilliSeconds()));
    } catch (const DKDurationExceptionEx&) {
    }
  }
  DKDurationEx c = d;
  const auto unit = static_cast<U>(in.Byte() % 9);
  try {
    if (c.ConvertTo(unit, in.Byte() & 1)) {
      FUZZ_CHECK(c.GetDuration() != i32min || d.GetDuration() == i32min);
      if (d.IsValid() && unit >= d.GetUnit() && unit < U::Invalid && d.GetUnit() >= U::Week && d.GetDuration() != i32min)
        FUZZ_CHECK(c.AsMilliSeconds() == d.AsMilliSeconds());
    } else {
      FUZZ_CHECK(c == d);
    }
  } catch (const DKDurationExceptionEx&) {
    FUZZ_CHECK(c == d);
  }
  DKDurationEx n = d;
  n.Normalize();
  FUZZ_CHECK(n.IsValid() == d.IsValid());
  if (d.IsValid())
    FUZZ_CHECK(n.IsEquivalent(d));
  try {
    const DKDuration seconds = d.AsDKDuration();
    FUZZ_CHECK(seconds == d.AsMilliSeconds() / 1000);
  } catch (const DKDurationExceptionEx&) {
    FUZZ_CHECK(!inRange(d.AsMilliSeconds() / 1000));
  }
  (void)d.AsElapsedString();
  if (d.IsValid() && d.GetDuration() != 0 && d.GetDuration() != i32min) {
    DKDurationEx back;
    FUZZ_CHECK(back.FromString(d.AsString(in.Byte() & 1), U::Invalid) && back == d);
  }
}

void FileTimes(Input& in) {
  const auto ticks = static_cast<std::uint64_t>(in.Int64());
  const dk::FILETIME ft{static_cast<std::uint32_t>(ticks), static_cast<std::uint32_t>(ticks >> 32)};
  DKDateTimeEx value;
  const bool ok = value.FromFileTime(ft);
  FUZZ_CHECK(ok == (ticks <= static_cast<std::uint64_t>(i64max)));
  if (ok) {
    dk::FILETIME back{};
    FUZZ_CHECK(value.IsDateAndTime() && value.AsFileTime(back));
    FUZZ_CHECK((std::uint64_t{back.dwHighDateTime} << 32 | back.dwLowDateTime) == ticks - ticks % 10000);
  }
  DKDateEx date;
  DKTimeEx time;
  FUZZ_CHECK(date.FromFileTime(ft) == ok && time.FromFileTime(ft) == ok);
  DKDate old;
  (void)old.FromFileTime(ft);
  DKDateTime oldTime;
  (void)oldTime.FromFileTime(ft);
}

void UnixTimes(Input& in) {
  const std::int64_t seconds = in.Int64();
  const std::int32_t ms = in.Int32();
  static const auto bound = [](const DKDateTimeEx& v) {
    DKInt64 s = 0;
    FUZZ_CHECK(v.AsUnixTime(s));
    return s;
  };
  static const std::int64_t lowest = bound(DKDateTimeEx::minimum), highest = bound(DKDateTimeEx::maximum);
  DKDateTimeEx value;
  const bool ok = value.FromUnixTime(seconds, ms);
  FUZZ_CHECK(ok == (ms >= 0 && ms <= 999 && seconds >= lowest && seconds <= highest));
  if (ok) {
    DKInt64 s = 0;
    std::int32_t m = -1;
    FUZZ_CHECK(value.AsUnixTime(s, &m) && s == seconds && m == ms);
  }
  if (seconds >= i32min && seconds <= i32max) {
    const DKDateTime old = DKDateTime::FromCount(static_cast<std::int32_t>(seconds));
    const bool inRange = old >= DKDateTime::minimum && old <= DKDateTime::maximum;
    DKDateTime back;
    FUZZ_CHECK(back.FromDKDateTimeEx(old.AsDKDateTimeEx()) == inRange && (back == old || !inRange));
  }
}

void Variants(Input& in) {
  const double v = in.Double();
  DKDateTimeEx value;
  if (value.FromVariant(v, DKTimeZone::UTC)) {
    FUZZ_CHECK(value.IsValid());
    dk::VARIANT out{};
    if (value.IsDateAndTime() && value.GetDate().GetYear() >= 1601) {
      DKDateTimeEx back;
      FUZZ_CHECK(value.AsVariant(out, DKTimeZone::UTC) && back.FromVariant(out, DKTimeZone::UTC));
      FUZZ_CHECK(back == value || (value.GetDate() == DKDateEx(1899, 12, 30) && back.GetTime() == value.GetTime()));
    }
  }
  DKDateEx date;
  if (date.FromVariant(v) && !date.IsNull()) {
    FUZZ_CHECK(date.IsValid());
    dk::VARIANT out{};
    DKDateEx back;
    if (date.GetYear() >= 1601) // 1899-12-30 is the value 0, which reads as no date
      FUZZ_CHECK(date.AsVariant(out) && back.FromVariant(out) && (back == date || date == DKDateEx(1899, 12, 30)));
  }
  DKTimeEx time;
  if (time.FromVariant(v)) {
    dk::VARIANT out{};
    DKTimeEx back;
    FUZZ_CHECK(time.IsValid() && time.AsVariant(out) && back.FromVariant(out) && back == time);
  }
  DKDate old;
  (void)old.FromVariant(v);
  DKDateTime oldTime;
  (void)oldTime.FromVariant(v, DKTimeZone::UTC);
}

void Zones(Input& in) {
  const std::int64_t x = in.Int64();
  for (const DKTimeZone zone : {DKTimeZone(), DKTimeZone(DKTimeZone::UTC)}) {
    const int offset = zone.GetOffset(x);
    FUZZ_CHECK(offset > -86400 && offset < 86400);
    std::int64_t expected = 0;
    if (__builtin_add_overflow(x, offset, &expected))
      expected = offset > 0 ? i64max : i64min;
    FUZZ_CHECK(zone.FromUTC(x) == expected);
    const std::int64_t utc = zone.ToUTC(x);
    std::int64_t distance = 0;
    if (__builtin_sub_overflow(utc, x, &distance))
      FUZZ_CHECK(false);
    if (utc == i64max || utc == i64min)
      FUZZ_CHECK(distance >= -86400 && distance <= 86400);
    else
      FUZZ_CHECK(distance >= -86400 && distance <= 86400 && zone.FromUTC(utc) - x >= 0 && zone.FromUTC(utc) - x <= 86400);
  }
}

void Words(Input& in) {
  const std::int32_t n = in.Int32();
  DKDateEx date;
  date.FromInt(n);
  const bool valid = n != 0 && date.GetYear() >= DKDateEx::minYear && date.GetDay() >= 1 &&
                     static_cast<int>(date.GetDay()) <= MonthLength(date.GetYear(), date.GetMonth());
  FUZZ_CHECK(date.IsValid() == valid);
  const DKString text = date.AsString(DK_T("%Y/%m/%d"));
  FUZZ_CHECK(text.IsEmpty() == !valid);
  if (valid) {
    DKDateEx back;
    FUZZ_CHECK(back.FromString(text, DK_T("%Y/%m/%d")).Good() && back == date);
  }
  const DKTimeEx time = DKTimeEx::FromMilliseconds(n);
  FUZZ_CHECK(time.IsValid() == (n >= 0 && n < msPerDay));
  const DKString clock = time.AsString(DK_T("%H:%M:%S.%L"));
  FUZZ_CHECK(clock.IsEmpty() == !time.IsValid());
  DKTimeEx back;
  if (time.IsValid())
    FUZZ_CHECK(back.FromString(clock, DK_T("%H:%M:%S.%L")).Good() && back == time);
  FUZZ_CHECK(back.FromInt(n) == (time.IsValid() || n == -1));
  DKChar buffer[32];
  FUZZ_CHECK(date.AsString(buffer, 32, nullptr).Good() && time.AsString(buffer, 32, nullptr).Good());
  FUZZ_CHECK((buffer[0] == 0) == !time.IsValid());
  std::ostringstream dateOut, timeOut; // a stream is written the default text, empty when there is none
  FUZZ_CHECK(static_cast<bool>(dateOut << date) && dateOut.str().empty() == !valid);
  FUZZ_CHECK(static_cast<bool>(timeOut << time) && timeOut.str().empty() == !time.IsValid());
  const DKDateTimeEx both = DKDateTimeEx::FromParts(date, time);
  FUZZ_CHECK(both.AsString(buffer, 32, nullptr).Good());
  FUZZ_CHECK(both.AsString().IsEmpty() != both.IsValid()); // every valid value has a default text
}

void OldValues(Input& in) {
  const DKDate date = DKDate::FromDays(in.Int32());
  const DKDurationEx d = MakeDuration(in);
  const bool add = in.Byte() & 1;
  DKDate moved;
  if (Move(date, moved, d, add) && !(moved == date))
    FUZZ_CHECK(moved.IsValid() && moved <= DKDate::maximum);
  const std::int64_t days = in.Int64();
  if (Apply(date, moved, nullptr, [&](DKDate& v) { v += static_cast<long>(days); }) && days != 0)
    FUZZ_CHECK(moved.IsValid() && moved.GetDays() - std::int64_t{date.GetDays()} == days);
  (void)(date - moved);
  (void)date.AsString();

  const DKDateTime time = DKDateTime::FromCount(in.Int32());
  DKDateTime later;
  if (Move(time, later, d, add) && !(later == time))
    FUZZ_CHECK(later >= DKDateTime::minimum && later <= DKDateTime::maximum);
  if (Apply(time, later, nullptr, [&](DKDateTime& v) { ++v; }))
    FUZZ_CHECK(later.GetTime_t() == time.GetTime_t() + 1);
  (void)(time - later);
  (void)time.AsString();
}

void Records(Input& in) {
  std::tm tm{};
  tm.tm_year = in.Int32();
  tm.tm_mon = in.Int32();
  tm.tm_mday = in.Int32();
  tm.tm_hour = in.Int32();
  tm.tm_min = in.Int32();
  tm.tm_sec = in.Int32();
  DKDateTimeEx value;
  if (value.FromStructTM(tm, DKTimeZone::UTC)) {
    std::tm back{};
    FUZZ_CHECK(value.IsDateAndTime() && value.AsStructTM(back, DKTimeZone::UTC));
    FUZZ_CHECK(back.tm_year == tm.tm_year && back.tm_mon == tm.tm_mon && back.tm_mday == tm.tm_mday &&
               back.tm_hour == tm.tm_hour && back.tm_min == tm.tm_min && back.tm_sec == tm.tm_sec);
  }
  (void)value.FromStructTM(tm);
  DKDateEx date;
  DKTimeEx time;
  (void)date.FromStructTM(tm);
  (void)time.FromStructTM(tm);

  dk::SYSTEMTIME st{};
  for (std::uint16_t* field : {&st.wYear, &st.wMonth, &st.wDay, &st.wHour, &st.wMinute, &st.wSecond, &st.wMilliseconds})
    *field = static_cast<std::uint16_t>(in.Int32());
  FUZZ_CHECK(value.FromSystemTime(st, DKTimeZone::UTC) == DKIsValidSystemTime(st));
  if (DKIsValidSystemTime(st)) {
    dk::SYSTEMTIME back{};
    FUZZ_CHECK(value.AsSystemTime(back, DKTimeZone::UTC));
    back.wDayOfWeek = st.wDayOfWeek;
    FUZZ_CHECK(std::memcmp(&back, &st, sizeof st) == 0);
  }
  dk::SYSTEMTIME shifted{};
  if (DKTimeZone().SystemTimeToZone(st, shifted))
    FUZZ_CHECK(DKIsValidSystemTime(shifted));
  if (DKTimeZone().ZoneToSystemTime(st, shifted))
    FUZZ_CHECK(DKIsValidSystemTime(shifted));
  (void)DKSystemTimeDifference(st, shifted);
  double variant = 0;
  if (DKSystemTimeToVariantTime(st, variant)) {
    dk::SYSTEMTIME back{};
    FUZZ_CHECK(DKVariantTimeToSystemTime(variant, back));
  }

  DKDateAndTime fields(in.Int32(), static_cast<std::uint32_t>(in.Int32()), static_cast<std::uint32_t>(in.Int32()),
                       static_cast<std::uint32_t>(in.Int32()), static_cast<std::uint32_t>(in.Int32()),
                       static_cast<std::uint32_t>(in.Int32()), static_cast<std::uint32_t>(in.Int32()), DKTimeZone::UTC);
  fields.flags = in.Byte() % 4;
  if (value.SetDateAndTime(fields)) {
    FUZZ_CHECK(value.IsValid() || value.IsNull());
    DKDateAndTime back;
    FUZZ_CHECK(value.GetDateAndTime(back, DKTimeZone::UTC) && back.flags == fields.flags);
    if (value.HasDate())
      FUZZ_CHECK(back.year == fields.year && back.month == fields.month && back.day == fields.day);
    if (value.HasTime())
      FUZZ_CHECK(back.hour == fields.hour && back.minute == fields.minute && back.second == fields.second &&
                 back.millisecond == fields.millisecond);
  }
  fields.zone = DKTimeZone();
  (void)value.SetDateAndTime(fields);
}

} // namespace

DK_FUZZ_LOCAL_ZONE("Europe/Paris")

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 4096)
    return 0;
  Input in(data, size);
  while (!in.Empty()) {
    switch (in.Byte() % 13) {
    case 0: DateStep(in); break;
    case 1: DateDays(in); break;
    case 2: TimeStep(in); break;
    case 3: DateTimeStep(in); break;
    case 4: Steps(in); break;
    case 5: Differences(in); break;
    case 6: DurationOps(in); break;
    case 7: FileTimes(in); break;
    case 8: UnixTimes(in); break;
    case 9: Variants(in); break;
    case 10: Zones(in); break;
    case 11: Words(in); break;
    default: OldValues(in); Records(in); break;
    }
  }
  return 0;
}
