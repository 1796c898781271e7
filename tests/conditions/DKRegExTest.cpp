#include <DorvikCore/DKRegEx.h>

#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <random>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace {

DKString U(const char* utf8) {
  DKString s;
  s.SetFromUTF8(utf8);
  return s;
}

std::string ErrorText(const DKRegEx& re) { return re.GetError().AsString().AsUTF8(); }

// The pattern compiled by std::regex (ECMAScript), or nothing when std::regex refuses it.
std::optional<std::regex> StdCompile(const std::string& pattern) {
  try {
    return std::regex(pattern, std::regex::ECMAScript);
  } catch (const std::regex_error&) {
    return std::nullopt;
  }
}

// Patterns and texts of ASCII only, checked against std::regex in the same run.
struct OracleCase {
  const char* pattern;
  std::vector<const char*> texts;
};

const OracleCase oracleCases[] = {
    {"abc", {"abc", "ab", "abcd", "", "ABC"}}, {"a.c", {"abc", "a\nc", "a\rc", "ac", "a.c"}},
    {"[A-Z][a-z]+[0-9]*", {"Hello", "Hello42", "hello", "H", "Hi9x", "Ab0123456789"}},
    {"[^a-c]+", {"xyz", "xaz", "", "d"}}, {"[a\\-z]+", {"a-z", "b", "-"}}, {"[-a]", {"-", "a", "b"}},
    {"[a-]", {"-", "a"}}, {"\\d+\\.\\d*", {"12.", "12.5", ".5", "1x5"}},
    {"\\w+@\\w+", {"me@home", "me@", "m e@home", "a_1@b2"}}, {"\\s*x\\s*", {"  x ", "x", "\tx\n", "y"}},
    {"\\D\\W\\S", {"a b", "1 b", "a_b", "a!b"}}, {"[\\d\\s]+", {"1 2 3", "12a"}},
    {"a{2,4}", {"a", "aa", "aaa", "aaaa", "aaaaa"}}, {"(ab){2}", {"abab", "ab", "ababab"}},
    {"(?:ab|cd){1,3}e", {"abe", "cdabe", "abcdabe", "abcdabcde", "e"}}, {"(a|ab)(c|bcd)(d*)", {"abcd", "abcdd", "acd"}},
    {"(a|)+b", {"b", "ab", "aaab"}}, {"(a*)*", {"", "aaa", "b"}}, {"(a*)+b", {"b", "aab", "aa"}},
    {"(a+)+b", {"aaaaaaaaaab", "aaaaaaaaaa"}}, {"^abc$", {"abc", "abcd"}}, {"a^b", {"ab", "a^b"}}, {"a$b", {"ab"}},
    {"(^a|b)c", {"ac", "bc", "c"}},
    {"x*?y+?z??", {"xxyyz", "y", "xz"}}, {"\\(\\)\\[\\]\\{\\}\\*\\+\\?\\.\\|\\^\\$\\\\", {"()[]{}*+?.|^$\\"}},
    {"\\x41\\u0042\\t", {"AB\t", "AB "}}, {"[\\x30-\\x39]{2}", {"42", "4a"}}, {"a|b|c|", {"", "a", "c", "ab"}},
    {"((a)|(b))*c", {"c", "ababc", "abab"}}, {"a.*b.*c", {"abc", "a123b456c", "acb"}},
    {"(a|b)*a(a|b){3}", {"abbb", "babab", "aaaa", "baba"}},
};

TEST(DKRegExTest, AgreesWithStdRegexOnTable) {
  for (const OracleCase& c : oracleCases) {
    DKRegEx re(U(c.pattern));
    ASSERT_TRUE(re.IsCompiled()) << c.pattern << ": " << ErrorText(re);
    const std::optional<std::regex> oracle = StdCompile(c.pattern);
    ASSERT_TRUE(oracle) << c.pattern;
    for (const char* text : c.texts)
      EXPECT_EQ(re.Match(U(text)), std::regex_match(text, *oracle)) << "/" << c.pattern << "/ on \"" << text << "\"";
  }
}

// Random patterns over a small alphabet, each against random short texts, with the cache on,
// with it off, and against std::regex.
class PatternGenerator {
public:
  explicit PatternGenerator(unsigned seed) : m_rng(seed) {}

