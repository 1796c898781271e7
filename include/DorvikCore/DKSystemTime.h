// The operating system's calendar records (SYSTEMTIME, FILETIME, automation dates in a
// VARIANT) and their conversions, done by arithmetic so that they behave the same everywhere.
#pragma once

#include <DorvikCore/DKSystemRecords.h>
#include <DorvikCore/DKTypes.h>

#include <cstdint>

// A SYSTEMTIME with constructors.
class DK_EXPORT DKSystemTime : public dk::SYSTEMTIME {
public:
  // Every field 0 (not a valid record), the fields given (not checked), or a copy of a record.
  DKSystemTime() noexcept : dk::SYSTEMTIME{} {}
  DKSystemTime(std::uint16_t year, std::uint16_t month, std::uint16_t dayOfWeek, std::uint16_t day, std::uint16_t hour,
               std::uint16_t minute, std::uint16_t second, std::uint16_t milliseconds) noexcept
      : dk::SYSTEMTIME{year, month, dayOfWeek, day, hour, minute, second, milliseconds} {}
  DKSystemTime(const dk::SYSTEMTIME& other) noexcept : dk::SYSTEMTIME(other) {}

  // Copies every field of from to to.
  static void Assign(dk::SYSTEMTIME& to, const dk::SYSTEMTIME& from) noexcept { to = from; }
};

// The year is tested in its unsigned form: a negative year counts as 2^32 plus the year, so
// -100 is a leap year and -1 is not.
DK_EXPORT bool DKIsLeapYear(unsigned year) noexcept;

// a - b in seconds (milliseconds ignored), clamped to the int range. Fields out of range
// count as they stand.
DK_EXPORT int DKSystemTimeDifference(const dk::SYSTEMTIME& a, const dk::SYSTEMTIME& b) noexcept;

// True when the record names a real moment: month 1..12, day within the month, hour 0..23,
// minute and second 0..59, milliseconds 0..999. The day of the week is not checked.
DK_EXPORT bool DKIsValidSystemTime(const dk::SYSTEMTIME& time) noexcept;

// Automation dates. The record must be valid with a year in 100..9999; milliseconds are
// ignored. The value must lie between -657434 (year 100) and 2958466 (exclusive, after
// 9999-12-31); the time is rounded to the nearest second and the day of the week filled in.
// False (the output unchanged) outside those bounds.
DK_EXPORT bool DKSystemTimeToVariantTime(const dk::SYSTEMTIME& time, double& variantTime) noexcept;
DK_EXPORT bool DKVariantTimeToSystemTime(double variantTime, dk::SYSTEMTIME& time) noexcept;

// FILETIME <-> SYSTEMTIME (both UTC). A FILETIME above 0x7FFFFFFFFFFFFFFF and a record before
// 1601 or not valid are refused: false, the output unchanged.
DK_EXPORT bool DKFileTimeToSystemTime(const dk::FILETIME& fileTime, dk::SYSTEMTIME& time) noexcept;
DK_EXPORT bool DKSystemTimeToFileTime(const dk::SYSTEMTIME& time, dk::FILETIME& fileTime) noexcept;
