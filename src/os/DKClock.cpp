// Portable part of the clock and local zone (os/DKClock.h).
#include "os/DKClock.h"

#include <algorithm>

int DKClock::LocalOffsetAt(std::int64_t utcSeconds, bool* daylight) noexcept {
  int offset = 0;
  bool dst = false;
  if (!LocalOffset(utcSeconds, offset, dst)) {
    offset = LocalStandardOffset();
    dst = false;
  }
  if (daylight)
    *daylight = dst;
  return offset;
}

std::int64_t DKClock::LocalToUtc(std::int64_t wallSeconds) noexcept {
  // The instant lies within a day of the reading whatever the zone. When the offset is the
  // same a day before and a day after, no change of offset lies in between (zones change at
  // most once in two days).
  constexpr std::int64_t day = 86400;
  const int early = LocalOffsetAt(wallSeconds - day);
  const int late = LocalOffsetAt(wallSeconds + day);
  if (early == late)
    return wallSeconds - early;
  const std::int64_t beforeChange = wallSeconds - early;
  const std::int64_t afterChange = wallSeconds - late;
  const bool beforeValid = LocalOffsetAt(beforeChange) == early;
  const bool afterValid = LocalOffsetAt(afterChange) == late;
  if (beforeValid && afterValid)
    return std::min(beforeChange, afterChange); // the reading occurs twice: the earlier one
  if (beforeValid)
    return beforeChange;
  if (afterValid)
    return afterChange;
  // The reading falls in the gap where the clock jumps forward: read it with the offset in
  // force before the jump, which lands as far past the jump as the reading was past its start.
  return wallSeconds - std::min(early, late);
}
