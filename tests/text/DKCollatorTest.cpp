#include <DorvikCore/DKCharacter.h>
#include <DorvikCore/DKCollator.h>
#include <DorvikCore/DKString.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

int Sign(int v) { return (v > 0) - (v < 0); }

const DKCollator& Collator(long flags) {
  const DKCollator* collator = DKGetFlagsCollator(flags);
  if (!collator)
    std::abort();
  return *collator;
}

int Compare(long flags, const DKStdString& a, const DKStdString& b) {
  return Collator(flags).Compare(a.data(), a.size(), b.data(), b.size());
}

TEST(DKCollatorTest, EmbeddedZeroIsAnOrdinaryUnitAndTerminatedFormsStopAtIt) {
  const DKStdString a(DK_T("a\0b"), 3), b(DK_T("A\0B"), 3), shorter(DK_T("a"));
  EXPECT_EQ(Compare(1, a, b), 0);
  EXPECT_GT(Compare(2, a, shorter), 0);
  EXPECT_GT(Compare(3, DKStdString(DK_T("\0"), 1), DKStdString()), 0);

  // The terminated and string forms.
  const DKCollator& c = Collator(3);
  EXPECT_EQ(c.Compare(static_cast<const DKChar*>(nullptr), DK_T("")), 0);
  EXPECT_LT(c.Compare(nullptr, DK_T("a")), 0);
  EXPECT_GT(c.Compare(DK_T("a"), nullptr), 0);
  EXPECT_EQ(c.Compare(DK_T("\u00C0 la carte"), DK_T("a LA CARTE")), 0);
  EXPECT_TRUE(c.IsEqual(DKString(DK_T("na\u00EFve")), DKString(DK_T("NAIVE"))));
}

// The process-wide collators: one per flag value, never deleted by the smart pointers that hold
// them for a while.
TEST(DKCollatorTest, FlagsSelectOneProcessWideCollator) {
  EXPECT_EQ(DKGetFlagsCollator(0), nullptr);
  EXPECT_EQ(DKGetFlagsCollator(4), nullptr);
  for (long flags = 1; flags <= 3; ++flags) {
    EXPECT_EQ(DKGetFlagsCollator(flags), DKGetFlagsCollator(flags | 4 | 0x100));
    // DKString::Compare with flags asks the same collator: U+00C0 folds to a, A or a.
    EXPECT_EQ(Sign(DKString(DK_T("\u00C0")).Compare(DKString(DK_T("a")), flags)), flags == 1 ? 1 : flags == 2 ? -1 : 0);
    const std::uint32_t refs = DKGetFlagsCollator(flags)->NbRef();
    {
      DKSmartPtrToConst<DKCollator> held(DKGetFlagsCollator(flags));
      DKSmartPtrToConst<DKCollator> other = held;
      EXPECT_EQ(Sign(DKString(DK_T("A")).Compare(DKString(DK_T("a")), held)), flags == 2 ? -1 : 0);
    }
    EXPECT_EQ(DKGetFlagsCollator(flags)->NbRef(), refs);
  }
  EXPECT_TRUE(DKString(DK_T("\u00C4BC")).IsEqual(DKString(DK_T("\u00E4bc")), DKString::IgnoreCase));
  EXPECT_EQ(DKString(DK_T("a")).Compare(DKString(DK_T("b")), DKSmartPtrToConst<DKCollator>()), -1); // none: plain order
}

// A static object destroyed at exit still compares through the process-wide collators, however
// late they were first used.
TEST(DKCollatorTest, CollatorsOutliveStaticDestruction) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  struct LateUser {
    ~LateUser() { std::_Exit(DKString(DK_T("\u00C9T\u00C9")).Compare(DK_T("ete"), 3) == 0 ? 7 : 1); }
  };
  EXPECT_EXIT(
    {
      static LateUser user;
      (void)DKGetFlagsCollator(3);
      std::exit(0);
    },
    testing::ExitedWithCode(7), "");
}

TEST(DKCollatorTest, CollatorLessOrdersMaps) {
  std::map<DKString, int, DKCollatorLess> byName{
      {DKString(DK_T("Path")), 1}, {DKString(DK_T("Home")), 3}};
  byName[DKString(DK_T("PATH"))] = 2;
  EXPECT_EQ(byName.size(), 2u);
  EXPECT_EQ(byName.at(DKString(DK_T("path"))), 2);
  EXPECT_EQ(byName.begin()->first, DKString(DK_T("Home")));

  // A collator of one's own, kept alive by the comparator that holds it.
  const DKSmartPtrToConst<DKCollator> own(new DKTableIgnoreAccentCollator);
  std::map<DKString, int, DKCollatorLess> accents{DKCollatorLess(own)};
  accents[DKString(DK_T("caf\u00E9"))] = 1;
  EXPECT_EQ(accents.count(DKString(DK_T("cafe"))), 1u);
  EXPECT_EQ(accents.count(DKString(DK_T("CAFE"))), 0u);

  std::map<DKString, int, DKCollatorLess> plain{DKCollatorLess(0)};
  plain[DKString(DK_T("a"))] = 1;
  EXPECT_EQ(plain.count(DKString(DK_T("A"))), 0u);
}

