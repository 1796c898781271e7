#include <DorvikCore/DKCommandLine.h>

#include <gtest/gtest.h>

#include <initializer_list>
#include <vector>

namespace {

using Type = DKCommandLineArgument::ArgumentType;

std::vector<DKString> Words(std::initializer_list<const DKChar*> words) {
  return std::vector<DKString>(words.begin(), words.end());
}

// ---------------------------------------------------------------------------------------------
// Splitting a command-line string, with the program-name rule

struct SplitCase {
  DKString text;
  const DKChar* appName;
  std::vector<DKString> arguments;
};

TEST(DKCommandLineSplit, WordsQuotesAndProgramName) {
  const SplitCase cases[] = {
      {DK_T("tool.exe /trace:2 -noConsole input.txt /usr/lib/x"), DK_T("tool.exe"),
       Words({DK_T("/trace:2"), DK_T("-noConsole"), DK_T("input.txt"), DK_T("/usr/lib/x")})},
      {DK_T(""), DK_T(""), {}},
      {DK_T(" \t  \t"), DK_T(""), {}},
      {DK_T("  tool   a \t\t b  "), DK_T("tool"), Words({DK_T("a"), DK_T("b")})},
      // The first word is a switch: the program name is empty.
      {DK_T("/config:a.ini"), DK_T(""), Words({DK_T("/config:a.ini")})},
      {DK_T("-x y"), DK_T(""), Words({DK_T("-x"), DK_T("y")})},
      {DK_T("/help"), DK_T(""), Words({DK_T("/help")})},
      {DK_T("/usr/bin:x"), DK_T(""), Words({DK_T("/usr/bin:x")})},
      // An absolute path is the program name.
      {DK_T("/usr/bin/tool /config:a.ini"), DK_T("/usr/bin/tool"), Words({DK_T("/config:a.ini")})},
      {DK_T("/tool\\x"), DK_T("/tool\\x"), {}},
      {DK_T("\\tools\\x.exe /a"), DK_T("\\tools\\x.exe"), Words({DK_T("/a")})},
      // Quotes group blanks, and are removed.
      {DK_T("\"C:\\Program Files\\tool.exe\" /config:\"my file.ini\""), DK_T("C:\\Program Files\\tool.exe"),
       Words({DK_T("/config:my file.ini")})},
      {DK_T("\"/usr/my tools/x\" a"), DK_T("/usr/my tools/x"), Words({DK_T("a")})},
      {DK_T("t a\"b c\"d"), DK_T("t"), Words({DK_T("ab cd")})},
      {DK_T("t \"a\tb\""), DK_T("t"), Words({DK_T("a\tb")})},
      // A doubled quote inside quotes is a literal quote; outside quotes too.
      {DK_T("t \"say \"\"hi\"\"\""), DK_T("t"), Words({DK_T("say \"hi\"")})},
      {DK_T("t a\"\"b"), DK_T("t"), Words({DK_T("a\"b")})},
      {DK_T("t \"\""), DK_T("t"), Words({DK_T("\"")})},
      // A quote left open runs to the end of the text.
      {DK_T("t \"unclosed text"), DK_T("t"), Words({DK_T("unclosed text")})},
      {DK_T("t \""), DK_T("t"), Words({DK_T("")})},
      {DK_T("\""), DK_T(""), {}},
      // The text ends at its first NUL.
      {DKString(DK_T("t a\0b c"), 7), DK_T("t"), Words({DK_T("a")})},
  };
  for (const SplitCase& c : cases) {
    const DKCommandLine cl(c.text);
    EXPECT_EQ(cl.GetAppName(), DKString(c.appName)) << c.text;
    EXPECT_EQ(cl.GetRawArgumentListVector(), c.arguments) << c.text;
    // The owned vector holds the program name and the arguments, then a null pointer.
    ASSERT_EQ(cl.GetArgCount(), c.arguments.size() + 1) << c.text;
    EXPECT_EQ(DKString(cl.GetArgValues()[0]), cl.GetAppName());
    for (std::size_t i = 0; i < c.arguments.size(); ++i)
      EXPECT_EQ(DKString(cl.GetArgValues()[i + 1]), c.arguments[i]);
    EXPECT_EQ(cl.GetArgValues()[cl.GetArgCount()], nullptr);
  }
}

TEST(DKCommandLineSplit, ProgramNameRuleFollowsTheDelimiters) {
  // With "\" as a switch prefix an absolute Windows-style path is still the program name.
  EXPECT_EQ(DKCommandLine(DK_T("\\bin\\tool /a"), DK_T("/-\\"), DK_T(":")).GetAppName(), DKString(DK_T("\\bin\\tool")));
  EXPECT_EQ(DKCommandLine(DK_T("\\bin /a"), DK_T("/-\\"), DK_T(":")).GetAppName(), DKString());
  // Without value delimiters nothing disqualifies a path.
  EXPECT_EQ(DKCommandLine(DK_T("/usr/bin:x/y"), DK_T("/-"), DKString()).GetAppName(), DKString(DK_T("/usr/bin:x/y")));
  // "+" opens switches here, so "/usr/bin/x" is an ordinary program name and "+v" a switch.
  const DKCommandLine plus(DK_T("+v"), DK_T("+"), DK_T(":"));
  EXPECT_EQ(plus.GetAppName(), DKString());
  EXPECT_EQ(plus.GetParsedArgumentVector().at(0).GetArgType(), DKCommandLine::Flag);
}

TEST(DKCommandLineSplit, SplitCommandLineHasNoProgramNameRule) {
  EXPECT_EQ(DKCommandLine::SplitCommandLine(DK_T("/a \"b c\"")), Words({DK_T("/a"), DK_T("b c")}));
  EXPECT_TRUE(DKCommandLine::SplitCommandLine(DK_T("  ")).empty());
}

// ---------------------------------------------------------------------------------------------
// Classifying one word

struct ParseCase {
  const DKChar* word;
  Type type;
  const DKChar* argument;
  const DKChar* value;
};

void CheckParse(const ParseCase* begin, const ParseCase* end, const DKString& argDelimiters,
                const DKString& valueDelimiters) {
  for (const ParseCase* c = begin; c != end; ++c) {
    const DKChar* argv[] = {DK_T("prog"), c->word};
    const DKCommandLine cl(2, argv, argDelimiters, valueDelimiters, false);
    ASSERT_EQ(cl.GetParsedArgumentVector().size(), 1u);
    const DKCommandLineArgument& a = cl.GetParsedArgumentVector()[0];
    const DKString word(c->word);
    EXPECT_EQ(a.GetArgType(), c->type) << word;
    EXPECT_EQ(a.GetArgument(), DKString(c->argument)) << word;
    EXPECT_EQ(a.GetValueAsString(), DKString(c->value)) << word;
  }
}

TEST(DKCommandLineParse, StandardDelimiters) {
  const ParseCase cases[] = {
      {DK_T(""), DKCommandLine::Absent, DK_T(""), DK_T("")},
      {DK_T("input.txt"), DKCommandLine::NonStandard, DK_T("input.txt"), DK_T("")},
      {DK_T("x:y"), DKCommandLine::NonStandard, DK_T("x:y"), DK_T("")},
      {DK_T("/noConsole"), DKCommandLine::Flag, DK_T("noConsole"), DK_T("")},
      {DK_T("-noConsole"), DKCommandLine::Flag, DK_T("noConsole"), DK_T("")},
      {DK_T("/"), DKCommandLine::Flag, DK_T(""), DK_T("")},
      {DK_T("/trace:2"), DKCommandLine::Valued, DK_T("trace"), DK_T("2")},
      {DK_T("-trace:2:3"), DKCommandLine::Valued, DK_T("trace"), DK_T("2:3")},
      {DK_T("/trace:"), DKCommandLine::Valued, DK_T("trace"), DK_T("")},
      {DK_T("/:x"), DKCommandLine::Valued, DK_T(""), DK_T("x")},
      // A further "/" before the value makes a "/" word a path; "-" has no such rule.
      {DK_T("/a/b"), DKCommandLine::NonStandard, DK_T("/a/b"), DK_T("")},
      {DK_T("/usr/lib/x"), DKCommandLine::NonStandard, DK_T("/usr/lib/x"), DK_T("")},
      {DK_T("/a/b:c"), DKCommandLine::NonStandard, DK_T("/a/b:c"), DK_T("")},
      {DK_T("//"), DKCommandLine::NonStandard, DK_T("//"), DK_T("")},
      {DK_T("-a-b"), DKCommandLine::Flag, DK_T("a-b"), DK_T("")},
      {DK_T("-a/b"), DKCommandLine::Flag, DK_T("a/b"), DK_T("")},
      {DK_T("-a/b:c"), DKCommandLine::Valued, DK_T("a/b"), DK_T("c")},
      // A "/" after the value delimiter does not count.
      {DK_T("/config:c:/x.ini"), DKCommandLine::Valued, DK_T("config"), DK_T("c:/x.ini")},
      {DK_T("/config:/etc/x.ini"), DKCommandLine::Valued, DK_T("config"), DK_T("/etc/x.ini")},
      {DK_T("\\a"), DKCommandLine::NonStandard, DK_T("\\a"), DK_T("")},
  };
  CheckParse(std::begin(cases), std::end(cases), DK_T("/-"), DK_T(":"));
}

TEST(DKCommandLineParse, OtherDelimiters) {
  // Several value delimiters: the first one in the word splits it.
  const ParseCase several[] = {
      {DK_T("/a=b"), DKCommandLine::Valued, DK_T("a"), DK_T("b")},
      {DK_T("/a:b=c"), DKCommandLine::Valued, DK_T("a"), DK_T("b=c")},
      {DK_T("/a=b:c"), DKCommandLine::Valued, DK_T("a"), DK_T("b:c")},
  };
  CheckParse(std::begin(several), std::end(several), DK_T("/-"), DK_T("=:"));
  // No value delimiter: every switch is a flag.
  const ParseCase none[] = {{DK_T("/a:b"), DKCommandLine::Flag, DK_T("a:b"), DK_T("")}};
  CheckParse(std::begin(none), std::end(none), DK_T("/-"), DKString());
  // Other prefixes; the path rule belongs to "/" alone.
  const ParseCase plus[] = {
      {DK_T("+x"), DKCommandLine::Flag, DK_T("x"), DK_T("")},
      {DK_T("+x/y"), DKCommandLine::Flag, DK_T("x/y"), DK_T("")},
      {DK_T("/x"), DKCommandLine::NonStandard, DK_T("/x"), DK_T("")},
  };
  CheckParse(std::begin(plus), std::end(plus), DK_T("+"), DK_T(":"));
  // A prefix that is also a value delimiter opens a value with an empty name.
  const ParseCase same[] = {{DK_T("/x"), DKCommandLine::Valued, DK_T(""), DK_T("x")}};
  CheckParse(std::begin(same), std::end(same), DK_T("/"), DK_T("/"));
}

// ---------------------------------------------------------------------------------------------
// Look-ups

TEST(DKCommandLineLookup, ApplicationCommandLine) {
  const DKCommandLine cl(DK_T("tool.exe /trace:2 -noConsole input.txt /usr/lib/x /ratio:2.5 /trace:9"));
  EXPECT_EQ(cl.GetArg(DK_T("trace"), DKString(DK_T("none"))), DKString(DK_T("2"))); // first occurrence
  EXPECT_EQ(cl.GetArg(DK_T("trace"), 0), 2);
  EXPECT_EQ(cl.GetArg(DK_T("ratio"), 0.0), 2.5);
  EXPECT_EQ(cl.GetArg(DK_T("missing"), 7), 7);
  EXPECT_EQ(cl.GetArg(DK_T("missing"), 1.5), 1.5);
  EXPECT_EQ(cl.GetArg(DK_T("missing"), DKString(DK_T("def"))), DKString(DK_T("def")));
  // A flag gives its empty value, not the default.
  EXPECT_EQ(cl.GetArg(DK_T("noConsole"), DKString(DK_T("def"))), DKString());
  EXPECT_EQ(cl.GetArg(DK_T("noConsole"), 7), 0);
  // Words that are not switches are found by their whole text.
  EXPECT_TRUE(cl.ArgPresent(DK_T("input.txt")));
  EXPECT_TRUE(cl.ArgPresent(DK_T("/usr/lib/x")));
  EXPECT_FALSE(cl.ArgPresent(DK_T("usr")));
  EXPECT_FALSE(cl.ArgPresent(DK_T("/trace:2")));

  EXPECT_EQ(cl.GetFileName(0), DKString(DK_T("input.txt")));
  EXPECT_EQ(cl.GetFileName(1), DKString(DK_T("/usr/lib/x")));
  EXPECT_EQ(cl.GetFileName(2), DKString());
  EXPECT_EQ(cl.GetNonStandardArguments(), Words({DK_T("input.txt"), DK_T("/usr/lib/x")}));
}

TEST(DKCommandLineLookup, CaseSensitivity) {
  struct Case {
    const DKChar* name;
    bool insensitive; // found when case is ignored
    bool sensitive;   // found when case matters
  };
  const Case cases[] = {
      {DK_T("noConsole"), true, true},  {DK_T("NOCONSOLE"), true, false}, {DK_T("noconsole"), true, false},
      {DK_T("CONFIG"), true, false},    {DK_T("été"), true, false},       {DK_T("ÉTÉ"), true, true},
      {DK_T("noConsol"), false, false}, {DK_T("noConsolee"), false, false},
  };
  DKCommandLine cl(DK_T("tool -noConsole /config:a.ini /ÉTÉ"));
  for (const Case& c : cases) {
    cl.SetCaseSensitivity(false);
    EXPECT_EQ(cl.ArgPresent(c.name), c.insensitive) << DKString(c.name);
    cl.SetCaseSensitivity(true);
    EXPECT_EQ(cl.ArgPresent(c.name), c.sensitive) << DKString(c.name);
  }
  EXPECT_TRUE(DKCommandLine(DK_T("t /A"), DK_T("/"), DK_T(":"), true).IsCaseSensitive());
  EXPECT_FALSE(DKCommandLine(DK_T("t /A"), DK_T("/"), DK_T(":"), true).ArgPresent(DK_T("a")));
}

TEST(DKCommandLineLookup, ConfigWithAndWithoutValue) {
  const DKString def(DK_T("default.ini"));
  EXPECT_EQ(DKCommandLine(DK_T("t /config")).GetArg(DK_T("config"), def), DKString());
  EXPECT_EQ(DKCommandLine(DK_T("t /config:")).GetArg(DK_T("config"), def), DKString());
  EXPECT_EQ(DKCommandLine(DK_T("t /config:x.ini")).GetArg(DK_T("config"), def), DKString(DK_T("x.ini")));
  EXPECT_EQ(DKCommandLine(DK_T("t /other")).GetArg(DK_T("config"), def), def);
}

TEST(DKCommandLineLookup, InvalidArguments) {
  const DKCommandLine cl(DK_T("t /trace:1 -noConsole file.txt /usr/x /Bogus -x:1"));
  const std::vector<DKString> valid = Words({DK_T("TRACE"), DK_T("noconsole")});
  std::vector<DKString> invalid = Words({DK_T("kept")});
  // The output list is appended to, not cleared; words that are not switches never count.
  EXPECT_EQ(cl.GetInvalidArguments(valid, invalid), 3u);
  EXPECT_EQ(invalid, Words({DK_T("kept"), DK_T("Bogus"), DK_T("x")}));

  DKCommandLine sensitive(cl);
  sensitive.SetCaseSensitivity(true);
  invalid.clear();
  EXPECT_EQ(sensitive.GetInvalidArguments(valid, invalid), 4u);
  EXPECT_EQ(invalid, Words({DK_T("trace"), DK_T("noConsole"), DK_T("Bogus"), DK_T("x")}));
  invalid.clear();
  EXPECT_EQ(sensitive.GetInvalidArguments({}, invalid), 4u);
}

TEST(DKCommandLineLookup, EmptyArgumentsAreAbsent) {
  const DKChar* argv[] = {DK_T("prog"), DK_T(""), DK_T("/a"), nullptr, DK_T("f")};
  const DKCommandLine cl(5, argv);
  ASSERT_EQ(cl.GetParsedArgumentVector().size(), 4u);
  EXPECT_EQ(cl.GetParsedArgumentVector()[2].GetArgType(), DKCommandLine::Absent);
  // The empty name finds the first empty argument, which is absent.
  EXPECT_FALSE(cl.ArgPresent(DKString()));
  // Absent entries are listed with the words that are not switches, but are not file names.
  EXPECT_EQ(cl.GetNonStandardArguments(), Words({DK_T(""), DK_T(""), DK_T("f")}));
  EXPECT_EQ(cl.GetFileName(0), DKString(DK_T("f")));
}

// ---------------------------------------------------------------------------------------------
// Vectors: the caller's, main()'s UTF-8 one, copies and moves

TEST(DKCommandLineVector, CallersVectorIsUsedAsGiven) {
  const DKChar* argv[] = {DK_T("prog"), DK_T("/a:1"), DK_T("b")};
  const DKCommandLine cl(3, argv, DK_T("/"), DK_T(":"), true);
  EXPECT_EQ(cl.GetArgValues(), argv);
  EXPECT_EQ(cl.GetArgCount(), 3u);
  EXPECT_EQ(cl.GetAppName(), DKString(DK_T("prog")));
  EXPECT_EQ(cl.GetArgDelimiters(), DKString(DK_T("/")));
  EXPECT_EQ(cl.GetValueDelimiters(), DKString(DK_T(":")));
  EXPECT_EQ(cl.GetRawArgumentListVector(), Words({DK_T("/a:1"), DK_T("b")}));
  const DKCommandLine copy(cl);
  EXPECT_EQ(copy.GetArgValues(), argv);

  const DKCommandLine none(3, static_cast<const DKChar* const*>(nullptr));
  EXPECT_EQ(none.GetArgCount(), 0u);
  EXPECT_EQ(none.GetAppName(), DKString());
  EXPECT_TRUE(none.GetParsedArgumentVector().empty());
  const DKCommandLine empty;
  EXPECT_EQ(empty.GetArgCount(), 1u);
  EXPECT_TRUE(empty.GetRawArgumentListVector().empty());
  EXPECT_FALSE(empty.IsCaseSensitive());
}

TEST(DKCommandLineVector, Utf8FromMain) {
  const char* argv[] = {"/usr/bin/prog", "/naïve:ü€𝄞", "-X", "bad\xff\xc3", nullptr};
  const DKCommandLine cl(4, argv);
  ASSERT_EQ(cl.GetArgCount(), 4u);
  EXPECT_EQ(cl.GetAppName(), DKString(DK_T("/usr/bin/prog")));
  EXPECT_EQ(cl.GetArg(DK_T("NAÏVE"), DKString()), DKString(DK_T("ü€𝄞")));
  EXPECT_TRUE(cl.ArgPresent(DK_T("x")));
  // Invalid UTF-8 is decoded leniently: the argument is kept, each bad sequence as U+FFFD.
  EXPECT_EQ(cl.GetFileName(0), DKString(DK_T("bad\uFFFD\uFFFD")));
  // The decoded vector is owned and null-terminated.
  EXPECT_EQ(DKString(cl.GetArgValues()[1]), DKString(DK_T("/naïve:ü€𝄞")));
  EXPECT_EQ(cl.GetArgValues()[4], nullptr);

  const char* withNull[] = {"p", nullptr, "f"};
  EXPECT_EQ(DKCommandLine(3, withNull).GetNonStandardArguments(), Words({DK_T(""), DK_T("f")}));
  EXPECT_EQ(DKCommandLine(2, static_cast<const char* const*>(nullptr)).GetArgCount(), 0u);
}

TEST(DKCommandLineVector, CopiesAndMovesOwnTheirWords) {
  auto make = [] { return DKCommandLine(DKString(DK_T("prog /a:1 file")), DK_T("/-"), DK_T(":"), true); };
  auto check = [](const DKCommandLine& cl) {
    ASSERT_EQ(cl.GetArgCount(), 3u);
    EXPECT_EQ(DKString(cl.GetArgValues()[0]), DKString(DK_T("prog")));
    EXPECT_EQ(DKString(cl.GetArgValues()[2]), DKString(DK_T("file")));
    EXPECT_EQ(cl.GetArgValues()[3], nullptr);
    EXPECT_EQ(cl.GetArg(DK_T("a"), 0), 1);
    EXPECT_TRUE(cl.IsCaseSensitive());
  };
  DKCommandLine* original = new DKCommandLine(make());
  DKCommandLine copy(*original);
  DKCommandLine assigned;
  assigned = *original;
  EXPECT_NE(copy.GetArgValues(), original->GetArgValues());
  delete original; // the copies hold their own vectors
  check(copy);
  check(assigned);

  DKCommandLine moved(std::move(copy));
  check(moved);
  // The moved-from object is empty, not pointing into the new owner's vector.
  EXPECT_EQ(copy.GetArgCount(), 0u);
  EXPECT_EQ(copy.GetArgValues(), nullptr);
  DKCommandLine moveAssigned;
  moveAssigned = std::move(moved);
  check(moveAssigned);
  const DKCommandLine& self = moveAssigned;
  moveAssigned = self;
  check(moveAssigned);
}

// ---------------------------------------------------------------------------------------------
// DKCommandLineArgument

TEST(DKCommandLineArgument, ValuesAndOrdering) {
  const DKCommandLineArgument none;
  EXPECT_EQ(none.GetArgType(), DKCommandLineArgument::Absent);
  EXPECT_EQ(none.GetValueAsChar(), 0);
  EXPECT_EQ(none.GetValueAsInt(), 0);

  const DKCommandLineArgument level(DK_T("level"), DK_T("42"), DKCommandLineArgument::Valued);
  EXPECT_EQ(level.GetValueAsInt(), 42);
  EXPECT_EQ(level.GetValueAsDouble(), 42.0);
  EXPECT_EQ(level.GetValueAsChar(), DK_T('4'));
  EXPECT_EQ(DKCommandLineArgument(DK_T("r"), DK_T("-0.25"), DKCommandLineArgument::Valued).GetValueAsDouble(), -0.25);

  // Equality and order look at the names alone, case-sensitively.
  const DKCommandLineArgument sameName(DK_T("level"), DK_T("7"), DKCommandLineArgument::Flag);
  const DKCommandLineArgument upper(DK_T("LEVEL"), DK_T("42"), DKCommandLineArgument::Valued);
  EXPECT_TRUE(level == sameName);
  EXPECT_FALSE(level == upper);
  EXPECT_TRUE(upper < level);
  EXPECT_FALSE(level < sameName);
}

} // namespace
