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

class DK_EXPORT DKDate {
public:
  static constexpr std::uint32_t reference = 693537; // JulianDay(1, 1, 1899)
  static constexpr int referenceYear = 1899;
  static const DKDate minimum; // 0001-01-01
  static const DKDate maximum; // 2147483647 days after 1899-01-01
  static constexpr const DKChar* defaultStringFormat = DK_T("%Y/%m/%d");

  // The count 0: 1 January 1899, which also serves as the null date.
  constexpr DKDate() noexcept : m_date(0) {}
  // The constructors throw DKDateException when the source is not a valid date in range.
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

  static constexpr DKDate FromDays(std::int32_t days) noexcept { return DKDate(RawTag(), days); }
  constexpr std::int32_t GetDays() const noexcept { return m_date; }
  constexpr bool IsNull() const noexcept { return m_date == 0; }
  bool IsValid() const noexcept { return m_date >= minimum.m_date; }

  int year() const noexcept;
  unsigned month() const noexcept;
  unsigned day() const noexcept;
  // 0 (Sunday) to 6 (Saturday).
  int weekday() const noexcept;
  int days_in_month() const noexcept;
  static int days_in_month(unsigned short month, short year) noexcept;

  DKErrorID FromString(const DKString& text, const DKString& format = DKString());
  bool FromSystemTime(const dk::SYSTEMTIME& time) noexcept;
  bool FromStructTM(const std::tm& time) noexcept;
  bool FromFileTime(const dk::FILETIME& time, const DKTimeZone& zone = DKTimeZone::Local) noexcept;
  bool FromVariant(const dk::VARIANT& value) noexcept;
  bool FromVariant(double value) noexcept;
  bool FromDKDateTime(const DKDateTime& time, const DKTimeZone& zone = DKTimeZone::Local) noexcept;
  bool SetDateAndTime(const DKDateAndTime& fields) noexcept;
  void GetDateAndTime(DKDateAndTime& fields) const noexcept;
  // The same day as a packed date; false outside DKDateEx's years.
  bool AsDKDateEx(DKDateEx& date) const noexcept;

  bool AsSystemTime(dk::SYSTEMTIME& time) const noexcept;
  bool AsStructTM(std::tm& time) const noexcept;
  bool AsFileTime(dk::FILETIME& time, const DKTimeZone& zone = DKTimeZone::Local) const noexcept;
  bool AsVariant(dk::VARIANT& value) const noexcept;
  DKString AsString(const DKString& format = DKString()) const;

  static DKDate GetCurrentDate(bool local = true);

  friend constexpr bool operator==(DKDate a, DKDate b) noexcept { return a.m_date == b.m_date; }
  friend constexpr auto operator<=>(DKDate a, DKDate b) noexcept { return a.m_date <=> b.m_date; }

  // One day on or back; leaving minimum..maximum throws DKDateException.
  DKDate& operator++();
  DKDate operator++(int);
  DKDate& operator--();
  DKDate operator--(int);
  DKDate& operator+=(const DKDurationEx& duration);
  DKDate& operator-=(const DKDurationEx& duration);
  DKDate& operator+=(long days);
  DKDate& operator-=(long days);

protected:
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

[[nodiscard]] DK_EXPORT DKDate operator+(const DKDate& date, const DKDurationEx& duration);
[[nodiscard]] DK_EXPORT DKDate operator-(const DKDate& date, const DKDurationEx& duration);
[[nodiscard]] DK_EXPORT DKDurationEx operator-(const DKDate& a, const DKDate& b);

class DK_EXPORT DKDateTime {
public:
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

  static constexpr DKDateTime FromCount(std::int32_t seconds) noexcept { return DKDateTime(RawTag(), seconds); }
  // The count unchanged, as a time value of the runtime library.
  constexpr std::time_t GetTime_t() const noexcept { return static_cast<std::time_t>(m_time); }
  constexpr bool IsNull() const noexcept { return m_time == 0; }

  // Text in the zone. FromString also takes "TO_DATE('2020/01/05 10:20:30', 'YYYY/MM/DD
  // HH24:MI:SS')": the text, read with the format given as YYYY, YY, MM, DD, HH24, HH, MI and
  // SS (without a second argument, with the format given here). Unreadable text or a moment
  // outside minimum..maximum gives message 9 and leaves the value unchanged.
  DKString AsString(const DKString& format = DKString(), const DKTimeZone& zone = DKTimeZone::Local) const;
  DKErrorID FromString(const DKString& text, const DKString& format = DKString(), const DKTimeZone& zone = DKTimeZone::Local);

  bool FromSystemTime(const dk::SYSTEMTIME& time, const DKTimeZone& zone = DKTimeZone::Local) noexcept;
  bool FromStructTM(const std::tm& time, const DKTimeZone& zone = DKTimeZone::Local) noexcept;
  bool FromFileTime(const dk::FILETIME& time) noexcept;
  bool FromVariant(const dk::VARIANT& value, const DKTimeZone& zone = DKTimeZone::Local) noexcept;
  bool FromVariant(double value, const DKTimeZone& zone = DKTimeZone::Local) noexcept;
  // A date alone stands for its local midnight; a time alone is refused.
  bool FromDKDateTimeEx(const DKDateTimeEx& value) noexcept;
  bool SetDateAndTime(const DKDateAndTime& fields) noexcept;
  void GetDateAndTime(DKDateAndTime& fields, const DKTimeZone& zone = DKTimeZone::Local) const noexcept;
  DKDateTimeEx AsDKDateTimeEx() const noexcept;

  bool AsSystemTime(dk::SYSTEMTIME& time, const DKTimeZone& zone = DKTimeZone::Local) const noexcept;
  bool AsStructTM(std::tm& time, const DKTimeZone& zone = DKTimeZone::Local) const noexcept;
  bool AsFileTime(dk::FILETIME& time) const noexcept;
  bool AsVariant(dk::VARIANT& value, const DKTimeZone& zone = DKTimeZone::Local) const noexcept;

  static DKDateTime GetCurrentDateTime();

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

[[nodiscard]] DK_EXPORT DKDateTime operator+(const DKDateTime& value, const DKDurationEx& duration);
[[nodiscard]] DK_EXPORT DKDateTime operator-(const DKDateTime& value, const DKDurationEx& duration);
// Seconds from b to a.
[[nodiscard]] DK_EXPORT DKDurationEx operator-(const DKDateTime& a, const DKDateTime& b);

DK_EXPORT std::ostream& operator<<(std::ostream& os, const DKDate& date);
DK_EXPORT std::istream& operator>>(std::istream& is, DKDate& date);
DK_EXPORT std::ostream& operator<<(std::ostream& os, const DKDateTime& value);
DK_EXPORT std::istream& operator>>(std::istream& is, DKDateTime& value);
