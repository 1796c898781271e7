// Character tables of the Basic Multilingual Plane, generated from the Unicode Character Database
// by tools/gen_unicode_tables.py into DKUnicodeTables.cpp. Internal to the library: the inline
// lookups below are meant for hot loops (case mapping of whole strings, collation).
//
// Layout: each table splits the 65536 code units into 256 pages of 256 entries. An entry is the
// signed 16-bit difference between the mapped unit and the unit itself, so runs such as
// "fullwidth A-Z maps 32 further" give identical pages; identical pages are stored once in
// kPages, which every table shares, and kPageIndex[table][unit >> 8] names a unit's page.
// A lookup is two dependent loads and an add; ASCII never touches the tables.
#pragma once

#include <DorvikCore/DKTypes.h>

#include <cstdint>

namespace DKUnicode {

enum Table : unsigned {
  Upper,      // simple uppercase mapping
  Lower,      // simple lowercase mapping
  Fold,       // case folding for comparison: lower of upper, applied until stable
  Accent,     // base character of a canonical decomposition; 0 for a nonspacing mark
  CaseAccent, // Fold and Accent together; 0 for a nonspacing mark
  kTableCount
};

extern const char kUnicodeVersion[];

// The code points with the White_Space property, as sorted inclusive ranges.
struct WhiteSpaceRange {
  std::uint16_t first, last;
};
extern const WhiteSpaceRange kWhiteSpace[10]; // the generator writes the same count

// White space by the Unicode White_Space property, the same on every platform and in every
// locale. ASCII is decided by arithmetic; the generator checks that the table agrees.
inline bool IsWhiteSpace(DKChar ch) noexcept {
  const auto unit = static_cast<std::uint16_t>(ch);
  if (unit < 0x85)
    return unit == 0x20 || (unit >= 0x09 && unit <= 0x0D);
  for (const WhiteSpaceRange& r : kWhiteSpace)
    if (unit <= r.last)
      return unit >= r.first;
  return false;
}
extern const std::uint8_t kPageIndex[kTableCount][256];
extern const std::int16_t kPages[][256];

// The ASCII part of each table, as arithmetic. The generator checks that the tables agree.
template <Table T>
constexpr DKChar MapAscii(DKChar ch) noexcept {
  if constexpr (T == Upper)
    return static_cast<DKChar>(ch - (static_cast<unsigned>(ch - u'a') < 26u ? 0x20 : 0));
  else if constexpr (T == Accent)
    return ch;
  else
    return static_cast<DKChar>(ch + (static_cast<unsigned>(ch - u'A') < 26u ? 0x20 : 0));
}

template <Table T>
inline DKChar MapFromTable(DKChar ch) noexcept {
  const unsigned unit = static_cast<std::uint16_t>(ch);
  return static_cast<DKChar>(unit + static_cast<unsigned>(kPages[kPageIndex[T][unit >> 8]][unit & 0xFF]));
}

template <Table T>
inline DKChar Map(DKChar ch) noexcept {
  return static_cast<std::uint16_t>(ch) < 0x80 ? MapAscii<T>(ch) : MapFromTable<T>(ch);
}

} // namespace DKUnicode
