// The "Ex" date and time values: DKDateEx (a packed calendar date), DKTimeEx (a time of day
// in milliseconds), DKDateTimeEx (both, held in UTC) and DKDateAndTime, the broken-down form
// they exchange.
//
// Text formats use "%" codes, the same for writing and reading:
//   %Y year in full   %y year mod 100   %m month   %d day   %H hour (00-23)   %M minute
//   %S second   %L millisecond   %W week of the year   %Z or %z offset from UTC ("Z" or "+02:00")
// Any other character after "%" stands for itself ("%%" is "%"); other characters are copied.
// Reading is lenient: fields are numbers separated by anything, a field that does not fit the
// format is left unset, "%y" below 70 means 20xx and from 70 19xx, and "SYSDATE" is now.
#pragma once

#include <DorvikCore/DKDurationEx.h>
#include <DorvikCore/DKError.h>
#include <DorvikCore/DKString.h>
#include <DorvikCore/DKSystemTime.h>
#include <DorvikCore/DKTimeZone.h>

#include <chrono>
#include <compare>
#include <cstdint>
#include <ctime>
#include <iosfwd>
#include <ratio>
#include <type_traits>
#include <utility>

class DKDateTime;

namespace dkdate_detail {
// The std::chrono units a value converts into: integral counts of a unit that divides a
// millisecond (milliseconds, microseconds, nanoseconds, ...).
template <class D>
concept DividesMillisecond = std::is_integral_v<typename D::rep> && sizeof(typename D::rep) <= 8 &&
                             std::ratio_divide<std::milli, typename D::period>::den == 1;
// The units a value is read from: also whole multiples of a millisecond (seconds, days, ...).
template <class D>
concept MillisecondMultipleOrPart = std::is_integral_v<typename D::rep> && sizeof(typename D::rep) <= 8 &&
                                    (std::ratio_divide<typename D::period, std::milli>::num == 1 ||
                                     std::ratio_divide<typename D::period, std::milli>::den == 1);
} // namespace dkdate_detail

// Calendar fields of one moment, and the zone they are expressed in. `flags` marks a part
// that is absent, so that a record filled field by field holds a date and a time.
struct DKDateAndTime {
  // The parts a record lacks.
  enum Flags : std::uint32_t {
    NoDate = 1, // The date fields mean nothing.
    NoTime = 2, // The time fields mean nothing.
  };
  // The flags of a record that holds those parts.
  static constexpr std::uint32_t FlagsFor(bool hasDate, bool hasTime) noexcept {
    return (hasDate ? 0u : std::uint32_t{NoDate}) | (hasTime ? 0u : std::uint32_t{NoTime});
  }

  // Every field 0, no flag, the local zone.
  DKDateAndTime() = default;
  // A date and a time in a zone.
  DKDateAndTime(std::int32_t y, std::uint32_t mo, std::uint32_t d, std::uint32_t h = 0, std::uint32_t mi = 0, std::uint32_t s = 0,
                std::uint32_t ms = 0, const DKTimeZone& z = DKTimeZone::Local) noexcept
      : year(y), month(mo), day(d), hour(h), minute(mi), second(s), millisecond(ms), zone(z) {}

  std::int32_t year = 0;          // The year, signed.
  std::uint32_t month = 0;        // 1..12.
  std::uint32_t day = 0;          // 1..31.
  std::uint32_t hour = 0;         // 0..23.
  std::uint32_t minute = 0;       // 0..59.
  std::uint32_t second = 0;       // 0..59.
  std::uint32_t millisecond = 0;  // 0..999.
  std::uint32_t flags = 0;        // Flags: the parts that are absent.
  DKTimeZone zone;                // The zone the wall-clock fields are in.
};

// A calendar date packed in one signed 32-bit word: day in bits 0-4, month in bits 5-8, the
// signed year in bits 9-31. Valid words order as dates when compared as integers. The word 0
// is the null date.
class DK_EXPORT DKDateEx {
public:
  static constexpr std::int32_t minYear = -4194303; // The first year a date may have.
  static constexpr std::int32_t maxYear = 4194303;  // The last year a date may have.
  static const DKDateEx null;    // The null date (the word 0).
  static const DKDateEx minimum; // -4194303-01-01
  static const DKDateEx maximum; // 4194303-12-31
  // The format AsString writes when given none.
  static constexpr const DKChar* defaultFormat = DK_T("%Y/%m/%d");

