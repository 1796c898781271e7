// Windows clock and local zone (os/DKClock.h). The zone is the system's, with its rules for each
// year (zones whose rules changed over the years carry them year by year); reading it is slow, so
// the rules of each year are read once and kept until the zone is reloaded. The system's zone
// functions ignore TZ; when TZ holds a POSIX rule, the library evaluates it in their place.
#include "os/DKClock.h"
#include "os/DKProcess.h"

#include "Win32Util.h"

#include <windows.h>

#include <cstring>
#include <map>
#include <mutex>
#include <string>

namespace {

struct Zone {
  std::mutex lock;
  bool loaded = false;
  DYNAMIC_TIME_ZONE_INFORMATION current{};
  std::map<int, TIME_ZONE_INFORMATION> years;
};

Zone& TheZone() {
  static Zone* const zone = new Zone; // never destroyed: clocks are read late at exit too
  return *zone;
}

// The zone as it is now, read on first use. Called under the zone's lock.
const DYNAMIC_TIME_ZONE_INFORMATION& Current(Zone& zone) {
  if (!zone.loaded) {
    zone.years.clear();
    zone.current = DYNAMIC_TIME_ZONE_INFORMATION{};
    if (GetDynamicTimeZoneInformation(&zone.current) == TIME_ZONE_ID_INVALID) {
      // Only the fixed rules, or none at all (UTC then).
      zone.current = DYNAMIC_TIME_ZONE_INFORMATION{};
      TIME_ZONE_INFORMATION fixed{};
      if (GetTimeZoneInformation(&fixed) != TIME_ZONE_ID_INVALID)
        std::memcpy(&zone.current, &fixed, sizeof fixed); // the same leading members
    }
    zone.loaded = true;
  }
  return zone.current;
}

// The zone's rules in a year. Called under the zone's lock.
TIME_ZONE_INFORMATION RulesOf(Zone& zone, int year) {
  const DYNAMIC_TIME_ZONE_INFORMATION& current = Current(zone);
  if (const auto found = zone.years.find(year); found != zone.years.end())
    return found->second;
  TIME_ZONE_INFORMATION rules{};
  DYNAMIC_TIME_ZONE_INFORMATION asked = current;
  if (current.TimeZoneKeyName[0] == L'\0' || !GetTimeZoneInformationForYear(static_cast<USHORT>(year), &asked, &rules))
    std::memcpy(&rules, &current, sizeof rules);
  if (current.DynamicDaylightTimeDisabled)
    rules.DaylightDate = SYSTEMTIME{}; // daylight saving switched off by the user
  if (zone.years.size() >= 256) // a span of years learned elsewhere: start again
    zone.years.clear();
  zone.years.emplace(year, rules);
  return rules;
}

} // namespace

DKClockReading DKClock::Now() noexcept {
  FILETIME now{};
  GetSystemTimePreciseAsFileTime(&now);
  const auto ticks = static_cast<std::int64_t>((std::uint64_t{now.dwHighDateTime} << 32) | now.dwLowDateTime) -
                     dkwin::unixEpochTicks;
  // A clock set before 1970 counts back: seconds round down, the milliseconds stay positive.
  std::int64_t seconds = ticks / dkwin::ticksPerSecond;
  std::int64_t rest = ticks % dkwin::ticksPerSecond;
  if (rest < 0) {
    --seconds;
    rest += dkwin::ticksPerSecond;
  }
  DKClockReading reading;
  reading.seconds = seconds;
  reading.milliseconds = static_cast<std::int32_t>(rest / 10000);
  return reading;
}

bool DKClock::SystemOffset(std::int64_t utcSeconds, int& offset, bool& daylight) noexcept {
  SYSTEMTIME utc{};
  if (!dkwin::ToSystemTime(utcSeconds, utc))
    return false;
  Zone& zone = TheZone();
  TIME_ZONE_INFORMATION rules{};
  SYSTEMTIME local{};
  try {
    std::lock_guard guard(zone.lock);
    rules = RulesOf(zone, utc.wYear);
    if (!SystemTimeToTzSpecificLocalTime(&rules, &utc, &local))
      return false;
    // Around New Year the local reading may fall in a year whose rules differ.
    if (local.wYear != utc.wYear) {
      rules = RulesOf(zone, local.wYear);
      if (!SystemTimeToTzSpecificLocalTime(&rules, &utc, &local))
        return false;
    }
  } catch (...) { // no memory for the year's rules
    return false;
  }
  std::int64_t localSeconds = 0;
  if (!dkwin::FromSystemTime(local, localSeconds))
    return false;
  offset = static_cast<int>(localSeconds - utcSeconds);
  const bool hasDaylight = rules.DaylightDate.wMonth != 0 && rules.DaylightBias != rules.StandardBias;
  daylight = hasDaylight && offset == -(rules.Bias + rules.DaylightBias) * 60;
  return true;
}

int DKClock::SystemStandardOffset() noexcept {
  Zone& zone = TheZone();
  std::lock_guard guard(zone.lock);
  const DYNAMIC_TIME_ZONE_INFORMATION& current = Current(zone);
  return -static_cast<int>(current.Bias + current.StandardBias) * 60;
}

std::string DKClock::SystemZoneName(bool daylight) {
  Zone& zone = TheZone();
  std::lock_guard guard(zone.lock);
  const DYNAMIC_TIME_ZONE_INFORMATION& current = Current(zone);
  const WCHAR* name = daylight ? current.DaylightName : current.StandardName;
  std::size_t length = 0;
  while (length < 32 && name[length] != L'\0')
    ++length;
  return dkwin::ToUtf8(std::wstring_view(name, length));
}

void DKClock::ReloadSystemZone() noexcept {
  Zone& zone = TheZone();
  std::lock_guard guard(zone.lock);
  zone.loaded = false;
}

// The C runtime reads TZ too (its short form "PST8PDT" is a rule without dates), so setting TZ
// is a known way to choose a zone for one program.
bool DKClock::ZoneRuleText(std::string& text) { return DKProcess::EnvironmentVariableUTF8("TZ", text); }
