#include <DorvikCore/DKError.h>
#include <DorvikCore/DKMemoryPool.h>
#include <DorvikCore/DKMessageSource.h>

#include <gtest/gtest.h>

#include <cmath>
#include <thread>
#include <vector>

namespace {

DKSmartPtr<DKMemoryMessageSource> TestSource() {
  return DKSmartPtr<DKMemoryMessageSource>(new DKMemoryMessageSource{
      {100, DK_T("Value %0:s")},
      {101, DK_T("%0:d of %1:d")},
  });
}

// ---- DKErrorID -----------------------------------------------------------------------------

struct ErrorIdCase {
  const char* name;
  DKErrorID id;
  bool success;
  int asInt;
  const DKChar* text;
};

TEST(DKErrorIDTest, SuccessFailureCodeAndText) {
  const ErrorIdCase cases[] = {
      {"default", DKErrorID(), true, 0, DK_T("SUCCESS")},
      {"constant", DKErrorID(DKErrorID::SUCCESS), true, 0, DK_T("SUCCESS")},
      {"null pointer", DKErrorID(static_cast<const DKErrorI*>(nullptr)), true, 0, DK_T("SUCCESS")},
      {"code 0", DKErrorID(DKSmartPtr<DKErrorString>(new DKErrorString(DK_T("fine"), 0))), true, 0, DK_T("fine")},
      {"code 42", DKErrorID(DKSmartPtr<DKErrorString>(new DKErrorString(DK_T("broken"), 42))), false, 42, DK_T("broken")},
      {"negative", DKErrorID(DKSmartPtr<DKErrorString>(new DKErrorString(DK_T("neg")))), false, -1, DK_T("neg")},
  };
  for (const ErrorIdCase& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.id.IsSuccess(), c.success);
    EXPECT_EQ(c.id.Good(), c.success);
    EXPECT_EQ(c.id.Bad(), !c.success);
    EXPECT_EQ(static_cast<int>(c.id), c.asInt);
    EXPECT_EQ(c.id.GetCode(), c.asInt);
    EXPECT_EQ(c.id.AsString(), c.text);
  }
}

TEST(DKErrorIDTest, CopiesShareTheErrorObject) {
  DKSmartPtr<DKErrorString> error(new DKErrorString(DK_T("x"), 3));
  DKErrorID a(error);
  EXPECT_EQ(error->NbRef(), 2u);
  {
    DKErrorID b = a;
    DKErrorID c;
    c = b;
    EXPECT_EQ(error->NbRef(), 4u);
    EXPECT_EQ(c.GetError().Get(), error.Get());
  }
  EXPECT_EQ(error->NbRef(), 2u);
}

TEST(DKErrorIDTest, CopiesOnManyThreadsReleaseTheErrorOnce) {
  DKErrorID id = DKLibraryError(DK_MSG_UNSPECIFIED);
  const std::size_t liveBefore = DMMemoryPool::GetLiveBlocks();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([id] {
      for (int i = 0; i < 10000; ++i) {
        DKErrorID copy = id;
        EXPECT_TRUE(copy.Bad());
      }
    });
  }
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(id.GetError()->NbRef(), 1u);
  EXPECT_EQ(DMMemoryPool::GetLiveBlocks(), liveBefore);
}

// ---- DKErrorI, DKError, DKErrorString ------------------------------------------------------

TEST(DKErrorTest, PlainErrorsHaveNoParameters) {
  DKSmartPtr<DKErrorString> text(new DKErrorString(DK_T("ready"), 7, DKErrorI::SeverityWarning));
  DKSmartPtr<DKError> plain(new DKError(TestSource(), 100));
  for (const DKErrorI* error : {static_cast<const DKErrorI*>(text.Get()), static_cast<const DKErrorI*>(plain.Get())}) {
    EXPECT_EQ(error->GetIUID(), DKErrorI::IUID);
    EXPECT_EQ(error->GetParameterCount(), 0u);
    EXPECT_EQ(error->GetParameterType(0), DKErrorI::ParamNone);
    EXPECT_EQ(error->GetParameterValue(0), nullptr);
    EXPECT_TRUE(error->GetParameterValueAsString(0, DKExecContext()).IsEmpty());
  }
  EXPECT_EQ(text->GetSeverity(), DKErrorI::SeverityWarning);
  EXPECT_EQ(plain->GetSeverity(), DKErrorI::SeverityError);
  // Without parameters the placeholder stays visible.
  EXPECT_EQ(DKErrorID(plain).AsString(), DK_T("Value %0:s"));
}

TEST(DKErrorTest, TextComesFromTheFormatterWithTheErrorsParameters) {
  DKSmartPtr<DKErrorWithArgs> error(new DKErrorWithArgs(TestSource(), 101));
  error->AddParam(3);
  error->AddParam(10L);
  DKString text;
  EXPECT_TRUE(error->AsString(text, DKFormatContext()).IsSuccess());
  EXPECT_EQ(text, DK_T("3 of 10"));
}

