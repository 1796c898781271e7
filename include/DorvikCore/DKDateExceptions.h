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
  explicit DKDateException(const DKDateTime& dateTime);
  explicit DKDateException(const DKString& text);
  ~DKDateException() override;
  const DKDateTime& dateTime() const noexcept { return m_dateTime; }

private:
  DKDateTime m_dateTime;
};

// A DKDateTimeEx, DKDateEx or DKTimeEx that cannot be made: the bound it would have left, or
// the text that could not be read (the value is then null).
class DK_EXPORT DKDateExceptionEx : public DKException {
public:
  explicit DKDateExceptionEx(const DKDateTimeEx& dateTime);
  explicit DKDateExceptionEx(const DKString& text);
  ~DKDateExceptionEx() override;
  const DKDateTimeEx& dateTime() const noexcept { return m_dateTime; }

private:
  DKDateTimeEx m_dateTime;
};

// A duration count out of range (-2147483648 included): GetDuration returns the duration
// (holding the offending count where it fits 32 bits), GetCount the offending count itself.
class DK_EXPORT DKDurationExceptionEx : public DKException {
public:
  explicit DKDurationExceptionEx(const DKDurationEx& duration);
  DKDurationExceptionEx(DKInt64 count, DKDurationEx::Unit unit);
  explicit DKDurationExceptionEx(const DKString& text);
  ~DKDurationExceptionEx() override;
  const DKDurationEx& GetDuration() const noexcept { return m_duration; }
  DKInt64 GetCount() const noexcept { return m_count; }

private:
  DKDurationEx m_duration;
  DKInt64 m_count;
};
