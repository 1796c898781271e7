// The exceptions of the date and time values.
#include <DorvikCore/DKDateExceptions.h>

#include "datetime/DKDateTimeText.h"

#include <limits>

namespace {

DKString OutOfRange(const DKString& value) { return DKString(DK_T("Date and time out of range: ")) + value; }

DKString DurationText(DKInt64 count, DKDurationEx::Unit unit) {
  DKString text(DK_T("Duration out of range: "));
  dkdt::AppendInt(text, count);
  if (DKDurationEx::GetLongName(unit)[0] != 0) {
    text += DK_T(' ');
    text += DKDurationEx::GetLongName(unit);
  }
  return text;
}

std::int32_t Saturated(DKInt64 count) noexcept {
  if (count > std::numeric_limits<std::int32_t>::max())
    return std::numeric_limits<std::int32_t>::max();
  if (count < std::numeric_limits<std::int32_t>::min())
    return std::numeric_limits<std::int32_t>::min();
  return static_cast<std::int32_t>(count);
}

} // namespace

DKDateException::DKDateException(const DKDateTime& dateTime)
    : DKException(OutOfRange(dateTime.AsString(DKString(), DKTimeZone::UTC) + DK_T(" UTC"))), m_dateTime(dateTime) {}

DKDateException::DKDateException(const DKString& text) : DKException(text) {}

DKDateException::~DKDateException() = default;

DKDateExceptionEx::DKDateExceptionEx(const DKDateTimeEx& dateTime)
    : DKException(OutOfRange(dateTime.AsString(DKString(), DKTimeZone::UTC) + (dateTime.IsDateAndTime() ? DK_T(" UTC") : DK_T("")))),
      m_dateTime(dateTime) {}

DKDateExceptionEx::DKDateExceptionEx(const DKString& text) : DKException(text) {}

DKDateExceptionEx::~DKDateExceptionEx() = default;

DKDurationExceptionEx::DKDurationExceptionEx(const DKDurationEx& duration)
    : DKException(DurationText(duration.GetDuration(), duration.GetUnit())), m_duration(duration),
      m_count(duration.GetDuration()) {}

DKDurationExceptionEx::DKDurationExceptionEx(DKInt64 count, DKDurationEx::Unit unit)
    : DKException(DurationText(count, unit)), m_duration(DKDurationEx::RawTag(), Saturated(count), unit), m_count(count) {}

DKDurationExceptionEx::DKDurationExceptionEx(const DKString& text) : DKException(text), m_count(0) {}

DKDurationExceptionEx::~DKDurationExceptionEx() = default;
