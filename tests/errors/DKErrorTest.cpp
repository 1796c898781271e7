#include <DorvikCore/DKDouble.h>
#include <DorvikCore/DKError.h>
#include <DorvikCore/DKMessageSource.h>
#include <DorvikCore/DKRefCount.h>

#include <gtest/gtest.h>

#include "support/DKPoolLeakCheck.h"
#include "support/DKTestSupport.h"

#include <atomic>
#include <cmath>
#include <limits>
#include <string>
#include <tuple>
#include <utility>

namespace {

// Counts its own destructions, and may hold another counted object.
struct Probe : DKRefCount {
  explicit Probe(std::atomic<int>* destroyed) : m_destroyed(destroyed) {}
  ~Probe() override { m_destroyed->fetch_add(1); }
  DKSmartPtr<Probe> child;
  std::atomic<int>* m_destroyed;
};

TEST(DKRefCountTest, CountsFromZeroDeletesOnLastReleaseAndCopiesStartTheirOwnCount) {
  std::atomic<int> destroyed{0};
  Probe* p = new Probe(&destroyed);
  EXPECT_EQ(p->NbRef(), 0u);
  EXPECT_EQ(p->AddRef(), 1u);
  EXPECT_EQ(p->AddRef(), 2u);
  {
    DKSmartPtr<Probe> copy(new Probe(*p));
    EXPECT_EQ(copy->NbRef(), 1u);
    *copy = *p; // assignment leaves both counts alone
    EXPECT_EQ(copy->NbRef(), 1u);
    EXPECT_EQ(p->NbRef(), 2u);
  }
  EXPECT_EQ(p->Release(), 1u);
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(p->Release(), 0u);
  EXPECT_EQ(destroyed, 2);
}

TEST(DKSmartPtrTest, CopyMoveClearNullConstPointersAndAssignmentOrder) {
  std::atomic<int> destroyed{0};
  DKSmartPtr<Probe> a(new Probe(&destroyed));
  {
    DKSmartPtr<Probe> b = a;
    EXPECT_TRUE(a == b);
    DKSmartPtr<Probe> c = std::move(b);
    EXPECT_TRUE(b.IsNull());
    EXPECT_EQ(a->NbRef(), 2u);
    DKSmartPtrToConst<Probe> constant(c), assigned;
    assigned = a;
    EXPECT_EQ(constant.Get(), a.Get());
    EXPECT_EQ(a->NbRef(), 4u);
    c = nullptr;
    constant = 0; // a literal 0 clears, as nullptr does
    EXPECT_EQ(a->NbRef(), 2u);
    DKSmartPtr<Probe> d(0), e(a);
    e = 0;
    EXPECT_TRUE(d.IsNull() && e.IsNull() && e == 0 && e == nullptr);
  }
  EXPECT_EQ(a->NbRef(), 1u);
  a.Clear();
  EXPECT_FALSE(a);
  EXPECT_EQ(destroyed, 1);

  // Assignment takes the new object before it releases the old.
  DKSmartPtr<Probe> holder(new Probe(&destroyed));
  holder->child = new Probe(&destroyed);
  holder = holder->child.Get(); // the child lives only through the parent that this releases
  EXPECT_EQ(destroyed, 2);
  ASSERT_FALSE(holder.IsNull());
  EXPECT_EQ(holder->NbRef(), 1u);
  const DKSmartPtr<Probe>& same = holder;
  holder = same; // self-assignment keeps the object
  holder = holder.Get();
  EXPECT_EQ(destroyed, 2);
  holder.Clear();
  EXPECT_EQ(destroyed, 3);
}

TEST(DKDoubleTest, TinyValuesAreZeroOnlyWhileTheSwitchIsSetAndEqualityUsesThePrecision) {
  const std::tuple<bool, double, double, double> cases[] = { // switch, precision, value, stored value
      {false, 1e-06, 5e-07, 5e-07}, {true, 1e-06, 5e-07, 0.0}, {true, 1e-06, -5e-07, 0.0}, {true, 1e-06, 1e-06, 1e-06},
      {true, 1e-03, 5e-04, 0.0}, {true, 1e-03, -2e-03, -2e-03}};
  for (const auto& [zeroOnAssign, precision, value, stored] : cases) {
    DKDouble::zeroValueOnAssign = zeroOnAssign;
    DKDouble::thePrecision = precision;
    DKDouble assigned;
    assigned = value;
    EXPECT_EQ(DKDouble(value).GetValue(), stored) << value << " switch " << zeroOnAssign;
    EXPECT_EQ(assigned.GetValue(), stored) << value << " switch " << zeroOnAssign;
  }
  DKDouble::zeroValueOnAssign = false;
  const DKDouble tiny(5e-07);
  DKDouble::zeroValueOnAssign = true;
  const DKDouble copy(tiny); // a copy keeps the value as stored
  EXPECT_EQ(copy.GetValue(), 5e-07);
  EXPECT_TRUE(copy.IsZero());
  DKDouble::zeroValueOnAssign = false; // the switches are process-wide: restore them
  DKDouble::thePrecision = 1e-06;
  EXPECT_TRUE(DKDouble(1.0).IsEqual(1.0 + 5e-07));
  EXPECT_FALSE(DKDouble(1.0).IsEqual(1.0 + 5e-06));
  EXPECT_FALSE(DKDouble(std::nan("")).IsEqual(std::nan("")));
}

// The shortest text that reads back: seventeen digits where fewer would read back another value.
TEST(DKDoubleTest, TextIsTheShortestFormThatReadsBack) {
  const double inf = std::numeric_limits<double>::infinity();
  for (const auto& [value, text] : std::initializer_list<std::pair<double, std::string>>{
           {0.0, "0"}, {0.1, "0.1"}, {-250.0, "-250"}, {1e-07, "1e-07"}, {1e300, "1e+300"},
           {123456789.125, "123456789.125"}, {0.1 + 0.2, "0.30000000000000004"}, {inf, "inf"},
           {-inf, "-inf"}, {std::nan(""), "nan"}}) {
    EXPECT_EQ(DKDouble(value).AsUTF8(), text);
    EXPECT_EQ(DKDouble(value).AsString().AsUTF8(), text);
  }
}

// Errors and their parameters live in the pool: these tests check that all of it is given back.
using DKErrorIDTest = DKPoolLeakCheckedTest;
using DKErrorWithArgsTest = DKPoolLeakCheckedTest;

TEST_F(DKErrorIDTest, SuccessFailureCodeAndText) {
  const struct {
    DKErrorID id;
    bool success;
    int code;
    const DKChar* text;
  } cases[] = {
      {DKErrorID(), true, 0, DK_T("SUCCESS")},
      {DKErrorID(static_cast<const DKErrorI*>(nullptr)), true, 0, DK_T("SUCCESS")},
      {DKErrorID::FromText(DK_T("fine"), 0), true, 0, DK_T("fine")},
      {DKErrorID::FromText(DK_T("broken"), 42), false, 42, DK_T("broken")},
      {DKErrorID::FromText(DK_T("no code")), false, -1, DK_T("no code")},
      {DKErrorID(DKSmartPtr<DKErrorString>(new DKErrorString(DK_T("neg")))), false, -1, DK_T("neg")},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.id.AsString().AsUTF8());
    EXPECT_EQ(c.id.IsSuccess(), c.success);
    EXPECT_EQ(c.id.Bad(), !c.success);
    EXPECT_EQ(static_cast<int>(c.id), c.code);
    EXPECT_EQ(c.id.GetCode(), c.code);
    EXPECT_EQ(c.id.AsString(), c.text);
  }
}

