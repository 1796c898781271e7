// POSIX clock and local zone (os/DKClock.h).
#include "os/DKClock.h"

#include <time.h>

DKClockReading DKClock::Now() noexcept {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  DKClockReading reading;
  reading.seconds = static_cast<std::int64_t>(now.tv_sec);
  reading.milliseconds = static_cast<std::int32_t>(now.tv_nsec / 1000000);
  return reading;
}

bool DKClock::SystemOffset(std::int64_t utcSeconds, int& offset, bool& daylight) noexcept {
  const time_t t = static_cast<time_t>(utcSeconds);
  tm local{};
  if (localtime_r(&t, &local) == nullptr)
    return false;
  offset = static_cast<int>(local.tm_gmtoff);
  daylight = local.tm_isdst > 0;
  return true;
}

int DKClock::SystemStandardOffset() noexcept {
  tzset();
  return static_cast<int>(-timezone);
}

std::string DKClock::SystemZoneName(bool daylight) {
  tzset();
  const char* name = tzname[daylight ? 1 : 0];
  return name ? std::string(name) : std::string();
}

void DKClock::ReloadSystemZone() noexcept { tzset(); }

// The C library reads TZ itself: a rule, a zone of the system's database, or nothing for
// /etc/localtime.
bool DKClock::ZoneRuleText(std::string&) { return false; }
