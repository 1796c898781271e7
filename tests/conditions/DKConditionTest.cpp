#include <DorvikCore/DKCondition.h>

#include <gtest/gtest.h>

#include "support/DKTestSupport.h"
#include "support/DKCaseBlocks.h"
#include "support/DKCaseFile.h"

#include <iterator>
#include <sstream>
#include <cmath>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace {

std::string N(const DKString& s) { return s.AsUTF8(); }

// Truth values per field name, and the order in which fields were asked for.
struct TruthParams : DKConditionParams {
  std::map<std::string, bool> values;
  mutable std::vector<std::string> asked;
};

// A derived condition: its comparison is the field's truth value; it counts value assignments.
class TruthCondition : public DKCondition {
public:
  using DKCondition::DKCondition;
  using DKCondition::GetFieldName;
  DKSmartPtr<DKCondition> NewChild() const override { return DKSmartPtr<DKCondition>(new TruthCondition()); }
  bool OnEvaluate(const DKConditionParams& params) const override {
    const auto& p = static_cast<const TruthParams&>(params);
    const std::string name = N(GetFieldName());
    p.asked.push_back(name);
    const auto it = p.values.find(name);
    return it != p.values.end() && it->second;
  }
  bool AssignFieldName(const DKString& name) override {
    return name != DK_T("forbidden") && DKCondition::AssignFieldName(name);
  }
  bool PostAssignSuppliedValue() override {
    ++posts;
    return GetValueText() != DK_T("refused");
  }
  int posts = 0;
};

// Captures the console for the lines the conditions write.
class ConditionTest : public ::testing::Test {
protected:
  void TearDown() override { DKDouble::zeroValueOnAssign = m_zero; }
  std::string Console() { return m_console.Take(); }

  ConsoleCapture m_console;
  const bool m_zero = DKDouble::zeroValueOnAssign.load();
};

// ---- Operators and values -----------------------------------------------------------------------

// (How "%" and "/=" with a pattern are written: cases/condition-text.txt.)
TEST_F(ConditionTest, OperatorTexts) {
  for (const dktest::CaseLine& c : dktest::ReadCases(DK_TEST_CASES "/condition-operators.txt", 5)) {
    SCOPED_TRACE(c.where);
    DKCondition cond;
    bool isRegEx = !c.YesNo(3); // must be overwritten
    EXPECT_EQ(cond.AssignOperatorFromStr(isRegEx, Text(c[0])), c.YesNo(1));
    EXPECT_EQ(isRegEx, c.YesNo(3));
    EXPECT_EQ(cond.GetOperatorCode(), c.Int(2));
    EXPECT_EQ(N(cond.GetOperator()), c[4]);
  }
}

TEST_F(ConditionTest, SuppliedValueKinds) {
  for (const dktest::CaseLine& c : dktest::ReadCases(DK_TEST_CASES "/condition-values.txt", 7)) {
    SCOPED_TRACE(c.where);
    TruthCondition cond;
    const bool ok = c.YesNo(2);
    EXPECT_EQ(cond.AssignSuppliedValueFromStr(c.YesNo(1), Text(c[0])), ok);
    EXPECT_EQ(cond.GetValueKind(), c.Int(3));
    EXPECT_EQ(N(cond.GetValueText()), c[4]);
    EXPECT_EQ(cond.GetValueAsDouble(), std::stod(c[5]));
    EXPECT_EQ(cond.GetValueAsInt64(), c.Int(6));
    EXPECT_EQ(cond.GetRegEx().IsCompiled(), c.Int(3) == 4 && ok);
    EXPECT_EQ(cond.posts, ok ? 1 : 0);
    if (ok && c.Int(3) == DKCondition::kindDateTime) {
      EXPECT_EQ(cond.GetValueAsDateTime(), DKDateTime(2020, 1, 5, 10, 20, 30));
    }
    const bool badDate = !ok && c.Int(3) == DKCondition::kindDateTime;
    EXPECT_EQ(Console(), badDate ? "ERROR: DKCondition fails in DKDateTime::FromString()\n" : "");
  }
  TruthCondition refused;
  EXPECT_FALSE(refused.AssignSuppliedValueFromStr(false, DK_T("refused")));
  EXPECT_EQ(refused.posts, 1);
}

