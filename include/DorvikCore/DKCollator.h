// Collators: orderings of text used by DKString::Compare.
#pragma once

#include <DorvikCore/DKRefCount.h>
#include <DorvikCore/DKTypes.h>

class DK_EXPORT DKCollator : public DKRefCount {
public:
  ~DKCollator() override;
  // Negative, 0 or positive as a orders before, with or after b.
  virtual int Compare(const DKChar* a, std::size_t aLength, const DKChar* b, std::size_t bLength) const = 0;
};

// The process-wide collator for DKString::Compare flags: 1 ignores case, 2 accents, 3 both.
// Null for a flag value without a collator (0). Each is created once, on first need, safely
// from any thread, and lives as long as the process.
DK_EXPORT const DKCollator* DKGetFlagsCollator(long flags);
