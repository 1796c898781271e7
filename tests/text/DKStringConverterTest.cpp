#include <DorvikCore/DKString.h>
#include <DorvikCore/DKStringConverter.h>

#include <gtest/gtest.h>

#include "support/DKCaseBlocks.h"
#include "support/DKPoolLeakCheck.h"

#include <initializer_list>
#include <iomanip>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Policy = DKStringConverter::Policy;
constexpr DKChar FFFD = 0xFFFD;

std::string Bytes(std::initializer_list<int> bytes) {
  std::string s;
  for (int b : bytes)
    s.push_back(static_cast<char>(b));
  return s;
}

DKString Units(std::initializer_list<int> units) {
  DKString s;
  for (int u : units)
    s.Append(static_cast<DKChar>(u));
  return s;
}

// The long parameter at index of an error.
std::optional<long> Param(const DKErrorID& id, std::size_t index) {
  const DKErrorI* e = id.GetError().Get();
  if (!e || e->GetParameterType(index) != DKErrorI::ParamLong)
    return std::nullopt;
  return *static_cast<const long*>(e->GetParameterValue(index));
}

DKSmartPtr<DKStringConverter> Utf8(Policy policy = Policy::Strict) {
  return DKStringConverter::ForCodePage(DKStringConverter::codePageUTF8, policy);
}

// An independent UTF-8 oracle: decodes by bit patterns and value ranges rather than by the
// second-byte ranges the library uses. Nothing when the text is not well formed.
std::optional<std::u32string> OracleDecode(const std::string& s) {
  const auto b = [&](std::size_t i) { return static_cast<unsigned char>(s[i]); };
  std::u32string out;
  for (std::size_t i = 0; i < s.size();) {
    std::size_t n;
    if (b(i) < 0x80)
      n = 1;
    else if ((b(i) & 0xE0) == 0xC0)
      n = 2;
    else if ((b(i) & 0xF0) == 0xE0)
      n = 3;
    else if ((b(i) & 0xF8) == 0xF0)
      n = 4;
    else
      return std::nullopt;
    if (s.size() - i < n)
      return std::nullopt;
    char32_t cp = n == 1 ? b(i) : b(i) & (0x7F >> n);
    for (std::size_t k = 1; k < n; ++k) {
      if ((b(i + k) & 0xC0) != 0x80)
        return std::nullopt;
      cp = (cp << 6) | (b(i + k) & 0x3F);
    }
    static constexpr char32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < smallest[n] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
      return std::nullopt;
    out.push_back(cp);
    i += n;
  }
  return out;
}

DKString FromCodePoint(char32_t cp) {
  DKString s;
  if (cp < 0x10000) {
    s.Append(static_cast<DKChar>(cp));
  } else {
    s.Append(static_cast<DKChar>(0xD800 + ((cp - 0x10000) >> 10)));
    s.Append(static_cast<DKChar>(0xDC00 + ((cp - 0x10000) & 0x3FF)));
  }
  return s;
}

// The oracle's decoding of well-formed UTF-8 in UTF-16 units; a malformed text throws.
DKString OracleUnits(const std::string& utf8) {
  const std::optional<std::u32string> decoded = OracleDecode(utf8);
  if (!decoded)
    throw std::runtime_error("not well-formed UTF-8: " + utf8);
  DKString units;
  for (char32_t cp : *decoded)
    units.Append(FromCodePoint(cp));
  return units;
}

// ---------------------------------------------------------------------------------------------
// UTF-8 decoding and encoding

using DKUtf8Test = DKPoolLeakCheckedTest;

