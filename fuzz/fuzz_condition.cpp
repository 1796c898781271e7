// Fuzz target for conditions: the reader (DKCondition::FromString, readable and "@@" native
// text) and conditions built in code.
//
// Input: used twice. As text: the condition text, UTF-8 (other bytes are read as Latin-1). As a
// program (Builder): each byte a step that builds a condition in code with the comparison and
// link operators: comparisons on field names and values that readable text cannot hold,
// links, going into a linked condition and back, long flat lists of links, long chains and deep
// nesting (up to 3,000 conditions, deeper than maxParseDepth).
// Properties checked besides "no crash, no hang, no exception", for both conditions:
//   - what ToString() writes reads back (FromString is true) to a condition that evaluates alike
//     for several sets of field values (each comparison's truth comes from a hash of its field,
//     operator and value, and a seed); it is the native form exactly when HasReadableForm() is
//     false, and a condition read from readable text is written in readable text;
//   - the native text reads back to the same native text, and evaluates alike;
//   - a copy evaluates alike, also once the original is gone;
//   - a text that does not read still leaves a condition that prints and evaluates.
#include <DorvikCore/DKCondition.h>
#include <DorvikCore/DKConsole.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iterator>
#include <limits>
#include <optional>
#include <ostream>
#include <streambuf>
#include <vector>

namespace {

void Require(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "property violated: %s\n", what);
    std::abort();
  }
}

struct SeedParams : DKConditionParams {
  std::size_t seed = 0;
};

// Every comparison is true or false by a hash of what it compares, so that two conditions that
// hold the same comparisons evaluate alike.
class HashCondition : public DKCondition {
public:
  DKSmartPtr<DKCondition> NewChild() const override { return DKSmartPtr<DKCondition>(new HashCondition()); }
  bool OnEvaluate(const DKConditionParams& params) const override {
    const std::size_t seed = static_cast<const SeedParams&>(params).seed;
    const std::hash<DKString> hash;
    return ((hash(GetFieldName()) ^ (hash(GetValueText()) * 31) ^ static_cast<std::size_t>(GetOperatorCode()) ^ seed) >> 3) & 1;
  }
};

// The console lines of the reader ("OR Parsing not implemented!") go nowhere.
class NullBuffer : public std::streambuf {
protected:
  int overflow(int c) override { return c; }
};

DKString Decode(const std::uint8_t* data, std::size_t size) {
  DKString text;
  if (text.SetFromUTF8(reinterpret_cast<const char*>(data), size).Good())
    return text;
  for (std::size_t i = 0; i < size; ++i)
    text += static_cast<DKChar>(data[i]);
  return text;
}

DKString Text(const char* utf8) { return DKString::FromUTF8(utf8); }

// Builds a condition from the input's bytes, each a step on the condition being built.
class Builder {
public:
  Builder(const std::uint8_t* data, std::size_t size) : m_data(data), m_size(size) {}

  void Build(HashCondition& root) {
    std::vector<DKCondition*> path{&root}; // the condition being built and those it is linked from
    while (m_pos < m_size && m_count < maxConditions) {
      DKCondition& current = *path.back();
      switch (Next() % 10) {
      case 0: Compare(current); break;
      case 1: current && Leaf(); break;
      case 2: current || Leaf(); break;
      case 3: path.push_back(Link(current, Next() % 2, HashCondition())); break;
      case 4:
        if (path.size() > 1)
          path.pop_back();
        break;
      case 5: List(current); break;
      case 6: path.back() = Chain(current, false); break;
      case 7: path.back() = Chain(current, true); break;
      case 8: // a copy of the condition linked to itself (copied whole)
        if (m_count < maxConditions / 2) {
          m_count *= 2;
          if (Next() % 2)
            current && current;
          else
            current || current;
        }
        break;
      default: current.AssignFieldName(Name()); break;
      }
    }
  }

private:
  static constexpr std::size_t maxConditions = 3000;

  std::uint8_t Next() { return m_pos < m_size ? m_data[m_pos++] : 0; }

  DKString Name() {
    static const char* const names[] = {"qty", "name", "f(x)", "x)", "a\"b", "two words", "tab\tx", "(p",
                                        "AND", "or", "", "caf\xC3\xA9 \xC3\xBC", "a@b%c", "@@x", "n"};
    const std::uint8_t i = Next() % (std::size(names) + 1);
    return i < std::size(names) ? Text(names[i]) : DKString(DK_T("nul\0x"), 5);
  }

  // A comparison of a field with a value of every kind that code can set, some of which
  // readable text cannot hold.
  void Compare(DKCondition& c) {
    ++m_count;
    c.AssignFieldName(Name());
    static const double doubles[] = {2.5, -0.75, 1e-07, 1e20, 0.1 + 0.2, 3.0, std::numeric_limits<double>::quiet_NaN(),
                                     std::numeric_limits<double>::infinity()};
    static const char* const texts[] = {"text", "", "a\"b", "say \"hi\"", "TO_DATE(x", "f(", "x y", "123", "-5"};
    static const char* const patterns[] = {"[A-M].*", "123", "a b", "[a-", "(x", "\\d+", "", "a\"b", "TO_DATE(.*"};
    static const char* const words[] = {"abc", "-5", "1e5", "x)y", "w\"", "007", "TO_DATE('2020/01/05 10:20:30')"};
    const std::uint8_t how = Next();
    const std::uint8_t op = Next() % 6;
    switch (how % 8) {
    case 0: Apply(c, op, static_cast<int>(static_cast<std::int8_t>(Next()))); break;
    case 1: Apply(c, op, static_cast<DKInt64>(static_cast<std::int8_t>(Next())) << 50); break;
    case 2: Apply(c, op, DKDouble(doubles[Next() % std::size(doubles)])); break;
    case 3: Apply(c, op, Text(texts[Next() % std::size(texts)])); break;
    case 4: c % Text(patterns[Next() % std::size(patterns)]); break;
    case 5: c /= Text(patterns[Next() % std::size(patterns)]); break;
    case 6:
      Apply(c, op, DKDateTime(1980 + Next() % 50, 1 + Next() % 12, 1 + Next() % 28, Next() % 24, Next() % 60, Next() % 60));
      break;
    default: {
      bool isRegEx = false;
      c.AssignOperatorFromStr(isRegEx, op == 0 ? DK_T("<") : DK_T("="));
      c.AssignSuppliedValueFromStr(false, Text(words[Next() % std::size(words)]));
      break;
    }
    }
  }

