// The bit-parallel engine: its tables, built from the program's instructions once, the step
// over them, and the hooks of the tests. Private here: the closure walk that finds the follow
// sets, and the limits on the tables' size and on the work of building them.
#include "conditions/DKRegExBitParallel.h"

#include "conditions/DKRegExProgram.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace dkre {

namespace {

// Larger tables, or more work to find the follow sets, and the program has no tables: the
// engine would then cost more per character than it saves.
constexpr std::size_t maxClassBytes = 4u << 20;
constexpr std::size_t maxFollowEdges = 4u << 20;
constexpr std::uint64_t maxClosureVisits = 8u << 20;
constexpr std::size_t maxGroupWords = 1u << 20;
constexpr std::size_t maxDistances = 6;
// A state of the cached automaton costs about this many times more per instruction it keeps than
// the engine per word operation.
constexpr std::uint64_t stateToWordCost = 4;
// The share of the cache (one in this many bytes) that a text's own new states must have taken
// before the engine takes the text over.
constexpr std::uint64_t evidenceShare = 16;

thread_local bool forceOn = false;
thread_local std::size_t forceAfter = 0;
thread_local std::size_t runs = 0;

// Walks the instructions reachable without consuming: hands the consuming ones to a callback and
// tells whether Match is among them. One set of visited instructions serves several walks until
// cleared, so that an automaton's step adds each instruction once.
class ClosureWalk {
public:
  explicit ClosureWalk(const std::vector<Inst>& insts) : m_insts(insts) { m_seen.Resize(insts.size()); }
  void Clear() noexcept { m_seen.Clear(); }
  std::uint64_t Visits() const noexcept { return m_visits; }

  template <class Consuming>
  bool Walk(std::uint32_t pc, bool atStart, bool atEnd, Consuming&& consuming) {
    bool match = false;
    m_stack.push_back(pc);
    while (!m_stack.empty()) {
      pc = m_stack.back();
      m_stack.pop_back();
      if (m_seen.Contains(pc))
        continue;
      m_seen.Insert(pc);
      ++m_visits;
      const Inst& inst = m_insts[pc];
      switch (inst.op) {
      case Op::Char:
      case Op::Set: consuming(pc); break;
      case Op::Match: match = true; break;
      case Op::Split:
        m_stack.push_back(inst.out1);
        m_stack.push_back(inst.out);
        break;
      case Op::Nop: m_stack.push_back(inst.out); break;
      case Op::Begin:
        if (atStart)
          m_stack.push_back(inst.out);
        break;
      case Op::End:
        if (atEnd)
          m_stack.push_back(inst.out);
        break;
      }
    }
    return match;
  }

private:
  const std::vector<Inst>& m_insts;
  StampSet m_seen;
  std::vector<std::uint32_t> m_stack;
  std::uint64_t m_visits = 0;
};

void SetBit(std::uint64_t* words, std::uint32_t bit) noexcept { words[bit >> 6] |= std::uint64_t{1} << (bit & 63); }

} // namespace

BitParallelSlot::BitParallelSlot() noexcept = default;
BitParallelSlot::~BitParallelSlot() = default;

std::atomic<int> bitParallelForcing{0};

void ForceBitParallel(bool on, std::size_t afterUnits) noexcept {
  if (on != forceOn)
    bitParallelForcing.fetch_add(on ? 1 : -1, std::memory_order_relaxed);
  forceOn = on;
  forceAfter = afterUnits;
}

std::size_t BitParallelRuns() noexcept { return runs; }

const BitParallel* BitParallel::Of(const Program& program) {
  BitParallelSlot& slot = program.m_bits;
  std::call_once(slot.m_once, [&] { slot.m_tables = Build(program); });
  return slot.m_tables.get();
}

bool BitParallel::TakesOver(const Program& program, std::uint64_t work, std::size_t chars) {
  // The text must have missed for a good part of the cache: a few new states are cheaper.
  if (work * sizeof(std::uint32_t) * evidenceShare < program.m_cacheBytes)
    return false;
  const BitParallel* tables = Of(program);
  if (!tables || tables->m_cost * std::max<std::size_t>(chars, 1) > work * stateToWordCost)
    return false;
  if (!program.m_bits.m_handedOver.load(std::memory_order_relaxed))
    program.m_bits.m_handedOver.store(true, std::memory_order_relaxed);
  return true;
}

bool BitParallel::HandedOver(const Program& program) noexcept {
  return program.m_bits.m_handedOver.load(std::memory_order_relaxed);
}

