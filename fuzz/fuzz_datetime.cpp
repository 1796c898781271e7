// Fuzz target for the date-time text reader and writer (DKDateTimeEx::FromString/AsString, and
// DKDateTime::FromString with its TO_DATE form).
//
// Input: one mode byte, then the format up to the first 0 byte, then the text, both UTF-8
// (other inputs are passed over). Mode bit 0 picks UTC instead of the local zone,
// which is Europe/Paris so that daylight saving is in play.
// Properties checked besides "no crash":
//   - reading succeeds with a null or valid value, or fails with message 9 naming the text
//     and leaves the value null;
//   - a value read back from its own text in a complete format is the same value;
//   - writing with the fuzzed format into buffers of every small size stays inside the
//     buffer and terminates the text.
#include "FuzzCheck.h"

#include <DorvikCore/DKDateTime.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

namespace {

// The UTF-8 text; false for bytes that are not UTF-8 (the readers only ever see DKStrings).
bool Decode(const std::uint8_t* data, std::size_t size, DKString& text) {
  return text.SetFromUTF8(reinterpret_cast<const char*>(data), size).Good();
}

void Check(bool condition) {
  if (!condition)
    std::abort();
}

// In UTC the fields are exact (a local offset may have seconds, which "%z" does not show).
void CheckRoundTrip(const DKDateTimeEx& value) {
  const DKChar* format = value.IsDateAndTime() ? DK_T("%Y/%m/%d %H:%M:%S.%L%z")
                         : value.HasDate()      ? DK_T("%Y/%m/%d")
                                                : DK_T("%H:%M:%S.%L");
  DKDateTimeEx back;
  Check(back.FromString(value.AsString(format, DKTimeZone::UTC), format, DKTimeZone::Local).Good());
  Check(back == value);
}

void CheckWriting(const DKDateTimeEx& value, const DKString& format, const DKTimeZone& zone) {
  for (unsigned size : {0u, 1u, 2u, 5u, 6u, 7u, 9u, 12u, 64u}) {
    std::vector<DKChar> buffer(size + 1, DK_T('#'));
    value.AsString(buffer.data(), size, format.c_str(), zone).IgnoreError(); // a short buffer is refused; only the bound matters here
    Check(buffer[size] == DK_T('#'));
    if (size > 0) {
      bool terminated = false;
      for (unsigned i = 0; i < size && !terminated; ++i)
        terminated = buffer[i] == 0;
      Check(terminated);
    }
  }
  (void)value.AsString(format, zone);
}

} // namespace

DK_FUZZ_LOCAL_ZONE("Europe/Paris")

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0 || size > 4096)
    return 0;
  const DKTimeZone zone = data[0] & 1 ? DKTimeZone::UTC : DKTimeZone::Local;
  ++data;
  --size;
  const std::uint8_t* split = static_cast<const std::uint8_t*>(std::memchr(data, 0, size));
  const std::size_t formatSize = split ? static_cast<std::size_t>(split - data) : size;
  DKString format, text;
  if (!Decode(data, formatSize, format) || (split && !Decode(split + 1, size - formatSize - 1, text)))
    return 0;

  DKDateTimeEx value = DKDateTimeEx::GetCurrentDateTime();
  const DKErrorID result = value.FromString(text, format, zone);
  if (result.Good()) {
    Check(value.IsNull() || value.IsValid());
    if (!value.IsNull() && text != DK_T("SYSDATE"))
      CheckRoundTrip(value);
  } else {
    Check(result.GetCode() == DK_MSG_INVALID_DATE);
    Check(value.IsNull());
    Check(result.GetError()->GetParameterValueAsString(0, DKExecContext()) == text);
  }
  CheckWriting(value.IsNull() ? DKDateTimeEx(2021, 3, 28, 2, 30, 0, 7, zone) : value, format, zone);

  DKDateTime old(12345);
  if (old.FromString(text, format, zone).Bad())
    Check(old == DKDateTime(12345));
  DKDateEx date;
  (void)date.FromString(text, format);
  DKTimeEx time;
  (void)time.FromString(text, format);
  return 0;
}