  template <class T>
  static void Apply(DKCondition& c, std::uint8_t op, const T& value) {
    switch (op) {
    case 0: c == value; break;
    case 1: c != value; break;
    case 2: c < value; break;
    case 3: c <= value; break;
    case 4: c > value; break;
    default: c >= value; break;
    }
  }

  HashCondition Leaf() {
    HashCondition leaf;
    Compare(leaf);
    return leaf;
  }

  // Links a copy of linked to c with the kind; returns the copy.
  DKCondition* Link(DKCondition& c, std::uint32_t kind, const DKCondition& linked) {
    ++m_count;
    DKSmartPtr<DKCondition> child = c.NewChild();
    child->LocalCopy(linked);
    c.GetSubConditionVR().push_back({kind, child});
    return child.Get();
  }

  // How many links a list or chain gets: mostly a few, now and then hundreds to thousands (so
  // that most runs stay quick). And the kind of its i-th link: all AND, all OR, alternating, or
  // changing every so many.
  std::size_t Count() {
    const std::uint8_t n = Next();
    return n < 0xF0 ? n % 16 + 1u : (n - 0xEFu) * 128u;
  }
  static std::uint32_t KindOf(std::uint8_t pattern, std::size_t i) {
    switch (pattern % 4) {
    case 0: return LinkedCond::AND;
    case 1: return LinkedCond::OR;
    case 2: return static_cast<std::uint32_t>(i % 2);
    default: return static_cast<std::uint32_t>(i / (1 + pattern / 4) % 2);
    }
  }

  void List(DKCondition& c) {
    const std::size_t n = Count();
    const std::uint8_t pattern = Next();
    const HashCondition leaf = Leaf();
    for (std::size_t i = 0; i < n && m_count < maxConditions; ++i)
      Link(c, KindOf(pattern, i), leaf);
  }

  // Each new condition linked to the one before; forked: each also links a leaf after it.
  // Returns the last.
  DKCondition* Chain(DKCondition& c, bool forked) {
    const std::size_t n = Count();
    const std::uint8_t pattern = Next();
    const HashCondition leaf = Leaf();
    DKCondition* end = &c;
    for (std::size_t i = 0; i < n && m_count < maxConditions; ++i) {
      DKCondition* next = Link(*end, KindOf(pattern, i), leaf);
      if (forked)
        Link(*end, KindOf(pattern, i + 1), leaf);
      end = next;
    }
    return end;
  }

  const std::uint8_t* m_data;
  std::size_t m_size;
  std::size_t m_pos = 0;
  std::size_t m_count = 1;
};

void CheckTextForms(std::optional<HashCondition>& condition, bool fromReadableText) {
  const DKString text = condition->ToString();
  const DKString native = condition->ToString(true);
  Require(DKCondition::IsNativeFormat(text) != condition->HasReadableForm(), "HasReadableForm tells which form ToString writes");
  Require(!fromReadableText || condition->HasReadableForm(), "a condition read from readable text is written so");

  HashCondition fromText, fromNative;
  Require(fromText.FromString(text), "what ToString writes reads back");
  Require(fromNative.FromString(native), "the native text reads back");
  Require(fromNative.ToString(true) == native, "the native text is written again unchanged");
  const HashCondition copy(*condition);
  std::vector<bool> results;
  for (std::size_t seed = 0; seed < 8; ++seed) {
    SeedParams params;
    params.seed = seed * 0x9E3779B9u;
    const bool expected = condition->Evaluate(params);
    results.push_back(expected);
    Require(fromText.Evaluate(params) == expected, "what ToString writes evaluates alike");
    Require(fromNative.Evaluate(params) == expected, "the native copy evaluates alike");
    Require(copy.Evaluate(params) == expected, "a copy evaluates alike");
  }
  condition.reset();
  for (std::size_t seed = 0; seed < 8; ++seed) {
    SeedParams params;
    params.seed = seed * 0x9E3779B9u;
    Require(copy.Evaluate(params) == results[seed], "a copy evaluates alike once the original is gone");
  }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  static NullBuffer buffer;
  static std::ostream nowhere(&buffer);
  DKLockedCOUT::SetConsoleStream(&nowhere);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 8192)
    return 0;
  const DKString text = Decode(data, size);

  std::optional<HashCondition> read(std::in_place);
  if (read->FromString(text)) {
    CheckTextForms(read, !DKCondition::IsNativeFormat(text));
  } else {
    (void)read->ToString();
    (void)read->ToString(true);
    SeedParams params;
    (void)read->Evaluate(params);
  }

  std::optional<HashCondition> built(std::in_place);
  Builder(data, size).Build(*built);
  CheckTextForms(built, false);
  return 0;
}