TEST_F(ConditionTest, TypedSettersStoreTextDoubleAndTruncatedInteger) {
  DKCondition c;
  c < DKInt64{-9007199254740993};
  EXPECT_EQ(c.GetOperatorCode(), DKCondition::opLess);
  EXPECT_EQ(N(c.GetValueText()), "-9007199254740993");
  EXPECT_EQ(c.GetValueAsInt64(), -9007199254740993);

  c >= DKDouble(-2.75);
  EXPECT_EQ(N(c.GetValueText()), "-2.75");
  EXPECT_EQ(c.GetValueAsInt64(), -2); // toward zero
  c != 2.5; // a double literal is a number, not an int
  EXPECT_EQ(c.GetValueAsDouble(), 2.5);
  c > 1e300;
  EXPECT_EQ(c.GetValueAsInt64(), INT64_MAX);
  c == DK_T("text");
  EXPECT_EQ(c.GetValueKind(), DKCondition::kindText);
  EXPECT_EQ(N(c.GetSuppliedValue()), "\"text\"");

  const DKDateTime moment(2021, 6, 30, 23, 59, 58);
  c > moment;
  EXPECT_EQ(N(c.GetValueText()), "TO_DATE('2021/06/30 23:59:58', 'YYYY/MM/DD HH24:MI:SS')");
  EXPECT_EQ(c.GetValueAsDateTime(), moment);
}

TEST_F(ConditionTest, TinyNumbersBecomeZeroOnlyWhileTheSwitchIsSet) {
  const DKDouble tiny(1e-07); // stored before the switch is set
  for (const bool zero : {false, true}) {
    DKDouble::zeroValueOnAssign = zero;
    const double expected = zero ? 0.0 : 1e-07;
    DKCondition c;
    c == tiny;
    EXPECT_EQ(c.GetValueAsDouble(), expected);
    EXPECT_EQ(N(c.GetValueText()), "1e-07"); // the text is the value supplied
    c == 1e-07;
    EXPECT_EQ(c.GetValueAsDouble(), expected);
    ASSERT_TRUE(c.FromString(DK_T("x = 0.0000001")));
    EXPECT_EQ(c.GetValueAsDouble(), expected);
    c == 2e-06; // above the precision: kept
    EXPECT_EQ(c.GetValueAsDouble(), 2e-06);
  }
}

// (A pattern that compiles, and how it matches: SuppliedValueKinds, ParsedPatternsMatchAndOnlyAnEmptyTextIsNull and
// EvaluateValueComparesByKind.)
TEST_F(ConditionTest, APatternThatDoesNotCompileKeepsItsErrorUntilANewValue) {
  DKCondition c;
  c /= DK_T("[a-");
  EXPECT_TRUE(c.IsRegularExpression());
  EXPECT_FALSE(c.GetRegEx().IsCompiled());
  EXPECT_EQ(c.GetRegExError().GetCode(), DK_MSG_INVALID_REGEX);
  EXPECT_EQ(N(c.GetRegExError().AsString()), "Invalid regular expression \"[a-\" at position 0: missing ']'");
  c == 5; // a new value drops the pattern
  EXPECT_FALSE(c.IsRegularExpression());
}

// ---- Linking and evaluation ---------------------------------------------------------------------

TruthCondition Field(const char* name) {
  TruthCondition c;
  c.AssignFieldName(Text(name));
  c == 1;
  return c;
}

