#include <DorvikCore/DKCommandLine.h>

#include "support/DKTestSupport.h"
#include "support/DKCaseBlocks.h"
#include "support/DKCaseFile.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

using Type = DKCommandLineArgument::ArgumentType;
using Lines = std::vector<DKString>;

Lines Words(std::initializer_list<const DKChar*> words) { return Lines(words.begin(), words.end()); }

// ---------------------------------------------------------------------------------------------
// Splitting a command-line string, with the program-name rule

// The command lines of cases/cmdline-split.txt.
TEST(DKCommandLineSplit, WordsQuotesAndProgramName) {
  for (const dkcases::Case& c :
       dkcases::Read("cmdline-split.txt", {"line", "switches", "values", "program", "word"})) {
    SCOPED_TRACE(c.where);
    Lines arguments;
    for (const std::string& word : c.All("word"))
      arguments.push_back(dkcases::Units(word));
    const DKCommandLine cl(dkcases::Units(c.Get("line")), dkcases::Units(c.Get("switches", "/-")),
                           dkcases::Units(c.Get("values", ":")));
    EXPECT_EQ(cl.GetAppName(), dkcases::Units(c.Get("program")));
    EXPECT_EQ(cl.GetRawArgumentListVector(), arguments);
    // The owned vector holds the program name and the arguments (its null end: the index test).
    arguments.insert(arguments.begin(), cl.GetAppName());
    EXPECT_EQ(Lines(cl.GetArgValues(), cl.GetArgValues() + cl.GetArgCount()), arguments);
  }
  // SplitCommandLine has no program-name rule.
  EXPECT_EQ(DKCommandLine::SplitCommandLine(DK_T("/a \"b c\"")), Words({DK_T("/a"), DK_T("b c")}));
  EXPECT_TRUE(DKCommandLine::SplitCommandLine(DK_T("  ")).empty());
}

// ---------------------------------------------------------------------------------------------
// Classifying one word

// The words of cases/cmdline-words.txt. That a word's class matches it (its prefix, its first
// value delimiter, the name and value it splits into) is the cmdline fuzz target's property,
// replayed under CTest over seeds of every delimiter set. Here the rules it leaves open: when a
// word that opens a switch is a path.
TEST(DKCommandLineParse, WordsByDelimiters) {
  const std::map<std::string, Type> types = {{"Absent", DKCommandLine::Absent}, {"Flag", DKCommandLine::Flag},
                                             {"Valued", DKCommandLine::Valued}, {"NonStandard", DKCommandLine::NonStandard}};
  for (const dktest::CaseLine& c : dktest::ReadCases(DK_TEST_CASES "/cmdline-words.txt", 6)) {
    SCOPED_TRACE(c.where);
    const DKString word = Text(c[2]);
    const DKChar* argv[] = {DK_T("prog"), word.c_str()};
    const DKCommandLine cl(2, argv, Text(c[0]), Text(c[1]), false);
    ASSERT_EQ(cl.GetParsedArgumentVector().size(), 1u);
    const DKCommandLineArgument& a = cl.GetParsedArgumentVector()[0];
    EXPECT_EQ(a.GetArgType(), types.at(c[3]));
    EXPECT_EQ(a.GetArgument(), Text(c[4]));
    EXPECT_EQ(a.GetValueAsString(), Text(c[5]));
  }
}

// ---------------------------------------------------------------------------------------------
// Look-ups

// The names of cases/cmdline-lookup.txt, then numbers with a fraction and file names.
TEST(DKCommandLineLookup, GettersByName) {
  DKCommandLine cl(DK_T("tool.exe /trace:2 -noConsole input.txt /usr/lib/x /trace:9 /empty: /count:abc "
                        "/port:8080 /big:99999999999 /ratio:1.5x /r:.25 /config:a.ini /\u00C9T\u00C9"));
  for (const dktest::CaseLine& c : dktest::ReadCases(DK_TEST_CASES "/cmdline-lookup.txt", 6)) {
    SCOPED_TRACE(c.where);
    cl.SetCaseSensitivity(true);
    EXPECT_EQ(cl.ArgPresent(Text(c[0])), c.YesNo(2));
    cl.SetCaseSensitivity(false);
    EXPECT_EQ(cl.ArgPresent(Text(c[0])), c.YesNo(1));
    EXPECT_EQ(cl.GetArg(Text(c[0]), DKString(DK_T("none"))), Text(c[3]));
    bool ok = !c.YesNo(5);
    EXPECT_EQ(cl.GetArg(c[0].c_str(), 42, &ok), c.Int(4));
    EXPECT_EQ(ok, c.YesNo(5));
  }
  bool ok = true;
  EXPECT_EQ(cl.GetArg("ratio", 0.0, &ok), 1.5);
  EXPECT_FALSE(ok);
  EXPECT_EQ(cl.GetArg(std::string("r"), 0.0, &ok), 0.25);
  EXPECT_TRUE(ok);
  EXPECT_TRUE(cl.ArgPresent(std::string_view("count")) && cl.ArgPresent("Count") && !cl.ArgPresent("coun"));
  EXPECT_EQ(cl.GetArg("port", DKString(DK_T("none"))), DKString(DK_T("8080")));
  EXPECT_EQ(cl.GetFileName(0), DKString(DK_T("input.txt")));
  EXPECT_EQ(cl.GetFileName(2), DKString());
  EXPECT_EQ(cl.GetNonStandardArguments(), Words({DK_T("input.txt"), DK_T("/usr/lib/x")}));
  EXPECT_FALSE(DKCommandLine(DK_T("t /A"), DK_T("/"), DK_T(":"), true).ArgPresent(DK_T("a")));
}

