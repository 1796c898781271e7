// The system clock and the process's local time zone (internal). The functions marked
// "platform" are implemented once per operating system in src/platform/<os>/ClockImpl.cpp;
// the others are portable and built on them in src/os/DKClock.cpp.
#pragma once

#include <cstdint>
#include <string>

// A reading of the system clock: seconds since 1970-01-01 UTC and the milliseconds within.
struct DKClockReading {
  std::int64_t seconds = 0;
  std::int32_t milliseconds = 0;
};

class DKClock {
public:
  // Platform: the system clock now.
  static DKClockReading Now() noexcept;
  // Platform: the system's local zone: its offset east of UTC, in seconds, at a UTC second, and
  // whether daylight saving is in force then. False when the system cannot tell (out of its range).
  static bool SystemOffset(std::int64_t utcSeconds, int& offset, bool& daylight) noexcept;
  // Platform: the system's local zone: its standard-time offset east of UTC, in seconds.
  static int SystemStandardOffset() noexcept;
  // Platform: the system's local zone: its abbreviation for standard or daylight time, UTF-8.
  static std::string SystemZoneName(bool daylight);
  // Platform: reads the system's zone setting again.
  static void ReloadSystemZone() noexcept;
  // Platform: the text of a POSIX TZ rule (os/DKTzRule.h) that the library evaluates itself in
  // place of the system's zone, where the system does not read TZ: the value of TZ. False where
  // the system reads TZ itself, or TZ is not set. A text that is not a rule leaves the system's
  // zone in force.
  static bool ZoneRuleText(std::string& text);

  // The local zone: the rule of ZoneRuleText when there is one, else the system's.
  // Reads the zone setting again and forgets what was learned of the old zone.
  static void ReloadZone() noexcept;
  // The local offset at a UTC second; the standard offset where the system cannot tell.
  static int LocalOffsetAt(std::int64_t utcSeconds, bool* daylight = nullptr) noexcept;
  // The UTC second of a local wall-clock reading (counted as if it were UTC). A repeated
  // reading gives the earlier instant; a skipped one is moved forward by the gap. A result past
  // either end of the 64-bit range stops at that end.
  static std::int64_t LocalToUtc(std::int64_t wallSeconds) noexcept;
  // The local wall-clock reading of a UTC second, stopping at the ends of the range too.
  static std::int64_t UtcToLocal(std::int64_t utcSeconds) noexcept;
  // The local zone's standard-time offset east of UTC, in seconds.
  static int LocalStandardOffset() noexcept;
  // The local zone's abbreviation for standard or daylight time, UTF-8.
  static std::string LocalZoneName(bool daylight);
};