TEST_F(ConditionTest, LinkingCopiesIntoChildrenOfTheSameClass) {
  TruthCondition a = Field("a");
  TruthCondition b = Field("b");
  const TruthCondition c = Field("c");
  EXPECT_EQ(&((a && b) || c), &a);
  b.AssignFieldName(DK_T("changed")); // the link holds a copy
  ASSERT_EQ(a.GetSubCondCount(), 2u);
  EXPECT_NE(dynamic_cast<TruthCondition*>(a.GetSubConditionV()[0].m_condition.Get()), nullptr);
  EXPECT_TRUE(a.HasAnd() && a.HasOr());
  EXPECT_EQ(N(a.ToString()), "(a = 1 AND b = 1) OR c = 1");

  TruthCondition copy(a); // deep
  a.GetSubConditionVR()[0].m_condition->AssignFieldName(DK_T("x"));
  EXPECT_EQ(N(copy.GetSubConditionV()[0].m_condition->GetFieldName()), "b");
  copy.LocalCopy(copy); // a copy of itself keeps everything
  EXPECT_EQ(copy.GetSubCondCount(), 2u);
  a && a; // linking a condition to itself links a copy of it as it was
  EXPECT_EQ(a.GetSubCondCount(), 3u);
  EXPECT_EQ(a.GetSubConditionV()[2].m_condition->GetSubCondCount(), 2u);

  a.ClearSubCondV();
  EXPECT_FALSE(a.HasAnd() || a.HasOr());
}

// ---- Parsing and printing -----------------------------------------------------------------------

// The texts of cases/condition-text.txt: how each prints, evaluates or is refused.
TEST_F(ConditionTest, ReadsTheTextsOfTheCaseFile) {
  for (const dkcases::Case& c :
       dkcases::Read("condition-text.txt", {"text", "printed", "or lines", "refused", "true", "result", "asked"})) {
    SCOPED_TRACE(c.where);
    Console(); // what earlier cases wrote
    TruthCondition cond;
    const DKString text = dkcases::Units(c.Get("text"));
    if (c.Has("refused")) {
      EXPECT_FALSE(cond.FromString(text));
      continue;
    }
    ASSERT_TRUE(cond.FromString(text));
    if (!c.Has("result")) {
      EXPECT_EQ(cond.ToString(), dkcases::Units(c.Get("printed", c.Get("text"))));
      std::string lines;
      for (int n = std::stoi(c.Get("or lines", "0")); n > 0; --n)
        lines += "OR Parsing not implemented!\n";
      EXPECT_EQ(Console(), lines);
      continue;
    }
    TruthParams params;
    std::istringstream trues(c.Get("true")), asked(c.Get("asked"));
    for (std::string field; trues >> field;)
      params.values[field] = true;
    EXPECT_EQ(cond.Evaluate(params), c.Get("result") == "true");
    EXPECT_EQ(params.asked, (std::vector<std::string>{std::istream_iterator<std::string>(asked), {}}));
  }
}

TEST_F(ConditionTest, ParsedPatternsMatchAndOnlyAnEmptyTextIsNull) {
  DKCondition parsed(DK_T("qty >= 10 AND name % A.*"));
  ASSERT_EQ(parsed.GetSubCondCount(), 1u);
  EXPECT_TRUE(parsed.GetSubConditionV()[0].m_condition->MatchRexExp(DK_T("Apple")));

  EXPECT_TRUE(DKCondition(DK_T("")).IsNull());
  EXPECT_FALSE(DKCondition(DK_T("AND a = 1")).IsNull());
}

// (Texts that are refused: cases/condition-text.txt.)
TEST_F(ConditionTest, WhatWasReadBeforeARefusalStays) {
  DKCondition partial;
  EXPECT_FALSE(partial.FromString(DK_T("qty >= 10 AND name => x")));
  EXPECT_EQ(N(partial.GetFieldName()), "qty");
  ASSERT_EQ(partial.GetSubCondCount(), 1u);
  EXPECT_EQ(N(partial.GetSubConditionV()[0].m_condition->GetFieldName()), "name");
}

