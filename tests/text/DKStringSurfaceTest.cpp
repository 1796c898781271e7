// The standard-library face of DKString: views, UTF-8 in and out, C++20 comparisons, the
// everyday helpers and concatenation. Ordering and splitting are checked against the standard
// library as an independent reference.
#include <DorvikCore/DKMemoryPool.h>
#include <DorvikCore/DKString.h>

#include <gtest/gtest.h>

#include "support/DKPoolLeakCheck.h"

#include <algorithm>
#include <cmath>
#include <compare>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

using DKStringSurfaceTest = DKPoolLeakCheckedTest;

std::u16string_view V(const DKString& s) { return s; }

TEST_F(DKStringSurfaceTest, ViewsAndUtf8ComeInWholeAndBadBytesBecomeReplacementCharacters) {
  const std::u16string_view withNul(u"a\0b", 3);
  EXPECT_EQ(V(DKString(withNul)), withNul);
  struct Row {
    std::string utf8;
    DKStdString expected;
  };
  const Row rows[] = {
      {"", DK_T("")},
      {"h\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80", DK_T("h\u00E9 \u20AC \U0001F600")},
      {"bad\xFF|\xC3|\xE2\x82|\xED\xA0\x80|\xF4\x90\x80\x80", DK_T("bad\uFFFD|\uFFFD|\uFFFD|\uFFFD\uFFFD\uFFFD|\uFFFD\uFFFD\uFFFD\uFFFD")},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(DKString::FromUTF8(row.utf8).View(), row.expected) << row.utf8;
    // Equality with narrow text is equality with its decoding.
    EXPECT_TRUE(DKString(row.expected.c_str()) == row.utf8) << row.utf8;
    EXPECT_FALSE(DKString(row.expected + DK_T("x")) == row.utf8) << row.utf8;
  }
  // The other narrow forms decode through the same appending path.
  DKString appended("h\xC3\xA9|\xFF");
  appended += std::string("|\xE2\x82\xAC");
  appended.Append(std::string_view("|\xF0\x9F\x98\x80")).Append("|\xC3");
  EXPECT_EQ(appended.View(), DK_T("h\u00E9|\uFFFD|\u20AC|\U0001F600|\uFFFD"));
  EXPECT_TRUE(DKString() == static_cast<const char*>(nullptr));
  const DKChar half[] = {0xD83D, 0};
  EXPECT_FALSE(DKString(half) == "\xF0\x9F\x98\x80"); // half a pair is not the character
  EXPECT_TRUE(DKString(DK_T("\U0001F600")) != "\xF0\x9F\x98\x81");

  // The standard spellings serve generic code.
  const DKString s(DK_T("generic"));
  EXPECT_EQ(DKStdString(s.data(), s.size()), DK_T("generic"));
  EXPECT_TRUE(DKString().empty());
  EXPECT_EQ(std::count(s.begin(), s.end(), DK_T('e')), 2);
}

int Sign(int v) { return (v > 0) - (v < 0); }
int Sign(std::strong_ordering o) { return o < 0 ? -1 : o > 0 ? 1 : 0; }

// <, >=, != and the reversed operands are the compiler's rewrites of <=> and ==.
TEST_F(DKStringSurfaceTest, OrderingIsCodeUnitOrderInBothOperandOrders) {
  std::mt19937 random(7);
  const DKChar alphabet[] = {DK_T('a'), DK_T('b'), DK_T('A'), DK_T('\u00E9'), DKChar{0xD83D}, DKChar{0xDE00}, DK_T('\uFFFF'), DK_T('\u0001')};
  auto randomText = [&] {
    DKStdString t(random() % 4, DK_T(' '));
    for (DKChar& c : t)
      c = alphabet[random() % std::size(alphabet)];
    return t;
  };
  for (int i = 0; i < 2000; ++i) {
    const DKStdString a = randomText(), b = randomText();
    const int expected = Sign(a.compare(b));
    const DKString da(a.c_str()), db(b.c_str());
    EXPECT_EQ(Sign(da <=> db), expected);
    EXPECT_EQ(da.Compare(db), expected);
    EXPECT_EQ(da.Compare(b.c_str()), expected);
    EXPECT_EQ(Sign(da <=> b.c_str()), expected);
    EXPECT_EQ(Sign(da <=> V(db)), expected);
    EXPECT_EQ(Sign(da <=> b), expected);
    EXPECT_EQ(da == b.c_str(), expected == 0);
    EXPECT_EQ(da == b, expected == 0);
  }
}