TEST(DKErrorTest, MissingFormatterOrCodeGivesUnknownMessage) {
  DKSmartPtr<DKError> noFormatter(new DKError(DKSmartPtrToConst<DKMessageSource>(), 42));
  DKSmartPtr<DKError> unknownCode(new DKError(TestSource(), 4242));
  const struct {
    const DKError* error;
    const DKChar* text;
  } cases[] = {{noFormatter.Get(), DK_T("Unknown message 42")}, {unknownCode.Get(), DK_T("Unknown message 4242")}};
  for (const auto& c : cases) {
    DKString text;
    const DKErrorID result = c.error->AsString(text, DKFormatContext());
    EXPECT_EQ(text, c.text);
    EXPECT_TRUE(result.Bad());
    EXPECT_EQ(result.GetCode(), DK_MSG_UNKNOWN_MESSAGE);
    EXPECT_EQ(result.AsString(), c.text);
  }
}

TEST(DKErrorTest, LibraryErrorsUseTheLibraryMessages) {
  const struct {
    long code;
    int intParam;
    const DKChar* stringParam;
    const DKChar* text;
  } cases[] = {
      {DK_MSG_UNSPECIFIED, -1, nullptr, DK_T("Unspecified failure")},
      {DK_MSG_INVALID_DATE, -1, DK_T("2024-13-45"), DK_T("Invalid date: 2024-13-45")},
      {DK_MSG_INVALID_UTF8, 17, nullptr, DK_T("Invalid UTF-8 sequence at byte 17")},
      {DK_MSG_SYSTEM_ERROR, 2, DK_T("No such file"), DK_T("System error 2: No such file")},
      {DK_MSG_DUPLICATE_PLUGIN_ID, -1, DK_T("Sales"), DK_T("Duplicate plug-in id Sales")},
  };
  for (const auto& c : cases) {
    DKSmartPtr<DKErrorWithArgs> error = DKLibraryError(c.code);
    if (c.intParam >= 0)
      error->AddParam(c.intParam);
    if (c.stringParam)
      error->AddParam(c.stringParam);
    const DKErrorID id = error;
    EXPECT_TRUE(id.Bad());
    EXPECT_EQ(id.GetCode(), c.code);
    EXPECT_EQ(id.AsString(), c.text);
  }
  EXPECT_EQ(DKLibraryError(DK_MSG_UNSPECIFIED, DKErrorI::SeverityFatal)->GetSeverity(), DKErrorI::SeverityFatal);
}

// ---- DKErrorWithArgs -----------------------------------------------------------------------

TEST(DKErrorWithArgsTest, EachKindIsStoredTypedAndPrinted) {
  DKSmartPtr<DKErrorWithArgs> error = DKLibraryError(DK_MSG_UNSPECIFIED);
  const struct {
    std::size_t index;
    DKErrorI::ErrorParamType type;
    const DKChar* text;
  } expected[] = {
      {error->AddParam(1.5), DKErrorI::ParamDouble, DK_T("1.500000")},
      {error->AddParam(-7), DKErrorI::ParamInt, DK_T("-7")},
      {error->AddParam(1234567890123L), DKErrorI::ParamLong, DK_T("1234567890123")},
      {error->AddParam(DKString(DK_T("abc"))), DKErrorI::ParamDKString, DK_T("abc")},
      {error->AddParam(DK_T("lit\u00e9ral")), DKErrorI::ParamDKString, DK_T("lit\u00e9ral")},
      {error->AddParam(DKDouble(0.1)), DKErrorI::ParamDKDouble, DK_T("0.1")},
      {error->AddParam(-0.0001), DKErrorI::ParamDouble, DK_T("-0.000100")},
  };
  ASSERT_EQ(error->GetParameterCount(), std::size(expected));
  for (std::size_t i = 0; i < std::size(expected); ++i) {
    EXPECT_EQ(expected[i].index, i);
    EXPECT_EQ(error->GetParameterType(i), expected[i].type);
    EXPECT_NE(error->GetParameterValue(i), nullptr);
    EXPECT_EQ(error->GetParameterValueAsString(i, DKExecContext()), expected[i].text) << i;
  }
  EXPECT_EQ(*static_cast<const long*>(error->GetParameterValue(2)), 1234567890123L);
}