TEST_F(ConditionTest, ParenthesesNestAtMostToTheBound) {
  const auto nested = [](std::size_t depth) {
    return DKString(DK_T('('), depth) + DK_T("a = 1") + DKString(DK_T(')'), depth);
  };
  DKCondition c;
  EXPECT_FALSE(c.FromString(DKString(DK_T('('), 100000)));
  EXPECT_FALSE(c.FromString(nested(100000)));
  EXPECT_FALSE(c.FromString(nested(DKCondition::maxParseDepth + 1)));
  ASSERT_TRUE(c.FromString(nested(DKCondition::maxParseDepth)));
  EXPECT_EQ(N(c.ToString()), "a = 1");
  // A long chain before them does not count.
  DKString chain(DK_T("a = 1"));
  for (int i = 0; i < 2000; ++i)
    chain += DK_T(" AND a = 1");
  EXPECT_TRUE(c.FromString(chain + DK_T(" AND ") + nested(DKCondition::maxParseDepth)));
}

// Builds a condition of leaves f0, f1, ... in code, n links in all:
//   chain:  each condition holds the next through its one link
//   forked: each condition holds the next through an AND link, then a leaf through an OR link
//   flat:   the first condition holds all the others
// The link kinds follow kindOf(i).
enum class Shape { chain, forked, flat };

TruthCondition BuildInCode(Shape shape, std::size_t n, std::uint32_t (*kindOf)(std::size_t)) {
  TruthCondition root;
  root.AssignFieldName(DK_T("f0"));
  root == 1;
  DKCondition* node = &root;
  for (std::size_t i = 1; i < n; ++i) {
    DKSmartPtr<DKCondition> next = node->NewChild();
    next->AssignFieldName(DKString().Format(DK_T("f%zu"), i % 7));
    *next == 1;
    node->GetSubConditionVR().push_back({kindOf(i), next});
    if (shape == Shape::forked) {
      DKSmartPtr<DKCondition> leaf = node->NewChild();
      leaf->AssignFieldName(DK_T("f2"));
      *leaf == 1;
      node->GetSubConditionVR().push_back({LinkedCond::OR, leaf});
    }
    if (shape != Shape::flat)
      node = next.Get();
  }
  return root;
}

std::uint32_t AllAnd(std::size_t) { return LinkedCond::AND; }
std::uint32_t Alternating(std::size_t i) { return static_cast<std::uint32_t>(i % 2); }
std::uint32_t ChangingEvery100(std::size_t i) { return static_cast<std::uint32_t>(i / 100 % 2); }

// Conditions far deeper and longer than any text the reader takes nested evaluate, print, copy and
// go away without recursing per link; what ToString writes reads back to the same evaluation,
// readable where the parentheses it needs stay within the bound, native otherwise. (The reader
// takes a chain of 300,000 links in one loop: each link word hands it the rest of the text.)
TEST_F(ConditionTest, DeepAndLongConditionsInCodeNeitherRecurseNorOverflow) {
  struct Case {
    Shape shape;
    std::size_t size;
    std::uint32_t (*kindOf)(std::size_t);
    bool readable;
  };
  const Case cases[] = {
      {Shape::chain, 300000, AllAnd, true},           {Shape::chain, 100000, Alternating, true},
      {Shape::forked, 100000, AllAnd, false},         {Shape::flat, 100000, AllAnd, true},
      {Shape::flat, 100000, Alternating, false},      {Shape::flat, 30000, ChangingEvery100, true},
  };
  for (const Case& c : cases) {
    const std::string what = std::to_string(static_cast<int>(c.shape)) + " of " + std::to_string(c.size);
    std::optional<TruthCondition> original(BuildInCode(c.shape, c.size, c.kindOf));
    const TruthCondition copy(*original);
    const DKString text = original->ToString(), native = original->ToString(true);
    EXPECT_EQ(original->HasReadableForm(), c.readable) << what;
    EXPECT_EQ(DKCondition::IsNativeFormat(text), !c.readable) << what;
    TruthCondition fromText, fromNative;
    ASSERT_TRUE(fromText.FromString(text)) << what;
    ASSERT_TRUE(fromNative.FromString(native)) << what;
    EXPECT_EQ(fromNative.ToString(true), native) << what;
    for (int bits = 0; bits < 4; ++bits) {
      TruthParams expected;
      for (int f = 0; f < 7; ++f)
        expected.values["f" + std::to_string(f)] = f == 0 || f == 6 || ((bits >> (f % 2)) & 1);
      TruthParams params[3] = {expected, expected, expected};
      const bool result = original->Evaluate(expected);
      EXPECT_EQ(copy.Evaluate(params[0]), result) << what;
      EXPECT_EQ(fromText.Evaluate(params[1]), result) << what;
      EXPECT_EQ(fromNative.Evaluate(params[2]), result) << what;
      for (const TruthParams& p : params)
        EXPECT_TRUE(p.asked == expected.asked) << what; // the same comparisons, in the same order
    }
    original.reset(); // the copies stand alone
    TruthParams params;
    params.values["f0"] = true;
    EXPECT_EQ(copy.Evaluate(params), fromText.Evaluate(params)) << what;
  }
}