// The texts of cases/utf8-decoding.txt.
TEST_F(DKUtf8Test, DecodesValidAndRejectsMalformedSequences) {
  const auto strict = Utf8(), lenient = Utf8(Policy::Replace);
  for (const dkcases::Case& c : dkcases::Read("utf8-decoding.txt", {"bytes", "bad", "lenient"})) {
    SCOPED_TRACE(c.where);
    const std::string bytes = dkcases::Bytes(c.Get("bytes"));
    const DKString expected = OracleUnits(dkcases::Bytes(c.Get("lenient")));
    DKString strictOut(DK_T("kept")), lenientOut;
    const DKString sharer = strictOut; // appending to a shared string copies it first
    const DKErrorID strictResult = strict->ToUnicode(bytes.data(), bytes.size(), strictOut);
    EXPECT_TRUE(lenient->ToUnicode(bytes.data(), bytes.size(), lenientOut).Good());
    EXPECT_EQ(lenientOut, expected);
    if (!c.Has("bad")) {
      EXPECT_TRUE(strictResult.Good());
      EXPECT_EQ(strictOut, DK_T("kept") + expected);
    } else {
      EXPECT_EQ(strictResult.GetCode(), DK_MSG_INVALID_UTF8);
      EXPECT_EQ(Param(strictResult, 0), std::stol(c.Get("bad")));
      EXPECT_EQ(strictOut, DK_T("kept"));
    }
    EXPECT_EQ(sharer, DK_T("kept"));
  }
}

// Every one- and two-byte text, and every three- and four-byte text whose later bytes are
// drawn from the boundary values, against the oracle.
TEST_F(DKUtf8Test, AgreesWithAnIndependentDecoder) {
  const int edges[] = {0x00, 0x41, 0x7F, 0x80, 0x8F, 0x90, 0x9F, 0xA0, 0xBF, 0xC0, 0xF4, 0xFF};
  const int lastEdges[] = {0x7F, 0x80, 0xBF, 0xC0};
  std::vector<std::string> texts;
  for (int a = 0; a < 256; ++a) {
    texts.push_back(Bytes({a}));
    for (int b = 0; b < 256; ++b) {
      texts.push_back(Bytes({a, b}));
      if (a >= 0xE0) {
        for (int c : edges) {
          texts.push_back(Bytes({a, b, c}));
          if (a >= 0xF0)
            for (int d : lastEdges)
              texts.push_back(Bytes({a, b, c, d}));
        }
      }
    }
  }
  const auto strict = Utf8();
  std::size_t valid = 0;
  for (const std::string& text : texts) {
    DKString out;
    const bool decoded = strict->ToUnicode(text.data(), text.size(), out).Good();
    const std::optional<std::u32string> expected = OracleDecode(text);
    ASSERT_EQ(decoded, expected.has_value()) << testing::PrintToString(text);
    if (expected) {
      ASSERT_TRUE(out == OracleUnits(text)) << testing::PrintToString(text);
      ++valid;
    }
  }
  EXPECT_GT(valid, 18000u);
}

// A wrong UTF-8 form of any code point is either refused by the strict decoder, which
// AgreesWithAnIndependentDecoder checks, or decodes to another text.
TEST_F(DKUtf8Test, EveryCodePointRoundTripsThroughUtf8AndUtf32) {
  DKString all;
  all.Reserve(0x110000 * 2);
  for (char32_t cp = 1; cp <= 0x10FFFF; ++cp) {
    if (cp >= 0xD800 && cp <= 0xDFFF)
      continue;
    all.Append(FromCodePoint(cp));
  }
  const std::string utf8 = all.AsUTF8();
  DKString back;
  ASSERT_TRUE(back.SetFromUTF8(utf8.c_str(), utf8.size()).Good());
  EXPECT_TRUE(back == all);
#if !DK_WCHAR_IS_DKCHAR
  const std::wstring wide = all.AsStdWString();
  ASSERT_EQ(wide.size(), 0x10FFFFu - 0x800);
  EXPECT_EQ(wide.back(), static_cast<wchar_t>(0x10FFFF));
  EXPECT_TRUE(DKString(wide) == all);
#endif
}

TEST_F(DKUtf8Test, UnpairedSurrogatesEncodeAsReplacementOrFailStrictly) {
  const DKString texts[] = {Units({'a', 0xD800}), Units({0xDC00, 'b'}), Units({'x', 0xDC00, 0xD800, 'y'}),
                            Units({0xD83D, 0xD83D, 0xDE00})};
  const char* expected[] = {"a\xEF\xBF\xBD", "\xEF\xBF\xBD\x62", "x\xEF\xBF\xBD\xEF\xBF\xBDy",
                            "\xEF\xBF\xBD\xF0\x9F\x98\x80"};
  const long positions[] = {1, 0, 1, 0};
  for (std::size_t i = 0; i < std::size(texts); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(texts[i].AsUTF8(), expected[i]);
    std::string out = "kept";
    const DKErrorID result = texts[i].ConvertFromUnicode(out, 65001);
    EXPECT_EQ(result.GetCode(), DK_MSG_INVALID_UTF16);
    EXPECT_EQ(Param(result, 0), positions[i]);
    EXPECT_EQ(out, "kept");
  }
}