// Also the check that smart pointers count atomically: an error id holds its error through one.
TEST_F(DKErrorIDTest, CopiesOnManyThreadsShareAndReleaseTheErrorOnce) {
  DKErrorID id = DKLibraryError(DK_MSG_UNSPECIFIED);
  RunOnThreads(4, 20000, [&id](int, int) {
    DKErrorID copy(id), assigned;
    assigned = copy;
    EXPECT_EQ(assigned.GetError().Get(), id.GetError().Get());
  });
  EXPECT_EQ(id.GetError()->NbRef(), 1u);
}

TEST(DKErrorTest, PlainErrorsTakeTheirTextFromTheSourceOrNameAnUnknownMessage) {
  DKSmartPtr<DKMemoryMessageSource> source(new DKMemoryMessageSource{{100, DK_T("Value %0:s")}});
  DKSmartPtr<DKError> plain(new DKError(source, 100));
  EXPECT_EQ(DKErrorID(plain).AsString(), DK_T("Value %0:s")); // without parameters the placeholder stays

  for (const DKError& unknown : {DKError(DKSmartPtrToConst<DKMessageSource>(), 42), DKError(source, 0),
                                 DKError(source, -3), DKError(source, 2147483647L)}) {
    DKString out;
    const DKErrorID result = unknown.AsString(out, DKFormatContext());
    const DKString expected = DKString(DK_T("Unknown message ")) + DKString(std::to_wstring(unknown.GetCode()));
    EXPECT_EQ(out, expected);
    EXPECT_EQ(result.GetCode(), DK_MSG_UNKNOWN_MESSAGE);
    EXPECT_EQ(result.AsString(), expected);
  }
}