TEST_F(ConditionTest, NativeTextIsStable) {
  // Stored native texts must stay readable by later versions of the library. That every
  // condition reads back from either text form to one that evaluates alike is the condition
  // fuzz target's property, replayed under CTest over seeds of every value kind and odd names.
  EXPECT_EQ(N(DKCondition().ToString(true)), "@@1@@0@0@@@0");
  EXPECT_EQ(N(Field("f").ToString(true)), "@@1@f@3@2@1@@0");
}

// The comparison of two conditions alone, a text and a word being alike (both compare as text).
bool SameComparison(const DKCondition& a, const DKCondition& b) {
  const auto textual = [](std::int32_t kind) { return kind == DKCondition::kindText || kind == DKCondition::kindWord; };
  const double x = a.GetValueAsDouble(), y = b.GetValueAsDouble();
  return a.GetFieldName() == b.GetFieldName() && a.GetOperatorCode() == b.GetOperatorCode() &&
         (a.GetValueKind() == b.GetValueKind() || (textual(a.GetValueKind()) && textual(b.GetValueKind()))) &&
         a.GetValueText() == b.GetValueText() && a.GetValueAsInt64() == b.GetValueAsInt64() &&
         (x == y || (std::isnan(x) && std::isnan(y))) && a.GetRegEx().IsCompiled() == b.GetRegEx().IsCompiled();
}

// A condition made in code is written in readable text, or in the native form when readable text
// would read back as another comparison or not at all; either reads back to the same comparison.
// (That whole conditions read back to one that evaluates alike is the condition fuzz target's
// property, replayed over seeds of every value kind and these names.)
void ExpectWrittenForm(const TruthCondition& cond, bool readable, const std::string& what) {
  const DKString text = cond.ToString();
  SCOPED_TRACE(what + ": " + N(text));
  EXPECT_EQ(cond.HasReadableForm(), readable);
  EXPECT_EQ(DKCondition::IsNativeFormat(text), !readable);
  TruthCondition back;
  ASSERT_TRUE(back.FromString(text));
  EXPECT_TRUE(SameComparison(cond, back));
}

// Field names of cases/condition-names.txt: readable alone (n = 1) and inside parentheses
// ((n = 1 AND g = 1) OR h = 1), or written natively.
TEST_F(ConditionTest, FieldNamesTheReadableFormCannotHoldAreWrittenNatively) {
  for (const dktest::CaseLine& c : dktest::ReadCases(DK_TEST_CASES "/condition-names.txt", 3)) {
    TruthCondition alone;
    ASSERT_TRUE(alone.AssignFieldName(Text(c[0]))) << c.where;
    alone == 1;
    ExpectWrittenForm(alone, c.YesNo(1), c.where);
    TruthCondition enclosed = alone;
    enclosed && Field("g");
    enclosed || Field("h");
    ExpectWrittenForm(enclosed, c.YesNo(2), c.where + ", enclosed");
  }
}

