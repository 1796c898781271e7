#include <DorvikCore/DKString.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

const DKChar* const marker = DK_T("{DKS1}");

bool IsBodyCharacter(DKChar c) {
  return (c >= DK_T('A') && c <= DK_T('Z')) || (c >= DK_T('a') && c <= DK_T('z')) || (c >= DK_T('0') && c <= DK_T('9')) || c == DK_T('-') || c == DK_T('_');
}

TEST(DKStringScrambleTest, RoundTripsAnyText) {
  const DKString texts[] = {
      DKString(),
      DKString(DK_T("p")),
      DKString(DK_T("Mot de passe: été, crème, 東京 😀")),
      DKString(DK_T("\xD800")),                   // lone high surrogate
      DKString(DK_T("a\xDC00") DK_T("b")),             // lone low surrogate
      DKString(DK_T("\xDE00\xD83D")),             // a pair in the wrong order
      DKString(DK_T("\xFFFF\xFFFE\x0001\xFFFD")),
      DKString(DK_T("{DKS1}")),                   // the marker alone is no scrambled text
      DKString(DK_T("{DKS1}AAAA")),
      DKString(DK_T('x'), 5000),
  };
  for (const DKString& text : texts) {
    SCOPED_TRACE(text.AsUTF8());
    ASSERT_FALSE(text.IsEncrypted());
    const DKString deepCopy(text.c_str(), text.Length());
    DKString s = text;
    s.Encrypt();
    EXPECT_TRUE(s.IsEncrypted());
    EXPECT_EQ(s.Find(marker), 0u);
    for (std::size_t i = DKStrLen(marker); i < s.Length(); ++i)
      ASSERT_TRUE(IsBodyCharacter(s[i])) << "unit " << i;
    EXPECT_TRUE(text == deepCopy) << "a sharer of the block keeps its text";
    if (text.Length() > 3) {
      EXPECT_EQ(s.SubStr(DKStrLen(marker)).Find(text), DKString::npos);
    }
    s.Decrypt();
    EXPECT_TRUE(s == text);
    EXPECT_FALSE(s.IsEncrypted());
  }
}

// Stored scrambled values must stay readable by later versions of the library.
TEST(DKStringScrambleTest, TheScrambledFormIsStableAndEachStepIdempotent) {
  const DKChar* const scrambled = DK_T("{DKS1}RoTHKbDQ7r8ZpQFKu7j5LA");
  DKString s(DK_T("secret"));
  for (int twice = 0; twice < 2; ++twice) {
    s.Encrypt();
    EXPECT_EQ(s, scrambled);
  }
  for (int twice = 0; twice < 2; ++twice) {
    s.Decrypt();
    EXPECT_EQ(s, DK_T("secret"));
  }
}

TEST(DKStringScrambleTest, SimilarTextsScrambleDifferentlyThroughout) {
  DKString a(DK_T("password1")), b(DK_T("password2"));
  a.Encrypt();
  b.Encrypt();
  ASSERT_EQ(a.Length(), b.Length());
  std::size_t same = 0;
  for (std::size_t i = DKStrLen(marker); i < a.Length(); ++i)
    same += a[i] == b[i];
  EXPECT_LT(same, a.Length() / 3);
}

TEST(DKStringScrambleTest, DamagedBodiesAreLeftUnchanged) {
  DKString good(DK_T("the quick brown fox"));
  good.Encrypt();
  const std::size_t bodyStart = DKStrLen(marker);
  std::vector<DKString> damaged;
  for (std::size_t i = bodyStart; i < good.Length(); ++i) {
    DKString flipped = good;
    flipped.Set(i, good[i] == DK_T('A') ? DK_T('B') : DK_T('A'));
    damaged.push_back(flipped);
  }
  damaged.push_back(good.SubStr(0, good.Length() - 1));
  damaged.push_back(good.SubStr(0, good.Length() - 3));
  damaged.push_back(good + DK_T("A"));
  damaged.push_back(good + DK_T("AAA"));
  DKString badChar = good;
  badChar.Set(bodyStart + 2, DK_T('+'));
  damaged.push_back(badChar);
  damaged.push_back(good.SubStr(1));
  damaged.push_back(DKString(DK_T("{dks1}")) + good.SubStr(bodyStart));
  for (const DKString& d : damaged) {
    SCOPED_TRACE(d.AsUTF8());
    EXPECT_FALSE(d.IsEncrypted());
    DKString s = d;
    s.Decrypt();
    EXPECT_TRUE(s == d);
  }
}

} // namespace