TEST_F(DKUtf8Test, SetFromUtf8LengthNullAndFailure) {
  DKString s(DK_T("before"));
  EXPECT_TRUE(s.SetFromUTF8("abcdef", 3).Good());
  EXPECT_EQ(s, DK_T("abc"));
  // The text ends at a 0 byte even inside the given length.
  EXPECT_TRUE(s.SetFromUTF8("ab\0cd", 5).Good());
  EXPECT_EQ(s, DK_T("ab"));
  const DKString shared = s;
  const DKErrorID bad = s.SetFromUTF8("ok\xED\xA0\x80");
  EXPECT_EQ(bad.GetCode(), DK_MSG_INVALID_UTF8);
  EXPECT_EQ(s, DK_T("ab"));
  EXPECT_EQ(s.GetData(), shared.GetData()) << "a failed decode must not touch the string";
  EXPECT_TRUE(s.SetFromUTF8(nullptr).Good());
  EXPECT_TRUE(s.IsEmpty());
}

// ---------------------------------------------------------------------------------------------
// Converters and code pages

using DKStringConverterTest = DKPoolLeakCheckedTest;

TEST_F(DKStringConverterTest, ForCodePageKnowsFourCodePagesAndRefusesTheRest) {
  for (const unsigned int codePage : {0u, 65001u, 28591u, 1252u}) {
    const auto strict = DKStringConverter::ForCodePage(codePage);
    ASSERT_TRUE(strict) << codePage;
    EXPECT_EQ(strict->GetCodePage(), codePage ? codePage : 65001u);
  }
  for (unsigned int unknown : {1u, 437u, 1200u, 1251u, 20127u, 65000u}) {
    EXPECT_FALSE(DKStringConverter::ForCodePage(unknown)) << unknown;
    DKSmartPtr<DKStringConverter> out = DKStringConverter::ForCodePage(1252);
    const DKErrorID result = DKStringConverter::ForCodePage(unknown, out);
    EXPECT_EQ(result.GetCode(), DK_MSG_UNKNOWN_CODE_PAGE);
    EXPECT_EQ(Param(result, 0), static_cast<long>(unknown));
    EXPECT_EQ(out->GetCodePage(), 1252u) << "out is kept on failure";
  }
}

// Every byte is the code point of its value; that every byte string round-trips is the UTF-8 fuzz
// target's property, replayed over a seed of all 256 bytes.
TEST_F(DKStringConverterTest, Latin1MapsEveryByteToItsCodePoint) {
  std::string all;
  for (int b = 0; b < 256; ++b)
    all.push_back(static_cast<char>(b));
  const auto latin1 = DKStringConverter::ForCodePage(28591);
  DKString text;
  ASSERT_TRUE(latin1->ToUnicode(all.data(), all.size(), text).Good());
  ASSERT_EQ(text.Length(), 256u);
  for (std::size_t i = 0; i < 256; ++i)
    EXPECT_EQ(static_cast<std::size_t>(text[i]), i);

  // The euro sign and everything else above U+00FF have no Latin-1 form.
  std::string out = "x";
  const DKString euro(DK_T("ab€"));
  const DKErrorID result = latin1->FromUnicode(euro.c_str(), euro.Length(), out);
  EXPECT_EQ(result.GetCode(), DK_MSG_UNMAPPABLE_CHARACTER);
  EXPECT_EQ(Param(result, 0), 2);
  EXPECT_EQ(Param(result, 1), 28591);
  EXPECT_EQ(out, "x");
}

