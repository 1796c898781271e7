// The older calendar values: DKDate, a count of days since 1 January 1899, and DKDateTime, a
// count of seconds since 1970-01-01 UTC (the runtime library's time_t). Both use the "%" text
// codes of DKDateEx.h.
#pragma once

#include <DorvikCore/DKDateEx.h>
#include <DorvikCore/DKDurationEx.h>
#include <DorvikCore/DKError.h>
#include <DorvikCore/DKString.h>
#include <DorvikCore/DKSystemTime.h>
#include <DorvikCore/DKTimeZone.h>

#include <compare>
#include <cstdint>
#include <ctime>
#include <iosfwd>
#include <type_traits>

// A calendar date (proleptic Gregorian) as a signed 32-bit count of days since 1899-01-01. A
// value, cheap to copy; the count 0 doubles as the null date.
class DK_EXPORT DKDate {
public:
  static constexpr std::uint32_t reference = 693537; // JulianDay(1, 1, 1899): the count 0.
  static constexpr int referenceYear = 1899;          // The year of the count 0.
  static const DKDate minimum; // 0001-01-01
  static const DKDate maximum; // 2147483647 days after 1899-01-01
  // The format AsString writes when given none.
  static constexpr const DKChar* defaultStringFormat = DK_T("%Y/%m/%d");

  // The count 0: 1 January 1899, which also serves as the null date.
  constexpr DKDate() noexcept : m_date(0) {}
  // The constructors throw DKDateException when the source is not a valid date in range. They
  // read text as FromString does (throwing instead of returning message 9), records as the From
  // setters below, a DKDateTime's date in the zone and a DKDateEx's day as they are.
  DKDate(unsigned day, unsigned month, int year);
  explicit DKDate(const DKString& text, const DKString& format = DKString());
  explicit DKDate(const dk::SYSTEMTIME& time);
  explicit DKDate(const std::tm& time);
  explicit DKDate(const dk::FILETIME& time, const DKTimeZone& zone = DKTimeZone::Local);
  explicit DKDate(const dk::VARIANT& value);
  explicit DKDate(double variantDate);
  explicit DKDate(const DKDateTime& time, const DKTimeZone& zone = DKTimeZone::Local);
  explicit DKDate(const DKDateAndTime& fields);
  explicit DKDate(const DKDateEx& date);

  // The date days after 1899-01-01, taken as it is (not checked against minimum).
  static constexpr DKDate FromDays(std::int32_t days) noexcept { return DKDate(RawTag(), days); }
  // The count of days since 1899-01-01 (negative before it).
  constexpr std::int32_t GetDays() const noexcept { return m_date; }
  // True for the count 0.
  constexpr bool IsNull() const noexcept { return m_date == 0; }
  // False for a count below minimum (only FromDays makes one).
  bool IsValid() const noexcept { return m_date >= minimum.m_date; }

  // The year, the month (1-12) and the day of the month (1-31).
  int year() const noexcept;
  unsigned month() const noexcept;
  unsigned day() const noexcept;
  // 0 (Sunday) to 6 (Saturday).
  int weekday() const noexcept;
  // The number of days in the date's month, or in a month of a year.
  int days_in_month() const noexcept;
  static int days_in_month(unsigned short month, short year) noexcept;