TEST_F(DKStringSurfaceTest, StartsEndsContainsAndSplit) {
  const DKString s(DK_T("key=value=more"));
  EXPECT_TRUE(s.StartsWith(DK_T("key=")) && s.StartsWith(DK_T("")) && s.StartsWith(DK_T('k')));
  EXPECT_FALSE(s.StartsWith(DK_T("value")) || DKString().StartsWith(DK_T('k')));
  EXPECT_TRUE(s.EndsWith(DK_T("more")) && s.EndsWith(DK_T('e')) && !s.EndsWith(DK_T("key")));
  EXPECT_TRUE(s.Contains(DK_T("=value=")) && s.Contains(DK_T('v')) && !s.Contains(DK_T("==")) && DKString().Contains(DK_T("")));

  // Against a reference split written with std::u16string.
  auto reference = [](const DKStdString& text, const DKStdString& sep) {
    std::vector<DKStdString> out;
    std::size_t from = 0;
    for (std::size_t at; (at = text.find(sep, from)) != DKStdString::npos; from = at + sep.size())
      out.push_back(text.substr(from, at - from));
    out.push_back(text.substr(from));
    return out;
  };
  for (const DKStdString text : {DK_T(""), DK_T(","), DK_T("a"), DK_T("a,b"), DK_T(",a,,b,"), DK_T("a, b,  c")})
    for (const DKStdString sep : {DK_T(","), DK_T(", "), DK_T(",,")}) {
      std::vector<DKStdString> got;
      for (const DKString& piece : DKString(text.c_str()).Split(DKStringView(sep)))
        got.emplace_back(piece.View());
      EXPECT_EQ(got, reference(text, sep)) << DKString(text.c_str()).AsUTF8() << " / " << DKString(sep.c_str()).AsUTF8();
    }
  const std::vector<DKString> byChar = DKString(DK_T("x;y")).Split(DK_T(';'));
  ASSERT_EQ(byChar.size(), 2u);
  EXPECT_EQ(byChar[1], DK_T("y"));
  const DKString whole(DK_T("no separator"));
  EXPECT_EQ(whole.Split(DKStringView()).front().GetData(), whole.GetData()); // shared, not copied
}

