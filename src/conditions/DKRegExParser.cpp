// The parser of the regular expressions: pattern text to syntax tree, with the character sets
// of classes, escapes and brackets. Exports the members of Parser (DKRegExParser.h) and CharSet's
// Normalize and Negate; private here: the tables of the predefined classes (\d \w \s, the dot,
// the POSIX classes) and the tests on single characters.
#include "conditions/DKRegExParser.h"

#include <algorithm>
#include <iterator>

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

namespace {

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

bool IsHexDigit(char32_t c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }
unsigned HexValue(char32_t c) { return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10; }
bool IsDigit(char32_t c) { return c >= '0' && c <= '9'; }
bool IsAlnum(char32_t c) { return IsDigit(c) || ((c | 0x20) >= 'a' && (c | 0x20) <= 'z'); }

} // namespace

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

} // namespace dkre
