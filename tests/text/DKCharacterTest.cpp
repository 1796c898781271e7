#include <DorvikCore/DKCharacter.h>
#include <DorvikCore/DKString.h>

#include <gtest/gtest.h>

#include "support/DKCaseFile.h"

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

// The units of cases/character-folds.txt: what case folding, accent folding and both give. (That
// marks and only marks fold to 0 is FoldingInvariantsHoldForEveryUnit, over every unit.)
TEST(DKCharacterTest, CaseAndAccentFolding) {
  for (const dktest::CaseLine& row : dktest::ReadCases(DK_TEST_CASES "/character-folds.txt", 5)) {
    SCOPED_TRACE(row.where + " " + row[4]);
    const auto unit = [&](std::size_t i) { return static_cast<unsigned>(std::stoul(row[i], nullptr, 16)); };
    const DKChar ch = static_cast<DKChar>(unit(0));
    EXPECT_EQ(Hex(DKFoldCase(ch)), Hex(unit(1)));
    EXPECT_EQ(Hex(DKFoldAccent(ch)), Hex(unit(2)));
    EXPECT_EQ(Hex(DKFoldCaseAndAccent(ch)), Hex(unit(3)));
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