TEST(DKErrorTest, LibraryErrorsUseTheLibraryMessages) {
  const std::pair<DKErrorID, const DKChar*> cases[] = {
      {DKLibraryErrorID(DK_MSG_UNSPECIFIED), DK_T("Unspecified failure")},
      {DKLibraryErrorID(DK_MSG_INVALID_DATE, DK_T("2024-13-45")), DK_T("Invalid date: 2024-13-45")},
      {DKLibraryErrorID(DK_MSG_INVALID_UTF8, 17), DK_T("Invalid UTF-8 sequence at byte 17")},
      {DKLibraryErrorID(DK_MSG_DUPLICATE_PLUGIN_ID, DK_T("Sales")), DK_T("Duplicate plug-in id Sales")},
  };
  for (const auto& [id, text] : cases)
    EXPECT_EQ(id.AsString(), text);

  // Parameters of any integer, floating or text kind.
  const DKErrorID system = DKLibraryErrorID(DK_MSG_SYSTEM_ERROR, std::size_t{2}, "No such file \xC3\xA9");
  EXPECT_EQ(system.AsString(), DK_T("System error 2: No such file \u00E9"));
  const auto* args = static_cast<const DKErrorWithArgs*>(system.GetError().Get());
  EXPECT_EQ(args->GetParameterType(0), DKErrorI::ParamLong); // a size_t is stored as a long
  const DKErrorID kinds = DKLibraryErrorID(DK_MSG_UNSPECIFIED, 'x', short{2}, 3, 4L, 5.5f, DK_T("six"));
  const auto* kindArgs = static_cast<const DKErrorWithArgs*>(kinds.GetError().Get());
  const DKErrorI::ErrorParamType expectedKinds[] = {DKErrorI::ParamInt,    DKErrorI::ParamInt,    DKErrorI::ParamInt,
                                                    DKErrorI::ParamLong,   DKErrorI::ParamDouble, DKErrorI::ParamDKString};
  for (std::size_t i = 0; i < std::size(expectedKinds); ++i)
    EXPECT_EQ(kindArgs->GetParameterType(i), expectedKinds[i]) << i;
  EXPECT_EQ(DKLibraryErrorID(DK_MSG_TEXT_TOO_LONG, 5000000000LL).AsString(), DK_T("Text too long: 5000000000 code units"));
  EXPECT_EQ(DKLibraryErrorID(DK_MSG_INVALID_DATE, DKString(DK_T("x")), std::string("y")).GetError()->GetParameterCount(), 2u);
}

