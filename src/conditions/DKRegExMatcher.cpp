// Whole-text matching: the automaton's state sets are followed one character at a time. Each set
// met is cached as a state with its transitions per character class, so that a text over known
// states costs one table look-up per character, and a run of characters that keeps the state
// where it is is skipped eight code units at a time. The program's shared cache, read without a
// lock, only grows; once it is full, the match goes on in a cache of the calling thread's own,
// which is flushed and rebuilt whenever it fills. A text that keeps meeting new states there is
// handed over to the bit-parallel engine (DKRegExBitParallel.h). The time stays linear in the
// text either way.
#include "conditions/DKRegExProgram.h"

#include "base/DKThreadExit.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <new>
#include <span>

#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#define DK_REGEX_SSE2 1
#endif

namespace dkre {

Program::~Program() = default;

std::uint16_t Program::IntervalClass(char32_t c) const noexcept {
  const auto it = std::upper_bound(m_boundaries.begin(), m_boundaries.end(), c);
  return m_intervalClass[static_cast<std::size_t>(it - m_boundaries.begin()) - 1];
}

template <class Set, class Kept>
void Program::Closure(Set& set, std::uint32_t pc, bool atStart, bool atEnd, std::vector<std::uint32_t>& stack,
                      Kept&& kept) const {
  // Each instruction entered pushes at most one other, so the stack never holds more than the
  // program's size plus one.
  if (stack.size() < m_insts.size() + 1)
    stack.resize(m_insts.size() + 1);
  std::uint32_t* const bottom = stack.data();
  std::uint32_t* top = bottom;
  *top++ = pc;
  while (top != bottom) {
    pc = *--top;
    // Follows the first way out of each instruction at once; only a split's second waits.
    while (!set.Contains(pc)) {
      set.Insert(pc);
      const Inst& inst = m_insts[pc];
      if (inst.op == Op::Split) {
        *top++ = inst.out1;
      } else if (inst.op == Op::End) { // kept while pending: AcceptsAtEnd goes on from it
        kept(pc);
        if (!atEnd)
          break;
      } else if (inst.op == Op::Char || inst.op == Op::Set || inst.op == Op::Match) {
        kept(pc);
        break;
      } else if (inst.op == Op::Begin && !atStart) {
        break;
      }
      pc = inst.out;
    }
  }
}

void Program::AddClosure(SparseSet& set, std::uint32_t pc, bool atStart, bool atEnd, std::vector<std::uint32_t>& stack) const {
  Closure(set, pc, atStart, atEnd, stack, [](std::uint32_t) {});
}

template <class Pcs, class Set, class Kept>
void Program::Step(const Pcs& from, char32_t c, Set& to, std::vector<std::uint32_t>& stack, Kept&& kept) const {
  to.Clear();
  for (const std::uint32_t pc : from) {
    const Inst& inst = m_insts[pc];
    if ((inst.op == Op::Char || inst.op == Op::Set) && Consumes(inst, c))
      Closure(to, inst.out, false, false, stack, kept);
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
    Step(cur, c, next, stack, [](std::uint32_t) {});
    std::swap(cur, next);
    if (cur.Empty())
      return false;
  }
  return AcceptsAtEnd(cur, false, next, stack);
}

namespace {

static_assert(sizeof(DKChar) == 2, "the run skipping reads UTF-16 code units");

std::atomic<std::uint64_t> lastProgramId{0};

bool InRun(const State& s, char16_t u) noexcept {
  for (unsigned r = 0; r < s.runRanges; ++r)
    if (static_cast<std::uint16_t>(u - s.runLo[r]) <= s.runSpan[r])
      return true;
  return false;
}

// The position of the first code unit at or after pos that does not keep s where it is.
std::size_t SkipRun(const State& s, const DKChar* text, std::size_t pos, std::size_t length) noexcept {
#ifdef DK_REGEX_SSE2
  __m128i lo[State::maxRunRanges], span[State::maxRunRanges];
  const unsigned ranges = s.runRanges; // at least one in a run state
  for (unsigned r = 0; r < ranges; ++r) {
    lo[r] = _mm_set1_epi16(static_cast<short>(s.runLo[r]));
    span[r] = _mm_set1_epi16(static_cast<short>(s.runSpan[r]));
  }
  const __m128i zero = _mm_setzero_si128();
  // All ones in each 16-bit lane whose unit is in the run: u is in lo .. lo + span when u - lo
  // (modulo 2^16) does not exceed span.
  const auto in = [&](std::size_t at) {
    const __m128i units = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + at));
    __m128i any = _mm_cmpeq_epi16(_mm_subs_epu16(_mm_sub_epi16(units, lo[0]), span[0]), zero);
    for (unsigned r = 1; r < ranges; ++r)
      any = _mm_or_si128(any, _mm_cmpeq_epi16(_mm_subs_epu16(_mm_sub_epi16(units, lo[r]), span[r]), zero));
    return any;
  };
  // Four vectors a step while all of them stay in the run; the step that leaves it is looked
  // at vector by vector below.
  while (pos + 32 <= length) {
    const __m128i all = _mm_and_si128(_mm_and_si128(in(pos), in(pos + 8)), _mm_and_si128(in(pos + 16), in(pos + 24)));
    if (_mm_movemask_epi8(all) != 0xFFFF)
      break;
    pos += 32;
  }
  while (pos + 8 <= length) {
    const unsigned out = ~static_cast<unsigned>(_mm_movemask_epi8(in(pos))) & 0xFFFFu;
    if (out)
      return pos + static_cast<std::size_t>(std::countr_zero(out)) / 2;
    pos += 8;
  }
#endif
  while (pos < length && InRun(s, static_cast<char16_t>(text[pos])))
    ++pos;
  return pos;
}

