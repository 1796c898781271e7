#include <DorvikCore/DKCharacter.h>
#include <DorvikCore/DKString.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::string Hex(unsigned unit) {
  char text[16];
  std::snprintf(text, sizeof text, "U+%04X", unit);
  return text;
}

// Each row: a unit and what case folding, accent folding and both give.
struct FoldRow {
  unsigned ch, fold, accent, both;
  const char* what;
};

const FoldRow kFoldRows[] = {
  {'A', 'a', 'A', 'a', "ASCII capital"},    {'_', '_', '_', '_', "ASCII punctuation"},
  {0x0000, 0x0000, 0x0000, 0x0000, "NUL is not a mark"},
  {0x00C9, 0x00E9, 'E', 'e', "E acute"},
  {0x01D6, 0x01D6, 'u', 'u', "u diaeresis macron, two marks deep"},
  {0x212B, 0x00E5, 'A', 'a', "Angstrom sign"},
  {0x0130, 'i', 'I', 'i', "dotted capital I"},
  {0x0131, 'i', 0x0131, 'i', "dotless i has no decomposition"},
  {0x00D8, 0x00F8, 0x00D8, 0x00F8, "O slash stays a slashed letter"},
  {0x1E9E, 0x00DF, 0x1E9E, 0x00DF, "capital sharp s"},
  {0x03C2, 0x03C3, 0x03C2, 0x03C3, "final sigma"},
  {0x0390, 0x0390, 0x03B9, 0x03B9, "iota dialytika tonos"},
  {0x2126, 0x03C9, 0x03A9, 0x03C9, "Ohm sign"},
  {0x017F, 's', 0x017F, 's', "long s"},
  {0x01C5, 0x01C6, 0x01C5, 0x01C6, "DZ caron: a compatibility decomposition is not followed"},
  {0xFF21, 0xFF41, 0xFF21, 0xFF41, "fullwidth A: compatibility only"},
  {0x304C, 0x304C, 0x304B, 0x304B, "hiragana ga"},
  {0xAC00, 0xAC00, 0xAC00, 0xAC00, "Hangul syllables are not decomposed"},
  {0x0301, 0x0301, 0x0000, 0x0000, "combining acute"},
  {0x0345, 0x03B9, 0x0000, 0x0000, "combining ypogegrammeni uppercases to Iota"},
  {0x0903, 0x0903, 0x0903, 0x0903, "spacing mark (Mc) is kept"},
  {0x20DD, 0x20DD, 0x20DD, 0x20DD, "enclosing mark (Me) is kept"},
  {0x0BCA, 0x0BCA, 0x0BCA, 0x0BCA, "decomposition starting with a spacing mark"},
  {0xD800, 0xD800, 0xD800, 0xD800, "surrogate"},
};

TEST(DKCharacterTest, CaseAndAccentFolding) {
  for (const FoldRow& row : kFoldRows) {
    SCOPED_TRACE(Hex(row.ch) + " " + row.what);
    const DKChar ch = static_cast<DKChar>(row.ch);
    EXPECT_EQ(Hex(DKFoldCase(ch)), Hex(row.fold));
    EXPECT_EQ(Hex(DKFoldAccent(ch)), Hex(row.accent));
    EXPECT_EQ(Hex(DKFoldCaseAndAccent(ch)), Hex(row.both));
    EXPECT_EQ(DKIsNonSpacingMark(ch), row.ch != 0 && row.accent == 0);
  }
}

// Properties the collators rely on, over the whole plane: the foldings are idempotent, every case
// form of a unit folds alike, marks and only marks fold to 0, surrogates are left alone.
TEST(DKCharacterTest, FoldingInvariantsHoldForEveryUnit) {
  int failures = 0;
  for (unsigned u = 0; u <= 0xFFFF && failures < 10; ++u) {
    const DKChar ch = static_cast<DKChar>(u);
    const DKChar fold = DKFoldCase(ch), accent = DKFoldAccent(ch), both = DKFoldCaseAndAccent(ch);
    const bool mark = DKIsNonSpacingMark(ch);
    const bool surrogate = u >= 0xD800 && u <= 0xDFFF;
    const bool ok = DKFoldCase(fold) == fold && DKFoldCase(DKtowupper(ch)) == fold &&
                    DKFoldCase(DKtowlower(ch)) == fold && (mark ? accent == 0 && both == 0 : accent != 0 || u == 0) &&
                    (accent == 0 || DKFoldAccent(accent) == accent) &&
                    (both == 0 || (DKFoldCaseAndAccent(both) == both && DKFoldCase(both) == both)) &&
                    (!surrogate || (DKtowupper(ch) == ch && DKtowlower(ch) == ch && fold == ch && both == ch));
    if (!ok) {
      ADD_FAILURE() << Hex(u) << ": fold " << Hex(fold) << ", accent " << Hex(accent) << ", both " << Hex(both);
      ++failures;
    }
  }
}

