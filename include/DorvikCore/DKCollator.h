// Collators: orderings of text used by DKString::Compare, sorted containers and searches.
#pragma once

#include <DorvikCore/DKRefCount.h>
#include <DorvikCore/DKString.h>
#include <DorvikCore/DKTypes.h>

#include <cstddef>

// An ordering of UTF-16 texts. Collators are counted objects: hold them in a
// DKSmartPtrToConst<DKCollator>. Compare must be a total order: antisymmetric and transitive.
class DK_EXPORT DKCollator : public DKRefCount {
public:
  ~DKCollator() override;
  // Negative, 0 or positive as a orders before, with or after b.
  virtual int Compare(const DKChar* a, std::size_t aLength, const DKChar* b, std::size_t bLength) const = 0;
  // The same for terminated texts; a null pointer is the empty text.
  int Compare(const DKChar* a, const DKChar* b) const;
  // The same for two strings, embedded zero units included.
  int Compare(const DKString& a, const DKString& b) const {
    return Compare(a.c_str(), a.Length(), b.c_str(), b.Length());
  }
  // True when the collator finds a and b equal (Compare gives 0).
  bool IsEqual(const DKString& a, const DKString& b) const { return Compare(a, b) == 0; }
};

// The table collators compare texts unit by unit as unsigned 16-bit values after folding each
// unit through the library's Unicode tables (see DKCharacter.h); a text that is a prefix of the
// other orders first. They hold no state, so one object serves every thread.

// Ignores case: each unit is compared as DKFoldCase gives it.
class DK_EXPORT DKTableIgnoreCaseCollator final : public DKCollator {
public:
  using DKCollator::Compare;
  int Compare(const DKChar* a, std::size_t aLength, const DKChar* b, std::size_t bLength) const override;
  // Whether two texts of the same length compare equal here: the fast form of Compare == 0
  // for name look-ups (case folding maps one unit to one unit, so texts of different lengths
  // are never equal).
  static bool Equal(const DKChar* a, const DKChar* b, std::size_t length) noexcept;
};

// Ignores accents: each unit is compared as DKFoldAccent gives it, and nonspacing marks are
// skipped, so a precomposed e-acute, e followed by U+0301 and a plain e are equal.
class DK_EXPORT DKTableIgnoreAccentCollator final : public DKCollator {
public:
  using DKCollator::Compare;
  int Compare(const DKChar* a, std::size_t aLength, const DKChar* b, std::size_t bLength) const override;
};

// Ignores both: each unit is compared as DKFoldCaseAndAccent gives it; nonspacing marks are skipped.
class DK_EXPORT DKTableIgnoreCaseAndAccentCollator final : public DKCollator {
public:
  using DKCollator::Compare;
  int Compare(const DKChar* a, std::size_t aLength, const DKChar* b, std::size_t bLength) const override;
};

// The process-wide collator for DKString::Compare flags (flags & 3): 1 ignores case, 2 accents,
// 3 both; null for 0. Each is created once, on first need, safely from any thread, and is never
// destroyed, so it also serves static destructors. It may be held in smart pointers like any
// collator: the reference it keeps on itself stops them from deleting it.
DK_EXPORT const DKCollator* DKGetFlagsCollator(long flags) noexcept;

// A strict weak ordering by a collator, for sorted containers and algorithms, for example
// std::map<DKString, int, DKCollatorLess> that finds keys whatever their case.
class DKCollatorLess {
public:
  // By the process-wide collator of the flags (default: ignore case); plain order for flags 0.
  explicit DKCollatorLess(long flags = DKString::IgnoreCase) noexcept : m_collator(DKGetFlagsCollator(flags)) {}
  // By the given collator, which the object keeps a reference to; plain order when it is null.
  explicit DKCollatorLess(const DKSmartPtrToConst<DKCollator>& collator) noexcept : m_collator(collator) {}

  // True when a orders before b.
  bool operator()(const DKString& a, const DKString& b) const {
    return m_collator ? m_collator->Compare(a, b) < 0 : a.Compare(b) < 0;
  }

private:
  DKSmartPtrToConst<DKCollator> m_collator;
};
