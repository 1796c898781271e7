#include <DorvikCore/DKRegEx.h>

#include <gtest/gtest.h>

#include "conditions/DKRegExBitParallel.h"
#include "support/DKTestSupport.h"
#include "support/DKCaseBlocks.h"
#include "support/DKCaseFile.h"

#include <atomic>
#include <cctype>
#include <initializer_list>
#include <optional>
#include <random>
#include <regex>
#include <span>
#include <string>
#include <thread>
#include <vector>

namespace {

std::string ErrorText(const DKRegEx& re) { return re.GetError().AsString().AsUTF8(); }

// The pattern compiled with the cache budget given; a pattern that does not compile fails the test.
DKRegEx Compiled(const DKString& pattern, std::size_t cacheBytes = DKRegEx::defaultCacheBytes) {
  DKRegEx re;
  EXPECT_TRUE(re.Compile(pattern, cacheBytes).Good()) << pattern.AsUTF8() << ": " << ErrorText(re);
  return re;
}

// The pattern compiled by std::regex (ECMAScript), or nothing when std::regex refuses it.
std::optional<std::regex> StdCompile(const std::string& pattern) {
  try {
    return std::regex(pattern, std::regex::ECMAScript);
  } catch (const std::regex_error&) {
    return std::nullopt;
  }
}

// Random patterns: items (an atom, an anchor or a group, with a quantifier) and alternatives,
// and random short texts. For std::regex, which backtracks and takes exponential time on nested
// quantified groups even on these short texts, only outermost groups are quantified.
const char* const stdAtoms[] = {"a", "b", ".", "[ab]", "[^a]", "\\d", "\\s", "\\w", "1", "[a-b1]"};
const char* const stdQuantifiers[] = {"", "", "", "*", "+", "?", "{2}", "{0,2}", "{1,}", "*?"};

class PatternGenerator {
public:
  PatternGenerator(unsigned seed, std::span<const char* const> atoms, std::span<const char* const> quantifiers,
                   bool quantifyNestedGroups)
      : m_rng(seed), m_atoms(atoms), m_quantifiers(quantifiers), m_nested(quantifyNestedGroups) {}

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
  const char* Quantifier() { return m_quantifiers[static_cast<std::size_t>(Pick(0, int(m_quantifiers.size()) - 1))]; }
  std::string Item(int depth) {
    const int kind = Pick(0, 9);
    if (kind == 2)
      return Pick(0, 1) ? "^" : "$";
    if (kind <= 1 && depth < 2) {
      const std::string group = (kind == 0 ? "(" : "(?:") + Pattern(depth + 1) + ")";
      return depth == 0 || m_nested ? group + Quantifier() : group;
    }
    return m_atoms[static_cast<std::size_t>(Pick(0, int(m_atoms.size()) - 1))] + std::string(Quantifier());
  }

