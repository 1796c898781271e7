// Properties of message placeholder filling on arbitrary UTF-16 text:
// - without an error to take values from, every placeholder stays as written, so the result
//   is the text with each "%%" (read left to right) made one "%";
// - with parameters, a text without ':' holds no placeholder and fills the same way;
// - filling never fails, whatever the placeholders name.
#include <DorvikCore/DKMessageSource.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

void Require(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "property violated: %s\n", what);
    std::abort();
  }
}

DKString CollapsePercents(const DKString& text) {
  DKString out;
  for (std::size_t i = 0; i < text.Length(); ++i) {
    out.Append(text[i]);
    if (text[i] == DK_T('%') && i + 1 < text.Length() && text[i + 1] == DK_T('%'))
      ++i;
  }
  return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  DKString text;
  for (std::size_t i = 0; i + 1 < size; i += 2)
    text.Append(static_cast<DKChar>(data[i] | (data[i + 1] << 8)));

  static const DKSmartPtr<DKErrorWithArgs> error = [] {
    DKSmartPtr<DKErrorWithArgs> e = DKLibraryError(DK_MSG_UNSPECIFIED);
    e->AddParam(42);
    e->AddParam(DKString(DK_T("%0:s%%")));
    e->AddParam(-1.5);
    e->AddParam(DKDouble(1e-300));
    e->AddParam(7L);
    return e;
  }();

  const DKString expected = CollapsePercents(text);
  Require(DKMessageSource::FillPlaceholders(text, DKFormatContext()) == expected, "placeholders kept without an error");
  const DKString filled = DKMessageSource::FillPlaceholders(text, DKFormatContext(error.Get()));
  if (text.Find(DK_T(':')) == DKString::npos)
    Require(filled == expected, "a text without ':' has no placeholder");
  return 0;
}