// The cache of the calling thread for the program it matched last past a full shared cache.
// While the thread ends, from its cleanups on (a static object's destructor at exit, or a
// thread_local one), there is none and a match simulates the automaton instead.
struct OwnCache {
  std::uint64_t program = 0;
  StateCache cache;
  std::vector<std::uint32_t> saved;
};

OwnCache* TheOwnCache() noexcept { return dkbase::ThreadOwned<OwnCache>::Get(); }

// Access to the shared cache: every change under the program's lock.
struct SharedAccess {
  std::mutex& lock;
  StateCache& cache;
  State* Step(State*& from, std::uint32_t cls) {
    std::lock_guard<std::mutex> guard(lock);
    if (State* next = from->Next()[cls].load(std::memory_order_relaxed))
      return next;
    return cache.Step(from, cls);
  }
  void Analyse(State* s) {
    std::lock_guard<std::mutex> guard(lock);
    if (s->runKind.load(std::memory_order_relaxed) == State::notAnalysed)
      cache.AnalyseRun(s);
  }
};

// Access to the thread's own cache: a full cache is flushed, and the state it was in rebuilt.
struct OwnAccess {
  OwnCache& own;
  std::uint32_t classCount;
  // Once the cache has been found full in this match (or texts of the program have been handed
  // over before), a miss hands the text over to the bit-parallel engine when the states computed
  // since start (work instructions in all) cost more per character than its steps.
  const Program& program;
  const std::size_t& pos;
  std::size_t start;
  std::uint64_t work = 0;
  bool full = BitParallel::HandedOver(program);
  bool handedOver = false;
  bool HandOver() { return handedOver = BitParallel::TakesOver(program, work, pos - start); }
  State* Step(State*& from, std::uint32_t cls) {
    if (full && HandOver())
      return nullptr;
    if (State* next = own.cache.Step(from, cls))
      return work += next->count, next;
    if (!full) {
      full = true;
      if (HandOver())
        return nullptr;
    }
    own.saved.assign(from->Pcs(classCount), from->Pcs(classCount) + from->count);
    own.cache.Flush();
    from = own.cache.Find(own.saved.data(), static_cast<std::uint32_t>(own.saved.size()));
    return from ? own.cache.Step(from, cls) : nullptr;
  }
  // A state here may be rebuilt after every flush: computing all its transitions each time
  // is worth it only while that is cheap.
  void Analyse(State* s) {
    if (std::uint64_t{classCount} * s->count <= 4096)
      own.cache.AnalyseRun(s);
    else
      s->runKind.store(State::noRun, std::memory_order_relaxed);
  }
};

} // namespace

