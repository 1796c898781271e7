// The exceptions of the date and time values: a value that would leave its range, text that
// a constructor cannot read, and a duration count that cannot be held.
#pragma once

#include <DorvikCore/DKDate.h>
#include <DorvikCore/DKDateEx.h>
#include <DorvikCore/DKDurationEx.h>
#include <DorvikCore/DKException.h>

// A DKDateTime (or DKDate) that cannot be made: the offending or bounding value, or a text.
class DK_EXPORT DKDateException : public DKException {
public:
  // A value out of range; the message reads "Date and time out of range: " and the value in UTC.
  explicit DKDateException(const DKDateTime& dateTime);
  // A text that could not be read, as the message; the value is the null one (count 0).
  explicit DKDateException(const DKString& text);
  ~DKDateException() override;
  // The offending or bounding value; null when the exception was made from a text.
  const DKDateTime& dateTime() const noexcept { return m_dateTime; }

private:
  DKDateTime m_dateTime;
};

// A DKDateTimeEx, DKDateEx or DKTimeEx that cannot be made: the bound it would have left, or
// the text that could not be read (the value is then null).
class DK_EXPORT DKDateExceptionEx : public DKException {
public:
  // A value out of range; the message reads "Date and time out of range: " and the value (a
  // date and time in UTC).
  explicit DKDateExceptionEx(const DKDateTimeEx& dateTime);
  // A text that could not be read, as the message.
  explicit DKDateExceptionEx(const DKString& text);
  ~DKDateExceptionEx() override;
  // The bound the value would have left; null when the exception was made from a text.
  const DKDateTimeEx& dateTime() const noexcept { return m_dateTime; }

private:
  DKDateTimeEx m_dateTime;
};

// A duration count out of range (-2147483648 included): GetDuration returns the duration
// (holding the offending count where it fits 32 bits), GetCount the offending count itself.
class DK_EXPORT DKDurationExceptionEx : public DKException {
public:
  // The message reads "Duration out of range: ", the count and the unit's long name.
  explicit DKDurationExceptionEx(const DKDurationEx& duration);
  DKDurationExceptionEx(DKInt64 count, DKDurationEx::Unit unit);
  // A text that could not be read, as the message; the duration is invalid and the count 0.
  explicit DKDurationExceptionEx(const DKString& text);
  ~DKDurationExceptionEx() override;
  // The duration, its count clamped to 32 bits.
  const DKDurationEx& GetDuration() const noexcept { return m_duration; }
  // The offending count as given.
  DKInt64 GetCount() const noexcept { return m_count; }

private:
  DKDurationEx m_duration;
  DKInt64 m_count;
};