TEST(DKErrorWithArgsTest, OutOfRangeIndexReadsAsNothing) {
  DKSmartPtr<DKErrorWithArgs> error = DKLibraryError(DK_MSG_UNSPECIFIED);
  error->AddParam(1);
  for (std::size_t index : {std::size_t{1}, std::size_t{100}, static_cast<std::size_t>(-1)}) {
    EXPECT_EQ(error->GetParameterType(index), DKErrorI::ParamNone);
    EXPECT_EQ(error->GetParameterValue(index), nullptr);
    EXPECT_TRUE(error->GetParameterValueAsString(index, DKExecContext()).IsEmpty());
    int out = 99;
    EXPECT_FALSE(error->GetParam(out, index));
    EXPECT_EQ(out, 99);
  }
}

TEST(DKErrorWithArgsTest, GetParamNeedsTheStoredType) {
  DKSmartPtr<DKErrorWithArgs> error = DKLibraryError(DK_MSG_UNSPECIFIED);
  EXPECT_EQ(error->AddParam(5), 0u);
  EXPECT_EQ(error->AddParam(DKString(DK_T("five"))), 1u);
  EXPECT_EQ(error->AddParam(2.5), 2u);
  EXPECT_EQ(error->AddParam(DKDouble(3.5)), 3u);
  EXPECT_EQ(error->AddParam(6L), 4u);

  int i = 0;
  long l = 0;
  double d = 0;
  DKDouble dk;
  DKString s;
  EXPECT_FALSE(error->GetParam(i, 1));
  EXPECT_TRUE(error->GetParam(s, 1));
  EXPECT_EQ(s, DK_T("five"));
  EXPECT_TRUE(error->GetParam(i, 0));
  EXPECT_EQ(i, 5);
  EXPECT_FALSE(error->GetParam(l, 0)); // an int is not read as a long
  EXPECT_TRUE(error->GetParam(l, 4));
  EXPECT_EQ(l, 6L);
  EXPECT_FALSE(error->GetParam(dk, 2)); // a double is not read as a DKDouble
  EXPECT_TRUE(error->GetParam(d, 2));
  EXPECT_EQ(d, 2.5);
  EXPECT_FALSE(error->GetParam(d, 3));
  EXPECT_TRUE(error->GetParam(dk, 3));
  EXPECT_EQ(dk.GetValue(), 3.5);
}

TEST(DKErrorWithArgsTest, PercentFFormatsLargeValuesWhole) {
  DKSmartPtr<DKErrorWithArgs> error = DKLibraryError(DK_MSG_UNSPECIFIED);
  error->AddParam(1e300);
  const DKString text = error->GetParameterValueAsString(0, DKExecContext());
  EXPECT_EQ(text.Length(), 308u); // 301 digits, the point and 6 decimals
  EXPECT_EQ(text.SubStr(0, 1), DK_T("1"));
  EXPECT_EQ(text.SubStr(text.Length() - 7), DK_T(".000000"));
}

TEST(DKErrorWithArgsTest, CopiesAreDeepAndNothingLeaksFromThePool) {
  DKGetLibraryMessageSource(); // the library's messages live for the whole process
  const std::size_t liveBefore = DMMemoryPool::GetLiveBlocks();
  const std::size_t bytesBefore = DMMemoryPool::GetLiveBytes();
  const std::size_t totalBefore = DMMemoryPool::GetTotalBlocks();
  {
    DKSmartPtr<DKErrorWithArgs> original = DKLibraryError(DK_MSG_SYSTEM_ERROR);
    original->AddParam(2);
    original->AddParam(DKString(DK_T("a string long enough to own a block")));
    original->AddParam(DKDouble(0.25));
    original->AddParam(3.0);
    original->AddParam(4L);

    DKSmartPtr<DKErrorWithArgs> copy(new DKErrorWithArgs(*original));
    EXPECT_GE(DMMemoryPool::GetTotalBlocks() - totalBefore, 10u); // 5 originals + 5 copies
    EXPECT_NE(copy->GetParameterValue(0), original->GetParameterValue(0));

    DKSmartPtr<DKErrorWithArgs> assigned = DKLibraryError(DK_MSG_INVALID_DATE);
    assigned->AddParam(DKString(DK_T("will be freed")));
    *assigned = *original;
    EXPECT_EQ(assigned->GetCode(), DK_MSG_SYSTEM_ERROR);
    EXPECT_EQ(assigned->GetParameterCount(), 5u);
    const DKErrorWithArgs& same = *assigned;
    *assigned = same;
    EXPECT_EQ(assigned->GetParameterCount(), 5u);

    original.Clear(); // the copies own their values
    DKString text;
    EXPECT_TRUE(copy->GetParam(text, 1));
    EXPECT_EQ(text, DK_T("a string long enough to own a block"));
    EXPECT_EQ(DKErrorID(assigned).AsString(), DK_T("System error 2: a string long enough to own a block"));
  }
  EXPECT_EQ(DMMemoryPool::GetLiveBlocks(), liveBefore);
  EXPECT_EQ(DMMemoryPool::GetLiveBytes(), bytesBefore);
}

} // namespace
