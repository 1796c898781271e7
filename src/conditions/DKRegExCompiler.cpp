// Syntax tree to program: a size check with counted repetitions written out, and Thompson's
// construction run over the tree with an explicit work stack, so that no step recurses on the
// pattern's nesting; then the character classes that the cache of automaton states tells apart.
// Exports Program::Compile; private here: the Compiler (its use of Program's internals), the
// size count, the emitter of instructions and the error text.
#include "conditions/DKRegExParser.h"

#include <DorvikCore/DKRegEx.h>

#include <algorithm>
#include <limits>
#include <string>
#include <unordered_map>

namespace dkre {

// The compiler's use of Program's internals.
class Compiler {
public:
  static void Install(Program& program, std::vector<Inst>&& insts, std::vector<CharSet>&& sets, std::uint32_t start,
                      std::uint32_t matchPc, std::size_t cacheBytes);

private:
  static void BuildClasses(Program& program);
};

namespace {

constexpr std::uint32_t nil = std::numeric_limits<std::uint32_t>::max();

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
    bool star = false; // Star and Plus: the loop, once the body is stripped, may run zero times
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
      case NodeKind::Plus: {
        // A loop over a body that is itself a loop or an option of x, or x{0,n} or x{1,n}, is a
        // loop over x: (x{0,n})+ is x*, (x+)+ is x+. Fewer instructions, and far fewer states
        // for the cache of automaton states, where the copies of x would each be a state.
        std::uint32_t body = n.child;
        bool star = n.kind == NodeKind::Star;
        for (;;) {
          const Node& b = nodes[body];
          if (b.kind == NodeKind::Star || b.kind == NodeKind::Quest)
            star = true;
          else if (b.kind == NodeKind::Repeat && b.arg <= 1 && b.arg2 != 0)
            star = star || b.arg == 0;
          else if (b.kind != NodeKind::Plus)
            break;
          body = b.child;
        }
        tasks.push_back({task.node, true, star});
        tasks.push_back({body, false});
        break;
      }
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
    case NodeKind::Star:
    case NodeKind::Plus: frags.push_back(task.star ? emitter.Star(pop()) : emitter.Plus(pop())); break;
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
