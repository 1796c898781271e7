#include <DorvikCore/DKCollator.h>
#include <DorvikCore/DKMemoryPool.h>
#include <DorvikCore/DKString.h>

#include <gtest/gtest.h>

#include "support/DKPoolLeakCheck.h"
#include "support/DKTestSupport.h"

#include <atomic>
#include <string>

namespace {

constexpr std::size_t npos = DKString::npos;

DKString S(const char16_t* text) { return DKString(text); }

using DKStringTest = DKPoolLeakCheckedTest;

bool IsEmptyBlock(const DKString& s) { return s.GetData() == DKString::GetEmptyData(); }

TEST_F(DKStringTest, EmptyStringsShareTheStaticBlockAndAllocateNothing) {
  const std::size_t before = DMMemoryPool::GetTotalBlocks();
  DKString a, b(u""), c(static_cast<const DKChar*>(nullptr)), d(u'x', 0);
  EXPECT_EQ(DMMemoryPool::GetTotalBlocks(), before);
  for (const DKString* s : {&a, &b, &c, &d}) {
    EXPECT_TRUE(IsEmptyBlock(*s));
    ASSERT_NE(s->c_str(), nullptr);
    EXPECT_EQ(s->c_str()[0], 0);
    EXPECT_TRUE(s->IsNull());
  }
  EXPECT_EQ(DKString::GetEmptyData()->references.load(), 1);

  for (void (*empty)(DKString&) : {+[](DKString& s) { s.Clear(); }, +[](DKString& s) { s.Remove(0, 3); },
                                   +[](DKString& s) { s.LTrim(u"abc"); }}) {
    DKString e(u"abc");
    empty(e);
    EXPECT_TRUE(IsEmptyBlock(e));
  }
  // Copies of the empty string never count the static block.
  DKString h(a), i;
  i = a;
  EXPECT_EQ(DKString::GetEmptyData()->references.load(), 1);
}

TEST_F(DKStringTest, ConstructionForms) {
  EXPECT_EQ(DKString(u"hello", 3), S(u"hel"));
  EXPECT_EQ(DKString(u"hello", 0), S(u"hello"));
  EXPECT_EQ(DKString(u'a', 4), S(u"aaaa"));
  EXPECT_EQ(DKString(DKStdString(u"ab\0cd", 5)), S(u"ab")); // up to the first 0
  EXPECT_EQ(S(u"round").AsStdString(), DKStdString(u"round"));

  DKString a;
  a.Assign(u"abcdef", 2);
  EXPECT_EQ(a, S(u"ab"));
  a.Assign(nullptr, 5);
  EXPECT_TRUE(IsEmptyBlock(a));
  a = u'c';
  EXPECT_EQ(a, S(u"c"));
  a = static_cast<const DKChar*>(nullptr);
  EXPECT_TRUE(IsEmptyBlock(a));
}

TEST_F(DKStringTest, CopiesShareUntilOneChanges) {
  DKString a(u"shared text");
  DKString b(a);
  DKString c;
  c = a;
  EXPECT_EQ(a.GetData(), b.GetData());
  EXPECT_EQ(a.GetData(), c.GetData());
  EXPECT_EQ(a.GetData()->references.load(), 2);

  b += u'!';
  EXPECT_NE(a.GetData(), b.GetData());
  EXPECT_EQ(a, S(u"shared text"));
  EXPECT_EQ(b, S(u"shared text!"));
  EXPECT_EQ(a.GetData()->references.load(), 1);

  c.Set(0, u'S');
  EXPECT_EQ(a, S(u"shared text"));
  EXPECT_EQ(c, S(u"Shared text"));
  EXPECT_EQ(a.GetData()->references.load(), 0);

  DKString& alias = a;
  a = alias; // self-assignment changes nothing
  EXPECT_EQ(a, S(u"shared text"));
  DKString moved(std::move(b));
  EXPECT_EQ(moved, S(u"shared text!"));
  EXPECT_TRUE(IsEmptyBlock(b)); // NOLINT(bugprone-use-after-move): moved-from is empty
}

TEST_F(DKStringTest, EveryEditingOperationUnsharesFirst) {
  struct Case {
    const char* name;
    void (*edit)(DKString&);
  };
  const Case cases[] = {
      {"Append", [](DKString& s) { s.Append(u"x"); }},   {"AppendChar", [](DKString& s) { s += u'x'; }},
      {"Insert", [](DKString& s) { s.Insert(1, u"x"); }}, {"Remove", [](DKString& s) { s.Remove(1, 1); }},
      {"Replace", [](DKString& s) { s.Replace(u"b", u"x"); }}, {"Upper", [](DKString& s) { s.Upper(); }},
      {"LTrim", [](DKString& s) { s.LTrim(u'a'); }},      {"RTrim", [](DKString& s) { s.RTrim(u'c'); }},
      {"Set", [](DKString& s) { s.Set(0, u'x'); }},       {"AssignPointer", [](DKString& s) { s = u"other"; }},
  };
  for (const Case& c : cases) {
    DKString original(u"abc");
    DKString copy(original);
    c.edit(copy);
    EXPECT_EQ(original, S(u"abc")) << c.name;
    EXPECT_NE(copy, S(u"abc")) << c.name;
  }
}

// Every appending form grows the block by a share of its size, not by what it appends: a
// hundred thousand single characters take a few dozen blocks, whichever form appends them.
TEST_F(DKStringTest, EveryAppendingFormGrowsGeometrically) {
  const DKString x(u"x");
  const std::pair<const char*, void (*)(DKString&, const DKString&)> forms[] = {
      {"+= char", [](DKString& s, const DKString&) { s += u'x'; }},
      {"+= pointer", [](DKString& s, const DKString&) { s += u"x"; }},
      {"+= string", [](DKString& s, const DKString& one) { s += one; }},
      {"Append(char)", [](DKString& s, const DKString&) { s.Append(u'x'); }},
      {"Append(pointer, 1)", [](DKString& s, const DKString&) { s.Append(u"xyz", 1); }},
      {"Insert(end, char)", [](DKString& s, const DKString&) { s.Insert(s.Length(), u'x'); }},
      {"Insert(end, pointer)", [](DKString& s, const DKString&) { s.Insert(DKString::npos, u"x"); }},
      {"Insert(end, string)", [](DKString& s, const DKString& one) { s.Insert(s.Length(), one); }},
  };
  for (const auto& [name, append] : forms) {
    DKString s;
    std::size_t blocks = 0;
    for (const DKString::DataDef* block = s.GetData(); s.Length() < 100000;) {
      append(s, x);
      blocks += s.GetData() != block;
      block = s.GetData();
    }
    EXPECT_LT(blocks, 40u) << name;
    EXPECT_EQ(s, DKString(u'x', 100000)) << name;
    EXPECT_EQ(s.c_str()[100000], 0) << name;
  }
  DKString t(u"abcd");
  t.ResizeCapacity(20); // an explicit request is taken as it stands
  EXPECT_EQ(t.Capacity(), 20u);
}

TEST_F(DKStringTest, AppendAndInsertAcceptTextFromTheStringItself) {
  DKString s(u"abc");
  s.Append(s);
  EXPECT_EQ(s, S(u"abcabc"));
  s.Append(s.c_str() + 4);
  EXPECT_EQ(s, S(u"abcabcbc"));
  DKString t(u"xyz");
  t.Insert(1, t.c_str());
  EXPECT_EQ(t, S(u"xxyzyz"));
  DKString u(u"12");
  u.Insert(5, u); // past the end: at the end
  EXPECT_EQ(u, S(u"1212"));
  u.Insert(0, static_cast<const DKChar*>(nullptr));
  EXPECT_EQ(u, S(u"1212"));
  u.Append(nullptr, 3);
  u.Append(u"", 0);
  EXPECT_EQ(u, S(u"1212"));
  DKString v(u"abc");
  v.Append(u"defgh", 2);
  EXPECT_EQ(v, S(u"abcde"));
  v = v.c_str() + 2; // assignment from its own tail
  EXPECT_EQ(v, S(u"cde"));
}

TEST_F(DKStringTest, Concatenation) {
  EXPECT_EQ(S(u"ab") + S(u"cd"), S(u"abcd"));
  EXPECT_EQ(S(u"ab") + u"cd", S(u"abcd"));
  EXPECT_EQ(u"ab" + S(u"cd"), S(u"abcd"));
  EXPECT_EQ(S(u"ab") + u'c', S(u"abc"));
  EXPECT_EQ(DKString() + S(u"x"), S(u"x"));
}

struct RemoveCase {
  const char16_t* text;
  std::size_t pos, count;
  const char16_t* expected;
};

TEST_F(DKStringTest, RemoveAndSubStr) {
  const RemoveCase removes[] = {
      {u"abcd", 0, npos, u""},  {u"abcd", 2, npos, u"ab"}, {u"abcd", 1, 2, u"ad"}, {u"abcd", 4, 1, u"abcd"},
      {u"abcd", 1, 0, u"abcd"}, {u"abcd", 3, 9, u"abc"}, {u"", 0, 1, u""},
  };
  for (const RemoveCase& c : removes) {
    DKString s(c.text);
    s.Remove(c.pos, c.count);
    EXPECT_EQ(s, S(c.expected)) << "Remove(" << c.pos << ", " << c.count << ")";
  }
  const RemoveCase subs[] = {
      {u"abcd", 1, 2, u"bc"},  {u"abcd", 1, npos, u"bcd"}, {u"abcd", 2, 99, u"cd"},
      {u"abcd", 4, 1, u""},    {u"abcd", 0, 0, u""},       {u"abcd", 9, npos, u""},
  };
  for (const RemoveCase& c : subs)
    EXPECT_EQ(S(c.text).SubStr(c.pos, c.count), S(c.expected)) << "SubStr(" << c.pos << ", " << c.count << ")";
  DKString whole(u"whole");
  EXPECT_EQ(whole.SubStr(0).GetData(), whole.GetData()); // the whole text shares the block
}

struct ReplaceCase {
  const char16_t* text;
  const char16_t* find;
  const char16_t* repl;
  const char16_t* expected;
  std::size_t count;
};

TEST_F(DKStringTest, Replace) {
  const ReplaceCase cases[] = {
      {u"aa", u"a", u"aa", u"aaaa", 2},          {u"hello world", u"o", u"0", u"hell0 w0rld", 2},
      {u"abcabc", u"abc", u"", u"", 2},           {u"abcabc", u"abc", nullptr, u"", 2},
      {u"abc", u"", u"x", u"abc", 0},             {u"abc", nullptr, u"x", u"abc", 0},
      {u"aaa", u"aa", u"b", u"ba", 1},            {u"xyz", u"q", u"r", u"xyz", 0},
      {u"one two", u"two", u"three", u"one three", 1},
  };
  for (const ReplaceCase& c : cases) {
    DKString s(c.text);
    EXPECT_EQ(s.Replace(c.find, c.repl), c.count) << DKString(c.text).AsUTF8();
    EXPECT_EQ(s, S(c.expected)) << DKString(c.text).AsUTF8();
  }
  DKString s(u"abab"), copy(s);
  EXPECT_EQ(s.Replace(S(u"b"), S(u"cc")), 2u);
  EXPECT_EQ(s, S(u"accacc"));
  EXPECT_EQ(copy, S(u"abab"));
  DKString self(u"ab");
  self.Replace(self, self); // find and replacement share the block being replaced
  EXPECT_EQ(self, S(u"ab"));
  DKString none(u"abc"), shared(none);
  none.Replace(u"q", u"r");
  EXPECT_EQ(none.GetData(), shared.GetData()); // nothing found: still shared
}

struct TrimCase {
  bool right; // RTrim, else LTrim
  const char16_t* text;
  DKChar ch;
  const char16_t* set; // used instead of ch when not null
  std::size_t start;
  const char16_t* expected;
};

TEST_F(DKStringTest, TrimRules) {
  const TrimCase cases[] = {
      {false, u"ab  cd", u' ', nullptr, 2, u"cd"}, // characters before start go whatever they are
      {false, u"  ab", u' ', nullptr, 0, u"ab"},     {false, u"ab", u' ', nullptr, 0, u"ab"},
      {false, u"aaa", u'a', nullptr, 0, u""},        {false, u"abc", u'c', nullptr, 9, u""}, // past the end: last char
      {false, u"abc", u'x', nullptr, 9, u"c"},       {false, u"", u' ', nullptr, 0, u""},
      {false, u"abc", 0, u" ", 10, u""},             // start past the end empties the string
      {false, u"abc", 0, u"", 10, u""},              {false, u"abc", 0, u"", 0, u"abc"},
      {false, u" \tx ", 0, u" \t", 0, u"x "},        {false, u"xy  z", 0, u" ", 2, u"z"},
      {false, u"   ", 0, u" ", 0, u""},              {false, u"abc", 0, u"x", 0, u"abc"},
      {true, u"axxb", u'x', nullptr, 1, u"axx"},     // counts from start, removes from the end
      {true, u"abxx", u'x', nullptr, npos, u"ab"},   {true, u"abxx", u'x', nullptr, 2, u"abx"}, // one 'x' at or below start
      {true, u"abxx", u'x', nullptr, 1, u"abxx"},    {true, u"xxx", u'x', nullptr, npos, u""},
      {true, u"", u'x', nullptr, npos, u""},         {true, u"ab  ", 0, u" ", npos, u"ab"},
      {true, u"ab c ", 0, u" ", 2, u"ab"},           // also after start
      {true, u"   ", 0, u" ", npos, u""},            {true, u"abc", 0, u"", npos, u"abc"},
      {true, u"abc", 0, u"x", npos, u"abc"},         {true, u"a \t", 0, u" \t", npos, u"a"},
  };
  for (const TrimCase& c : cases) {
    DKString s(c.text);
    if (c.set)
      c.right ? s.RTrim(c.set, c.start) : s.LTrim(c.set, c.start);
    else
      c.right ? s.RTrim(c.ch, c.start) : s.LTrim(c.ch, c.start);
    EXPECT_EQ(s, S(c.expected)) << (c.right ? "R" : "L") << "Trim of '" << DKString(c.text).AsUTF8() << "' from " << c.start;
  }
  DKString t(u"  both  ");
  EXPECT_EQ(t.Trim(), S(u"both"));
}

struct FindCase {
  const char* what;
  std::size_t (*find)(const DKString&);
  std::size_t expected;
};

// Empty and null needles and sets, and the start at the end; the rest of every search is
// checked against the standard library by DKStringSurfaceTest.SearchesAgreeWithTheStandardOnes.
TEST_F(DKStringTest, SearchingRules) {
  const FindCase cases[] = {
      {"Find start = length", [](const DKString& s) { return s.Find(u"a", 7); }, npos},
      {"Find empty needle", [](const DKString& s) { return s.Find(u"", 3); }, 3},
      {"Find empty needle at length", [](const DKString& s) { return s.Find(u"", 7); }, npos},
      {"Find null needle", [](const DKString& s) { return s.Find(static_cast<const DKChar*>(nullptr), 2); }, 2},
      {"FindFirstOf empty set", [](const DKString& s) { return s.FindFirstOf(u"", 0); }, npos},
      {"FindFirstNotOf empty set is 0", [](const DKString& s) { return s.FindFirstNotOf(u"", 5); }, 0},
      {"FindFirstNotOf start past end", [](const DKString& s) { return s.FindFirstNotOf(u"", 7); }, npos},
      {"FindLastOf empty set", [](const DKString& s) { return s.FindLastOf(u""); }, npos},
      {"FindLastNotOf empty set", [](const DKString& s) { return s.FindLastNotOf(u"", 1); }, 6},
  };
  const DKString text(u"abcdabc");
  for (const FindCase& c : cases)
    EXPECT_EQ(c.find(text), c.expected) << c.what;

  const DKString empty;
  EXPECT_EQ(empty.Find(u""), npos);
  EXPECT_EQ(empty.RFind(u""), npos);
  EXPECT_EQ(empty.FindLastNotOf(u""), npos);
  EXPECT_EQ(empty.FindLastOf(u"a"), npos);
}

// Null texts and flag bits; Compare and the operators are checked against std::u16string by
// DKStringSurfaceTest.OrderingIsCodeUnitOrderInBothOperandOrders.
TEST_F(DKStringTest, PlainComparison) {
  for (long flags : {0L, 1L, 2L, 3L}) {
    EXPECT_EQ(S(u"x").Compare(static_cast<const DKChar*>(nullptr), flags), -1);
    EXPECT_EQ(DKString().Compare(static_cast<const DKChar*>(nullptr), flags), 0);
  }
  EXPECT_EQ(S(u"abc").Compare(u"ABC", 8), 1); // unknown flag bits are ignored
}

TEST_F(DKStringTest, CaseMapping) {
  DKString s(u"Grüße, ΣΟΦΊΑ! 123");
  DKString copy(s);
  s.Upper();
  EXPECT_EQ(s, S(u"GRÜßE, ΣΟΦΊΑ! 123")); // ß has no one-unit upper-case form
  s.Lower();
  EXPECT_EQ(s, S(u"grüße, σοφία! 123"));
  EXPECT_EQ(copy, S(u"Grüße, ΣΟΦΊΑ! 123"));
  DKString digits(u"123"), shared(digits);
  digits.Upper();
  EXPECT_EQ(digits.GetData(), shared.GetData()); // nothing to change: still shared
}

TEST_F(DKStringTest, SetIgnoresPositionsOutsideTheText) {
  DKString s(u"ab");
  s.Set(2, u'x');
  s.Set(npos, u'x');
  EXPECT_EQ(s, S(u"ab"));
  EXPECT_EQ(s.c_str()[2], 0);
  DKString e;
  e.Set(0, u'x');
  EXPECT_TRUE(IsEmptyBlock(e));
}

TEST_F(DKStringTest, CopiesMayBeTakenAndDroppedOnManyThreads) {
  const DKString source(u"shared among threads");
  std::atomic<int> mismatches{0};
  RunOnThreads(4, 20000, [&](int, int i) {
    DKString copy(source);
    if (i % 100 == 0) {
      copy += u'!'; // unshares on this thread only
      mismatches += copy.Length() != source.Length() + 1;
    }
  });
  EXPECT_EQ(mismatches.load(), 0);
  EXPECT_EQ(source.GetData()->references.load(), 0);
  EXPECT_EQ(source, S(u"shared among threads"));
}

TEST_F(DKStringTest, HashFollowsEquality) {
  std::hash<DKString> h;
  EXPECT_EQ(h(S(u"key")), h(DKString(u"key one", 3)));
  EXPECT_NE(h(S(u"key")), h(S(u"kez")));
}

} // namespace