// The high half of code page 1252: 0x80-0x9F are typographic characters, five bytes are undefined.
TEST_F(DKStringConverterTest, Windows1252TableBothWays) {
  const DKChar table[32] = {DK_T('€'),    0,      DK_T('‚'), DK_T('ƒ'), DK_T('„'), DK_T('…'), DK_T('†'), DK_T('‡'), DK_T('ˆ'), DK_T('‰'), DK_T('Š'),
                              DK_T('‹'),    DK_T('Œ'),   0,    DK_T('Ž'), 0,    0,    DK_T('‘'), DK_T('’'), DK_T('“'), DK_T('”'), DK_T('•'),
                              DK_T('–'),    DK_T('—'),   DK_T('˜'), DK_T('™'), DK_T('š'), DK_T('›'), DK_T('œ'), 0,    DK_T('ž'), DK_T('Ÿ')};
  const auto strict = DKStringConverter::ForCodePage(1252);
  const auto lenient = DKStringConverter::ForCodePage(1252, Policy::Replace);
  for (int b = 0x80; b < 0x100; ++b) {
    SCOPED_TRACE(b);
    const char byte = static_cast<char>(b);
    const DKChar expected = b < 0xA0 ? table[b - 0x80] : static_cast<DKChar>(b);
    DKString decoded(DK_T("k"));
    ASSERT_TRUE(lenient->ToUnicode(&byte, 1, decoded).Good());
    EXPECT_EQ(decoded, DKString(DK_T("k")) + (expected ? expected : FFFD));
    // An undefined byte's C1 control of the same value has no form either.
    const DKChar unit = expected ? expected : static_cast<DKChar>(b);
    std::string encoded;
    EXPECT_EQ(strict->FromUnicode(&unit, 1, encoded).GetCode(), expected ? 0L : long{DK_MSG_UNMAPPABLE_CHARACTER});
    EXPECT_EQ(encoded, expected ? std::string(1, byte) : std::string());
  }
  // Strictly, an undefined byte is refused by its position and the code page; the output is kept.
  // (That strict decoding refuses exactly the five undefined bytes is the UTF-8 fuzz target's.)
  DKString decoded(DK_T("k"));
  const DKErrorID result = strict->ToUnicode("a\x8D", 2, decoded);
  EXPECT_EQ(result.GetCode(), DK_MSG_UNMAPPABLE_CHARACTER);
  EXPECT_EQ(Param(result, 0), 1);
  EXPECT_EQ(Param(result, 1), 1252);
  EXPECT_EQ(decoded, DK_T("k"));
}

TEST_F(DKStringConverterTest, ReplacePolicyNeverFails) {
  const DKString text = Units({'a', 0x20AC, 0xD83D, 0xDE00, 0xDC00, 0x0100, 'z'}); // € 😀 lone low Ā
  const struct {
    unsigned int codePage;
    const char* expected;
  } cases[] = {{28591, "a????z"}, {1252, "a\x80???z"}, {65001, "a\xE2\x82\xAC\xF0\x9F\x98\x80\xEF\xBF\xBD\xC4\x80z"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.codePage);
    std::string out = ">";
    EXPECT_TRUE(DKStringConverter::ForCodePage(c.codePage, Policy::Replace)->FromUnicode(text.c_str(), text.Length(), out).Good());
    EXPECT_EQ(out, std::string(">") + c.expected);
    EXPECT_EQ(text.AsMbString(c.codePage), c.expected);
    // A strict converter handed to AsMbString still gives a result: one '?' per refused character.
    if (c.codePage != 65001) {
      EXPECT_EQ(text.AsMbString(DKStringConverter::ForCodePage(c.codePage)), c.expected);
    }
  }
  EXPECT_EQ(text.AsMbString(DKStringConverter::ForCodePage(65001)), "a\xE2\x82\xAC\xF0\x9F\x98\x80?\xC4\x80z");
  // No converter, or a code page the library does not know: UTF-8.
  EXPECT_EQ(text.AsMbString(DKSmartPtr<DKStringConverter>()), text.AsUTF8());
  EXPECT_EQ(text.AsMbString(437), text.AsUTF8());
  EXPECT_EQ(DKString().AsMbString(1252), "");
}

