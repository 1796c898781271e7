// The compiled form of a DKRegEx: a Thompson automaton over Unicode code points, matched
// against whole texts by simulating the automaton's state sets, with the sets it meets cached
// as the states of a lazily built deterministic automaton. Internal to the library.
#pragma once

#include <DorvikCore/DKError.h>
#include <DorvikCore/DKString.h>

#include "conditions/DKRegExBitParallel.h"
#include "conditions/DKSparseSet.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
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

class Program;

// A state of the lazily built deterministic automaton: the live instructions (consuming ones,
// Match, pending End) in the order the closure met them, and the next state for each character class once it
// has been computed. One allocation holds the header, the transitions and the instructions.
struct State {
  // How far the run of characters that lead back to this state has been looked into.
  enum : std::uint8_t { notAnalysed, noRun, run };
  static constexpr unsigned maxRunRanges = 4;

  std::uint64_t hash = 0;
  std::uint32_t count = 0; // instructions
  bool acceptAtEnd = false;
  std::atomic<std::uint8_t> runKind{notAnalysed};
  std::uint8_t runRanges = 0;
  // With runKind == run: the code units (none a surrogate) that lead back to this state, as
  // ranges lo .. lo + span.
  std::uint16_t runLo[maxRunRanges] = {};
  std::uint16_t runSpan[maxRunRanges] = {};

  std::atomic<State*>* Next() noexcept { return reinterpret_cast<std::atomic<State*>*>(this + 1); }
  const std::uint32_t* Pcs(std::uint32_t classCount) const noexcept {
    return reinterpret_cast<const std::uint32_t*>(reinterpret_cast<const std::atomic<State*>*>(this + 1) + classCount);
  }
};

// A bounded set of states with their transitions. Full, it refuses new states; Flush empties it.
// Not synchronised: the program's shared cache is changed under its lock, a thread's own cache
// by that thread alone.
class StateCache {
public:
  StateCache() = default;
  ~StateCache() {
    FreeStates();
    ::operator delete(m_dead);
  }
  StateCache(const StateCache&) = delete;
  StateCache& operator=(const StateCache&) = delete;

  // Empties the cache and binds it to program with a budget of bytes; false when the budget
  // cannot hold the dead state.
  bool Reset(const Program& program, std::size_t budget);
  // Frees every state but the dead one.
  void Flush() noexcept;

  State* Dead() const noexcept { return m_dead; }
  // The start state; null when the cache is full.
  State* Start();
  // The state after a character of class cls from from, stored as from's transition; null when
  // the cache is full.
  State* Step(State* from, std::uint32_t cls);
  // The state of the given instructions (those of a state); null when the cache is full.
  State* Find(const std::uint32_t* pcs, std::uint32_t count);
  // Computes every transition of state and, when the code units that lead back to it form a few
  // ranges, records them so that a run of them is skipped at once.
  void AnalyseRun(State* state);

private:
  // Finds or adds the state whose kept instructions, count of them with the given hash, are in
  // m_key, the whole closure being in m_set.
  State* Intern(std::uint32_t count, std::uint64_t hash);
  // Whether s holds the instructions of m_set that a state keeps (as many, counted by the caller).
  bool Same(const State* s) const noexcept;
  void FreeStates() noexcept;
  // Bytes a state of count instructions takes: itself, its transitions and instructions, and its
  // share of the table (at most four slots).
  std::size_t StateCost(std::uint32_t count) const noexcept {
    return sizeof(State) + m_classCount * sizeof(State*) + count * sizeof(std::uint32_t) + 4 * sizeof(State*);
  }

  const Program* m_program = nullptr;
  std::size_t m_budget = 0;
  std::size_t m_used = 0;
  std::uint32_t m_classCount = 0;
  State* m_dead = nullptr;
  std::vector<State*> m_table; // open addressing, a power of two in size, at most half full
  std::size_t m_states = 0;
  // Scratch for building states.
  StampSet m_set;
  SparseSet m_scratch;
  std::vector<std::uint32_t> m_key; // room for every instruction
  std::vector<std::uint32_t> m_stack;
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
  friend class StateCache;
  friend class BitParallel;

