#include <DorvikCore/DKCharacter.h>
#include <DorvikCore/DKString.h>

#include "text/DKUnicodeTables.h"

#include <cstdint>

namespace {

inline bool IsDigit(DKChar c) noexcept { return c >= '0' && c <= '9'; }

// Reads a digit run as an unsigned 32-bit value; longer runs wrap, leading zeros vanish.
inline std::uint32_t ReadNumber(const DKChar*& p) noexcept {
  std::uint32_t v = 0;
  for (; IsDigit(*p); ++p)
    v = v * 10u + static_cast<std::uint32_t>(*p - '0');
  return v;
}

} // namespace

int DKStringNatCompare::operator()(const DKChar* a, const DKChar* b) const noexcept {
  static const DKChar empty[1] = {0};
  if (!a)
    a = empty;
  if (!b)
    b = empty;
  while (DKUnicode::IsWhiteSpace(*a))
    ++a;
  while (DKUnicode::IsWhiteSpace(*b))
    ++b;
  for (;;) {
    if (*a == 0 || *b == 0)
      return static_cast<int>(*a) - static_cast<int>(*b);
    const bool da = IsDigit(*a), db = IsDigit(*b);
    if (da && db) {
      const std::uint32_t va = ReadNumber(a), vb = ReadNumber(b);
      if (va != vb)
        return va < vb ? -1 : 1;
      continue;
    }
    if (da)
      return -1; // digits sort before other characters
    if (db)
      return 1;
    const DKChar ua = DKtowupper(*a), ub = DKtowupper(*b);
    if (ua != ub)
      return static_cast<int>(ua) - static_cast<int>(ub);
    ++a;
    ++b;
  }
}