// The problems of cases/cmdline-check.txt (kinds named in the order of their values).
TEST(DKCommandLineLookup, CheckNamesEveryProblemAgainstTheUsage) {
  DKUsageInfo usage;
  usage.AddCmdLineArgDesc("config:{filename}", "Configuration file");
  usage.AddCmdLineArgDesc("consoleToFile[:filename]", "Console to a file");
  usage.AddCmdLineArgDesc("noConsole", "No console");
  usage.AddCmdLineArgDesc("port:{n}", "Port", DKUsageInfo::ValueKind::Integer);
  DKUsageInfo plugIn;
  plugIn.AddCmdLineArgDesc(DK_T("ratio:{x}"), DK_T("Ratio"), DKUsageInfo::ValueKind::Number);
  const DKCommandLine cl(DK_T("t file.txt /CONFIG:a.ini /consoleToFile -consoleToFile:out.txt /noConsole /port:80 "
                              "--port=8080 /config /noConsole:yes /port:eighty /ratio:1e3 /ratio:x /usr/lib/y"));
  const char* const kinds[] = {"UnknownSwitch", "MissingValue", "UnexpectedValue", "BadValue"};
  const auto expected = dktest::ReadCases(DK_TEST_CASES "/cmdline-check.txt", 3);
  const std::vector<DKCommandLine::Problem> problems = cl.Check({&usage, &plugIn});
  ASSERT_EQ(problems.size(), expected.size());
  for (std::size_t i = 0; i < problems.size(); ++i) {
    SCOPED_TRACE(expected[i].where);
    EXPECT_EQ(kinds[problems[i].kind], expected[i][0]);
    EXPECT_EQ(problems[i].word, Text(expected[i][1]));
    EXPECT_EQ(problems[i].message, Text(expected[i][2]));
  }
  // Without the plug-in's usage its option is unknown.
  EXPECT_EQ(cl.Check(usage).size(), expected.size() + 1);
  EXPECT_TRUE(DKCommandLine(DK_T("t /config:x")).Check(usage).empty());
}