bool Program::Match(const DKChar* text, std::size_t length) const {
  if (BitParallel::AnyForced())
    if (const int forced = BitParallel::Forced(*this, text, length); forced >= 0)
      return forced == 1;
  if (length == 0 || m_classCount == 0) {
    SparseSet set(m_insts.size());
    std::vector<std::uint32_t> stack;
    AddClosure(set, m_start, true, length == 0, stack);
    if (length == 0)
      return set.Contains(m_matchPc);
    return MatchUncached(set, text, length, 0);
  }
  return MatchShared(text, length);
}

template <class Access>
int Program::Walk(Access& access, State* dead, State*& s, const DKChar* text, std::size_t length, std::size_t& pos) const {
  while (pos < length) {
    const std::size_t before = pos;
    std::uint32_t cls;
    const char16_t u = static_cast<char16_t>(text[pos]);
    if (u < 128) {
      cls = m_asciiClass[u];
      ++pos;
    } else {
      cls = IntervalClass(NextCodePoint(text, length, pos));
    }
    State* next = s->Next()[cls].load(std::memory_order_acquire);
    if (!next) {
      next = access.Step(s, cls);
      if (!next) {
        pos = before;
        return -1;
      }
    }
    if (next == s) {
      const std::uint8_t kind = s->runKind.load(std::memory_order_acquire);
      if (kind == State::run)
        pos = SkipRun(*s, text, pos, length);
      else if (kind == State::notAnalysed)
        access.Analyse(s);
      continue;
    }
    if (next == dead)
      return 0;
    s = next;
  }
  return s->acceptAtEnd ? 1 : 0;
}

bool Program::MatchShared(const DKChar* text, std::size_t length) const {
  State* s = m_startState.load(std::memory_order_acquire);
  if (!s) {
    std::lock_guard<std::mutex> guard(m_cacheLock);
    s = m_startState.load(std::memory_order_relaxed);
    if (!s && (s = m_shared.Start()) != nullptr)
      m_startState.store(s, std::memory_order_release);
  }
  if (!s)
    return MatchOwn(nullptr, text, length, 0);
  SharedAccess access{m_cacheLock, m_shared};
  std::size_t pos = 0;
  if (const int walked = Walk(access, m_shared.Dead(), s, text, length, pos); walked >= 0)
    return walked == 1;
  return MatchOwn(s, text, length, pos);
}

bool Program::MatchOwn(const State* from, const DKChar* text, std::size_t length, std::size_t pos) const {
  if (OwnCache* own = TheOwnCache()) {
    if (own->program != m_id)
      own->program = own->cache.Reset(*this, m_cacheBytes) ? m_id : 0;
    State* s = nullptr;
    for (int attempt = 0; own->program == m_id && attempt < 2 && !s; ++attempt) {
      if (attempt)
        own->cache.Flush();
      s = from ? own->cache.Find(from->Pcs(m_classCount), from->count) : own->cache.Start();
    }
    if (s) {
      OwnAccess access{*own, m_classCount, *this, pos, pos};
      if (const int walked = Walk(access, own->cache.Dead(), s, text, length, pos); walked >= 0)
        return walked == 1;
      if (access.handedOver)
        return BitParallel::Of(*this)->Match(s->Pcs(m_classCount), s->count, text, length, pos);
      // The budget cannot hold a state and the next one: the automaton goes on from where the
      // cache gave up (a state flushed away was saved first).
      return s ? Simulate(s->Pcs(m_classCount), s->count, text, length, pos)
               : Simulate(own->saved.data(), own->saved.size(), text, length, pos);
    }
  }
  return from ? Simulate(from->Pcs(m_classCount), from->count, text, length, pos) : Simulate(nullptr, 0, text, length, pos);
}

