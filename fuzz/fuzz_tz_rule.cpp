// Fuzz target for the POSIX TZ rule reader (DKTzRule::Parse) and the rule's evaluation.
//
// Input: the rule text, bytes as they are; a hash of them also picks the year that is walked.
// Properties checked besides "no crash, no hang, no exception":
//   - a text that reads gives names of three or more of the allowed characters, offsets within
//     24:59:59 (the daylight one an hour further when it is left to its default), and days and
//     times of the changes within their ranges;
//   - what ToString writes reads back to an equal rule, and writes again the same text;
//   - at every instant looked at (a year walked twice a day, each change found to the second, the
//     ends of the range): the offset is the standard or the daylight one, as the daylight flag
//     says, and the wall-clock reading is the instant plus it (stopping at the ends of the range);
//   - every reading around each change goes back to the earliest instant that shows it, or, in
//     the jump forward, to the instant that reading it with the offset before the jump gives,
//     which shows the reading moved on by the jump.
#include "os/DKTzRule.h"

#include "FuzzCheck.h"

#include <chrono>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

namespace {

constexpr std::int64_t kDay = 86400;
constexpr std::int64_t kLowest = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kHighest = std::numeric_limits<std::int64_t>::max();

bool NameIsValid(const std::string& name) {
  if (name.size() < 3)
    return false;
  for (const char ch : name)
    if (!((ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9') || ch == '+' || ch == '-'))
      return false;
  return true;
}

void CheckChange(const DKTzRule::Change& change) {
  FUZZ_CHECK(change.time >= -DKTzRule::maxTime && change.time <= DKTzRule::maxTime);
  switch (change.form) {
  case DKTzRule::DayForm::Julian:
    FUZZ_CHECK(change.day >= 1 && change.day <= 365);
    break;
  case DKTzRule::DayForm::DayOfYear:
    FUZZ_CHECK(change.day >= 0 && change.day <= 365);
    break;
  case DKTzRule::DayForm::MonthWeek:
    FUZZ_CHECK(change.month >= 1 && change.month <= 12 && change.week >= 1 && change.week <= 5);
    FUZZ_CHECK(change.day >= 0 && change.day <= 6);
    break;
  }
}

std::int64_t Plus(std::int64_t a, std::int64_t b) {
  std::int64_t sum = 0;
  return __builtin_add_overflow(a, b, &sum) ? (b > 0 ? kHighest : kLowest) : sum;
}

struct Evaluation {
  int offset;
  bool daylight;
  bool operator==(const Evaluation& other) const { return offset == other.offset && daylight == other.daylight; }
};

Evaluation CheckInstant(const DKTzRule& rule, std::int64_t utc) {
  bool daylight = true;
  const int offset = rule.OffsetAt(utc, &daylight);
  FUZZ_CHECK(daylight ? rule.HasDaylight() && offset == rule.DaylightOffset() : offset == rule.StandardOffset());
  FUZZ_CHECK(rule.FromUtc(utc) == Plus(utc, offset));
  return {offset, daylight};
}

// A reading goes back to the earliest instant that shows it; one that no instant shows lies in a
// jump forward and goes to the instant that the offset before the jump gives.
void CheckReading(const DKTzRule& rule, std::int64_t wall) {
  const std::int64_t instant = rule.ToUtc(wall);
  const std::int64_t shown = rule.FromUtc(instant);
  bool readable = false;
  for (const int offset : {rule.StandardOffset(), rule.DaylightOffset()}) {
    const std::int64_t candidate = Plus(wall, -offset);
    if (rule.FromUtc(candidate) == wall) {
      readable = true;
      FUZZ_CHECK(shown == wall && instant <= candidate);
    }
  }
  if (!readable) {
    const int jump = rule.DaylightOffset() - rule.StandardOffset();
    FUZZ_CHECK(shown - wall == (jump < 0 ? -jump : jump));
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  DKTzRule rule;
  if (!DKTzRule::Parse(text, rule))
    return 0;

  FUZZ_CHECK(NameIsValid(rule.Name(false)) && NameIsValid(rule.Name(true)));
  FUZZ_CHECK(rule.StandardOffset() >= -DKTzRule::maxOffset && rule.StandardOffset() <= DKTzRule::maxOffset);
  if (rule.HasDaylight()) {
    FUZZ_CHECK(rule.DaylightOffset() >= -DKTzRule::maxOffset && rule.DaylightOffset() <= DKTzRule::maxOffset + 3600);
    CheckChange(rule.Start());
    CheckChange(rule.End());
  }

  const std::string written = rule.ToString();
  DKTzRule again;
  FUZZ_CHECK(DKTzRule::Parse(written, again));
  FUZZ_CHECK(again == rule);
  FUZZ_CHECK(again.ToString() == written);

  for (const std::int64_t t : {kLowest, kLowest + 1, std::int64_t{-1}, std::int64_t{0}, kHighest - 1, kHighest})
    CheckInstant(rule, t);
  CheckReading(rule, 0);
  // Readings at the ends stop there instead of wrapping.
  FUZZ_CHECK(rule.ToUtc(kLowest) <= kLowest + DKTzRule::maxOffset);
  FUZZ_CHECK(rule.ToUtc(kHighest) >= kHighest - DKTzRule::maxOffset - 3600);

  // A year between -2000 and 6000, chosen by the text.
  std::uint64_t hash = 1469598103934665603ULL;
  for (const std::uint8_t byte : std::string_view(written))
    hash = (hash ^ byte) * 1099511628211ULL;
  const int year = static_cast<int>(hash % 8001) - 2000;
  const std::int64_t start =
      std::int64_t{std::chrono::sys_days{std::chrono::year{year} / 1 / 1}.time_since_epoch().count()} * kDay;
  constexpr std::int64_t step = kDay / 2 + 1;
  Evaluation before = CheckInstant(rule, start - step);
  for (std::int64_t t = start; t < start + 366 * kDay; t += step) {
    const Evaluation now = CheckInstant(rule, t);
    if (!(now == before)) {
      std::int64_t low = t - step, high = t; // the change, to the second
      while (high - low > 1) {
        const std::int64_t middle = low + (high - low) / 2;
        (CheckInstant(rule, middle) == before ? low : high) = middle;
      }
      for (std::int64_t shift = -2 * 3600; shift <= 2 * 3600; shift += 1800)
        CheckReading(rule, high + before.offset + shift);
      CheckReading(rule, high + now.offset - 1);
      CheckReading(rule, high + now.offset);
    }
    before = now;
  }
  return 0;
}