  // The null date.
  constexpr DKDateEx() noexcept : m_date(0) {}
  // The constructors from parts, text and records throw DKDateExceptionEx when the source is
  // not a valid date; the From... setters report that by returning false instead.
  DKDateEx(std::int32_t year, std::uint32_t month, std::uint32_t day);
  // Text as FromString reads it, throwing instead of returning message 9.
  explicit DKDateEx(const DKString& text, const DKString& format = DKString());
  // The date of a record, as the From setters below read it.
  explicit DKDateEx(const dk::SYSTEMTIME& time);
  explicit DKDateEx(const std::tm& time);
  // An instant: its date in the zone.
  explicit DKDateEx(const dk::FILETIME& time, const DKTimeZone& zone = DKTimeZone::Local);
  // VT_NULL and VT_EMPTY give the null date; VT_DATE and VT_R8 hold an automation date.
  explicit DKDateEx(const dk::VARIANT& value);
  explicit DKDateEx(double variantDate);
  // An instant's date in the zone; the date of broken-down fields.
  explicit DKDateEx(const DKDateTime& time, const DKTimeZone& zone = DKTimeZone::Local);
  explicit DKDateEx(const DKDateAndTime& fields);

  // The word of the parts, packed as they are (not checked: see SetDate and IsValid).
  static constexpr DKDateEx Pack(std::int32_t year, std::uint32_t month, std::uint32_t day) noexcept {
    return DKDateEx(RawTag(), static_cast<std::int32_t>(static_cast<std::uint32_t>(year) << 9 | (month & 15u) << 5 | (day & 31u)));
  }

  // The word as it is, valid or not.
  constexpr std::int32_t AsInt() const noexcept { return m_date; }
  void FromInt(std::int32_t word) noexcept { m_date = word; }

  // The parts of the word: the year, the month (1-12) and the day (1-31) of a valid date.
  constexpr std::int32_t GetYear() const noexcept { return m_date >> 9; }
  constexpr std::uint32_t GetMonth() const noexcept { return static_cast<std::uint32_t>(m_date >> 5) & 15u; }
  constexpr std::uint32_t GetDay() const noexcept { return static_cast<std::uint32_t>(m_date) & 31u; }
  // False (date unchanged) when the parts are not a valid date in minYear..maxYear.
  bool SetDate(std::int32_t year, std::uint32_t month, std::uint32_t day) noexcept;

  // True for the null date.
  constexpr bool IsNull() const noexcept { return m_date == 0; }
  // Makes the date null.
  void SetNull() noexcept { m_date = 0; }
  // True for a real date in minYear..maxYear (the null date is not valid).
  bool IsValid() const noexcept;

  // The number of days in a month of a year (leap years as DKIsLeapYear says).
  static int GetDaysInMonth(int year, unsigned month) noexcept;
  // 0 (Sunday) to 6 (Saturday); 0 for the null date and for every date before 1970.
  int GetWeekDay() const noexcept;
  // 1-based day of the year; 0 when not valid.
  int GetYearDay() const noexcept;
  // The number of Mondays from 1 January up to and including the date; 0 when not valid.
  int GetYearWeek() const noexcept;

  // Reads the date part of the text (a time in it is ignored); message 9 and the null date
  // for unreadable text. An empty format reads "%Y/%m/%d %H:%M:%S.%L", which also takes a
  // date alone. "SYSDATE" is today; blank text gives the null date.
  DKErrorID FromString(const DKString& text, const DKString& format = DKString());
  // Setters from records: the record's date (an instant's date in the zone); a VT_NULL or
  // VT_EMPTY variant gives the null date. False when the source is not a valid date in range.
  bool FromSystemTime(const dk::SYSTEMTIME& time) noexcept;
  bool FromStructTM(const std::tm& time) noexcept;
  bool FromFileTime(const dk::FILETIME& time, const DKTimeZone& zone = DKTimeZone::Local) noexcept;
  bool FromVariant(const dk::VARIANT& value) noexcept;
  // The date is set to null first; a value in (-1, 1) leaves it null and succeeds.
  bool FromVariant(double value) noexcept;
  // The date of an instant in the zone; false, the date unchanged, outside minYear..maxYear.
  bool FromDKDateTime(const DKDateTime& time, const DKTimeZone& zone = DKTimeZone::Local) noexcept;
  // The date of broken-down fields (a record marked NoDate gives the null date); false, the date
  // unchanged, when they are not a valid date.
  bool SetDateAndTime(const DKDateAndTime& fields) noexcept;
  // The date fields (flagged NoTime; NoDate too for the null date).
  void GetDateAndTime(DKDateAndTime& fields) const noexcept;

  // The As... getters fail for a date that is not valid (AsVariant accepts the null date) or
  // that the record cannot hold (a SYSTEMTIME: the years 0..65535); the record is then unchanged.
  // The records get midnight.
  bool AsSystemTime(dk::SYSTEMTIME& time) const noexcept;
  bool AsStructTM(std::tm& time) const noexcept;
  // Midnight at the start of the date in the zone.
  bool AsFileTime(dk::FILETIME& time, const DKTimeZone& zone = DKTimeZone::Local) const noexcept;
  // The null date gives VT_NULL; otherwise VT_DATE, for years 1601..9999 only.
  bool AsVariant(dk::VARIANT& value) const noexcept;

