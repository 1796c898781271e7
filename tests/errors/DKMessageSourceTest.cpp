#include <DorvikCore/DKMessageSource.h>

#include "ErrorsTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

// An error whose parameters are the given texts, for filling placeholders.
DKSmartPtr<DKErrorWithArgs> ErrorWith(std::initializer_list<const DKChar*> params) {
  DKSmartPtr<DKErrorWithArgs> error = DKLibraryError(DK_MSG_UNSPECIFIED);
  for (const DKChar* p : params)
    error->AddParam(p);
  return error;
}

TEST(DKMessageSourceTest, FillPlaceholders) {
  DKSmartPtr<DKErrorWithArgs> numbers = DKLibraryError(DK_MSG_UNSPECIFIED);
  numbers->AddParam(7);
  numbers->AddParam(DKString(DK_T("seven")));
  numbers->AddParam(0.5);
  DKSmartPtr<DKErrorWithArgs> eleven = ErrorWith(
      {DK_T("p0"), DK_T("p1"), DK_T("p2"), DK_T("p3"), DK_T("p4"), DK_T("p5"), DK_T("p6"), DK_T("p7"), DK_T("p8"),
       DK_T("p9"), DK_T("p10")});
  DKSmartPtr<DKErrorWithArgs> tricky = ErrorWith({DK_T("%1:s"), DK_T("100%")});

  const struct {
    const DKChar* text;
    const DKErrorI* error;
    const DKChar* expected;
  } cases[] = {
      {DK_T(""), numbers.Get(), DK_T("")},
      {DK_T("plain text"), numbers.Get(), DK_T("plain text")},
      {DK_T("%0:d items"), numbers.Get(), DK_T("7 items")},
      {DK_T("%1:s then %0:d"), numbers.Get(), DK_T("seven then 7")},
      {DK_T("%2:f"), numbers.Get(), DK_T("0.500000")},
      {DK_T("%0:d%1:s%0:d"), numbers.Get(), DK_T("7seven7")},
      {DK_T("%1:d"), numbers.Get(), DK_T("seven")}, // the letter does not change how a value prints
      {DK_T("100%% sure"), numbers.Get(), DK_T("100% sure")},
      {DK_T("%%0:d"), numbers.Get(), DK_T("%0:d")},
      {DK_T("%%%0:d%%"), numbers.Get(), DK_T("%7%")},
      {DK_T("[%3:s] [%9:d]"), numbers.Get(), DK_T("[%3:s] [%9:d]")}, // no such parameter: kept as written
      {DK_T("%0:s"), nullptr, DK_T("%0:s")},
      {DK_T("%"), numbers.Get(), DK_T("%")},
      {DK_T("50%"), numbers.Get(), DK_T("50%")},
      {DK_T("%x %0 %0: %0:1 %:s %0;d"), numbers.Get(), DK_T("%x %0 %0: %0:1 %:s %0;d")},
      {DK_T("%1234567890:d"), numbers.Get(), DK_T("%1234567890:d")},
      {DK_T("%00:d"), numbers.Get(), DK_T("7")},
      {DK_T("%10:s/%1:s"), eleven.Get(), DK_T("p10/p1")},
      {DK_T("%0:s|%1:s"), tricky.Get(), DK_T("%1:s|100%")}, // values are not scanned again
      {DK_T("\u00e9t\u00e9 %0:d \u20ac"), numbers.Get(), DK_T("\u00e9t\u00e9 7 \u20ac")},
  };
  for (const auto& c : cases) {
    const DKString filled = DKMessageSource::FillPlaceholders(DKString(c.text), DKFormatContext(c.error));
    EXPECT_EQ(filled, c.expected) << DKString(c.text);
  }
}

TEST(DKMemoryMessageSourceTest, AddReplaceRemoveAndLookUp) {
  DKSmartPtr<DKMemoryMessageSource> source(new DKMemoryMessageSource);
  EXPECT_EQ(source->GetCount(), 0u);
  source->Add(1, DK_T("one"));
  source->Add(-5, DK_T("minus five %0:d"));
  source->Add(1, DK_T("uno"));
  EXPECT_EQ(source->GetCount(), 2u);
  EXPECT_TRUE(source->Contains(-5));

  DKString text(DK_T("untouched"));
  EXPECT_TRUE(source->GetTemplate(-5, text));
  EXPECT_EQ(text, DK_T("minus five %0:d"));
  EXPECT_TRUE(source->GetText(text, 1, DKFormatContext()).IsSuccess());
  EXPECT_EQ(text, DK_T("uno"));

  EXPECT_TRUE(source->Remove(1));
  EXPECT_FALSE(source->Remove(1));
  EXPECT_FALSE(source->Contains(1));
  text = DK_T("untouched");
  EXPECT_FALSE(source->GetTemplate(1, text));
  EXPECT_EQ(text, DK_T("untouched"));
}