  std::string Pattern(int depth = 0) {
    std::string out;
    const int items = Pick(1, 4);
    for (int i = 0; i < items; ++i)
      out += Item(depth);
    if (depth < 3 && Pick(0, 5) == 0)
      out += "|" + Pattern(depth + 1);
    return out;
  }
  std::string Text() {
    static const char alphabet[] = "ab1 ";
    std::string out;
    const int n = Pick(0, 8);
    for (int i = 0; i < n; ++i)
      out += alphabet[Pick(0, 2) == 0 ? Pick(0, 3) : Pick(0, 1)];
    return out;
  }

private:
  int Pick(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(m_rng); }
  // Only outermost groups are quantified: nested quantified groups make std::regex, which
  // backtracks, take exponential time even on these short texts.
  std::string Item(int depth) {
    static const char* const atoms[] = {"a", "b", ".", "[ab]", "[^a]", "\\d", "\\s", "\\w", "1", "[a-b1]"};
    static const char* const quantifiers[] = {"", "", "", "*", "+", "?", "{2}", "{0,2}", "{1,}", "*?"};
    const int kind = Pick(0, 9);
    if (kind == 2)
      return Pick(0, 1) ? "^" : "$";
    if (kind <= 1 && depth < 2) {
      const std::string group = (kind == 0 ? "(" : "(?:") + Pattern(depth + 1) + ")";
      return depth == 0 ? group + quantifiers[Pick(0, 9)] : group;
    }
    return std::string(atoms[Pick(0, 9)]) + quantifiers[Pick(0, 9)];
  }

  std::mt19937 m_rng;
};

TEST(DKRegExTest, AgreesWithStdRegexOnRandomPatterns) {
  PatternGenerator gen(20240611);
  int compared = 0;
  for (int i = 0; i < 700; ++i) {
    const std::string pattern = gen.Pattern();
    DKRegEx cached(U(pattern.c_str()));
    DKRegEx uncached;
    uncached.Compile(U(pattern.c_str()), 0);
    ASSERT_TRUE(cached.IsCompiled()) << pattern << ": " << ErrorText(cached);
    const std::optional<std::regex> oracle = StdCompile(pattern);
    if (!oracle)
      continue;
    for (int t = 0; t < 8; ++t) {
      const std::string text = gen.Text();
      const bool expected = std::regex_match(text, *oracle);
      ++compared;
      ASSERT_EQ(cached.Match(U(text.c_str())), expected) << "/" << pattern << "/ on \"" << text << "\"";
      ASSERT_EQ(uncached.Match(U(text.c_str())), expected) << "/" << pattern << "/ uncached on \"" << text << "\"";
    }
  }
  EXPECT_GT(compared, 3000);
}

// Cases std::regex cannot judge: code points beyond ASCII (UTF-8 here, UTF-16 inside) and syntax
// whose reading differs between dialects.
struct FixedCase {
  const char* pattern;
  const char* text;
  bool match;
};

const FixedCase fixedCases[] = {
    {".", "\xF0\x9F\x98\x80", true}, {"..", "\xF0\x9F\x98\x80", false}, // U+1F600 is one character
    {"a\xF0\x9F\x98\x80+b", "a\xF0\x9F\x98\x80\xF0\x9F\x98\x80" "b", true},
    {"[\\u{1F600}-\\u{1F64F}]", "\xF0\x9F\x98\x80", true}, {"[^\\u{1F600}]", "\xF0\x9F\x98\x80", false},
    {"caf\\u00e9|\\u00fcber", "caf\xC3\xA9", true}, {"\\s", "\xE3\x80\x80", true}, // ideographic space
    {"\\w", "\xC3\xA9", false}, {".", "\xE2\x80\xA8", false}, // \w is ASCII; a line separator
    {"[]", "a", false}, {"a[]", "a", false}, {"[^]", "\n", true}, {"[\\b]", "\b", true},
    {"a{,2}", "a{,2}", true}, {"a{0}b", "b", true}, {"]}", "]}", true}, {"\\cJ\\ca", "\n\x01", true},
    {"(^)*a", "a", true}, {"", "", true}, {"", "a", false},
};