  // Reads text in the format (empty: the lenient default, which also takes a date with a
  // time); "SYSDATE" is today and blank text the null date. Message 9 (DK_MSG_INVALID_DATE),
  // the date unchanged, when the text holds no valid date in range.
  DKErrorID FromString(const DKString& text, const DKString& format = DKString());
  // Setters from records: the record's date (an instant's date in the zone); a VT_NULL or
  // VT_EMPTY variant gives the null date. False, the date unchanged, when the source is not a
  // valid date in range.
  bool FromSystemTime(const dk::SYSTEMTIME& time) noexcept;
  bool FromStructTM(const std::tm& time) noexcept;
  bool FromFileTime(const dk::FILETIME& time, const DKTimeZone& zone = DKTimeZone::Local) noexcept;
  bool FromVariant(const dk::VARIANT& value) noexcept;
  bool FromVariant(double value) noexcept;
  bool FromDKDateTime(const DKDateTime& time, const DKTimeZone& zone = DKTimeZone::Local) noexcept;
  // The date of broken-down fields (a record marked NoDate gives the null date); false, the date
  // unchanged, when they are not a valid date in range.
  bool SetDateAndTime(const DKDateAndTime& fields) noexcept;
  // The date's fields, marked NoTime.
  void GetDateAndTime(DKDateAndTime& fields) const noexcept;
  // The same day as a packed date; false outside DKDateEx's years.
  bool AsDKDateEx(DKDateEx& date) const noexcept;

  // The date in records, at midnight (the FILETIME: midnight in the zone); the null date is a
  // VT_NULL variant. False, the record unchanged, when the record cannot hold the date.
  bool AsSystemTime(dk::SYSTEMTIME& time) const noexcept;
  bool AsStructTM(std::tm& time) const noexcept;
  bool AsFileTime(dk::FILETIME& time, const DKTimeZone& zone = DKTimeZone::Local) const noexcept;
  bool AsVariant(dk::VARIANT& value) const noexcept;
  // The date in the format (empty: defaultStringFormat).
  DKString AsString(const DKString& format = DKString()) const;

  // Today in the local zone, or in UTC.
  static DKDate GetCurrentDate(bool local = true);

  // Dates compare by their counts.
  friend constexpr bool operator==(DKDate a, DKDate b) noexcept { return a.m_date == b.m_date; }
  friend constexpr auto operator<=>(DKDate a, DKDate b) noexcept { return a.m_date <=> b.m_date; }

  // One day on or back; leaving minimum..maximum throws DKDateException.
  DKDate& operator++();
  DKDate operator++(int);
  DKDate& operator--();
  DKDate operator--(int);
  // Moves by a duration: years, months, weeks and days move the date (after a move by years or
  // months, a day past the end of the month becomes its last day); clock units and an invalid
  // duration leave it. Leaving minimum..maximum throws DKDateException.
  DKDate& operator+=(const DKDurationEx& duration);
  DKDate& operator-=(const DKDurationEx& duration);
  // Moves by whole days; leaving minimum..maximum throws DKDateException.
  DKDate& operator+=(long days);
  DKDate& operator-=(long days);

protected:
  // The calendar fields of the count.
  void GetDate(int& year, unsigned& month, unsigned& day) const noexcept;
  // False (count unchanged) when the parts are not a valid date in range.
  bool SetDate(unsigned day, unsigned month, int year) noexcept;

private:
  struct RawTag {};
  constexpr DKDate(RawTag, std::int32_t days) noexcept : m_date(days) {}
  // Days from 1 March of year 0 (day 1) on the Gregorian calendar.
  static long JulianDay(unsigned short day, unsigned short month, unsigned short year) noexcept;
  void MoveDays(DKInt64 days);
  // Takes the date of a variant read into a DKDateEx (null stays null).
  template <class Variant>
  bool FromVariantDate(const Variant& value) noexcept;
  // Years, months, weeks and days move the date; clock units leave it.
  void AddOrSubstract(const DKDurationEx& duration, bool add);

  std::int32_t m_date;
};

// The date moved by a duration, as += and -= move it.
[[nodiscard]] DK_EXPORT DKDate operator+(const DKDate& date, const DKDurationEx& duration);
[[nodiscard]] DK_EXPORT DKDate operator-(const DKDate& date, const DKDurationEx& duration);
// Days from b to a (in weeks, truncated, when the days do not fit the count).
[[nodiscard]] DK_EXPORT DKDurationEx operator-(const DKDate& a, const DKDate& b);

