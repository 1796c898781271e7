// The older values DKDate and DKDateTime, and the exceptions of the family.
#include "DateTimeTestSupport.h"

#include <DorvikCore/DKError.h>
#include <DorvikCore/DKMemoryPool.h>

#include <cstdint>
#include <limits>
#include <sstream>

namespace {

using U = DKDurationEx::Unit;

TEST(DateTest, CountsRangeAndArithmetic) {
  EXPECT_TRUE(DKDate().IsNull());
  EXPECT_EQ(DKDate(15, 2, 2024).days_in_month(), 29);
  EXPECT_THROW(DKDate(29, 2, 2023), DKDateException);
  EXPECT_THROW(DKDate(31, 12, 0), DKDateException); // before the minimum
  DKDate d(31, 1, 2021);
  EXPECT_EQ(d + DKDurationEx(1, U::Month), DKDate(28, 2, 2021));
  EXPECT_EQ(d - DKDurationEx(2, U::Week), DKDate(17, 1, 2021));
  EXPECT_EQ(d + DKDurationEx(5, U::Hour), d);
  d += 365L;
  EXPECT_EQ(d, DKDate(31, 1, 2022));
  EXPECT_EQ(d - DKDate(31, 1, 2021), DKDurationEx(365, U::Day));
  DKDate last = DKDate::maximum;
  EXPECT_THROW(++last, DKDateException);
  EXPECT_EQ(last, DKDate::maximum);
  DKDate first = DKDate::minimum;
  EXPECT_THROW(first--, DKDateException);
  EXPECT_THROW(first -= DKDurationEx(2147483647L, U::Year), DKDateException);
  EXPECT_THROW(first -= std::numeric_limits<long>::max(), DKDateException);
  // Any count, even one below the minimum, moves exactly or throws and stays: the result is
  // checked against the sum in 64 bits. (Where long has 32 bits, as on Windows, some of these
  // moves land in range.)
  const std::int64_t lowest = DKDate::minimum.GetDays(), highest = DKDate::maximum.GetDays();
  for (const std::int32_t days : {-2147483647 - 1, -693231, 0, 2147483647}) {
    const long beyond32 = sizeof(long) > 4 ? static_cast<long>(5000000000LL) : std::numeric_limits<long>::max();
    for (const long by : {std::numeric_limits<long>::max(), std::numeric_limits<long>::min(), beyond32}) {
      for (const bool forward : {true, false}) {
        DKDate moved = DKDate::FromDays(days);
        std::int64_t target = 0; // a sum beyond 64 bits is out of range too
        const bool overflows = forward ? __builtin_add_overflow(std::int64_t{days}, std::int64_t{by}, &target)
                                       : __builtin_sub_overflow(std::int64_t{days}, std::int64_t{by}, &target);
        if (overflows || target < lowest || target > highest) {
          EXPECT_THROW(forward ? moved += by : moved -= by, DKDateException) << days << (forward ? " + " : " - ") << by;
          EXPECT_EQ(moved.GetDays(), days);
        } else {
          EXPECT_NO_THROW(forward ? moved += by : moved -= by) << days << (forward ? " + " : " - ") << by;
          EXPECT_EQ(moved.GetDays(), target);
        }
      }
    }
  }
}

TEST(DateTest, Text) {
  const DKDate d(5, 1, 2020);
  EXPECT_EQ(d.AsString(), DK_T("2020/01/05"));
  EXPECT_EQ(d.AsString(DK_T("%d.%m.%y W%W")), DK_T("05.01.20 W00"));
  EXPECT_EQ(DKDate::maximum.AsString(), DK_T("5881509/07/12"));
  DKDate r;
  EXPECT_TRUE(r.FromString(DK_T("1/2/2003"), DK_T("%d/%m/%Y")).Good());
  EXPECT_EQ(r, DKDate(1, 2, 2003));
  EXPECT_EQ(r.FromString(DK_T("0/2/2003"), DK_T("%d/%m/%Y")).GetCode(), DK_MSG_INVALID_DATE);
  EXPECT_EQ(r, DKDate(1, 2, 2003)); // unchanged
}

TEST(DateTimeLegacyTest, CountsAndRange) {
  EXPECT_EQ(DKDateTime::maximum.GetTime_t(), 2147397247); // the minimum shows in DateExceptionsTest
  const DKDateTime t(1578219630); // 2020-01-05 10:20:30 UTC
  EXPECT_EQ(t.AsString(DKString(), DKTimeZone::UTC), DK_T("2020/01/05 10:20:30"));
  EXPECT_EQ(DKDateTime(2020, 1, 5, 10, 20, 30, DKTimeZone::UTC), t);
  EXPECT_EQ(t.AsDKDateTimeEx(), Utc(2020, 1, 5, 10, 20, 30));
  EXPECT_EQ(DKDateTime(Utc(2020, 1, 5, 10, 20, 30, 999)), t); // milliseconds are dropped
  EXPECT_EQ(t + DKDurationEx(1, U::Hour) - t, DKDurationEx(3600, U::Second));
  EXPECT_THROW(DKDateTime(static_cast<std::time_t>(2147397248)), DKDateException);
  EXPECT_THROW(DKDateTime(2100, 1, 1), DKDateException);
  for (const auto& c : Cases("legacy_range_ends.txt", 2)) { // each step throws with the bound
    const DKDateTime from(ValueOf(c, 0));
    DKDateTime v = from;
    try {
      v += DurationOf(c, 1);
      ADD_FAILURE() << c.where << ": no exception";
    } catch (const DKDateException& e) {
      EXPECT_EQ(e.dateTime(), from) << c.where;
    }
    EXPECT_EQ(v, from) << c.where;
  }
}

TEST(DateTimeLegacyTest, TextAndToDate) {
  const DKDateTime t(1578219630);
  for (const auto& c : Cases("legacy_to_date.txt", 2)) {
    SCOPED_TRACE(c.where);
    const bool ok = c[1] == "read";
    DKDateTime v(42);
    const DKErrorID result = v.FromString(Text(c[0]), DKString(), DKTimeZone::UTC);
    EXPECT_EQ(result.Good(), ok);
    EXPECT_EQ(v, ok ? t : DKDateTime(42));
    if (!ok) {
      EXPECT_EQ(result.GetCode(), DK_MSG_INVALID_DATE);
      EXPECT_EQ(result.GetError()->GetParameterValueAsString(0, DKExecContext()), Text(c[0]));
    }
  }
  DKDateTime midnight;
  ASSERT_TRUE(midnight.FromString(DK_T("TO_DATE('2020-01-05', 'YYYY-MM-DD')"), DKString(), DKTimeZone::UTC).Good());
  EXPECT_EQ(midnight, DKDateTime(2020, 1, 5, 0, 0, 0, DKTimeZone::UTC));
  bool ok = false;
  EXPECT_TRUE(DKString(DK_T("   ")).AsDKDateTime(&ok).IsNull());
  EXPECT_TRUE(ok);
}

TEST(DateTimeLegacyTest, LocalZone) {
  DK_IN_ZONE(parisRule);
  const DKDateTime t(1578219630);
  EXPECT_EQ(t.AsString(), DK_T("2020/01/05 11:20:30"));
  EXPECT_EQ(DKDateTime(2020, 1, 5, 11, 20, 30), t);
  std::istringstream in("2020/07/05 12:00:00");
  DKDateTime back;
  in >> back;
  EXPECT_EQ(back.GetTime_t(), 1593943200);
  // Calendar units keep the local clock across the change to summer time.
  EXPECT_EQ((DKDateTime(2021, 3, 27, 12, 0, 0) + DKDurationEx(1, U::Day)).AsString(), DK_T("2021/03/28 12:00:00"));
  EXPECT_EQ(DKDateEx(t), DKDateEx(2020, 1, 5));
  EXPECT_EQ(DKTimeEx(t), DKTimeEx(11, 20, 30));
  EXPECT_EQ(DKTimeEx(t, DKTimeZone::UTC), DKTimeEx(10, 20, 30));
}

TEST(DateExceptionsTest, MessagesAndValues) {
  const DKDateExceptionEx range(DKDateTimeEx::maximum);
  EXPECT_EQ(range.What(), DK_T("Date and time out of range: 4194303/12/31 23:59:59.999 UTC"));
  const DKDateExceptionEx text(DKString(DK_T("Invalid date: x")));
  EXPECT_TRUE(text.dateTime().IsNull());
  EXPECT_STREQ(text.what(), "Invalid date: x");
  const DKDateException old(DKDateTime::minimum);
  EXPECT_EQ(old.What(), DK_T("Date and time out of range: 1901/12/14 20:45:52 UTC"));
  const DKDurationExceptionEx duration(DKDurationEx(5, DKDurationEx::Day));
  EXPECT_EQ(duration.What(), DK_T("Duration out of range: 5 day"));
  try {
    throw DKDateExceptionEx(DKDateTimeEx::minimum);
  } catch (const DKException& e) { // one family
    EXPECT_NE(std::string(e.what()).find("-4194303/01/01"), std::string::npos);
  }
  // Constructors report text they cannot read with the message of the library's error.
  try {
    DKDateTimeEx bad(DKString(DK_T("31/31/31")));
    FAIL() << "no exception";
  } catch (const DKDateExceptionEx& e) {
    EXPECT_EQ(e.What(), DK_T("Invalid date: 31/31/31"));
  }
}

TEST(DateTimeErrorParamTest, IsCopiedReadAndPrintedInTheContextFormat) {
  const DKDateTime when(2024, 3, 1, 14, 5, 9);
  {
    // Process-wide state made on first use (the message source, zone data) is not a leak.
    DKSmartPtr<DKErrorWithArgs> warmUp = DKLibraryError(DK_MSG_INVALID_DATE);
    warmUp->AddParam(when);
    warmUp->GetParameterValueAsString(0, DKExecContext(DKString(DK_T("%Y-%m"))));
    DKErrorID(warmUp).AsString();
  }
  const std::size_t blocks = DMMemoryPool::GetLiveBlocks();
  {
    DKSmartPtr<DKErrorWithArgs> error = DKLibraryError(DK_MSG_INVALID_DATE);
    EXPECT_EQ(error->AddParam(7), 0u);
    EXPECT_EQ(error->AddParam(when), 1u);
    EXPECT_EQ(error->GetParameterType(1), DKErrorI::ParamDKDateTime);

    DKErrorWithArgs copy(*error);
    error.Clear(); // the copy owns values of its own
    DKDateTime out;
    ASSERT_TRUE(copy.GetParam(out, 1));
    EXPECT_EQ(out.GetTime_t(), when.GetTime_t());
    EXPECT_FALSE(copy.GetParam(out, 0)); // an int is not a date-time
    EXPECT_FALSE(copy.GetParam(out, 2));
    EXPECT_EQ(copy.GetParameterValueAsString(1, DKExecContext()), when.AsString());
    EXPECT_EQ(copy.GetParameterValueAsString(1, DKExecContext(DKString(DK_T("%Y-%m")))), DKString(DK_T("2024-03")));
  }
  EXPECT_EQ(DMMemoryPool::GetLiveBlocks(), blocks);
}

} // namespace
