#include <DorvikCore/DKString.h>

#include <gtest/gtest.h>

#include "support/DKCaseBlocks.h"
#include "support/DKCaseFile.h"

#include <string>
#include <vector>

namespace {

int Sign(int v) { return (v > 0) - (v < 0); }

// The pairs of cases/nat-compare.txt.
TEST(DKStringNatCompare, OrdersDigitRunsByValue) {
  DKStringNatCompare cmp;
  for (const dktest::CaseLine& c : dktest::ReadCases(DK_TEST_CASES "/nat-compare.txt", 3)) {
    const DKString a = dkcases::Units(c[0]), b = dkcases::Units(c[1]);
    EXPECT_EQ(Sign(cmp(a.c_str(), b.c_str())), c.Int(2)) << c.where;
  }
  EXPECT_EQ(cmp(nullptr, DK_T("")), 0);
  EXPECT_LT(cmp(nullptr, DK_T("a")), 0);
  EXPECT_LT(cmp(DKString(DK_T("IMG2")), DKString(DK_T("img10"))), 0);
}

std::vector<DKStdString> Tokens(const DKChar* text, const DKChar* separators, bool allowEmpty) {
  DKStdString buffer(text);
  DKTokenizer configured;
  if (separators)
    configured.SetSeparators(separators);
  if (allowEmpty)
    configured.AllowEmptyTokens(true);
  DKTokenizer tokenizer; // by default: blank and tab, no empty tokens; copies keep the settings
  tokenizer = DKTokenizer(configured);
  DKPointerVector<DKChar> out;
  tokenizer.Tokenize(buffer.data(), out);
  std::vector<DKStdString> result;
  for (DKChar* p : out) {
    // Every pointer lies inside the caller's buffer.
    EXPECT_TRUE(p >= buffer.data() && p <= buffer.data() + buffer.size());
    result.emplace_back(p);
  }
  return result;
}

// The rows of cases/tokenizer.txt; a null text gives no tokens.
TEST(DKTokenizer, SplitsInPlace) {
  for (const dktest::CaseLine& c : dktest::ReadCases(DK_TEST_CASES "/tokenizer.txt", 0)) {
    const std::vector<std::string> utf8(c.fields.begin() + 3, c.fields.end());
    std::vector<DKStdString> expected;
    for (const std::string& token : utf8)
      expected.push_back(dkcases::Units(token).AsStdString());
    const DKString text = dkcases::Units(c[0]), separators = dkcases::Units(c[1]);
    EXPECT_EQ(Tokens(text.c_str(), c[1] == "default" ? nullptr : separators.c_str(), c.YesNo(2)), expected) << c.where;
  }
  DKPointerVector<DKChar> out;
  DKTokenizer().Tokenize(nullptr, out);
  EXPECT_EQ(out.GetCount(), 0u);
}

} // namespace