  // Writes at most size - 1 characters and a terminator (see DKDateTimeEx::AsString). Never
  // fails: the null date and a word that is not a valid date give the empty text.
  DKErrorID AsString(DKChar* buffer, unsigned size, const DKChar* format) const;
  // The date in the format (empty: defaultFormat); the empty text for the null date or a word
  // that is not a valid date.
  DKString AsString(const DKString& format = DKString()) const;

  // std::chrono's day count since 1970-01-01. From year 0 on both use the same (proleptic
  // Gregorian) calendar, so std::chrono::year_month_day of the count names the same date.
  // Before year 0 the leap years follow DKIsLeapYear, which std::chrono does not know: the
  // count still runs on day by day, so differences and order agree, but the label chrono gives
  // a day may differ. AsSysDays fails for a date that is not valid, FromSysDays (date
  // unchanged) for a day outside minimum..maximum.
  [[nodiscard]] bool AsSysDays(std::chrono::sys_days& days) const noexcept;
  bool FromSysDays(std::chrono::sys_days days) noexcept;

  // Today in the local zone, or in UTC.
  static DKDateEx GetCurrentDate(bool local = true);

  // Dates compare by their words: valid dates in calendar order (the null date, the word 0,
  // falls between the years -1 and 0).
  friend constexpr bool operator==(DKDateEx a, DKDateEx b) noexcept { return a.m_date == b.m_date; }
  friend constexpr auto operator<=>(DKDateEx a, DKDateEx b) noexcept { return a.m_date <=> b.m_date; }

  // One day on or back. Leaving minimum..maximum throws DKDateExceptionEx; a date that is not
  // valid does not move.
  DKDateEx& operator++();
  DKDateEx operator++(int);
  DKDateEx& operator--();
  DKDateEx operator--(int);
  // Years, months, weeks and days move the date (the day is clamped to the month's length
  // after a year or month step); clock units leave it unchanged. A duration holding
  // -2147483648 (see DKDurationEx) throws DKDurationExceptionEx.
  DKDateEx& operator+=(const DKDurationEx& duration);
  DKDateEx& operator-=(const DKDurationEx& duration);
  // Moves by whole days; leaving minimum..maximum throws DKDateExceptionEx, a date that is not
  // valid does not move.
  DKDateEx& operator+=(long days);
  DKDateEx& operator-=(long days);

protected:
  // The work of += and -= with a duration (add false: -=).
  void AddOrSubstract(const DKDurationEx& duration, bool add);

private:
  struct RawTag {};
  constexpr DKDateEx(RawTag, std::int32_t word) noexcept : m_date(word) {}

  std::int32_t m_date;
};

// The date moved by a duration or by days, as += and -= move it.
[[nodiscard]] DK_EXPORT DKDateEx operator+(const DKDateEx& date, const DKDurationEx& duration);
[[nodiscard]] DK_EXPORT DKDateEx operator-(const DKDateEx& date, const DKDurationEx& duration);
[[nodiscard]] DK_EXPORT DKDateEx operator+(const DKDateEx& date, long days);
[[nodiscard]] DK_EXPORT DKDateEx operator-(const DKDateEx& date, long days);
// The number of days from b to a (in weeks when the days do not fit the count); invalid_
// when either date is not valid.
[[nodiscard]] DK_EXPORT DKDurationEx operator-(const DKDateEx& a, const DKDateEx& b);

// A time of day: milliseconds since midnight, 0..86399999, or -1 when not set.
class DK_EXPORT DKTimeEx {
public:
  static constexpr std::int32_t NULL_TIME = -1; // The count of the null time.
  static const DKTimeEx null;                   // The null time.
  static const DKTimeEx minimum; // 00:00:00.000
  static const DKTimeEx maximum; // 23:59:59.999
  static constexpr std::int32_t msPerDay = 86400000; // Milliseconds in a day.

  // The null time.
  constexpr DKTimeEx() noexcept : m_time(NULL_TIME) {}
  // The constructors throw DKDateExceptionEx when the source is not a valid time. They read
  // text as FromString does and records, instants and fields as the setters below do.
  DKTimeEx(std::uint32_t hour, std::uint32_t minute, std::uint32_t second = 0, std::uint32_t millisecond = 0);
  explicit DKTimeEx(const DKString& text, const DKString& format = DKString());
  explicit DKTimeEx(const dk::SYSTEMTIME& time);
  explicit DKTimeEx(const std::tm& time);
  explicit DKTimeEx(const dk::FILETIME& time, const DKTimeZone& zone = DKTimeZone::Local);
  explicit DKTimeEx(const dk::VARIANT& value);
  explicit DKTimeEx(double variantDate);
  explicit DKTimeEx(const DKDateTime& time, const DKTimeZone& zone = DKTimeZone::Local);
  explicit DKTimeEx(const DKDateAndTime& fields);

