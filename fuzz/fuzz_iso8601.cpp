// Fuzz target for the ISO 8601 text of DKDateTimeEx (FromISO8601, AsISO8601) and its
// std::chrono forms (time points and day counts).
//
// Property: what is written reads back as the same value.
//   - Text mode: reading either fails with message 9 naming the text and leaves the value
//     null, or gives a valid value (null only for the empty text); that value, written in UTC
//     and in the local zone, reads back as the same value, whatever zone the reader is given,
//     and its UTC text is the same whichever text it was read from.
//   - Instant mode: any millisecond count in the library's range becomes a value through
//     std::chrono::sys_time, is written in UTC and in the local zone and reads back as the
//     same instant, and converts back to the same time point and day count; a count outside
//     the range is refused and changes nothing.
//
// Input: one mode byte, then (text mode) the text as UTF-8, or (instant mode) eight bytes of
// a signed count. Mode bit 0 picks the instant mode; bit 1 gives the reader the UTC zone
// instead of the local zone, which is Europe/Paris so that daylight saving and the local mean
// time of old dates (an offset with seconds) are in play.
#include "FuzzCheck.h"

#include <DorvikCore/DKDateTime.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

using sys_ms = std::chrono::sys_time<std::chrono::milliseconds>;

// The value written in a zone reads back as itself.
void CheckWrittenReadsBack(const DKDateTimeEx& value, const DKTimeZone& writeZone, const DKTimeZone& readZone) {
  const DKString text = value.AsISO8601(writeZone);
  DKDateTimeEx back = DKDateTimeEx::maximum;
  FUZZ_CHECK(back.FromISO8601(text, readZone).Good());
  FUZZ_CHECK(back == value);
}

void TextMode(const std::uint8_t* data, std::size_t size, const DKTimeZone& readZone) {
  DKString text;
  if (text.SetFromUTF8(reinterpret_cast<const char*>(data), size).Bad())
    return;
  DKDateTimeEx value = DKDateTimeEx::GetCurrentDateTime();
  const DKErrorID result = value.FromISO8601(text, readZone);
  if (result.Bad()) {
    FUZZ_CHECK(result.GetCode() == DK_MSG_INVALID_DATE);
    FUZZ_CHECK(result.GetError()->GetParameterValueAsString(0, DKExecContext()) == text);
    FUZZ_CHECK(value.IsNull());
    return;
  }
  FUZZ_CHECK(value.IsNull() == text.IsEmpty());
  FUZZ_CHECK(value.IsNull() || value.IsValid());
  for (const DKTimeZone& writeZone : {DKTimeZone(DKTimeZone::UTC), DKTimeZone(DKTimeZone::Local)})
    for (const DKTimeZone& zone : {DKTimeZone(DKTimeZone::UTC), DKTimeZone(DKTimeZone::Local)})
      CheckWrittenReadsBack(value, writeZone, zone);
  // The UTC text is the canonical one: reading it gives that text again.
  DKDateTimeEx canonical;
  FUZZ_CHECK(canonical.FromISO8601(value.AsISO8601(), readZone).Good());
  FUZZ_CHECK(canonical.AsISO8601() == value.AsISO8601());
}

void InstantMode(const std::uint8_t* data, std::size_t size) {
  if (size < 8)
    return;
  std::int64_t count = 0;
  std::memcpy(&count, data, sizeof count);
  DKInt64 first = 0, last = 0;
  FUZZ_CHECK(DKDateTimeEx::minimum.AsUnixTime(first) && DKDateTimeEx::maximum.AsUnixTime(last));
  // Mostly counts within the range, sometimes the raw count.
  const bool raw = (data[7] & 0x40) != 0;
  const DKInt64 span = (last - first + 1) * 1000;
  const DKInt64 ms = raw ? count : first * 1000 + static_cast<DKInt64>(static_cast<DKUInt64>(count) % static_cast<DKUInt64>(span));
  const bool inRange = ms >= first * 1000 && ms <= last * 1000 + 999;

  DKDateTimeEx value = DKDateTimeEx::minimum;
  const bool ok = value.FromTimePoint(sys_ms(std::chrono::milliseconds(ms)));
  FUZZ_CHECK(ok == inRange);
  if (!ok) {
    FUZZ_CHECK(value == DKDateTimeEx::minimum);
    return;
  }
  FUZZ_CHECK(value.IsDateAndTime() && value.IsValid());
  sys_ms back{};
  FUZZ_CHECK(value.AsTimePoint(back) && back.time_since_epoch().count() == ms);
  std::chrono::sys_days day{};
  FUZZ_CHECK(value.AsSysDays(day) && day == std::chrono::floor<std::chrono::days>(back));
  DKDateTimeEx date;
  FUZZ_CHECK(date.FromSysDays(day) && date.IsOnlyDate() && date.GetDate() == value.GetDate());
  for (const DKTimeZone& writeZone : {DKTimeZone(DKTimeZone::UTC), DKTimeZone(DKTimeZone::Local)})
    CheckWrittenReadsBack(value, writeZone, DKTimeZone::Local);
  CheckWrittenReadsBack(date, DKTimeZone::Local, DKTimeZone::Local);
  CheckWrittenReadsBack(DKDateTimeEx(value.GetTime()), DKTimeZone::Local, DKTimeZone::UTC);
}

} // namespace

DK_FUZZ_LOCAL_ZONE("Europe/Paris")

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0 || size > 4096)
    return 0;
  const std::uint8_t mode = data[0];
  if (mode & 1)
    InstantMode(data + 1, size - 1);
  else
    TextMode(data + 1, size - 1, mode & 2 ? DKTimeZone::UTC : DKTimeZone::Local);
  return 0;
}
