#include <DorvikCore/DKError.h>
#include <DorvikCore/DKGuid.h>

#include <gtest/gtest.h>

#include "support/DKCaseFile.h"

#include <sstream>
#include <unordered_set>

namespace {

constexpr DKGuid kSample{0x6B29FC40, 0xCA47, 0x1067, {0xB3, 0x1D, 0x00, 0xDD, 0x01, 0x06, 0x62, 0xDA}};

TEST(DKGuidTest, ReadsTheTextFormOrRefusesIt) {
  for (const dktest::CaseLine& c : dktest::ReadCases(std::filesystem::path(DK_APP_CASES) / "guid_texts.txt", 2)) {
    const std::string& text = c[0];
    const bool valid = c.YesNo(1);
    SCOPED_TRACE(c.where);
    DKGuid narrow = DKGuid::NewGuid();
    const DKGuid before = narrow;
    EXPECT_EQ(DKGuid::Parse(text.c_str(), narrow), valid);
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
}

} // namespace
