// Number conversions of DKString. They follow the C library's wcstol/wcstoul/wcstod and
// "%I64d%n" scanning rules, but are written out here so that they do not depend on the
// process locale or on the platform's width of long.
#include <DorvikCore/DKString.h>

#include "text/DKUnicodeTables.h"

#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string>
#include <system_error>

namespace {

inline bool IsDigit(DKChar c) noexcept { return c >= '0' && c <= '9'; }

// Leading white space, as the wide C conversions skip it, by the library's own classification.
inline const DKChar* SkipSpace(const DKChar* p) noexcept {
  while (DKUnicode::IsWhiteSpace(*p))
    ++p;
  return p;
}

inline void SetOk(bool* ok, bool value) noexcept {
  if (ok)
    *ok = value;
}

// Reads a sign and base-10 digits as wcstol does. `magnitude` saturates at `limit` + 1 so that
// a range error is seen without overflowing.
struct Scan {
  bool negative = false;
  bool anyDigit = false;
  std::uint64_t magnitude = 0;
  const DKChar* end = nullptr;
};

Scan ScanInteger(const DKChar* text, std::uint64_t limit) noexcept {
  Scan s;
  const DKChar* p = SkipSpace(text);
  if (*p == '+' || *p == '-')
    s.negative = *p++ == '-';
  for (; IsDigit(*p); ++p) {
    s.anyDigit = true;
    if (s.magnitude <= limit)
      s.magnitude = s.magnitude * 10 + static_cast<unsigned>(*p - '0');
  }
  s.end = s.anyDigit ? p : text;
  return s;
}

std::int32_t ToInt32(const DKString& str, bool* ok) noexcept {
  constexpr std::uint64_t kMaxNeg = 2147483648u;
  const Scan s = ScanInteger(str.c_str(), kMaxNeg);
  const std::uint64_t limit = s.negative ? kMaxNeg : kMaxNeg - 1;
  const bool range = s.magnitude > limit;
  const std::uint64_t m = range ? limit : s.magnitude;
  SetOk(ok, !range && s.anyDigit && *s.end == 0);
  return s.negative ? static_cast<std::int32_t>(-static_cast<std::int64_t>(m)) : static_cast<std::int32_t>(m);
}

std::uint32_t ToUInt32(const DKString& str, bool* ok) noexcept {
  constexpr std::uint64_t kMax = 0xFFFFFFFFu;
  const Scan s = ScanInteger(str.c_str(), kMax);
  const bool range = s.magnitude > kMax;
  SetOk(ok, !range && s.anyDigit && *s.end == 0);
  if (range)
    return static_cast<std::uint32_t>(kMax);
  const auto m = static_cast<std::uint32_t>(s.magnitude);
  return s.negative ? static_cast<std::uint32_t>(0u - m) : m; // wcstoul negates in unsigned arithmetic
}

// "%I64d%n" / "%I64u%n": sign and digits, wrapping without a range check; ok when the scan
// ends exactly at the terminator.
std::uint64_t Scan64(const DKString& str, bool* ok) noexcept {
  const DKChar* p = SkipSpace(str.c_str());
  bool negative = false;
  if (*p == '+' || *p == '-')
    negative = *p++ == '-';
  if (!IsDigit(*p)) {
    SetOk(ok, false);
    return 0;
  }
  std::uint64_t v = 0;
  for (; IsDigit(*p); ++p)
    v = v * 10 + static_cast<unsigned>(*p - '0');
  SetOk(ok, *p == 0);
  return negative ? 0 - v : v;
}

// Decimal exponent of the first significant digit of a decimal floating-point text: decides
// whether a value out of range overflowed or underflowed.
bool IsOverflow(const std::string& number) {
  std::size_t i = number.find_first_not_of("+-");
  long leadingExp = 0;
  bool seenPoint = false, significant = false;
  for (; i < number.size(); ++i) {
    const char c = number[i];
    if (c == '.') {
      seenPoint = true;
    } else if (c >= '0' && c <= '9') {
      if (c != '0')
        significant = true;
      if (!significant && seenPoint)
        --leadingExp;
      else if (significant && !seenPoint)
        ++leadingExp;
      if (significant && seenPoint)
        break;
    } else {
      break;
    }
  }
  long exp = 0;
  const std::size_t e = number.find_first_of("eE");
  if (e != std::string::npos)
    exp = std::strtol(number.c_str() + e + 1, nullptr, 10);
  // strtol saturates a huge exponent at LONG_MAX or LONG_MIN; leadingExp is bounded by the
  // text's length, so its negation cannot overflow where the sum could.
  return significant && exp > -leadingExp;
}

} // namespace

int DKString::AsInt(bool* ok) const { return ToInt32(*this, ok); }
long DKString::AsLong(bool* ok) const { return ToInt32(*this, ok); }
DKDuration DKString::AsDKDuration(bool* ok) const { return ToInt32(*this, ok); }
unsigned int DKString::AsUint(bool* ok) const { return ToUInt32(*this, ok); }
unsigned long DKString::AsULong(bool* ok) const { return ToUInt32(*this, ok); }
DKInt64 DKString::AsInt64(bool* ok) const { return static_cast<DKInt64>(Scan64(*this, ok)); }
DKUInt64 DKString::AsUInt64(bool* ok) const { return Scan64(*this, ok); }

double DKString::AsDouble(bool* ok) const {
  // Only ASCII can be part of a number: copy the candidate characters to a narrow buffer.
  const DKChar* start = SkipSpace(c_str());
  std::string narrow;
  const DKChar* p = start;
  for (; *p > 0 && *p < 0x80; ++p)
    narrow.push_back(static_cast<char>(*p));

  const char* first = narrow.c_str();
  const char* last = first + narrow.size();
  bool negative = false;
  if (first != last && (*first == '+' || *first == '-'))
    negative = *first++ == '-';
  // At most one sign: std::from_chars would read a second '-' as the number's own.
  if (first != last && (*first == '+' || *first == '-')) {
    SetOk(ok, false);
    return 0.0;
  }
  std::chars_format format = std::chars_format::general;
  const char* digits = first;
  if (last - first > 2 && first[0] == '0' && (first[1] == 'x' || first[1] == 'X')) {
    // A hexadecimal number; without a hex digit after "0x" only the "0" is read.
    const char c = first[2];
    if (std::isxdigit(static_cast<unsigned char>(c)) || (c == '.' && last - first > 3 &&
                                                          std::isxdigit(static_cast<unsigned char>(first[3])))) {
      format = std::chars_format::hex;
      digits = first + 2;
    }
  }
  double value = 0.0;
  auto [end, ec] = std::from_chars(digits, last, value, format);
  if (end == digits && ec != std::errc()) {
    SetOk(ok, false);
    return 0.0;
  }
  bool range = false;
  if (ec == std::errc::result_out_of_range) {
    range = true;
    value = IsOverflow(std::string(digits, end)) ? HUGE_VAL : 0.0;
  }
  if (negative)
    value = -value;
  const std::size_t consumed = static_cast<std::size_t>(end - narrow.c_str());
  SetOk(ok, !range && start[consumed] == 0);
  return value;
}