  // The time ms milliseconds after midnight, taken as it is (not checked: see IsValid).
  static constexpr DKTimeEx FromMilliseconds(std::int32_t ms) noexcept { return DKTimeEx(RawTag(), ms); }

  // The count: milliseconds since midnight, -1 for the null time (as unsigned: 0xFFFFFFFF).
  constexpr std::int32_t AsMilliseconds() const noexcept { return m_time; }
  // Whole seconds since midnight; -1 for the null time.
  constexpr std::int32_t AsSeconds() const noexcept { return m_time < 0 ? m_time : m_time / 1000; }
  // The count, as AsMilliseconds.
  constexpr std::int32_t AsInt() const noexcept { return m_time; }
  constexpr std::uint32_t AsUInt() const noexcept { return static_cast<std::uint32_t>(m_time); }
  // False (time unchanged) unless -1 or 0..86399999.
  bool FromInt(std::int32_t ms) noexcept;

  // False (time unchanged) when a part is out of range.
  bool SetTime(std::uint32_t hour, std::uint32_t minute, std::uint32_t second = 0, std::uint32_t millisecond = 0) noexcept;
  // The parts of the time; 0 for the null time.
  std::uint32_t GetHour() const noexcept { return m_time < 0 ? 0 : static_cast<std::uint32_t>(m_time / 3600000); }
  std::uint32_t GetMinute() const noexcept { return m_time < 0 ? 0 : static_cast<std::uint32_t>(m_time / 60000 % 60); }
  std::uint32_t GetSecond() const noexcept { return m_time < 0 ? 0 : static_cast<std::uint32_t>(m_time / 1000 % 60); }
  std::uint32_t GetMillisecond() const noexcept { return m_time < 0 ? 0 : static_cast<std::uint32_t>(m_time % 1000); }

  // True for the null time.
  constexpr bool IsNull() const noexcept { return m_time == NULL_TIME; }
  // Makes the time null.
  void SetNull() noexcept { m_time = NULL_TIME; }
  // True for a time of day, 0..86399999 (the null time is not valid).
  constexpr bool IsValid() const noexcept { return m_time >= 0 && m_time < msPerDay; }

  // Reads the time part of the text (a date in it is ignored); message 9 and the null time
  // for unreadable text. An empty format reads "%Y/%m/%d %H:%M:%S.%L", which also takes a
  // time alone, with or without milliseconds. "SYSDATE" is the current local time; blank text
  // gives the null time.
  DKErrorID FromString(const DKString& text, const DKString& format = DKString());
  // Setters from records: the record's time of day (an instant's in the zone; a tm has no
  // milliseconds); a VT_NULL or VT_EMPTY variant gives the null time. False when the source
  // is not a valid time.
  bool FromSystemTime(const dk::SYSTEMTIME& time) noexcept;
  bool FromStructTM(const std::tm& time) noexcept;
  bool FromFileTime(const dk::FILETIME& time, const DKTimeZone& zone = DKTimeZone::Local) noexcept;
  bool FromVariant(const dk::VARIANT& value) noexcept;
  // The time of day of an automation date (its date is dropped).
  bool FromVariant(double value) noexcept;
  // The time of day of an instant in the zone.
  bool FromDKDateTime(const DKDateTime& time, const DKTimeZone& zone = DKTimeZone::Local) noexcept;
  // The time of broken-down fields (a record marked NoTime gives the null time); false, the
  // time unchanged, when they are not a valid time.
  bool SetDateAndTime(const DKDateAndTime& fields) noexcept;
  // The time fields (flagged NoDate; NoTime too for the null time).
  void GetDateAndTime(DKDateAndTime& fields) const noexcept;

  // The As... getters fail for the null time (AsVariant gives VT_NULL for it). The records get
  // the date 1899-12-30 (automation) or 1601-01-01 (FILETIME, in UTC) or 1900-01-01 (tm).
  bool AsSystemTime(dk::SYSTEMTIME& time) const noexcept;
  bool AsStructTM(std::tm& time) const noexcept;
  bool AsFileTime(dk::FILETIME& time) const noexcept;
  bool AsVariant(dk::VARIANT& value) const noexcept;

  // As DKDateEx::AsString: the null time and a count outside the day give the empty text.
  DKErrorID AsString(DKChar* buffer, unsigned size, const DKChar* format) const;
  // The default form is "%H:%M:%S", with ".%L" when the milliseconds are not 0.
  DKString AsString(const DKString& format = DKString()) const;

