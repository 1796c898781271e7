#include <DorvikCore/DKString.h>

#include <gtest/gtest.h>

#include <vector>

namespace {

const DKChar* const marker = DK_T("{DKS1}");

// Stored scrambled values must stay readable by later versions of the library. (That each step
// is idempotent, and the round trip of any text, are the UTF-8 fuzz target's properties.)
TEST(DKStringScrambleTest, TheScrambledFormIsStable) {
  DKString s(DK_T("secret"));
  s.Encrypt();
  EXPECT_EQ(s, DK_T("{DKS1}RoTHKbDQ7r8ZpQFKu7j5LA"));
  s.Decrypt();
  EXPECT_EQ(s, DK_T("secret"));
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
