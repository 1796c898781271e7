#include <DorvikCore/DKMemoryPool.h>
#include <DorvikCore/DKString.h>

#include <gtest/gtest.h>

#include "support/DKPoolLeakCheck.h"
#include "support/DKTestSupport.h"
#include "support/DKCaseBlocks.h"
#if defined(__GLIBC__)
#  include <malloc.h>
#endif

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr std::size_t npos = DKString::npos;

DKString S(const DKChar* text) { return DKString(text); }

using DKStringTest = DKPoolLeakCheckedTest;

bool IsEmptyBlock(const DKString& s) { return s.GetData() == DKString::GetEmptyData(); }

TEST_F(DKStringTest, EmptyStringsShareTheStaticBlockAndAllocateNothing) {
  const std::size_t before = DMMemoryPool::GetTotalBlocks();
  DKString a, b(DK_T("")), c(static_cast<const DKChar*>(nullptr)), d(DK_T('x'), 0);
  EXPECT_EQ(DMMemoryPool::GetTotalBlocks(), before);
  for (const DKString* s : {&a, &b, &c, &d}) {
    EXPECT_TRUE(IsEmptyBlock(*s)); // its text is "": EditsUnshareFirstAndReadTheirOwnText
    EXPECT_TRUE(s->IsNull());
  }

  // Copies of the empty string never count the static block.
  DKString h(a), i;
  i = a;
  EXPECT_EQ(DKString::GetEmptyData()->references.load(), 1);
}

TEST_F(DKStringTest, ConstructionCopiesMovesAndHash) {
  EXPECT_EQ(DKString(DK_T("hello"), 3), S(DK_T("hel")));
  EXPECT_EQ(DKString(DK_T("hello"), 0), S(DK_T("hello")));
  EXPECT_EQ(DKString(DK_T('a'), 4), S(DK_T("aaaa")));
  EXPECT_EQ(DKString(DKStdString(DK_T("ab\0cd"), 5)), S(DK_T("ab"))); // up to the first 0

  // Copies share the block; a move empties the source.
  DKString a(DK_T("shared text")), b(a), c;
  c = a;
  EXPECT_EQ(a.GetData(), b.GetData());
  EXPECT_EQ(a.GetData(), c.GetData());
  DKString moved(std::move(b));
  EXPECT_EQ(moved.GetData(), a.GetData());
  EXPECT_TRUE(IsEmptyBlock(b)); // NOLINT(bugprone-use-after-move): moved-from is empty

  // The hash follows equality.
  std::hash<DKString> h;
  EXPECT_EQ(h(S(DK_T("key"))), h(DKString(DK_T("key one"), 3)));
  EXPECT_NE(h(S(DK_T("key"))), h(S(DK_T("kez"))));
}

// Each edit is made on a string that shares its block with a copy: the copy keeps its text, and an
// empty result is the static empty block. The edits that take text from the string itself must
// read it before they change it.
struct EditCase {
  const char* name;
  const DKChar* text;
  void (*edit)(DKString&);
  const DKChar* expected; // nullptr: the edit changes nothing, and the block stays shared
};