// Long command lines are looked up through a hash index: every look-up must find what a plain
// scan finds (the first argument with the name, under either comparison), on copies, moved and
// reassigned objects too, and from several threads racing to build the index. Each object owns
// its vector of words, ending in a null pointer, and keeps its comparison.
TEST(DKCommandLineLookup, IndexedLookupsAgreeWithAScan) {
  const DKChar* const names[] = {DK_T("a"), DK_T("A"), DK_T("ab"), DK_T("aB"), DK_T("été"), DK_T("ÉTÉ"),
                                 DK_T("x1"), DK_T("X1"), DK_T(""), DK_T("file.txt"), DK_T("s"), DK_T("ſ")};
  const DKChar* const prefixes[] = {DK_T("/"), DK_T("-"), DK_T("")};
  DKString line(DK_T("tool"));
  std::minstd_rand random(7);
  for (int i = 0; i < 60; ++i) {
    line += DK_T(" ");
    line += prefixes[random() % 3];
    line += names[random() % std::size(names)];
    if (random() % 3 == 0)
      line += DKString(DK_T(":")) + DKString::Number(i);
  }
  DKCommandLine cl(line);
  const Lines words(cl.GetArgValues(), cl.GetArgValues() + cl.GetArgCount());
  auto scan = [](const DKCommandLine& cl, DKStringView name) -> const DKCommandLineArgument* {
    for (const DKCommandLineArgument& argument : cl.GetParsedArgumentVector()) {
      const DKString& found = argument.GetArgument();
      const bool equal = cl.IsCaseSensitive() ? found.View() == name
                                              : DKString(name.data(), name.size()).IsEqual(found, DKString::IgnoreCase);
      if (equal)
        return &argument;
    }
    return nullptr;
  };
  auto check = [&](const DKCommandLine& cl, const char* label, bool sensitive) {
    EXPECT_EQ(cl.IsCaseSensitive(), sensitive) << label;
    EXPECT_EQ(Lines(cl.GetArgValues(), cl.GetArgValues() + cl.GetArgCount()), words) << label;
    EXPECT_EQ(cl.GetArgValues()[cl.GetArgCount()], nullptr) << label;
    for (const DKChar* name : names) {
      const DKCommandLineArgument* expected = scan(cl, name);
      EXPECT_EQ(cl.ArgPresent(name), expected != nullptr) << label << " " << DKString(name);
      EXPECT_EQ(cl.GetArg(name, DKString(DK_T("none"))),
                expected ? expected->GetValueAsString() : DKString(DK_T("none")))
          << label << " " << DKString(name);
      EXPECT_EQ(cl.ArgPresent(DKString(name).AsUTF8()), expected != nullptr) << label << " UTF-8";
    }
    EXPECT_FALSE(cl.ArgPresent(DK_T("missing"))) << label;
  };
  ASSERT_GT(cl.GetParsedArgumentVector().size(), 40u); // an empty name without a prefix is no word
  for (const bool sensitive : {true, false, true}) {
    cl.SetCaseSensitivity(sensitive);
    check(cl, sensitive ? "sensitive" : "insensitive", sensitive);
  }
  const DKCommandLine copy(cl);
  EXPECT_NE(copy.GetArgValues(), cl.GetArgValues());
  check(copy, "copy", true);
  DKCommandLine moved(std::move(cl));
  check(moved, "moved", true);
  // The moved-from object is empty, not pointing into the new owner's vector.
  EXPECT_EQ(cl.GetArgCount(), 0u);
  EXPECT_EQ(cl.GetArgValues(), nullptr);
  moved = DKCommandLine(DK_T("tool /b /B:2 /c"));
  EXPECT_TRUE(moved.ArgPresent(DK_T("c")));
  EXPECT_FALSE(moved.ArgPresent(DK_T("a"))) << "the old index must go with the old arguments";
  moved = copy;
  check(moved, "assigned", true);
  const DKCommandLine& self = moved;
  moved = self;
  check(moved, "assigned to itself", true);

  const DKCommandLine shared(line);
  RunOnThreads(4, 1, [&](int, int) { check(shared, "threads", false); });
}

