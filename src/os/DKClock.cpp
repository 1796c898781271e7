// Portable part of the clock and local zone (os/DKClock.h).
//
// Asking the system for the local offset of an instant is slow (it walks the zone's rules and
// names the zone every time), and a conversion asks several times. So each thread learns the
// changes of offset one span of about a year at a time, once a span is in steady use, and
// answers from that table: the system is probed once a day across the span, and each change
// found between two probes is narrowed down to its second. Like the conversion from a
// reading to an instant, this takes a zone to change its offset at most once in a day.
//
// A POSIX TZ rule that the library evaluates itself (where the system does not read TZ) is
// quick to ask and exact at every instant: it is asked directly, with no table.
#include "os/DKClock.h"

#include "base/DKThreadExit.h"
#include "os/DKTzRule.h"

#include <algorithm>
#include <atomic>
#include <limits>
#include <memory>
#include <mutex>
#include <vector>

namespace {

constexpr std::int64_t spanSeconds = std::int64_t{1} << 25; // about 388 days
constexpr std::int64_t probeStep = 86400;
constexpr std::size_t spanSlots = 128; // spans each thread keeps: about 136 years
constexpr int usesBeforeLearning = 4;  // a span touched fewer times is not worth learning

// Beyond this many seconds either side of 1970 the years no longer fit the system's calendar
// record, so it names no offset there and the standard one applies. Instants are brought
// within it before the spans are worked out, which keeps that arithmetic far from overflowing.
constexpr std::int64_t farSeconds = std::int64_t{1} << 62;

constexpr std::int64_t WithinFar(std::int64_t seconds) noexcept {
  return seconds > farSeconds ? farSeconds : seconds < -farSeconds ? -farSeconds : seconds;
}

// a + b, stopping at the ends of the range.
constexpr std::int64_t SaturatingAdd(std::int64_t a, std::int64_t b) noexcept {
  std::int64_t sum = 0;
  if (__builtin_add_overflow(a, b, &sum))
    return b > 0 ? std::numeric_limits<std::int64_t>::max() : std::numeric_limits<std::int64_t>::min();
  return sum;
}

// Bumped when the zone setting is read again: every thread's tables are then stale.
std::atomic<unsigned> g_generation{1};

struct Offset {
  int seconds = 0;
  bool daylight = false;
  bool operator==(const Offset& other) const noexcept { return seconds == other.seconds && daylight == other.daylight; }
};

Offset AskSystem(std::int64_t utcSeconds) noexcept {
  Offset offset;
  if (!DKClock::SystemOffset(utcSeconds, offset.seconds, offset.daylight))
    offset = {DKClock::SystemStandardOffset(), false};
  return offset;
}

struct Change {
  std::int64_t at; // the first second of the new offset
  Offset offset;
};

struct Span {
  std::int64_t index = std::numeric_limits<std::int64_t>::min();
  unsigned generation = 0;
  int uses = 0;
  bool learned = false;
  Offset first; // at the span's start
  std::vector<Change> changes;

  void Reset(std::int64_t newIndex, unsigned newGeneration) {
    index = newIndex;
    generation = newGeneration;
    uses = 0;
    learned = false;
    changes.clear();
  }

  void Learn() {
    changes.clear();
    const std::int64_t start = index * spanSeconds;
    const std::int64_t last = start + spanSeconds - 1;
    first = AskSystem(start);
    Offset previous = first;
    for (std::int64_t before = start, probe = start + probeStep;; before = probe, probe += probeStep) {
      probe = std::min(probe, last);
      const Offset now = AskSystem(probe);
      if (!(now == previous)) {
        // The change lies in (before, probe]: narrow it down to its second.
        std::int64_t low = before, high = probe;
        while (high - low > 1) {
          const std::int64_t middle = low + (high - low) / 2;
          (AskSystem(middle) == previous ? low : high) = middle;
        }
        changes.push_back({high, AskSystem(high)});
        previous = changes.back().offset;
      }
      if (probe == last)
        break;
    }
    learned = true;
  }

