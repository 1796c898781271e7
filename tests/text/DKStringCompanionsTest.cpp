#include <DorvikCore/DKString.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

int Sign(int v) { return (v > 0) - (v < 0); }

TEST(DKStringNatCompare, OrdersDigitRunsByValue) {
  struct Case {
    const DKChar* a;
    const DKChar* b;
    int sign;
  };
  const Case cases[] = {
      {DK_T("file2"), DK_T("file10"), -1}, {DK_T("file10"), DK_T("file2"), 1}, {DK_T("007"), DK_T("7"), 0},  {DK_T("1a"), DK_T("aa"), -1},
      {DK_T("aa"), DK_T("1a"), 1},         {DK_T("ABC"), DK_T("abc"), 0},      {DK_T("  x"), DK_T("x"), 0},  {DK_T("a"), DK_T("ab"), -1},
      {DK_T(""), DK_T(""), 0},             {DK_T("x2y3"), DK_T("x2y10"), -1},  {DK_T("é"), DK_T("É"), 0},    {DK_T("b"), DK_T("a"), 1},
      // Leading white space is any Unicode white space, whatever the locale.
      {DK_T("\u3000x"), DK_T("x"), 0},     {DK_T("\u00A0\u2003\u20289"), DK_T("10"), -1},        {DK_T("\u200Bx"), DK_T("x"), 1},
  };
  DKStringNatCompare cmp;
  for (const Case& c : cases)
    EXPECT_EQ(Sign(cmp(c.a, c.b)), c.sign) << DKString(c.a).AsUTF8() << " vs " << DKString(c.b).AsUTF8();
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

TEST(DKTokenizer, SplitsInPlace) {
  using V = std::vector<DKStdString>;
  struct Case {
    const DKChar* text;
    const DKChar* separators;
    bool allowEmpty;
    V expected;
  };
  const Case cases[] = {
      {DK_T("a b\tc"), nullptr, false, V{DK_T("a"), DK_T("b"), DK_T("c")}},
      {DK_T("  a  b "), nullptr, false, V{DK_T("a"), DK_T("b")}},
      {DK_T("a,,b"), DK_T(","), true, V{DK_T("a"), DK_T(""), DK_T("b")}},
      {DK_T(",a"), DK_T(","), true, V{DK_T(""), DK_T("a")}},
      {DK_T("a,"), DK_T(","), true, V{DK_T("a"), DK_T("")}},
      {DK_T(","), DK_T(","), true, V{DK_T(""), DK_T("")}},
      {DK_T("a,,b"), DK_T(","), false, V{DK_T("a"), DK_T("b")}},
      {DK_T(""), DK_T(","), true, V{}},
      {DK_T("a b"), DK_T(""), false, V{DK_T("a b")}},
      {DK_T("k=v;x=y"), DK_T("=;"), false, V{DK_T("k"), DK_T("v"), DK_T("x"), DK_T("y")}},
  };
  for (const Case& c : cases)
    EXPECT_EQ(Tokens(c.text, c.separators, c.allowEmpty), c.expected) << DKString(c.text).AsUTF8();
}

TEST(DKTokenizer, NullTextGivesNoTokens) {
  DKPointerVector<DKChar> out;
  DKTokenizer().Tokenize(nullptr, out);
  EXPECT_EQ(out.GetCount(), 0u);
}

} // namespace
