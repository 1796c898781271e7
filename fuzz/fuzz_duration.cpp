// Fuzz target for the duration text reader (DKDurationEx::FromString) and the conversions.
//
// Input: one byte choosing the default unit (mod 9), then the text as UTF-8 (other inputs
// are passed over).
// Properties checked besides "no crash":
//   - the only exception is DKDurationExceptionEx, for a count below -2147483647;
//   - the result is true exactly when the unit is valid;
//   - a valid duration reads back from both of its text forms as the same value;
//   - conversions keep the count in range or throw DKDurationExceptionEx.
#include <DorvikCore/DKDateTime.h>

#include <cstdint>
#include <cstdlib>

namespace {

void Check(bool condition) {
  if (!condition)
    std::abort();
}

// The UTF-8 text; false for bytes that are not UTF-8 (the readers only ever see DKStrings).
bool Decode(const std::uint8_t* data, std::size_t size, DKString& text) {
  return text.SetFromUTF8(reinterpret_cast<const char*>(data), size).Good();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0 || size > 1024)
    return 0;
  const auto defaultUnit = static_cast<DKDurationEx::Unit>(data[0] % 9);
  DKString text;
  if (!Decode(data + 1, size - 1, text))
    return 0;

  DKDurationEx d;
  bool ok = false;
  try {
    ok = d.FromString(text, defaultUnit);
  } catch (const DKDurationExceptionEx& e) {
    Check(e.GetCount() < DKDurationEx::minimum_);
    return 0;
  }
  Check(ok == d.IsValid());
  Check(d.GetDuration() != -2147483647 - 1);
  if (!ok)
    return 0;
  for (bool longForm : {false, true}) {
    DKDurationEx back;
    Check(back.FromString(d.AsString(longForm), DKDurationEx::Invalid) || d.GetDuration() == 0);
    Check(back == d || d.GetDuration() == 0);
  }
  for (int unit = 0; unit <= DKDurationEx::Invalid; ++unit) {
    try {
      DKDurationEx c = d;
      if (c.ConvertTo(static_cast<DKDurationEx::Unit>(unit), (unit & 1) != 0))
        Check(c.GetDuration() != -2147483647 - 1);
      c.Normalize();
      Check(c.IsEquivalent(c) == c.IsValid());
      (void)(c + d);
      (void)(c - d);
      (void)(d * -3);
    } catch (const DKDurationExceptionEx&) {
    }
  }
  DKDateTimeEx t(2021, 3, 28, 1, 30, 0, 0, DKTimeZone::UTC);
  try {
    t += d;
  } catch (const DKDateExceptionEx&) {
  }
  return 0;
}