const EditCase editCases[] = {
    {"Append", DK_T("abc"), [](DKString& s) { s.Append(DK_T("x")); }, DK_T("abcx")},
    {"+= char", DK_T("abc"), [](DKString& s) { s += DK_T('x'); }, DK_T("abcx")},
    {"Append counted", DK_T("abc"), [](DKString& s) { s.Append(DK_T("defgh"), 2); }, DK_T("abcde")},
    {"Insert", DK_T("abc"), [](DKString& s) { s.Insert(1, DK_T("x")); }, DK_T("axbc")},
    {"Remove", DK_T("abc"), [](DKString& s) { s.Remove(1, 1); }, DK_T("ac")},
    {"Replace", DK_T("abc"), [](DKString& s) { s.Replace(DK_T("b"), DK_T("x")); }, DK_T("axc")},
    {"Replace strings", DK_T("abab"), [](DKString& s) { s.Replace(S(DK_T("b")), S(DK_T("cc"))); }, DK_T("accacc")},
    {"LTrim", DK_T("abc"), [](DKString& s) { s.LTrim(DK_T('a')); }, DK_T("bc")},
    {"RTrim", DK_T("abc"), [](DKString& s) { s.RTrim(DK_T('c')); }, DK_T("ab")},
    {"Set", DK_T("abc"), [](DKString& s) { s.Set(0, DK_T('x')); }, DK_T("xbc")},
    {"assign text", DK_T("abc"), [](DKString& s) { s = DK_T("other"); }, DK_T("other")},
    {"assign char", DK_T("abc"), [](DKString& s) { s = DK_T('c'); }, DK_T("c")},
    {"Assign counted", DK_T("abc"), [](DKString& s) { s.Assign(DK_T("xyzw"), 2); }, DK_T("xy")},
    {"+ string", DK_T("ab"), [](DKString& s) { s = s + S(DK_T("cd")); }, DK_T("abcd")},
    {"+ text", DK_T("ab"), [](DKString& s) { s = s + DK_T("cd"); }, DK_T("abcd")},
    {"text +", DK_T("cd"), [](DKString& s) { s = DK_T("ab") + s; }, DK_T("abcd")},
    {"+ char", DK_T("ab"), [](DKString& s) { s = s + DK_T('c'); }, DK_T("abc")},
    {"empty +", DK_T(""), [](DKString& s) { s = s + S(DK_T("x")); }, DK_T("x")},
    // ß has no one-unit upper-case form.
    {"Upper", DK_T("Grüße, ΣΟΦΊΑ! 123"), [](DKString& s) { s.Upper(); }, DK_T("GRÜßE, ΣΟΦΊΑ! 123")},
    {"Lower", DK_T("GRÜßE, ΣΟΦΊΑ! 123"), [](DKString& s) { s.Lower(); }, DK_T("grüße, σοφία! 123")},
    // Results that are empty.
    {"Clear", DK_T("abc"), [](DKString& s) { s.Clear(); }, DK_T("")},
    {"Remove all", DK_T("abc"), [](DKString& s) { s.Remove(0, 3); }, DK_T("")},
    {"LTrim all", DK_T("abc"), [](DKString& s) { s.LTrim(DK_T("abc")); }, DK_T("")},
    {"Assign null", DK_T("abc"), [](DKString& s) { s.Assign(nullptr, 5); }, DK_T("")},
    {"assign null", DK_T("abc"), [](DKString& s) { s = static_cast<const DKChar*>(nullptr); }, DK_T("")},
    {"Set on empty", DK_T(""), [](DKString& s) { s.Set(0, DK_T('x')); }, DK_T("")},
    // Text from the string itself.
    {"Append itself", DK_T("abc"), [](DKString& s) { s.Append(s); }, DK_T("abcabc")},
    {"Append own tail", DK_T("abcabc"), [](DKString& s) { s.Append(s.c_str() + 4); }, DK_T("abcabcbc")},
    {"Insert own text", DK_T("xyz"), [](DKString& s) { s.Insert(1, s.c_str()); }, DK_T("xxyzyz")},
    {"Insert itself past the end", DK_T("12"), [](DKString& s) { s.Insert(5, s); }, DK_T("1212")},
    {"assign own tail", DK_T("abcde"), [](DKString& s) { s = s.c_str() + 2; }, DK_T("cde")},
    {"Replace with itself", DK_T("ab"), [](DKString& s) { s.Replace(s, s); }, DK_T("ab")},
    // Edits that change nothing.
    {"self-assignment", DK_T("abc"), [](DKString& s) { s = static_cast<const DKString&>(s); }, nullptr},
    {"Insert null", DK_T("12"), [](DKString& s) { s.Insert(0, static_cast<const DKChar*>(nullptr)); }, nullptr},
    {"Append null", DK_T("12"), [](DKString& s) { s.Append(nullptr, 3); }, nullptr},
    {"Append nothing", DK_T("12"), [](DKString& s) { s.Append(DK_T(""), 0); }, nullptr},
    {"Set at the end", DK_T("ab"), [](DKString& s) { s.Set(2, DK_T('x')); }, nullptr},
    {"Set at npos", DK_T("ab"), [](DKString& s) { s.Set(npos, DK_T('x')); }, nullptr},
    {"Replace finds nothing", DK_T("abc"), [](DKString& s) { s.Replace(DK_T("q"), DK_T("r")); }, nullptr},
};

