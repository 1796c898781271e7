// The exchange records of the four date types (SYSTEMTIME, struct tm, FILETIME, automation
// date, broken-down fields): one round trip over all of them, then what the records hold and
// the values and records each type refuses. The date_arith fuzz target checks the same round
// trips at the ends of the ranges.
#include "DateTimeTestSupport.h"

#include <ctime>
#include <type_traits>

namespace {

constexpr const char* paris = parisRule;
constexpr const char* newYork = newYorkRule;

// Every record of the value reads back as the value, the automation date being `variant`; the
// null value fails them all but the automation date, which is VT_NULL and reads back as null.
template <class T>
void ExpectRecordsRoundTrip(const T& value, double variant) {
  SCOPED_TRACE(testing::PrintToString(value));
  dk::SYSTEMTIME st{};
  std::tm tm{};
  dk::FILETIME ft{};
  dk::VARIANT v{};
  ASSERT_TRUE(value.AsSystemTime(st) && value.AsStructTM(tm) && value.AsFileTime(ft) && value.AsVariant(v));
  EXPECT_EQ(T(st), value);
  EXPECT_EQ(T(tm), value);
  if constexpr (std::is_same_v<T, DKTimeEx>) // a time's FILETIME is a UTC reading of 1601-01-01
    EXPECT_EQ(T(ft, DKTimeZone::UTC), value);
  else
    EXPECT_EQ(T(ft), value);
  EXPECT_EQ(v.vt, dk::VT_DATE);
  EXPECT_EQ(v.date, variant);
  EXPECT_EQ(T(v), value);
  DKDateAndTime fields;
  (void)value.GetDateAndTime(fields);
  T back;
  EXPECT_TRUE(back.SetDateAndTime(fields));
  EXPECT_EQ(back, value);

  if constexpr (std::is_same_v<T, DKDate>)
    return; // its null date is 1899-01-01, a date like any other
  const T null;
  EXPECT_FALSE(null.AsSystemTime(st) || null.AsStructTM(tm) || null.AsFileTime(ft));
  ASSERT_TRUE(null.AsVariant(v));
  EXPECT_EQ(v.vt, dk::VT_NULL);
  back = value;
  EXPECT_TRUE(back.FromVariant(v));
  EXPECT_EQ(back, null);
}

TEST(DateRecordsTest, EveryRecordOfEveryTypeReadsBack) {
  DK_IN_ZONE(paris);
  ExpectRecordsRoundTrip(DKDateEx(1969, 7, 16), 25400.0);
  ExpectRecordsRoundTrip(DKDate(16, 7, 1969), 25400.0);
  ExpectRecordsRoundTrip(DKTimeEx(18, 0), 0.75);
  ExpectRecordsRoundTrip(Utc(2021, 7, 1, 10), 44378.5); // local noon
}

TEST(DateRecordsTest, DatesHoldTheirFieldsAndRefuseWhatIsNoDate) {
  const DKDateEx date(1969, 7, 16); // a Wednesday, before 1970 where GetWeekDay gives 0
  dk::SYSTEMTIME st{};
  ASSERT_TRUE(date.AsSystemTime(st));
  EXPECT_EQ(std::tuple(st.wYear, st.wMonth, st.wDay, st.wDayOfWeek), std::tuple(1969, 7, 16, 3));
  std::tm tm{};
  ASSERT_TRUE(date.AsStructTM(tm));
  EXPECT_EQ(std::tuple(tm.tm_year, tm.tm_mon, tm.tm_mday, tm.tm_wday, tm.tm_yday), std::tuple(69, 6, 16, 3, 196));
  dk::FILETIME ft{};
  ASSERT_TRUE(DKDateEx(1970, 1, 1).AsFileTime(ft, DKTimeZone::UTC));
  EXPECT_EQ((static_cast<DKUInt64>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime, 116444736000000000ULL);
  EXPECT_EQ(DKDateEx(ft, DKTimeZone::UTC), DKDateEx(1970, 1, 1));
  DKDateAndTime fields;
  date.GetDateAndTime(fields);
  EXPECT_EQ(fields.flags, std::uint32_t{DKDateAndTime::NoTime});
  DKDateEx ex;
  ASSERT_TRUE(DKDate(5, 1, 2020).AsDKDateEx(ex));
  EXPECT_EQ(ex, DKDateEx(2020, 1, 5));
  EXPECT_EQ(DKDate(ex), DKDate(5, 1, 2020));

  dk::VARIANT v{};
  EXPECT_FALSE(DKDateEx(1600, 12, 31).AsVariant(v)); // automation dates run from 1601 to 9999
  EXPECT_TRUE(DKDateEx(1601, 1, 1).AsVariant(v));
  EXPECT_FALSE(DKDateEx(10000, 1, 1).AsVariant(v));
  EXPECT_FALSE(DKDateEx::Pack(2021, 2, 30).AsVariant(v));
  EXPECT_FALSE(DKDateEx(1600, 12, 31).AsFileTime(ft, DKTimeZone::UTC));
  st.wDay = 32;
  EXPECT_THROW(DKDateEx{st}, DKDateExceptionEx);
  tm.tm_mon = -1;
  DKDateEx d;
  EXPECT_FALSE(d.FromStructTM(tm));
  const dk::FILETIME huge{0xFFFFFFFFu, 0xFFFFFFFFu};
  EXPECT_FALSE(d.FromFileTime(huge));
  dk::VARIANT text{};
  text.vt = 8; // a string: not a date
  EXPECT_FALSE(d.FromVariant(text));

  for (const auto& c : Cases("variant_dates.txt", 3)) { // set to null first, whatever the result
    d = DKDateEx(2000, 1, 1);
    EXPECT_EQ(d.FromVariant(std::stod(c[0])), c[1] == "read") << c.where;
    EXPECT_EQ(d, ValueOf(c, 2).GetDate()) << c.where;
  }
}

TEST(DateRecordsTest, TimesTakeTheFractionOfTheDay) {
  EXPECT_EQ(DKTimeEx(-1.25), DKTimeEx(6, 0));       // the fraction counts forward from midnight
  EXPECT_EQ(DKTimeEx(43835.5), DKTimeEx(12, 0));    // the date is dropped
  EXPECT_EQ(DKTimeEx(0.999999999), DKTimeEx(0, 0)); // rounded to the second: the next midnight
  dk::FILETIME ft{};
  ASSERT_TRUE(DKTimeEx(1, 0).AsFileTime(ft));
  EXPECT_EQ((static_cast<DKUInt64>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime, 36000000000ULL);
  const dk::FILETIME epoch{0xD53E8000u, 0x019DB1DEu}; // 1970-01-01 00:00 UTC
  EXPECT_EQ(DKTimeEx(epoch, DKTimeZone::UTC), DKTimeEx(0, 0));
  dk::SYSTEMTIME st{};
  ASSERT_TRUE(DKTimeEx(23, 59, 59, 999).AsSystemTime(st));
  EXPECT_EQ(DKTimeEx(st), DKTimeEx(23, 59, 59, 999));
  std::tm tm{};
  ASSERT_TRUE(DKTimeEx(7, 8, 9).AsStructTM(tm));
  tm.tm_sec = 60; // a leap second has no place in a time of day
  DKTimeEx t;
  EXPECT_FALSE(t.FromStructTM(tm));
}

TEST(DateRecordsTest, InstantsAndWallClockReadingsOfADateAndTime) {
  DK_IN_ZONE(paris);
  const DKDateTimeEx summer = Utc(2021, 7, 1, 10, 0, 0, 123);
  dk::FILETIME ft{};
  EXPECT_FALSE(Utc(1600, 12, 31, 23).AsFileTime(ft));

  std::tm tm{};
  ASSERT_TRUE(summer.AsStructTM(tm));
  EXPECT_EQ(std::tuple(tm.tm_hour, tm.tm_isdst), std::tuple(12, 1));
  EXPECT_EQ(DKDateTimeEx(tm), Utc(2021, 7, 1, 10)); // milliseconds are dropped
  ASSERT_TRUE(summer.AsStructTM(tm, DKTimeZone::UTC));
  EXPECT_EQ(std::tuple(tm.tm_hour, tm.tm_isdst), std::tuple(10, 0));

  dk::SYSTEMTIME st{};
  ASSERT_TRUE(summer.AsSystemTime(st));
  EXPECT_EQ(st.wHour, 12);
  EXPECT_EQ(DKDateTimeEx(st), summer);
  EXPECT_EQ(DKDateTimeEx(st, DKTimeZone::UTC), Utc(2021, 7, 1, 12, 0, 0, 123));

  dk::VARIANT v{};
  ASSERT_TRUE(summer.AsVariant(v));
  EXPECT_EQ(DKDateTimeEx(v), Utc(2021, 7, 1, 10)); // milliseconds are dropped
  EXPECT_EQ(DKDateTimeEx(0.25), DKDateTimeEx(DKTimeEx(6, 0)));
  DKDateTimeEx x;
  EXPECT_FALSE(x.FromVariant(3e6));

  DKInt64 seconds = 0;
  std::int32_t ms = 0;
  ASSERT_TRUE(summer.AsUnixTime(seconds, &ms));
  EXPECT_EQ(std::tuple(seconds, ms), std::tuple(1625133600, 123));
  ASSERT_TRUE(Utc(1969, 12, 31, 23, 59, 59, 500).AsUnixTime(seconds, &ms));
  EXPECT_EQ(std::tuple(seconds, ms), std::tuple(-1, 500));
}

TEST(DateRecordsTest, BrokenDownFieldsOfADateAndTime) {
  DK_IN_ZONE(newYork);
  DKDateAndTime fields;
  ASSERT_TRUE(Utc(2021, 1, 1, 3, 4, 5, 6).GetDateAndTime(fields));
  EXPECT_EQ(std::tuple(fields.year, fields.hour, fields.flags), std::tuple(2020, 22u, 0u));
  EXPECT_EQ(DKDateTimeEx(fields), Utc(2021, 1, 1, 3, 4, 5, 6));
  fields.flags = DKDateAndTime::NoDate;
  EXPECT_EQ(DKDateTimeEx(fields), DKDateTimeEx(DKTimeEx(22, 4, 5, 6))); // no zone shift for a time alone
  fields.flags = 0;
  fields.second = 60;
  DKDateTimeEx keep = Utc(2000, 1, 1);
  EXPECT_FALSE(keep.SetDateAndTime(fields));
  EXPECT_EQ(keep, Utc(2000, 1, 1));
  EXPECT_TRUE(DKDateTimeEx().GetDateAndTime(fields));
  EXPECT_EQ(fields.flags, DKDateAndTime::FlagsFor(false, false));
  EXPECT_FALSE(DKDateTimeEx::FromParts(DKDateEx::Pack(2021, 2, 30), DKTimeEx(1, 0)).GetDateAndTime(fields));
}

} // namespace
