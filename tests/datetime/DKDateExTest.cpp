// DKDateEx (packed date) and DKTimeEx (time of day): layout, rules, arithmetic, records, text.
#include "DateTimeTestSupport.h"

#include <limits>
#include <random>
#include <sstream>
#include <tuple>

namespace {

using U = DKDurationEx::Unit;

// ---- DKDateEx: the packed word ------------------------------------------------------------------

TEST(DateExTest, PackedWordLayoutAndValidity) {
  EXPECT_EQ(DKDateEx(2020, 1, 5).AsInt(), (2020 << 9) | (1 << 5) | 5);
  EXPECT_EQ(DKDateEx(-1, 12, 31).AsInt(), static_cast<std::int32_t>(0xFFFFFE00u | (12 << 5) | 31));
  EXPECT_EQ(DKDateEx::minimum.AsInt(), -2147483103);
  DKDateEx d;
  const struct {
    std::int32_t word;
    bool valid;
  } cases[] = {
      {0, false},                                  // null
      {DKDateEx::Pack(2021, 2, 28).AsInt(), true}, {DKDateEx::Pack(2021, 2, 29).AsInt(), false},
      {DKDateEx::Pack(2021, 0, 1).AsInt(), false}, {DKDateEx::Pack(2021, 13, 1).AsInt(), false},
      {DKDateEx::Pack(2021, 4, 0).AsInt(), false}, {DKDateEx::Pack(2021, 4, 31).AsInt(), false},
      {DKDateEx::Pack(0, 1, 1).AsInt(), true},     {DKDateEx::minimum.AsInt(), true},
      {DKDateEx::maximum.AsInt(), true},           {DKDateEx::Pack(-4194304, 6, 1).AsInt(), false}, // below minimum
  };
  for (const auto& c : cases) {
    d.FromInt(c.word);
    EXPECT_EQ(d.IsValid(), c.valid) << c.word;
  }
  EXPECT_THROW(DKDateEx(4194304, 1, 1), DKDateExceptionEx);
  EXPECT_THROW(DKDateEx(2021, 4, 31), DKDateExceptionEx);
  DKDateEx keep(2000, 1, 1);
  EXPECT_FALSE(keep.SetDate(2000, 2, 30));
  EXPECT_EQ(keep, DKDateEx(2000, 1, 1));
  EXPECT_EQ(DKDateEx().GetYearDay(), 0);
  EXPECT_EQ(DKDateEx::Pack(2021, 2, 30).GetYearWeek(), 0);
}

TEST(DateExTest, ValidWordsOrderAsDates) {
  std::mt19937 random(7);
  std::uniform_int_distribution<int> year(DKDateEx::minYear, DKDateEx::maxYear), month(1, 12), day(1, 28);
  for (int i = 0; i < 20000; ++i) {
    const auto a = std::make_tuple(year(random), month(random), day(random));
    const auto b = std::make_tuple(year(random) / (i % 3 + 1), month(random), day(random));
    const DKDateEx da(std::get<0>(a), std::get<1>(a), std::get<2>(a));
    const DKDateEx db(std::get<0>(b), std::get<1>(b), std::get<2>(b));
    ASSERT_EQ(da < db, a < b);
    ASSERT_EQ(da == db, a == b);
  }
}

// ---- DKDateEx: arithmetic -----------------------------------------------------------------------

TEST(DateExTest, CalendarArithmetic) {
  const struct {
    DKDateEx from;
    DKDurationEx by;
    DKDateEx to;
  } cases[] = {
      {{2021, 1, 31}, {1, U::Month}, {2021, 2, 28}},    {{2020, 1, 31}, {1, U::Month}, {2020, 2, 29}},
      {{2020, 3, 31}, {-1, U::Month}, {2020, 2, 29}},   {{2020, 1, 15}, {13, U::Month}, {2021, 2, 15}},
      {{2020, 1, 15}, {-13, U::Month}, {2018, 12, 15}}, {{2020, 2, 29}, {1, U::Year}, {2021, 2, 28}},
      {{2020, 12, 25}, {2, U::Week}, {2021, 1, 8}},     {{2021, 1, 3}, {-5, U::Day}, {2020, 12, 29}},
      {{2020, 1, 1}, {25, U::Hour}, {2020, 1, 1}},      {{2020, 1, 1}, {1, U::Millisecond}, {2020, 1, 1}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.from + c.by, c.to) << c.by.AsString(true).AsUTF8();
    if (c.by.GetUnit() >= U::Week) { // day steps go back exactly
      EXPECT_EQ(c.to - c.by, c.from) << c.by.AsString(true).AsUTF8();
    }
  }
  EXPECT_EQ(DKDateEx() - DKDateEx(2021, 3, 1), DKDurationEx::invalid_);
  DKDateEx d(2020, 2, 28);
  EXPECT_EQ(d++, DKDateEx(2020, 2, 28));
  EXPECT_EQ(d, DKDateEx(2020, 2, 29));
  EXPECT_EQ(--d, DKDateEx(2020, 2, 28));
}

TEST(DateExTest, LeavingTheRangeThrowsWithTheBound) {
  DKDateEx last = DKDateEx::maximum;
  try {
    ++last;
    FAIL() << "no exception";
  } catch (const DKDateExceptionEx& e) {
    EXPECT_EQ(e.dateTime(), DKDateTimeEx(DKDateEx::maximum));
  }
  EXPECT_EQ(last, DKDateEx::maximum);
  EXPECT_THROW(DKDateEx(DKDateEx::minimum) -= DKDurationEx(1, U::Month), DKDateExceptionEx);
  EXPECT_THROW(DKDateEx(2000, 1, 1) += DKDurationEx(2147483647L, U::Year), DKDateExceptionEx);
  EXPECT_THROW(DKDateEx(2000, 1, 1) += std::numeric_limits<long>::max(), DKDateExceptionEx);
  EXPECT_THROW(DKDateEx(2000, 1, 1) -= std::numeric_limits<long>::min(), DKDateExceptionEx);
  EXPECT_EQ(--DKDateEx(DKDateEx::maximum) + 1L, DKDateEx::maximum);
  // A date that is not valid does not move.
  DKDateEx invalid = DKDateEx::Pack(2021, 2, 30);
  ++invalid;
  invalid += DKDurationEx(3, U::Year);
  EXPECT_EQ(invalid, DKDateEx::Pack(2021, 2, 30));
  DKDateEx null;
  null += 5L;
  EXPECT_TRUE(null.IsNull());
}

// ---- DKDateEx: records -------------------------------------------------------------------------

TEST(DateExTest, AutomationDates) {
  dk::VARIANT v{};
  EXPECT_TRUE(DKDateEx().AsVariant(v));
  EXPECT_EQ(v.vt, dk::VT_NULL);
  EXPECT_TRUE(DKDateEx(2020, 1, 5).AsVariant(v));
  EXPECT_EQ(v.date, 43835.0);
  EXPECT_FALSE(DKDateEx(1600, 12, 31).AsVariant(v));
  EXPECT_TRUE(DKDateEx(1601, 1, 1).AsVariant(v));
  EXPECT_FALSE(DKDateEx(10000, 1, 1).AsVariant(v));
  EXPECT_FALSE(DKDateEx::Pack(2021, 2, 30).AsVariant(v));

  const struct {
    double value;
    bool ok;
    DKDateEx date;
  } reads[] = {
      {0.5, true, DKDateEx()},           {-0.99, true, DKDateEx()},        {1.0, true, {1899, 12, 31}},
      {-1.0, true, {1899, 12, 29}},      {-1.75, true, {1899, 12, 29}},    {43835.99, true, {2020, 1, 5}},
      {2958465.0, true, {9999, 12, 31}}, {2958466.0, false, DKDateEx()},   {-657434.0, true, {100, 1, 1}},
      {-657435.0, false, DKDateEx()},    {std::nan(""), false, DKDateEx()},
  };
  for (const auto& r : reads) {
    DKDateEx d(2000, 1, 1);
    EXPECT_EQ(d.FromVariant(r.value), r.ok) << r.value;
    EXPECT_EQ(d, r.date) << r.value; // set to null first, whatever the result
  }
  dk::VARIANT text{};
  text.vt = 8; // a string: not a date
  DKDateEx d;
  EXPECT_FALSE(d.FromVariant(text));
}

TEST(DateExTest, SystemTimeTmAndFileTime) {
  dk::SYSTEMTIME st{};
  ASSERT_TRUE(DKDateEx(2021, 7, 14).AsSystemTime(st));
  EXPECT_EQ(st.wMonth, 7);
  EXPECT_EQ(st.wDayOfWeek, 3); // a Wednesday
  EXPECT_EQ(DKDateEx(st), DKDateEx(2021, 7, 14));
  st.wDay = 32;
  EXPECT_THROW(DKDateEx{st}, DKDateExceptionEx);

  std::tm tm{};
  ASSERT_TRUE(DKDateEx(1969, 7, 20).AsStructTM(tm));
  EXPECT_EQ(tm.tm_year, 69);
  EXPECT_EQ(tm.tm_mon, 6);
  EXPECT_EQ(tm.tm_wday, 0); // a real Sunday, not the pre-1970 GetWeekDay
  EXPECT_EQ(tm.tm_yday, 200);
  EXPECT_EQ(DKDateEx(tm), DKDateEx(1969, 7, 20));
  tm.tm_mon = -1;
  DKDateEx d;
  EXPECT_FALSE(d.FromStructTM(tm));

  dk::FILETIME ft{};
  ASSERT_TRUE(DKDateEx(1970, 1, 1).AsFileTime(ft, DKTimeZone::UTC));
  EXPECT_EQ((static_cast<DKUInt64>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime, 116444736000000000ULL);
  EXPECT_EQ(DKDateEx(ft, DKTimeZone::UTC), DKDateEx(1970, 1, 1));
  EXPECT_FALSE(DKDateEx(1600, 12, 31).AsFileTime(ft, DKTimeZone::UTC));
  dk::FILETIME huge{0xFFFFFFFFu, 0xFFFFFFFFu};
  EXPECT_FALSE(d.FromFileTime(huge));

  DKDateAndTime fields;
  DKDateEx(2021, 7, 14).GetDateAndTime(fields);
  EXPECT_EQ(fields.flags, std::uint32_t{DKDateAndTime::NoTime});
  EXPECT_EQ(DKDateEx(fields), DKDateEx(2021, 7, 14));
}

// ---- DKDateEx: text ------------------------------------------------------------------------------

TEST(DateExTest, Text) {
  EXPECT_EQ(DKDateEx(2020, 1, 5).AsString(), DK_T("2020/01/05"));
  EXPECT_EQ(DKDateEx(-44, 3, 15).AsString(DK_T("%d.%m.%Y (%y)")), DK_T("15.03.-44 (44)"));
  EXPECT_EQ(DKDateEx(2021, 1, 4).AsString(DK_T("%W %H:%M")), DK_T("01 00:00")); // unheld fields print 0
  EXPECT_EQ(DKDateEx().AsString(), DK_T(""));
  DKDateEx d;
  EXPECT_TRUE(d.FromString(DK_T("2020/01/05 10:20:30")).Good()); // the time is ignored
  EXPECT_EQ(d, DKDateEx(2020, 1, 5));
  const DKErrorID bad = d.FromString(DK_T("2021/02/30"));
  EXPECT_EQ(bad.GetCode(), DK_MSG_INVALID_DATE);
  EXPECT_TRUE(d.IsNull());
  EXPECT_THROW(DKDateEx(DKString(DK_T("10:20:30"))), DKDateExceptionEx);
  bool ok = true;
  EXPECT_TRUE(DKString(DK_T("1999/13/31")).AsDKDateEx(&ok).IsNull());
  EXPECT_FALSE(ok);
}

// Words that FromInt takes but that are not dates write as the empty text, as the null date
// does, in every form: writing never fails.
TEST(DateExTest, WordsThatAreNotDatesWriteTheEmptyText) {
  for (const std::int32_t word : {0, DKDateEx::Pack(2021, 2, 30).AsInt(), DKDateEx::Pack(2021, 13, 1).AsInt(),
                                  DKDateEx::Pack(2021, 0, 0).AsInt(), DKDateEx::Pack(-4194304, 1, 1).AsInt(),
                                  std::numeric_limits<std::int32_t>::min(), -1}) {
    SCOPED_TRACE(word);
    DKDateEx date;
    date.FromInt(word);
    EXPECT_EQ(date.AsString(), DK_T(""));
    EXPECT_EQ(date.AsString(DK_T("%Y/%m/%d %W")), DK_T(""));
    DKChar buffer[16] = DK_T("########");
    EXPECT_TRUE(date.AsString(buffer, 16, nullptr).Good());
    EXPECT_EQ(buffer[0], 0);
    std::ostringstream out;
    EXPECT_TRUE(static_cast<bool>(out << date));
    EXPECT_EQ(out.str(), "");
  }
}

// ---- DKTimeEx ------------------------------------------------------------------------------------

TEST(TimeExTest, PartsAndValidity) {
  const DKTimeEx t(13, 45, 30, 250);
  EXPECT_EQ(t.AsMilliseconds(), 49530250);
  EXPECT_EQ(t.AsSeconds(), 49530);
  EXPECT_EQ(std::make_tuple(t.GetHour(), t.GetMinute(), t.GetSecond(), t.GetMillisecond()),
            std::make_tuple(13u, 45u, 30u, 250u));
  EXPECT_THROW(DKTimeEx(24, 0), DKDateExceptionEx);
  EXPECT_THROW(DKTimeEx(0, 60), DKDateExceptionEx);
  EXPECT_THROW(DKTimeEx(0, 0, 0, 1000), DKDateExceptionEx);
  DKTimeEx x;
  EXPECT_FALSE(x.FromInt(86400000));
  EXPECT_FALSE(x.FromInt(-2));
  EXPECT_TRUE(x.FromInt(86399999));
  EXPECT_TRUE(x.FromInt(-1));
  EXPECT_TRUE(x.IsNull());
  EXPECT_LT(DKTimeEx(), DKTimeEx(0, 0));
}

TEST(TimeExTest, ArithmeticWrapsAroundMidnight) {
  const struct {
    DKTimeEx from;
    DKDurationEx by;
    DKTimeEx to;
  } cases[] = {
      {{23, 30}, {2, U::Hour}, {1, 30}},       {{0, 30}, {-1, U::Hour}, {23, 30}},
      {{0, 30}, {5, U::Year}, {0, 30}}, /* calendar units are ignored */ {{12, 0}, {86400, U::Second}, {12, 0}},
      {{0, 0}, {-1, U::Millisecond}, {23, 59, 59, 999}},
      {{0, 0}, {2147483647L, U::Millisecond}, {20, 31, 23, 647}},
      {{0, 0}, {-2147483647L, U::Hour}, {17, 0}}, // 2147483647 h = 89478485 days + 7 h
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.from + c.by, c.to) << c.by.AsString(true).AsUTF8();
    EXPECT_EQ(c.to - c.by, c.by.GetUnit() >= U::Hour ? c.from : c.to);
  }
  DKTimeEx null;
  null += DKDurationEx(1, U::Hour);
  EXPECT_TRUE(null.IsNull());
  DKTimeEx t = DKTimeEx::maximum;
  EXPECT_EQ(++t, DKTimeEx::minimum);
  EXPECT_EQ(t--, DKTimeEx::minimum);
  EXPECT_EQ(t, DKTimeEx::maximum);
  EXPECT_EQ(DKTimeEx(10, 0) - DKTimeEx(12, 0, 0, 1), DKDurationEx(-7200001, U::Millisecond));
  EXPECT_EQ(DKTimeEx() - DKTimeEx(12, 0), DKDurationEx::invalid_);
}

TEST(TimeExTest, Records) {
  dk::VARIANT v{};
  ASSERT_TRUE(DKTimeEx(18, 0).AsVariant(v));
  EXPECT_EQ(v.date, 0.75);
  EXPECT_EQ(DKTimeEx(0.75), DKTimeEx(18, 0));
  EXPECT_EQ(DKTimeEx(-1.25), DKTimeEx(6, 0)); // the fraction counts forward from midnight
  EXPECT_EQ(DKTimeEx(43835.5), DKTimeEx(12, 0)); // the date is dropped
  EXPECT_EQ(DKTimeEx(0.999999999), DKTimeEx(0, 0)); // rounded to the second: the next midnight

  dk::FILETIME ft{};
  ASSERT_TRUE(DKTimeEx(1, 0).AsFileTime(ft));
  EXPECT_EQ(ft.dwLowDateTime, 36000000000ULL & 0xFFFFFFFFu);
  EXPECT_EQ(ft.dwHighDateTime, 36000000000ULL >> 32);
  dk::FILETIME epoch{0xD53E8000u, 0x019DB1DEu}; // 1970-01-01 00:00 UTC
  EXPECT_EQ(DKTimeEx(epoch, DKTimeZone::UTC), DKTimeEx(0, 0));

  std::tm tm{};
  ASSERT_TRUE(DKTimeEx(7, 8, 9).AsStructTM(tm));
  EXPECT_EQ(tm.tm_hour * 3600 + tm.tm_min * 60 + tm.tm_sec, 7 * 3600 + 8 * 60 + 9);
  EXPECT_EQ(DKTimeEx(tm), DKTimeEx(7, 8, 9));
  tm.tm_sec = 60; // a leap second has no place in a time of day
  DKTimeEx t;
  EXPECT_FALSE(t.FromStructTM(tm));

  dk::SYSTEMTIME st{};
  ASSERT_TRUE(DKTimeEx(23, 59, 59, 999).AsSystemTime(st));
  EXPECT_EQ(DKTimeEx(st), DKTimeEx(23, 59, 59, 999));
  EXPECT_FALSE(DKTimeEx().AsSystemTime(st));
}

TEST(TimeExTest, Text) {
  EXPECT_EQ(DKTimeEx(9, 5, 7).AsString(), DK_T("09:05:07"));
  EXPECT_EQ(DKTimeEx(9, 5, 7, 30).AsString(), DK_T("09:05:07.030"));
  EXPECT_EQ(DKTimeEx(9, 5, 7, 30).AsString(DK_T("%H%M %Y-%m-%d %Z")), DK_T("0905 0-00-00 Z"));
  DKTimeEx t;
  EXPECT_TRUE(t.FromString(DK_T("2020/01/05 10:20:30.5")).Good()); // the date is ignored
  EXPECT_EQ(t, DKTimeEx(10, 20, 30, 5));
  EXPECT_EQ(t.FromString(DK_T("25:00")).GetCode(), DK_MSG_INVALID_DATE);
  EXPECT_TRUE(t.IsNull());
  EXPECT_EQ(DKString(DK_T("23:59:59.999")).AsDKTimeEx(), DKTimeEx::maximum);
}

// Counts that FromMilliseconds takes but that are not times of day write as the empty text.
TEST(TimeExTest, CountsOutsideTheDayWriteTheEmptyText) {
  for (const std::int32_t ms : {-1, -2, DKTimeEx::msPerDay, std::numeric_limits<std::int32_t>::max(),
                                std::numeric_limits<std::int32_t>::min()}) {
    SCOPED_TRACE(ms);
    const DKTimeEx time = DKTimeEx::FromMilliseconds(ms);
    EXPECT_EQ(time.AsString(), DK_T(""));
    EXPECT_EQ(time.AsString(DK_T("%H:%M:%S.%L")), DK_T(""));
    DKChar buffer[16] = DK_T("########");
    EXPECT_TRUE(time.AsString(buffer, 16, DK_T("%H")).Good());
    EXPECT_EQ(buffer[0], 0);
    std::ostringstream out;
    EXPECT_TRUE(static_cast<bool>(out << time));
    EXPECT_EQ(out.str(), "");
  }
}

} // namespace
