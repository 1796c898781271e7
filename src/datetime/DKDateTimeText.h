// The "%" text engine shared by the date and time classes (internal): writing fields into a
// bounded buffer, and the lenient reader that collects fields from text.
#pragma once

#include <DorvikCore/DKError.h>
#include <DorvikCore/DKString.h>
#include <DorvikCore/DKTypes.h>

#include "datetime/DKCalendar.h"

#include <cstddef>
#include <cstdint>
#include <iosfwd>

namespace dkdt {

// Appends a signed decimal number, its magnitude padded with zeros to minDigits digits.
void AppendInt(DKString& out, DKInt64 value, unsigned minDigits = 1);

// The fields a format can print. Fields the value does not hold stay 0.
struct WriteFields {
  DKInt64 year = 0;
  int month = 0;
  int day = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
  int millisecond = 0;
};

// What the writer asks only when the format names it: the week number ("%W") and the offset
// from UTC in seconds east ("%Z", "%z"; false writes "Z").
struct WriteExtras {
  virtual int Week() const = 0;
  virtual bool Offset(int& seconds) const = 0;

protected:
  ~WriteExtras() = default;
};

// Writes the fields through the format into buffer. Writing stops once size - 5 characters
// are written, or before a code whose text would not fit; the text is always terminated
// (for size 0 nothing is written).
void WriteText(DKChar* buffer, unsigned size, const DKChar* format, const WriteFields& fields, const WriteExtras& extras) noexcept;
// The same into a string, without a length limit.
DKString WriteString(const DKChar* format, const WriteFields& fields, const WriteExtras& extras);

// What the reader found.
struct ReadFields {
  enum Field { Year, Month, Day, Hour, Minute, Second, Millisecond, FieldCount };
  static constexpr unsigned DateMask = 1u << Year | 1u << Month | 1u << Day;
  static constexpr unsigned TimeMask = 1u << Hour | 1u << Minute | 1u << Second | 1u << Millisecond;

  unsigned read = 0;            // bit n: field n was read
  DKInt64 value[FieldCount] = {}; // the fields read; the others stay 0
  // The text named its zone ("Z" or "+hh:mm"): the fields are UTC once `offset` seconds are
  // added.
  bool zoneNamed = false;
  int offset = 0;

  DKInt64 year() const noexcept { return value[Year]; }
  DKInt64 month() const noexcept { return value[Month]; }
  DKInt64 day() const noexcept { return value[Day]; }
  bool HasDate() const noexcept { return (read & DateMask) != 0; }
  bool HasTime() const noexcept { return (read & TimeMask) != 0; }
  // The date fields read form a valid date within the years given (fields not read hold 0,
  // so they make it invalid).
  bool IsValidDate(DKInt64 minYear, DKInt64 maxYear) const noexcept {
    return year() >= minYear && year() <= maxYear && dkcal::IsValidDate(year(), month(), day());
  }
  // The time fields read are within range (fields not read hold 0).
  bool IsValidTime() const noexcept {
    return dkcal::IsValidTime(value[Hour], value[Minute], value[Second], value[Millisecond]);
  }
  DKInt64 TimeMs() const noexcept { return dkcal::TimeMs(value[Hour], value[Minute], value[Second], value[Millisecond]); }
};

// "SYSDATE": the current moment.
inline bool IsSysdate(const DKString& text) noexcept { return text.Length() == 7 && text == DK_T("SYSDATE"); }
// Only spaces, or nothing.
inline bool IsBlank(const DKString& text) noexcept {
  for (DKChar c : text)
    if (c != ' ')
      return false;
  return true;
}

// The format every class reads with by default: "%Y/%m/%d %H:%M:%S.%L". Reading is lenient, so
// it also reads a date alone, a time alone, and a time without milliseconds.
const DKString& DefaultReadFormat();
// Collects the fields of the text through the format (see DKDateEx.h for the rules).
void ReadText(const DKString& text, const DKString& format, ReadFields& fields) noexcept;

// The library's message 9 with the text as its parameter.
DKErrorID InvalidDate(const DKString& text);

// Reads a value's text from a stream: one word, or two joined by one space when the second
// starts with a digit (a date and a time). False (failbit set) when nothing could be read or
// the text is not UTF-8.
bool ReadStreamText(std::istream& is, DKString& text);

} // namespace dkdt