// A moment to the second as a signed 32-bit count of seconds since 1970-01-01 00:00:00 UTC. A
// value, cheap to copy; the count 0 doubles as the null value.
class DK_EXPORT DKDateTime {
public:
  // The format AsString writes when given none.
  static constexpr const DKChar* defaultStringFormat = DK_T("%Y/%m/%d %H:%M:%S");
  static const DKDateTime minimum; // -2147397248: one day of room below, as above maximum
  static const DKDateTime maximum; // 2147397247 = 2147483647 - 86400

  // The count 0 (1970-01-01 00:00:00 UTC), the null value.
  constexpr DKDateTime() noexcept : m_time(0) {}
  // The constructors throw DKDateException when the source is not a valid moment in range.
  explicit DKDateTime(std::time_t seconds);
  // Any integer count (an int literal would otherwise be as close to the automation date).
  template <class T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, std::time_t>, int> = 0>
  explicit DKDateTime(T seconds) : DKDateTime(static_cast<std::time_t>(seconds)) {}
  // From parts in the zone, from text as FromString reads it, from records as the From setters
  // below read them, from broken-down fields or from a DKDateTimeEx (as FromDKDateTimeEx); each
  // throws DKDateException when the source is not a valid moment in range.
  DKDateTime(int year, unsigned month, unsigned day, unsigned hour = 0, unsigned minute = 0, unsigned second = 0,
             const DKTimeZone& zone = DKTimeZone::Local);
  explicit DKDateTime(const DKString& text, const DKString& format = DKString(), const DKTimeZone& zone = DKTimeZone::Local);
  explicit DKDateTime(const dk::SYSTEMTIME& time, const DKTimeZone& zone = DKTimeZone::Local);
  explicit DKDateTime(const std::tm& time, const DKTimeZone& zone = DKTimeZone::Local);
  explicit DKDateTime(const dk::FILETIME& time);
  explicit DKDateTime(const dk::VARIANT& value, const DKTimeZone& zone = DKTimeZone::Local);
  explicit DKDateTime(double variantDate, const DKTimeZone& zone = DKTimeZone::Local);
  explicit DKDateTime(const DKDateAndTime& fields);
  explicit DKDateTime(const DKDateTimeEx& value);

  // The moment seconds after 1970-01-01 UTC, taken as it is (not checked against the range).
  static constexpr DKDateTime FromCount(std::int32_t seconds) noexcept { return DKDateTime(RawTag(), seconds); }
  // The count unchanged, as a time value of the runtime library.
  constexpr std::time_t GetTime_t() const noexcept { return static_cast<std::time_t>(m_time); }
  // True for the count 0.
  constexpr bool IsNull() const noexcept { return m_time == 0; }

  // Text in the zone (empty format: defaultStringFormat when writing, the lenient default when
  // reading; "SYSDATE" is now, blank text the null value). FromString also takes
  // "TO_DATE('2020/01/05 10:20:30', 'YYYY/MM/DD HH24:MI:SS')": the text, read with the format given
  // as YYYY, YY, MM, DD, HH24, HH, MI and SS (without a second argument, with the format given
  // here). Unreadable text or a moment outside minimum..maximum gives message 9 and leaves the
  // value unchanged.
  DKString AsString(const DKString& format = DKString(), const DKTimeZone& zone = DKTimeZone::Local) const;
  DKErrorID FromString(const DKString& text, const DKString& format = DKString(), const DKTimeZone& zone = DKTimeZone::Local);