TEST_F(DKStringConverterTest, ConversionsAppendAndKeepTheOutputOnFailure) {
  const auto utf8 = Utf8();
  DKString out(DK_T("prefix"));
  EXPECT_TRUE(utf8->ToUnicode(nullptr, 12, out).Good());
  EXPECT_EQ(out, DK_T("prefix"));
  const std::string longBad = std::string(600, 'x') + "\xC3";
  EXPECT_EQ(utf8->ToUnicode(longBad.data(), longBad.size(), out).GetCode(), DK_MSG_INVALID_UTF8);
  EXPECT_EQ(out, DK_T("prefix"));

  std::string bytes = "pre";
  EXPECT_TRUE(utf8->FromUnicode(DK_T("fix"), 3, bytes).Good());
  EXPECT_TRUE(utf8->FromUnicode(nullptr, 3, bytes).Good());
  EXPECT_EQ(bytes, "prefix");
  const DKString longLone = DKString(DK_T('y'), 700) + DKChar(0xD800);
  EXPECT_EQ(utf8->FromUnicode(longLone.c_str(), longLone.Length(), bytes).GetCode(), DK_MSG_INVALID_UTF16);
  EXPECT_EQ(bytes, "prefix");
}

TEST_F(DKStringConverterTest, StringConversionsByCodePage) {
  // The member form calls the static one; the code page's parameter is ForCodePage's.
  DKString s(DK_T("kept"));
  EXPECT_EQ(s.ConvertToUnicode("x", 1200).GetCode(), DK_MSG_UNKNOWN_CODE_PAGE);
  EXPECT_EQ(s, DK_T("kept"));
  std::string out = "kept";
  EXPECT_EQ(s.ConvertFromUnicode(out, 1200).GetCode(), DK_MSG_UNKNOWN_CODE_PAGE);
  EXPECT_EQ(out, "kept");

  EXPECT_TRUE(s.ConvertToUnicode("\x80 \xE9t\xE9", 1252).Good());
  EXPECT_EQ(s, DK_T("€ été"));
  EXPECT_TRUE(DKString::ConvertToUnicode("\xC3\xA9t\xC3\xA9", 0, s).Good());
  EXPECT_EQ(s, DK_T("été"));
  EXPECT_TRUE(s.ConvertToUnicode(nullptr, 1252).Good());
  EXPECT_TRUE(s.IsEmpty());

  EXPECT_TRUE(DKString(DK_T("été")).ConvertFromUnicode(out, 28591).Good());
  EXPECT_EQ(out, "\xE9t\xE9");
  EXPECT_TRUE(DKString().ConvertFromUnicode(out, 65001).Good());
  EXPECT_EQ(out, "");
}

// (UTF-8 itself: DKLockedCOUTTest.WritesEveryTextKindAsUtf8AndLocksRecursively.)
TEST_F(DKStringConverterTest, StreamOutputIsPaddedAndWhole) {
  const DKString longText = DKString(DK_T('é'), 400) + DK_T("end"); // longer than a stack buffer
  std::ostringstream os;
  os << std::setw(6) << DKString(DK_T("ab")) << '|' << longText;
  EXPECT_EQ(os.str(), "    ab|" + longText.AsUTF8());
}

#if !DK_WCHAR_IS_DKCHAR
TEST_F(DKStringConverterTest, WideTextIsTranscodedFromUtf32) {
  // Every code point both ways: DKUtf8Test.EveryCodePointRoundTripsThroughUtf8AndUtf32.
  // Surrogate code points, values above U+10FFFF and negative values are not characters.
  const wchar_t bad[] = {L'x', static_cast<wchar_t>(0xD800), static_cast<wchar_t>(0x110000), static_cast<wchar_t>(-1), 0};
  EXPECT_EQ(DKString(bad), Units({'x', FFFD, FFFD, FFFD}));
  // Lone surrogates in the string cannot be UTF-32 either.
  EXPECT_EQ(Units({0xDC00, 'q', 0xD800}).AsStdWString(), std::wstring(L"\xFFFDq\xFFFD"));

  DKString s;
  s = L"𝄞";
  EXPECT_EQ(s, Units({0xD834, 0xDD1E}));
  s = std::wstring(L"x\0y", 3); // the text ends at the first 0
  EXPECT_EQ(s, DK_T("x"));
  s.Append(L"ü");
  s += std::wstring(L"𝄞");
  s += L"!";
  EXPECT_EQ(s, Units({'x', 0xFC, 0xD834, 0xDD1E, '!'}));
  s.Append(static_cast<const wchar_t*>(nullptr));
  EXPECT_EQ(s.Length(), 5u);
  EXPECT_TRUE(DKString(static_cast<const wchar_t*>(nullptr)).IsEmpty());
  EXPECT_TRUE(DKString(std::wstring()).GetData() == DKString::GetEmptyData());
}
#endif

} // namespace
