// Fuzz target for the duration text readers (DKDurationEx::FromString and
// FromReadableString) and the conversions.
//
// Input: one byte choosing the default unit (mod 9), then the text as UTF-8 (other inputs
// are passed over). Both readers get the text.
// Properties checked besides "no crash":
//   - the only exception is DKDurationExceptionEx, for a count below -2147483647, and only
//     from FromString;
//   - the result is true exactly when the unit is valid; the readable reader gives invalid_
//     when it fails;
//   - a valid duration reads back from both of its text forms as the same value, and from
//     its readable text as the same amount (the same std::chrono milliseconds, or for years
//     and months an equivalent duration) whose readable text is the same again;
//   - a duration with a fixed length goes to std::chrono::milliseconds and back unchanged in
//     amount;
//   - conversions keep the count in range or throw DKDurationExceptionEx.
#include <DorvikCore/DKDateTime.h>

#include <chrono>
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

// The readable text of a valid duration reads back as the same amount, and writes the same.
void CheckReadable(const DKDurationEx& d) {
  for (bool longForm : {true, false}) {
    const DKString text = d.AsReadableString(longForm);
    DKDurationEx back;
    Check(back.FromReadableString(text));
    std::chrono::milliseconds before{}, after{};
    if (d.AsChrono(before))
      Check(back.AsChrono(after) && after == before);
    else
      Check(back.IsEquivalent(d));
    Check(back.AsReadableString(longForm) == text);
  }
  std::chrono::milliseconds amount{};
  if (d.AsChrono(amount)) {
    DKDurationEx fromChrono;
    std::chrono::milliseconds back{};
    Check(fromChrono.FromChrono(amount) && fromChrono.IsEquivalent(d) && fromChrono.AsChrono(back) && back == amount);
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0 || size > 1024)
    return 0;
  const auto defaultUnit = static_cast<DKDurationEx::Unit>(data[0] % 9);
  DKString text;
  if (!Decode(data + 1, size - 1, text))
    return 0;

  DKDurationEx readable(1, DKDurationEx::Day);
  if (readable.FromReadableString(text)) {
    Check(readable.IsValid());
    CheckReadable(readable);
  } else {
    Check(readable == DKDurationEx::invalid_);
  }

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
  CheckReadable(d);
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
