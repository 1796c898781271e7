// DKTzRule, the POSIX TZ rules that the library evaluates itself on Windows: reading and writing
// the text, bad text, offsets and wall-clock readings worked out by hand, and on Linux every
// offset, name and reading against the C library's own reading of the same TZ.
#include "os/DKTzRule.h"

#include "support/DKCaseFile.h"
#include "support/DKTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <limits>
#include <string>

namespace {

using Form = DKTzRule::DayForm;
constexpr std::int64_t lowest = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t highest = std::numeric_limits<std::int64_t>::max();

// Seconds since 1970 of a UTC (or wall-clock) reading.
std::int64_t At(int year, unsigned month, unsigned day, int hour = 0, int minute = 0, int second = 0) {
  using namespace std::chrono;
  const auto days = sys_days{std::chrono::year{year} / month / day}.time_since_epoch().count();
  return std::int64_t{days} * 86400 + hour * 3600 + minute * 60 + second;
}

// An instant of a case file, "2021-03-28 00:59:59".
std::int64_t At(const dktest::CaseLine& c, std::size_t field) {
  int year = 0, hour = 0, minute = 0, second = 0;
  unsigned month = 0, day = 0;
  if (std::sscanf(c[field].c_str(), "%d-%u-%u %d:%d:%d", &year, &month, &day, &hour, &minute, &second) != 6)
    throw std::runtime_error(c.where + ": not an instant: " + c[field]);
  return At(year, month, day, hour, minute, second);
}

std::vector<dktest::CaseLine> Cases(const char* name, std::size_t fields) {
  return dktest::ReadCases(std::filesystem::path(DK_TEST_CASES) / name, fields);
}

DKTzRule Rule(const std::string& text) {
  DKTzRule rule;
  EXPECT_TRUE(DKTzRule::Parse(text, rule)) << text;
  return rule;
}

// ---- Text ------------------------------------------------------------------------------------------

// A change as tests/os/cases/tz_forms.txt writes it.
DKTzRule::Change ChangeOf(const dktest::CaseLine& c, std::size_t field) {
  DKTzRule::Change change;
  char form = 0;
  const int read = std::sscanf(c[field].c_str(), "%c %d %d %d %d", &form, &change.month, &change.week, &change.day,
                               &change.time);
  if (form == 'M' && read == 5)
    return change;
  change = {form == 'J' ? Form::Julian : Form::DayOfYear, 0, 0, change.month, change.week};
  if ((form != 'J' && form != 'D') || read != 3)
    throw std::runtime_error(c.where + ": not a change: " + c[field]);
  return change;
}

TEST(TzRuleTest, ReadsEveryFormAndWritesItBackCanonically) {
  for (const auto& c : Cases("tz_forms.txt", 8)) {
    SCOPED_TRACE(c.where + " " + c[0]);
    DKTzRule rule;
    ASSERT_TRUE(DKTzRule::Parse(c[0], rule));
    EXPECT_EQ(rule.Name(false), c[2]);
    EXPECT_EQ(rule.Name(true), c[4]);
    EXPECT_EQ(rule.StandardOffset(), c.Int(3));
    EXPECT_EQ(rule.HasDaylight(), c[6] != "-");
    if (rule.HasDaylight()) {
      EXPECT_EQ(rule.DaylightOffset(), c.Int(5));
      EXPECT_EQ(rule.Start(), ChangeOf(c, 6));
      EXPECT_EQ(rule.End(), ChangeOf(c, 7));
    }
    EXPECT_EQ(rule.ToString(), c[1]);
    DKTzRule again;
    ASSERT_TRUE(DKTzRule::Parse(rule.ToString(), again));
    EXPECT_TRUE(again == rule);
  }
}

TEST(TzRuleTest, TextThatIsNoRuleIsRefusedAndChangesNothing) {
  const DKTzRule before = Rule("CET-1CEST,M3.5.0,M10.5.0/3");
  for (const auto& c : Cases("tz_refused.txt", 1)) {
    SCOPED_TRACE(c.where + " " + c[0]);
    DKTzRule rule = before;
    EXPECT_FALSE(DKTzRule::Parse(c[0], rule));
    EXPECT_TRUE(rule == before);
  }
}

// ---- Offsets and readings -------------------------------------------------------------------------

// Worked by hand: tests/os/cases/tz_offsets.txt and tz_readings.txt.
TEST(TzRuleTest, OffsetsAtInstantsAroundTheChanges) {
  for (const auto& c : Cases("tz_offsets.txt", 4)) {
    SCOPED_TRACE(c.where);
    const DKTzRule rule = Rule(c[0]);
    const bool daylight = c[3] == "daylight";
    ASSERT_TRUE(daylight || c[3] == "standard") << c[3];
    bool inDaylight = !daylight;
    EXPECT_EQ(rule.OffsetAt(At(c, 1), &inDaylight), c.Int(2));
    EXPECT_EQ(inDaylight, daylight);
    EXPECT_EQ(rule.FromUtc(At(c, 1)), At(c, 1) + c.Int(2));
  }
}

// Readings in the gap move on by it; repeated readings take the earlier instant.
TEST(TzRuleTest, ReadingsInTheGapMoveOnAndRepeatedReadingsTakeTheEarlierInstant) {
  for (const auto& c : Cases("tz_readings.txt", 3)) {
    SCOPED_TRACE(c.where);
    EXPECT_EQ(Rule(c[0]).ToUtc(At(c, 1)), At(c, 2));
  }
}

// Every instant has an answer: the calendar repeats every 400 years, and readings past the ends
// of the 64-bit range stop there. (Instants at the ends: the tz_rule fuzz target checks FromUtc
// there, stopping at the ends too, for each of its seeds.)
TEST(TzRuleTest, TheWholeRangeOfInstantsAndReadings) {
  const DKTzRule paris = Rule("CET-1CEST,M3.5.0,M10.5.0/3");
  constexpr std::int64_t cycle = 146097LL * 86400;
  for (const std::int64_t t : {At(2021, 3, 28, 1), At(2021, 7, 1), At(2021, 10, 31, 0, 59, 59)})
    for (const std::int64_t cycles : {-700000000LL, -1LL, 1LL, 700000000LL})
      EXPECT_EQ(paris.OffsetAt(t + cycles * cycle), paris.OffsetAt(t)) << t << " + " << cycles << " cycles";
  EXPECT_EQ(paris.ToUtc(lowest), lowest);
  EXPECT_EQ(paris.ToUtc(highest - 100), highest - 100 - 3600); // a December
  const DKTzRule west = Rule("EST5");
  EXPECT_EQ(west.ToUtc(highest), highest);
  EXPECT_EQ(west.ToUtc(lowest), lowest + 18000);
}

// ---- The C library's reading of the same TZ (Linux) -------------------------------------------------

#if !defined(_WIN32)

struct Reference {
  int offset;
  bool daylight;
  std::string name;
};

Reference CLibrary(std::int64_t utc) {
  const auto t = static_cast<std::time_t>(utc);
  std::tm tm{};
  localtime_r(&t, &tm);
  return {static_cast<int>(tm.tm_gmtoff), tm.tm_isdst > 0, tm.tm_zone ? tm.tm_zone : ""};
}

// The instant of a reading as the C library's offsets give it, worked out independently: each
// offset in force near the reading is tried; of those that give the reading back, the earlier
// instant; none (the clock jumped past the reading) reads it with the offset before the jump.
std::int64_t ReferenceInstant(std::int64_t wall, int before, int after) {
  std::int64_t best = highest;
  for (const int offset : {before, after})
    if (CLibrary(wall - offset).offset == offset)
      best = std::min(best, wall - offset);
  return best != highest ? best : wall - before;
}

// Every rule, as the C library reads it from TZ: the offsets, daylight flags and names twice a
// day over the years, to the second around each change that the C library reports, and the
// readings around each change. The C library applies the rules from 1970 on only, and works out
// each year's changes in the UTC year, so changes within a day of New Year are left out here
// (they are worked by hand above). For dst without dates it takes the changes from its
// database's "posixrules" zone where there is one (New York's), and ends daylight time four
// hours early: no reference for those. The rules: tests/os/cases/tz_clib_rules.txt.
TEST(TzRuleTest, AgreesWithTheCLibraryOnEveryOffsetNameAndReading) {
  constexpr int fromYear = 1970, toYear = 2100;
  for (const auto& c : Cases("tz_clib_rules.txt", 1)) {
    SCOPED_TRACE(c.where + " " + c[0]);
    const ScopedEnv zone("TZ", c[0].c_str(), &tzset);
    const DKTzRule rule = Rule(c[0]);
    EXPECT_EQ(rule.StandardOffset(), -timezone);
    EXPECT_EQ(rule.HasDaylight(), daylight != 0);
    EXPECT_EQ(rule.Name(false), tzname[0]);
    EXPECT_EQ(rule.Name(true), tzname[1]);

    const auto expectSame = [&](std::int64_t t) {
      const Reference c = CLibrary(t);
      bool inDaylight = false;
      const int offset = rule.OffsetAt(t, &inDaylight);
      if (offset != c.offset || inDaylight != c.daylight || rule.Name(inDaylight) != c.name) {
        ADD_FAILURE() << "at " << t << ": " << offset << (inDaylight ? " daylight " : " standard ") << rule.Name(inDaylight)
                      << ", the C library " << c.offset << (c.daylight ? " daylight " : " standard ") << c.name;
        return false;
      }
      return true;
    };
    constexpr std::int64_t step = 12 * 3600 + 17; // drifts through the hours of the day
    int changes = 0;
    for (std::int64_t t = At(fromYear, 1, 2); t < At(toYear, 12, 30); t += step) {
      ASSERT_TRUE(expectSame(t));
      const Reference before = CLibrary(t - step), now = CLibrary(t);
      if (before.offset == now.offset && before.daylight == now.daylight)
        continue;
      std::int64_t low = t - step, high = t; // the change, to the second
      while (high - low > 1) {
        const std::int64_t middle = low + (high - low) / 2;
        const Reference m = CLibrary(middle);
        (m.offset == before.offset && m.daylight == before.daylight ? low : high) = middle;
      }
      ASSERT_TRUE(expectSame(high - 1) && expectSame(high));
      for (std::int64_t shift = -3 * 3600; shift <= 3 * 3600; shift += 900) {
        const std::int64_t wall = high + before.offset + shift;
        ASSERT_EQ(rule.ToUtc(wall), ReferenceInstant(wall, before.offset, now.offset)) << "reading " << wall;
      }
      ++changes;
    }
    if (rule.HasDaylight()) {
      EXPECT_GE(changes, 2 * (toYear - fromYear));
    }
  }
}

#endif

} // namespace
