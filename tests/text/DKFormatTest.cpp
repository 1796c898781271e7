#include <DorvikCore/DKFormat.h>
#include <DorvikCore/DKString.h>

#include <gtest/gtest.h>

#include "support/DKCaseFile.h"

#include <cfenv>
#include <cfloat>
#include <clocale>
#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

namespace {

// The C library's output for the same format and arguments.
std::string Ref(const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  const int n = std::vsnprintf(nullptr, 0, format, args);
  std::string out(static_cast<std::size_t>(n), '\0');
  std::vsnprintf(out.data(), out.size() + 1, format, again);
  va_end(again);
  va_end(args);
  return out;
}

// The va_list append form, for a DKString with a wide format or a std::string with a narrow one.
template <class Out, class CharT>
void AppendF(Out& out, const CharT* format, ...) {
  va_list args;
  va_start(args, format);
  DKFormatAppendV(out, format, args);
  va_end(args);
}

DKStdString Widen(const std::string& ascii) { return DKStdString(ascii.begin(), ascii.end()); }

DKStdString Wide(const DKString& s) { return s.AsStdString(); }

// Checks that both engines write the expected text (the wide one from the widened format).
template <class... Args>
void ExpectText(const std::string& format, const std::string& expected, Args... args) {
  EXPECT_EQ(DKFormatNarrow(format.c_str(), args...), expected) << "narrow " << format;
  EXPECT_EQ(Wide(DKFormatString(Widen(format).c_str(), args...)), Widen(expected)) << "wide " << format;
}

// Checks that both engines write what snprintf writes.
template <class... Args>
void ExpectLikeSnprintf(const std::string& format, Args... args) {
  ExpectText(format, Ref(format.c_str(), args...), args...);
}

// The flags without the ones in `dropped`.
std::string Without(const std::string& flags, const char* dropped) {
  std::string kept;
  for (char flag : flags)
    if (!std::strchr(dropped, flag))
      kept += flag;
  return kept;
}

// What the engines wrote against what they should have written, row by row.
using NarrowRow = std::pair<std::string, std::string>;
using WideRow = std::pair<DKStdString, DKStdString>;

template <class Row, std::size_t n>
void ExpectRows(const Row (&rows)[n]) {
  for (std::size_t i = 0; i < n; ++i)
    EXPECT_EQ(rows[i].first, rows[i].second) << "row " << i;
}

// ---------------------------------------------------------------------------------------------

TEST(DKFormatNumbers, EveryFlagWidthAndPrecisionMatchesSnprintf) {
  const char* flagSets[] = {"", "-", "+", " ", "0", "#", "-+", "+0", " 0", "-#", "#0", "+ ", "-0", "-+ 0#"};
  const char* widths[] = {"", "1", "7", "24"};
  const char* precisions[] = {"", ".", ".0", ".1", ".5", ".17"};
  const int ints[] = {0, 1, -1, 42, -42, 65535, INT_MAX, INT_MIN};
  const unsigned unsigneds[] = {0u, 1u, 8u, 0xABCDu, UINT_MAX};
  const double doubles[] = {0.0, -0.0, 0.5, 1.0, -2.5, 123.456, 1e-300, 1e300, 0.1, 9.9999999,
                            INFINITY, -INFINITY, NAN, -NAN};
  for (const char* flags : flagSets)
    for (const char* width : widths)
      for (const char* precision : precisions) {
        const std::string head = std::string("[%") + flags + width + precision;
        for (const char* conversion : {"d", "i"})
          for (int v : ints)
            ExpectLikeSnprintf(head + conversion + "]", v);
        // The sign flags mean nothing to an unsigned conversion: the reference goes without them
        // (the MinGW runtime writes a space for " " where the C standard writes nothing).
        const std::string unsignedDirective = "%" + Without(flags, " +") + width + precision;
        // "#" makes a zero octal "0" even at precision 0, which is precision 1 without "#" (the
        // MinGW runtime writes nothing there).
        const std::string precisionOne = precision == std::string(".") || precision == std::string(".0") ? ".1" : precision;
        const std::string zeroOctalDirective = "%" + Without(flags, " +#") + width + precisionOne;
        for (const char* conversion : {"o", "u", "x", "X"})
          for (unsigned v : unsigneds) {
            const bool zeroOctal = v == 0 && *conversion == 'o' && std::strchr(flags, '#');
            const std::string directive = zeroOctal ? zeroOctalDirective : unsignedDirective;
            ExpectText(head + conversion + "]", Ref(("[" + directive + conversion + "]").c_str(), v), v);
          }
        ExpectLikeSnprintf(head + "lld|%" + flags + width + precision + "lli]", LLONG_MIN, LLONG_MAX);
        ExpectText(head + "llo|%" + flags + width + precision + "llX]",
                   Ref(("[" + unsignedDirective + "llo|" + unsignedDirective + "llX]").c_str(), ULLONG_MAX, ULLONG_MAX), ULLONG_MAX,
                   ULLONG_MAX);
        // A negative NaN keeps its sign, as on glibc; runtimes that drop it (MinGW) still give
        // the text: the positive NaN with a forced sign, the sign turned.
        const std::string signedNan = "[%+" + Without(flags, " +") + width + precision;
        for (const char* conversion : {"e", "E", "f", "F", "g", "G", "a", "A"})
          for (double v : doubles) {
            if (!std::isnan(v) || !std::signbit(v)) {
              ExpectLikeSnprintf(head + conversion + "]", v);
              continue;
            }
            std::string expected = Ref((signedNan + conversion + "]").c_str(), std::fabs(v));
            expected[expected.find('+')] = '-';
            ExpectText(head + conversion + "]", expected, v);
          }
      }
}

TEST(DKFormatNumbers, SizePrefixesReadTheNamedTypeAtItsExtremes) {
  ExpectLikeSnprintf("%ld|%lu|%lx", LONG_MIN, ULONG_MAX, ULONG_MAX);
  ExpectLikeSnprintf("%zu %zx", SIZE_MAX, SIZE_MAX);
  ExpectLikeSnprintf("%zd|%td", static_cast<std::ptrdiff_t>(PTRDIFF_MIN), static_cast<std::ptrdiff_t>(-5));
  ExpectLikeSnprintf("%jd|%ju", static_cast<std::intmax_t>(INTMAX_MIN), static_cast<std::uintmax_t>(UINTMAX_MAX));
  // Narrowing sizes cut the promoted value.
  ExpectLikeSnprintf("%hd %hu %hx", 70000, 70000, -70000);
  ExpectLikeSnprintf("%hhd %hhu %hhx %hhd", 300, 300, -1, -129);
  ExpectLikeSnprintf("%Lf|%Le|%Lg|%La", 1.0L / 3.0L, -1e4000L, LDBL_MIN, 1.0L);

  // The Windows size prefixes read the same widths as their C counterparts ("I64" and "I32":
  // DKFormatArgSourceTest.EngineAsksForExactlyTheTypeEachConversionNames).
  EXPECT_EQ(DKFormatNarrow("%Id|%Iu", static_cast<std::ptrdiff_t>(-7), SIZE_MAX), Ref("%td|%zu", std::ptrdiff_t{-7}, SIZE_MAX));
  // "*" values from int arguments: a negative width left-justifies, a negative precision counts
  // as none.
  for (int w : {5, -5})
    ExpectLikeSnprintf("[%*d|%-*d|%0*d|%.*f|%*.*f]", w, 42, w, 42, w, 42, w, 1.5, w + 3, 2, 3.14159);
  // "N" and "F" before a conversion are old pointer markers and ignored; "F" alone converts.
  EXPECT_EQ(DKFormatNarrow("%Ns|%Fs|%F", "a", "b", 1.5), "a|b|1.500000");
}

TEST(DKFormatNumbers, FloatingPointFollowsTheCLibraryRoundingModeAndLocale) {
  // Every rounding mode, each with a first field that it rounds differently from nearest.
  for (const auto& [mode, first] : {std::pair{FE_UPWARD, "0.34"}, {FE_DOWNWARD, "0.66"}, {FE_TOWARDZERO, "0.66"}}) {
    SCOPED_TRACE(mode);
    const double x = mode == FE_UPWARD ? 1.0 / 3.0 : 2.0 / 3.0;
    std::fesetround(mode);
    const std::string expected = Ref("%.2f|%.3e|%g", x, 2.0 / 3.0, 0.1);
    ExpectText("%.2f|%.3e|%g", expected, x, 2.0 / 3.0, 0.1);
    std::fesetround(FE_TONEAREST);
#if defined(_WIN32)
    (void)first; // the Windows runtime rounds to nearest whatever the mode, and so do we there
#else
    EXPECT_EQ(expected.substr(0, 4), first);
#endif
  }

  const std::string previous = std::setlocale(LC_NUMERIC, nullptr);
  for (const char* name : {"de_DE.UTF-8", "fr_FR.UTF-8", "de_DE", "fr_FR"}) {
    if (!std::setlocale(LC_NUMERIC, name))
      continue;
    const std::string actual = DKFormatNarrow("%.2f|%g", 1.5, 0.25);
    std::setlocale(LC_NUMERIC, previous.c_str());
    EXPECT_EQ(actual, "1,50|0,25"); // as the C library writes it there
    return;
  }
  std::setlocale(LC_NUMERIC, previous.c_str());
}

// ---------------------------------------------------------------------------------------------

TEST(DKFormatText, NarrowStringsAndCharactersMatchSnprintf) {
  for (const char* format : {"[%s]", "[%10s]", "[%-10s]", "[%.2s]", "[%10.2s]", "[%-10.2s]", "[%.0s]", "[%.10s]",
                             "[%+ #s]", "[%05s]"})
    for (const char* text : {"", "hello", "h\xC3\xA9llo"})
      EXPECT_EQ(DKFormatNarrow(format, text), Ref(format, text)) << format << " " << text;
  for (const char* format : {"[%c]", "[%5c]", "[%-3c]", "[%05c]"})
    EXPECT_EQ(DKFormatNarrow(format, 'x'), Ref(format, 'x')) << format;
}

// Text, character, pointer and count conversions, and "*" values, in either engine.
TEST(DKFormatText, ConversionsWriteTheirArguments) {
  const void* p = reinterpret_cast<const void*>(static_cast<std::uintptr_t>(0xABCDEF12u));
  const char* nullNarrow = nullptr;
  const DKChar* nullWide = nullptr;
  const char narrowUnterminated[3] = {'a', 'b', 'c'}; // reading one unit more is caught by AddressSanitizer
  const DKChar wideUnterminated[3] = {DK_T('x'), DK_T('y'), DK_T('z')};
  const DKChar lone[] = {DK_T('x'), 0xD800, DK_T('y'), 0};
  int count = 7;
  const NarrowRow narrow[] = {
      // A pointer is sixteen upper-case hexadecimal digits.
      {DKFormatNarrow("%p|[%20p]", p, p), "00000000ABCDEF12|[    00000000ABCDEF12]"},
      // "%n" consumes its pointer and writes nothing, there or through it.
      {DKFormatNarrow("ab%ncd%d", &count, 5), "abcd5"},
      // Between kinds, what is invalid is replaced; a width counts output units.
      {DKFormatNarrow("%S|%C", lone, 0xDC00), "x\xEF\xBF\xBDy|\xEF\xBF\xBD"},
      {DKFormatNarrow("[%5S]", DK_T("\u00E9")), "[   \xC3\xA9]"},
      // A precision counts source units; a character it cuts is left out, not replaced.
      {DKFormatNarrow("[%.1S|%.2S|%.1S]", DK_T("\U0001F600"), DK_T("\U0001F600"), DK_T("\u00E9x")),
       "[|\xF0\x9F\x98\x80|\xC3\xA9]"},
      {DKFormatNarrow("%.3s|%.3S|%.2s", narrowUnterminated, wideUnterminated, narrowUnterminated), "abc|xyz|ab"},
      {DKFormatNarrow("%s|%S|%8s|%-8S|%.2s", nullNarrow, nullWide, nullNarrow, nullWide, nullNarrow),
       "(null)|(null)|  (null)|(null)  |(n"},
      // A "*" value over the limit consumes its arguments, so the next conversion keeps its place.
      {DKFormatNarrow("%*d|%d", INT_MIN, 1, 2), "%*d|2"},
      {DKFormatNarrow("%.*s|%d", 2000000, "x", 2), "%.*s|2"},
      {DKFormatNarrow("%*.*f|%d", 1000001, 1, 1.5, 2), "%*.*f|2"},
      // A character conversion takes the kind that its letter and size name (the text
      // conversions: DKFormatArgSourceTest).
      {DKFormatNarrow("%C|%lc|%wc|%c|%hc", 0xE9, 0xE9, 0xE9, 'A', 'A'), "\xC3\xA9|\xC3\xA9|\xC3\xA9|A|A"},
  };
  ExpectRows(narrow);
  EXPECT_EQ(count, 7);
  // The wide engine where it differs from the narrow one: on ASCII text the two agree, which the
  // format fuzz target checks over its corpus (pointers, "%n" and "*" values among it).
  const WideRow wide[] = {
      {Wide(DKFormatString(DK_T("%S|%C"), "a\xFF" "b\xE2\x82", 0xC3)), DK_T("a\uFFFDb\uFFFD|\uFFFD")},
      {Wide(DKFormatString(DK_T("[%4S|%4s]"), "\xC3\xA9", DK_T("\u00E9"))), DK_T("[   \u00E9|   \u00E9]")},
      {Wide(DKFormatString(DK_T("[%.1S|%.2S|%.3S]"), "\xC3\xA9", "\xC3\xA9", "a\xE2\x82\xACz")), DK_T("[|\u00E9|a]")},
      {Wide(DKFormatString(DK_T("%.3s|%.3S"), wideUnterminated, narrowUnterminated)), DK_T("xyz|abc")},
      {Wide(DKFormatString(DK_T("%s|%S"), nullWide, nullNarrow)), DK_T("(null)|(null)")},
      {Wide(DKFormatString(DK_T("%c|%lc|%wc|%C|%hc"), 0x20AC, 0x20AC, 0x20AC, 'A', 'A')), DK_T("\u20AC|\u20AC|\u20AC|A|A")},
  };
  ExpectRows(wide);
}

// ---------------------------------------------------------------------------------------------

// The formats of cases/format-malformed.txt.
TEST(DKFormatMalformed, BadSpecificationsAreWrittenAsTheyStand) {
  for (const dktest::CaseLine& c : dktest::ReadCases(DK_TEST_CASES "/format-malformed.txt", 2)) {
    SCOPED_TRACE(c.where);
    ExpectText(c[0], c[1], 1, 2, 3);
  }
  // A null format writes nothing (wide: DKFormatEntryPoints, Format(nullptr)).
  EXPECT_EQ(DKFormatNarrow(nullptr), "");
}

TEST(DKFormatLong, OutputsAreExactWhateverTheirSize) {
  EXPECT_EQ(DKFormatNarrow("%5000s", "x"), std::string(4999, ' ') + "x");

  const std::string big(100 * 1024, 'q');
  const DKStdString bigWide(100 * 1024, DK_T('\u00E9'));
  EXPECT_EQ(DKFormatNarrow("<%s>", big.c_str()), "<" + big + ">");
  EXPECT_EQ(Wide(DKFormatString(DK_T("<%s>"), bigWide.c_str())), DK_T("<") + bigWide + DK_T(">"));
  std::string bigUtf8;
  for (std::size_t i = 0; i < bigWide.size(); ++i)
    bigUtf8 += "\xC3\xA9";
  EXPECT_EQ(DKFormatNarrow("%S", bigWide.c_str()), bigUtf8);
  EXPECT_EQ(Wide(DKFormatString(DK_T("%110000S"), bigUtf8.c_str())), DKStdString(110000 - bigWide.size(), DK_T(' ')) + bigWide);

  // Widths and precisions up to the limit, and values longer than any stack buffer.
  EXPECT_EQ(DKFormatNarrow("%1000000d", 5).size(), 1000000u);
  EXPECT_EQ(DKFormatString(DK_T("%.1000000f"), 1.0).Length(), 1000002u);
  ExpectLikeSnprintf("%Lf", LDBL_MAX);
  ExpectLikeSnprintf("%.600e", 1.0 / 3.0);
}

// ---------------------------------------------------------------------------------------------

// Records which getter the engine calls for each conversion.
class RecordingSource : public DKFormatArgSource {
public:
  std::string calls;