// The searches against the standard view's, on text from small alphabets (the repetitive text
// that defeats a first/last-unit filter and sends Find to its fallback) and needles and sets of
// every length around the vector width. (Empty and null needles and sets follow rules of their
// own: DKStringTest.SearchingRules.)
TEST_F(DKStringSurfaceTest, SearchesAgreeWithTheStandardOnes) {
  std::mt19937 random(3);
  for (int round = 0; round < 3000; ++round) {
    const unsigned alphabet = 1 + random() % (round % 3 == 0 ? 2 : 6);
    DKStdString hay(random() % (round % 10 == 0 ? 9000 : 80), DK_T('a'));
    for (DKChar& c : hay)
      c = static_cast<DKChar>(DK_T('a') + random() % alphabet);
    DKStdString needle(1 + random() % 20, DK_T('a'));
    for (DKChar& c : needle)
      c = static_cast<DKChar>(DK_T('a') + random() % alphabet);
    if (round % 4 == 0 && hay.size() >= needle.size()) // plant it near the end
      hay.replace(hay.size() - needle.size() - random() % (hay.size() - needle.size() + 1), needle.size(), needle);
    const DKString dkHay(hay.c_str()), dkNeedle(needle.c_str());
    const std::size_t start = hay.empty() ? 0 : random() % hay.size();
    const DKStringView h(hay), n(needle);
    const std::size_t expected = h.find(n, start);
    ASSERT_EQ(dkHay.Find(dkNeedle, start), expected) << "round " << round;
    ASSERT_EQ(dkHay.Find(needle.c_str(), start), expected) << "round " << round;
    ASSERT_EQ(dkHay.Find(needle[0], start), h.find(needle[0], start)) << "round " << round;
    ASSERT_EQ(dkHay.RFind(dkNeedle, start), h.rfind(n, start)) << "round " << round;
    ASSERT_EQ(dkHay.RFind(needle[0], start), h.rfind(needle[0], start)) << "round " << round;
    ASSERT_EQ(dkHay.FindFirstOf(dkNeedle, start), h.find_first_of(n, start)) << "round " << round;
    ASSERT_EQ(dkHay.FindFirstNotOf(dkNeedle, start), h.find_first_not_of(n, start)) << "round " << round;
    ASSERT_EQ(dkHay.FindLastOf(dkNeedle, start), h.find_last_of(n, start)) << "round " << round;
    ASSERT_EQ(dkHay.FindLastNotOf(dkNeedle, start), h.find_last_not_of(n, start)) << "round " << round;
  }
  // Units above 0x7FFF compare as unsigned, in the vector loop too.
  const DKChar high[] = {0xFFFE, 0x8000, 0xFFFF, 0x8000, 0xFFFE, 0xFFFF, 0x7FFF, 0x8000, 0xFFFF, 0xFFFF, 0};
  const DKChar pair[] = {0xFFFF, 0xFFFF, 0};
  EXPECT_EQ(DKString(high).Find(pair), 8u);
  EXPECT_EQ(DKString(high).Find(DKChar{0x7FFF}), 6u);
}

TEST_F(DKStringSurfaceTest, NumbersReadBackAndConcatenationSizesOnce) {
  EXPECT_EQ(DKString::Number(std::numeric_limits<long long>::min()), DK_T("-9223372036854775808"));
  EXPECT_EQ(DKString::Number(std::numeric_limits<unsigned long long>::max()), DK_T("18446744073709551615"));
  EXPECT_EQ(DKString::Number(0.1), DK_T("0.1"));
  EXPECT_EQ(DKString::Number(1e21), DK_T("1e+21"));
  EXPECT_EQ(DKString::Number(-0.0), DK_T("-0"));
  std::mt19937_64 random(11);
  for (int i = 0; i < 1000; ++i) {
    double v;
    const std::uint64_t bits = random();
    std::memcpy(&v, &bits, sizeof v);
    if (!std::isfinite(v))
      continue;
    bool ok = false;
    EXPECT_EQ(DKString::Number(v).AsDouble(&ok), v);
    EXPECT_TRUE(ok);
  }

  const DKString name(DK_T("caf\u00E9"));
  const std::size_t blocks = DMMemoryPool::GetTotalBlocks();
  const DKString joined = DKStrCat(name, DK_T(": "), 42, DK_T(' '), -7LL, ' ', "\xE2\x82\xAC", std::string("!"), 0u);
  EXPECT_EQ(DMMemoryPool::GetTotalBlocks() - blocks, 1u); // one block of the final size
  EXPECT_EQ(joined, DK_T("caf\u00E9: 42 -7 \u20AC!0"));
  EXPECT_TRUE(DKStrCat().IsEmpty());

  // A temporary on the left of + is appended to in place.
  DKString left(DK_T("a"));
  left.Reserve(16);
  const DKString::DataDef* block = left.GetData();
  const DKString chained = std::move(left) + DK_T("b") + name + DK_T('!');
  EXPECT_EQ(chained.GetData(), block);
  EXPECT_EQ(chained, DK_T("abcaf\u00E9!"));
}

} // namespace