TEST(DKMemoryMessageSourceTest, UnknownCodeGivesAnErrorAndATextNamingTheCode) {
  DKSmartPtr<DKMemoryMessageSource> source(new DKMemoryMessageSource{{1, DK_T("one")}});
  for (long code : {0L, 2L, -3L, 2147483647L}) {
    DKString text;
    const DKErrorID result = source->GetText(text, code, DKFormatContext());
    const DKString expected = DKString(DK_T("Unknown message ")) + DKString(std::to_wstring(code));
    EXPECT_EQ(text, expected);
    EXPECT_TRUE(result.Bad());
    EXPECT_EQ(result.GetCode(), DK_MSG_UNKNOWN_MESSAGE);
    EXPECT_EQ(result.AsString(), expected);
  }
}

// Records the context a source is asked with.
class RecordingSource : public DKMessageSource {
public:
  DKErrorID GetText(DKString& out, long code, const DKFormatContext& context) const override {
    lastError = context.GetError();
    lastFormat = context.GetExecContext().GetDateTimeFormat();
    out = DKString(std::to_wstring(code));
    return DKErrorID();
  }
  mutable const DKErrorI* lastError = nullptr;
  mutable DKString lastFormat;
};

TEST(DKMessageSourceTest, AnErrorAsksItsSourceWithItselfAndTheExecContext) {
  DKSmartPtr<RecordingSource> source(new RecordingSource);
  DKSmartPtr<DKError> error(new DKError(source, 77));
  DKString text;
  DKSmartPtr<DKErrorWithArgs> someOtherError = DKLibraryError(1);
  EXPECT_TRUE(error->AsString(text, DKFormatContext(someOtherError.Get(), DKExecContext(DK_T("%Y")))).IsSuccess());
  EXPECT_EQ(text, DK_T("77"));
  EXPECT_EQ(source->lastError, error.Get());
  EXPECT_EQ(source->lastFormat, DK_T("%Y"));
}

TEST(DKMessageSourceTest, LibrarySourceHoldsEveryLibraryMessage) {
  DKSmartPtr<DKMessageSource> source = DKGetLibraryMessageSource();
  ASSERT_FALSE(source.IsNull());
  EXPECT_EQ(source.Get(), DKGetLibraryMessageSource().Get());
  for (long code = DK_MSG_UNSPECIFIED; code <= DK_MSG_UNKNOWN_MESSAGE; ++code) {
    DKString text;
    EXPECT_TRUE(source->GetText(text, code, DKFormatContext()).IsSuccess()) << code;
    EXPECT_FALSE(text.IsEmpty());
  }
  DKString text;
  EXPECT_TRUE(source->GetText(text, DK_MSG_INVALID_DATE, DKFormatContext()).IsSuccess());
  EXPECT_EQ(text, DK_T("Invalid date: %0:s"));
}

TEST(DKMemoryMessageSourceTest, ReadersRunWhileAWriterChangesTheTable) {
  DKSmartPtr<DKMemoryMessageSource> source(new DKMemoryMessageSource{{1, DK_T("stable %0:s")}});
  DKSmartPtr<DKErrorWithArgs> error = ErrorWith({DK_T("value")});
  BackgroundReaders readers(3, [&] {
    DKString text;
    if (source->GetText(text, 1, DKFormatContext(error.Get())).Bad() || !(text == DK_T("stable value")))
      return false;
    const DKErrorID flickering = source->GetText(text, 2, DKFormatContext());
    return flickering.IsSuccess() ? text == DK_T("flicker") : text == DK_T("Unknown message 2");
  });
  for (int i = 0; i < 5000; ++i) {
    source->Add(2, DK_T("flicker"));
    source->Remove(2);
  }
  EXPECT_EQ(readers.Stop(), 0);
}

} // namespace