bool Program::Simulate(const std::uint32_t* pcs, std::size_t count, const DKChar* text, std::size_t length, std::size_t pos) const {
  SparseSet set(m_insts.size());
  if (pcs) {
    for (std::size_t k = 0; k < count; ++k)
      set.Insert(pcs[k]);
  } else {
    std::vector<std::uint32_t> stack;
    AddClosure(set, m_start, pos == 0, false, stack);
  }
  return MatchUncached(set, text, length, pos);
}

bool Program::PrepareCache() {
  for (const Inst& inst : m_insts)
    m_hasEnd = m_hasEnd || inst.op == Op::End;
  m_id = ++lastProgramId;
  return m_shared.Reset(*this, m_cacheBytes);
}

// ---- StateCache ----------------------------------------------------------------------------------

bool StateCache::Reset(const Program& program, std::size_t budget) {
  FreeStates();
  ::operator delete(m_dead);
  m_dead = nullptr;
  m_program = &program;
  m_budget = budget;
  m_used = 0;
  m_classCount = program.m_classCount;
  const std::size_t n = program.m_insts.size();
  m_set.Resize(n);
  m_scratch.Resize(n);
  m_table.assign(16, nullptr);
  m_states = 0;
  m_key.assign(n, 0);
  return Intern(0, 0) != nullptr;
}

void StateCache::FreeStates() noexcept {
  for (State*& slot : m_table) {
    if (slot && slot != m_dead)
      ::operator delete(slot);
    slot = nullptr;
  }
  m_states = 0;
}

void StateCache::Flush() noexcept {
  FreeStates();
  if (m_table.size() > 16)
    std::vector<State*>(16, nullptr).swap(m_table);
  m_used = m_dead ? StateCost(0) : 0;
}

// A hash of one instruction; a state's hash is the sum over its instructions, so that the order
// in which the closure met them does not matter and no sorting is needed.
static std::uint64_t MixPc(std::uint32_t pc) noexcept {
  const std::uint64_t x = (pc + 1) * 0x9E3779B97F4A7C15ull;
  return x ^ (x >> 31);
}

// Collects the instructions a state keeps, as the closure meets them, and their hash.
struct KeyBuilder {
  std::uint32_t* key;
  std::uint32_t count = 0;
  std::uint64_t hash = 0;
  void operator()(std::uint32_t pc) noexcept {
    key[count++] = pc;
    hash += MixPc(pc);
  }
};

State* StateCache::Start() {
  m_set.Clear();
  KeyBuilder key{m_key.data()};
  m_program->Closure(m_set, m_program->m_start, true, false, m_stack, key);
  return Intern(key.count, key.hash);
}

State* StateCache::Step(State* from, std::uint32_t cls) {
  KeyBuilder key{m_key.data()};
  m_program->Step(std::span<const std::uint32_t>(from->Pcs(m_classCount), from->count), m_program->m_classSample[cls], m_set,
                  m_stack, key);
  State* next = Intern(key.count, key.hash);
  if (next)
    from->Next()[cls].store(next, std::memory_order_release);
  return next;
}

State* StateCache::Find(const std::uint32_t* pcs, std::uint32_t count) {
  m_set.Clear();
  KeyBuilder key{m_key.data()};
  for (std::uint32_t k = 0; k < count; ++k) {
    m_set.Insert(pcs[k]);
    key(pcs[k]);
  }
  return Intern(key.count, key.hash);
}

bool StateCache::Same(const State* s) const noexcept {
  const std::uint32_t* pcs = s->Pcs(m_classCount);
  for (std::uint32_t k = 0; k < s->count; ++k)
    if (!m_set.Contains(pcs[k]))
      return false;
  return true;
}