// Random texts over an alphabet full of case and accent variants, compared against a reference
// that folds each unit on its own and compares the folded texts: the collators must agree with it
// in sign, so they are antisymmetric and transitive, whatever mix of ASCII runs and other units.
DKStdString Reference(long flags, const DKStdString& text) {
  DKStdString folded;
  for (DKChar ch : text) {
    const DKChar f = flags == 1 ? DKFoldCase(ch) : flags == 2 ? DKFoldAccent(ch) : DKFoldCaseAndAccent(ch);
    if (f != 0 || ch == 0)
      folded += f;
  }
  return folded;
}

std::vector<DKStdString> RandomTexts(std::mt19937& rng, std::size_t count) {
  // ASCII first (letters and the units around A-Z and a-z), picked three times out of four.
  static const DKChar kAlphabet[] = {'a',    'A',    'Q',    'q',    'e',    'E',    'z',    '_',    '@',
                                     '[',    '`',    '{',    'Z',    0x00E9, 0x00C9, 0x0301, 0x0308, 0x00DF,
                                     0x03C3, 0x03C2, 0x03A3, 0x0130, 0x0131, 'i',    'I',    0x00F8, 0x00D8,
                                     0xFF21, 0xFF41, 0xD800, 0xFFFF, 0x0000, 0x212A, 'k',    0x1EF1, 'u'};
  constexpr std::size_t kAsciiCount = 13;
  std::uniform_int_distribution<std::size_t> pick(0, std::size(kAlphabet) - 1), length(0, 14), coin(0, 3);
  std::vector<DKStdString> texts;
  while (texts.size() < count) {
    DKStdString t;
    for (std::size_t n = length(rng); n > 0; --n)
      t += coin(rng) == 0 ? kAlphabet[pick(rng)] : kAlphabet[pick(rng) % kAsciiCount];
    texts.push_back(t);
    // A variant of the same text: the same letters in other forms, often equal when folded.
    DKStdString v;
    for (DKChar ch : t) {
      const std::size_t change = coin(rng);
      if (change == 0)
        v += DKtowupper(ch);
      else if (change == 1 && DKFoldAccent(ch) != 0)
        v += DKFoldAccent(ch);
      else if (change != 2)
        v += ch;
    }
    texts.push_back(v);
  }
  return texts;
}

TEST(DKCollatorTest, IsATotalOrderMatchingTheReference) {
  for (long flags = 1; flags <= 3; ++flags) {
    SCOPED_TRACE("flags " + std::to_string(flags));
    std::mt19937 rng(20240601u + static_cast<unsigned>(flags));
    const std::vector<DKStdString> texts = RandomTexts(rng, 400);
    std::vector<DKStdString> references;
    for (const DKStdString& t : texts)
      references.push_back(Reference(flags, t));
    // A pair must compare as the reference does, both ways, and the case-insensitive equality
    // used on equal lengths must agree.
    const auto agrees = [flags](const DKStdString& a, const DKStdString& b, const DKStdString& ra,
                                const DKStdString& rb) {
      const int expected = Sign(ra.compare(rb));
      return Sign(Compare(flags, a, b)) == expected && Sign(Compare(flags, b, a)) == -expected &&
             (flags != 1 || a.size() != b.size() ||
              DKTableIgnoreCaseCollator::Equal(a.data(), b.data(), a.size()) == (expected == 0));
    };
    int failures = 0;
    for (std::size_t i = 0; i < texts.size(); ++i)
      for (std::size_t j = 0; j < texts.size(); ++j)
        if (!agrees(texts[i], texts[j], references[i], references[j]) && ++failures <= 5)
          ADD_FAILURE() << "texts " << i << " and " << j;
    // Every pair of ASCII units and of units beyond ASCII at every position of an eight-unit
    // text, where the collators fold four units at a time, and with a unit beyond ASCII in it,
    // which leaves the four-unit word to the unit-by-unit path.
    std::vector<DKChar> units = {0x00E9, 0x00C9, 0x03C3, 0x03A3, 0x0130, 0x0131, 0x212A, 0xFF21, 0xFF41};
    for (DKChar ascii = 0; ascii < 0x80; ++ascii)
      units.push_back(ascii);
    for (const DKChar* base : {DK_T("gHiJkLmN"), DK_T("gH\u00E9JkLmN")})
      for (const DKChar x : units)
        for (const DKChar y : units)
          for (std::size_t pos = 0; pos < 8; ++pos) {
            DKStdString a(base), b(base);
            a[pos] = x;
            b[pos] = y;
            if (!agrees(a, b, Reference(flags, a), Reference(flags, b)) && ++failures <= 5)
              ADD_FAILURE() << "units " << +x << " and " << +y << " at " << pos << " of " << DKString(base).AsUTF8();
          }
  }
}

} // namespace