  // Setters from records: wall-clock records and automation dates are read in the zone, a
  // FILETIME is UTC. False, the value unchanged, when the source is not a valid moment in range
  // (a variant must hold a date and a time).
  bool FromSystemTime(const dk::SYSTEMTIME& time, const DKTimeZone& zone = DKTimeZone::Local) noexcept;
  bool FromStructTM(const std::tm& time, const DKTimeZone& zone = DKTimeZone::Local) noexcept;
  bool FromFileTime(const dk::FILETIME& time) noexcept;
  bool FromVariant(const dk::VARIANT& value, const DKTimeZone& zone = DKTimeZone::Local) noexcept;
  bool FromVariant(double value, const DKTimeZone& zone = DKTimeZone::Local) noexcept;
  // A date alone stands for its local midnight; a time alone is refused.
  bool FromDKDateTimeEx(const DKDateTimeEx& value) noexcept;
  // The moment of broken-down fields (in their zone); false, the value unchanged, when they are
  // not a valid moment in range.
  bool SetDateAndTime(const DKDateAndTime& fields) noexcept;
  // The moment's fields in the zone.
  void GetDateAndTime(DKDateAndTime& fields, const DKTimeZone& zone = DKTimeZone::Local) const noexcept;
  // The same moment as a DKDateTimeEx.
  DKDateTimeEx AsDKDateTimeEx() const noexcept;

  // The moment in records: wall clock in the zone, a FILETIME in UTC. False, the record
  // unchanged, when the record cannot hold the moment.
  bool AsSystemTime(dk::SYSTEMTIME& time, const DKTimeZone& zone = DKTimeZone::Local) const noexcept;
  bool AsStructTM(std::tm& time, const DKTimeZone& zone = DKTimeZone::Local) const noexcept;
  bool AsFileTime(dk::FILETIME& time) const noexcept;
  bool AsVariant(dk::VARIANT& value, const DKTimeZone& zone = DKTimeZone::Local) const noexcept;

  // Now, to the second.
  static DKDateTime GetCurrentDateTime();

  // Moments compare by their counts.
  friend constexpr bool operator==(DKDateTime a, DKDateTime b) noexcept { return a.m_time == b.m_time; }
  friend constexpr auto operator<=>(DKDateTime a, DKDateTime b) noexcept { return a.m_time <=> b.m_time; }

  // One second on or back. Leaving the range throws DKDateException carrying the bound.
  DKDateTime& operator++();
  DKDateTime operator++(int);
  DKDateTime& operator--();
  DKDateTime operator--(int);
  // As DKDateTimeEx: calendar units in local wall-clock time, clock units in UTC.
  DKDateTime& operator+=(const DKDurationEx& duration);
  DKDateTime& operator-=(const DKDurationEx& duration);

private:
  struct RawTag {};
  constexpr DKDateTime(RawTag, std::int32_t seconds) noexcept : m_time(seconds) {}
  void AddOrSubstract(const DKDurationEx& duration, bool add);
  // Stores a count, throwing DKDateException (carrying the bound) outside the range.
  void SetCount(DKInt64 seconds);
  // FromDKDateTimeEx with a date alone read as its midnight in the zone.
  bool SetFromDKDateTimeEx(const DKDateTimeEx& value, const DKTimeZone& zone) noexcept;

  std::int32_t m_time;
};

// The moment moved by a duration, as += and -= move it.
[[nodiscard]] DK_EXPORT DKDateTime operator+(const DKDateTime& value, const DKDurationEx& duration);
[[nodiscard]] DK_EXPORT DKDateTime operator-(const DKDateTime& value, const DKDurationEx& duration);
// Seconds from b to a (in coarser units, truncated, when they do not fit the count).
[[nodiscard]] DK_EXPORT DKDurationEx operator-(const DKDateTime& a, const DKDateTime& b);

// Stream forms: AsString written as UTF-8; reading takes one word, or a date and a time joined
// by one space, as FromString reads it (failbit when it cannot).
DK_EXPORT std::ostream& operator<<(std::ostream& os, const DKDate& date);
DK_EXPORT std::istream& operator>>(std::istream& is, DKDate& date);
DK_EXPORT std::ostream& operator<<(std::ostream& os, const DKDateTime& value);
DK_EXPORT std::istream& operator>>(std::istream& is, DKDateTime& value);