TEST_F(DKStringTest, EditsUnshareFirstAndReadTheirOwnText) {
  for (const EditCase& c : editCases) {
    SCOPED_TRACE(c.name);
    const DKString original(c.text);
    DKString s(original);
    c.edit(s);
    EXPECT_EQ(s, S(c.expected ? c.expected : c.text));
    EXPECT_EQ(s.c_str()[s.Length()], 0);
    EXPECT_EQ(original, S(c.text));
    EXPECT_TRUE(c.expected || s.GetData() == original.GetData()) << "no change, yet no longer shared";
    EXPECT_TRUE(!s.IsEmpty() || IsEmptyBlock(s)) << "empty, yet not the static block";
  }
}

// Every appending path grows the block by a share of its size, not by what it appends: a
// hundred thousand single characters take a few dozen blocks. (The other forms call these.)
TEST_F(DKStringTest, EveryAppendingFormGrowsGeometrically) {
  const std::pair<const char*, void (*)(DKString&)> forms[] = {
      {"+= char", [](DKString& s) { s += DK_T('x'); }},
      {"Append(pointer, 1)", [](DKString& s) { s.Append(DK_T("xyz"), 1); }},
      {"Insert(end, char)", [](DKString& s) { s.Insert(s.Length(), DK_T('x')); }},
  };
  for (const auto& [name, append] : forms) {
    DKString s;
    // The capacity, not the block: the pool may grow a private block where it lies.
    std::size_t grows = 0;
    for (std::size_t capacity = s.Capacity(); s.Length() < 100000;) {
      append(s);
      grows += s.Capacity() != capacity;
      capacity = s.Capacity();
    }
    EXPECT_LT(grows, 40u) << name;
    EXPECT_EQ(s, DKString(DK_T('x'), 100000)) << name;
    EXPECT_EQ(s.c_str()[100000], 0) << name;
  }
}

std::size_t Position(const std::string& text) { return text == "npos" ? npos : std::stoull(text); }

// The cuts of cases/string-cuts.txt: Remove, SubStr, Replace, LTrim and RTrim.
TEST_F(DKStringTest, CutsOfTheCaseFile) {
  for (const dkcases::Case& c : dkcases::Read("string-cuts.txt", {"text", "remove", "substr", "replace", "with", "count",
                                                                    "ltrim char", "rtrim char", "ltrim set", "rtrim set",
                                                                    "start", "expected"})) {
    SCOPED_TRACE(c.where);
    DKString s = dkcases::Units(c.Get("text"));
    std::istringstream range(c.Get("remove", c.Get("substr", "")));
    std::string pos, count;
    range >> pos >> count;
    if (c.Has("remove"))
      s.Remove(Position(pos), Position(count));
    if (c.Has("substr"))
      s = s.SubStr(Position(pos), Position(count));
    if (c.Has("replace")) {
      EXPECT_EQ(s.Replace(dkcases::Units(c.Get("replace")).c_str(), dkcases::Units(c.Get("with")).c_str()), Position(c.Get("count")));
    }
    const std::size_t start = Position(c.Get("start", "npos"));
    const DKString set = dkcases::Units(c.Get("ltrim set", c.Get("rtrim set", "")));
    const DKChar ch = dkcases::Units(c.Get("ltrim char", c.Get("rtrim char", "?")))[0];
    if (c.Has("ltrim char"))
      s.LTrim(ch, start);
    if (c.Has("rtrim char"))
      s.RTrim(ch, start);
    if (c.Has("ltrim set"))
      s.LTrim(set.c_str(), start);
    if (c.Has("rtrim set"))
      s.RTrim(set.c_str(), start);
    EXPECT_EQ(s, dkcases::Units(c.Get("expected")));
  }
  // Null texts to find or to put in: nothing is found, or what is found is removed.
  DKString s(DK_T("abcabc"));
  EXPECT_EQ(s.Replace(DK_T("abc"), nullptr), 2u);
  EXPECT_EQ(s, S(DK_T("")));
  s = DK_T("abc");
  EXPECT_EQ(s.Replace(nullptr, DK_T("x")), 0u);
  EXPECT_EQ(s, S(DK_T("abc")));
  EXPECT_EQ(S(DK_T("  both  ")).Trim(), S(DK_T("both")));
  DKString whole(DK_T("whole"));
  EXPECT_EQ(whole.SubStr(0).GetData(), whole.GetData()); // the whole text shares the block
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
      {"Find start = length", [](const DKString& s) { return s.Find(DK_T("a"), 7); }, npos},
      {"Find empty needle", [](const DKString& s) { return s.Find(DK_T(""), 3); }, 3},
      {"Find empty needle at length", [](const DKString& s) { return s.Find(DK_T(""), 7); }, npos},
      {"Find null needle", [](const DKString& s) { return s.Find(static_cast<const DKChar*>(nullptr), 2); }, 2},
      {"FindFirstOf empty set", [](const DKString& s) { return s.FindFirstOf(DK_T(""), 0); }, npos},
      {"FindFirstNotOf empty set is 0", [](const DKString& s) { return s.FindFirstNotOf(DK_T(""), 5); }, 0},
      {"FindFirstNotOf start past end", [](const DKString& s) { return s.FindFirstNotOf(DK_T(""), 7); }, npos},
      {"FindLastOf empty set", [](const DKString& s) { return s.FindLastOf(DK_T("")); }, npos},
      {"FindLastNotOf empty set", [](const DKString& s) { return s.FindLastNotOf(DK_T(""), 1); }, 6},
  };
  const DKString text(DK_T("abcdabc"));
  for (const FindCase& c : cases)
    EXPECT_EQ(c.find(text), c.expected) << c.what;

  const DKString empty;
  EXPECT_EQ(empty.RFind(DK_T("")), npos);
  EXPECT_EQ(empty.FindLastNotOf(DK_T("")), npos);
}

