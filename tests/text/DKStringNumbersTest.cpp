// The number readers. On ASCII text they agree with the C library's readers in base 10
// (strtoll, strtoull, strtod): the same value, clamped to the reader's range, and ok exactly
// when the whole text is one number within it. The rows after that: white space beyond ASCII,
// the 64-bit readers' wrap-around, and what the C library does not decide.
#include <DorvikCore/DKString.h>

#include <gtest/gtest.h>

#include "support/DKCaseBlocks.h"
#include "support/DKCaseFile.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>

namespace {

// Random text of signs, digits, blanks and the letters of numbers, or a long run of digits.
std::string RandomNumberText(std::mt19937& rng) {
  static const char alphabet[] = " \t\n+-0123456789.eExXabinf";
  std::string text(rng() % 12, ' ');
  for (char& c : text)
    c = alphabet[rng() % (sizeof alphabet - 1)];
  if (rng() % 3 == 0) { // up to 24 digits, either sign: the ends of every range
    text = rng() % 2 ? "-" : "";
    for (unsigned n = 1 + rng() % 24; n > 0; --n)
      text += static_cast<char>('0' + rng() % 10);
  }
  return text;
}

// What read(&ok) gives against the expected value and flag.
template <class T, class Read>
void ExpectRead(const char* reader, const std::string& text, Read read, T expected, bool expectedOk) {
  bool ok = !expectedOk;
  EXPECT_EQ(static_cast<T>(read(&ok)), expected) << reader << "(\"" << text << "\")";
  EXPECT_EQ(ok, expectedOk) << reader << "(\"" << text << "\")";
}

TEST(DKStringNumbers, AgreeWithTheCLibraryOnAsciiText) {
  constexpr long long intMin = std::numeric_limits<int>::min(), intMax = std::numeric_limits<int>::max();
  constexpr unsigned long long uintMax = std::numeric_limits<unsigned>::max();
  const char* const edges[] = {"2147483647", "2147483648", "-2147483648", "-2147483649", "4294967295", "4294967296",
                               "-4294967295", "-4294967296", "9223372036854775807", "-9223372036854775808",
                               "18446744073709551615", " \n 3", "007", "+", "-", "", "1e400", "-1e400", "0.1e400",
                               "1e-400", ".5", "1e", "0x1p4", "0x", "inf", "nan", "+-inf", "-+0x1p4", "12 "};
  std::mt19937 rng(5);
  for (int round = 0; round < 20000; ++round) {
    const std::string t = round < static_cast<int>(std::size(edges)) ? edges[round] : RandomNumberText(rng);
    const DKString s = DKString::FromUTF8(t);
    const char* const begin = t.c_str();
    char* end = nullptr;
    const auto whole = [&] { return end != begin && *end == 0; };
    errno = 0;
    const long long l = std::strtoll(begin, &end, 10);
    const bool lInRange = errno == 0 && l >= intMin && l <= intMax, lWhole = whole(), lErange = errno == ERANGE;
    const int clamped = static_cast<int>(l < intMin ? intMin : l > intMax ? intMax : l);
    ExpectRead("AsInt", t, [&](bool* ok) { return s.AsInt(ok); }, clamped, lWhole && lInRange);
    ExpectRead("AsLong", t, [&](bool* ok) { return s.AsLong(ok); }, clamped, lWhole && lInRange);
    ExpectRead("AsDKDuration", t, [&](bool* ok) { return s.AsDKDuration(ok); }, clamped, lWhole && lInRange);
    if (!lErange) // beyond 64 bits the count wraps: see the rows below
      ExpectRead("AsInt64", t, [&](bool* ok) { return s.AsInt64(ok); }, static_cast<DKInt64>(l), lWhole);

    // A sign negates in unsigned arithmetic, as strtoul does with a 32-bit unsigned long.
    errno = 0;
    const unsigned long long u = std::strtoull(begin, &end, 10);
    const std::size_t first = t.find_first_not_of(" \t\n");
    const bool negative = first != std::string::npos && t[first] == '-';
    const unsigned long long magnitude = negative ? 0 - u : u;
    const bool uInRange = errno == 0 && magnitude <= uintMax, uWhole = whole(), uErange = errno == ERANGE;
    const unsigned uclamped = !uInRange ? static_cast<unsigned>(uintMax) : static_cast<unsigned>(negative ? 0 - magnitude : magnitude);
    ExpectRead("AsUint", t, [&](bool* ok) { return s.AsUint(ok); }, uclamped, uWhole && uInRange);
    ExpectRead("AsULong", t, [&](bool* ok) { return s.AsULong(ok); }, uclamped, uWhole && uInRange);
    if (!uErange)
      ExpectRead("AsUInt64", t, [&](bool* ok) { return s.AsUInt64(ok); }, static_cast<DKUInt64>(u), uWhole);

    errno = 0;
    const double d = std::strtod(begin, &end);
    bool ok = false;
    const double value = s.AsDouble(&ok);
    EXPECT_TRUE(value == d || (std::isnan(value) && std::isnan(d))) << "AsDouble(\"" << t << "\"): " << value;
    EXPECT_EQ(ok, whole() && errno == 0) << "AsDouble(\"" << t << "\")";
  }
}

// The rows of cases/number-readers.txt.
TEST(DKStringNumbers, WhiteSpaceBeyondAsciiAndWhatTheCLibraryLeavesOpen) {
  for (const dktest::CaseLine& c : dktest::ReadCases(DK_TEST_CASES "/number-readers.txt", 4)) {
    const DKString s = dkcases::Units(c[0]);
    bool ok = !c.YesNo(3);
    const double value = c[1] == "AsInt"     ? s.AsInt(&ok)
                         : c[1] == "AsInt64" ? static_cast<double>(s.AsInt64(&ok))
                         : c[1] == "AsUInt64" ? static_cast<double>(s.AsUInt64(&ok))
                         : c[1] == "AsDouble" ? s.AsDouble(&ok)
                                              : throw std::runtime_error(c.where + ": no reader " + c[1]);
    EXPECT_EQ(value, std::strtod(c[2].c_str(), nullptr)) << c.where;
    EXPECT_EQ(ok, c.YesNo(3)) << c.where;
  }
  EXPECT_EQ(DKString(DK_T("42")).AsInt(), 42); // the flag is optional
}

} // namespace
