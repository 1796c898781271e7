// DKDateTimeEx and DKTimeZone: layout, zones and daylight saving, arithmetic and the "%" text
// formats (the records are in DKDateRecordsTest.cpp). Zone cases run under a fixed TZ: the rules of
// Paris and New York.
#include "DateTimeTestSupport.h"

#include <atomic>
#include <ctime>
#include <limits>
#include <sstream>
#include <tuple>
#include <vector>

namespace {

using U = DKDurationEx::Unit;
constexpr const char* paris = parisRule;
constexpr const char* newYork = newYorkRule;

// ---- Layout and predicates ------------------------------------------------------------------------

// The predicates of tests/datetime/cases/datetime_predicates.txt.
TEST(DateTimeExTest, PartsPredicatesAndOrder) {
  for (const auto& c : Cases("datetime_predicates.txt", 8)) {
    SCOPED_TRACE(c.where);
    const DKDateTimeEx value = ValueOf(c, 0);
    EXPECT_EQ(value.HasDate(), c.YesNo(1));
    EXPECT_EQ(value.HasTime(), c.YesNo(2));
    EXPECT_EQ(value.IsDateAndTime(), c.YesNo(3));
    EXPECT_EQ(value.IsOnlyDate(), c.YesNo(4));
    EXPECT_EQ(value.IsOnlyTime(), c.YesNo(5));
    EXPECT_EQ(value.IsNull(), c.YesNo(6));
    EXPECT_EQ(value.IsValid(), c.YesNo(7));
    if (!c.YesNo(7)) { // a value that is not valid neither moves nor writes
      DKDateTimeEx moved = value;
      ++moved;
      moved += DKDurationEx(1, U::Hour);
      EXPECT_EQ(moved, value);
      EXPECT_EQ(value.AsString(DK_T("%Y %H")), DK_T(""));
    }
  }
  const DKDateTimeEx both = Utc(2020, 1, 5, 10, 20, 30);
  EXPECT_EQ(both.AsInt64(), (static_cast<DKInt64>(DKDateEx(2020, 1, 5).AsInt()) << 32) | DKTimeEx(10, 20, 30).AsInt());
  EXPECT_EQ(DKDateTimeEx::null.AsInt64(), 0xFFFFFFFFLL);
  EXPECT_LT(Utc(2020, 1, 5, 23, 59), Utc(2020, 1, 6, 0, 0)); // date first, then time
  EXPECT_LT(both, DKDateTimeEx(DKDateEx(2020, 1, 5))); // a date alone holds time -1: all ones in the lower half
}

// ---- Zones --------------------------------------------------------------------------------------

TEST(TimeZoneTest, PredefinedZonesFollowTZ) {
  {
    DK_IN_ZONE(paris);
    EXPECT_NE(DKTimeZone(), DKTimeZone(DKTimeZone::UTC));
    EXPECT_EQ(DKTimeZone().GetBias(), -60);
    EXPECT_EQ(DKTimeZone().GetName(false), DK_T("CET"));
    EXPECT_EQ(DKTimeZone().GetName(true), DK_T("CEST"));
    EXPECT_EQ(DKTimeZone(DKTimeZone::UTC).GetName(), DK_T("UTC"));
    bool daylight = false;
    EXPECT_EQ(DKTimeZone().GetOffset(1625140800, &daylight), 7200); // 2021-07-01 12:00 UTC
    EXPECT_TRUE(daylight);
    EXPECT_EQ(DKTimeZone().GetOffset(1609502400, &daylight), 3600); // 2021-01-01 12:00 UTC
    EXPECT_FALSE(daylight);
  }
  DK_IN_ZONE(newYork);
  EXPECT_EQ(DKTimeZone().GetBias(), 300);
  EXPECT_EQ(DKTimeZone().GetName(), DK_T("EST"));
}

TEST(TimeZoneTest, SystemTimeBetweenUtcAndZone) {
  DK_IN_ZONE(newYork);
  const DKSystemTime utc(2021, 7, 0, 4, 16, 30, 0, 5);
  dk::SYSTEMTIME local{};
  ASSERT_TRUE(DKTimeZone().SystemTimeToZone(utc, local));
  EXPECT_EQ(local.wHour, 12);
  EXPECT_EQ(local.wDayOfWeek, 0); // 2021-07-04 was a Sunday
  EXPECT_EQ(DKSystemTimeDifference(local, utc), -4 * 3600);
  dk::SYSTEMTIME back{};
  ASSERT_TRUE(DKTimeZone().ZoneToSystemTime(local, back));
  EXPECT_EQ(DKSystemTimeDifference(back, utc), 0);
  dk::SYSTEMTIME invalid = utc;
  invalid.wMonth = 13;
  EXPECT_FALSE(DKTimeZone().SystemTimeToZone(invalid, local));
}

#if defined(_WIN32)
// Windows reads only a rule from TZ: a zone name, a rule that is not whole or no text at all
// leaves the zone of the system settings, and a reload after a rule brings that zone back.
TEST(TimeZoneTest, TZThatHoldsNoRuleLeavesTheSystemZone) {
  const ScopedEnv unset("TZ", nullptr, &DKTimeZone::Reload);
  const DKTimeZone local;
  const auto reading = [&] {
    std::vector<int> offsets{local.GetBias()};
    for (const DKInt64 t : {1609502400LL, 1625140800LL}) // January and July 2021
      offsets.push_back(local.GetOffset(t));
    return std::tuple(offsets, local.GetName(false), local.GetName(true));
  };
  const auto system = reading();
  for (const char* text : {"Europe/Paris", ":Europe/Paris", "UTC", "EST5EDT,M3.2.0", ""}) {
    SCOPED_TRACE(text);
    {
      const ScopedTimeZone zone("<+0545>-5:45");
      EXPECT_EQ(local.GetBias(), -345);
    }
    const ScopedTimeZone zone(text);
    EXPECT_EQ(reading(), system);
  }
}
#endif

// The library learns each year's changes of offset from the system and answers from that
// table: it must agree with the system at every instant, to the second around each change, over
// the zones' history (local mean time, wars, rules that changed).
TEST(TimeZoneTest, OffsetsMatchTheSystemToTheSecondAroundEveryChange) {
#if defined(_WIN32)
  GTEST_SKIP() << "needs the zones' history: Windows takes a named zone from its settings only, not from TZ";
#else
  const auto system = [](std::int64_t t) {
    const time_t value = static_cast<time_t>(t);
    std::tm tm{};
    localtime_r(&value, &tm);
    return static_cast<int>(tm.tm_gmtoff);
  };
  for (const char* zone : {"Europe/Paris", "America/New_York", "Australia/Lord_Howe", "Asia/Kolkata"}) {
    if (!HasZoneInfo(zone))
      continue;
    ScopedTimeZone tz(zone);
    SCOPED_TRACE(zone);
    const DKTimeZone local;
    int changes = 0;
    constexpr std::int64_t step = 6 * 3600;
    for (std::int64_t t = -2524521600; t < 2524608000; t += step) { // 1890 to 2050
      ASSERT_EQ(local.GetOffset(t), system(t)) << t;
      if (system(t - step) == system(t))
        continue;
      std::int64_t low = t - step, high = t; // find the change independently, to the second
      while (high - low > 1)
        (system(low + (high - low) / 2) == system(low) ? low : high) = low + (high - low) / 2;
      ASSERT_EQ(local.GetOffset(high - 1), system(high - 1)) << high;
      ASSERT_EQ(local.GetOffset(high), system(high)) << high;
      ++changes;
    }
    EXPECT_GT(changes, 2);
  }
#endif
}

// Each thread learns the offsets on its own and gives its table back as it ends: threads that
// read often enough to learn, and then end, agree with what the main thread reads.
TEST(TimeZoneTest, ThreadsThatLearnOffsetsAndEndAgreeWithTheMainThread) {
  const DKTimeZone local;
  std::vector<std::int64_t> instants;
  for (std::int64_t t = -2524521600; t < 2524608000; t += 97 * 24 * 3600)
    instants.push_back(t);
  std::vector<int> expected;
  for (std::int64_t t : instants)
    expected.push_back(local.GetOffset(t));
  std::atomic<int> wrong{0};
  for (int round = 0; round < 4; ++round)
    RunOnThreads(8, 6, [&](int, int) {
      for (std::size_t i = 0; i < instants.size(); ++i)
        wrong += local.GetOffset(instants[i]) != expected[i];
    });
  EXPECT_EQ(wrong.load(), 0);
}

// Instants and readings at the ends of the 64-bit range lie far beyond the years the system
// knows: the standard offset applies, a result past an end stops at it, and asking often (so
// that the offsets around them are learned) changes nothing.
TEST(TimeZoneTest, TheEndsOfTheRangeStopInsteadOfWrapping) {
  constexpr DKInt64 lowest = std::numeric_limits<DKInt64>::min();
  constexpr DKInt64 highest = std::numeric_limits<DKInt64>::max();
  const auto shifted = [&](DKInt64 seconds, DKInt64 by) {
    DKInt64 sum = 0;
    return __builtin_add_overflow(seconds, by, &sum) ? (by > 0 ? highest : lowest) : sum;
  };
  for (const char* name : {paris, newYork}) {
    DK_IN_ZONE(name);
    for (const DKTimeZone zone : {DKTimeZone(), DKTimeZone(DKTimeZone::UTC)}) {
      const DKInt64 standard = -60 * zone.GetBias();
      for (const DKInt64 seconds : {lowest, lowest + 1, lowest + 7200, -(DKInt64{1} << 62) - 1, (DKInt64{1} << 62) + 1,
                                    highest - 7200, highest - 1, highest}) {
        SCOPED_TRACE(testing::Message() << name << (zone.IsUTC() ? " UTC " : " local ") << seconds);
        for (int ask = 0; ask < 6; ++ask)
          ASSERT_EQ(zone.GetOffset(seconds), standard);
        EXPECT_EQ(zone.FromUTC(seconds), shifted(seconds, standard));
        EXPECT_EQ(zone.ToUTC(seconds), shifted(seconds, -standard));
      }
    }
  }
}

// Readings in the hour skipped when daylight saving starts move forward by the gap; readings
// in the hour repeated when it ends take the earlier instant (tests/datetime/cases/wall_readings.txt).
TEST(TimeZoneTest, WallClockReadingsAroundChanges) {
  for (const auto& c : Cases("wall_readings.txt", 3)) {
    DK_IN_ZONE(ZoneOf(c, 0));
    EXPECT_EQ(LocalReading(ValueOf(c, 1)), ValueOf(c, 2)) << c.where;
  }
}

// ---- Arithmetic --------------------------------------------------------------------------------

// Calendar units keep the local clock reading, clock units the elapsed time
// (tests/datetime/cases/calendar_steps.txt).
TEST(DateTimeExArithmeticTest, CalendarUnitsKeepTheClockAcrossDaylightSaving) {
  for (const auto& c : Cases("calendar_steps.txt", 5)) {
    DK_IN_ZONE(ZoneOf(c, 0));
    SCOPED_TRACE(c.where);
    const DKDateTimeEx from = LocalReading(ValueOf(c, 1));
    const DKDateTimeEx to = from + DurationOf(c, 2);
    EXPECT_EQ(to.AsString(), Text(c[3]));
    EXPECT_EQ((to - from).AsMilliSeconds(), c.Int(4) * 3600000LL);
    EXPECT_EQ(to - DurationOf(c, 2), from);
  }
}

// tests/datetime/cases/datetime_steps.txt: values moved by a duration, or their difference.
TEST(DateTimeExArithmeticTest, ClockUnitsMoveTheInstantAndCarryDaysAndDifferencesTakeAUnit) {
  for (const auto& c : Cases("datetime_steps.txt", 4)) {
    SCOPED_TRACE(c.where);
    if (c[1] == "minus")
      EXPECT_EQ(ValueOf(c, 0) - ValueOf(c, 2), DurationOf(c, 3));
    else
      EXPECT_EQ(c[1] == "+" ? ValueOf(c, 0) + DurationOf(c, 2) : ValueOf(c, 0) - DurationOf(c, 2), ValueOf(c, 3));
  }
  EXPECT_EQ(DKDateTimeEx::maximum - DKDateTimeEx::minimum, DKDurationEx((DKDateEx::maximum - DKDateEx::minimum).GetDuration(), U::Week));
  DKDateTimeEx v = Utc(2021, 1, 1, 23, 59, 59, 999);
  EXPECT_EQ(++v, Utc(2021, 1, 2));
  DKDateTimeEx d(DKDateEx(2021, 1, 1));
  EXPECT_EQ(--d, DKDateTimeEx(DKDateEx(2020, 12, 31)));
}

// tests/datetime/cases/datetime_range_ends.txt: each step throws with the bound it passes.
TEST(DateTimeExArithmeticTest, LeavingTheRangeThrowsWithTheBound) {
  DK_IN_ZONE(newYork);
  for (const auto& c : Cases("datetime_range_ends.txt", 3)) {
    SCOPED_TRACE(c.where);
    DKDateTimeEx v = ValueOf(c, 0);
    try {
      v += DurationOf(c, 1);
      ADD_FAILURE() << "no exception";
    } catch (const DKDateExceptionEx& e) {
      EXPECT_EQ(e.dateTime(), ValueOf(c, 2));
    }
    EXPECT_EQ(v, ValueOf(c, 0));
  }
  // Near the ends, a local breakdown that passes the last year still comes back into range.
  EXPECT_EQ(DKDateTimeEx::maximum - DKDurationEx(1, U::Day) + DKDurationEx(1, U::Day), DKDateTimeEx::maximum);
}

// ---- Text: writing -------------------------------------------------------------------------------

// The codes and default formats of tests/datetime/cases/datetime_codes.txt.
TEST(DateTimeExTextTest, CodesAndDefaultFormats) {
  for (const auto& c : Cases("datetime_codes.txt", 4)) {
    SCOPED_TRACE(c.where);
    DK_IN_ZONE(c[2] == "utc" ? paris : ZoneOf(c, 2));
    const DKTimeZone zone = c[2] == "utc" ? DKTimeZone::UTC : DKTimeZone::Local;
    const DKString format = Text(c[1]); // empty: the default format
    EXPECT_EQ(ValueOf(c, 0).AsString(format, zone), Text(c[3]));
    // The buffer form writes the same text when the buffer is large enough.
    DKChar buffer[64];
    EXPECT_TRUE(ValueOf(c, 0).AsString(buffer, 64, format.IsEmpty() ? nullptr : format.c_str(), zone).Good());
    EXPECT_EQ(DKString(buffer), Text(c[3]));
  }
  EXPECT_EQ(DKDateTimeEx(DKDateEx(2020, 1, 5)).GetDefaultFormat(true, true), DK_T("%Y/%m/%d %H:%M:%S")); // full
}

// Writing stops once size - 5 characters are written; a code is never cut, the text is always
// terminated and nothing is written past the buffer (tests/datetime/cases/datetime_buffers.txt).
TEST(DateTimeExTextTest, BufferRule) {
  for (const auto& c : Cases("datetime_buffers.txt", 4)) {
    const unsigned size = static_cast<unsigned>(c.Int(2));
    std::vector<DKChar> buffer(size + 1, DK_T('#'));
    EXPECT_TRUE(ValueOf(c, 0).AsString(buffer.data(), size, Text(c[1]).c_str(), DKTimeZone::UTC).Good());
    EXPECT_EQ(DKString(buffer.data()), Text(c[3])) << c.where;
    EXPECT_EQ(buffer[size], DK_T('#')) << c.where << ": written past the buffer";
  }
  EXPECT_TRUE(DKDateTimeEx(DKDateEx(2020, 1, 5)).AsString(nullptr, 100, DK_T("%Y")).Good());
}

// ---- Text: reading -------------------------------------------------------------------------------

TEST(DateTimeExTextTest, Reading) {
  DK_IN_ZONE(paris);
  for (const auto& c : Cases("datetime_reading.txt", 3)) {
    SCOPED_TRACE(c.where);
    DKDateTimeEx v = Utc(1999, 1, 1);
    EXPECT_TRUE(v.FromString(Text(c[0]), Text(c[1])).Good());
    EXPECT_EQ(v, ValueOf(c, 2));
  }
}

TEST(DateTimeExTextTest, UnreadableTextGivesMessageNine) {
  DK_IN_ZONE(newYork);
  for (const auto& c : Cases("datetime_unreadable.txt", 1)) {
    SCOPED_TRACE(c.where);
    const DKString text = Text(c[0]);
    DKDateTimeEx v = Utc(1999, 1, 1);
    const DKErrorID result = v.FromString(text);
    ASSERT_TRUE(result.Bad());
    EXPECT_EQ(result.GetError()->GetParameterValueAsString(0, DKExecContext()), text);
    EXPECT_EQ(result.AsString(), DKString(DK_T("Invalid date: ")) + text);
    EXPECT_TRUE(v.IsNull());
    EXPECT_THROW(DKDateTimeEx{text}, DKDateExceptionEx);
  }
}

TEST(DateTimeExTextTest, Sysdate) {
  const DKDateTimeEx before = DKDateTimeEx::GetCurrentDateTime();
  DKDateTimeEx v;
  ASSERT_TRUE(v.FromString(DK_T("SYSDATE"), DK_T("%H")).Good());
  const DKDateTimeEx after = DKDateTimeEx::GetCurrentDateTime();
  EXPECT_LE(before, v);
  EXPECT_LE(v, after);
}

// Every quarter of an hour of a year, written and read back in the local zone: exact with the
// offset in the text; without it, only the repeated hour reads as its earlier instant.
TEST(DateTimeExTextTest, RoundTripsThroughTheYear) {
  for (const char* zone : {paris, newYork}) {
    DK_IN_ZONE(zone);
    for (DKDateTimeEx v = Utc(2021, 1, 1, 0, 0, 0, 125); v < Utc(2022, 1, 1); v += DKDurationEx(15, U::Minute)) {
      DKDateTimeEx back;
      ASSERT_TRUE(back.FromString(v.AsString(DK_T("%Y/%m/%d %H:%M:%S.%L%z")), DK_T("%Y/%m/%d %H:%M:%S.%L%z")).Good());
      ASSERT_EQ(back, v);
      ASSERT_TRUE(back.FromString(v.AsString()).Good());
      const DKDateTimeEx hourEarlier = v - DKDurationEx(1, U::Hour);
      const bool repeated = hourEarlier.AsString(DK_T("%H")) == v.AsString(DK_T("%H")); // the clock went back
      ASSERT_EQ(back, repeated ? hourEarlier : v) << testing::PrintToString(v);
    }
  }
}

TEST(DateTimeExTextTest, Streams) {
  DK_IN_ZONE(paris);
  std::ostringstream out;
  out << Utc(2020, 1, 5, 9, 20, 30) << '|' << DKDateTimeEx(DKTimeEx(1, 2, 3, 4));
  EXPECT_EQ(out.str(), "2020/01/05 10:20:30|01:02:03.004");
  std::istringstream in("2020/01/05 10:20:30 rest 2020/01/05 x 10:20 y 2020/02/30");
  DKDateTimeEx a, b, c, d;
  std::string word, word2, word3;
  in >> a >> word >> b >> word2 >> c >> word3;
  EXPECT_EQ(a, Utc(2020, 1, 5, 9, 20, 30));
  EXPECT_EQ(word, "rest");
  EXPECT_EQ(b, DKDateTimeEx(DKDateEx(2020, 1, 5)));
  EXPECT_EQ(word2, "x");
  EXPECT_EQ(c, DKDateTimeEx(DKTimeEx(10, 20)));
  EXPECT_FALSE(in >> d);
}

} // namespace
