// The table collators: fold each code unit through the generated Unicode tables and compare the
// folded units in order.
#include <DorvikCore/DKCollator.h>

#include "text/DKUnicodeTables.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>

using namespace DKUnicode;

DKCollator::~DKCollator() = default;

int DKCollator::Compare(const DKChar* a, const DKChar* b) const {
  const std::size_t aLength = a ? std::char_traits<DKChar>::length(a) : 0;
  const std::size_t bLength = b ? std::char_traits<DKChar>::length(b) : 0;
  return Compare(a, aLength, b, bLength);
}

namespace {

static_assert(sizeof(DKChar) == 2, "the word-at-a-time loop handles four 16-bit units per 64-bit word");

constexpr std::uint64_t kLanes = 0x0001000100010001ull; // 1 in each 16-bit lane
constexpr std::uint64_t kNonAsciiBits = 0xFF80 * kLanes;

inline std::uint64_t LoadFour(const DKChar* p) noexcept {
  std::uint64_t word;
  std::memcpy(&word, p, sizeof word);
  return word;
}

// Folds four ASCII units (each lane below 0x80) as table T does: letters to lower case for the
// case-folding tables, nothing for accent folding (no ASCII character has an accent). The sums
// cannot carry out of a lane, so bit 7 of a lane tells "lane >= 'A'" and "lane > 'Z'".
template <Table T>
inline std::uint64_t FoldAsciiFour(std::uint64_t word) noexcept {
  if constexpr (T == Accent) {
    return word;
  } else {
    const std::uint64_t atLeastA = word + (0x80 - 'A') * kLanes;
    const std::uint64_t aboveZ = word + (0x80 - 'Z' - 1) * kLanes;
    return word | ((atLeastA & ~aboveZ & (0x80 * kLanes)) >> 2);
  }
}

// A unit that folds to 0 (a nonspacing mark) contributes nothing where marks are skipped.
template <Table T>
inline bool IsSkipped(DKChar unit, DKChar folded) noexcept {
  return (T == Accent || T == CaseAccent) && folded == 0 && unit != 0;
}

// Once one side has ended: the other orders after it unless all it has left is skipped.
template <Table T>
int OrderOfRests(const DKChar* a, std::size_t aRest, const DKChar* b, std::size_t bRest) noexcept {
  while (aRest != 0 && IsSkipped<T>(*a, Map<T>(*a))) {
    ++a;
    --aRest;
  }
  while (bRest != 0 && IsSkipped<T>(*b, Map<T>(*b))) {
    ++b;
    --bRest;
  }
  return static_cast<int>(aRest != 0) - static_cast<int>(bRest != 0);
}

// Compares a and b as the sequences of their folded units, skipped units left out.
// Equal units fold alike, so only differing units are looked up; runs of four ASCII units, the
// common case, are folded and compared a 64-bit word at a time. The units left to the unit-by-unit
// loop are mostly not ASCII, so it goes to the tables without the ASCII test.
template <Table T>
int FoldedCompare(const DKChar* a, std::size_t aLength, const DKChar* b, std::size_t bLength) noexcept {
  std::size_t i = 0;
  std::size_t j = 0;
  for (;;) {
    const std::size_t words = std::min(aLength - i, bLength - j) / 4;
    std::size_t w = 0;
    for (; w < words; ++w) {
      const std::uint64_t wa = LoadFour(a + i + 4 * w);
      const std::uint64_t wb = LoadFour(b + j + 4 * w);
      if (wa != wb && (((wa | wb) & kNonAsciiBits) != 0 || FoldAsciiFour<T>(wa) != FoldAsciiFour<T>(wb)))
        break;
    }
    i += 4 * w;
    j += 4 * w;
    // Unit by unit through the four units that stopped the word loop, or through the tail.
    for (int step = 0; step < 4; ++step) {
      if (i == aLength || j == bLength)
        return OrderOfRests<T>(a + i, aLength - i, b + j, bLength - j);
      const DKChar ca = a[i];
      const DKChar cb = b[j];
      if (ca != cb) {
        const DKChar fa = MapFromTable<T>(ca);
        const DKChar fb = MapFromTable<T>(cb);
        if (IsSkipped<T>(ca, fa)) {
          ++i;
          continue;
        }
        if (IsSkipped<T>(cb, fb)) {
          ++j;
          continue;
        }
        if (fa != fb)
          return static_cast<int>(fa) - static_cast<int>(fb);
      }
      ++i;
      ++j;
    }
  }
}

// Builds T in static storage that is never destroyed, and keeps a reference on it so that
// smart pointers that come and go never bring its count to 0.
template <class T>
const DKCollator* ProcessWide() noexcept {
  struct Holder {
    alignas(T) unsigned char storage[sizeof(T)];
    T* object;
    Holder() noexcept : object(::new (static_cast<void*>(storage)) T) { object->AddRef(); }
  };
  static Holder holder;
  return holder.object;
}

} // namespace

int DKTableIgnoreCaseCollator::Compare(const DKChar* a, std::size_t aLength, const DKChar* b,
                                       std::size_t bLength) const {
  return FoldedCompare<Fold>(a, aLength, b, bLength);
}

bool DKTableIgnoreCaseCollator::Equal(const DKChar* a, const DKChar* b, std::size_t length) noexcept {
  const auto sameUnit = [](DKChar x, DKChar y) { return x == y || MapFromTable<Fold>(x) == MapFromTable<Fold>(y); };
  std::size_t i = 0;
  for (; i + 4 <= length; i += 4) {
    const std::uint64_t wa = LoadFour(a + i);
    const std::uint64_t wb = LoadFour(b + i);
    if (wa == wb)
      continue;
    if (((wa | wb) & kNonAsciiBits) == 0) {
      if (FoldAsciiFour<Fold>(wa) != FoldAsciiFour<Fold>(wb))
        return false;
    } else if (!sameUnit(a[i], b[i]) || !sameUnit(a[i + 1], b[i + 1]) || !sameUnit(a[i + 2], b[i + 2]) ||
               !sameUnit(a[i + 3], b[i + 3])) {
      return false;
    }
  }
  for (; i < length; ++i)
    if (!sameUnit(a[i], b[i]))
      return false;
  return true;
}

int DKTableIgnoreAccentCollator::Compare(const DKChar* a, std::size_t aLength, const DKChar* b,
                                         std::size_t bLength) const {
  return FoldedCompare<Accent>(a, aLength, b, bLength);
}

int DKTableIgnoreCaseAndAccentCollator::Compare(const DKChar* a, std::size_t aLength, const DKChar* b,
                                                std::size_t bLength) const {
  return FoldedCompare<CaseAccent>(a, aLength, b, bLength);
}

const DKCollator* DKGetFlagsCollator(long flags) noexcept {
  switch (flags & 3) {
  case DKString::IgnoreCase:
    return ProcessWide<DKTableIgnoreCaseCollator>();
  case DKString::IgnoreAccent:
    return ProcessWide<DKTableIgnoreAccentCollator>();
  case DKString::IgnoreCaseAndAccent:
    return ProcessWide<DKTableIgnoreCaseAndAccentCollator>();
  default:
    return nullptr;
  }
}