TEST(DKRegExTest, MatchesFixedCases) {
  for (const FixedCase& c : fixedCases)
    EXPECT_EQ(DKRegEx(U(c.pattern)).Match(U(c.text)), c.match) << "/" << c.pattern << "/ on \"" << c.text << "\"";
  EXPECT_EQ(U("\xF0\x9F\x98\x80").Length(), 2u);
  EXPECT_TRUE(DKRegEx(DK_T("\\0")).Match(DKString(DKChar(0), 1)));
  // A lone surrogate is one character of its own.
  const DKChar lone[] = {0xD800, 'x', 0};
  EXPECT_TRUE(DKRegEx(DK_T("..")).Match(lone));
  EXPECT_TRUE(DKRegEx(DK_T("\\uD800x")).Match(lone));
}

struct BadPattern {
  const char* pattern;
  const char* problem;
};

const BadPattern badPatterns[] = {
    {"(ab", "missing ')' at position 0"}, {"ab)", "unmatched ')' at position 2"}, {"x[ab", "missing ']' at position 1"},
    {"*a", "nothing to repeat"}, {"a|+", "nothing to repeat"}, {"^*", "nothing to repeat"},
    {"{2}", "nothing to repeat"}, {"a**", "a quantifier cannot follow another"},
    {"a{2}{3}", "a quantifier cannot follow another"}, {"a{1001}", "repetition count above the limit of 1000"},
    {"a{1,99999999999999999999}", "repetition count above the limit of 1000"},
    {"a{3,2}", "repetition range out of order"}, {"[z-a]", "range out of order"},
    {"[\\d-z]", "a class escape cannot start a range"}, {"[a-\\d]", "a class escape cannot end a range"},
    {"ab\\", "lone backslash"}, {"(a)\\1", "back-references are not supported"}, {"\\bword", "word boundaries"},
    {"(?=a)", "only (?: groups are supported"}, {"(?", "only (?: groups are supported"}, {"\\q", "unknown escape"},
    {"\\x4", "invalid hexadecimal escape"}, {"\\u12G4", "invalid hexadecimal escape"},
    {"\\u{110000}", "code point above U+10FFFF"}, {"\\u{}", "invalid \\u{...} escape"},
    {"\\c1", "\\c must be followed by a letter"}, {"\\01", "octal escapes are not supported"},
    {"(a{1000}){1000}", "pattern too large"}, {"((a{100}){100}){100}", "pattern too large"},
    {"(abcd|efgh|ijkl|mnop){1000}[a-z]{1000}", "pattern too large"},
};

TEST(DKRegExTest, RefusesBadPatternsWithAClearError) {
  for (const BadPattern& bad : badPatterns) {
    DKRegEx re;
    const DKErrorID result = re.Compile(U(bad.pattern));
    EXPECT_TRUE(result.Bad()) << bad.pattern;
    EXPECT_EQ(result.GetCode(), DK_MSG_INVALID_ARGUMENT);
    EXPECT_FALSE(re.IsCompiled());
    EXPECT_EQ(re.GetProgramSize(), 0u);
    EXPECT_NE(ErrorText(re).find(bad.problem), std::string::npos) << bad.pattern << " -> " << ErrorText(re);
    EXPECT_NE(ErrorText(re).find(bad.pattern), std::string::npos) << "the pattern is named";
    EXPECT_FALSE(re.Match(DK_T("a")));
  }
}

TEST(DKRegExTest, DeepNestingNeitherRecursesNorOverflows) {
  const std::size_t depth = 100000;
  const DKString open(DK_T('('), depth);
  DKRegEx re;
  EXPECT_TRUE(re.Compile(open).Bad());
  EXPECT_NE(ErrorText(re).find("missing ')'"), std::string::npos);

  // Balanced: the groups vanish, the nested concatenations are compiled without recursion.
  DKString nested;
  for (std::size_t i = 0; i < 5000; ++i)
    nested += DK_T("(a");
  nested += DKString(DK_T(')'), 5000);
  ASSERT_TRUE(re.Compile(nested).Good()) << ErrorText(re);
  EXPECT_TRUE(re.Match(DKString(DK_T('a'), 5000)));
  EXPECT_FALSE(re.Match(DKString(DK_T('a'), 4999)));

  EXPECT_TRUE(re.Compile(DKString(DK_T('('), depth) + DKString(DK_T(')'), depth)).Good());
  EXPECT_TRUE(re.Match(DKString()));
}

