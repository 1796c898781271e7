// DKTimeZone: the zone in which wall-clock fields are read and written. Two zones are
// predefined: zone 0, the process's local zone (daylight saving included), and zone 1, UTC.
//
// What the local zone follows:
// - Linux: the C library's local zone: the TZ environment variable, a zone of the system's
//   time-zone database ("Europe/Paris") or a POSIX rule ("CET-1CEST,M3.5.0,M10.5.0/3"), else
//   /etc/localtime.
// - Windows: TZ when it holds a POSIX rule ("CET-1CEST,M3.5.0,M10.5.0/3", or the C runtime's
//   short form "PST8PDT", whose daylight saving runs from the second Sunday of March to the first
//   Sunday of November), which the library evaluates itself for every year; otherwise (TZ unset,
//   a zone name, text that is no rule) the zone of the system settings, with its rules for each
//   year.
#pragma once

#include <DorvikCore/DKString.h>
#include <DorvikCore/DKSystemTime.h>
#include <DorvikCore/DKTypes.h>

// A zone named by its id: a small value, cheap to copy.
class DK_EXPORT DKTimeZone {
public:
  // The ids of the predefined zones.
  enum Predefined : int {
    Local = 0, // The process's local zone (TZ, or the system setting); the library's default zone.
    UTC = 1,   // Coordinated Universal Time: offset 0, no daylight saving.
  };

  // The local zone, or the predefined zone id.
  constexpr DKTimeZone() noexcept : m_id(Local) {}
  constexpr DKTimeZone(Predefined id) noexcept : m_id(id) {}

  // The zone's id (a Predefined value).
  constexpr int GetId() const noexcept { return m_id; }
  // True for UTC.
  constexpr bool IsUTC() const noexcept { return m_id == UTC; }
  // True when both name the same zone.
  friend constexpr bool operator==(const DKTimeZone& a, const DKTimeZone& b) noexcept { return a.m_id == b.m_id; }

  // Offset of the zone from UTC at a UTC instant (seconds since 1970-01-01), in seconds east
  // of UTC (Paris in summer: 7200). daylight, when given, tells whether daylight saving is in
  // force then.
  int GetOffset(DKInt64 utcSeconds, bool* daylight = nullptr) const noexcept;
  // The UTC instant of a wall-clock reading in this zone, both as seconds since 1970 (the
  // reading counted as if it were UTC). A reading that occurs twice (the hour repeated when
  // daylight saving ends) gives the earlier instant; one that does not occur (the hour
  // skipped when it starts) is moved forward by the length of the gap, as the clock would be.
  // Far beyond the years the system knows, the zone's standard offset applies, and a result
  // past either end of the 64-bit range stops at that end.
  DKInt64 ToUTC(DKInt64 wallSeconds) const noexcept;
  // The wall-clock reading of a UTC instant, counted as seconds since 1970; it stops at the
  // ends of the 64-bit range as ToUTC does.
  DKInt64 FromUTC(DKInt64 utcSeconds) const noexcept;

  // Converts a UTC SYSTEMTIME to this zone's wall clock; false (zoneTime unchanged) when the
  // record is not a valid date and time or the result falls outside the years 0 to 65535.
  bool SystemTimeToZone(const dk::SYSTEMTIME& utc, dk::SYSTEMTIME& zoneTime) const noexcept;
  // Converts this zone's wall-clock SYSTEMTIME to UTC, as ToUTC reads it; false (utc unchanged)
  // as for SystemTimeToZone.
  bool ZoneToSystemTime(const dk::SYSTEMTIME& zoneTime, dk::SYSTEMTIME& utc) const noexcept;

  // Minutes to add to the zone's standard time to get UTC (Paris: -60, New York: 300).
  int GetBias() const noexcept;
  // The zone's name ("CET", "CEST", "UTC"), for standard or daylight time.
  DKString GetName(bool daylight = false) const;

  // Reads the local zone's setting again (TZ, and on Windows the system's settings): call it
  // after changing TZ so that zone 0 follows.
  static void Reload() noexcept;

private:
  int m_id;
};
