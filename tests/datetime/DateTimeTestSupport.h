// Helpers shared by the date and time tests.
#pragma once

#include <DorvikCore/DKDateTime.h>

#include "support/DKTestPlatform.h"

#if defined(_WIN32)
#  include <oaidl.h> // the system's VARIANT, whose members the tests read
#endif

#include <gtest/gtest.h>

#include "support/DKCaseFile.h"
#include "support/DKTestSupport.h"

#include <map>
#include <filesystem>
#include <ostream>
#include <string>

// Sets TZ for the scope of a test and restores it, telling the library to read it again.
class ScopedTimeZone : public ScopedEnv {
public:
  explicit ScopedTimeZone(const char* zone) : ScopedEnv("TZ", zone, &DKTimeZone::Reload) {}
};

// Zones with daylight saving, as POSIX TZ rules. The C library reads them on Linux and the
// library itself on Windows, so they need no time-zone data. They hold today's rules for every
// year (the C library applies them from 1970 on only).
constexpr const char* parisRule = "CET-1CEST,M3.5.0,M10.5.0/3";
constexpr const char* newYorkRule = "EST5EDT,M3.2.0,M11.1.0";
constexpr const char* kolkataRule = "IST-5:30";

// Runs the rest of the scope with the local zone set by TZ=rule, a POSIX TZ rule.
#define DK_IN_ZONE(rule) const ScopedTimeZone dkZoneScope(rule)

// Whether TZ=name can name a zone of the system's time-zone database, with its history: the C
// library reads such names on Linux when the database (package tzdata) holds the zone; the
// library on Windows reads only rules from TZ.
inline bool HasZoneInfo(const char* name) {
#if defined(_WIN32)
  (void)name;
  return false;
#else
  return std::filesystem::exists(std::string("/usr/share/zoneinfo/") + name);
#endif
}

inline DKDateTimeEx Utc(int year, unsigned month, unsigned day, unsigned hour = 0, unsigned minute = 0, unsigned second = 0,
                        unsigned ms = 0) {
  return DKDateTimeEx(year, month, day, hour, minute, second, ms, DKTimeZone::UTC);
}

#ifdef DK_DATETIME_CASES // the datetime suite's own case files; other suites use the helpers only
// The cases of tests/datetime/cases/<name>, each with `fields` fields.
inline std::vector<dktest::CaseLine> Cases(const char* name, std::size_t fields) {
  return dktest::ReadCases(std::filesystem::path(DK_DATETIME_CASES) / name, fields);
}
#endif

// A value as a case file writes it: "null", "minimum", "maximum", "date 2020-01-05",
// "time 10:20:30.250", a UTC date and time "2020-01-05 10:20:30.250" (milliseconds optional), or
// its two words as they are, "parts 2021-02-30 -2" (the date packed, "-" for none; the time in
// milliseconds), which need not make a valid value.
inline DKDateTimeEx ValueOf(const dktest::CaseLine& c, std::size_t field) {
  const std::string& text = c[field];
  int year = 0;
  unsigned month = 0, day = 0, hour = 0, minute = 0, second = 0, ms = 0;
  char date[16] = {};
  int milliseconds = 0;
  if (text == "null" || text == "minimum" || text == "maximum")
    return text == "null" ? DKDateTimeEx() : text == "minimum" ? DKDateTimeEx::minimum : DKDateTimeEx::maximum;
  if (std::sscanf(text.c_str(), "parts %15s %d", date, &milliseconds) == 2) {
    const bool held = std::sscanf(date, "%d-%u-%u", &year, &month, &day) == 3;
    return DKDateTimeEx::FromParts(held ? DKDateEx::Pack(year, month, day) : DKDateEx(), DKTimeEx::FromMilliseconds(milliseconds));
  }
  if (std::sscanf(text.c_str(), "date %d-%u-%u", &year, &month, &day) == 3)
    return DKDateTimeEx(DKDateEx(year, month, day));
  if (std::sscanf(text.c_str(), "time %u:%u:%u.%u", &hour, &minute, &second, &ms) >= 2)
    return DKDateTimeEx(DKTimeEx(hour, minute, second, ms));
  if (std::sscanf(text.c_str(), "%d-%u-%u %u:%u:%u.%u", &year, &month, &day, &hour, &minute, &second, &ms) >= 5)
    return Utc(year, month, day, hour, minute, second, ms);
  throw std::runtime_error(c.where + ": not a value: " + text);
}