  int NextInt() override { return Note("int", 3); }
  unsigned int NextUnsigned() override { return Note("unsigned", 4u); }
  long NextLong() override { return Note("long", 5L); }
  unsigned long NextUnsignedLong() override { return Note("ulong", 6UL); }
  long long NextLongLong() override { return Note("llong", 7LL); }
  unsigned long long NextUnsignedLongLong() override { return Note("ullong", 8ULL); }
  std::size_t NextSize() override { return Note("size", std::size_t{9}); }
  double NextDouble() override { return Note("double", 0.5); }
  long double NextLongDouble() override { return Note("ldouble", 0.25L); }
  const void* NextPointer() override { return Note("pointer", static_cast<const void*>(nullptr)); }
  const char* NextNarrowString() override { return Note("narrow", "t"); }
  const DKChar* NextWideString() override { return Note("wide", DK_T("t")); }
  void* NextCountPointer() override { return Note("count", static_cast<void*>(nullptr)); }

private:
  template <class T>
  T Note(const char* name, T value) {
    calls += calls.empty() ? name : std::string(" ") + name;
    return value;
  }
};

TEST(DKFormatArgSourceTest, EngineAsksForExactlyTheTypeEachConversionNames) {
  const char* format = "%d %u %ld %lu %lld %llu %zd %zu %I64d %I64x %I32u %jd %td %hd %hhu %f %Lf %p %s %S %ls "
                       "%ws %hs %hS %lS %c %C %n %*.*d %q %5k %%";
  RecordingSource narrow;
  std::string narrowOut;
  DKFormatAppend(narrowOut, format, narrow);
  EXPECT_EQ(narrow.calls, "int unsigned long ulong llong ullong size size llong ullong unsigned llong size int "
                          "unsigned double ldouble pointer narrow wide wide wide narrow narrow wide int int count "
                          "int int int");
  EXPECT_EQ(narrowOut, "3 4 5 6 7 8 9 9 7 8 4 7 9 3 4 0.500000 0.250000 0000000000000000 t t t t t t t \x03 \x03"
                       "  003 %q %5k %");

  RecordingSource wide;
  DKString wideOut(DK_T("kept:"));
  DKFormatAppend(wideOut, Widen(format).c_str(), wide);
  EXPECT_EQ(wide.calls, "int unsigned long ulong llong ullong size size llong ullong unsigned llong size int "
                        "unsigned double ldouble pointer wide narrow wide wide narrow narrow wide int int count int "
                        "int int");
  EXPECT_EQ(Wide(wideOut), DK_T("kept:") + Widen(narrowOut));
}

// ---------------------------------------------------------------------------------------------

TEST(DKFormatEntryPoints, FormatReplacesAndAppendKeepsTheTextAndEitherMayUseItsOwnText) {
  DKString s(DK_T("old text"));
  EXPECT_EQ(Wide(s.Format(DK_T("%d-%s"), 12, DK_T("ab"))), DK_T("12-ab"));

  // The format and the arguments may be the string's own text.
  DKString self(DKStdString(1000, DK_T('z')));
  self.Format(DK_T("%s|%s"), self.c_str(), self.c_str());
  EXPECT_EQ(Wide(self), DKStdString(1000, DK_T('z')) + DK_T("|") + DKStdString(1000, DK_T('z')));
  DKString pattern(DK_T("a%%b%d"));
  pattern.Format(pattern.c_str(), 5);
  EXPECT_EQ(Wide(pattern), DK_T("a%b5"));

  // An empty result leaves the shared empty string.
  s.Format(DK_T("%s"), DK_T(""));
  EXPECT_EQ(s.GetData(), DKString::GetEmptyData());
  s = DK_T("x");
  s.Format(nullptr);
  EXPECT_EQ(s.GetData(), DKString::GetEmptyData());

  // An empty string, shared or with a block of its own, given its own (empty) text as an
  // argument after more output than one buffer of the engine holds.
  const DKStdString pad(300, DK_T('p'));
  const DKStdString expected = pad + DK_T("[]") + pad + DK_T("[]");
  DKString empty;
  empty.Format(DK_T("%s[%s]%s[%s]"), pad.c_str(), empty.c_str(), pad.c_str(), empty.c_str());
  EXPECT_EQ(Wide(empty), expected);
  DKString reserved;
  reserved.Reserve(1000);
  reserved.Format(DK_T("%s[%s]%s[%s]"), pad.c_str(), reserved.c_str(), pad.c_str(), reserved.c_str());
  EXPECT_EQ(Wide(reserved), expected);

  // The append forms keep the text, and survive arguments inside the output.
  DKString out(DKStdString(600, DK_T('a')));
  AppendF(out, DK_T("|%s|%5d"), out.c_str(), 7);
  EXPECT_EQ(Wide(out), DKStdString(600, DK_T('a')) + DK_T("|") + DKStdString(600, DK_T('a')) + DK_T("|    7"));
  DKString again(DKStdString(600, DK_T('b')));
  AppendF(again, again.c_str());
  EXPECT_EQ(Wide(again), DKStdString(1200, DK_T('b')));

  std::string narrow(600, 'c');
  narrow.shrink_to_fit();
  AppendF(narrow, "|%s", narrow.c_str());
  EXPECT_EQ(narrow, std::string(600, 'c') + "|" + std::string(600, 'c'));
  std::string narrowPattern(600, 'd');
  AppendF(narrowPattern, narrowPattern.c_str());
  EXPECT_EQ(narrowPattern, std::string(1200, 'd'));
}

// ---------------------------------------------------------------------------------------------
// The typed front end: arguments captured with their types.

TEST(DKFormatTyped, EveryTextTypePrintsWithEitherConversionInEitherFormat) {
  const std::string utf8 = "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";
  const DKStdString utf16 = DK_T("\u00E9\u20AC\U0001F600");
  const std::wstring utf32 = L"\u00E9\u20AC\U0001F600";
  const DKString dk(utf16.c_str());
  const auto check = [&](const auto& arg, const char* what) {
    EXPECT_EQ(DKFormatNarrow("<%s|%S|%ls|%hs>", arg, arg, arg, arg), "<" + utf8 + "|" + utf8 + "|" + utf8 + "|" + utf8 + ">")
        << what;
    EXPECT_EQ(Wide(DKFormatString(DK_T("<%s|%S>"), arg, arg)), DK_T("<") + utf16 + DK_T("|") + utf16 + DK_T(">")) << what;
  };
  check(utf8.c_str(), "const char*");
  check(utf8, "std::string");
  check(std::string_view(utf8), "std::string_view");
  check(reinterpret_cast<const char8_t*>(utf8.c_str()), "const char8_t*");
  check(utf16.c_str(), "const DKChar*");
  check(utf16, "DKStdString");
  check(std::u16string_view(dk), "std::u16string_view");
  check(dk, "DKString");
  check(utf32.c_str(), "const wchar_t*");
  check(utf32, "std::wstring");
  check(U"\u00E9\u20AC\U0001F600", "char32_t array");

  // Counted text prints its own length, not up to a terminator; precision still cuts it.
  const std::string_view middle = std::string_view("abcdef").substr(1, 3);
  EXPECT_EQ(DKFormatNarrow("[%s|%.2s|%5S]", middle, middle, std::u16string_view(u"xyzw", 2)), "[bcd|bc|   xy]");
  const DKChar withNul[] = {DK_T('a'), 0, DK_T('b')};
  EXPECT_EQ(Wide(DKFormatString(DK_T("%s"), DKString(withNul, 3))), DKStdString(withNul, 3));
}

TEST(DKFormatTyped, ArgumentsKeepTheirTypeOrAreNamedAndConsumed) {
  enum Small { Seven = 7 };
  enum class Wide64 : long long { Big = 1LL << 40 };
  int local = 0;
  DKString s;
  const NarrowRow narrow[] = {
      // Null pointer constants are arguments, not argument lists.
      {DKFormatNarrow("%d|%s", 0, nullptr), "0|(null)"},
      // Integers keep their type unless a size converts them.
      {DKFormatNarrow("%d", 1LL << 40), "1099511627776"},
      {DKFormatNarrow("%d", ULLONG_MAX), "18446744073709551615"},
      {DKFormatNarrow("%+d|%i", 3000000000u, 5u), "+3000000000|5"},
      {DKFormatNarrow("%x|%X", -1, -1LL), "ffffffff|FFFFFFFFFFFFFFFF"},
      {DKFormatNarrow("%u", static_cast<short>(-1)), "4294967295"}, // promoted to int, as in C
      {DKFormatNarrow("%lx|%I32d|%I64u", -1, 1LL << 33, -1), // "l" is the platform's long: 32 bits on Windows
       std::string(sizeof(long) * 2, 'f') + "|0|18446744073709551615"},
      {DKFormatNarrow("%d|%d|%d|%d", 'A', DK_T('\u00E9'), true, Seven), "65|233|1|7"},
      {DKFormatNarrow("%d|%#x", Wide64::Big, std::byte{0xAB}), "1099511627776|0xab"},
      {DKFormatNarrow("%05d|%-4d|%.3d", static_cast<signed char>(-5), 3, 7L), "-0005|3   |007"},
      // Characters of a known encoding print as that character.
      {DKFormatNarrow("[%c|%c|%c|%4c|%C]", 'x', DK_T('\u00E9'), U'\U0001F600', DK_T('\u20AC'), 'y'),
       "[x|\xC3\xA9|\xF0\x9F\x98\x80| \xE2\x82\xAC|y]"},
      {DKFormatNarrow("%c", static_cast<char32_t>(0x110000)), "\xEF\xBF\xBD"},
      // Floating conversions take any arithmetic argument.
      {DKFormatNarrow("%.1f|%g|%e|%.2f", 3, 2.5f, 1e10, -7LL), "3.0|2.5|1.000000e+10|-7.00"},
      {DKFormatNarrow("%.3Lf|%.3f|%.3Lf", 1.0L / 3, 1.0L / 3, 0.5), "0.333|0.333|0.500"},
      // "*" values come from any integer, and the limit still holds.
      {DKFormatNarrow("[%*d|%-*d|%.*s]", 4LL, 1, static_cast<short>(3), 2, 2u, "abc"), "[   1|2  |ab]"},
      {DKFormatNarrow("[%*d|%d]", LLONG_MIN, 1, 2), "[%*d|2]"},
      {DKFormatNarrow("[%*d|%d]", ULLONG_MAX, 1, 2), "[%*d|2]"},
      // An argument that cannot match is named and consumed.
      {DKFormatNarrow("%d|%d", "text", 5), "%!d(text)|5"},
      {DKFormatNarrow("%s|%s", 5, "ok"), "%!s(int)|ok"},
      {DKFormatNarrow("%x|%c", 1.5, &local), "%!x(double)|%!c(pointer)"},
      {DKFormatNarrow("%f|%s", "pi", 'c'), "%!f(text)|%!s(char)"},
      {DKFormatNarrow("%p|%n|%S", 7u, 2.0L, true), "%!p(unsigned int)|%!n(long double)|%!S(bool)"},
      {DKFormatNarrow("[%d %s %5.1f]", 1), "[1 %!s(missing) %!f(missing)]"},
      // A "*" that is not an integer: the directive's arguments are consumed all the same.
      {DKFormatNarrow("%*d|%d", 2.0, 1, 9), "%!*(double)|9"},
      {DKFormatNarrow("%*.*s|%s", "w", 3, "abc", "next"), "%!*(text)|next"},
      {DKFormatNarrow("%.*f|%d", nullptr, 1.0, 4), "%!*(nullptr)|4"},
  };
  ExpectRows(narrow);
  const WideRow wide[] = {
      {Wide(s.Format(DK_T("[%p|%5s]"), nullptr, NULL)), DK_T("[0000000000000000|%!s(int64)]")},
      {Wide(DKFormatString(DK_T("[%c|%C|%c|%lc]"), 'x', DK_T('\u00E9'), U'\U0001F600', 0x20AC)),
       DK_T("[x|\u00E9|\U0001F600|\u20AC]")},
      {Wide(DKFormatString(DK_T("%d|%s"), DKString(DK_T("x")), 1LL)), DK_T("%!d(text)|%!s(int64)")},
  };
  ExpectRows(wide);
}

} // namespace
