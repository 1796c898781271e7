// The operating system's calendar records (SYSTEMTIME, FILETIME, automation dates in a
// VARIANT) and their conversions, done by arithmetic so that they behave the same everywhere.
#pragma once

#include <DorvikCore/DKTypes.h>

#include <cstdint>

#if defined(_WIN32)
#  include <windows.h> // SYSTEMTIME, FILETIME
#  include <oaidl.h>   // VARIANT
#else
// The records as Windows lays them out, so that code written against them builds here too.
struct SYSTEMTIME {
  std::uint16_t wYear;
  std::uint16_t wMonth; // 1..12
  std::uint16_t wDayOfWeek; // 0 = Sunday
  std::uint16_t wDay;
  std::uint16_t wHour;
  std::uint16_t wMinute;
  std::uint16_t wSecond;
  std::uint16_t wMilliseconds;
};

// 100-nanosecond intervals since 1601-01-01 00:00:00 UTC.
struct FILETIME {
  std::uint32_t dwLowDateTime;
  std::uint32_t dwHighDateTime;
};

// The variant types the date classes read and write.
enum DKVariantType : std::uint16_t { VT_EMPTY = 0, VT_NULL = 1, VT_R8 = 5, VT_DATE = 7 };

// An automation variant reduced to the members a date needs. `date` is an automation date:
// days since 1899-12-30, the fraction being the time of day (for a negative value the
// fraction still counts forward from midnight: -1.25 is 1899-12-29 06:00).
struct VARIANT {
  std::uint16_t vt;
  std::uint16_t wReserved1;
  std::uint16_t wReserved2;
  std::uint16_t wReserved3;
  union {
    double date;
    double dblVal;
    std::int64_t llVal;
    std::int32_t lVal;
  };
};
#endif

// A SYSTEMTIME with constructors.
class DK_EXPORT DKSystemTime : public SYSTEMTIME {
public:
  DKSystemTime() noexcept : SYSTEMTIME{} {}
  DKSystemTime(std::uint16_t year, std::uint16_t month, std::uint16_t dayOfWeek, std::uint16_t day, std::uint16_t hour,
               std::uint16_t minute, std::uint16_t second, std::uint16_t milliseconds) noexcept
      : SYSTEMTIME{year, month, dayOfWeek, day, hour, minute, second, milliseconds} {}
  DKSystemTime(const SYSTEMTIME& other) noexcept : SYSTEMTIME(other) {}

  static void Assign(SYSTEMTIME& to, const SYSTEMTIME& from) noexcept { to = from; }
};

// The year is tested in its unsigned form: a negative year counts as 2^32 plus the year, so
// -100 is a leap year and -1 is not.
DK_EXPORT bool DKIsLeapYear(unsigned year) noexcept;

// a - b in seconds (milliseconds ignored), clamped to the int range. Fields out of range
// count as they stand.
DK_EXPORT int DKSystemTimeDifference(const SYSTEMTIME& a, const SYSTEMTIME& b) noexcept;

// True when the record names a real moment: month 1..12, day within the month, hour 0..23,
// minute and second 0..59, milliseconds 0..999. The day of the week is not checked.
DK_EXPORT bool DKIsValidSystemTime(const SYSTEMTIME& time) noexcept;

// Automation dates. The record must be valid with a year in 100..9999; milliseconds are
// ignored. The value must lie between -657434 (year 100) and 2958466 (exclusive, after
// 9999-12-31); the time is rounded to the nearest second and the day of the week filled in.
DK_EXPORT bool DKSystemTimeToVariantTime(const SYSTEMTIME& time, double& variantTime) noexcept;
DK_EXPORT bool DKVariantTimeToSystemTime(double variantTime, SYSTEMTIME& time) noexcept;

// FILETIME <-> SYSTEMTIME (both UTC). A FILETIME above 0x7FFFFFFFFFFFFFFF and a record before
// 1601 or not valid are refused.
DK_EXPORT bool DKFileTimeToSystemTime(const FILETIME& fileTime, SYSTEMTIME& time) noexcept;
DK_EXPORT bool DKSystemTimeToFileTime(const SYSTEMTIME& time, FILETIME& fileTime) noexcept;
