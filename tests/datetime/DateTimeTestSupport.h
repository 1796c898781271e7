// Helpers shared by the date and time tests.
#pragma once

#include <DorvikCore/DKDateTime.h>

#include "support/DKTestPlatform.h"

#if defined(_WIN32)
#  include <oaidl.h> // the system's VARIANT, whose members the tests read
#endif

#include <gtest/gtest.h>

#include "support/DKTestSupport.h"

#include <filesystem>
#include <ostream>
#include <string>

// Sets TZ for the scope of a test and restores it, telling the library to read it again.
class ScopedTimeZone : public ScopedEnv {
public:
  explicit ScopedTimeZone(const char* zone) : ScopedEnv("TZ", zone, &DKTimeZone::Reload) {}
};

// Whether TZ=zone can be set for a test: the zone is in the system's time-zone database and the
// local zone follows TZ.
inline bool HasZoneInfo(const char* zone) {
  return dktest::TimeZoneFollowsTZ() && std::filesystem::exists(std::string("/usr/share/zoneinfo/") + zone);
}

// Runs the rest of the scope under TZ=zone, or skips the test when the system's time-zone database
// lacks the zone (package tzdata) or the local zone does not follow TZ (Windows).
#define DK_IN_ZONE(zone)                                                                              \
  if (!dktest::TimeZoneFollowsTZ())                                                                   \
    GTEST_SKIP() << "the local zone comes from the system settings, not from TZ";                     \
  if (!HasZoneInfo(zone))                                                                             \
    GTEST_SKIP() << "time-zone data for " << zone << " is missing (install the tzdata package)";      \
  const ScopedTimeZone dkZoneScope(zone)

inline DKDateTimeEx Utc(int year, unsigned month, unsigned day, unsigned hour = 0, unsigned minute = 0, unsigned second = 0,
                        unsigned ms = 0) {
  return DKDateTimeEx(year, month, day, hour, minute, second, ms, DKTimeZone::UTC);
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