// Null texts and flag bits; Compare and the operators are checked against std::u16string by
// DKStringSurfaceTest.OrderingIsCodeUnitOrderInBothOperandOrders.
TEST_F(DKStringTest, PlainComparison) {
  for (long flags : {0L, 1L, 2L, 3L}) {
    EXPECT_EQ(S(DK_T("x")).Compare(static_cast<const DKChar*>(nullptr), flags), -1);
    EXPECT_EQ(DKString().Compare(static_cast<const DKChar*>(nullptr), flags), 0);
  }
  EXPECT_EQ(S(DK_T("abc")).Compare(DK_T("ABC"), 8), 1); // unknown flag bits are ignored
}

TEST_F(DKStringTest, CopiesMayBeTakenAndDroppedOnManyThreads) {
  const DKString source(DK_T("shared among threads"));
  std::atomic<int> mismatches{0};
  RunOnThreads(4, 20000, [&](int, int i) {
    DKString copy(source);
    if (i % 100 == 0) {
      copy += DK_T('!'); // unshares on this thread only
      mismatches += copy.Length() != source.Length() + 1;
    }
  });
  EXPECT_EQ(mismatches.load(), 0);
  EXPECT_EQ(source.GetData()->references.load(), 0);
  EXPECT_EQ(source, S(DK_T("shared among threads")));
}

// The pool counts each thread apart and keeps what ended threads counted: blocks taken on one
// thread and given back on another, by threads that end in between, leave the counts exact.
TEST_F(DKStringTest, PoolCountsStayExactAsManyThreadsEnd) {
  const std::size_t totalBefore = DMMemoryPool::GetTotalBlocks();
  constexpr int rounds = 8, threadsPerRound = 16, blocksPerThread = 64;
  std::vector<void*> fromMain;
  for (int i = 0; i < threadsPerRound * blocksPerThread / 2; ++i)
    fromMain.push_back(DMMemoryPool::New(static_cast<std::size_t>(i % 97)));
  std::size_t taken = fromMain.size();
  for (int round = 0; round < rounds; ++round) {
    std::vector<std::vector<void*>> kept(threadsPerRound);
    RunOnThreads(threadsPerRound, 1, [&](int t, int) {
      for (int i = 0; i < blocksPerThread; ++i) {
        void* block = DMMemoryPool::New(static_cast<std::size_t>(t * 31 + i));
        if (i % 2)
          DMMemoryPool::Delete(block);
        else
          kept[static_cast<std::size_t>(t)].push_back(block);
      }
      if (round == 0) // blocks of the main thread given back here
        for (int i = 0; i < blocksPerThread / 2; ++i)
          DMMemoryPool::Delete(fromMain[static_cast<std::size_t>(t * blocksPerThread / 2 + i)]);
    });
    taken += static_cast<std::size_t>(threadsPerRound * blocksPerThread);
    for (const std::vector<void*>& blocks : kept) // blocks of ended threads given back here
      for (void* block : blocks)
        DMMemoryPool::Delete(block);
  }
  EXPECT_EQ(DMMemoryPool::GetTotalBlocks() - totalBefore, taken);
}