  // The current time of day in the local zone, or in UTC.
  static DKTimeEx GetTheCurrentTime(bool local = true);

  // Times compare by their counts: the null time before every time of day.
  friend constexpr bool operator==(DKTimeEx a, DKTimeEx b) noexcept { return a.m_time == b.m_time; }
  friend constexpr auto operator<=>(DKTimeEx a, DKTimeEx b) noexcept { return a.m_time <=> b.m_time; }

  // One millisecond on or back, wrapping around midnight; the null time does not move.
  DKTimeEx& operator++();
  DKTimeEx operator++(int);
  DKTimeEx& operator--();
  DKTimeEx operator--(int);
  // Hours, minutes, seconds and milliseconds, wrapping around midnight; calendar units and
  // the null time are left alone. A duration holding -2147483648 throws DKDurationExceptionEx.
  DKTimeEx& operator+=(const DKDurationEx& duration);
  DKTimeEx& operator-=(const DKDurationEx& duration);

protected:
  friend class DKDateTimeEx;
  // The work of += and -= (add false: -=).
  void AddOrSubstract(const DKDurationEx& duration, bool add);
  // Moves the time by count units (added or taken away), keeping it within the day; returns
  // the days carried over (negative backwards). The time must not be null.
  DKInt64 AddOrSubstractAux(std::int32_t count, DKDurationEx::Unit unit, bool add) noexcept;

private:
  struct RawTag {};
  constexpr DKTimeEx(RawTag, std::int32_t ms) noexcept : m_time(ms) {}

  std::int32_t m_time;
};

// The time moved by a duration, as += and -= move it.
[[nodiscard]] DK_EXPORT DKTimeEx operator+(const DKTimeEx& time, const DKDurationEx& duration);
[[nodiscard]] DK_EXPORT DKTimeEx operator-(const DKTimeEx& time, const DKDurationEx& duration);
// Milliseconds from b to a; invalid_ when either is null.
[[nodiscard]] DK_EXPORT DKDurationEx operator-(const DKTimeEx& a, const DKTimeEx& b);

// A date and a time of day, either of which may be absent, held in UTC. Wall-clock fields are
// read and written in a DKTimeZone (zone 0, the local zone, by default) when both parts are
// set; a date alone or a time alone is never shifted between zones.
class DK_EXPORT DKDateTimeEx {
public:
  static const DKDateTimeEx null; // Neither a date nor a time.
  static const DKDateTimeEx minimum; // -4194303-01-01 00:00:00.000
  static const DKDateTimeEx maximum; // 4194303-12-31 23:59:59.999

  // The null value.
  constexpr DKDateTimeEx() noexcept : m_time(), m_date() {}
  // The constructors throw DKDateExceptionEx when the source is not a valid value (or falls
  // outside minimum..maximum once converted to UTC).
  DKDateTimeEx(std::int32_t year, std::uint32_t month, std::uint32_t day, std::uint32_t hour = 0, std::uint32_t minute = 0,
               std::uint32_t second = 0, std::uint32_t millisecond = 0, const DKTimeZone& zone = DKTimeZone::Local);
  // The date and time read in the zone; either may be null. The one-part forms make a date
  // alone or a time alone.
  DKDateTimeEx(const DKDateEx& date, const DKTimeEx& time, const DKTimeZone& zone = DKTimeZone::Local);
  explicit DKDateTimeEx(const DKDateEx& date) : DKDateTimeEx(date, DKTimeEx()) {}
  explicit DKDateTimeEx(const DKTimeEx& time) : DKDateTimeEx(DKDateEx(), time) {}
  // Text as FromString reads it (throwing instead of returning message 9), records and instants
  // as the From setters below read them, broken-down fields as SetDateAndTime reads them.
  explicit DKDateTimeEx(const DKString& text, const DKString& format = DKString(), const DKTimeZone& zone = DKTimeZone::Local);
  explicit DKDateTimeEx(const dk::SYSTEMTIME& time, const DKTimeZone& zone = DKTimeZone::Local);
  explicit DKDateTimeEx(const std::tm& time, const DKTimeZone& zone = DKTimeZone::Local);
  explicit DKDateTimeEx(const dk::FILETIME& time);
  explicit DKDateTimeEx(const dk::VARIANT& value, const DKTimeZone& zone = DKTimeZone::Local);
  explicit DKDateTimeEx(double variantDate, const DKTimeZone& zone = DKTimeZone::Local);
  explicit DKDateTimeEx(const DKDateTime& time);
  explicit DKDateTimeEx(const DKDateAndTime& fields);