State* StateCache::Intern(std::uint32_t count, std::uint64_t hash) {
  // Two states are the same when they keep as many instructions and each of one's is in the
  // other's set.
  if (count == 0 && m_dead)
    return m_dead;
  hash += count;

  std::size_t mask = m_table.size() - 1, slot = hash & mask;
  for (; m_table[slot]; slot = (slot + 1) & mask) {
    const State* s = m_table[slot];
    if (s->hash == hash && s->count == count && Same(s))
      return m_table[slot];
  }

  const std::size_t bytes = sizeof(State) + m_classCount * sizeof(State*) + count * sizeof(std::uint32_t);
  if (m_used + StateCost(count) > m_budget)
    return nullptr;
  m_used += StateCost(count);
  void* memory = ::operator new(bytes);
  State* s = new (memory) State;
  s->hash = hash;
  s->count = count;
  for (std::uint32_t c = 0; c < m_classCount; ++c)
    new (&s->Next()[c]) std::atomic<State*>(nullptr);
  std::memcpy(const_cast<std::uint32_t*>(s->Pcs(m_classCount)), m_key.data(), count * sizeof(std::uint32_t));
  // Accepting at the end: Match is live, or a pending End leads to it.
  s->acceptAtEnd = m_program->m_hasEnd ? m_program->AcceptsAtEnd(std::span<const std::uint32_t>(m_key.data(), count), false,
                                                                  m_scratch, m_stack)
                                       : m_set.Contains(m_program->m_matchPc);
  if (count == 0) { // the dead state: no instruction left, every character leads back to it
    m_dead = s;
    for (std::uint32_t c = 0; c < m_classCount; ++c)
      s->Next()[c].store(s, std::memory_order_relaxed);
    s->runKind.store(State::noRun, std::memory_order_relaxed);
    return s;
  }
  if (2 * (m_states + 1) > m_table.size()) {
    std::vector<State*> bigger(m_table.size() * 2, nullptr);
    mask = bigger.size() - 1;
    for (State* old : m_table)
      if (old) {
        std::size_t i = old->hash & mask;
        while (bigger[i])
          i = (i + 1) & mask;
        bigger[i] = old;
      }
    m_table.swap(bigger);
    for (slot = hash & mask; m_table[slot]; slot = (slot + 1) & mask) {
    }
  }
  m_table[slot] = s;
  ++m_states;
  return s;
}

void StateCache::AnalyseRun(State* s) {
  // Worth it only where the classes are few enough to compute every transition at once.
  constexpr std::uint32_t maxClasses = 256;
  auto give = [s](std::uint8_t kind) { s->runKind.store(kind, std::memory_order_release); };
  if (m_classCount > maxClasses)
    return give(State::noRun);
  for (std::uint32_t cls = 0; cls < m_classCount; ++cls)
    if (!s->Next()[cls].load(std::memory_order_relaxed) && !Step(s, cls))
      return give(State::noRun);

  // The code points that lead back to s, without the surrogates (which pair), as ranges.
  std::uint32_t lo[State::maxRunRanges + 1], hi[State::maxRunRanges + 1];
  unsigned ranges = 0;
  auto add = [&](std::uint32_t a, std::uint32_t b) {
    if (ranges > 0 && hi[ranges - 1] + 1 == a) {
      hi[ranges - 1] = b;
      return true;
    }
    if (ranges == State::maxRunRanges)
      return false;
    lo[ranges] = a;
    hi[ranges++] = b;
    return true;
  };
  const std::vector<char32_t>& bounds = m_program->m_boundaries;
  for (std::size_t i = 0; i < bounds.size() && bounds[i] <= 0xFFFF; ++i) {
    if (s->Next()[m_program->m_intervalClass[i]].load(std::memory_order_relaxed) != s)
      continue;
    const std::uint32_t a = bounds[i];
    const std::uint32_t b = std::min<std::uint32_t>(i + 1 < bounds.size() ? bounds[i + 1] - 1 : 0xFFFF, 0xFFFF);
    const bool fits = (a > 0xD7FF || add(a, std::min<std::uint32_t>(b, 0xD7FF))) &&
                      (b < 0xE000 || add(std::max<std::uint32_t>(a, 0xE000), b));
    if (!fits)
      return give(State::noRun);
  }
  if (ranges == 0)
    return give(State::noRun);
  for (unsigned r = 0; r < ranges; ++r) {
    s->runLo[r] = static_cast<std::uint16_t>(lo[r]);
    s->runSpan[r] = static_cast<std::uint16_t>(hi[r] - lo[r]);
  }
  s->runRanges = static_cast<std::uint8_t>(ranges);
  give(State::run);
}

} // namespace dkre
