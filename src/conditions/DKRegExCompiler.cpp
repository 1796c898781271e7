// Pattern text to program: a parser that builds a syntax tree with an explicit stack of open
// groups, a size check with counted repetitions written out, and Thompson's construction run
// over the tree with an explicit work stack, so that no step recurses on the pattern's nesting.
#include "conditions/DKRegExProgram.h"

#include <DorvikCore/DKRegEx.h>

#include <algorithm>
#include <iterator>
#include <limits>
#include <string>
#include <unordered_map>

// The error texts name the limits.
static_assert(DKRegEx::maxRepeatCount == 1000 && DKRegEx::maxProgramSize == 20000, "update the error texts");

namespace dkre {

void CharSet::Normalize() {
  std::sort(m_ranges.begin(), m_ranges.end(), [](const Range& a, const Range& b) { return a.lo < b.lo; });
  std::size_t out = 0;
  for (const Range& r : m_ranges) {
    if (out > 0 && r.lo <= m_ranges[out - 1].hi + 1)
      m_ranges[out - 1].hi = std::max(m_ranges[out - 1].hi, r.hi);
    else
      m_ranges[out++] = r;
  }
  m_ranges.resize(out);
  m_ascii[0] = m_ascii[1] = 0;
  for (const Range& r : m_ranges)
    for (char32_t c = r.lo; c <= r.hi && c < 128; ++c)
      m_ascii[c >> 6] |= std::uint64_t{1} << (c & 63);
}

void CharSet::Negate() {
  std::vector<Range> complement;
  char32_t next = 0;
  for (const Range& r : m_ranges) {
    if (r.lo > next)
      complement.push_back({next, r.lo - 1});
    next = r.hi + 1;
  }
  if (next <= maxCodePoint)
    complement.push_back({next, maxCodePoint});
  m_ranges.swap(complement);
  Normalize();
}

// The compiler's use of Program's internals.
class Compiler {
public:
  static void Install(Program& program, std::vector<Inst>&& insts, std::vector<CharSet>&& sets, std::uint32_t start,
                      std::uint32_t matchPc, std::size_t cacheBytes);

private:
  static void BuildClasses(Program& program);
};

namespace {

enum class NodeKind : std::uint8_t { Empty, Char, Set, Begin, End, Concat, Alternate, Star, Plus, Quest, Repeat };

constexpr std::uint32_t unbounded = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint32_t nil = std::numeric_limits<std::uint32_t>::max();

// A node of the syntax tree. Children always have smaller indices than their parent.
struct Node {
  NodeKind kind;
  std::uint32_t arg = 0;   // Char: code point; Set: set index; Repeat: minimum
  std::uint32_t arg2 = 0;  // Repeat: maximum or unbounded
  std::uint32_t child = 0; // Concat, Alternate: first index into children; others: the child node
  std::uint32_t count = 0; // Concat, Alternate: number of children
  std::uint32_t at = 0;    // where in the pattern the node was made (a quantifier's own position)
};

struct ParseError {
  std::string what;
  std::size_t position;
};

CharSet MakeSet(const CharSet::Range* ranges, std::size_t count, bool negate) {
  CharSet set;
  for (std::size_t i = 0; i < count; ++i)
    set.Add(ranges[i].lo, ranges[i].hi);
  set.Normalize();
  if (negate)
    set.Negate();
  return set;
}

// One pair of sets (as given, negated) per table: the table itself is the template argument.
template <const auto& ranges>
const CharSet& CachedSet(bool negate) {
  static const CharSet sets[2] = {MakeSet(ranges, std::size(ranges), false), MakeSet(ranges, std::size(ranges), true)};
  return sets[negate];
}

constexpr CharSet::Range digitRanges[] = {{'0', '9'}};
constexpr CharSet::Range wordRanges[] = {{'0', '9'}, {'A', 'Z'}, {'_', '_'}, {'a', 'z'}};
// White space and line terminators as ECMAScript's \s has them.
constexpr CharSet::Range spaceRanges[] = {{0x09, 0x0D},     {0x20, 0x20},     {0xA0, 0xA0},     {0x1680, 0x1680},
                                          {0x2000, 0x200A}, {0x2028, 0x2029}, {0x202F, 0x202F}, {0x205F, 0x205F},
                                          {0x3000, 0x3000}, {0xFEFF, 0xFEFF}};
constexpr CharSet::Range lineTerminators[] = {{'\n', '\n'}, {'\r', '\r'}, {0x2028, 0x2029}};

const CharSet& DigitSet(bool negate) { return CachedSet<digitRanges>(negate); }
const CharSet& WordSet(bool negate) { return CachedSet<wordRanges>(negate); }
const CharSet& SpaceSet(bool negate) { return CachedSet<spaceRanges>(negate); }
const CharSet& DotSet() { return CachedSet<lineTerminators>(true); }

// The POSIX classes of bracket expressions, ASCII as in the C locale.
constexpr CharSet::Range alnumRanges[] = {{'0', '9'}, {'A', 'Z'}, {'a', 'z'}};
constexpr CharSet::Range alphaRanges[] = {{'A', 'Z'}, {'a', 'z'}};
constexpr CharSet::Range blankRanges[] = {{'\t', '\t'}, {' ', ' '}};
constexpr CharSet::Range cntrlRanges[] = {{0x00, 0x1F}, {0x7F, 0x7F}};
constexpr CharSet::Range graphRanges[] = {{0x21, 0x7E}};
constexpr CharSet::Range lowerRanges[] = {{'a', 'z'}};
constexpr CharSet::Range printRanges[] = {{0x20, 0x7E}};
constexpr CharSet::Range punctRanges[] = {{0x21, 0x2F}, {0x3A, 0x40}, {0x5B, 0x60}, {0x7B, 0x7E}};
constexpr CharSet::Range asciiSpaceRanges[] = {{0x09, 0x0D}, {0x20, 0x20}};
constexpr CharSet::Range upperRanges[] = {{'A', 'Z'}};
constexpr CharSet::Range xdigitRanges[] = {{'0', '9'}, {'A', 'F'}, {'a', 'f'}};

struct PosixClass {
  const char* name;
  const CharSet& (*set)(bool negate);
};

constexpr PosixClass posixClasses[] = {
    {"alnum", &CachedSet<alnumRanges>},
    {"alpha", &CachedSet<alphaRanges>},
    {"blank", &CachedSet<blankRanges>},
    {"cntrl", &CachedSet<cntrlRanges>},
    {"digit", &DigitSet},
    {"graph", &CachedSet<graphRanges>},
    {"lower", &CachedSet<lowerRanges>},
    {"print", &CachedSet<printRanges>},
    {"punct", &CachedSet<punctRanges>},
    {"space", &CachedSet<asciiSpaceRanges>},
    {"upper", &CachedSet<upperRanges>},
    {"word", &WordSet},
    {"xdigit", &CachedSet<xdigitRanges>},
};

constexpr bool IsHighSurrogate(char32_t c) { return c >= 0xD800 && c <= 0xDBFF; }
constexpr bool IsLowSurrogate(char32_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

bool IsHexDigit(char32_t c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }
unsigned HexValue(char32_t c) { return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10; }
bool IsDigit(char32_t c) { return c >= '0' && c <= '9'; }
bool IsAlnum(char32_t c) { return IsDigit(c) || ((c | 0x20) >= 'a' && (c | 0x20) <= 'z'); }

class Parser {
public:
  explicit Parser(const DKString& pattern) {
    m_text.reserve(pattern.Length());
    m_offsets.reserve(pattern.Length() + 1);
    for (std::size_t pos = 0; pos < pattern.Length();) {
      m_offsets.push_back(pos);
      m_text.push_back(NextCodePoint(pattern.c_str(), pattern.Length(), pos));
    }
    m_offsets.push_back(pattern.Length());
  }

  // The root node; throws ParseError.
  std::uint32_t Parse();

  std::vector<Node> nodes;
  std::vector<std::uint32_t> children;
  std::vector<CharSet> sets;

  // Position in code units of the i-th code point.
  std::size_t Offset(std::size_t i) const { return m_offsets[std::min(i, m_offsets.size() - 1)]; }

private:
  // One open group: finished alternatives, and the items of the current one.
  struct Group {
    std::vector<std::uint32_t> alternatives;
    std::vector<std::uint32_t> items;
    std::size_t openedAt = 0;
    bool lastQuantified = false;
    bool lastIsAnchor = false; // a bare ^ or $: nothing to repeat (a group holding one is fine)
  };

  [[noreturn]] void Fail(std::string what, std::size_t at) const { throw ParseError{std::move(what), Offset(at)}; }

  std::uint32_t AddNode(Node node, std::size_t at = npos) {
    // Every node becomes at least one instruction, or joins ones that do; far more nodes than
    // the largest program means the pattern is too large, whatever it would compile to.
    if (nodes.size() >= 4 * DKRegEx::maxProgramSize)
      Fail("pattern too large", m_pos);
    node.at = static_cast<std::uint32_t>(at == npos ? m_pos : at);
    nodes.push_back(node);
    return static_cast<std::uint32_t>(nodes.size() - 1);
  }
  std::uint32_t AddList(NodeKind kind, const std::vector<std::uint32_t>& list) {
    const auto first = static_cast<std::uint32_t>(children.size());
    children.insert(children.end(), list.begin(), list.end());
    return AddNode({kind, 0, 0, first, static_cast<std::uint32_t>(list.size())});
  }
  std::uint32_t AddSet(CharSet set) {
    set.Normalize();
    if (set.Ranges().size() == 1 && set.Ranges()[0].lo == set.Ranges()[0].hi)
      return AddNode({NodeKind::Char, set.Ranges()[0].lo});
    std::u32string key;
    for (const CharSet::Range& r : set.Ranges()) {
      key += r.lo;
      key += r.hi;
    }
    auto found = m_setIndex.find(key);
    std::uint32_t index;
    if (found != m_setIndex.end()) {
      index = found->second;
    } else {
      index = static_cast<std::uint32_t>(sets.size());
      sets.push_back(std::move(set));
      m_setIndex.emplace(std::move(key), index);
    }
    return AddNode({NodeKind::Set, index});
  }

  void AddItem(Group& group, std::uint32_t node, bool anchor = false) {
    group.items.push_back(node);
    group.lastQuantified = false;
    group.lastIsAnchor = anchor;
  }
  std::uint32_t FinishAlternative(Group& group) {
    if (group.items.empty())
      return AddNode({NodeKind::Empty});
    if (group.items.size() == 1)
      return group.items[0];
    return AddList(NodeKind::Concat, group.items);
  }
  std::uint32_t FinishGroup(Group& group) {
    const std::uint32_t last = FinishAlternative(group);
    if (group.alternatives.empty())
      return last;
    group.alternatives.push_back(last);
    return AddList(NodeKind::Alternate, group.alternatives);
  }

  void Quantify(Group& group, std::uint32_t min, std::uint32_t max, std::size_t at);
  // Reads {m}, {m,} or {m,n} at m_pos; false (nothing read) when the text there is not one.
  bool ReadCount(std::uint32_t& min, std::uint32_t& max);
  CharSet ReadClass();
  // An escape at m_pos (the backslash) that stands for one character; moves past it. A high
  // surrogate followed by a low one (JoinSurrogates) is the one character they spell.
  char32_t ReadCharEscape(bool inClass) { return JoinSurrogates(ReadSingleEscape(inClass), inClass); }
  char32_t ReadSingleEscape(bool inClass);
  // The character c read just before m_pos, joined with a low surrogate at m_pos (written as it
  // is or as a \u escape) when c is a high surrogate; the text decodes such a pair as one
  // character, so the pattern must too.
  char32_t JoinSurrogates(char32_t c, bool inClass) { return IsHighSurrogate(c) ? JoinLowSurrogate(c, inClass) : c; }
  char32_t JoinLowSurrogate(char32_t high, bool inClass);
  // A class escape (\d \w \s and complements) at m_pos, or null.
  const CharSet* ClassEscape() const;
  // At m_pos inside a bracket: "[:name:]" gives its class; "[.x.]" and "[=x=]" are refused. Null
  // (nothing read) when the text there is none of these forms. Moves past what it read.
  const CharSet* PosixClass();
  // The end (past the closing "]") of the form "[:...:]", "[.x.]" or "[=x=]" at pos, or npos.
  std::size_t PosixFormEnd(std::size_t pos) const;
  // The first "]" at or after pos, or the end. The parser only moves forward, so one search
  // serves every position up to the "]" it found.
  std::size_t NextBracket(std::size_t pos) const {
    if (pos < m_bracketFrom || pos > m_bracketAt) {
      m_bracketAt = pos;
      while (m_bracketAt < m_text.size() && m_text[m_bracketAt] != ']')
        ++m_bracketAt;
    }
    m_bracketFrom = pos;
    return m_bracketAt;
  }

  // The pattern's characters from..to for an error text (at most 32, then "..."); "?" stands
  // for those beyond ASCII.
  std::string Ascii(std::size_t from, std::size_t to) const {
    std::string out;
    for (std::size_t i = from; i < to && i < from + 32; ++i)
      out += m_text[i] < 128 ? static_cast<char>(m_text[i]) : '?';
    return to - from > 32 ? out + "..." : out;
  }

  static constexpr std::size_t npos = static_cast<std::size_t>(-1);

  std::vector<char32_t> m_text;
  std::vector<std::size_t> m_offsets;
  mutable std::size_t m_bracketFrom = 1, m_bracketAt = 0; // NextBracket's last search: none yet
  std::size_t m_pos = 0;
  std::unordered_map<std::u32string, std::uint32_t> m_setIndex;
};

const CharSet* Parser::ClassEscape() const {
  if (m_pos + 1 >= m_text.size())
    return nullptr;
  switch (m_text[m_pos + 1]) {
  case 'd': return &DigitSet(false);
  case 'D': return &DigitSet(true);
  case 'w': return &WordSet(false);
  case 'W': return &WordSet(true);
  case 's': return &SpaceSet(false);
  case 'S': return &SpaceSet(true);
  default: return nullptr;
  }
}

std::size_t Parser::PosixFormEnd(std::size_t pos) const {
  if (pos + 1 >= m_text.size() || m_text[pos] != '[')
    return npos;
  const char32_t mark = m_text[pos + 1];
  if (mark != ':' && mark != '.' && mark != '=')
    return npos;
  // The form ends at the first "]"; the mark must come right before it, and not be the opening one.
  const std::size_t close = NextBracket(pos + 2);
  if (close >= m_text.size() || close < pos + 3 || m_text[close - 1] != mark)
    return npos;
  return close + 1;
}

const CharSet* Parser::PosixClass() {
  const std::size_t end = PosixFormEnd(m_pos);
  if (end == npos)
    return nullptr;
  const char32_t mark = m_text[m_pos + 1];
  if (mark == '.')
    Fail("collating elements [.x.] are not supported", m_pos);
  if (mark == '=')
    Fail("equivalence classes [=x=] are not supported", m_pos);
  const std::string name = Ascii(m_pos + 2, end - 2);
  for (const dkre::PosixClass& posix : posixClasses)
    if (name == posix.name) {
      m_pos = end;
      return &posix.set(false);
    }
  Fail("unknown POSIX class [:" + name + ":]", m_pos);
}

char32_t Parser::JoinLowSurrogate(char32_t c, bool inClass) {
  if (m_pos >= m_text.size())
    return c;
  const std::size_t at = m_pos;
  char32_t low = m_text[m_pos];
  if (IsLowSurrogate(low)) {
    ++m_pos;
  } else if (low == '\\' && m_pos + 1 < m_text.size() && m_text[m_pos + 1] == 'u') {
    low = ReadSingleEscape(inClass);
    if (!IsLowSurrogate(low)) {
      m_pos = at; // read again as a character of its own
      return c;
    }
  } else {
    return c;
  }
  return 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
}

char32_t Parser::ReadSingleEscape(bool inClass) {
  const std::size_t at = m_pos;
  if (m_pos + 1 >= m_text.size())
    Fail("pattern ends with a lone backslash", at);
  const char32_t e = m_text[m_pos + 1];
  m_pos += 2;
  auto hex = [&](std::size_t digits) {
    char32_t value = 0;
    for (std::size_t i = 0; i < digits; ++i, ++m_pos) {
      if (m_pos >= m_text.size() || !IsHexDigit(m_text[m_pos]))
        Fail("invalid hexadecimal escape", at);
      value = value * 16 + HexValue(m_text[m_pos]);
    }
    return value;
  };
  switch (e) {
  case 't': return '\t';
  case 'n': return '\n';
  case 'r': return '\r';
  case 'f': return '\f';
  case 'v': return '\v';
  case '0':
    if (m_pos < m_text.size() && IsDigit(m_text[m_pos]))
      Fail("octal escapes are not supported", at);
    return 0;
  case 'x': return hex(2);
  case 'u':
    if (m_pos < m_text.size() && m_text[m_pos] == '{') {
      ++m_pos;
      char32_t value = 0;
      std::size_t digits = 0;
      for (; m_pos < m_text.size() && IsHexDigit(m_text[m_pos]); ++m_pos, ++digits) {
        value = value * 16 + HexValue(m_text[m_pos]);
        if (value > maxCodePoint)
          Fail("code point above U+10FFFF", at);
      }
      if (digits == 0 || m_pos >= m_text.size() || m_text[m_pos] != '}')
        Fail("invalid \\u{...} escape", at);
      ++m_pos;
      return value;
    }
    return hex(4);
  case 'c':
    if (m_pos < m_text.size() && ((m_text[m_pos] | 0x20) >= 'a' && (m_text[m_pos] | 0x20) <= 'z'))
      return m_text[m_pos++] % 32;
    Fail("\\c must be followed by a letter", at);
  case 'b':
    if (inClass)
      return '\b';
    Fail("word boundaries (\\b, \\B) are not supported", at);
  case 'B': Fail("word boundaries (\\b, \\B) are not supported", at);
  default:
    if (IsDigit(e))
      Fail("back-references are not supported", at);
    if (IsAlnum(e) || e == '_')
      Fail("unknown escape", at);
    return e; // punctuation and any other character stand for themselves
  }
}

CharSet Parser::ReadClass() {
  const std::size_t openedAt = m_pos++;
  bool negate = false;
  if (m_pos < m_text.size() && m_text[m_pos] == '^') {
    negate = true;
    ++m_pos;
  }
  CharSet set;
  for (;;) {
    if (m_pos >= m_text.size())
      Fail("missing ']'", openedAt);
    if (m_text[m_pos] == ']') {
      ++m_pos;
      break;
    }
    const std::size_t itemAt = m_pos;
    if (const CharSet* posix = m_text[m_pos] == '[' ? PosixClass() : nullptr) {
      if (m_pos + 1 < m_text.size() && m_text[m_pos] == '-' && m_text[m_pos + 1] != ']')
        Fail("a POSIX class cannot start a range", itemAt);
      set.Add(*posix);
      continue;
    }
    char32_t lo;
    if (m_text[m_pos] == '\\') {
      if (const CharSet* escape = ClassEscape()) {
        m_pos += 2;
        if (m_pos + 1 < m_text.size() && m_text[m_pos] == '-' && m_text[m_pos + 1] != ']')
          Fail("a class escape cannot start a range", itemAt);
        set.Add(*escape);
        continue;
      }
      lo = ReadCharEscape(true);
    } else {
      lo = m_text[m_pos++];
      lo = JoinSurrogates(lo, true);
    }
    char32_t hi = lo;
    if (m_pos + 1 < m_text.size() && m_text[m_pos] == '-' && m_text[m_pos + 1] != ']') {
      ++m_pos;
      if (m_text[m_pos] == '\\') {
        if (ClassEscape())
          Fail("a class escape cannot end a range", m_pos);
        hi = ReadCharEscape(true);
      } else {
        if (m_text[m_pos] == '[' && PosixFormEnd(m_pos) != npos)
          Fail("a POSIX class cannot end a range", m_pos);
        hi = m_text[m_pos++];
        hi = JoinSurrogates(hi, true);
      }
      if (hi < lo)
        Fail("range out of order", itemAt);
    }
    set.Add(lo, hi);
  }
  set.Normalize();
  if (negate)
    set.Negate();
  return set;
}

bool Parser::ReadCount(std::uint32_t& min, std::uint32_t& max) {
  std::size_t p = m_pos + 1;
  auto number = [&](std::uint32_t& out) {
    const std::size_t start = p;
    std::uint64_t value = 0;
    for (; p < m_text.size() && IsDigit(m_text[p]); ++p)
      value = std::min<std::uint64_t>(value * 10 + (m_text[p] - '0'), std::uint64_t{DKRegEx::maxRepeatCount} + 1);
    out = static_cast<std::uint32_t>(value);
    return p > start;
  };
  if (!number(min))
    return false;
  max = min;
  if (p < m_text.size() && m_text[p] == ',') {
    ++p;
    if (!number(max))
      max = unbounded;
  }
  if (p >= m_text.size() || m_text[p] != '}')
    return false;
  if (min > DKRegEx::maxRepeatCount || (max != unbounded && max > DKRegEx::maxRepeatCount))
    Fail("repetition count above the limit of 1000", m_pos);
  if (max < min)
    Fail("repetition range out of order", m_pos);
  m_pos = p + 1;
  return true;
}

void Parser::Quantify(Group& group, std::uint32_t min, std::uint32_t max, std::size_t at) {
  if (group.items.empty() || group.lastIsAnchor)
    Fail("nothing to repeat", at);
  if (group.lastQuantified)
    Fail("a quantifier cannot follow another", at);
  const std::uint32_t child = group.items.back();
  std::uint32_t node;
  if (min == 0 && max == unbounded)
    node = AddNode({NodeKind::Star, 0, 0, child}, at);
  else if (min == 1 && max == unbounded)
    node = AddNode({NodeKind::Plus, 0, 0, child}, at);
  else if (min == 0 && max == 1)
    node = AddNode({NodeKind::Quest, 0, 0, child}, at);
  else if (min == 1 && max == 1)
    node = child;
  else
    node = AddNode({NodeKind::Repeat, min, max, child}, at);
  group.items.back() = node;
  group.lastQuantified = true;
  if (m_pos < m_text.size() && m_text[m_pos] == '?')
    ++m_pos; // lazy: the same whole matches
}

std::uint32_t Parser::Parse() {
  std::vector<Group> groups(1);
  while (m_pos < m_text.size()) {
    Group& group = groups.back();
    const std::size_t at = m_pos;
    const char32_t c = m_text[m_pos];
    switch (c) {
    case '(':
      if (m_pos + 1 < m_text.size() && m_text[m_pos + 1] == '?') {
        if (m_pos + 2 >= m_text.size() || m_text[m_pos + 2] != ':')
          Fail("only (?: groups are supported", at);
        m_pos += 3;
      } else {
        ++m_pos;
      }
      groups.emplace_back().openedAt = at;
      break;
    case ')': {
      if (groups.size() == 1)
        Fail("unmatched ')'", at);
      ++m_pos;
      const std::uint32_t node = FinishGroup(group);
      groups.pop_back();
      AddItem(groups.back(), node);
      break;
    }
    case '|':
      ++m_pos;
      group.alternatives.push_back(FinishAlternative(group));
      group.items.clear();
      group.lastQuantified = false;
      group.lastIsAnchor = false;
      break;
    case '*':
      ++m_pos;
      Quantify(group, 0, unbounded, at);
      break;
    case '+':
      ++m_pos;
      Quantify(group, 1, unbounded, at);
      break;
    case '?':
      ++m_pos;
      Quantify(group, 0, 1, at);
      break;
    case '{': {
      std::uint32_t min = 0, max = 0;
      if (ReadCount(min, max))
        Quantify(group, min, max, at);
      else
        AddItem(group, AddNode({NodeKind::Char, '{'}));
      if (m_pos == at)
        ++m_pos;
      break;
    }
    case '^':
    case '$':
      ++m_pos;
      AddItem(group, AddNode({c == '^' ? NodeKind::Begin : NodeKind::End}), true);
      break;
    case '.':
      ++m_pos;
      AddItem(group, AddSet(DotSet()));
      break;
    case '[': {
      const std::size_t end = PosixFormEnd(m_pos);
      if (end != npos && m_text[m_pos + 1] == ':')
        Fail("POSIX class outside brackets: write [" + Ascii(m_pos, end) + "]", at);
      AddItem(group, AddSet(ReadClass()));
      break;
    }
    case '\\':
      if (const CharSet* escape = ClassEscape()) {
        m_pos += 2;
        AddItem(group, AddSet(*escape));
      } else {
        AddItem(group, AddNode({NodeKind::Char, ReadCharEscape(false)}));
      }
      break;
    default:
      ++m_pos;
      AddItem(group, AddNode({NodeKind::Char, JoinSurrogates(c, false)}));
      break;
    }
  }
  if (groups.size() > 1)
    Fail("missing ')'", groups.back().openedAt);
  return FinishGroup(groups.back());
}

// Instructions each node compiles to, counted repetitions written out; saturates just above
// the limit so that nested counts cannot overflow. over receives the first node (the smallest
// part of the pattern) whose program passes the limit, else root.
std::uint64_t ProgramSize(const std::vector<Node>& nodes, const std::vector<std::uint32_t>& children, std::uint32_t root,
                          std::uint32_t& over) {
  constexpr std::uint64_t cap = DKRegEx::maxProgramSize + 1;
  std::vector<std::uint64_t> size(root + 1);
  for (std::uint32_t i = 0; i <= root; ++i) {
    const Node& n = nodes[i];
    std::uint64_t s = 0;
    switch (n.kind) {
    case NodeKind::Empty:
    case NodeKind::Char:
    case NodeKind::Set:
    case NodeKind::Begin:
    case NodeKind::End: s = 1; break;
    case NodeKind::Concat:
    case NodeKind::Alternate:
      for (std::uint32_t k = 0; k < n.count; ++k)
        s += size[children[n.child + k]];
      if (n.kind == NodeKind::Alternate)
        s += n.count - 1;
      break;
    case NodeKind::Star:
    case NodeKind::Plus:
    case NodeKind::Quest: s = size[n.child] + 1; break;
    case NodeKind::Repeat: {
      const std::uint64_t c = size[n.child];
      if (n.arg2 == unbounded)
        s = n.arg == 0 ? c + 1 : n.arg * c + 1;
      else if (n.arg2 == 0)
        s = 1;
      else
        s = n.arg2 * c + (n.arg2 - n.arg);
      break;
    }
    }
    size[i] = std::min(s, cap);
    if (s >= cap)
      over = std::min(over, i);
  }
  return size[root];
}

// Thompson's construction. A fragment has a start and a list of dangling exits, threaded
// through the exits themselves (slot = instruction * 2 + 1 for out1).
class Emitter {
public:
  struct Frag {
    std::uint32_t start;
    std::uint32_t head; // first dangling exit or nil
    std::uint32_t tail;
  };

  explicit Emitter(std::vector<Inst>& insts) : m_insts(insts) {}

  Frag Leaf(Op op, std::uint32_t arg = 0) {
    const std::uint32_t pc = Emit({op, nil, nil, arg});
    return {pc, pc * 2, pc * 2};
  }
  Frag Concat(const Frag& a, const Frag& b) {
    Patch(a, b.start);
    return {a.start, b.head, b.tail};
  }
  Frag Alternate(const Frag& a, const Frag& b) {
    const std::uint32_t pc = Emit({Op::Split, a.start, b.start, 0});
    return {pc, a.head, Append(a, b)};
  }
  Frag Star(const Frag& a) {
    const std::uint32_t pc = Emit({Op::Split, a.start, nil, 0});
    Patch(a, pc);
    return {pc, pc * 2 + 1, pc * 2 + 1};
  }
  Frag Plus(const Frag& a) {
    const std::uint32_t pc = Emit({Op::Split, a.start, nil, 0});
    Patch(a, pc);
    return {a.start, pc * 2 + 1, pc * 2 + 1};
  }
  Frag Quest(const Frag& a) {
    const std::uint32_t pc = Emit({Op::Split, a.start, nil, 0});
    const Frag exit{pc, pc * 2 + 1, pc * 2 + 1};
    return {pc, a.head, Append(a, exit)};
  }
  void Patch(const Frag& f, std::uint32_t target) {
    for (std::uint32_t p = f.head; p != nil;) {
      std::uint32_t& slot = Slot(p);
      p = slot;
      slot = target;
    }
  }

private:
  std::uint32_t Emit(const Inst& inst) {
    m_insts.push_back(inst);
    return static_cast<std::uint32_t>(m_insts.size() - 1);
  }
  std::uint32_t& Slot(std::uint32_t p) { return (p & 1) ? m_insts[p >> 1].out1 : m_insts[p >> 1].out; }
  // Joins b's exit list after a's; returns the tail of the joined list (the head is a.head).
  std::uint32_t Append(const Frag& a, const Frag& b) {
    Slot(a.tail) = b.head;
    return b.tail;
  }

  std::vector<Inst>& m_insts;
};

// Compiles the tree below root, leaving one fragment for it.
Emitter::Frag EmitTree(Emitter& emitter, const std::vector<Node>& nodes, const std::vector<std::uint32_t>& children,
                       std::uint32_t root) {
  struct Task {
    std::uint32_t node;
    bool combine;
  };
  std::vector<Task> tasks{{root, false}};
  std::vector<Emitter::Frag> frags;
  auto pop = [&frags] {
    const Emitter::Frag f = frags.back();
    frags.pop_back();
    return f;
  };
  while (!tasks.empty()) {
    const Task task = tasks.back();
    tasks.pop_back();
    const Node& n = nodes[task.node];
    if (!task.combine) {
      switch (n.kind) {
      case NodeKind::Empty: frags.push_back(emitter.Leaf(Op::Nop)); break;
      case NodeKind::Char: frags.push_back(emitter.Leaf(Op::Char, n.arg)); break;
      case NodeKind::Set: frags.push_back(emitter.Leaf(Op::Set, n.arg)); break;
      case NodeKind::Begin: frags.push_back(emitter.Leaf(Op::Begin)); break;
      case NodeKind::End: frags.push_back(emitter.Leaf(Op::End)); break;
      case NodeKind::Concat:
      case NodeKind::Alternate:
        tasks.push_back({task.node, true});
        for (std::uint32_t k = n.count; k-- > 0;)
          tasks.push_back({children[n.child + k], false});
        break;
      case NodeKind::Star:
      case NodeKind::Plus:
      case NodeKind::Quest:
        tasks.push_back({task.node, true});
        tasks.push_back({n.child, false});
        break;
      case NodeKind::Repeat: {
        const std::uint32_t copies = n.arg2 == unbounded ? std::max<std::uint32_t>(n.arg, 1) : n.arg2;
        if (copies == 0) {
          frags.push_back(emitter.Leaf(Op::Nop));
          break;
        }
        tasks.push_back({task.node, true});
        for (std::uint32_t k = 0; k < copies; ++k)
          tasks.push_back({n.child, false});
        break;
      }
      }
      continue;
    }
    switch (n.kind) {
    case NodeKind::Concat:
    case NodeKind::Alternate: {
      // The children's fragments are the top n.count ones, the last child's on top.
      Emitter::Frag f = pop();
      for (std::uint32_t k = 1; k < n.count; ++k) {
        const Emitter::Frag before = pop();
        f = n.kind == NodeKind::Concat ? emitter.Concat(before, f) : emitter.Alternate(before, f);
      }
      frags.push_back(f);
      break;
    }
    case NodeKind::Star: frags.push_back(emitter.Star(pop())); break;
    case NodeKind::Plus: frags.push_back(emitter.Plus(pop())); break;
    case NodeKind::Quest: frags.push_back(emitter.Quest(pop())); break;
    case NodeKind::Repeat: {
      // x{m,} is x^(m-1) x+ (x* when m is 0); x{m,n} is x^m (x (x (...)?)?)? with n - m optional
      // copies nested, so that the automaton stays linear in n.
      const std::uint32_t min = n.arg;
      Emitter::Frag f;
      std::uint32_t mandatory = min;
      if (n.arg2 == unbounded) {
        f = min == 0 ? emitter.Star(pop()) : emitter.Plus(pop());
        mandatory = min == 0 ? 0 : min - 1;
      } else if (n.arg2 > min) {
        f = emitter.Quest(pop());
        for (std::uint32_t k = 1; k < n.arg2 - min; ++k)
          f = emitter.Quest(emitter.Concat(pop(), f));
      } else {
        f = pop();
        mandatory = min - 1;
      }
      for (std::uint32_t k = 0; k < mandatory; ++k)
        f = emitter.Concat(pop(), f);
      frags.push_back(f);
      break;
    }
    default: break;
    }
  }
  return frags.back();
}

// "Invalid regular expression" naming the pattern (its start, when long), the position in code
// units where the problem was found and the problem.
DKErrorID PatternError(const DKString& pattern, const std::string& what, std::size_t position) {
  constexpr std::size_t shown = 60;
  return DKLibraryErrorID(DK_MSG_INVALID_REGEX, pattern.Length() > shown ? pattern.SubStr(0, shown) + DK_T("...") : pattern,
                          static_cast<long>(position), what);
}

} // namespace

void Compiler::Install(Program& program, std::vector<Inst>&& insts, std::vector<CharSet>&& sets, std::uint32_t start,
                       std::uint32_t matchPc, std::size_t cacheBytes) {
  program.m_insts = std::move(insts);
  program.m_sets = std::move(sets);
  program.m_start = start;
  program.m_matchPc = matchPc;
  program.m_cacheBytes = cacheBytes;
  if (cacheBytes > 0)
    BuildClasses(program);
  if (program.m_classCount > 0 && !program.PrepareCache())
    program.m_classCount = 0;
}

// Splits the code points into intervals at every edge of a character or set of the program,
// then gives intervals that every instruction treats alike the same class. Programs whose
// classes would be too many or too costly to find run without the cache.
void Compiler::BuildClasses(Program& program) {
  constexpr std::uint64_t maxWork = 4'000'000;
  constexpr std::uint32_t maxClasses = 1024;

  std::vector<char32_t> chars;
  std::vector<char32_t> edges{0};
  for (const Inst& inst : program.m_insts)
    if (inst.op == Op::Char) {
      chars.push_back(inst.arg);
      edges.push_back(inst.arg);
      edges.push_back(inst.arg + 1);
    }
  for (const CharSet& set : program.m_sets)
    for (const CharSet::Range& r : set.Ranges()) {
      edges.push_back(r.lo);
      edges.push_back(r.hi + 1);
    }
  std::sort(chars.begin(), chars.end());
  chars.erase(std::unique(chars.begin(), chars.end()), chars.end());
  std::sort(edges.begin(), edges.end());
  edges.erase(std::unique(edges.begin(), edges.end()), edges.end());
  if (edges.back() > maxCodePoint)
    edges.pop_back();

  const std::size_t matchers = chars.size() + program.m_sets.size();
  if (static_cast<std::uint64_t>(edges.size()) * std::max<std::size_t>(matchers, 1) > maxWork)
    return;

  std::unordered_map<std::string, std::uint16_t> classOfSignature;
  std::vector<std::uint16_t> intervalClass(edges.size());
  std::vector<char32_t> samples;
  std::string signature(matchers, '\0');
  for (std::size_t i = 0; i < edges.size(); ++i) {
    const char32_t c = edges[i];
    const auto ch = std::lower_bound(chars.begin(), chars.end(), c);
    for (std::size_t k = 0; k < chars.size(); ++k)
      signature[k] = 0;
    if (ch != chars.end() && *ch == c)
      signature[static_cast<std::size_t>(ch - chars.begin())] = 1;
    for (std::size_t s = 0; s < program.m_sets.size(); ++s)
      signature[chars.size() + s] = program.m_sets[s].Contains(c) ? 1 : 0;
    const auto [it, added] = classOfSignature.emplace(signature, static_cast<std::uint16_t>(samples.size()));
    if (added) {
      if (samples.size() >= maxClasses)
        return;
      samples.push_back(c);
    }
    intervalClass[i] = it->second;
  }

  program.m_boundaries = std::move(edges);
  program.m_intervalClass = std::move(intervalClass);
  program.m_classSample = std::move(samples);
  program.m_classCount = static_cast<std::uint32_t>(program.m_classSample.size());
  for (char32_t c = 0; c < 128; ++c)
    program.m_asciiClass[c] = program.IntervalClass(c);
}

DKErrorID Program::Compile(const DKString& pattern, std::size_t cacheBytes, std::shared_ptr<const Program>& out) {
  Parser parser(pattern);
  std::uint32_t root;
  try {
    root = parser.Parse();
  } catch (const ParseError& e) {
    return PatternError(pattern, e.what, e.position);
  }
  std::uint32_t over = root;
  if (ProgramSize(parser.nodes, parser.children, root, over) + 1 > DKRegEx::maxProgramSize)
    return PatternError(pattern, "pattern too large: more than 20000 instructions once repetitions are written out",
                        parser.Offset(parser.nodes[over].at));

  std::vector<Inst> insts;
  Emitter emitter(insts);
  const Emitter::Frag frag = EmitTree(emitter, parser.nodes, parser.children, root);
  const Emitter::Frag match = emitter.Leaf(Op::Match);
  emitter.Patch(frag, match.start);

  auto program = std::make_shared<Program>();
  Compiler::Install(*program, std::move(insts), std::move(parser.sets), frag.start, match.start, cacheBytes);
  out = std::move(program);
  return DKErrorID();
}

} // namespace dkre
