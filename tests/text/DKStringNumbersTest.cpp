#include <DorvikCore/DKString.h>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace {

template <class T>
struct NumberCase {
  const char16_t* text;
  T value;
  bool ok;
};

template <class T, class F>
void Check(const NumberCase<T>* begin, const NumberCase<T>* end, F convert, const char* name) {
  for (const NumberCase<T>* c = begin; c != end; ++c) {
    bool ok = !c->ok; // must be overwritten
    const T v = convert(DKString(c->text), &ok);
    EXPECT_EQ(v, c->value) << name << "('" << DKString(c->text).AsUTF8() << "')";
    EXPECT_EQ(ok, c->ok) << name << "('" << DKString(c->text).AsUTF8() << "')";
  }
}

TEST(DKStringNumbers, Int32) {
  const NumberCase<int> cases[] = {
      {u" 12", 12, true},          {u"12 ", 12, false},        {u"", 0, false},
      {u"\t-7", -7, true},         {u"+5", 5, true},           {u"12a", 12, false},
      {u"abc", 0, false},          {u"-", 0, false},           {u"2147483647", 2147483647, true},
      {u"-2147483648", std::numeric_limits<int>::min(), true},
      {u"2147483648", 2147483647, false},                      {u"-2147483649", std::numeric_limits<int>::min(), false},
      {u"99999999999999999999999", 2147483647, false},         {u"0x10", 0, false},
      {u"007", 7, true},           {u" \n 3", 3, true},
      // At most one sign; leading white space is any Unicode white space.
      {u"+-5", 0, false},          {u"--5", 0, false},         {u"-+5", 0, false},
      {u"\u3000\u00A0\u20059", 9, true}, {u"\u200B9", 0, false},
  };
  Check(std::begin(cases), std::end(cases), [](const DKString& s, bool* ok) { return s.AsInt(ok); }, "AsInt");
  Check(std::begin(cases), std::end(cases), [](const DKString& s, bool* ok) { return static_cast<int>(s.AsLong(ok)); },
        "AsLong");
  Check(std::begin(cases), std::end(cases), [](const DKString& s, bool* ok) { return static_cast<int>(s.AsDKDuration(ok)); },
        "AsDKDuration");
  EXPECT_EQ(DKString(u"42").AsInt(), 42); // the flag is optional
}

TEST(DKStringNumbers, UInt32) {
  const NumberCase<unsigned> cases[] = {
      {u"4294967295", 4294967295u, true}, {u"4294967296", 4294967295u, false}, {u" 17", 17u, true},
      {u"-1", 4294967295u, true}, // negated in unsigned arithmetic, as the C library does
      {u"", 0u, false},                   {u"5x", 5u, false},                  {u"-+1", 0u, false},
  };
  Check(std::begin(cases), std::end(cases), [](const DKString& s, bool* ok) { return s.AsUint(ok); }, "AsUint");
  Check(std::begin(cases), std::end(cases), [](const DKString& s, bool* ok) { return static_cast<unsigned>(s.AsULong(ok)); },
        "AsULong");
}

TEST(DKStringNumbers, Int64ScansWithoutRangeCheck) {
  const NumberCase<DKInt64> cases[] = {
      {u" 12", 12, true},
      {u"", 0, false},
      {u"12 ", 12, false},
      {u"-9223372036854775808", std::numeric_limits<DKInt64>::min(), true},
      {u"9223372036854775807", std::numeric_limits<DKInt64>::max(), true},
      {u"9223372036854775808", std::numeric_limits<DKInt64>::min(), true}, // wraps
      {u"+", 0, false},
      {u"  ", 0, false},
      {u"+-1", 0, false},
      {u"\u30007", 7, true},
  };
  Check(std::begin(cases), std::end(cases), [](const DKString& s, bool* ok) { return s.AsInt64(ok); }, "AsInt64");
  const NumberCase<DKUInt64> ucases[] = {
      {u"18446744073709551615", 18446744073709551615ull, true},
      {u"-1", 18446744073709551615ull, true},
      {u"1z", 1, false},
      {u"--1", 0, false},
  };
  Check(std::begin(ucases), std::end(ucases), [](const DKString& s, bool* ok) { return s.AsUInt64(ok); }, "AsUInt64");
}

TEST(DKStringNumbers, Double) {
  const NumberCase<double> cases[] = {
      {u"1.5", 1.5, true},      {u" -2.25e2", -225.0, true}, {u"1.5 ", 1.5, false}, {u"", 0.0, false},
      {u".5", 0.5, true},       {u"1e", 1.0, false},        {u"0x1p4", 16.0, true}, {u"0x", 0.0, false},
      {u"+3", 3.0, true},       {u"abc", 0.0, false},       {u"1é", 1.0, false},
      {u"1e400", HUGE_VAL, false}, {u"-1e400", -HUGE_VAL, false}, {u"0.1e400", HUGE_VAL, false},
      {u"1e-400", 0.0, false},  {u"99e99999999999999999999", HUGE_VAL, false},
      {u"0.01e-99999999999999999999", 0.0, false},
      // At most one sign, as in the C library: a second one ends the number before it starts.
      {u"+-5", 0.0, false},     {u"--5", 0.0, false},       {u"-+5", 0.0, false},   {u"+-inf", 0.0, false},
      {u"-+0x1p4", 0.0, false}, {u"\u3000\u2028-2", -2.0, true}, {u"\uFEFF1", 0.0, false},
  };
  Check(std::begin(cases), std::end(cases), [](const DKString& s, bool* ok) { return s.AsDouble(ok); }, "AsDouble");
  bool ok = false;
  EXPECT_TRUE(std::isinf(DKString(u"inf").AsDouble(&ok)));
  EXPECT_TRUE(ok);
  EXPECT_TRUE(std::isnan(DKString(u"nan").AsDouble(&ok)));
  EXPECT_TRUE(ok);
}

} // namespace
