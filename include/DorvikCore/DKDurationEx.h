// DKDurationEx: a signed amount of one calendar unit (3 days, -2 hours, 15 milliseconds).
#pragma once

#include <DorvikCore/DKString.h>
#include <DorvikCore/DKTypes.h>

#include <chrono>
#include <cstdint>
#include <iosfwd>

// A value: a unit and a 32-bit count, copied like an integer.
class DK_EXPORT DKDurationEx {
public:
  // The units, coarsest first; the short names are those of GetShortName.
  enum Unit : std::int32_t {
    Year = 0,        // "y": 12 months, 365 days in conversions to days.
    Month = 1,       // "mo": 30 days in conversions to days.
    Week = 2,        // "w": 7 days.
    Day = 3,         // "d": 24 hours.
    Hour = 4,        // "h".
    Minute = 5,      // "m".
    Second = 6,      // "s".
    Millisecond = 7, // "ms".
    Invalid = 8,     // No unit: the duration is invalid.
  };

  // The count is kept within these bounds; -2147483648 is never held, so that the sign can
  // always be flipped. Only the copy that DKDurationExceptionEx carries can hold it, and every
  // calculation that would use such a copy throws DKDurationExceptionEx carrying it again.
  static constexpr std::int32_t maximum_ = 2147483647;
  static constexpr std::int32_t minimum_ = -2147483647;
  static const DKDurationEx invalid_; // unit Invalid, count 0

  // An invalid duration (invalid_).
  constexpr DKDurationEx() noexcept : m_unit(Invalid), m_duration(0) {}
  // A count of seconds, or of the unit given. Every count constructor throws DKDurationExceptionEx
  // for a count outside minimum_..maximum_.
  explicit DKDurationEx(long count) : DKDurationEx(count, Second) {}
  DKDurationEx(long count, Unit unit);
  // The unit by its short name ("y", "mo", "w", "d", "h", "m", "s", "ms"), compared in full
  // and case-sensitively; an unknown name gives the unit Invalid.
  DKDurationEx(long count, const DKChar* unitShortName);
#if !DK_WCHAR_IS_DKCHAR
  DKDurationEx(long count, const wchar_t* unitShortName);
#endif
  // Reads text as FromString does (an unreadable text gives an invalid duration).
  DKDurationEx(const DKString& text, Unit defaultUnit);
  // An amount of std::chrono time (seconds, hours and days convert on their own) in the
  // coarsest unit from week down to millisecond that holds it exactly: 90 minutes stay 90
  // minutes, 7200 seconds become 2 hours. Throws DKDurationExceptionEx when no unit holds it
  // (more than 2147483647 milliseconds that are not whole seconds, and so on); FromChrono
  // reports that by returning false instead (value unchanged).
  explicit DKDurationEx(std::chrono::milliseconds amount);

  // The unit.
  Unit GetUnit() const noexcept { return m_unit; }
  // Replaces the unit and keeps the count (3 days become 3 hours); ConvertTo keeps the amount.
  void SetUnit(Unit unit) noexcept { m_unit = unit; }
  // The count, in the unit.
  std::int32_t GetDuration() const noexcept { return m_duration; }
  // True when the unit is one of Year to Millisecond.
  bool IsValid() const noexcept { return m_unit >= Year && m_unit < Invalid; }

  // Unit in the upper half, count in the lower: one number that identifies the value.
  DKInt64 AsInt64() const noexcept;
  // The amount in milliseconds; a month counts 30 days and a year 365. 0 when invalid.
  DKInt64 AsMilliSeconds() const noexcept;
  // The older duration count: whole seconds, truncated. Throws DKDurationExceptionEx when the
  // seconds do not fit the count's range.
  DKDuration AsDKDuration() const;
  // The amount as std::chrono::milliseconds; false (amount unchanged) for an invalid duration
  // and for years and months, which have no fixed length.
  [[nodiscard]] bool AsChrono(std::chrono::milliseconds& amount) const noexcept;
  // Sets the amount as the std::chrono constructor does; false (value unchanged) when no unit
  // holds it.
  bool FromChrono(std::chrono::milliseconds amount) noexcept;

  // Converts to another unit with the conversion table (a year is 12 months, 52 weeks or 365
  // days; a month 4 weeks or 30 days). Towards a coarser unit the count is divided; unless
  // truncate is set, a positive remainder raises the quotient by one. Year and month have no
  // millisecond form: then false, and nothing changes. Throws DKDurationExceptionEx when the
  // result leaves the count's range.
  bool ConvertTo(Unit newUnit, bool truncate = false);
  // A converted copy (the copy is unchanged where ConvertTo would fail).
  DKDurationEx As(Unit newUnit, bool truncate = false) const;
  // Moves to the coarsest unit that holds the same amount exactly (48 hours become 2 days).
  void Normalize();
  // True when both are valid and express the same amount in their finer unit (1 month and
  // 30 days, 2 weeks and 14 days).
  bool IsEquivalent(const DKDurationEx& other) const noexcept;

