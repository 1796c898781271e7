// DKTzRule, the POSIX TZ rules that the library evaluates itself on Windows: reading and writing
// the text, bad text, offsets and wall-clock readings worked out by hand, and on Linux every
// offset, name and reading against the C library's own reading of the same TZ.
#include "os/DKTzRule.h"

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

DKTzRule Rule(const char* text) {
  DKTzRule rule;
  EXPECT_TRUE(DKTzRule::Parse(text, rule)) << text;
  return rule;
}

// ---- Text ------------------------------------------------------------------------------------------

TEST(TzRuleTest, ReadsEveryFormAndWritesItBackCanonically) {
  const struct {
    const char* text;
    const char* canonical;
    const char* standardName;
    int standard; // east of UTC
    const char* daylightName;
    int daylight;
    DKTzRule::Change start, end;
  } cases[] = {
      {"EST5", "EST5", "EST", -18000, "EST", -18000, {}, {}},
      {"<-03>+3", "<-03>3", "-03", -10800, "-03", -10800, {}, {}},
      {"IST-5:30", "IST-5:30", "IST", 19800, "IST", 19800, {}, {}},
      {"LMT-0:09:21", "LMT-0:09:21", "LMT", 561, "LMT", 561, {}, {}},
      {"CET-1CEST,M3.5.0,M10.5.0/3", "CET-1CEST,M3.5.0,M10.5.0/3", "CET", 3600, "CEST", 7200,
       {Form::MonthWeek, 3, 5, 0, 7200}, {Form::MonthWeek, 10, 5, 0, 10800}},
      // dst without dates: the second Sunday of March to the first Sunday of November.
      {"AAA5BBB", "AAA5BBB,M3.2.0,M11.1.0", "AAA", -18000, "BBB", -14400,
       {Form::MonthWeek, 3, 2, 0, 7200}, {Form::MonthWeek, 11, 1, 0, 7200}},
      {"NZST-12NZDT-13,M9.5.0,M4.1.0/3", "NZST-12NZDT,M9.5.0,M4.1.0/3", "NZST", 43200, "NZDT", 46800,
       {Form::MonthWeek, 9, 5, 0, 7200}, {Form::MonthWeek, 4, 1, 0, 10800}},
      {"<+0330>-03:30<+0430>,J79/24,J263/24", "<+0330>-3:30<+0430>,J79/24,J263/24", "+0330", 12600, "+0430", 16200,
       {Form::Julian, 0, 0, 79, 86400}, {Form::Julian, 0, 0, 263, 86400}},
      {"<-02>2<-01>,M3.5.0/-1,M10.5.0/0", "<-02>2<-01>,M3.5.0/-1,M10.5.0/0", "-02", -7200, "-01", -3600,
       {Form::MonthWeek, 3, 5, 0, -3600}, {Form::MonthWeek, 10, 5, 0, 0}},
      {"EST5EDT4,0/0,J365/25", "EST5EDT,0/0,J365/25", "EST", -18000, "EDT", -14400,
       {Form::DayOfYear, 0, 0, 0, 0}, {Form::Julian, 0, 0, 365, 90000}},
      // The limits: offsets of 24:59:59 (the daylight one an hour beyond), times of 167 hours.
      {"XXX-24:59:59YYY,M12.5.6/-167:59:59,J365/167", "XXX-24:59:59YYY,M12.5.6/-167:59:59,J365/167", "XXX", 89999,
       "YYY", 93599, {Form::MonthWeek, 12, 5, 6, -604799}, {Form::Julian, 0, 0, 365, 601200}},
      {"abc005:07:09dEf+4:5:6,J1/+0,365/1:02:03", "abc5:07:09dEf4:05:06,J1/0,365/1:02:03", "abc", -18429, "dEf", -14706,
       {Form::Julian, 0, 0, 1, 0}, {Form::DayOfYear, 0, 0, 365, 3723}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    DKTzRule rule;
    ASSERT_TRUE(DKTzRule::Parse(c.text, rule));
    EXPECT_EQ(rule.Name(false), c.standardName);
    EXPECT_EQ(rule.Name(true), c.daylightName);
    EXPECT_EQ(rule.StandardOffset(), c.standard);
    EXPECT_EQ(rule.HasDaylight(), c.standard != c.daylight);
    if (rule.HasDaylight()) {
      EXPECT_EQ(rule.DaylightOffset(), c.daylight);
      EXPECT_EQ(rule.Start(), c.start);
      EXPECT_EQ(rule.End(), c.end);
    }
    EXPECT_EQ(rule.ToString(), c.canonical);
    DKTzRule again;
    ASSERT_TRUE(DKTzRule::Parse(rule.ToString(), again));
    EXPECT_TRUE(again == rule);
  }
}

TEST(TzRuleTest, TextThatIsNoRuleIsRefusedAndChangesNothing) {
  const char* texts[] = {
      "", "UTC", "GMT", ":Europe/Paris", "Europe/Paris", "EST", "ES5", "E5T5", "<AB>5", "<ABC5", "<A_C>5", "<>5", "EST+",
      "EST-", "EST5:", "EST5::", "EST5:60", "EST5:30:60", "EST25", "EST24:00:00:00", "EST99999999999999999999", " EST5",
      "EST5 ", "EST 5", "ÉST5", "EST5\t", "EST5ED", "EST5EDT25", "EST5EDT,", "EST5EDT,M3.2.0", "EST5EDT,M3.2.0,",
      "EST5EDT,,M11.1.0", "EST5EDT;M3.2.0,M11.1.0", "EST5EDT,M3.2.0,M11.1.0,", "EST5EDT,M3.2.0,M11.1.0x",
      "EST5EDT,M3.2.0,M11.1.0,J1", "EST5EDT,M0.1.0,M11.1.0", "EST5EDT,M13.1.0,M11.1.0", "EST5EDT,M3.0.0,M11.1.0",
      "EST5EDT,M3.6.0,M11.1.0", "EST5EDT,M3.1.7,M11.1.0", "EST5EDT,M3.1,M11.1.0", "EST5EDT,M3..0,M11.1.0",
      "EST5EDT,J0,J365", "EST5EDT,J366,J1", "EST5EDT,366,1", "EST5EDT,-1,1", "EST5EDT,M3.2.0/,M11.1.0",
      "EST5EDT,M3.2.0/168,M11.1.0", "EST5EDT,M3.2.0/-168,M11.1.0", "EST5EDT,M3.2.0/2:60,M11.1.0", "EST5EDT,K3,M11.1.0",
      "EST5EDT,M3.2.0/2/3,M11.1.0",
  };
  const DKTzRule before = Rule("CET-1CEST,M3.5.0,M10.5.0/3");
  for (const char* text : texts) {
    SCOPED_TRACE(text);
    DKTzRule rule = before;
    EXPECT_FALSE(DKTzRule::Parse(text, rule));
    EXPECT_TRUE(rule == before);
  }
  // A NUL inside the text ends nothing: the whole view is read.
  DKTzRule rule;
  EXPECT_FALSE(DKTzRule::Parse(std::string_view("EST5\0EDT", 8), rule));
}

// ---- Offsets and readings -------------------------------------------------------------------------

TEST(TzRuleTest, OffsetsAtInstantsAroundTheChanges) {
  const struct {
    const char* rule;
    std::int64_t utc;
    int offset;
    bool daylight;
  } cases[] = {
      // Paris, 2021: summer time from 28 March 01:00 UTC to 31 October 01:00 UTC.
      {"CET-1CEST,M3.5.0,M10.5.0/3", At(2021, 3, 28, 0, 59, 59), 3600, false},
      {"CET-1CEST,M3.5.0,M10.5.0/3", At(2021, 3, 28, 1), 7200, true},
      {"CET-1CEST,M3.5.0,M10.5.0/3", At(2021, 10, 31, 0, 59, 59), 7200, true},
      {"CET-1CEST,M3.5.0,M10.5.0/3", At(2021, 10, 31, 1), 3600, false},
      // Before 1970 and far beyond, the same rules.
      {"CET-1CEST,M3.5.0,M10.5.0/3", At(1900, 7, 1), 7200, true},
      {"CET-1CEST,M3.5.0,M10.5.0/3", At(-2000, 7, 1), 7200, true},
      {"CET-1CEST,M3.5.0,M10.5.0/3", At(30000, 1, 1), 3600, false},
      // Southern hemisphere: daylight saving across New Year.
      {"AEST-10AEDT,M10.1.0,M4.1.0/3", At(2021, 1, 1), 39600, true},
      {"AEST-10AEDT,M10.1.0,M4.1.0/3", At(2021, 4, 3, 15, 59, 59), 39600, true},
      {"AEST-10AEDT,M10.1.0,M4.1.0/3", At(2021, 4, 3, 16), 36000, false},
      {"AEST-10AEDT,M10.1.0,M4.1.0/3", At(2021, 10, 2, 16), 39600, true},
      // Week 5 is the last: February 2021 has four Sundays, the last on the 28th.
      {"AAA0BBB,M2.5.0/0,M12.5.0/0", At(2021, 2, 27, 23, 59, 59), 0, false},
      {"AAA0BBB,M2.5.0/0,M12.5.0/0", At(2021, 2, 28), 3600, true},
      // Jn never counts 29 February, n does: J60 is 1 March, 59 is 29 February in a leap year.
      {"AAA0BBB,J60/0,J300/0", At(2020, 2, 29, 23, 59, 59), 0, false},
      {"AAA0BBB,J60/0,J300/0", At(2020, 3, 1), 3600, true},
      {"AAA0BBB,59/0,300/0", At(2020, 2, 28, 23, 59, 59), 0, false},
      {"AAA0BBB,59/0,300/0", At(2020, 2, 29), 3600, true},
      {"AAA0BBB,59/0,300/0", At(2021, 3, 1), 3600, true},
      // A change on New Year's Day, local time: in force from the UTC evening before.
      {"<+10>-10<+11>-11,J1/0,J182/0", At(2020, 12, 31, 13, 59, 59), 36000, false},
      {"<+10>-10<+11>-11,J1/0,J182/0", At(2020, 12, 31, 14), 39600, true},
      // Daylight saving all year, on both sides of each New Year.
      {"EST5EDT4,0/0,J365/25", At(2021, 1, 1, 4, 59, 59), -14400, true},
      {"EST5EDT4,0/0,J365/25", At(2021, 1, 1, 5), -14400, true},
      {"EST5EDT4,0/0,J365/25", At(2021, 12, 31, 23), -14400, true},
      // Times beyond the day: 167 hours after the second Sunday of March 2021 (14 March).
      {"XXX0YYY,M3.2.0/167,M11.1.0/-167", At(2021, 3, 20, 22, 59, 59), 0, false},
      {"XXX0YYY,M3.2.0/167,M11.1.0/-167", At(2021, 3, 20, 23), 3600, true},
      {"XXX0YYY,M3.2.0/167,M11.1.0/-167", At(2021, 10, 31, 0), 0, false},
      // Both changes of 2020 fall in 2021 (31 December + 166 and 160 hours): standard time only
      // from 6 January 15:00 to 22:00 UTC, the state before that set by 2019's changes.
      {"AAA0BBB,J365/166,J365/160", At(2021, 1, 3), 3600, true},
      {"AAA0BBB,J365/166,J365/160", At(2021, 1, 6, 15), 0, false},
      {"AAA0BBB,J365/166,J365/160", At(2021, 1, 6, 22), 3600, true},
      // No daylight saving.
      {"IST-5:30", At(2021, 7, 1), 19800, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.rule << " at " << c.utc);
    const DKTzRule rule = Rule(c.rule);
    bool inDaylight = !c.daylight;
    EXPECT_EQ(rule.OffsetAt(c.utc, &inDaylight), c.offset);
    EXPECT_EQ(inDaylight, c.daylight);
    EXPECT_EQ(rule.FromUtc(c.utc), c.utc + c.offset);
  }
}

TEST(TzRuleTest, ReadingsInTheGapMoveOnAndRepeatedReadingsTakeTheEarlierInstant) {
  const struct {
    const char* rule;
    std::int64_t wall, utc;
  } cases[] = {
      {"CET-1CEST,M3.5.0,M10.5.0/3", At(2021, 3, 28, 1, 59, 59), At(2021, 3, 28, 0, 59, 59)},
      {"CET-1CEST,M3.5.0,M10.5.0/3", At(2021, 3, 28, 2), At(2021, 3, 28, 1)},       // skipped: on by the gap
      {"CET-1CEST,M3.5.0,M10.5.0/3", At(2021, 3, 28, 2, 30), At(2021, 3, 28, 1, 30)},
      {"CET-1CEST,M3.5.0,M10.5.0/3", At(2021, 3, 28, 3), At(2021, 3, 28, 1)},
      {"CET-1CEST,M3.5.0,M10.5.0/3", At(2021, 10, 31, 1, 59, 59), At(2021, 10, 30, 23, 59, 59)},
      {"CET-1CEST,M3.5.0,M10.5.0/3", At(2021, 10, 31, 2), At(2021, 10, 31, 0)},     // repeated: the earlier
      {"CET-1CEST,M3.5.0,M10.5.0/3", At(2021, 10, 31, 2, 59, 59), At(2021, 10, 31, 0, 59, 59)},
      {"CET-1CEST,M3.5.0,M10.5.0/3", At(2021, 10, 31, 3), At(2021, 10, 31, 2)},
      {"EST5EDT,M3.2.0,M11.1.0", At(2021, 3, 14, 2, 30), At(2021, 3, 14, 7, 30)},
      {"EST5EDT,M3.2.0,M11.1.0", At(2021, 11, 7, 1, 30), At(2021, 11, 7, 5, 30)},
      // Lord Howe moves by half an hour: 7 April 2024 02:00 (+11) goes back to 01:30 (+10:30), and
      // 6 October 2024 02:00 (+10:30) jumps to 02:30 (+11).
      {"<+1030>-10:30<+11>-11,M10.1.0,M4.1.0", At(2024, 4, 7, 1, 45), At(2024, 4, 6, 14, 45)},
      {"<+1030>-10:30<+11>-11,M10.1.0,M4.1.0", At(2024, 10, 6, 2, 15), At(2024, 10, 5, 15, 45)},
      // All-year daylight saving has no gap at New Year.
      {"EST5EDT4,0/0,J365/25", At(2021, 1, 1, 0, 30), At(2021, 1, 1, 4, 30)},
      {"IST-5:30", At(2021, 1, 1), At(2020, 12, 31, 18, 30)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.rule << " reading " << c.wall);
    EXPECT_EQ(Rule(c.rule).ToUtc(c.wall), c.utc);
  }
}

// Every instant has an answer: the calendar repeats every 400 years, and results past the ends
// of the 64-bit range stop there.
TEST(TzRuleTest, TheWholeRangeOfInstantsAndReadings) {
  const DKTzRule paris = Rule("CET-1CEST,M3.5.0,M10.5.0/3");
  constexpr std::int64_t cycle = 146097LL * 86400;
  for (const std::int64_t t : {At(2021, 3, 28, 1), At(2021, 7, 1), At(2021, 10, 31, 0, 59, 59)})
    for (const std::int64_t cycles : {-700000000LL, -1LL, 1LL, 700000000LL})
      EXPECT_EQ(paris.OffsetAt(t + cycles * cycle), paris.OffsetAt(t)) << t << " + " << cycles << " cycles";
  EXPECT_EQ(paris.FromUtc(highest), highest);
  EXPECT_EQ(paris.FromUtc(lowest + 100), lowest + 100 + paris.OffsetAt(lowest + 100));
  EXPECT_EQ(paris.ToUtc(lowest), lowest);
  EXPECT_EQ(paris.ToUtc(highest - 100), highest - 100 - 3600); // a December
  const DKTzRule west = Rule("EST5");
  EXPECT_EQ(west.FromUtc(lowest), lowest);
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
// hours early: no reference for those.
TEST(TzRuleTest, AgreesWithTheCLibraryOnEveryOffsetNameAndReading) {
  const char* rules[] = {
      "CET-1CEST,M3.5.0,M10.5.0/3",
      "EST5EDT,M3.2.0,M11.1.0",
      "GMT0BST,M3.5.0/1,M10.5.0",
      "AEST-10AEDT,M10.1.0,M4.1.0/3",
      "<+1030>-10:30<+11>-11,M10.1.0,M4.1.0",
      "<-04>4<-03>,M9.1.6/24,M4.1.6/24",
      "<-02>2<-01>,M3.5.0/-1,M10.5.0/0",
      "<+0330>-3:30<+0430>,J79/24,J263/24",
      "NZST-12NZDT,M9.5.0,M4.1.0/3",
      "<+13>-13<+14>,M11.1.0,M1.3.0/3",
      "AAA3BBB,J60/1:30,J300/0:30:15",
      "AAA-2BBB-3:30,59,300/4",
      "XXX-1YYY,M3.2.0/100,M11.1.0/-100",
      "<-0230>2:30<-0130>,M3.5.4/23:59:59,M10.5.6/0:00:01",
      "IST-5:30",
      "<-0930>9:30",
  };
  constexpr int fromYear = 1970, toYear = 2100;
  for (const char* text : rules) {
    SCOPED_TRACE(text);
    const ScopedEnv zone("TZ", text, &tzset);
    const DKTzRule rule = Rule(text);
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