// Values set in code: a negative number reads as a word, an exponent too.
struct CodeValueCase {
  const char* what;
  void (*set)(DKCondition&);
  bool readable;
};

const CodeValueCase codeValueCases[] = {
    {"5", [](DKCondition& c) { c == 5; }, true},
    {"-5", [](DKCondition& c) { c == -5; }, false},
    {"2.5", [](DKCondition& c) { c < 2.5; }, true},
    {"0.1 + 0.2", [](DKCondition& c) { c <= 0.1 + 0.2; }, true},
    {"1e-07", [](DKCondition& c) { c == 1e-07; }, false},
    {"1e+20", [](DKCondition& c) { c > 1e20; }, false},
    {"nan", [](DKCondition& c) { c != std::nan(""); }, false},
    {"text", [](DKCondition& c) { c == DK_T("text"); }, true},
    {"empty text", [](DKCondition& c) { c == DK_T(""); }, true},
    {"text with a quote", [](DKCondition& c) { c == DK_T("a\"b"); }, true},
    {"text with a quote and a blank", [](DKCondition& c) { c == DK_T("say \"hi\""); }, false},
    {"text with TO_DATE(", [](DKCondition& c) { c >= DK_T("TO_DATE(x"); }, true},
    {"text with U+0000", [](DKCondition& c) { c == DKString(DK_T("a\0b"), 3); }, false},
    {"pattern of digits", [](DKCondition& c) { c % DK_T("123"); }, true},
    {"pattern with a blank", [](DKCondition& c) { c /= DK_T("a b"); }, true},
    {"pattern that does not compile", [](DKCondition& c) { c % DK_T("[a-"); }, false},
    {"date", [](DKCondition& c) { c > DKDateTime(2020, 1, 5, 10, 20, 30); }, true},
};

TEST_F(ConditionTest, ValuesSetInCodeReadBackAsTheSameComparison) {
  for (const CodeValueCase& c : codeValueCases) {
    TruthCondition cond;
    cond.AssignFieldName(DK_T("v"));
    c.set(cond);
    ExpectWrittenForm(cond, c.readable, c.what);
  }
}

// ---- Helpers for OnEvaluate ------------------------------------------------------------------------

TEST_F(ConditionTest, EvaluateValueComparesByKind) {
  DKCondition c;
  c >= 10;
  EXPECT_TRUE(c.EvaluateValue(10));
  EXPECT_FALSE(c.EvaluateValue(9.9999));
  EXPECT_TRUE(c.EvaluateValue(9.9999999)); // within the precision: equal
  EXPECT_TRUE(c.EvaluateValue(DK_T(" 12 ")));
  EXPECT_FALSE(c.EvaluateValue(DK_T("twelve")));
  EXPECT_FALSE(c.EvaluateValue(std::nan("")));

  c == DKInt64{9007199254740993};
  EXPECT_TRUE(c.EvaluateValue(DKInt64{9007199254740993}));
  EXPECT_FALSE(c.EvaluateValue(DKInt64{9007199254740992})); // exact, not through a double

  c < DK_T("m");
  EXPECT_FALSE(c.EvaluateValue(DK_T("zebra")));
  EXPECT_TRUE(c.EvaluateValue(5)); // "5" < "m"

  c /= DK_T("A.*"); // "%" is the same path inverted
  EXPECT_FALSE(c.EvaluateValue(DK_T("Apple")));
  EXPECT_TRUE(c.EvaluateValue(DK_T("apple")));

  const DKDateTime moment(2020, 1, 5, 10, 20, 30);
  c > moment;
  EXPECT_FALSE(c.EvaluateValue(moment));
  EXPECT_TRUE(c.EvaluateValue(DK_T("2021/01/01 00:00:00")));
  EXPECT_FALSE(c.EvaluateValue(DK_T("not a date")));

  EXPECT_FALSE(DKCondition().EvaluateValue(DK_T("x")));
  DKCondition base(DK_T("a = 1"));
  EXPECT_FALSE(base.Evaluate(DKConditionParams())); // the base has no field values
}

} // namespace