TEST_F(DKErrorWithArgsTest, EachKindIsStoredTypedAndPrintedAndOutOfRangeReadsAsNothing) {
  DKSmartPtr<DKErrorWithArgs> error = DKLibraryError(DK_MSG_UNSPECIFIED);
  const struct {
    std::size_t index;
    DKErrorI::ErrorParamType type;
    const DKChar* text;
  } expected[] = {
      {error->AddParam(1.5), DKErrorI::ParamDouble, DK_T("1.500000")},
      {error->AddParam(-7), DKErrorI::ParamInt, DK_T("-7")},
      {error->AddParam(2147483647L), DKErrorI::ParamLong, DK_T("2147483647")}, // long is 32 bits on Windows
      {error->AddParam(DKString(DK_T("abc"))), DKErrorI::ParamDKString, DK_T("abc")},
      {error->AddParam(DK_T("lit\u00e9ral")), DKErrorI::ParamDKString, DK_T("lit\u00e9ral")},
      {error->AddParam(DKDouble(0.1)), DKErrorI::ParamDKDouble, DK_T("0.1")},
  };
  ASSERT_EQ(error->GetParameterCount(), std::size(expected));
  for (std::size_t i = 0; i < std::size(expected); ++i) {
    EXPECT_EQ(expected[i].index, i);
    EXPECT_EQ(error->GetParameterType(i), expected[i].type);
    EXPECT_EQ(error->GetParameterValueAsString(i, DKExecContext()), expected[i].text) << i;
  }
  error->AddParam(1e300); // "%f" prints large values whole, as the C library does
  EXPECT_EQ(error->GetParameterValueAsString(std::size(expected), DKExecContext()).AsUTF8(), std::to_string(1e300));

  for (std::size_t index : {std::size(expected) + 1, std::size_t{100}, static_cast<std::size_t>(-1)}) {
    EXPECT_EQ(error->GetParameterType(index), DKErrorI::ParamNone);
    EXPECT_EQ(error->GetParameterValue(index), nullptr);
    EXPECT_TRUE(error->GetParameterValueAsString(index, DKExecContext()).IsEmpty());
    int out = 99;
    EXPECT_FALSE(error->GetParam(out, index));
    EXPECT_EQ(out, 99);
  }
}

TEST_F(DKErrorWithArgsTest, CopiesAreDeepGetParamNeedsTheStoredTypeAndNothingLeaks) {
  DKSmartPtr<DKErrorWithArgs> original = DKLibraryError(DK_MSG_SYSTEM_ERROR);
  original->AddParam(2);
  original->AddParam(DKString(DK_T("a string long enough to own a block")));
  original->AddParam(DKDouble(0.25));
  original->AddParam(3.0);
  original->AddParam(4L);
  DKSmartPtr<DKErrorWithArgs> copy(new DKErrorWithArgs(*original));
  DKSmartPtr<DKErrorWithArgs> assigned = DKLibraryError(DK_MSG_INVALID_DATE);
  assigned->AddParam(DKString(DK_T("will be freed")));
  *assigned = *original;
  const DKErrorWithArgs& same = *assigned;
  *assigned = same;
  EXPECT_EQ(assigned->GetParameterCount(), 5u);
  original.Clear(); // the copies own their values
  int i = 0;
  long l = 0;
  double d = 0;
  DKDouble dk;
  DKString s; // each read with the wrong type fails and leaves its output alone
  EXPECT_FALSE(copy->GetParam(i, 1));
  EXPECT_FALSE(copy->GetParam(l, 0));  // an int is not read as a long
  EXPECT_FALSE(copy->GetParam(dk, 3)); // a double is not read as a DKDouble
  EXPECT_FALSE(copy->GetParam(d, 2));
  EXPECT_EQ(i, 0);
  EXPECT_TRUE(copy->GetParam(s, 1) && copy->GetParam(i, 0) && copy->GetParam(l, 4) && copy->GetParam(d, 3) &&
              copy->GetParam(dk, 2));
  EXPECT_EQ(s, DK_T("a string long enough to own a block"));
  EXPECT_EQ(i, 2);
  EXPECT_EQ(l, 4L);
  EXPECT_EQ(d, 3.0);
  EXPECT_EQ(dk.GetValue(), 0.25);
  EXPECT_EQ(DKErrorID(assigned).AsString(), DK_T("System error 2: a string long enough to own a block"));
}

} // namespace
