#include <DorvikCore/DKDouble.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>

namespace {

// Restores the class-wide switches after each test.
class DKDoubleTest : public ::testing::Test {
protected:
  void TearDown() override {
    DKDouble::zeroValueOnAssign = false;
    DKDouble::thePrecision = 1e-06;
  }
};

TEST_F(DKDoubleTest, SwitchesStartAtTheirDefaults) {
  EXPECT_FALSE(DKDouble::zeroValueOnAssign);
  EXPECT_EQ(DKDouble::thePrecision, 1e-06);
}

struct ZeroCase {
  bool zeroOnAssign;
  double precision;
  double value;
  double stored;
};

TEST_F(DKDoubleTest, TinyValuesAreStoredAsZeroOnlyWhileTheSwitchIsSet) {
  const ZeroCase cases[] = {
      {false, 1e-06, 5e-07, 5e-07},   {true, 1e-06, 5e-07, 0.0},     {true, 1e-06, -5e-07, 0.0},
      {true, 1e-06, 1e-06, 1e-06},    {true, 1e-06, 2e-06, 2e-06},   {true, 1e-03, 5e-04, 0.0},
      {true, 1e-03, -2e-03, -2e-03},  {true, 1e-06, 0.0, 0.0},
  };
  for (const ZeroCase& c : cases) {
    DKDouble::zeroValueOnAssign = c.zeroOnAssign;
    DKDouble::thePrecision = c.precision;
    const DKDouble constructed(c.value);
    DKDouble assigned;
    assigned = c.value;
    EXPECT_EQ(constructed.GetValue(), c.stored) << c.value << " switch " << c.zeroOnAssign;
    EXPECT_EQ(assigned.GetValue(), c.stored) << c.value << " switch " << c.zeroOnAssign;
  }
}

TEST_F(DKDoubleTest, CopyKeepsTheValueAsStored) {
  const DKDouble tiny(5e-07);
  DKDouble::zeroValueOnAssign = true;
  const DKDouble copy(tiny);
  EXPECT_EQ(copy.GetValue(), 5e-07);
  EXPECT_TRUE(copy.IsZero());
}

TEST_F(DKDoubleTest, ComparesLikeADoubleAndWithinThePrecision) {
  const DKDouble a(1.5);
  const DKDouble b(2.0);
  EXPECT_TRUE(a < b);
  EXPECT_TRUE(a == 1.5);
  EXPECT_FALSE(a == b);
  EXPECT_DOUBLE_EQ(a + b, 3.5);
  EXPECT_TRUE(DKDouble(1.0).IsEqual(1.0 + 5e-07));
  EXPECT_FALSE(DKDouble(1.0).IsEqual(1.0 + 5e-06));
  EXPECT_FALSE(DKDouble(std::nan("")).IsEqual(std::nan("")));
}

TEST_F(DKDoubleTest, TextIsTheShortestFormThatReadsBack) {
  const struct {
    double value;
    const char* text;
  } cases[] = {
      {0.0, "0"},         {0.1, "0.1"},   {-250.0, "-250"},        {1e-07, "1e-07"},
      {1e300, "1e+300"},  {2.5, "2.5"},   {123456789.125, "123456789.125"},
      {std::numeric_limits<double>::infinity(), "inf"},
      {-std::numeric_limits<double>::infinity(), "-inf"},
      {std::nan(""), "nan"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(DKDouble(c.value).AsUTF8(), c.text);
    EXPECT_EQ(DKDouble(c.value).AsString().AsUTF8(), c.text);
  }

  std::mt19937_64 random(42);
  for (int i = 0; i < 2000; ++i) {
    const std::uint64_t bits = random();
    double value;
    std::memcpy(&value, &bits, sizeof value);
    if (!std::isfinite(value))
      continue;
    const std::string text = DKDouble(value).AsUTF8();
    EXPECT_EQ(std::strtod(text.c_str(), nullptr), value) << text;
  }
}

} // namespace
