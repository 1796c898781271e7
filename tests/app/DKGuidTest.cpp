#include <DorvikCore/DKError.h>
#include <DorvikCore/DKGuid.h>

#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <unordered_set>

namespace {

constexpr DKGuid kSample{0x6B29FC40, 0xCA47, 0x1067, {0xB3, 0x1D, 0x00, 0xDD, 0x01, 0x06, 0x62, 0xDA}};

TEST(DKGuidTest, ReadsTheTextFormOrRefusesIt) {
  const std::pair<const char*, bool> cases[] = {
      {"{6B29FC40-CA47-1067-B31D-00DD010662DA}", true},
      {"6b29fc40-ca47-1067-b31d-00dd010662da", true},
      {"  {6B29fc40-CA47-1067-B31D-00DD010662DA}\t\n", true},
      {"", false},
      {"{}", false},
      {"{6B29FC40-CA47-1067-B31D-00DD010662DA", false},
      {"6B29FC40-CA47-1067-B31D-00DD010662DA}", false},
      {"(6B29FC40-CA47-1067-B31D-00DD010662DA)", false},
      {"6B29FC40CA47-1067-B31D-00DD010662DA-", false},
      {"6B29FC40-CA47-1067-B31D-00DD010662DG", false},
      {"6B29FC40-CA47-1067-B31D-00DD010662D", false},
      {"6B29FC40-CA47-1067-B31D-00DD010662DAA", false},
      {"{6B29FC40 CA47-1067-B31D-00DD010662DA}", false},
  };
  for (const auto& [text, valid] : cases) {
    SCOPED_TRACE(text);
    DKGuid narrow = DKGuid::NewGuid();
    const DKGuid before = narrow;
    EXPECT_EQ(DKGuid::Parse(text, narrow), valid);
    EXPECT_EQ(narrow, valid ? kSample : before) << "a refused text leaves the value alone";
    const DKString wide = DKString::FromUTF8(text);
    bool ok = !valid;
    EXPECT_EQ(DKGuid::FromString(wide, &ok), valid ? kSample : DKGuid());
    EXPECT_EQ(ok, valid);
  }
}

TEST(DKGuidTest, PrintsBracedUpperCase) {
  EXPECT_EQ(kSample.AsUTF8(), "{6B29FC40-CA47-1067-B31D-00DD010662DA}");
  EXPECT_EQ(kSample.AsString(), DKString(DK_T("{6B29FC40-CA47-1067-B31D-00DD010662DA}")));
  std::ostringstream out;
  out << DKGuid();
  EXPECT_EQ(out.str(), "{00000000-0000-0000-0000-000000000000}");
}

TEST(DKGuidTest, NewGuidsAreVersion4DistinctAndReadBackFromTheirText) {
  std::unordered_set<DKGuid> seen;
  for (int i = 0; i < 1000; ++i) {
    const DKGuid guid = DKGuid::NewGuid();
    EXPECT_EQ(DKGuid::FromString(guid.AsString()), guid);
    EXPECT_EQ(guid.Data3() >> 12, 4);
    EXPECT_EQ(guid.Data4()[0] & 0xC0, 0x80);
    EXPECT_TRUE(seen.insert(guid).second);
  }
}

TEST(DKGuidTest, OrdersByTheFieldsOfTheTextForm) {
  const DKGuid low = DKGuid::FromString("00000001-FFFF-FFFF-FFFF-FFFFFFFFFFFF");
  const DKGuid high = DKGuid::FromString("00000002-0000-0000-0000-000000000000");
  const DKGuid lastByte = DKGuid::FromString("00000002-0000-0000-0000-000000000001");
  EXPECT_LT(low, high);
  EXPECT_LT(high, lastByte);
  EXPECT_TRUE(DKGuid().IsNull());
  EXPECT_FALSE(low.IsNull());
  std::set<DKGuid> ordered{lastByte, low, high};
  EXPECT_EQ(*ordered.begin(), low);
}

} // namespace
