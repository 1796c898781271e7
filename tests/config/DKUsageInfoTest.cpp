#include <DorvikCore/DKCommandLine.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Lines = std::vector<DKString>;

DKStdString Pad(const DKStdString& text, std::size_t width) {
  return text.size() >= width ? text : text + DKStdString(width - text.size(), u' ');
}
// The three kinds of layout line, built independently of the library's formatting.
DKString OptionLine(const DKStdString& name, const DKStdString& chunk) {
  return DKString(u"   /" + Pad(name, 20) + u" " + Pad(chunk, 54));
}
DKString NameLine(const DKStdString& name) { return DKString(u"   /" + name); }
DKString ContinuationLine(const DKStdString& chunk) { return DKString(DKStdString(25, u' ') + Pad(chunk, 54)); }

Lines Layout(const DKString& name, const DKString& description) {
  DKUsageInfo info;
  info.AddCmdLineArgDesc(name, description, false);
  return info.FormatOptionLines();
}

// ---------------------------------------------------------------------------------------------
// The list of option descriptions

TEST(DKUsageInfo, EntriesKeepTheirOrderAndFlag) {
  DKUsageInfo info(DK_T("General text"));
  info.AddCmdLineArgDesc(DK_T("config:{filename}"), DK_T("Configuration file"), false);
  info.AddCmdLineArgDesc("trace:{level}", "Trace level \xc3\xa9 \xff", true);
  info.AddCmdLineArgDesc(static_cast<const char*>(nullptr), nullptr);
  ASSERT_EQ(info.GetCmdLineArgDescCount(), 3u);
  EXPECT_EQ(info.GetGeneralInfo(), DKString(DK_T("General text")));

  DKString name, description;
  bool flag = false;
  ASSERT_TRUE(info.GetCmdLineArgDesc(1, name, description, flag));
  EXPECT_EQ(name, DKString(DK_T("trace:{level}")));
  EXPECT_EQ(description, DKString(DK_T("Trace level é \uFFFD"))); // UTF-8, invalid bytes replaced
  EXPECT_TRUE(flag);
  ASSERT_TRUE(info.GetCmdLineArgDesc(0, name, description, flag));
  EXPECT_EQ(name, DKString(DK_T("config:{filename}")));
  EXPECT_FALSE(flag);
  ASSERT_TRUE(info.GetCmdLineArgDesc(2, name, description, flag));
  EXPECT_TRUE(name.IsEmpty() && description.IsEmpty());

  // Out of range: false, and the outputs stay as they were.
  name = DK_T("n");
  description = DK_T("d");
  flag = true;
  EXPECT_FALSE(info.GetCmdLineArgDesc(3, name, description, flag));
  EXPECT_EQ(name, DKString(DK_T("n")));
  EXPECT_EQ(description, DKString(DK_T("d")));
  EXPECT_TRUE(flag);
}

TEST(DKUsageInfo, CopyIsDeep) {
  DKUsageInfo original;
  original.AddCmdLineArgDesc(DK_T("a"), DK_T("first"));
  DKUsageInfo copy(original);
  copy.AddCmdLineArgDesc(DK_T("b"), DK_T("second"));
  copy.SetGeneralInfo(DK_T("changed"));
  EXPECT_EQ(original.GetCmdLineArgDescCount(), 1u);
  EXPECT_TRUE(original.GetGeneralInfo().IsEmpty());
  EXPECT_EQ(copy.GetCmdLineArgDescCount(), 2u);
}

// ---------------------------------------------------------------------------------------------
// Layout

