// DKDateEx (packed date) and DKTimeEx (time of day): the packed word, the range ends and text (the
// codes are written by DKDateTimeEx's writer: tests/datetime/cases/datetime_codes.txt).
// Their steps are checked against independent counts, and the words and counts that are no
// value against their empty text, by the date_arith fuzz target (seeds replayed under CTest);
// the records are in DKDateRecordsTest.cpp.
#include "DateTimeTestSupport.h"

#include <limits>
#include <random>
#include <tuple>

namespace {

using U = DKDurationEx::Unit;

// ---- DKDateEx: the packed word ------------------------------------------------------------------

TEST(DateExTest, PackedWordLayoutAndValidity) {
  EXPECT_EQ(DKDateEx(2020, 1, 5).AsInt(), (2020 << 9) | (1 << 5) | 5);
  EXPECT_EQ(DKDateEx(-1, 12, 31).AsInt(), static_cast<std::int32_t>(0xFFFFFE00u | (12 << 5) | 31));
  DKDateEx d;
  for (const auto& c : Cases("date_words.txt", 2)) {
    int year = 0;
    unsigned month = 0, day = 0;
    ASSERT_EQ(std::sscanf(c[0].c_str(), "%d-%u-%u", &year, &month, &day), 3) << c.where;
    d.FromInt(DKDateEx::Pack(year, month, day).AsInt());
    EXPECT_EQ(d.IsValid(), c[1] == "valid") << c.where;
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
  DKDateEx d(2020, 2, 28);
  EXPECT_EQ(d++, DKDateEx(2020, 2, 28));
  EXPECT_EQ(d, DKDateEx(2020, 2, 29));
  EXPECT_EQ(--d, DKDateEx(2020, 2, 28));
  EXPECT_EQ(DKDateEx() - DKDateEx(2021, 3, 1), DKDurationEx::invalid_);
}

// ---- DKDateEx: text ------------------------------------------------------------------------------

TEST(DateExTest, Text) {
  EXPECT_EQ(DKDateEx(2020, 1, 5).AsString(), DK_T("2020/01/05"));
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

TEST(TimeExTest, StepsWrapAroundMidnight) {
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

TEST(TimeExTest, Text) {
  EXPECT_EQ(DKTimeEx(9, 5, 7).AsString(), DK_T("09:05:07"));
  EXPECT_EQ(DKTimeEx(9, 5, 7, 30).AsString(), DK_T("09:05:07.030"));
  DKTimeEx t;
  EXPECT_TRUE(t.FromString(DK_T("2020/01/05 10:20:30.5")).Good()); // the date is ignored
  EXPECT_EQ(t, DKTimeEx(10, 20, 30, 5));
  EXPECT_EQ(t.FromString(DK_T("25:00")).GetCode(), DK_MSG_INVALID_DATE);
  EXPECT_TRUE(t.IsNull());
  EXPECT_EQ(DKString(DK_T("23:59:59.999")).AsDKTimeEx(), DKTimeEx::maximum);
}

} // namespace
