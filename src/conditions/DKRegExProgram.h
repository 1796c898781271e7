// The compiled form of a DKRegEx: a Thompson automaton over Unicode code points, matched
// against whole texts by simulating the automaton's state sets, with the sets it meets cached
// as the states of a lazily built deterministic automaton. Internal to the library.
#pragma once

#include <DorvikCore/DKError.h>
#include <DorvikCore/DKString.h>

#include "conditions/DKSparseSet.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace dkre {

constexpr char32_t maxCodePoint = 0x10FFFF;

// A set of code points as sorted, disjoint, non-adjacent ranges, with a bitmap for ASCII.
class CharSet {
public:
  struct Range {
    char32_t lo;
    char32_t hi; // inclusive
    friend bool operator==(const Range&, const Range&) = default;
  };

  void Add(char32_t lo, char32_t hi) { m_ranges.push_back({lo, hi}); }
  void Add(char32_t c) { m_ranges.push_back({c, c}); }
  void Add(const CharSet& other) { m_ranges.insert(m_ranges.end(), other.m_ranges.begin(), other.m_ranges.end()); }
  // Sorts and merges the ranges added so far and builds the ASCII bitmap.
  void Normalize();
  // The complement within 0..maxCodePoint; the set must be normalized.
  void Negate();

  bool Contains(char32_t c) const noexcept {
    if (c < 128)
      return (m_ascii[c >> 6] >> (c & 63)) & 1;
    std::size_t lo = 0, hi = m_ranges.size();
    while (lo < hi) {
      const std::size_t mid = (lo + hi) / 2;
      if (m_ranges[mid].hi < c)
        lo = mid + 1;
      else if (m_ranges[mid].lo > c)
        hi = mid;
      else
        return true;
    }
    return false;
  }
  const std::vector<Range>& Ranges() const noexcept { return m_ranges; }
  friend bool operator==(const CharSet& a, const CharSet& b) { return a.m_ranges == b.m_ranges; }

private:
  std::vector<Range> m_ranges;
  std::uint64_t m_ascii[2] = {0, 0};
};

enum class Op : std::uint8_t {
  Char,  // consumes the code point arg
  Set,   // consumes a code point of sets[arg]
  Split, // goes on at out and at out1
  Nop,   // goes on at out
  Begin, // goes on at out at the start of the text only
  End,   // goes on at out at the end of the text only
  Match, // the whole pattern has matched
};

struct Inst {
  Op op;
  std::uint32_t out;
  std::uint32_t out1; // Split only
  std::uint32_t arg;  // Char: the code point; Set: the index into Program::sets
};

struct VectorHash {
  std::size_t operator()(const std::vector<std::uint32_t>& v) const noexcept {
    std::uint64_t h = 0xcbf29ce484222325ull;
    for (std::uint32_t x : v)
      h = (h ^ x) * 0x100000001b3ull;
    return static_cast<std::size_t>(h);
  }
};

class Program {
public:
  // Compiles pattern into a program whose cache of automaton states may use up to cacheBytes
  // (0: no cache, every match simulates the automaton). On failure out is untouched and the
  // error names the problem and its position.
  static DKErrorID Compile(const DKString& pattern, std::size_t cacheBytes, std::shared_ptr<const Program>& out);

  // True when the whole text matches.
  bool Match(const DKChar* text, std::size_t length) const;

  std::size_t Size() const noexcept { return m_insts.size(); }
  // Number of character classes the cache tells apart; 0 when the program runs uncached.
  std::uint32_t ClassCount() const noexcept { return m_classCount; }

  Program() = default;
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

private:
  friend class Compiler;

  // One cached state: the instructions that are live (consuming ones, Match, pending End),
  // sorted, and the next state for each character class once it has been computed.
  struct State {
    std::vector<std::uint32_t> pcs;
    bool acceptAtEnd = false;
    std::unique_ptr<std::atomic<State*>[]> next;
  };

  // Adds the instructions reachable from pc without consuming input to set.
  void AddClosure(SparseSet& set, std::uint32_t pc, bool atStart, bool atEnd, std::vector<std::uint32_t>& stack) const;
  // The set after consuming c from the instructions of from.
  template <class Pcs>
  void Step(const Pcs& from, char32_t c, SparseSet& to, std::vector<std::uint32_t>& stack) const;
  template <class Pcs>
  bool AcceptsAtEnd(const Pcs& pcs, bool atStart, SparseSet& scratch, std::vector<std::uint32_t>& stack) const;
  bool Consumes(const Inst& inst, char32_t c) const noexcept {
    return inst.op == Op::Char ? inst.arg == c : m_sets[inst.arg].Contains(c);
  }

  // Simulation of the automaton from the instructions in cur at position pos (cur is used up).
  bool MatchUncached(SparseSet& cur, const DKChar* text, std::size_t length, std::size_t pos) const;
  bool MatchCached(const DKChar* text, std::size_t length) const;

  std::uint32_t ClassOf(char32_t c) const noexcept { return c < 128 ? m_asciiClass[c] : IntervalClass(c); }
  std::uint16_t IntervalClass(char32_t c) const noexcept;
  // Cache access; each takes the cache lock. Null when the cache is full.
  State* StartState() const;
  State* NextState(State* from, std::uint32_t cls) const;
  State* Intern(const SparseSet& set) const; // cache lock held
  // Sets up the cache and its dead state; false when the budget cannot hold it.
  bool PrepareCache();

  std::vector<Inst> m_insts;
  std::vector<CharSet> m_sets;
  std::uint32_t m_start = 0;
  std::uint32_t m_matchPc = 0;

  // Character classes: code points that every instruction treats alike share a class.
  std::uint32_t m_classCount = 0;
  std::uint16_t m_asciiClass[128] = {};
  std::vector<char32_t> m_boundaries;     // sorted starts of the intervals, the first is 0
  std::vector<std::uint16_t> m_intervalClass;
  std::vector<char32_t> m_classSample;    // one code point of each class

  // The cache. States are only ever added, so a state pointer read without the lock stays
  // valid for the program's life; the lock orders the additions.
  std::size_t m_cacheBytes = 0;
  mutable std::mutex m_cacheLock;
  mutable std::atomic<State*> m_startState{nullptr};
  mutable std::unordered_map<std::vector<std::uint32_t>, std::unique_ptr<State>, VectorHash> m_states;
  mutable std::size_t m_cacheUsed = 0;
  mutable State* m_dead = nullptr; // set by PrepareCache, before any match
  mutable SparseSet m_scratch;
  mutable SparseSet m_scratch2;
  mutable std::vector<std::uint32_t> m_stack;
};

// Reads the code point at text[pos] and moves pos past it; a surrogate pair is one code point,
// a lone surrogate stands for itself.
inline char32_t NextCodePoint(const DKChar* text, std::size_t length, std::size_t& pos) noexcept {
  const char32_t u = static_cast<char16_t>(text[pos++]);
  if (u >= 0xD800 && u <= 0xDBFF && pos < length) {
    const char32_t v = static_cast<char16_t>(text[pos]);
    if (v >= 0xDC00 && v <= 0xDFFF) {
      ++pos;
      return 0x10000 + ((u - 0xD800) << 10) + (v - 0xDC00);
    }
  }
  return u;
}

} // namespace dkre