  Offset At(std::int64_t utcSeconds) const noexcept {
    Offset offset = first;
    for (const Change& change : changes) {
      if (change.at > utcSeconds)
        break;
      offset = change.offset;
    }
    return offset;
  }
};

// The spans the calling thread learned.
struct Spans {
  std::vector<Span> slots = std::vector<Span>(spanSlots);
};

Offset CachedOffset(std::int64_t utcSeconds) {
  Spans* learned = dkbase::ThreadOwned<Spans>::Get();
  if (!learned) // the thread ends (or no memory): ask the system directly
    return AskSystem(utcSeconds);
  std::vector<Span>& spans = learned->slots;
  const std::int64_t index = utcSeconds >= 0 ? utcSeconds / spanSeconds : -((-utcSeconds - 1) / spanSeconds) - 1;
  Span& span = spans[static_cast<std::size_t>(index) % spanSlots];
  const unsigned generation = g_generation.load(std::memory_order_relaxed);
  if (span.index != index || span.generation != generation)
    span.Reset(index, generation);
  if (!span.learned) {
    if (++span.uses < usesBeforeLearning)
      return AskSystem(utcSeconds);
    span.Learn();
  }
  return span.At(utcSeconds);
}

// The rule the local zone follows in place of the system's, read on first use and again after
// a reload. Never destroyed: clocks are read late at exit too. Its state lives apart, so that
// the common answer (no rule) costs one atomic read and no call.
enum RuleState { RuleUnknown, RuleNone, RuleHeld };
std::atomic<int> g_ruleState{RuleUnknown};

struct ZoneRule {
  std::mutex lock;
  std::shared_ptr<const DKTzRule> rule;
};

ZoneRule& TheRule() noexcept {
  static ZoneRule* const rule = new ZoneRule;
  return *rule;
}

[[gnu::noinline]] std::shared_ptr<const DKTzRule> ReadRule() noexcept {
  ZoneRule& zone = TheRule();
  std::lock_guard guard(zone.lock);
  if (g_ruleState.load(std::memory_order_relaxed) == RuleUnknown) {
    zone.rule.reset();
    try {
      std::string text;
      DKTzRule rule;
      if (DKClock::ZoneRuleText(text) && DKTzRule::Parse(text, rule))
        zone.rule = std::make_shared<const DKTzRule>(std::move(rule));
    } catch (...) { // no memory to read it: the system's zone
      zone.rule.reset();
    }
    g_ruleState.store(zone.rule ? RuleHeld : RuleNone, std::memory_order_release);
  }
  return zone.rule;
}

// The rule in force, or null for the system's zone.
inline std::shared_ptr<const DKTzRule> CurrentRule() noexcept {
  if (g_ruleState.load(std::memory_order_acquire) == RuleNone)
    return nullptr;
  return ReadRule();
}

// Whether an instant or reading lies within the years a zone is asked about; beyond them the
// standard offset applies, whatever gives the offsets.
constexpr bool IsNear(std::int64_t seconds) noexcept { return seconds == WithinFar(seconds); }

// The local offset at an instant, under the rule in force (null: the system's zone).
int OffsetAt(const DKTzRule* rule, std::int64_t utcSeconds, bool* daylight = nullptr) noexcept {
  Offset offset;
  if (rule) {
    offset = {rule->StandardOffset(), false};
    if (IsNear(utcSeconds))
      offset.seconds = rule->OffsetAt(utcSeconds, &offset.daylight);
  } else {
    const std::int64_t instant = WithinFar(utcSeconds);
    try {
      offset = CachedOffset(instant);
    } catch (...) { // no memory for the table: ask the system directly
      offset = AskSystem(instant);
    }
  }
  if (daylight)
    *daylight = offset.daylight;
  return offset.seconds;
}

} // namespace

int DKClock::LocalOffsetAt(std::int64_t utcSeconds, bool* daylight) noexcept {
  return OffsetAt(CurrentRule().get(), utcSeconds, daylight);
}

int DKClock::LocalStandardOffset() noexcept {
  const auto rule = CurrentRule();
  return rule ? rule->StandardOffset() : SystemStandardOffset();
}

std::string DKClock::LocalZoneName(bool daylight) {
  const auto rule = CurrentRule();
  return rule ? rule->Name(daylight) : SystemZoneName(daylight);
}

void DKClock::ReloadZone() noexcept {
  ReloadSystemZone();
  ZoneRule& zone = TheRule();
  {
    std::lock_guard guard(zone.lock);
    zone.rule.reset();
    g_ruleState.store(RuleUnknown, std::memory_order_release);
  }
  g_generation.fetch_add(1, std::memory_order_relaxed);
}

std::int64_t DKClock::UtcToLocal(std::int64_t utcSeconds) noexcept {
  return SaturatingAdd(utcSeconds, LocalOffsetAt(utcSeconds));
}

std::int64_t DKClock::LocalToUtc(std::int64_t wallSeconds) noexcept {
  const auto rule = CurrentRule();
  if (!IsNear(wallSeconds)) // out there the offset never changes
    return SaturatingAdd(wallSeconds, -std::int64_t{OffsetAt(rule.get(), wallSeconds)});
  if (rule)
    return rule->ToUtc(wallSeconds);
  // The instant lies within a day of the reading whatever the zone. When the offset is the
  // same a day before and a day after, no change of offset lies in between (zones change at
  // most once in two days).
  constexpr std::int64_t day = 86400;
  const int early = OffsetAt(nullptr, wallSeconds - day);
  const int late = OffsetAt(nullptr, wallSeconds + day);
  if (early == late)
    return wallSeconds - early;
  const std::int64_t beforeChange = wallSeconds - early;
  const std::int64_t afterChange = wallSeconds - late;
  const bool beforeValid = OffsetAt(nullptr, beforeChange) == early;
  const bool afterValid = OffsetAt(nullptr, afterChange) == late;
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
