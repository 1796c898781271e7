#include <DorvikCore/DKString.h>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace {

template <class T>
struct NumberCase {
  const DKChar* text;
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
      {DK_T(" 12"), 12, true},          {DK_T("12 "), 12, false},        {DK_T(""), 0, false},
      {DK_T("\t-7"), -7, true},         {DK_T("+5"), 5, true},           {DK_T("12a"), 12, false},
      {DK_T("abc"), 0, false},          {DK_T("-"), 0, false},           {DK_T("2147483647"), 2147483647, true},
      {DK_T("-2147483648"), std::numeric_limits<int>::min(), true},
      {DK_T("2147483648"), 2147483647, false},                      {DK_T("-2147483649"), std::numeric_limits<int>::min(), false},
      {DK_T("99999999999999999999999"), 2147483647, false},         {DK_T("0x10"), 0, false},
      {DK_T("007"), 7, true},           {DK_T(" \n 3"), 3, true},
      // At most one sign; leading white space is any Unicode white space.
      {DK_T("+-5"), 0, false},          {DK_T("--5"), 0, false},         {DK_T("-+5"), 0, false},
      {DK_T("\u3000\u00A0\u20059"), 9, true}, {DK_T("\u200B9"), 0, false},
  };
  Check(std::begin(cases), std::end(cases), [](const DKString& s, bool* ok) { return s.AsInt(ok); }, "AsInt");
  Check(std::begin(cases), std::end(cases), [](const DKString& s, bool* ok) { return static_cast<int>(s.AsLong(ok)); },
        "AsLong");
  Check(std::begin(cases), std::end(cases), [](const DKString& s, bool* ok) { return static_cast<int>(s.AsDKDuration(ok)); },
        "AsDKDuration");
  EXPECT_EQ(DKString(DK_T("42")).AsInt(), 42); // the flag is optional
}

TEST(DKStringNumbers, UInt32) {
  const NumberCase<unsigned> cases[] = {
      {DK_T("4294967295"), 4294967295u, true}, {DK_T("4294967296"), 4294967295u, false}, {DK_T(" 17"), 17u, true},
      {DK_T("-1"), 4294967295u, true}, // negated in unsigned arithmetic, as the C library does
      {DK_T(""), 0u, false},                   {DK_T("5x"), 5u, false},                  {DK_T("-+1"), 0u, false},
  };
  Check(std::begin(cases), std::end(cases), [](const DKString& s, bool* ok) { return s.AsUint(ok); }, "AsUint");
  Check(std::begin(cases), std::end(cases), [](const DKString& s, bool* ok) { return static_cast<unsigned>(s.AsULong(ok)); },
        "AsULong");
}

TEST(DKStringNumbers, Int64ScansWithoutRangeCheck) {
  const NumberCase<DKInt64> cases[] = {
      {DK_T(" 12"), 12, true},
      {DK_T(""), 0, false},
      {DK_T("12 "), 12, false},
      {DK_T("-9223372036854775808"), std::numeric_limits<DKInt64>::min(), true},
      {DK_T("9223372036854775807"), std::numeric_limits<DKInt64>::max(), true},
      {DK_T("9223372036854775808"), std::numeric_limits<DKInt64>::min(), true}, // wraps
      {DK_T("+"), 0, false},
      {DK_T("  "), 0, false},
      {DK_T("+-1"), 0, false},
      {DK_T("\u30007"), 7, true},
  };
  Check(std::begin(cases), std::end(cases), [](const DKString& s, bool* ok) { return s.AsInt64(ok); }, "AsInt64");
  const NumberCase<DKUInt64> ucases[] = {
      {DK_T("18446744073709551615"), 18446744073709551615ull, true},
      {DK_T("-1"), 18446744073709551615ull, true},
      {DK_T("1z"), 1, false},
      {DK_T("--1"), 0, false},
  };
  Check(std::begin(ucases), std::end(ucases), [](const DKString& s, bool* ok) { return s.AsUInt64(ok); }, "AsUInt64");
}

TEST(DKStringNumbers, Double) {
  const NumberCase<double> cases[] = {
      {DK_T("1.5"), 1.5, true},      {DK_T(" -2.25e2"), -225.0, true}, {DK_T("1.5 "), 1.5, false}, {DK_T(""), 0.0, false},
      {DK_T(".5"), 0.5, true},       {DK_T("1e"), 1.0, false},        {DK_T("0x1p4"), 16.0, true}, {DK_T("0x"), 0.0, false},
      {DK_T("+3"), 3.0, true},       {DK_T("abc"), 0.0, false},       {DK_T("1é"), 1.0, false},
      {DK_T("1e400"), HUGE_VAL, false}, {DK_T("-1e400"), -HUGE_VAL, false}, {DK_T("0.1e400"), HUGE_VAL, false},
      {DK_T("1e-400"), 0.0, false},  {DK_T("99e99999999999999999999"), HUGE_VAL, false},
      {DK_T("0.01e-99999999999999999999"), 0.0, false},
      // At most one sign, as in the C library: a second one ends the number before it starts.
      {DK_T("+-5"), 0.0, false},     {DK_T("--5"), 0.0, false},       {DK_T("-+5"), 0.0, false},   {DK_T("+-inf"), 0.0, false},
      {DK_T("-+0x1p4"), 0.0, false}, {DK_T("\u3000\u2028-2"), -2.0, true}, {DK_T("\uFEFF1"), 0.0, false},
  };
  Check(std::begin(cases), std::end(cases), [](const DKString& s, bool* ok) { return s.AsDouble(ok); }, "AsDouble");
  bool ok = false;
  EXPECT_TRUE(std::isinf(DKString(DK_T("inf")).AsDouble(&ok)));
  EXPECT_TRUE(ok);
  EXPECT_TRUE(std::isnan(DKString(DK_T("nan")).AsDouble(&ok)));
  EXPECT_TRUE(ok);
}

} // namespace