// A zone of a case file by its name: "paris", "newYork", "kolkata".
inline const char* ZoneOf(const dktest::CaseLine& c, std::size_t field) {
  if (c[field] != "paris" && c[field] != "newYork" && c[field] != "kolkata")
    throw std::runtime_error(c.where + ": not a zone: " + c[field]);
  return c[field] == "paris" ? parisRule : c[field] == "newYork" ? newYorkRule : kolkataRule;
}

// The reading that a value's UTC fields spell, taken as a wall-clock reading in the local zone.
inline DKDateTimeEx LocalReading(const DKDateTimeEx& fields) {
  const DKDateEx d = fields.GetDate();
  const DKTimeEx t = fields.GetTime();
  return DKDateTimeEx(d.GetYear(), d.GetMonth(), d.GetDay(), t.GetHour(), t.GetMinute(), t.GetSecond(), t.GetMillisecond());
}

// A unit by its short name ("y", "mo", "w", "d", "h", "m", "s", "ms", "invalid").
inline DKDurationEx::Unit UnitOf(const dktest::CaseLine& c, std::size_t field) {
  using U = DKDurationEx::Unit;
  static const std::map<std::string, U> units{{"y", U::Year},   {"mo", U::Month},  {"w", U::Week},
                                               {"d", U::Day},    {"h", U::Hour},    {"m", U::Minute},
                                               {"s", U::Second}, {"ms", U::Millisecond}, {"invalid", U::Invalid}};
  const auto unit = units.find(c[field]);
  if (unit == units.end())
    throw std::runtime_error(c.where + ": not a unit: " + c[field]);
  return unit->second;
}

// A duration as "count unit", "invalid" for the invalid one.
inline DKDurationEx DurationOf(const dktest::CaseLine& c, std::size_t field) {
  if (c[field] == "invalid")
    return DKDurationEx::invalid_;
  long count = 0;
  char unit[8] = {};
  if (std::sscanf(c[field].c_str(), "%ld %7s", &count, unit) != 2)
    throw std::runtime_error(c.where + ": not a duration: " + c[field]);
  dktest::CaseLine named{c.where, {unit}};
  return DKDurationEx(count, UnitOf(named, 0));
}

// A duration holding -2147483648 of the unit: only the copy that DKDurationExceptionEx carries
// can hold that count.
inline DKDurationEx NeverHeldCount(DKDurationEx::Unit unit) {
  try {
    (void)DKDurationEx(-2147483647L - 1, unit);
  } catch (const DKDurationExceptionEx& e) {
    return e.GetDuration();
  }
  ADD_FAILURE() << "the count -2147483648 was accepted";
  return DKDurationEx();
}

// Readable values in failure messages.
inline void PrintTo(const DKDateTimeEx& value, std::ostream* os) { *os << value.AsString(DK_T("%Y-%m-%d %H:%M:%S.%L"), DKTimeZone::UTC) << " UTC"; }
inline void PrintTo(const DKDateEx& value, std::ostream* os) { *os << value.GetYear() << '-' << value.GetMonth() << '-' << value.GetDay(); }
inline void PrintTo(const DKTimeEx& value, std::ostream* os) { *os << value.AsMilliseconds() << " ms"; }
inline void PrintTo(const DKDurationEx& value, std::ostream* os) { *os << value.AsString(true).AsUTF8() << " (unit " << value.GetUnit() << ')'; }
inline void PrintTo(const DKString& value, std::ostream* os) { *os << '"' << value.AsUTF8() << '"'; }