  // The value of the parts as held (the date in UTC when both are set), taken as they are.
  static constexpr DKDateTimeEx FromParts(DKDateEx date, DKTimeEx time) noexcept { return DKDateTimeEx(RawTag(), date, time); }

  // The date word in the upper half, the time (as unsigned) in the lower: the order of values.
  constexpr DKInt64 AsInt64() const noexcept {
    return static_cast<DKInt64>(static_cast<DKUInt64>(static_cast<std::uint32_t>(m_date.AsInt())) << 32 |
                                static_cast<std::uint32_t>(m_time.AsInt()));
  }

  // The parts as held (UTC when both are set): read, and replace as they are (no zone shift).
  constexpr DKDateEx GetDate() const noexcept { return m_date; }
  constexpr DKTimeEx GetTime() const noexcept { return m_time; }
  void SetDate(const DKDateEx& date) noexcept { m_date = date; }
  void SetTime(const DKTimeEx& time) noexcept { m_time = time; }

  // Which parts are set: a date, a time, both, the date alone, the time alone, neither.
  constexpr bool HasDate() const noexcept { return !m_date.IsNull(); }
  constexpr bool HasTime() const noexcept { return m_time.AsInt() >= 0; }
  constexpr bool IsDateAndTime() const noexcept { return HasDate() && HasTime(); }
  constexpr bool IsOnlyDate() const noexcept { return HasDate() && !HasTime(); }
  constexpr bool IsOnlyTime() const noexcept { return !HasDate() && HasTime(); }
  constexpr bool IsNull() const noexcept { return !HasDate() && m_time.IsNull(); }
  // Not null, any date valid, the time -1 (absent) or within the day.
  bool IsValid() const noexcept;
  // Drops the date, the time, or both.
  void SetDateNull() noexcept { m_date.SetNull(); }
  void SetTimeNull() noexcept { m_time.SetNull(); }
  void SetNull() noexcept { *this = DKDateTimeEx(); }

  // The fields in the zone (no shift unless both parts are set). False for a value that is
  // not valid (the null value gives empty fields and true).
  bool GetDateAndTime(DKDateAndTime& fields, const DKTimeZone& zone = DKTimeZone::Local) const noexcept;
  // Reads the parts that fields.flags does not mark absent, in fields.zone. False (value
  // unchanged) when a field is out of range or the moment falls outside minimum..maximum.
  bool SetDateAndTime(const DKDateAndTime& fields) noexcept;

  // Text. AsString writes into buffer: it stops once size - 5 characters are written or a
  // code would not fit, and always terminates the text (nothing at all for size 0). A null
  // format means the default format. It never fails: a null value or a date that is not
  // valid gives the empty text.
  DKErrorID AsString(DKChar* buffer, unsigned size, const DKChar* format, const DKTimeZone& zone = DKTimeZone::Local) const;
  // An empty format means the default format, with milliseconds when they are not 0.
  DKString AsString(const DKString& format = DKString(), const DKTimeZone& zone = DKTimeZone::Local) const;
  // Unreadable text gives the library's message 9 ("Invalid date: <text>") and the null value.
  // An empty format reads "%Y/%m/%d %H:%M:%S.%L", which also takes a date alone or a time alone.
  DKErrorID FromString(const DKString& text, const DKString& format = DKString(), const DKTimeZone& zone = DKTimeZone::Local);
  // The format for the parts this value holds.
  const DKString& GetDefaultFormat(bool full = false, bool withMilliseconds = false) const;

  // ISO 8601 text, within the profile of RFC 3339 where a value has both parts.
  // Writing: a value with both parts gives its wall-clock reading in `zone`, always with
  // milliseconds, then "Z" for the UTC zone or the zone's offset at that instant ("+02:00";
  // "+00:00" for another zone that is at UTC then): "2021-03-28T01:30:00.007Z",
  // "2021-03-28T03:30:00.007+02:00". An offset that is not a whole number of minutes (the
  // local mean time of old dates) has no ISO form, so such an instant is written in UTC. A date
  // alone gives "2021-03-28" and a time alone "01:30:00.007", neither shifted. A year outside
  // 0..9999 carries its sign and at least four digits ("-0044-03-15", "+12021-01-01"). The
  // null value and a value that is not valid give the empty text.
  [[nodiscard]] DKString AsISO8601(const DKTimeZone& zone = DKTimeZone::UTC) const;
  // Reading takes the extended forms, the text and nothing else:
  //   date       YYYY-MM-DD, or a signed year of 4 to 9 digits (+12021-01-01, -0044-03-15);
  //   time       hh:mm, hh:mm:ss or hh:mm:ss followed by "." or "," and any number of digits,
  //              of which those past the millisecond are dropped (towards the earlier instant);
  //   date-time  a date, "T", "t" or one space, a time, then optionally "Z", "z", +hh:mm,
  //              +hhmm or +hh (or with "-"). Without them the reading is wall-clock time in
  //              `zone`, and a reading that occurs twice or not at all is placed as
  //              DKTimeZone::ToUTC says.
  // A date alone or a time alone takes no zone. The empty text reads as the null value.
  // Anything else (a field out of range such as 2021-02-29, 24:00, 23:59:60 or an offset of
  // 24 hours, any other character, blanks around the text, an instant outside
  // minimum..maximum) gives the library's message 9 with the text, and the null value.
  DKErrorID FromISO8601(const DKString& text, const DKTimeZone& zone = DKTimeZone::Local);

