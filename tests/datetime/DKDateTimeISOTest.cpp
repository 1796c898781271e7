// The exchange forms of the date values: std::chrono day counts and time points, and ISO 8601
// text. The reference is std::chrono's own calendar (sys_days, year_month_day, hh_mm_ss), over
// random instants of the years chrono knows, and the ends of the library's range.
#include "DateTimeTestSupport.h"
#include "support/DKIsoText.h"

#include <chrono>
#include <random>
#include <string>

namespace {

using namespace std::chrono;
using U = DKDurationEx::Unit;
using sys_ms = sys_time<milliseconds>;

// A random instant of the years 0..32767, with its chrono reading.
struct Instant {
  year_month_day date;
  milliseconds msOfDay;
  sys_ms Chrono() const { return sys_days{date} + msOfDay; }
  DKDateTimeEx Value() const {
    const hh_mm_ss<milliseconds> t{msOfDay};
    return Utc(int{date.year()}, unsigned{date.month()}, unsigned{date.day()}, static_cast<unsigned>(t.hours().count()),
               static_cast<unsigned>(t.minutes().count()), static_cast<unsigned>(t.seconds().count()),
               static_cast<unsigned>(t.subseconds().count()));
  }
};

class RandomInstants {
public:
  explicit RandomInstants(int lastYear) : m_days(0, (sys_days{year{lastYear} / 12 / 31} - sys_days{year{0} / 1 / 1}).count()) {}
  Instant Next() {
    return {year_month_day{sys_days{year{0} / 1 / 1} + days{m_days(m_random)}}, milliseconds{m_ms(m_random)}};
  }
  std::mt19937_64& Engine() { return m_random; }

private:
  std::mt19937_64 m_random{20240229};
  std::uniform_int_distribution<long> m_days;
  std::uniform_int_distribution<long> m_ms{0, 86399999};
};

using dktest::IsoText;

constexpr const char* paris = parisRule;

// ---- std::chrono -------------------------------------------------------------------------

// Days of years 0..32767 are compared with chrono in DKCalendarTest.cpp.
TEST(ChronoExchangeTest, SysDaysAtTheEndsOfTheRange) {
  sys_days first{}, last{};
  ASSERT_TRUE(DKDateEx::minimum.AsSysDays(first));
  ASSERT_TRUE(DKDateEx::maximum.AsSysDays(last));
  // Before year 0 the days run on without a gap: the span is the sum of the years' lengths.
  long long span = 0;
  for (int y = DKDateEx::minYear; y <= DKDateEx::maxYear; ++y)
    span += DKIsLeapYear(static_cast<unsigned>(y)) ? 366 : 365;
  EXPECT_EQ((last - first).count() + 1, span);
  sys_days lastBeforeZero{};
  ASSERT_TRUE(DKDateEx(-1, 12, 31).AsSysDays(lastBeforeZero));
  EXPECT_EQ(lastBeforeZero + days{1}, sys_days{year{0} / 1 / 1});

  DKDateEx date(2021, 3, 28);
  EXPECT_FALSE(date.FromSysDays(last + days{1}));
  EXPECT_FALSE(date.FromSysDays(first - days{1}));
  EXPECT_FALSE(date.FromSysDays(sys_days{days{std::numeric_limits<days::rep>::max()}}));
  EXPECT_FALSE(date.FromSysDays(sys_days{days{std::numeric_limits<days::rep>::min()}}));
  EXPECT_EQ(date, DKDateEx(2021, 3, 28));
  ASSERT_TRUE(date.FromSysDays(last));
  EXPECT_EQ(date, DKDateEx::maximum);

  sys_days untouched = last;
  EXPECT_FALSE(DKDateEx().AsSysDays(untouched));
  EXPECT_FALSE(DKDateEx::Pack(2021, 2, 29).AsSysDays(untouched));
  EXPECT_FALSE(DKDateTimeEx(DKTimeEx(10, 0)).AsSysDays(untouched));
  EXPECT_EQ(untouched, last);
  // A date and a time give the UTC date.
  ASSERT_TRUE(Utc(2021, 3, 28, 23, 59, 59, 999).AsSysDays(untouched));
  EXPECT_EQ(untouched, sys_days{2021y / 3 / 28});
}

TEST(ChronoExchangeTest, TimePointsMatchChronoArithmetic) {
  RandomInstants instants(32767);
  for (int i = 0; i < 20000; ++i) {
    const Instant instant = instants.Next();
    const DKDateTimeEx value = instant.Value();
    sys_ms ms{};
    ASSERT_TRUE(value.AsTimePoint(ms));
    ASSERT_EQ(ms, instant.Chrono());
    DKDateTimeEx back;
    ASSERT_TRUE(back.FromTimePoint(instant.Chrono()));
    ASSERT_EQ(back, value);

    // The system clock's nanoseconds reach only about 1678..2261; finer units are floored.
    system_clock::time_point tp{};
    const bool fits = instant.date.year() >= year{1678} && instant.date.year() <= year{2261};
    if (instant.date.year() < year{1677} || instant.date.year() > year{2262} || fits) {
      ASSERT_EQ(value.AsTimePoint(tp), fits);
      if (fits) {
        ASSERT_EQ(tp, instant.Chrono());
        ASSERT_TRUE(back.FromTimePoint(tp + 999999ns));
        ASSERT_EQ(back, value);
        ASSERT_TRUE(back.FromTimePoint(tp - 1ns)); // towards the earlier instant, also before 1970
        ASSERT_EQ(back, value - DKDurationEx(1, U::Millisecond));
      }
    }
    ASSERT_TRUE(back.FromTimePoint(floor<seconds>(instant.Chrono())));
    ASSERT_EQ(back.GetTime().GetMillisecond(), 0u);
    ASSERT_EQ(back, value - DKDurationEx(static_cast<long>(value.GetTime().GetMillisecond()), U::Millisecond));
  }
}

TEST(ChronoExchangeTest, TimePointsAtTheEndsAndForValuesWithoutAnInstant) {
  for (const DKDateTimeEx& end : {DKDateTimeEx::minimum, DKDateTimeEx::maximum}) {
    sys_ms ms{};
    ASSERT_TRUE(end.AsTimePoint(ms));
    DKDateTimeEx back;
    ASSERT_TRUE(back.FromTimePoint(ms));
    EXPECT_EQ(back, end);
    const sys_ms beyond = end == DKDateTimeEx::minimum ? ms - 1ms : ms + 1ms;
    EXPECT_FALSE(back.FromTimePoint(beyond));
    EXPECT_EQ(back, end); // unchanged
    system_clock::time_point tp{};
    EXPECT_FALSE(end.AsTimePoint(tp));
  }
  DKDateTimeEx value = Utc(2021, 3, 28);
  EXPECT_FALSE(value.FromTimePoint(sys_ms::max()));
  EXPECT_FALSE(value.FromTimePoint(sys_ms::min()));
  EXPECT_FALSE(value.FromTimePoint(sys_seconds::max()));
  EXPECT_FALSE(value.FromTimePoint(sys_time<hours>{hours{std::numeric_limits<hours::rep>::min()}}));
  EXPECT_EQ(value, Utc(2021, 3, 28));
  EXPECT_TRUE(value.FromTimePoint(system_clock::time_point::max()));
  EXPECT_EQ(value.GetDate(), DKDateEx(2262, 4, 11));

  sys_ms ms{12345ms};
  for (const DKDateTimeEx& v : {DKDateTimeEx(), DKDateTimeEx(DKDateEx(2021, 3, 28)), DKDateTimeEx(DKTimeEx(10, 0))})
    EXPECT_FALSE(v.AsTimePoint(ms));
  EXPECT_EQ(ms, sys_ms{12345ms});
  // The time point of now is the library's now, to the millisecond.
  const DKDateTimeEx before = DKDateTimeEx::GetCurrentDateTime();
  ASSERT_TRUE(value.FromTimePoint(system_clock::now()));
  EXPECT_LE(before, value);
  EXPECT_LE(value, DKDateTimeEx::GetCurrentDateTime());
}

// ---- ISO 8601 ----------------------------------------------------------------------------

// Written in UTC exactly as chrono's fields say, and read back from chrono's text with any
// offset, in any of the spellings the reader takes.
TEST(IsoTextTest, AgreesWithChronoFieldsAndOffsets) {
  RandomInstants instants(9999);
  std::uniform_int_distribution<int> offsets(-23 * 60 - 59, 23 * 60 + 59);
  for (int i = 0; i < 20000; ++i) {
    const Instant instant = instants.Next();
    const DKDateTimeEx value = instant.Value();
    if (instant.date.year() == year{0} || instant.date.year() == year{9999})
      continue; // an offset could move the reading out of four-digit years
    ASSERT_EQ(value.AsISO8601().AsUTF8(), IsoText(instant.Chrono(), 0));
    const int offset = offsets(instants.Engine());
    std::string text = IsoText(instant.Chrono(), offset);
    switch (i % 5) { // the other spellings of the same instant
    case 1: text[10] = ' '; break;
    case 2: text[10] = 't'; break;
    case 3:
      if (offset != 0)
        text.erase(text.size() - 3, 1); // +hhmm
      break;
    case 4: text.insert(23, "999999"); break; // more digits than milliseconds: dropped
    }
    DKDateTimeEx back;
    ASSERT_TRUE(back.FromISO8601(Text(text)).Good()) << text;
    ASSERT_EQ(back, value) << text;
  }
}

// Each form of iso_forms.txt also reads back as its value: the last rows of iso_reads.txt.
TEST(IsoTextTest, FormsOfEachKindOfValue) {
  DK_IN_ZONE(paris);
  for (const auto& c : Cases("iso_forms.txt", 2))
    EXPECT_EQ(ValueOf(c, 0).AsISO8601().AsUTF8(), c[1]) << c.where;
  for (const auto& c : Cases("iso_reads.txt", 2)) { // readings of the same kinds
    SCOPED_TRACE(c.where);
    DKDateTimeEx back;
    ASSERT_TRUE(back.FromISO8601(Text(c[0])).Good());
    EXPECT_EQ(back, ValueOf(c, 1));
  }
}

TEST(IsoTextTest, UnreadableTextGivesMessageNineAndTheNullValue) {
  for (const auto& c : Cases("iso_unreadable.txt", 1)) {
    SCOPED_TRACE(c.where + " " + c[0]);
    DKDateTimeEx v = Utc(1999, 1, 1);
    const DKErrorID result = v.FromISO8601(Text(c[0]), DKTimeZone::UTC);
    ASSERT_TRUE(result.Bad());
    EXPECT_EQ(result.GetCode(), DK_MSG_INVALID_DATE);
    EXPECT_EQ(result.GetError()->GetParameterValueAsString(0, DKExecContext()), Text(c[0]));
    EXPECT_TRUE(v.IsNull());
  }
  DKDateTimeEx v = Utc(1999, 1, 1);
  EXPECT_TRUE(v.FromISO8601(DKString()).Good());
  EXPECT_TRUE(v.IsNull());
}

// Local time: the offset in force is written, so that every instant reads back exactly (the
// iso8601 fuzz target's property, with seeds around the changes of offset). Text without an
// offset is a wall-clock reading in the zone given: iso_reads.txt.
// (tests/datetime/cases/iso_local.txt)
TEST(IsoTextTest, LocalZoneWritesItsOffset) {
  for (const auto& c : Cases("iso_local.txt", 3)) {
    DK_IN_ZONE(c[0].c_str());
    EXPECT_EQ(ValueOf(c, 1).AsISO8601(DKTimeZone::Local).AsUTF8(), c[2]) << c.where;
  }
}

} // namespace
