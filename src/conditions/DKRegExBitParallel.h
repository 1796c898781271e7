// Bit-parallel simulation of a regular-expression program's position automaton, internal to
// src/conditions. Exports BitParallel (the tables of one program, built once, and the matcher
// that runs on them), BitParallelSlot (where a program keeps its tables) and two hooks through
// which the tests force the engine on and see that it ran.
//
// The positions are the consuming instructions (characters and sets), numbered in program
// order; a state is the set of positions that consumed the last character, one bit each. A step
// is Follow(D) & B[class]: Follow moves every bit along the few distances that most edges of the
// automaton share (x+1, x+2, ... for counted repetitions written out) with one shift and mask per
// distance and word, and ORs in the whole follow set of the few positions that have other edges
// (loops, alternatives). The work per character is the program's size in words times those
// distances, whatever the states are: it takes over where the cache of automaton states meets a
// new state at nearly every character and so pays a closure of the program per character.
#pragma once

#include <DorvikCore/DKExport.h>
#include <DorvikCore/DKTypes.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace dkre {

class Program;

// The number of threads that force the engine on (ForceBitParallel).
extern std::atomic<int> bitParallelForcing;

class BitParallel {
public:
  // The tables of program, built on the first call from any thread; null when the program has no
  // character classes or its tables would be too large.
  static const BitParallel* Of(const Program& program);
  // Whether a match that misses its full cache of states, after computing new states of work
  // instructions in all over chars characters, is better off going on here: those states would
  // take a good part of the cache, and the estimated work of a step here is below what they cost
  // per character.
  static bool TakesOver(const Program& program, std::uint64_t work, std::size_t chars);
  // Whether TakesOver has said yes for the program before.
  static bool HandedOver(const Program& program) noexcept;
  // When the calling thread forces the engine on (ForceBitParallel) and the program has tables:
  // the answer for the whole text (1 or 0), reached by the plain automaton for the first code
  // units asked for and by this engine for the rest. -1 otherwise.
  static int Forced(const Program& program, const DKChar* text, std::size_t length);
  // Whether any thread forces the engine on: one load, before the call to Forced.
  static bool AnyForced() noexcept { return bitParallelForcing.load(std::memory_order_relaxed) != 0; }

  // Whether the whole text matches, going on at pos (before length) from the live instructions
  // pcs (of a state or an automaton's set: instructions that consume nothing are ignored).
  bool Match(const std::uint32_t* pcs, std::size_t count, const DKChar* text, std::size_t length, std::size_t pos) const;
  // Estimated work of one step, in operations on 64-bit words.
  std::size_t Cost() const noexcept { return m_cost; }

  BitParallel() = default;
  BitParallel(const BitParallel&) = delete;
  BitParallel& operator=(const BitParallel&) = delete;

private:
  struct Word {
    std::uint32_t index;
    std::uint64_t bits;
  };
  static constexpr std::uint32_t none = 0xFFFFFFFFu;

  static std::unique_ptr<BitParallel> Build(const Program& program);
  // Moves the state cur along the forward distances into next, which holds the special
  // positions' follow sets, and keeps what takes the class; returns whether any position is left.
  template <std::size_t N>
  std::uint64_t Forward(const std::uint64_t* cur, std::uint64_t* next, const std::uint64_t* taken) const;
  // The positions of the consuming instructions among pcs, as words.
  void Positions(const std::uint32_t* pcs, std::size_t count, std::uint64_t* words) const;

  const Program* m_program = nullptr;
  std::uint32_t m_words = 0;
  std::size_t m_cost = 0;
  std::vector<std::uint32_t> m_positionOf; // per instruction: its position, or none
  std::vector<std::uint64_t> m_classBits;  // per class, m_words words: the positions that take it
  std::vector<int> m_distances;            // the distances shifted along, -63 .. 63, forward first
  std::size_t m_forward = 0;               // how many are forward (0 .. 63)
  std::vector<std::uint64_t> m_forwardMasks; // per word after a zero one, one per forward
                                             // distance: the positions whose edge it moves along
  std::vector<std::uint64_t> m_shiftMasks; // the same per backward distance, m_words + 2 words
                                           // (the first and last zero)
  std::vector<std::uint64_t> m_special;    // the positions with other edges
  std::vector<std::uint32_t> m_specialWords; // the words of m_special that hold any
  std::vector<std::uint32_t> m_groupOf;    // per position: the group of its follow set, or none
  std::vector<std::uint32_t> m_groupStart; // per group and one more: its first word in m_groupWords
  std::vector<Word> m_groupWords;          // the follow sets, nonzero words only
  std::vector<std::uint64_t> m_accept;     // the positions after which the text may end
};

// A program's tables, built once on first use.
class BitParallelSlot {
public:
  BitParallelSlot() noexcept;
  ~BitParallelSlot();

private:
  friend class BitParallel;
  std::once_flag m_once;
  std::unique_ptr<BitParallel> m_tables;
  std::atomic<bool> m_handedOver{false};
};

// For the tests: on, the calling thread's matches run the engine (where the program has tables),
// the first afterUnits code units of each text on the plain automaton, the rest here. Off, the
// engine runs only where the matcher hands a text over to it.
DK_EXPORT void ForceBitParallel(bool on, std::size_t afterUnits = 0) noexcept;
// For the tests: how many texts the engine has run on the calling thread.
DK_EXPORT std::size_t BitParallelRuns() noexcept;

} // namespace dkre