  // Adds the instructions reachable from pc without consuming input to set, handing kept those
  // that a state keeps (consuming ones, Match, End) as they are added.
  template <class Set, class Kept>
  void Closure(Set& set, std::uint32_t pc, bool atStart, bool atEnd, std::vector<std::uint32_t>& stack,
               Kept&& kept) const;
  void AddClosure(SparseSet& set, std::uint32_t pc, bool atStart, bool atEnd, std::vector<std::uint32_t>& stack) const;
  // The set after consuming c from the instructions of from.
  template <class Pcs, class Set, class Kept>
  void Step(const Pcs& from, char32_t c, Set& to, std::vector<std::uint32_t>& stack, Kept&& kept) const;
  template <class Pcs>
  bool AcceptsAtEnd(const Pcs& pcs, bool atStart, SparseSet& scratch, std::vector<std::uint32_t>& stack) const;
  bool Consumes(const Inst& inst, char32_t c) const noexcept {
    return inst.op == Op::Char ? inst.arg == c : m_sets[inst.arg].Contains(c);
  }

  // Simulation of the automaton from the instructions in cur at position pos (cur is used up).
  bool MatchUncached(SparseSet& cur, const DKChar* text, std::size_t length, std::size_t pos) const;
  bool MatchShared(const DKChar* text, std::size_t length) const;
  // Follows cached states from s at pos through access (the shared cache or the thread's own):
  // 1 matched, 0 failed, -1 stopped where the next state could not be cached, with s the state
  // there (perhaps rebuilt) and pos the position of the character.
  template <class Access>
  int Walk(Access& access, State* dead, State*& s, const DKChar* text, std::size_t length, std::size_t& pos) const;
  // Goes on from the instructions of from (the start when null) at pos in the calling thread's
  // own cache, which is flushed and rebuilt whenever it fills.
  bool MatchOwn(const State* from, const DKChar* text, std::size_t length, std::size_t pos) const;
  // Simulation of the automaton at pos from the given instructions (those of a state), or from
  // the start when pcs is null.
  bool Simulate(const std::uint32_t* pcs, std::size_t count, const DKChar* text, std::size_t length, std::size_t pos) const;

  std::uint32_t ClassOf(char32_t c) const noexcept { return c < 128 ? m_asciiClass[c] : IntervalClass(c); }
  std::uint16_t IntervalClass(char32_t c) const noexcept;
  // Sets up the shared cache; false when the budget cannot hold it.
  bool PrepareCache();

  std::vector<Inst> m_insts;
  std::vector<CharSet> m_sets;
  std::uint32_t m_start = 0;
  std::uint32_t m_matchPc = 0;
  bool m_hasEnd = false; // an End instruction: whether a state accepts needs its closure at the end
  std::uint64_t m_id = 0; // unique among the programs of the process: names a thread's own cache

  // Character classes: code points that every instruction treats alike share a class.
  std::uint32_t m_classCount = 0;
  std::uint16_t m_asciiClass[128] = {};
  std::vector<char32_t> m_boundaries;     // sorted starts of the intervals, the first is 0
  std::vector<std::uint16_t> m_intervalClass;
  std::vector<char32_t> m_classSample;    // one code point of each class

  // The shared cache. Its states are never freed while the program lives, so that a state read
  // without the lock stays valid; the lock orders the additions. Once it is full, a match goes
  // on in its thread's own cache.
  std::size_t m_cacheBytes = 0;
  mutable std::mutex m_cacheLock;
  mutable std::atomic<State*> m_startState{nullptr};
  mutable StateCache m_shared;
  // The tables of the bit-parallel engine, which takes over texts that keep the cache missing.
  mutable BitParallelSlot m_bits;
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
