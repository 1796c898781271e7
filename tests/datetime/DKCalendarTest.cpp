// The calendar rules against std::chrono's proleptic Gregorian calendar, over long ranges of
// days: day counts, dates, leap years, week days and week numbers.
#include "DateTimeTestSupport.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <random>

namespace {

using namespace std::chrono;

constexpr sys_days epoch1970{days{0}};
const DKDateEx dkEpoch(1970, 1, 1);

year_month_day Chrono(const DKDateEx& date) {
  return year{date.GetYear()} / month{date.GetMonth()} / day{date.GetDay()};
}

// Every day of years 0..10000, then chrono's whole range with a stride prime to the week and month
// lengths: day counts, and the sys_days exchange of DKDateEx and of a date alone in DKDateTimeEx.
TEST(CalendarTest, DayCountsAndSysDaysMatchChrono) {
  const int last = (sys_days{year{32767} / 12 / 31} - epoch1970).count();
  const int denseEnd = (sys_days{year{10001} / 1 / 1} - epoch1970).count();
  for (int n = (sys_days{year{0} / 1 / 1} - epoch1970).count(); n <= last; n += n < denseEnd ? 1 : 997) {
    const DKDateEx date = dkEpoch + static_cast<long>(n);
    const sys_days day = epoch1970 + days{n};
    ASSERT_EQ(Chrono(date), year_month_day{day}) << n;
    ASSERT_EQ((date - dkEpoch).GetDuration(), n) << n;
    sys_days back{};
    DKDateEx read;
    DKDateTimeEx value;
    ASSERT_TRUE(date.AsSysDays(back) && back == day) << n;
    ASSERT_TRUE(read.FromSysDays(day) && read == date) << n;
    ASSERT_TRUE(value.FromSysDays(day) && value.IsOnlyDate() && value.GetDate() == date) << n;
  }
}

// Random days of the whole packed range. Before year 0 the leap years follow the unsigned rule,
// which chrono does not know: there too each day must be followed by the next one of the calendar.
TEST(CalendarTest, WholePackedRangeRoundTripsThroughDayCounts) {
  std::mt19937_64 random(1234);
  std::uniform_int_distribution<long long> anyDay(0, 2LL * 4194303 * 366);
  const DKDateEx low = DKDateEx::minimum;
  const long span = (DKDateEx::maximum - low).GetDuration(); // in weeks: too many days for 32 bits
  ASSERT_EQ((DKDateEx::maximum - low).GetUnit(), DKDurationEx::Week);
  // A count of days is a long: where it has 32 bits (Windows) it reaches the first 2^31 days.
  const long long reach = std::min<long long>(span * 7LL, std::numeric_limits<long>::max());
  for (int i = 0; i < 200000; ++i) {
    const long n = static_cast<long>(anyDay(random) % reach);
    const DKDateEx date = low + n;
    ASSERT_TRUE(date.IsValid());
    const DKDateEx next = date + 1L;
    const int year = date.GetYear();
    const unsigned month = date.GetMonth(), day = date.GetDay();
    const bool monthEnd = day == static_cast<unsigned>(DKDateEx::GetDaysInMonth(year, month));
    const bool yearEnd = monthEnd && month == 12;
    ASSERT_EQ(next, DKDateEx(yearEnd ? year + 1 : year, yearEnd ? 1 : month + monthEnd, monthEnd ? 1 : day + 1))
        << testing::PrintToString(date);
    ASSERT_EQ(next - date, DKDurationEx(1, DKDurationEx::Day));
    ASSERT_EQ(next - 1L, date);
    ASSERT_EQ(date - n, low);
  }
  // The weeks are truncated: less than one week is left to the maximum.
  const DKDurationEx rest = DKDateEx::maximum - (low + DKDurationEx(span, DKDurationEx::Week));
  EXPECT_EQ(rest.GetUnit(), DKDurationEx::Day);
  EXPECT_GE(rest.GetDuration(), 0);
  EXPECT_LT(rest.GetDuration(), 7);
}

TEST(CalendarTest, LeapYearsMatchChronoAndKeepTheUnsignedRuleBelowZero) {
  for (int y = 0; y <= 32767; ++y)
    ASSERT_EQ(DKIsLeapYear(static_cast<unsigned>(y)), year{y}.is_leap()) << y;
  // A negative year is tested as 2^32 plus the year.
  EXPECT_TRUE(DKIsLeapYear(static_cast<unsigned>(-100))); // 4294967196 is not a multiple of 100
  EXPECT_FALSE(DKIsLeapYear(static_cast<unsigned>(-96 - 100))); // 4294967100 is a multiple of 100, not of 400
  EXPECT_EQ(DKDateEx::GetDaysInMonth(-100, 2), 29);
}

// Week days, year days and week numbers (the Mondays from 1 January up to the date). Before 1970
// every day counts as a Sunday: week day 0, and the first "Monday" is never reached in week 1.
TEST(CalendarTest, WeekDaysYearDaysAndWeekNumbersMatchChrono) {
  for (int y = 1960; y <= 2400; ++y) {
    int mondays = 0;
    for (sys_days d = year{y} / 1 / 1; d <= sys_days{year{y} / 12 / 31}; d += days{1}) {
      if (weekday{d} == Monday)
        ++mondays;
      const year_month_day ymd{d};
      const DKDateEx date(static_cast<int>(ymd.year()), static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()));
      ASSERT_EQ(date.GetWeekDay(), y < 1970 ? 0 : static_cast<int>(weekday{d}.c_encoding())) << testing::PrintToString(date);
      ASSERT_EQ(date.GetYearDay(), (d - sys_days{year{y} / 1 / 1}).count() + 1) << testing::PrintToString(date);
      if (y >= 1970) {
        ASSERT_EQ(date.GetYearWeek(), mondays) << testing::PrintToString(date);
      }
    }
  }
  EXPECT_EQ(DKDateEx().GetWeekDay(), 0);
  EXPECT_EQ(DKDateEx(1969, 1, 6).GetYearWeek(), 0);
  EXPECT_EQ(DKDateEx(1969, 1, 7).GetYearWeek(), 1); // year day 6 reaches week 1
}

// DKDate counts days from 1899-01-01 with the day-count formula on 16-bit fields.
TEST(CalendarTest, DKDateCountsMatchChrono) {
  const sys_days origin = year{1899} / 1 / 1;
  for (int y = 1; y <= 32767; y += (y < 2200 ? 1 : 37)) {
    for (unsigned m = 1; m <= 12; ++m) {
      const unsigned last = static_cast<unsigned>(year_month_day_last{year{y} / month{m} / std::chrono::last}.day());
      for (unsigned d : {1u, 15u, last}) {
        const DKDate date(d, m, y);
        ASSERT_EQ(date.GetDays(), (sys_days{year{y} / month{m} / day{d}} - origin).count()) << y << '-' << m << '-' << d;
        ASSERT_EQ(date.year(), y);
        ASSERT_EQ(date.month(), m);
        ASSERT_EQ(date.day(), d);
        ASSERT_EQ(date.weekday(), static_cast<int>(weekday{sys_days{year{y} / month{m} / day{d}}}.c_encoding()));
      }
    }
  }
  // Beyond 16-bit years the count goes on from the same origin.
  EXPECT_EQ(DKDate(1, 1, 70000).GetDays(), (DKDateEx(70000, 1, 1) - DKDateEx(1899, 1, 1)).GetDuration());
  EXPECT_EQ(DKDate::days_in_month(2, 1900), 28);
  EXPECT_EQ(DKDate::days_in_month(2, 2000), 29);
}

} // namespace