TEST(DKRegExTest, LongTextsLargeProgramsAndPathologicalPatterns) {
  DKRegEx re;
  ASSERT_TRUE(re.Compile(DK_T("a{1000}")).Good());
  EXPECT_EQ(re.GetProgramSize(), 1001u); // the characters and the match
  EXPECT_TRUE(re.Match(DKString(DK_T('a'), 1000)));
  EXPECT_FALSE(re.Match(DKString(DK_T('a'), 999)));
  ASSERT_TRUE(re.Compile(DK_T("(ab){0,1000}")).Good());
  EXPECT_LE(re.GetProgramSize(), DKRegEx::maxProgramSize);
  DKString text;
  for (int i = 0; i < 1000; ++i)
    text += DK_T("ab");
  EXPECT_TRUE(re.Match(text));
  EXPECT_FALSE(re.Match(text + DK_T("ab")));

  const DKString as(DK_T('a'), 1000000);
  EXPECT_FALSE(DKRegEx(DK_T("(a+)+b")).Match(DKString(DK_T('a'), 10000)));
  EXPECT_TRUE(DKRegEx(DK_T("(a|aa)*")).Match(as));
  EXPECT_TRUE(DKRegEx(DK_T("(a*)*(a*)*(a*)*$")).Match(as));
}

DKString RandomText(std::mt19937& rng, const char* alphabet, std::size_t size, int minLength, int maxLength) {
  DKString text;
  const int n = minLength + static_cast<int>(rng() % static_cast<unsigned>(maxLength - minLength + 1));
  for (int k = 0; k < n; ++k)
    text += static_cast<DKChar>(alphabet[rng() % size]);
  return text;
}

// Copies share the program. Many threads race to build the same cached states and to fill small
// caches; a pattern whose deterministic automaton has thousands of states fills its cache in the
// middle of a text, the rest of which is then simulated. The answers do not change.
TEST(DKRegExTest, CopiesShareTheProgramAndMatchFromManyThreads) {
  DKRegEx re(DK_T("[A-Z][a-z]+[0-9]*"));
  const DKRegEx copy = re;
  re.Compile(DK_T("x"));
  EXPECT_TRUE(copy.Match(DK_T("Hello42")));
  EXPECT_FALSE(re.Match(DK_T("Hello42")));

  const DKRegEx shared(DK_T("(a|b|c)*c(a|b|c){4}[0-9]+"));
  DKRegEx small, full, none;
  ASSERT_TRUE(small.Compile(shared.GetPattern(), 4096).Good());
  ASSERT_TRUE(full.Compile(DK_T("(a|b)*a(a|b){11}"), 16 * 1024).Good());
  ASSERT_TRUE(none.Compile(full.GetPattern(), 0).Good());
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      std::mt19937 rng(static_cast<unsigned>(t));
      for (int i = 0; i < 2000; ++i) {
        const DKString abc = RandomText(rng, "abc", 3, 5, 16) + DK_T("7");
        const bool expected = abc[abc.Length() - 6] == 'c';
        if (shared.Match(abc) != expected || small.Match(abc) != expected)
          ++wrong;
        if (i % 8 != 0)
          continue;
        const DKString ab = RandomText(rng, "ab", 2, 10, 70);
        const bool abExpected = ab.Length() >= 12 && ab[ab.Length() - 12] == 'a';
        if (full.Match(ab) != abExpected || none.Match(ab) != abExpected)
          ++wrong;
      }
    });
  for (std::thread& t : threads)
    t.join();
  EXPECT_EQ(wrong.load(), 0);
}

TEST(DKRegExTest, EmptyAndCleared) {
  DKRegEx re;
  EXPECT_FALSE(re.Match(DK_T(""))); // nothing compiled matches nothing
  ASSERT_TRUE(re.Compile(DK_T("")).Good());
  EXPECT_TRUE(re.Match(nullptr, 0));
  re.Clear();
  EXPECT_FALSE(re.IsCompiled());
  EXPECT_FALSE(re.Match(DK_T("")));
  EXPECT_TRUE(re.GetPattern().IsEmpty());
}

} // namespace