  // Setters from records: wall-clock records are read in the zone (a tm without its
  // milliseconds), a FILETIME is UTC; a VT_NULL or VT_EMPTY variant gives the null value. False,
  // the value unchanged, when the source is not valid or falls outside minimum..maximum.
  bool FromSystemTime(const dk::SYSTEMTIME& time, const DKTimeZone& zone = DKTimeZone::Local) noexcept;
  bool FromStructTM(const std::tm& time, const DKTimeZone& zone = DKTimeZone::Local) noexcept;
  bool FromFileTime(const dk::FILETIME& time) noexcept;
  bool FromVariant(const dk::VARIANT& value, const DKTimeZone& zone = DKTimeZone::Local) noexcept;
  // An automation date is a wall-clock reading in the zone; a value in (-1, 1) gives a
  // time-only value.
  bool FromVariant(double value, const DKTimeZone& zone = DKTimeZone::Local) noexcept;
  // The instant of a DKDateTime (both parts set).
  bool FromDKDateTime(const DKDateTime& time) noexcept;

  // The As... getters need both parts (AsVariant also takes the null value, as VT_NULL, and
  // a date alone or a time alone).
  bool AsSystemTime(dk::SYSTEMTIME& time, const DKTimeZone& zone = DKTimeZone::Local) const noexcept;
  bool AsStructTM(std::tm& time, const DKTimeZone& zone = DKTimeZone::Local) const noexcept;
  bool AsFileTime(dk::FILETIME& time) const noexcept;
  bool AsVariant(dk::VARIANT& value, const DKTimeZone& zone = DKTimeZone::Local) const noexcept;
  // Whole seconds and milliseconds since 1970-01-01 UTC (seconds rounded down, milliseconds
  // 0..999): read, or set (making both parts). AsUnixTime is false unless both parts are set;
  // FromUnixTime is false, the value unchanged, for milliseconds outside 0..999 or an instant
  // outside minimum..maximum.
  bool AsUnixTime(DKInt64& seconds, std::int32_t* milliseconds = nullptr) const noexcept;
  bool FromUnixTime(DKInt64 seconds, std::int32_t milliseconds = 0) noexcept;

  // std::chrono. A value with both parts is an instant on the system clock's time line:
  // AsTimePoint writes it into any std::chrono::sys_time whose unit divides a millisecond
  // (system_clock::time_point, sys_time<milliseconds>, ...), and fails unless both parts are
  // set or when the count does not fit the time point's type (system_clock::time_point holds
  // nanoseconds: about the years 1678 to 2261). FromTimePoint takes any integral sys_time,
  // dropping what lies below the millisecond (towards the earlier instant, as
  // std::chrono::floor does); it fails (value unchanged) outside minimum..maximum. Day counts
  // are those of DKDateEx::AsSysDays.
  template <dkdate_detail::DividesMillisecond Duration>
  [[nodiscard]] bool AsTimePoint(std::chrono::sys_time<Duration>& time) const noexcept;
  template <dkdate_detail::MillisecondMultipleOrPart Duration>
  bool FromTimePoint(std::chrono::sys_time<Duration> time) noexcept;
  // The date as a day: a date alone, or the (UTC) date of a value with both parts. FromSysDays
  // makes a date alone; it fails (value unchanged) outside minimum..maximum.
  [[nodiscard]] bool AsSysDays(std::chrono::sys_days& days) const noexcept;
  bool FromSysDays(std::chrono::sys_days days) noexcept;

  // Now, to the millisecond (both parts).
  static DKDateTimeEx GetCurrentDateTime();
  // Today's date alone, or the time of day alone, in the local zone or in UTC.
  static DKDateTimeEx GetCurrentDate(bool local = true);
  static DKDateTimeEx GetTheCurrentTime(bool local = true);

  // Values compare as AsInt64: by the date, then by the time.
  friend constexpr bool operator==(const DKDateTimeEx& a, const DKDateTimeEx& b) noexcept {
    return a.AsInt64() == b.AsInt64();
  }
  friend constexpr auto operator<=>(const DKDateTimeEx& a, const DKDateTimeEx& b) noexcept {
    return a.AsInt64() <=> b.AsInt64();
  }

