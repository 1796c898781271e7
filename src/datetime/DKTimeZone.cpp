// The two predefined time zones: the process's local zone and UTC.
#include <DorvikCore/DKError.h>
#include <DorvikCore/DKTimeZone.h>

#include "datetime/DKCalendar.h"
#include "os/DKClock.h"

int DKTimeZone::GetOffset(DKInt64 utcSeconds, bool* daylight) const noexcept {
  if (IsUTC()) {
    if (daylight)
      *daylight = false;
    return 0;
  }
  return DKClock::LocalOffsetAt(utcSeconds, daylight);
}

DKInt64 DKTimeZone::ToUTC(DKInt64 wallSeconds) const noexcept {
  return IsUTC() ? wallSeconds : DKClock::LocalToUtc(wallSeconds);
}

DKInt64 DKTimeZone::FromUTC(DKInt64 utcSeconds) const noexcept {
  return IsUTC() ? utcSeconds : DKClock::UtcToLocal(utcSeconds);
}

namespace {

bool ShiftRecord(const dk::SYSTEMTIME& from, dk::SYSTEMTIME& to, DKInt64 (*shift)(const DKTimeZone&, DKInt64),
                 const DKTimeZone& zone) noexcept {
  if (!DKIsValidSystemTime(from))
    return false;
  const std::int64_t days = dkcal::DaysFromCivil(from.wYear, from.wMonth, from.wDay);
  const std::int64_t seconds = days * dkcal::secondsPerDay + from.wHour * 3600 + from.wMinute * 60 + from.wSecond;
  const dkcal::Moment moment = dkcal::MsToMoment(shift(zone, seconds) * 1000 + from.wMilliseconds);
  if (moment.date.year < 0 || moment.date.year > 65535)
    return false;
  const std::int64_t newDays = dkcal::DaysFromCivil(moment.date.year, moment.date.month, moment.date.day);
  int hour, minute, second, millisecond;
  dkcal::SplitTime(moment.msOfDay, hour, minute, second, millisecond);
  to = DKSystemTime(static_cast<std::uint16_t>(moment.date.year), static_cast<std::uint16_t>(moment.date.month),
                    static_cast<std::uint16_t>(dkcal::WeekDayOfDays(newDays)), static_cast<std::uint16_t>(moment.date.day),
                    static_cast<std::uint16_t>(hour), static_cast<std::uint16_t>(minute), static_cast<std::uint16_t>(second),
                    static_cast<std::uint16_t>(millisecond));
  return true;
}

} // namespace

bool DKTimeZone::SystemTimeToZone(const dk::SYSTEMTIME& utc, dk::SYSTEMTIME& zoneTime) const noexcept {
  return ShiftRecord(utc, zoneTime, [](const DKTimeZone& z, DKInt64 s) { return z.FromUTC(s); }, *this);
}

bool DKTimeZone::ZoneToSystemTime(const dk::SYSTEMTIME& zoneTime, dk::SYSTEMTIME& utc) const noexcept {
  return ShiftRecord(zoneTime, utc, [](const DKTimeZone& z, DKInt64 s) { return z.ToUTC(s); }, *this);
}

int DKTimeZone::GetBias() const noexcept { return IsUTC() ? 0 : -DKClock::LocalStandardOffset() / 60; }

DKString DKTimeZone::GetName(bool daylight) const {
  if (IsUTC())
    return DKString(DK_T("UTC"));
  return DKString::FromUTF8(DKClock::LocalZoneName(daylight));
}

void DKTimeZone::Reload() noexcept { DKClock::ReloadZone(); }
