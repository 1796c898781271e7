// The parser of the regular expressions, internal to src/conditions: pattern text to a syntax
// tree, built with an explicit stack of open groups so that no step recurses on the pattern's
// nesting. The compiler (DKRegExCompiler.cpp) takes the tree; the parser's members are in
// DKRegExParser.cpp.
#pragma once

#include <DorvikCore/DKRegEx.h>

#include "conditions/DKRegExProgram.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <unordered_map>
#include <vector>

// The error texts name the limits.
static_assert(DKRegEx::maxRepeatCount == 1000 && DKRegEx::maxProgramSize == 20000, "update the error texts");

namespace dkre {

enum class NodeKind : std::uint8_t { Empty, Char, Set, Begin, End, Concat, Alternate, Star, Plus, Quest, Repeat };

constexpr std::uint32_t unbounded = std::numeric_limits<std::uint32_t>::max();

// A node of the syntax tree. Children always have smaller indices than their parent.
struct Node {
  NodeKind kind;
  std::uint32_t arg = 0;   // Char: code point; Set: set index; Repeat: minimum
  std::uint32_t arg2 = 0;  // Repeat: maximum or unbounded
  std::uint32_t child = 0; // Concat, Alternate: first index into children; others: the child node
  std::uint32_t count = 0; // Concat, Alternate: number of children
  std::uint32_t at = 0;    // where in the pattern the node was made (a quantifier's own position)
};

// A pattern the parser refuses: the problem, and where it is in code units.
struct ParseError {
  std::string what;
  std::size_t position;
};

constexpr bool IsHighSurrogate(char32_t c) { return c >= 0xD800 && c <= 0xDBFF; }
constexpr bool IsLowSurrogate(char32_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

// Reads a pattern into nodes (children before their parents), the lists of the Concat and
// Alternate nodes' children, and the character sets of the Set nodes.
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

} // namespace dkre