std::unique_ptr<BitParallel> BitParallel::Build(const Program& program) {
  const std::uint32_t classes = program.m_classCount;
  if (classes == 0)
    return nullptr;
  const std::vector<Inst>& insts = program.m_insts;
  auto bp = std::make_unique<BitParallel>();
  bp->m_program = &program;

  // Positions in program order.
  bp->m_positionOf.assign(insts.size(), none);
  std::vector<std::uint32_t> pcOf;
  for (std::uint32_t pc = 0; pc < insts.size(); ++pc)
    if (insts[pc].op == Op::Char || insts[pc].op == Op::Set) {
      bp->m_positionOf[pc] = static_cast<std::uint32_t>(pcOf.size());
      pcOf.push_back(pc);
    }
  const auto positions = static_cast<std::uint32_t>(pcOf.size());
  const std::uint32_t words = std::max<std::uint32_t>((positions + 63) / 64, 1);
  bp->m_words = words;
  if (std::size_t{classes} * words * sizeof(std::uint64_t) > maxClassBytes)
    return nullptr;

  // The classes each position takes: a character its own; a set those of the intervals inside
  // its ranges (the intervals are split at every edge of every set, so none straddles one).
  bp->m_classBits.assign(std::size_t{classes} * words, 0);
  std::vector<std::vector<std::uint32_t>> setClasses(program.m_sets.size());
  std::vector<std::uint8_t> taken(classes);
  for (std::uint32_t p = 0; p < positions; ++p) {
    const Inst& inst = insts[pcOf[p]];
    if (inst.op == Op::Char) {
      SetBit(&bp->m_classBits[std::size_t{program.ClassOf(inst.arg)} * words], p);
      continue;
    }
    std::vector<std::uint32_t>& list = setClasses[inst.arg];
    if (list.empty() && !program.m_sets[inst.arg].Ranges().empty()) {
      std::fill(taken.begin(), taken.end(), 0);
      const std::vector<char32_t>& bounds = program.m_boundaries;
      for (const CharSet::Range& r : program.m_sets[inst.arg].Ranges()) {
        std::size_t i = static_cast<std::size_t>(std::upper_bound(bounds.begin(), bounds.end(), r.lo) - bounds.begin()) - 1;
        for (; i < bounds.size() && bounds[i] <= r.hi; ++i) {
          const std::uint32_t cls = program.m_intervalClass[i];
          if (!taken[cls]) {
            taken[cls] = 1;
            list.push_back(cls);
          }
        }
      }
    }
    for (const std::uint32_t cls : list)
      SetBit(&bp->m_classBits[std::size_t{cls} * words], p);
  }

  // The follow set of each position: the positions reachable from its way out. Positions with
  // the same way out (the branches of an alternative, the body of a loop) share theirs.
  ClosureWalk walk(insts);
  std::vector<std::uint32_t> groupOfTarget(insts.size(), none);
  std::vector<std::uint32_t> groupOfPosition(positions);
  std::vector<std::uint32_t> follow, followStart{0};
  std::vector<std::uint8_t> groupAccepts;
  for (std::uint32_t p = 0; p < positions; ++p) {
    const std::uint32_t target = insts[pcOf[p]].out;
    if (groupOfTarget[target] == none) {
      groupOfTarget[target] = static_cast<std::uint32_t>(followStart.size() - 1);
      walk.Clear();
      walk.Walk(target, false, false, [&](std::uint32_t pc) { follow.push_back(bp->m_positionOf[pc]); });
      std::sort(follow.begin() + followStart.back(), follow.end());
      followStart.push_back(static_cast<std::uint32_t>(follow.size()));
      walk.Clear();
      groupAccepts.push_back(walk.Walk(target, false, true, [](std::uint32_t) {}) ? 1 : 0);
      if (follow.size() > maxFollowEdges || walk.Visits() > maxClosureVisits)
        return nullptr;
    }
    groupOfPosition[p] = groupOfTarget[target];
  }

  // The distances most edges share become shifts, as long as each moves at least half a word per
  // word of the state; the edges left over make their positions special.
  std::vector<std::size_t> histogram(127, 0);
  for (std::uint32_t p = 0; p < positions; ++p) {
    const std::uint32_t g = groupOfPosition[p];
    for (std::uint32_t k = followStart[g]; k < followStart[g + 1]; ++k) {
      const std::int64_t d = std::int64_t{follow[k]} - p;
      if (d >= -63 && d <= 63)
        ++histogram[static_cast<std::size_t>(d + 63)];
    }
  }
  std::vector<int> order(127);
  for (int d = 0; d < 127; ++d)
    order[static_cast<std::size_t>(d)] = d - 63;
  std::stable_sort(order.begin(), order.end(), [&](int a, int b) {
    return histogram[static_cast<std::size_t>(a + 63)] > histogram[static_cast<std::size_t>(b + 63)];
  });
  const std::size_t worth = std::max<std::size_t>((words + 1) / 2, 1);
  for (const int d : order) {
    if (bp->m_distances.size() == maxDistances || histogram[static_cast<std::size_t>(d + 63)] < worth)
      break;
    bp->m_distances.push_back(d);
  }
  // Forward distances first: one pass over the words moves along all of them.
  std::stable_partition(bp->m_distances.begin(), bp->m_distances.end(), [](int d) { return d >= 0; });
  const std::size_t forward = static_cast<std::size_t>(
      std::count_if(bp->m_distances.begin(), bp->m_distances.end(), [](int d) { return d >= 0; }));
  std::vector<int> shiftOf(127, -1);
  for (std::size_t j = 0; j < bp->m_distances.size(); ++j)
    shiftOf[static_cast<std::size_t>(bp->m_distances[j] + 63)] = static_cast<int>(j);

  const std::size_t row = std::size_t{words} + 2;
  bp->m_forward = forward;
  bp->m_forwardMasks.assign(forward * (words + 1), 0);
  bp->m_shiftMasks.assign((bp->m_distances.size() - forward) * row, 0);
  bp->m_special.assign(words, 0);
  bp->m_accept.assign(words, 0);
  bp->m_groupOf.assign(positions, none);
  std::vector<std::uint32_t> compact(followStart.size() - 1, none);
  std::size_t specials = 0;
  bp->m_groupStart.push_back(0);
  for (std::uint32_t p = 0; p < positions; ++p) {
    const std::uint32_t g = groupOfPosition[p];
    if (groupAccepts[g])
      SetBit(bp->m_accept.data(), p);
    bool special = false;
    for (std::uint32_t k = followStart[g]; k < followStart[g + 1]; ++k) {
      const std::int64_t d = std::int64_t{follow[k]} - p;
      const int shift = d >= -63 && d <= 63 ? shiftOf[static_cast<std::size_t>(d + 63)] : -1;
      if (shift < 0)
        special = true;
      else if (static_cast<std::size_t>(shift) < forward)
        bp->m_forwardMasks[((p >> 6) + 1) * forward + static_cast<std::size_t>(shift)] |= std::uint64_t{1} << (p & 63);
      else
        SetBit(&bp->m_shiftMasks[(static_cast<std::size_t>(shift) - forward) * row + 1], p);
    }
    if (!special)
      continue;
    ++specials;
    SetBit(bp->m_special.data(), p);
    if (compact[g] == none) { // the whole follow set, as its nonzero words
      compact[g] = static_cast<std::uint32_t>(bp->m_groupStart.size() - 1);
      for (std::uint32_t k = followStart[g]; k < followStart[g + 1]; ++k) {
        const std::uint32_t index = follow[k] >> 6;
        if (bp->m_groupWords.empty() || bp->m_groupStart.back() == bp->m_groupWords.size() ||
            bp->m_groupWords.back().index != index)
          bp->m_groupWords.push_back({index, 0});
        bp->m_groupWords.back().bits |= std::uint64_t{1} << (follow[k] & 63);
      }
      bp->m_groupStart.push_back(static_cast<std::uint32_t>(bp->m_groupWords.size()));
      if (bp->m_groupWords.size() > maxGroupWords)
        return nullptr;
    }
    bp->m_groupOf[p] = compact[g];
  }
  for (std::uint32_t w = 0; w < words; ++w)
    if (bp->m_special[w])
      bp->m_specialWords.push_back(w);
  // A step: clearing, the special positions and their follow words, a pass per backward
  // distance, one for the forward ones and the class. Every special position counts as live.
  bp->m_cost = (forward + 2 * (bp->m_distances.size() - forward) + 3) * words + bp->m_specialWords.size() + specials +
               bp->m_groupWords.size();
  return bp;
}