  // Text: the short form "3d", "15ms"; the long form "1 day", "-2 hours". 0 of any unit is
  // "0"; an invalid duration gives the empty text. The first form appends to out.
  void AsString(DKString& out, bool longForm = false) const;
  DKString AsString(bool longForm = false) const;
  // The amount as elapsed time: "h:mm:ss.mmm", after "<n> days, " when it spans a day or more
  // ("2 days, 3:04:05.006", "-0:00:01.500"). A month counts 30 days and a year 365.
  DKString AsElapsedString() const;
  // "5 days", "90" (the default unit), "3 h", "10ms". False, with the unit Invalid, when the
  // unit word is unknown; an empty text gives invalid_. Throws DKDurationExceptionEx for a
  // count below minimum_.
  bool FromString(const DKString& text, Unit defaultUnit);

  // Text that needs no Normalize to be read: the amount in days, hours, minutes, seconds and
  // milliseconds, largest first, leaving out the parts that are 0: 36 hours give
  // "1 day 12 hours", 90000 milliseconds "1 minute 30 seconds". Weeks are written as days.
  // Years and months have no fixed length in days: they are written as years and months
  // ("1 year 2 months" for 14 months). A negative amount has the sign on every part
  // ("-1 day -12 hours"), so that the text reads as the sum of its parts. A count of 0 gives
  // "0" and the unit ("0 hours"); an invalid duration the empty text. The short form uses the
  // short names: "1d 12h", "-1y -2mo".
  [[nodiscard]] DKString AsReadableString(bool longForm = true) const;
  // Reads that text: parts of a count and a unit word (long name, long name with "s", or
  // short name, as spelled in the unit table) separated by blanks, each unit at most once and
  // larger units first, all of them signed with "-" or none of them, years and months not
  // mixed with the other units. The result is the sum in the finest unit named
  // ("1 day 12 hours" gives 36 hours), or in the nearest coarser unit that holds it exactly
  // when that count would be too large (more than 2147483647 days are weeks). False, with
  // invalid_, for any other text, and for an amount that no such unit holds.
  bool FromReadableString(const DKString& text);

  // Scaling (the count times factor, or divided by divisor, truncated) and negation, in the same
  // unit; all throw DKDurationExceptionEx when the result leaves the range, and division by 0
  // throws too.
  DKDurationEx operator*(int factor) const;
  DKDurationEx operator/(int divisor) const;
  [[nodiscard]] DKDurationEx operator-() const;
  // Sum and difference in the finer of the two units; invalid_ when either is invalid or the
  // units have no common form (years and milliseconds).
  friend DK_EXPORT DKDurationEx operator+(const DKDurationEx& a, const DKDurationEx& b);
  friend DK_EXPORT DKDurationEx operator-(const DKDurationEx& a, const DKDurationEx& b);
  // Same unit and count.
  friend bool operator==(const DKDurationEx& a, const DKDurationEx& b) noexcept {
    return a.m_unit == b.m_unit && a.m_duration == b.m_duration;
  }

  // The long ("day") and short ("d") names of a unit; empty for Invalid.
  static const DKChar* GetLongName(Unit unit) noexcept;
  static const DKChar* GetShortName(Unit unit) noexcept;
  // The step from one unit to another in the conversion table: a positive factor, -1 when the
  // target is coarser, 0 when there is no conversion.
  static std::int32_t GetConversionStep(Unit from, Unit to) noexcept;

private:
  friend class DKDurationExceptionEx;
  struct RawTag {};
  // Holds any count, -2147483648 included: for the exception that reports it.
  constexpr DKDurationEx(RawTag, std::int32_t count, Unit unit) noexcept : m_unit(unit), m_duration(count) {}
  // Stores a count, throwing DKDurationExceptionEx (carrying it) when it leaves the range.
  void SetDuration(long count);
  void SetCount(DKInt64 count);

  Unit m_unit;
  std::int32_t m_duration;
};

// Writes the short form as UTF-8; reads one word, or a count and a unit word, as FromString
// reads them with seconds as the default unit (failbit when the text is not a duration).
DK_EXPORT std::ostream& operator<<(std::ostream& os, const DKDurationEx& duration);
DK_EXPORT std::istream& operator>>(std::istream& is, DKDurationEx& duration);
