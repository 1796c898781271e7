#include "text/DKTextSearch.h"

#include <DorvikCore/DKString.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <functional>
#include <string_view>

#if defined(__SSE2__)
#  include <emmintrin.h>
#endif

namespace dktext {

namespace {

constexpr std::size_t npos = DKString::npos;

// Boyer-Moore from `from` on: the fallback for text that defeats the first/last-unit filter.
std::size_t BoyerMoore(const DKChar* text, std::size_t length, const DKChar* needle, std::size_t n,
                       std::size_t from) {
  const std::boyer_moore_searcher<const DKChar*> searcher(needle, needle + n);
  const DKChar* hit = std::search(text + from, text + length, searcher);
  return hit == text + length ? npos : static_cast<std::size_t>(hit - text);
}

bool RestMatches(const DKChar* at, const DKChar* needle, std::size_t n) noexcept {
  return std::memcmp(at + 1, needle + 1, (n - 2) * sizeof(DKChar)) == 0;
}

} // namespace

std::size_t FindUnit(const DKChar* text, std::size_t length, DKChar ch, std::size_t start) noexcept {
  std::size_t i = start;
#if defined(__SSE2__)
  const __m128i wanted = _mm_set1_epi16(static_cast<short>(ch));
  for (; i + 8 <= length; i += 8) {
    const __m128i units = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + i));
    if (const unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi16(units, wanted))))
      return i + static_cast<std::size_t>(std::countr_zero(mask)) / 2;
  }
#endif
  for (; i < length; ++i)
    if (text[i] == ch)
      return i;
  return npos;
}

std::size_t FindUnits(const DKChar* text, std::size_t length, const DKChar* needle, std::size_t n,
                      std::size_t start) {
  if (start > length || n > length - start)
    return n == 0 && start <= length ? start : npos;
  if (n == 0)
    return start;
  if (n == 1)
    return FindUnit(text, length, needle[0], start);
  const DKChar first = needle[0], last = needle[n - 1];
  const std::size_t end = length - n + 1; // positions where the needle can start
  // Units compared beyond the filter; past this budget the text is too repetitive for it.
  std::size_t budget = 4096;
  std::size_t i = start;
#if defined(__SSE2__)
  const __m128i firsts = _mm_set1_epi16(static_cast<short>(first));
  const __m128i lasts = _mm_set1_epi16(static_cast<short>(last));
  for (; i + 8 <= end; i += 8) {
    const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + i));
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + i + n - 1));
    unsigned mask = static_cast<unsigned>(
        _mm_movemask_epi8(_mm_and_si128(_mm_cmpeq_epi16(a, firsts), _mm_cmpeq_epi16(b, lasts))));
    while (mask) {
      const unsigned bit = static_cast<unsigned>(std::countr_zero(mask));
      const std::size_t at = i + bit / 2;
      if (n == 2 || RestMatches(text + at, needle, n))
        return at;
      if (budget < n)
        return BoyerMoore(text, length, needle, n, at + 1);
      budget -= n;
      mask &= ~(3u << bit);
    }
    budget += 8; // the budget grows with the text scanned: linear overall
  }
#endif
  for (; i < end; ++i) {
    if (text[i] != first || text[i + n - 1] != last)
      continue;
    if (n == 2 || RestMatches(text + i, needle, n))
      return i;
    if (budget < n)
      return BoyerMoore(text, length, needle, n, i + 1);
    budget -= n;
  }
  return npos;
}

} // namespace dktext