// Freed small blocks are handed out again by size: every block, new or reused, grown or shrunk,
// holds all the bytes asked for without touching another. Each live block is filled with its
// own byte and all are checked after every round of frees, reuses and resizes.
TEST_F(DKStringTest, ReusedAndResizedPoolBlocksHoldTheirWholeSize) {
  struct Block {
    unsigned char* data;
    std::size_t size;
    bool sized;
  };
  std::vector<Block> blocks;
  unsigned fill = 0;
  const auto paint = [&](Block& b) { std::fill_n(b.data, b.size, static_cast<unsigned char>(++fill)); };
  const auto intact = [&] {
    for (const Block& b : blocks)
      if (b.size && std::count(b.data, b.data + b.size, b.data[0]) != static_cast<std::ptrdiff_t>(b.size))
        return false;
    return true;
  };
  const auto give = [](const Block& b) { b.sized ? DMMemoryPool::DeleteSized(b.data, b.size) : DMMemoryPool::Delete(b.data); };
  for (std::size_t size = 0; size <= 300; ++size) {
    const bool sized = size % 2 == 0;
    void* p = sized ? DMMemoryPool::NewSized(size) : DMMemoryPool::New(size);
    blocks.push_back({static_cast<unsigned char*>(p), size, sized});
    paint(blocks.back());
  }
  for (int round = 0; round < 4; ++round) {
    for (std::size_t i = static_cast<std::size_t>(round) % 3; i < blocks.size(); i += 3) {
      Block& b = blocks[i];
      if (round % 2) { // freed, then a block of a size near it taken in its place
        give(b);
        b.size = (b.size * 7 + 5) % 301;
        b.data = static_cast<unsigned char*>(b.sized ? DMMemoryPool::NewSized(b.size) : DMMemoryPool::New(b.size));
      } else { // resized across a step: the kept part stays
        const std::size_t size = (b.size * 5 + 17) % 301;
        const unsigned char first = b.size ? b.data[0] : 0;
        b.data = static_cast<unsigned char*>(b.sized ? DMMemoryPool::ResizeSized(b.data, b.size, size)
                                                     : DMMemoryPool::Resize(b.data, size));
        ASSERT_EQ(std::count(b.data, b.data + std::min(b.size, size), first), static_cast<std::ptrdiff_t>(std::min(b.size, size)));
        b.size = size;
      }
      paint(b);
    }
    ASSERT_TRUE(intact()) << "round " << round;
  }
  for (const Block& b : blocks)
    give(b);
}

TEST_F(DKStringTest, APoolBlockTakesNoMoreOfTheHeapThanTheExactSizeWould) {
#if !defined(__GLIBC__)
  GTEST_SKIP() << "the C library's block sizes are read with malloc_usable_size";
#else
  // Rounding a small block up to its step must stay inside the block malloc gives for the
  // exact size, or every short string costs a larger block.
  for (std::size_t size = 1; size <= 300; ++size) {
    void* pooled = DMMemoryPool::NewSized(size);
    void* exact = std::malloc(size);
    EXPECT_EQ(::malloc_usable_size(pooled), ::malloc_usable_size(exact)) << size << " bytes";
    std::free(exact);
    DMMemoryPool::DeleteSized(pooled, size);
  }
#endif
}

} // namespace