// The exact mappings of every BMP code point against the Unicode data (Debian package
// unicode-data, which CI installs; the test fails without it); the generator runs the same
// check with --check.
TEST(DKCharacterTest, AgreesWithUnicodeDataFile) {
  std::ifstream in("/usr/share/unicode/UnicodeData.txt");
  ASSERT_TRUE(in) << "UnicodeData.txt is missing: install the unicode-data package";
  std::vector<unsigned> upper(0x10000), lower(0x10000);
  std::vector<bool> mark(0x10000);
  for (unsigned u = 0; u < 0x10000; ++u)
    upper[u] = lower[u] = u;
  std::string line;
  while (std::getline(in, line)) {
    std::vector<std::string> fields;
    std::stringstream split(line);
    for (std::string field; std::getline(split, field, ';');)
      fields.push_back(field);
    fields.resize(15);
    const unsigned long code = std::stoul(fields[0], nullptr, 16);
    if (code > 0xFFFF)
      continue;
    mark[code] = fields[2] == "Mn";
    if (!fields[12].empty())
      upper[code] = static_cast<unsigned>(std::stoul(fields[12], nullptr, 16));
    if (!fields[13].empty())
      lower[code] = static_cast<unsigned>(std::stoul(fields[13], nullptr, 16));
  }
  int failures = 0;
  for (unsigned u = 0; u <= 0xFFFF && failures < 10; ++u) {
    const DKChar ch = static_cast<DKChar>(u);
    if (DKtowupper(ch) != upper[u] || DKtowlower(ch) != lower[u] || DKIsNonSpacingMark(ch) != mark[u]) {
      ADD_FAILURE() << Hex(u) << ": upper " << Hex(DKtowupper(ch)) << " (data " << Hex(upper[u]) << "), lower "
                    << Hex(DKtowlower(ch)) << " (data " << Hex(lower[u]) << ")";
      ++failures;
    }
  }
}

// White space against the White_Space property of PropList.txt, for every BMP code point.
TEST(DKCharacterTest, WhiteSpaceAgreesWithPropList) {
  std::ifstream in("/usr/share/unicode/PropList.txt");
  ASSERT_TRUE(in) << "PropList.txt is missing: install the unicode-data package";
  std::vector<bool> space(0x10000);
  std::string line;
  while (std::getline(in, line)) {
    const std::size_t semicolon = line.find(';');
    if (line.empty() || line[0] == '#' || semicolon == std::string::npos ||
        line.compare(line.find_first_not_of(' ', semicolon + 1), 12, "White_Space ") != 0)
      continue;
    const unsigned long first = std::stoul(line, nullptr, 16);
    const std::size_t dots = line.find("..");
    const unsigned long last = dots < semicolon ? std::stoul(line.substr(dots + 2), nullptr, 16) : first;
    for (unsigned long u = first; u <= last && u <= 0xFFFF; ++u)
      space[u] = true;
  }
  ASSERT_TRUE(space[0x3000] && space[0x20] && !space[0x200B]) << "PropList.txt was not read";
  for (unsigned u = 0; u <= 0xFFFF; ++u)
    EXPECT_EQ(DKiswspace(static_cast<DKChar>(u)), space[u]) << Hex(u);
}

TEST(DKCharacterTest, BufferMappingStaysWithinLength) {
  DKChar text[] = DK_T("a\u00E9\u03C2\u0131Z\u4E00\xD800zz");
  DKStrUpper(text, 8);
  EXPECT_EQ(DKStdString(text), DKStdString(DK_T("A\u00C9\u03A3IZ\u4E00\xD800Zz")));
  DKStrLower(text, 3);
  EXPECT_EQ(DKStdString(text), DKStdString(DK_T("a\u00E9\u03C3IZ\u4E00\xD800Zz")));
  DKStrUpper(nullptr, 0);
}

} // namespace