void BitParallel::Positions(const std::uint32_t* pcs, std::size_t count, std::uint64_t* words) const {
  for (std::size_t k = 0; k < count; ++k)
    if (const std::uint32_t p = m_positionOf[pcs[k]]; p != none)
      SetBit(words, p);
}

template <std::size_t N>
std::uint64_t BitParallel::Forward(const std::uint64_t* cur, std::uint64_t* next, const std::uint64_t* taken) const {
  static_assert(N <= maxDistances);
  int distance[N + 1] = {};
  for (std::size_t j = 0; j < N; ++j)
    distance[j] = m_distances[j];
  std::uint64_t any = 0;
  for (std::size_t w = 1; w <= m_words; ++w) {
    std::uint64_t x = next[w];
    const std::uint64_t here = cur[w], before = cur[w - 1];
    const std::uint64_t* masks = m_forwardMasks.data() + w * N;
    const std::uint64_t* masksBefore = masks - N;
    // Each distance moves bits of this word up and the top ones of the word before in (none
    // for a distance of 0).
    for (std::size_t j = 0; j < N; ++j)
      x |= ((here & masks[j]) << distance[j]) | (((before & masksBefore[j]) >> 1) >> (63 - distance[j]));
    x &= taken[w - 1];
    next[w] = x;
    any |= x;
  }
  return any;
}

