// DKDurationEx: counts, the conversion table, normalisation, arithmetic and text. That every
// duration reads back from each of its texts (the readable one as the same std::chrono amount)
// is the duration fuzz target's property, replayed under CTest over seeds at every unit's ends.
#include "DateTimeTestSupport.h"

#include <chrono>
#include <cstdint>
#include <random>
#include <sstream>

namespace {

using U = DKDurationEx::Unit;

TEST(DurationExTest, CountRangeAndTheNeverHeldMinimum) {
  EXPECT_EQ(DKDurationEx(2147483647L, U::Day).GetDuration(), DKDurationEx::maximum_);
  EXPECT_EQ(DKDurationEx(-2147483647L, U::Day).GetDuration(), DKDurationEx::minimum_);
  EXPECT_EQ((-DKDurationEx(-2147483647L, U::Day)).GetDuration(), 2147483647);
  // -2147483648 throws with the count: NeverHeldCount and TheNeverHeldCountIsRefusedByEveryCalculation.
  if constexpr (sizeof(long) > 4) { // a long of 32 bits (Windows) cannot hold the count
    EXPECT_THROW(DKDurationEx(static_cast<long>(std::int64_t{1} << 31), U::Hour), DKDurationExceptionEx);
  }
}

// tests/datetime/cases/duration_short_names.txt: the unit each short name gives.
TEST(DurationExTest, ShortNameConstructor) {
  for (const auto& c : Cases("duration_short_names.txt", 2))
    EXPECT_EQ(DKDurationEx(3, Text(c[0]).c_str()).GetUnit(), UnitOf(c, 1)) << c.where;
  EXPECT_EQ(DKDurationEx(3, static_cast<const DKChar*>(nullptr)).GetUnit(), U::Invalid);
  EXPECT_EQ(DKDurationEx(3, L"ms").GetUnit(), U::Millisecond);
  EXPECT_THROW(DKDurationEx(-2147483648L, DK_T("d")), DKDurationExceptionEx);
}

// Every cell of tests/datetime/cases/duration_conversion.txt, applied to counts around it.
TEST(DurationExTest, ConversionTable) {
  const auto table = Cases("duration_conversion.txt", 9);
  ASSERT_EQ(table.size(), 8u);
  const auto step = [&](int from, int to) { return static_cast<long>(table[from].Int(to + 1)); };
  for (int from = 0; from < 8; ++from) {
    ASSERT_EQ(UnitOf(table[from], 0), U(from)) << table[from].where;
    for (int to = 0; to < 8; ++to) {
      SCOPED_TRACE(testing::Message() << from << " -> " << to);
      EXPECT_EQ(DKDurationEx::GetConversionStep(U(from), U(to)), step(from, to));
      DKDurationEx d(1, U(from));
      const bool ok = d.ConvertTo(U(to), true);
      if (step(from, to) == 0) {
        EXPECT_FALSE(ok);
        EXPECT_EQ(d, DKDurationEx(1, U(from)));
      } else if (step(from, to) > 0) {
        EXPECT_TRUE(ok);
        EXPECT_EQ(d, DKDurationEx(step(from, to), U(to)));
      } else { // 1 of a finer unit truncates to 0, or rounds up to 1; -1 is never rounded
        const long factor = step(to, from);
        EXPECT_EQ(ok, factor != 0);
        if (factor != 0) {
          EXPECT_EQ(d, DKDurationEx(0, U(to)));
          EXPECT_EQ(DKDurationEx(1, U(from)).As(U(to)), DKDurationEx(1, U(to)));
          EXPECT_EQ(DKDurationEx(-1, U(from)).As(U(to)), DKDurationEx(0, U(to)));
          EXPECT_EQ(DKDurationEx(factor * 3 + 1, U(from)).As(U(to)), DKDurationEx(4, U(to)));
          EXPECT_EQ(DKDurationEx(-factor * 3 - 1, U(from)).As(U(to)), DKDurationEx(-3, U(to)));
        }
      }
    }
  }
  DKDurationEx zero(0, U::Year);
  EXPECT_TRUE(zero.ConvertTo(U::Millisecond)); // 0 converts to anything
  EXPECT_EQ(zero, DKDurationEx(0, U::Millisecond));
  DKDurationEx toInvalid(5, U::Day);
  EXPECT_TRUE(toInvalid.ConvertTo(U::Invalid));
  EXPECT_EQ(toInvalid, DKDurationEx::invalid_);
}

// tests/datetime/cases/duration_normalize.txt: each duration normalized; duration_equivalence.txt:
// whether two durations are equivalent.
TEST(DurationExTest, NormalizeToTheCoarsestExactUnitAndEquivalence) {
  for (const auto& c : Cases("duration_normalize.txt", 2)) {
    DKDurationEx d = DurationOf(c, 0);
    d.Normalize();
    EXPECT_EQ(d, DurationOf(c, 1)) << c.where;
  }
  for (const auto& c : Cases("duration_equivalence.txt", 3))
    EXPECT_EQ(DurationOf(c, 0).IsEquivalent(DurationOf(c, 1)), c.YesNo(2)) << c.where;
}

// Overflow throws and leaves the value as it was.
TEST(DurationExTest, ArithmeticAndOverflow) {
  DKDurationEx big(100, U::Year);
  EXPECT_THROW(big.ConvertTo(U::Second), DKDurationExceptionEx); // 3153600000 s
  EXPECT_EQ(big, DKDurationEx(100, U::Year));
  EXPECT_THROW(DKDurationEx(2147483647L, U::Second) * 2, DKDurationExceptionEx);
  EXPECT_THROW(DKDurationEx(5, U::Second) / 0, DKDurationExceptionEx);
  EXPECT_EQ(DKDurationEx(-2147483647L, U::Second) / -1, DKDurationEx(2147483647L, U::Second));
  EXPECT_THROW(DKDurationEx(-2147483647L, U::Second) - DKDurationEx(1, U::Second), DKDurationExceptionEx);
  EXPECT_EQ(DKDurationEx(1, U::Day) + DKDurationEx(2, U::Hour), DKDurationEx(26, U::Hour));
  EXPECT_EQ(DKDurationEx(1, U::Year) + DKDurationEx(1, U::Millisecond), DKDurationEx::invalid_);
  EXPECT_EQ(DKDurationEx(7, U::Day) * -2 / 4, DKDurationEx(-3, U::Day));
  EXPECT_EQ(DKDurationEx(1, U::Month).AsMilliSeconds(), 2592000000LL);
  EXPECT_EQ(DKDurationEx(2147483647L, U::Year).AsMilliSeconds(), std::numeric_limits<DKInt64>::max()); // saturates
  EXPECT_EQ(DKDurationEx(90, U::Minute).AsDKDuration(), 5400);
  EXPECT_THROW(DKDurationEx(100, U::Year).AsDKDuration(), DKDurationExceptionEx);
  EXPECT_EQ(DKDurationEx(-2, U::Hour).AsInt64(), (DKInt64{U::Hour} << 32) | 0xFFFFFFFEu);
}

// A duration holding -2147483648 (the copy an exception carries) is refused by every
// calculation that would use its count: DKDurationExceptionEx carrying it again, and the value
// it was to move is left as it was. Calculations that ignore its unit stay no-ops.
template <class T>
void ExpectCountRefused(const T& start, const DKDurationEx& d, bool used) {
  for (const bool add : {true, false}) {
    T value = start;
    SCOPED_TRACE(testing::Message() << (add ? "+= " : "-= ") << DKString(d.GetLongName(d.GetUnit())).AsUTF8());
    try {
      if (add)
        value += d;
      else
        value -= d;
      EXPECT_FALSE(used) << "no exception";
    } catch (const DKDurationExceptionEx& e) {
      EXPECT_TRUE(used);
      EXPECT_EQ(e.GetDuration(), d);
      EXPECT_EQ(e.GetCount(), -2147483648LL);
    }
    EXPECT_TRUE(value == start);
  }
}

TEST(DurationExTest, TheNeverHeldCountIsRefusedByEveryCalculation) {
  for (int u = U::Year; u <= U::Millisecond; ++u) {
    const U unit = U(u);
    const bool calendar = unit <= U::Day;
    const DKDurationEx d = NeverHeldCount(unit);
    ExpectCountRefused(DKDateEx(2000, 1, 1), d, calendar);
    ExpectCountRefused(DKTimeEx(12, 0), d, !calendar);
    ExpectCountRefused(Utc(2000, 1, 1, 12), d, true);
    ExpectCountRefused(DKDateTimeEx(DKDateEx(2000, 1, 1)), d, true);
    ExpectCountRefused(DKDateTimeEx(DKTimeEx(12, 0)), d, true);
    ExpectCountRefused(DKDate(1, 1, 2000), d, calendar);
    ExpectCountRefused(DKDateTime(946728000), d, true);
    ExpectCountRefused(DKTimeEx(), d, false); // nothing happens to the null time
    EXPECT_THROW((void)-d, DKDurationExceptionEx);
    EXPECT_THROW(d * 1, DKDurationExceptionEx);
    EXPECT_THROW(d + DKDurationEx(0, unit), DKDurationExceptionEx);
  }
}

// The forms of tests/datetime/cases/duration_forms.txt, duration_readable_forms.txt and
// duration_elapsed.txt.
TEST(DurationExTest, WritesShortLongReadableAndElapsedForms) {
  for (const auto& c : Cases("duration_forms.txt", 3)) {
    SCOPED_TRACE(c.where);
    EXPECT_EQ(DurationOf(c, 0).AsString(false), Text(c[1]));
    EXPECT_EQ(DurationOf(c, 0).AsString(true), Text(c[2]));
  }
  for (const auto& c : Cases("duration_readable_forms.txt", 3)) {
    SCOPED_TRACE(c.where);
    EXPECT_EQ(DurationOf(c, 0).AsReadableString(), Text(c[1]));
    EXPECT_EQ(DurationOf(c, 0).AsReadableString(false), Text(c[2]));
  }
  for (const auto& c : Cases("duration_elapsed.txt", 2))
    EXPECT_EQ(DurationOf(c, 0).AsElapsedString(), Text(c[1])) << c.where;
}

TEST(DurationExTest, ReadsUnitWords) {
  for (const auto& c : Cases("duration_unit_words.txt", 5)) {
    SCOPED_TRACE(c.where);
    DKDurationEx d;
    EXPECT_EQ(d.FromString(Text(c[0]), UnitOf(c, 1)), c[2] == "true");
    EXPECT_EQ(d.GetUnit(), UnitOf(c, 4));
    EXPECT_EQ(d.GetDuration(), c.Int(3));
  }
  DKDurationEx empty(5, U::Day);
  EXPECT_FALSE(empty.FromString(DKString(), U::Day));
  EXPECT_EQ(empty, DKDurationEx::invalid_);
  EXPECT_THROW(DKDurationEx().FromString(DK_T("-2147483648"), U::Day), DKDurationExceptionEx);
  EXPECT_THROW(DKDurationEx().FromString(DK_T("-99999999999 d"), U::Day), DKDurationExceptionEx);
  bool ok = true;
  (void)DKString(DK_T("3 parsecs")).AsDKDurationEx(&ok);
  EXPECT_FALSE(ok);
}

TEST(DurationExTest, Streams) {
  std::ostringstream out;
  out << DKDurationEx(3, U::Day) << ' ' << DKDurationEx(-2, U::Hour);
  EXPECT_EQ(out.str(), "3d -2h");
  std::istringstream in("3d 5 days 7 next");
  DKDurationEx a, b, c;
  in >> a >> b;
  EXPECT_EQ(a, DKDurationEx(3, U::Day));
  EXPECT_EQ(b, DKDurationEx(5, U::Day));
  in >> c; // "7 next": the unit word is unknown
  EXPECT_TRUE(in.fail());
  std::istringstream last("42");
  DKDurationEx d;
  EXPECT_TRUE(static_cast<bool>(last >> d));
  EXPECT_EQ(d, DKDurationEx(42, U::Second));
}

// ---- Readable text and std::chrono -------------------------------------------------------------

TEST(DurationExReadableTest, ReadsPartsIntoTheFinestUnitOrRefuses) {
  for (const auto& c : Cases("duration_readable.txt", 2)) {
    SCOPED_TRACE(c.where);
    DKDurationEx d(5, U::Day);
    EXPECT_EQ(d.FromReadableString(Text(c[0])), c[1] != "refused");
    EXPECT_EQ(d, c[1] == "refused" ? DKDurationEx::invalid_ : DurationOf(c, 1));
  }
}

// From std::chrono: the coarsest exact unit from week down, or false when no unit's count
// holds the amount; checked against the unit lengths that std::chrono gives, and back.
TEST(DurationExChronoTest, FromChronoTakesTheCoarsestExactUnitAndGoesBack) {
  using namespace std::chrono;
  const milliseconds lengths[] = {weeks{1}, days{1}, hours{1}, minutes{1}, seconds{1}, milliseconds{1}};
  std::mt19937_64 random(99);
  std::uniform_int_distribution<long long> anyCount(-2147483647LL * 2, 2147483647LL * 2);
  for (int i = 0; i < 20000; ++i) {
    const milliseconds amount = lengths[i % 6] * anyCount(random);
    int unit = 0;
    while (amount % lengths[unit] != milliseconds{0})
      ++unit; // ends at the millisecond
    const long long count = amount / lengths[unit];
    DKDurationEx d(3, U::Day);
    const bool ok = d.FromChrono(amount);
    const bool fits = count >= -2147483647LL && count <= 2147483647LL;
    ASSERT_EQ(ok, fits) << amount.count();
    if (!ok) {
      ASSERT_EQ(d, DKDurationEx(3, U::Day));
      ASSERT_THROW(DKDurationEx{amount}, DKDurationExceptionEx);
      continue;
    }
    ASSERT_EQ(d, DKDurationEx(static_cast<long>(count), U(U::Week + unit))) << amount.count();
    milliseconds back{};
    ASSERT_TRUE(d.AsChrono(back));
    ASSERT_EQ(back, amount);
  }
  EXPECT_EQ(DKDurationEx(milliseconds{0}), DKDurationEx(0, U::Week));
  try {
    DKDurationEx{milliseconds{2147483648LL}};
    FAIL() << "no exception";
  } catch (const DKDurationExceptionEx& e) {
    EXPECT_EQ(e.GetCount(), 2147483648LL);
  }
  DKDurationEx d;
  EXPECT_FALSE(d.FromChrono(milliseconds::min()));
  EXPECT_FALSE(d.FromChrono(milliseconds::max()));
  // Years, months and the invalid unit have no fixed length: no amount, and the target is kept.
  for (const DKDurationEx& noLength : {DKDurationEx(1, U::Year), DKDurationEx(1, U::Month), DKDurationEx::invalid_}) {
    milliseconds amount{7};
    EXPECT_FALSE(noLength.AsChrono(amount));
    EXPECT_EQ(amount, milliseconds{7});
  }
}

} // namespace