TEST(DKCommandLineLookup, InvalidArguments) {
  const DKCommandLine cl(DK_T("t /trace:1 -noConsole file.txt /usr/x /Bogus -x:1"));
  const Lines valid = Words({DK_T("TRACE"), DK_T("noconsole")});
  Lines invalid = Words({DK_T("kept")});
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

// ---------------------------------------------------------------------------------------------
// Vectors: the caller's and main()'s UTF-8 one (copies and moves: IndexedLookupsAgreeWithAScan)

TEST(DKCommandLineVector, CallersVectorIsUsedAsGiven) {
  const DKChar* argv[] = {DK_T("prog"), DK_T(""), DK_T("/a"), nullptr, DK_T("f")};
  const DKCommandLine cl(5, argv);
  EXPECT_EQ(cl.GetArgValues(), argv);
  EXPECT_EQ(DKCommandLine(cl).GetArgValues(), argv);
  EXPECT_EQ(cl.GetAppName(), DKString(DK_T("prog")));
  // Empty and null words are absent: listed with the words that are not switches, but not file names.
  ASSERT_EQ(cl.GetParsedArgumentVector().size(), 4u);
  EXPECT_EQ(cl.GetParsedArgumentVector()[2].GetArgType(), DKCommandLine::Absent);
  EXPECT_FALSE(cl.ArgPresent(DKString())); // the empty name finds the first empty word, which is absent
  EXPECT_EQ(cl.GetNonStandardArguments(), Words({DK_T(""), DK_T(""), DK_T("f")}));
  EXPECT_EQ(cl.GetFileName(0), DKString(DK_T("f")));

  const DKCommandLine none(3, static_cast<const DKChar* const*>(nullptr));
  EXPECT_EQ(none.GetArgCount(), 0u);
  EXPECT_TRUE(none.GetParsedArgumentVector().empty());
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
  // The decoded vector is owned and null-terminated (how valid UTF-8 decodes: the cmdline fuzz target).
  EXPECT_EQ(cl.GetArgValues()[4], nullptr);

  const char* withNull[] = {"p", nullptr, "f"};
  EXPECT_EQ(DKCommandLine(3, withNull).GetNonStandardArguments(), Words({DK_T(""), DK_T("f")}));
  EXPECT_EQ(DKCommandLine(2, static_cast<const char* const*>(nullptr)).GetArgCount(), 0u);
}

TEST(DKCommandLineArgument, ValuesAndOrdering) {
  // An empty value reads as a zero character.
  EXPECT_EQ(DKCommandLineArgument().GetValueAsChar(), 0);
  const DKCommandLineArgument level(DK_T("level"), DK_T("42"), DKCommandLineArgument::Valued);
  EXPECT_EQ(level.GetValueAsChar(), DK_T('4'));

  // Equality and order look at the names alone, case-sensitively.
  const DKCommandLineArgument sameName(DK_T("level"), DK_T("7"), DKCommandLineArgument::Flag);
  const DKCommandLineArgument upper(DK_T("LEVEL"), DK_T("42"), DKCommandLineArgument::Valued);
  EXPECT_TRUE(level == sameName);
  EXPECT_FALSE(level == upper);
  EXPECT_TRUE(upper < level);
  EXPECT_FALSE(level < sameName);
}

// ---------------------------------------------------------------------------------------------
// DKUsageInfo

Lines Layout(const DKString& name, const DKString& description) {
  DKUsageInfo info;
  info.AddCmdLineArgDesc(name, description, false);
  return info.FormatOptionLines();
}

TEST(DKUsageInfo, EntriesKeepTheirOrderAndFlag) {
  DKUsageInfo info;
  info.AddCmdLineArgDesc(DK_T("config:{filename}"), DK_T("Configuration file"), false);
  info.AddCmdLineArgDesc("trace:{level}", "Trace level \xc3\xa9 \xff", true);
  info.AddCmdLineArgDesc(static_cast<const char*>(nullptr), nullptr);
  ASSERT_EQ(info.GetCmdLineArgDescCount(), 3u);

  DKString name, description;
  bool flag = false;
  ASSERT_TRUE(info.GetCmdLineArgDesc(1, name, description, flag));
  EXPECT_EQ(name, DKString(DK_T("trace:{level}")));
  EXPECT_EQ(description, DKString(DK_T("Trace level é \uFFFD"))); // UTF-8, invalid bytes replaced
  EXPECT_TRUE(flag);
  ASSERT_TRUE(info.GetCmdLineArgDesc(2, name, description, flag));
  EXPECT_TRUE(name.IsEmpty() && description.IsEmpty());
  EXPECT_FALSE(flag);

  // Out of range: false, and the outputs stay as they were.
  name = DK_T("n");
  flag = true;
  EXPECT_FALSE(info.GetCmdLineArgDesc(3, name, description, flag));
  EXPECT_EQ(name, DKString(DK_T("n")));
  EXPECT_TRUE(flag);
}

// The entries of cases/usage-layout.txt.
TEST(DKUsageLayout, NameWidthAndBreaks) {
  for (const dkcases::Case& c : dkcases::Read("usage-layout.txt", {"name", "description", "line"})) {
    Lines expected;
    for (const std::string& line : c.All("line"))
      expected.push_back(dkcases::Units(line));
    EXPECT_EQ(Layout(dkcases::Units(c.Get("name")), dkcases::Units(c.Get("description"))), expected) << c.where;
  }
}

TEST(DKUsageLayout, EveryCharacterIsLaidOutOnce) {
  // Pseudo-random descriptions of words from 1 to 80 units, single and double blanks.
  std::minstd_rand random(12345);
  const auto next = [&random](unsigned range) { return static_cast<unsigned>(random() % range); };
  for (int round = 0; round < 200; ++round) {
    DKStdString description;
    const unsigned words = next(30);
    for (unsigned w = 0; w < words; ++w) {
      description += DKStdString(next(80) + 1, static_cast<DKChar>(DK_T('a') + next(26)));
      description += next(5) == 0 ? DK_T("  ") : DK_T(" ");
    }
    DKStdString laidOut;
    for (const DKString& line : Layout(DK_T("opt"), DKString(description))) {
      EXPECT_EQ(line.Length(), 79u);
      laidOut += line.AsStdString().substr(25);
    }
    // Without blanks (those dropped at breaks and the padding) the text is the description.
    std::erase(description, DK_T(' '));
    std::erase(laidOut, DK_T(' '));
    ASSERT_EQ(laidOut, description) << "round " << round;
  }
}

// (How each entry is laid out: NameWidthAndBreaks.)
TEST(DKUsageLayout, FormatUsageEndsEveryLine) {
  DKUsageInfo info;
  EXPECT_TRUE(info.FormatUsage().IsEmpty());
  info.AddCmdLineArgDesc(DK_T("a"), DK_T("first"));
  EXPECT_EQ(info.FormatUsage(), info.FormatOptionLines().at(0) + DK_T("\n"));
  info.SetGeneralInfo(DK_T("Plug-in X options:"));
  info.AddCmdLineArgDesc(DK_T("bbbbbbbbbbbbbbbbbbbbbbbbb"), DK_T("second"));
  const Lines lines = info.FormatOptionLines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(info.FormatUsage(), DK_T("Plug-in X options:\n") + lines[0] + DK_T("\n") + lines[1] + DK_T("\n") + lines[2] + DK_T("\n"));
}

} // namespace