bool BitParallel::Match(const std::uint32_t* pcs, std::size_t count, const DKChar* text, std::size_t length,
                        std::size_t pos) const {
  ++runs;
  const Program& program = *m_program;
  const std::size_t words = m_words, row = words + 2;
  // Both states have a zero word before and after theirs, so that shifts read no special case.
  std::vector<std::uint64_t> state(2 * row, 0);
  std::uint64_t* cur = state.data();
  std::uint64_t* next = cur + row;
  std::vector<std::uint32_t> stamps(m_groupStart.size(), 0);
  std::uint32_t step = 0;
  auto classBits = [&]() -> const std::uint64_t* {
    const char16_t u = static_cast<char16_t>(text[pos]);
    std::uint32_t cls;
    if (u < 128) {
      cls = program.m_asciiClass[u];
      ++pos;
    } else {
      cls = program.IntervalClass(NextCodePoint(text, length, pos));
    }
    return &m_classBits[std::size_t{cls} * words];
  };

  // The live positions take the first character themselves.
  Positions(pcs, count, cur + 1);
  const std::uint64_t* taken = classBits();
  std::uint64_t any = 0;
  for (std::size_t w = 0; w < words; ++w)
    any |= cur[w + 1] &= taken[w];
  while (any && pos < length) {
    taken = classBits();
    std::memset(next + 1, 0, words * sizeof(std::uint64_t));
    if (++step == 0) {
      std::fill(stamps.begin(), stamps.end(), 0);
      step = 1;
    }
    for (const std::uint32_t w : m_specialWords)
      for (std::uint64_t special = cur[w + 1] & m_special[w]; special; special &= special - 1) {
        const std::uint32_t g = m_groupOf[w * 64 + static_cast<std::size_t>(std::countr_zero(special))];
        if (stamps[g] == step)
          continue;
        stamps[g] = step;
        for (std::uint32_t k = m_groupStart[g]; k < m_groupStart[g + 1]; ++k)
          next[m_groupWords[k].index + 1] |= m_groupWords[k].bits;
      }
    for (std::size_t j = m_forward; j < m_distances.size(); ++j) {
      const std::uint64_t* mask = &m_shiftMasks[(j - m_forward) * row];
      const int e = -m_distances[j];
      for (std::size_t w = 1; w <= words; ++w)
        next[w] |= ((cur[w] & mask[w]) >> e) | ((cur[w + 1] & mask[w + 1]) << (64 - e));
    }
    switch (m_forward) {
    case 0: any = Forward<0>(cur, next, taken); break;
    case 1: any = Forward<1>(cur, next, taken); break;
    case 2: any = Forward<2>(cur, next, taken); break;
    case 3: any = Forward<3>(cur, next, taken); break;
    case 4: any = Forward<4>(cur, next, taken); break;
    case 5: any = Forward<5>(cur, next, taken); break;
    default: any = Forward<6>(cur, next, taken); break;
    }
    std::swap(cur, next);
  }
  if (!any)
    return false;
  for (std::size_t w = 0; w < words; ++w)
    if (cur[w + 1] & m_accept[w])
      return true;
  return false;
}

int BitParallel::Forced(const Program& program, const DKChar* text, std::size_t length) {
  if (!forceOn || length == 0)
    return -1;
  const BitParallel* tables = Of(program);
  if (!tables)
    return -1;
  // The plain automaton over the first code units asked for, stopping before the last character
  // so that the engine takes at least one.
  const std::vector<Inst>& insts = program.m_insts;
  ClosureWalk walk(insts);
  std::vector<std::uint32_t> cur, next;
  auto add = [&next](std::uint32_t pc) { next.push_back(pc); };
  walk.Walk(program.m_start, true, false, add);
  std::size_t pos = 0;
  for (;;) {
    cur.swap(next);
    std::size_t after = pos;
    if (pos >= forceAfter || (NextCodePoint(text, length, after), after >= length))
      break;
    const char32_t c = NextCodePoint(text, length, pos);
    next.clear();
    walk.Clear();
    for (const std::uint32_t pc : cur)
      if (insts[pc].op == Op::Char ? insts[pc].arg == c : program.m_sets[insts[pc].arg].Contains(c))
        walk.Walk(insts[pc].out, false, false, add);
  }
  return tables->Match(cur.data(), cur.size(), text, length, pos) ? 1 : 0;
}

} // namespace dkre
