#include <DorvikCore/DKString.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

int Sign(int v) { return (v > 0) - (v < 0); }

TEST(DKStringNatCompare, OrdersDigitRunsByValue) {
  struct Case {
    const char16_t* a;
    const char16_t* b;
    int sign;
  };
  const Case cases[] = {
      {u"file2", u"file10", -1}, {u"file10", u"file2", 1}, {u"007", u"7", 0},  {u"1a", u"aa", -1},
      {u"aa", u"1a", 1},         {u"ABC", u"abc", 0},      {u"  x", u"x", 0},  {u"a", u"ab", -1},
      {u"", u"", 0},             {u"x2y3", u"x2y10", -1},  {u"é", u"É", 0},    {u"b", u"a", 1},
      // Leading white space is any Unicode white space, whatever the locale.
      {u"\u3000x", u"x", 0},     {u"\u00A0\u2003\u20289", u"10", -1},        {u"\u200Bx", u"x", 1},
  };
  DKStringNatCompare cmp;
  for (const Case& c : cases)
    EXPECT_EQ(Sign(cmp(c.a, c.b)), c.sign) << DKString(c.a).AsUTF8() << " vs " << DKString(c.b).AsUTF8();
  EXPECT_EQ(cmp(nullptr, u""), 0);
  EXPECT_LT(cmp(nullptr, u"a"), 0);
  EXPECT_LT(cmp(DKString(u"IMG2"), DKString(u"img10")), 0);
}

std::vector<std::u16string> Tokens(const char16_t* text, const char16_t* separators, bool allowEmpty) {
  std::u16string buffer(text);
  DKTokenizer configured;
  if (separators)
    configured.SetSeparators(separators);
  if (allowEmpty)
    configured.AllowEmptyTokens(true);
  DKTokenizer tokenizer; // by default: blank and tab, no empty tokens; copies keep the settings
  tokenizer = DKTokenizer(configured);
  DKPointerVector<DKChar> out;
  tokenizer.Tokenize(buffer.data(), out);
  std::vector<std::u16string> result;
  for (DKChar* p : out) {
    // Every pointer lies inside the caller's buffer.
    EXPECT_TRUE(p >= buffer.data() && p <= buffer.data() + buffer.size());
    result.emplace_back(p);
  }
  return result;
}

TEST(DKTokenizer, SplitsInPlace) {
  using V = std::vector<std::u16string>;
  struct Case {
    const char16_t* text;
    const char16_t* separators;
    bool allowEmpty;
    V expected;
  };
  const Case cases[] = {
      {u"a b\tc", nullptr, false, V{u"a", u"b", u"c"}},
      {u"  a  b ", nullptr, false, V{u"a", u"b"}},
      {u"a,,b", u",", true, V{u"a", u"", u"b"}},
      {u",a", u",", true, V{u"", u"a"}},
      {u"a,", u",", true, V{u"a", u""}},
      {u",", u",", true, V{u"", u""}},
      {u"a,,b", u",", false, V{u"a", u"b"}},
      {u"", u",", true, V{}},
      {u"a b", u"", false, V{u"a b"}},
      {u"k=v;x=y", u"=;", false, V{u"k", u"v", u"x", u"y"}},
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
