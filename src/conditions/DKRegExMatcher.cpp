// Whole-text matching: the automaton's state sets are followed one character at a time. Each set
// met is cached as a state with its transitions per character class, so that a text over known
// states costs one table look-up per character; a cache that is full hands the rest of the text
// to the plain simulation, which keeps the time linear in the text either way.
#include "conditions/DKRegExProgram.h"

#include <algorithm>

namespace dkre {

Program::~Program() = default;

std::uint16_t Program::IntervalClass(char32_t c) const noexcept {
  const auto it = std::upper_bound(m_boundaries.begin(), m_boundaries.end(), c);
  return m_intervalClass[static_cast<std::size_t>(it - m_boundaries.begin()) - 1];
}

void Program::AddClosure(SparseSet& set, std::uint32_t pc, bool atStart, bool atEnd, std::vector<std::uint32_t>& stack) const {
  stack.push_back(pc);
  while (!stack.empty()) {
    pc = stack.back();
    stack.pop_back();
    if (set.Contains(pc))
      continue;
    set.Insert(pc);
    const Inst& inst = m_insts[pc];
    switch (inst.op) {
    case Op::Split:
      stack.push_back(inst.out1);
      stack.push_back(inst.out);
      break;
    case Op::Nop: stack.push_back(inst.out); break;
    case Op::Begin:
      if (atStart)
        stack.push_back(inst.out);
      break;
    case Op::End: // kept in the set while pending: AcceptsAtEnd goes on from it
      if (atEnd)
        stack.push_back(inst.out);
      break;
    default: break;
    }
  }
}

template <class Pcs>
void Program::Step(const Pcs& from, char32_t c, SparseSet& to, std::vector<std::uint32_t>& stack) const {
  to.Clear();
  for (const std::uint32_t pc : from) {
    const Inst& inst = m_insts[pc];
    if ((inst.op == Op::Char || inst.op == Op::Set) && Consumes(inst, c))
      AddClosure(to, inst.out, false, false, stack);
  }
}

template <class Pcs>
bool Program::AcceptsAtEnd(const Pcs& pcs, bool atStart, SparseSet& scratch, std::vector<std::uint32_t>& stack) const {
  scratch.Clear();
  for (const std::uint32_t pc : pcs) {
    if (m_insts[pc].op == Op::Match)
      return true;
    if (m_insts[pc].op == Op::End)
      AddClosure(scratch, m_insts[pc].out, atStart, true, stack);
  }
  return scratch.Contains(m_matchPc);
}

bool Program::MatchUncached(SparseSet& cur, const DKChar* text, std::size_t length, std::size_t pos) const {
  SparseSet next(m_insts.size());
  std::vector<std::uint32_t> stack;
  while (pos < length) {
    const char32_t c = NextCodePoint(text, length, pos);
    Step(cur, c, next, stack);
    std::swap(cur, next);
    if (cur.Empty())
      return false;
  }
  return AcceptsAtEnd(cur, false, next, stack);
}

bool Program::Match(const DKChar* text, std::size_t length) const {
  if (length == 0 || m_classCount == 0) {
    SparseSet set(m_insts.size());
    std::vector<std::uint32_t> stack;
    AddClosure(set, m_start, true, length == 0, stack);
    if (length == 0)
      return set.Contains(m_matchPc);
    return MatchUncached(set, text, length, 0);
  }
  return MatchCached(text, length);
}

bool Program::MatchCached(const DKChar* text, std::size_t length) const {
  State* state = m_startState.load(std::memory_order_acquire);
  if (!state)
    state = StartState();
  auto fallBack = [&](const State* from, std::size_t pos) {
    SparseSet set(m_insts.size());
    if (from) {
      for (const std::uint32_t pc : from->pcs)
        set.Insert(pc);
    } else {
      std::vector<std::uint32_t> stack;
      AddClosure(set, m_start, true, false, stack);
    }
    return MatchUncached(set, text, length, pos);
  };
  if (!state)
    return fallBack(nullptr, 0);

  for (std::size_t pos = 0; pos < length;) {
    const std::size_t before = pos;
    std::uint32_t cls;
    if (static_cast<char16_t>(text[pos]) < 128)
      cls = m_asciiClass[static_cast<char16_t>(text[pos++])];
    else
      cls = IntervalClass(NextCodePoint(text, length, pos));
    State* next = state->next[cls].load(std::memory_order_acquire);
    if (!next) {
      next = NextState(state, cls);
      if (!next)
        return fallBack(state, before);
    }
    if (next == m_dead)
      return false;
    state = next;
  }
  return state->acceptAtEnd;
}

bool Program::PrepareCache() {
  m_scratch.Resize(m_insts.size());
  m_scratch2.Resize(m_insts.size());
  m_scratch.Clear();
  return Intern(m_scratch) != nullptr;
}

Program::State* Program::StartState() const {
  std::lock_guard<std::mutex> lock(m_cacheLock);
  if (State* state = m_startState.load(std::memory_order_relaxed))
    return state;
  m_scratch.Clear();
  AddClosure(m_scratch, m_start, true, false, m_stack);
  State* state = Intern(m_scratch);
  if (state)
    m_startState.store(state, std::memory_order_release);
  return state;
}

Program::State* Program::NextState(State* from, std::uint32_t cls) const {
  std::lock_guard<std::mutex> lock(m_cacheLock);
  if (State* next = from->next[cls].load(std::memory_order_relaxed))
    return next;
  Step(from->pcs, m_classSample[cls], m_scratch, m_stack);
  State* next = Intern(m_scratch);
  if (next)
    from->next[cls].store(next, std::memory_order_release);
  return next;
}

Program::State* Program::Intern(const SparseSet& set) const {
  std::vector<std::uint32_t> key;
  for (const std::uint32_t pc : set) {
    const Op op = m_insts[pc].op;
    if (op == Op::Char || op == Op::Set || op == Op::Match || op == Op::End)
      key.push_back(pc);
  }
  if (key.empty() && m_dead)
    return m_dead;
  std::sort(key.begin(), key.end());
  if (const auto found = m_states.find(key); found != m_states.end())
    return found->second.get();

  // The key is held twice (map and state), plus the transitions and the map's node.
  const std::size_t cost = sizeof(State) + 2 * key.size() * sizeof(std::uint32_t) +
                           m_classCount * sizeof(std::atomic<State*>) + 64;
  if (m_cacheUsed + cost > m_cacheBytes)
    return nullptr;
  m_cacheUsed += cost;
  auto state = std::make_unique<State>();
  state->pcs = key;
  state->acceptAtEnd = AcceptsAtEnd(key, false, m_scratch2, m_stack);
  state->next = std::make_unique<std::atomic<State*>[]>(m_classCount);
  State* raw = state.get();
  if (key.empty()) { // the dead state: no instruction left, every character leads back to it
    m_dead = raw;
    for (std::uint32_t c = 0; c < m_classCount; ++c)
      raw->next[c].store(raw, std::memory_order_relaxed);
  }
  m_states.emplace(std::move(key), std::move(state));
  return raw;
}

} // namespace dkre