TEST(DKUsageLayout, NameWidthAndBreaks) {
  const DKStdString name20(20, u'n');
  const DKStdString name21(21, u'n');
  const DKStdString word54(54, u'w');
  const DKStdString word60(60, u'x');
  struct Case {
    const char* what;
    DKStdString name;
    DKStdString description;
    Lines expected;
  };
  const Case cases[] = {
      {"short", u"help", u"Shows this text", {OptionLine(u"help", u"Shows this text")}},
      {"name of 20 shares the line", name20, u"d", {OptionLine(name20, u"d")}},
      {"name of 21 has its own line", name21, u"d", {NameLine(name21), ContinuationLine(u"d")}},
      {"empty description", u"x", u"", {OptionLine(u"x", u"")}},
      {"long name, empty description", name21, u"", {NameLine(name21)}},
      {"exactly 54 is one chunk", u"x", word54, {OptionLine(u"x", word54)}},
      {"a blank at 54 closes a full chunk", u"x", word54 + u" tail",
       {OptionLine(u"x", word54), ContinuationLine(u"tail")}},
      {"the last blank within 54 breaks", u"x", DKStdString(50, u'a') + u" bb cc",
       {OptionLine(u"x", DKStdString(50, u'a') + u" bb"), ContinuationLine(u"cc")}},
      {"a word longer than 54 is cut", u"x", word60 + u" end",
       {OptionLine(u"x", DKStdString(54, u'x')), ContinuationLine(u"xxxxxx end")}},
      {"long name, long description", name21, u"one " + word54,
       {NameLine(name21), ContinuationLine(u"one"), ContinuationLine(word54)}},
  };
  for (const Case& c : cases)
    EXPECT_EQ(Layout(DKString(c.name), DKString(c.description)), c.expected) << c.what;
}

TEST(DKUsageLayout, RealDescriptionWraps) {
  const Lines lines = Layout(DK_T("osxpath:{directory}"),
                             DK_T("Specify to load the plug-ins (.OSX) from a specific directory. This option can be "
                                  "used more than once to specify several directories."));
  const Lines expected = {
      OptionLine(u"osxpath:{directory}", u"Specify to load the plug-ins (.OSX) from a specific"),
      ContinuationLine(u"directory. This option can be used more than once to"),
      ContinuationLine(u"specify several directories."),
  };
  EXPECT_EQ(lines, expected);
}

TEST(DKUsageLayout, CutNeverSplitsASurrogatePair) {
  // 53 units, then a character outside the BMP across the cut at 54.
  const DKStdString description = DKStdString(53, u'a') + u"\U0001D11E" + u"bc";
  const Lines lines = Layout(DK_T("x"), DKString(description));
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], OptionLine(u"x", DKStdString(53, u'a')));
  EXPECT_EQ(lines[1], ContinuationLine(u"\U0001D11Ebc"));
}

TEST(DKUsageLayout, EveryCharacterIsLaidOutOnce) {
  // Pseudo-random descriptions of words from 1 to 80 units, single and double blanks.
  unsigned state = 12345;
  auto next = [&state](unsigned range) {
    state = state * 1103515245u + 12345u;
    return (state >> 16) % range;
  };
  for (int round = 0; round < 200; ++round) {
    DKStdString description;
    const unsigned words = next(30);
    for (unsigned w = 0; w < words; ++w) {
      description += DKStdString(next(80) + 1, static_cast<DKChar>(u'a' + next(26)));
      description += next(5) == 0 ? u"  " : u" ";
    }
    const Lines lines = Layout(DK_T("opt"), DKString(description));
    DKStdString laidOut;
    for (const DKString& line : lines) {
      EXPECT_EQ(line.Length(), 79u);
      laidOut += line.AsStdString().substr(25);
    }
    // Without blanks (those dropped at breaks and the padding) the text is the description.
    std::erase(description, u' ');
    std::erase(laidOut, u' ');
    ASSERT_EQ(laidOut, description) << "round " << round;
  }
}

TEST(DKUsageLayout, FormatUsageEndsEveryLine) {
  DKUsageInfo info;
  info.AddCmdLineArgDesc(DK_T("a"), DK_T("first"));
  EXPECT_EQ(info.FormatUsage(), DKString(OptionLine(u"a", u"first").AsStdString() + u"\n"));
  info.SetGeneralInfo(DK_T("Plug-in X options:"));
  info.AddCmdLineArgDesc(DK_T("bbbbbbbbbbbbbbbbbbbbbbbbb"), DK_T("second"));
  const DKStdString expected = u"Plug-in X options:\n" + OptionLine(u"a", u"first").AsStdString() + u"\n" +
                               NameLine(u"bbbbbbbbbbbbbbbbbbbbbbbbb").AsStdString() + u"\n" +
                               ContinuationLine(u"second").AsStdString() + u"\n";
  EXPECT_EQ(info.FormatUsage(), DKString(expected));
  EXPECT_TRUE(DKUsageInfo().FormatUsage().IsEmpty());
}

} // namespace
