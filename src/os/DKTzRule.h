// A time zone given as a POSIX TZ rule (internal): "CET-1CEST,M3.5.0,M10.5.0/3" is Central
// European Time, one hour east of UTC, with summer time from the last Sunday of March at 02:00
// to the last Sunday of October at 03:00. The form:
//
//   std offset [dst [offset] [,start[/time],end[/time]]]
//
// - std, dst: the names, three or more letters, or quoted as "<+0330>": three or more letters,
//   digits, "+" or "-" between "<" and ">".
// - offset: [+|-]hh[:mm[:ss]], the time to add to the local clock to get UTC (west of UTC is
//   positive, as in "EST5"); hours 0 to 24, minutes and seconds 0 to 59. The daylight offset
//   defaults to one hour ahead of standard time.
// - start, end: "Jn" (day 1 to 365, 29 February never counted), "n" (day 0 to 365, 29 February
//   counted) or "Mm.w.d" (day d, 0 = Sunday, of week w of month m; week 5 is the last one).
// - time: the local time of the change, [+|-]hh[:mm[:ss]] with hours -167 to 167 (the range of
//   RFC 8536; older texts allow 0 to 24); 02:00 when left out.
// - dst without start and end changes on the second Sunday of March and the first Sunday of
//   November, both at 02:00: the rules of the United States, which the GNU C library and the
//   Windows C runtime assume too.
//
// The rules apply to every year, before 1970 too. Daylight saving that starts on 1 January at
// 00:00 and ends on 31 December at 24:00 plus the daylight shift ("EST5EDT4,0/0,J365/25") is in
// force all year. Portable: the platform decides where the library evaluates a rule itself.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

class DKTzRule {
public:
  // How a rule names the day of a change.
  enum class DayForm : std::uint8_t {
    Julian,    // "Jn": n = 1..365, 29 February never counted (J60 is always 1 March)
    DayOfYear, // "n": n = 0..365, 29 February counted
    MonthWeek, // "Mm.w.d"
  };

  struct Change {
    DayForm form = DayForm::MonthWeek;
    int month = 0;     // Mm.w.d: 1..12
    int week = 0;      // Mm.w.d: 1..5, 5 = the last
    int day = 0;       // Jn, n: n; Mm.w.d: the week day, 0 = Sunday
    int time = 7200;   // the local time of the change, seconds from midnight
    friend bool operator==(const Change&, const Change&) = default;
  };

  // The limits of the text's fields, in seconds.
  static constexpr int maxOffset = 24 * 3600 + 59 * 60 + 59;
  static constexpr int maxTime = 167 * 3600 + 59 * 60 + 59;

  // Reads a whole rule; false, with rule unchanged, for text that is not one (a zone name such
  // as "Europe/Paris" or ":Europe/Paris", a name without an offset such as "UTC", a field out of
  // its range, anything left over).
  static bool Parse(std::string_view text, DKTzRule& rule);

  // The rule as text, in a form that reads back to an equal rule: names quoted only when they
  // need it, the daylight offset and the times only where they differ from their defaults, and
  // start and end always.
  std::string ToString() const;

  // Offsets in seconds east of UTC (the opposite sign of the text's).
  int StandardOffset() const noexcept { return m_standardOffset; }
  int DaylightOffset() const noexcept { return m_daylightOffset; }
  bool HasDaylight() const noexcept { return m_hasDaylight; }
  // The name for standard or daylight time; a zone without daylight saving has one name.
  const std::string& Name(bool daylight) const noexcept {
    return daylight && m_hasDaylight ? m_daylightName : m_standardName;
  }
  const Change& Start() const noexcept { return m_start; }
  const Change& End() const noexcept { return m_end; }

  // The offset east of UTC at a UTC second, and whether daylight saving is in force then.
  int OffsetAt(std::int64_t utcSeconds, bool* daylight = nullptr) const noexcept;
  // The wall-clock reading of a UTC second, stopping at the ends of the 64-bit range.
  std::int64_t FromUtc(std::int64_t utcSeconds) const noexcept;
  // The UTC second of a wall-clock reading (counted as if it were UTC). A reading that occurs
  // twice gives the earlier instant; one that falls in the hour skipped when the clock jumps
  // forward is read with the offset in force before the jump, so it lands as far past the jump
  // as it was past its start. A result past either end of the 64-bit range stops at that end.
  std::int64_t ToUtc(std::int64_t wallSeconds) const noexcept;

  friend bool operator==(const DKTzRule&, const DKTzRule&) = default;

private:
  std::string m_standardName, m_daylightName;
  int m_standardOffset = 0, m_daylightOffset = 0;
  bool m_hasDaylight = false;
  Change m_start, m_end;
};