  std::mt19937 m_rng;
  std::span<const char* const> m_atoms, m_quantifiers;
  bool m_nested;
};

// The patterns and texts of cases/regex-oracle.txt, ASCII only, then random ones, against
// std::regex in the same run.
TEST(DKRegExTest, AgreesWithStdRegexOnTableAndRandomPatterns) {
  for (const dkcases::Case& c : dkcases::Read("regex-oracle.txt", {"pattern", "text"})) {
    const std::string pattern = dkcases::Bytes(c.Get("pattern"));
    const DKRegEx re = Compiled(Text(pattern));
    const std::optional<std::regex> oracle = StdCompile(pattern);
    ASSERT_TRUE(oracle) << c.where;
    for (const std::string& text : c.All("text"))
      EXPECT_EQ(re.Match(Text(dkcases::Bytes(text))), std::regex_match(dkcases::Bytes(text), *oracle)) << c.where << " on " << text;
  }
  PatternGenerator gen(20240611, stdAtoms, stdQuantifiers, false);
  int compared = 0;
  for (int i = 0; i < 700; ++i) {
    const std::string pattern = gen.Pattern();
    const DKRegEx cached = Compiled(Text(pattern)), uncached = Compiled(Text(pattern), 0);
    const std::optional<std::regex> oracle = StdCompile(pattern);
    if (!oracle)
      continue;
    for (int t = 0; t < 8; ++t) {
      const std::string text = gen.Text();
      const bool expected = std::regex_match(text, *oracle);
      ++compared;
      ASSERT_EQ(cached.Match(Text(text.c_str())), expected) << "/" << pattern << "/ on \"" << text << "\"";
      ASSERT_EQ(uncached.Match(Text(text.c_str())), expected) << "/" << pattern << "/ uncached on \"" << text << "\"";
    }
  }
  EXPECT_GT(compared, 3000);
}

// Random patterns with nested quantified groups, characters beyond ASCII and surrogates, on long
// texts made of runs: the cached matcher (with the default cache, and with caches so small that
// they are flushed and rebuilt over and over, two programs taking turns on the same thread)
// against the plain simulation of the automaton.
const char* const runAtoms[] = {"a", "b", ".", "[a-z]", "[^a]", "\\u00e9", "[\\u00e9a]", "\\w", "\\s",
                               "[^\\n]", "\\uD83D\\uDE00", "\\uD83D", "[a-c\\u00e9-\\u00ff]"};
const char* const runQuantifiers[] = {"", "", "*", "+", "?", "{0,3}", "{2}", "{1,}", "{2,4}"};
const DKChar runUnits[] = {DK_T('a'), DK_T('b'), DK_T('z'), DK_T('\u00e9'), DK_T('\n'), DK_T(' '), DK_T('\u2028'), 0xD83D, 0xDE00, DK_T('1')};

TEST(DKRegExTest, CachedMatchAgreesWithTheAutomatonOnLongRuns) {
  PatternGenerator gen(77, runAtoms, runQuantifiers, true);
  std::mt19937 rng(77);
  auto pick = [&rng](std::size_t n) { return static_cast<std::size_t>(rng() % n); };
  for (int i = 0; i < 300; ++i) {
    const DKString p = DKString::FromUTF8(gen.Pattern());
    const DKString other = DKString::FromUTF8(gen.Pattern());
    const DKRegEx cached = Compiled(p), tiny = Compiled(p, 700 + 100 * (i % 8)), uncached = Compiled(p, 0);
    const DKRegEx otherTiny = Compiled(other, 900), otherUncached = Compiled(other, 0);
    for (int t = 0; t < 12; ++t) {
      DKString text;
      for (std::size_t r = 0, runs = pick(5); r < runs; ++r)
        text += DKString(static_cast<DKChar>(runUnits[pick(std::size(runUnits))]), pick(3) == 0 ? 1 : 1 + pick(20));
      const bool expected = uncached.Match(text);
      ASSERT_EQ(cached.Match(text), expected) << "/" << p.AsUTF8() << "/ on " << t;
      ASSERT_EQ(tiny.Match(text), expected) << "/" << p.AsUTF8() << "/ tiny cache on " << t;
      ASSERT_EQ(otherTiny.Match(text), otherUncached.Match(text)) << "/" << other.AsUTF8() << "/ on " << t;
    }
  }

  // Every budget from none to a few states: the caches give up at every point where they can
  // (no start state, no room for a second state, a flush that makes too little room), and the
  // automaton takes over from where they were.
  const DKString texts[] = {DK_T("abbabaabbbc"), DK_T("bbbbbbbbab"), DK_T("aaaa"), DK_T("ab\u00e9aaaab"), DK_T("")};
  const DKRegEx reference = Compiled(DK_T("(?:a|b)*a(?:a|b|\u00e9){3}c?"), 0);
  for (std::size_t budget = 0; budget < 4000; budget += 8) {
    const DKRegEx re = Compiled(reference.GetPattern(), budget);
    for (const DKString& text : texts)
      ASSERT_EQ(re.Match(text), reference.Match(text)) << "budget " << budget << " on " << text.AsUTF8();
  }
}

// The cases of cases/regex-fixed.txt, which std::regex cannot judge, then lone surrogates.
TEST(DKRegExTest, MatchesFixedCases) {
  for (const dkcases::Case& c : dkcases::Read("regex-fixed.txt", {"pattern", "match", "no match"})) {
    const DKRegEx re(dkcases::Units(c.Get("pattern")));
    for (const bool match : {true, false})
      for (const std::string& text : c.All(match ? "match" : "no match"))
        EXPECT_EQ(re.Match(dkcases::Units(text)), match) << c.where << " on " << text;
  }
  // A lone surrogate is one character of its own.
  const DKChar lone[] = {0xD800, 'x', 0};
  EXPECT_TRUE(DKRegEx(DK_T("..")).Match(lone));
  EXPECT_TRUE(DKRegEx(DK_T("\\uD800x")).Match(lone));
  // A literal high half followed by an escaped low half is one character too.
  const DKChar mixed[] = {0xD83D, '\\', 'u', 'D', 'E', '0', '0', 0};
  EXPECT_TRUE(DKRegEx(mixed).Match(Text("\xF0\x9F\x98\x80")));
  const DKChar twoHighs[] = {0xD83D, 0xD83D, 0xDE00, 0};
  EXPECT_TRUE(DKRegEx(DK_T("\\uD83D\\uD83D\\uDE00")).Match(twoHighs));
}

// The POSIX classes inside brackets, against the C library's classification of every ASCII
// character and of a few others (the classes are ASCII, as \d and \w are).
TEST(DKRegExTest, PosixClassesInsideBrackets) {
  struct Posix {
    const char* name;
    int (*is)(int);
  };
  static const Posix classes[] = {
      {"alnum", [](int c) { return std::isalnum(c); }},   {"alpha", [](int c) { return std::isalpha(c); }},
      {"digit", [](int c) { return std::isdigit(c); }},   {"xdigit", [](int c) { return std::isxdigit(c); }},
      {"space", [](int c) { return std::isspace(c); }},   {"upper", [](int c) { return std::isupper(c); }},
      {"lower", [](int c) { return std::islower(c); }},   {"punct", [](int c) { return std::ispunct(c); }},
      {"blank", [](int c) { return std::isblank(c); }},   {"cntrl", [](int c) { return std::iscntrl(c); }},
      {"graph", [](int c) { return std::isgraph(c); }},   {"print", [](int c) { return std::isprint(c); }},
      {"word", [](int c) { return std::isalnum(c) || c == '_' ? 1 : 0; }},
  };
  const DKChar others[] = {0xA0, 0xE9, 0x3000, 0xFF10};
  for (const Posix& p : classes) {
    const std::string name = std::string("[:") + p.name + ":]";
    const DKRegEx in = Compiled(Text("[" + name + "]")), out = Compiled(Text("[^" + name + "]"));
    const DKRegEx mixed = Compiled(Text("[x" + name + "-]"));
    for (int c = 0; c < 128; ++c) {
      const DKString text(static_cast<DKChar>(c), 1);
      const bool expected = p.is(c) != 0;
      EXPECT_EQ(in.Match(text), expected) << name << " on " << c;
      EXPECT_EQ(out.Match(text), !expected) << name << " negated on " << c;
      EXPECT_EQ(mixed.Match(text), expected || c == 'x' || c == '-') << name << " with others on " << c;
    }
    for (const DKChar c : others) {
      EXPECT_FALSE(in.Match(DKString(c, 1))) << name << " on " << static_cast<int>(c);
      EXPECT_TRUE(out.Match(DKString(c, 1))) << name << " negated on " << static_cast<int>(c);
    }
  }
  // (Classes side by side: cases/regex-oracle.txt; a "[:" that makes up no class: regex-fixed.txt;
  // an unknown class: regex-bad.txt.)
  // Many "[:" without a "]" are found unterminated at once, however many there are.
  DKString open(DK_T("["));
  for (int i = 0; i < 200000; ++i)
    open += DK_T("[:");
  EXPECT_EQ(ErrorText(DKRegEx(open)), "Invalid regular expression \"" + open.SubStr(0, 60).AsUTF8() + "...\" at position 0: missing ']'");
}

// The patterns of cases/regex-bad.txt, each refused with its position and problem.
TEST(DKRegExTest, RefusesBadPatternsWithAClearError) {
  for (const dkcases::Case& c : dkcases::Read("regex-bad.txt", {"pattern", "position", "reason"})) {
    SCOPED_TRACE(c.where);
    DKRegEx re;
    const DKErrorID result = re.Compile(dkcases::Units(c.Get("pattern")));
    EXPECT_EQ(result.GetCode(), DK_MSG_INVALID_REGEX);
    EXPECT_FALSE(re.IsCompiled());
    EXPECT_EQ(re.GetProgramSize(), 0u);
    EXPECT_EQ(ErrorText(re), "Invalid regular expression \"" + dkcases::Bytes(c.Get("pattern")) + "\" at position " +
                                 c.Get("position") + ": " + dkcases::Bytes(c.Get("reason")));
    EXPECT_FALSE(re.Match(DK_T("a")));
  }
  // (A long pattern named by its start: PosixClassesInsideBrackets, many "[:".)
}

TEST(DKRegExTest, DeepNestingNeitherRecursesNorOverflows) {
  const std::size_t depth = 100000;
  EXPECT_NE(ErrorText(DKRegEx(DKString(DK_T('('), depth))).find("missing ')'"), std::string::npos);

  // Balanced: the groups vanish, the nested concatenations are compiled without recursion.
  DKString nested;
  for (std::size_t i = 0; i < 5000; ++i)
    nested += DK_T("(a");
  nested += DKString(DK_T(')'), 5000);
  DKRegEx re;
  ASSERT_TRUE(re.Compile(nested).Good()) << ErrorText(re);
  EXPECT_TRUE(re.Match(DKString(DK_T('a'), 5000)));
  EXPECT_FALSE(re.Match(DKString(DK_T('a'), 4999)));

  EXPECT_TRUE(re.Compile(DKString(DK_T('('), depth) + DKString(DK_T(')'), depth)).Good());
  EXPECT_TRUE(re.Match(DKString()));
}

TEST(DKRegExTest, LongTextsLargeProgramsAndPathologicalPatterns) {
  DKRegEx re;
  ASSERT_TRUE(re.Compile(DK_T("a{1000}")).Good());
  EXPECT_TRUE(re.Match(DKString(DK_T('a'), 1000)));
  EXPECT_FALSE(re.Match(DKString(DK_T('a'), 999)));
  ASSERT_TRUE(re.Compile(DK_T("(ab){0,1000}")).Good());
  DKString text;
  for (int i = 0; i < 1000; ++i)
    text += DK_T("ab");
  EXPECT_TRUE(re.Match(text));
  EXPECT_FALSE(re.Match(text + DK_T("ab")));

  const DKString as(DK_T('a'), 1000000);
  EXPECT_FALSE(DKRegEx(DK_T("(a+)+b")).Match(DKString(DK_T('a'), 10000)));
  EXPECT_TRUE(DKRegEx(DK_T("(a|aa)*")).Match(as));
  EXPECT_TRUE(DKRegEx(DK_T("(a*)*(a*)*(a*)*$")).Match(as));

  // A loop over a{0,1000} is a loop over a: a handful of instructions, not two thousand.
  ASSERT_TRUE(re.Compile(DK_T("(?:a{0,1000})+b")).Good());
  EXPECT_LT(re.GetProgramSize(), 10u);
  EXPECT_TRUE(re.Match(DKString(DK_T('a'), 100000) + DK_T("b")));
  // (A cache flushed and rebuilt over and over: CachedMatchAgreesWithTheAutomatonOnLongRuns; one
  // that fills in the middle of a long text: TakesOverATextThatKeepsTheCacheMissing.)
}

// A state that loops on a class skips the run in blocks of units; a unit outside the class at
// any offset of any block, just outside each range's ends, stops it there.
TEST(DKRegExTest, SkippedRunsStopAtTheFirstUnitOutsideTheirClass) {
  const struct {
    const char* pattern;
    char inside;
    const char* outside; // just past each end of each range
  } cases[] = {{"[a-z]*", 'q', "`{"}, {"[a-cx-zA-C0-2]*", 'b', "dw@D/3"}};
  for (const auto& c : cases) {
    const DKRegEx re(Text(c.pattern));
    for (std::size_t length = 0; length <= 80; ++length) {
      const std::string run(length, c.inside);
      ASSERT_TRUE(re.Match(Text(run))) << c.pattern << ", " << length;
      for (std::size_t at = 0; at < length; ++at)
        for (const char* o = c.outside; *o; ++o) {
          std::string text = run;
          text[at] = *o;
          ASSERT_FALSE(re.Match(Text(text))) << c.pattern << " on " << text;
        }
    }
  }
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
  ASSERT_TRUE(re.Compile(DK_T("x")).Good());
  EXPECT_TRUE(copy.Match(DK_T("Hello42")));
  EXPECT_FALSE(re.Match(DK_T("Hello42")));

  const DKRegEx shared(DK_T("(a|b|c)*c(a|b|c){4}[0-9]+"));
  const DKRegEx small = Compiled(shared.GetPattern(), 4096), full = Compiled(DK_T("(a|b)*a(a|b){11}"), 16 * 1024);
  const DKRegEx none = Compiled(full.GetPattern(), 0);
  std::atomic<int> wrong{0};
  std::mt19937 rngs[4] = {std::mt19937(0), std::mt19937(1), std::mt19937(2), std::mt19937(3)};
  RunOnThreads(4, 2000, [&](int t, int i) {
    const DKString abc = RandomText(rngs[t], "abc", 3, 5, 16) + DK_T("7");
    const bool expected = abc[abc.Length() - 6] == 'c';
    wrong += shared.Match(abc) != expected || small.Match(abc) != expected;
    if (i % 8 == 0) {
      const DKString ab = RandomText(rngs[t], "ab", 2, 10, 70);
      const bool abExpected = ab.Length() >= 12 && ab[ab.Length() - 12] == 'a';
      wrong += full.Match(ab) != abExpected || none.Match(ab) != abExpected;
    }
  });
  EXPECT_EQ(wrong.load(), 0);
}

// A match that a thread_local object's destructor makes as its thread ends, after the thread's
// cleanups, among them that of the cache a thread gets once a shared cache is full. The object
// holds nothing: MinGW frees a thread's thread_local storage before it runs their destructors,
// so what the match needs is kept outside it.
struct LateMatch {
  const DKRegEx* re = nullptr;
  DKString text;
  std::optional<bool> result;
};
LateMatch g_lateMatch;

struct MatchAtThreadExit {
  ~MatchAtThreadExit() {
    if (g_lateMatch.re)
      g_lateMatch.result = g_lateMatch.re->Match(g_lateMatch.text);
  }
};

TEST(DKRegExTest, MatchesFromAThreadExitAfterTheThreadsCacheIsGone) {
  const DKRegEx re = Compiled(DK_T("(a|b)*a(a|b){11}"), 2048), reference = Compiled(re.GetPattern(), 0);
  std::mt19937 rng(5);
  g_lateMatch = {&re, RandomText(rng, "ab", 2, 60, 60), std::nullopt};
  const bool expected = reference.Match(g_lateMatch.text);
  // Many threads, each ending after its cache filled: a cache that is read or freed after its
  // thread ended shows up in one of them.
  for (int round = 0; round < 16; ++round) {
    g_lateMatch.result.reset();
    std::thread([&] {
      thread_local MatchAtThreadExit late; // made before the thread's cache, so destroyed after it
      (void)&late;
      EXPECT_EQ(re.Match(g_lateMatch.text), expected);
    }).join();
    ASSERT_TRUE(g_lateMatch.result.has_value());
    EXPECT_EQ(*g_lateMatch.result, expected);
  }
  g_lateMatch = {};
}

TEST(DKRegExTest, EmptyAndCleared) {
  DKRegEx re;
  EXPECT_FALSE(re.Match(DK_T(""))); // nothing compiled matches nothing
  ASSERT_TRUE(re.Compile(DK_T("")).Good());
  EXPECT_TRUE(re.Match(nullptr, 0));
  re.Clear();
  EXPECT_FALSE(re.Match(DK_T("")));
  EXPECT_TRUE(re.GetPattern().IsEmpty());
}

// ---- The bit-parallel engine ---------------------------------------------------------------------

// Forces the bit-parallel engine on for the calling thread while it lives.
class ForcedBits {
public:
  explicit ForcedBits(std::size_t afterUnits) { dkre::ForceBitParallel(true, afterUnits); }
  ~ForcedBits() { dkre::ForceBitParallel(false); }
  ForcedBits(const ForcedBits&) = delete;
  ForcedBits& operator=(const ForcedBits&) = delete;
};

// The first disagreement of re, with the engine taking over at each code unit of text in turn,
// with reference (compiled without a cache: the plain automaton); empty when there is none. The
// engine must run for every text but the empty one.
std::string BitsDisagreement(const DKRegEx& re, const DKRegEx& reference, const DKString& text) {
  const bool expected = reference.Match(text);
  for (std::size_t after = 0; after <= text.Length(); ++after) {
    const std::size_t runs = dkre::BitParallelRuns();
    ForcedBits forced(after);
    if (re.Match(text) != expected)
      return "wrong answer taking over after " + std::to_string(after) + " units";
    if (!text.IsEmpty() && dkre::BitParallelRuns() != runs + 1)
      return "the engine did not run after " + std::to_string(after) + " units";
  }
  return {};
}

DKString Units(std::initializer_list<DKChar> units) { return DKString(DKStdString(units)); }

// The patterns of cases/regex-bitparallel.txt.
TEST(DKRegExBitParallelTest, AgreesWithTheAutomatonFromEveryPointOfTheText) {
  const DKString texts[] = {
      DK_T(""), DK_T("a"), DK_T("b"), DK_T("ab"), DK_T("abc"), DK_T("ac"), DK_T("bc"), DK_T("aaaab"), DK_T("ababcab"),
      DK_T("abbabb"), DK_T("axbxyax"), DK_T("yz"), DK_T("z"), DK_T("aaaaaacab"), DK_T("a\nbz"),
      Text("\xF0\x9F\x98\x80\xF0\x9F\x98\x80z"), Text("\xF0\x9F\x98\x80" "a"), Text("\xC3\xA9\xC3\xA9" "a"),
      Units({0xD83D}), Units({0xDE00, 0xD83D}), Units({DK_T('a'), 0xD83D, 0xDE00}), Units({0xD83D, DK_T('z')}),
  };
  for (const dktest::CaseLine& c : dktest::ReadCases(DK_TEST_CASES "/regex-bitparallel.txt", 1)) {
    const DKRegEx re = Compiled(Text(c[0])), reference = Compiled(Text(c[0]), 0);
    for (const DKString& text : texts)
      EXPECT_EQ(BitsDisagreement(re, reference, text), "") << c.where << " on \"" << text.AsUTF8() << "\"";
  }
}

// A program whose every window of text is a new state: the cache fills in the middle of the text,
// the engine takes the rest over from the state reached. A text that stays on a few states stays
// with the cache.
TEST(DKRegExBitParallelTest, TakesOverATextThatKeepsTheCacheMissing) {
  DKRegEx re;
  ASSERT_TRUE(re.Compile(DK_T("(?:a|b)*a(?:a|b){300}c"), 64 * 1024).Good());
  std::mt19937 rng(9);
  for (int t = 0; t < 6; ++t) {
    const DKString ab = RandomText(rng, "ab", 2, 1500, 3000);
    const bool expected = ab[ab.Length() - 301] == 'a';
    const std::size_t runs = dkre::BitParallelRuns();
    EXPECT_EQ(re.Match(ab + DK_T("c")), expected);
    EXPECT_FALSE(re.Match(ab + DK_T("a")));
    EXPECT_EQ(dkre::BitParallelRuns(), runs + 2);
  }
  EXPECT_TRUE(re.Match(DKString(DK_T('a'), 5000) + DK_T("c")));
  const std::size_t runs = dkre::BitParallelRuns();
  EXPECT_FALSE(re.Match(DKString(DK_T('b'), 5000)));
  EXPECT_EQ(dkre::BitParallelRuns(), runs);
}

// One program near the size limit (cases/regex-huge.txt), shared by threads that match with the
// engine forced on at different points of the texts and left to the matcher's own choice, against
// the plain automaton.
TEST(DKRegExBitParallelTest, OneHugeProgramFromManyThreads) {
  std::mt19937 rng(31);
  for (const dktest::CaseLine& c : dktest::ReadCases(DK_TEST_CASES "/regex-huge.txt", 2)) {
    const DKRegEx re = Compiled(Text(c[0])), reference = Compiled(Text(c[0]), 0);
    EXPECT_GT(re.GetProgramSize(), 3000u);
    std::vector<DKString> texts;
    std::vector<bool> expected;
    for (int t = 0; t < 4; ++t) {
      texts.push_back(RandomText(rng, c[1].c_str(), c[1].size(), 5200, 5600) + (t % 2 ? DK_T("c") : DK_T("d")));
      expected.push_back(reference.Match(texts.back()));
    }
    std::atomic<int> wrong{0}, engineIdle{0};
    RunOnThreads(4, 6, [&](int thread, int i) {
      const DKString& text = texts[static_cast<std::size_t>(i) % texts.size()];
      const std::size_t runs = dkre::BitParallelRuns();
      if ((thread + i) % 3 == 0) {
        wrong += re.Match(text) != expected[static_cast<std::size_t>(i) % texts.size()];
        return;
      }
      ForcedBits forced(static_cast<std::size_t>(thread * 997 + i * 131) % text.Length());
      wrong += re.Match(text) != expected[static_cast<std::size_t>(i) % texts.size()];
      engineIdle += dkre::BitParallelRuns() != runs + 1;
    });
    EXPECT_EQ(wrong.load(), 0) << c.where;
    EXPECT_EQ(engineIdle.load(), 0) << c.where;
  }
}

} // namespace
