// The ISO 8601 text of an instant as std::chrono's calendar spells it, an independent reference
// for the library's writers: "2024-02-29T23:59:59.123Z" at offset 0, else "...+01:00" (the offset
// in minutes). Years 0..9999.
#pragma once

#include <chrono>
#include <cstdio>
#include <string>

namespace dktest {

inline std::string IsoText(std::chrono::sys_time<std::chrono::milliseconds> instant, int offsetMinutes) {
  using namespace std::chrono;
  const sys_time<milliseconds> wall = instant + minutes{offsetMinutes};
  const sys_days day = floor<days>(wall);
  const year_month_day ymd{day};
  const hh_mm_ss<milliseconds> t{wall - day};
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02d.%03d", int{ymd.year()}, unsigned{ymd.month()},
                unsigned{ymd.day()}, static_cast<int>(t.hours().count()), static_cast<int>(t.minutes().count()),
                static_cast<int>(t.seconds().count()), static_cast<int>(t.subseconds().count()));
  std::string result = text;
  if (offsetMinutes == 0)
    return result + "Z";
  const int magnitude = offsetMinutes < 0 ? -offsetMinutes : offsetMinutes;
  std::snprintf(text, sizeof text, "%c%02d:%02d", offsetMinutes < 0 ? '-' : '+', magnitude / 60, magnitude % 60);
  return result + text;
}

} // namespace dktest