  // One millisecond on or back (one day for a date alone). Leaving minimum..maximum throws
  // DKDateExceptionEx.
  DKDateTimeEx& operator++();
  DKDateTimeEx operator++(int);
  DKDateTimeEx& operator--();
  DKDateTimeEx operator--(int);
  // Calendar units (year, month, week, day) move the local wall-clock reading, so that adding
  // days keeps the clock reading across a change of daylight saving; clock units move the
  // instant. Leaving minimum..maximum throws DKDateExceptionEx; a duration holding
  // -2147483648 throws DKDurationExceptionEx.
  DKDateTimeEx& operator+=(const DKDurationEx& duration);
  DKDateTimeEx& operator-=(const DKDurationEx& duration);

protected:
  // The work of += and -= (add false: -=).
  void AddOrSubstract(const DKDurationEx& duration, bool add);

private:
  struct RawTag {};
  constexpr DKDateTimeEx(RawTag, DKDateEx date, DKTimeEx time) noexcept : m_time(time), m_date(date) {}

  DKTimeEx m_time;
  DKDateEx m_date;
};

template <dkdate_detail::DividesMillisecond Duration>
bool DKDateTimeEx::AsTimePoint(std::chrono::sys_time<Duration>& time) const noexcept {
  DKInt64 seconds = 0;
  std::int32_t milliseconds = 0;
  if (!AsUnixTime(seconds, &milliseconds))
    return false;
  // At most about 1.4e17 milliseconds: the product overflows only the time point's own type.
  constexpr std::intmax_t unitsPerMs = std::ratio_divide<std::milli, typename Duration::period>::num;
  typename Duration::rep count{};
  if (__builtin_mul_overflow(seconds * 1000 + milliseconds, unitsPerMs, &count))
    return false;
  time = std::chrono::sys_time<Duration>(Duration(count));
  return true;
}

template <dkdate_detail::MillisecondMultipleOrPart Duration>
bool DKDateTimeEx::FromTimePoint(std::chrono::sys_time<Duration> time) noexcept {
  using ToMs = std::ratio_divide<typename Duration::period, std::milli>;
  // Far beyond minimum..maximum (about 1.4e17 ms), far from overflowing.
  constexpr DKInt64 limit = DKInt64{1} << 60;
  const auto count = time.time_since_epoch().count();
  DKInt64 ms = 0;
  if constexpr (ToMs::den == 1) { // milliseconds or a coarser unit
    if (std::cmp_greater(count, limit / ToMs::num) || std::cmp_less(count, -limit / ToMs::num))
      return false;
    ms = static_cast<DKInt64>(count) * ToMs::num;
  } else if constexpr (std::is_signed_v<typename Duration::rep>) { // a finer unit: round down
    const DKInt64 units = count;
    ms = units / ToMs::den - (units % ToMs::den < 0 ? 1 : 0);
  } else {
    ms = static_cast<DKInt64>(static_cast<DKUInt64>(count) / static_cast<DKUInt64>(ToMs::den));
  }
  if (ms > limit || ms < -limit)
    return false;
  const DKInt64 seconds = ms / 1000 - (ms % 1000 < 0 ? 1 : 0);
  return FromUnixTime(seconds, static_cast<std::int32_t>(ms - seconds * 1000));
}

// The value moved by a duration, as += and -= move it.
[[nodiscard]] DK_EXPORT DKDateTimeEx operator+(const DKDateTimeEx& value, const DKDurationEx& duration);
[[nodiscard]] DK_EXPORT DKDateTimeEx operator-(const DKDateTimeEx& value, const DKDurationEx& duration);
// From b to a in the finest unit whose count holds it (milliseconds, else seconds, minutes,
// hours, days, weeks; the rest is truncated). A missing time counts as midnight; when either
// lacks a date only the times are compared. invalid_ when either is null or not valid.
[[nodiscard]] DK_EXPORT DKDurationEx operator-(const DKDateTimeEx& a, const DKDateTimeEx& b);

// Default formats, UTF-8, in the local zone. Extraction reads one word, or a date and a time
// separated by one space, and sets failbit (value null) for unreadable text.
DK_EXPORT std::ostream& operator<<(std::ostream& os, const DKDateEx& date);
DK_EXPORT std::istream& operator>>(std::istream& is, DKDateEx& date);
DK_EXPORT std::ostream& operator<<(std::ostream& os, const DKTimeEx& time);
DK_EXPORT std::istream& operator>>(std::istream& is, DKTimeEx& time);
DK_EXPORT std::ostream& operator<<(std::ostream& os, const DKDateTimeEx& value);
DK_EXPORT std::istream& operator>>(std::istream& is, DKDateTimeEx& value);
