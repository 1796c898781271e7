// UTF-8 <-> UTF-16 transcoding shared by the converters, the formatting engine and the
// platform wide-text bridge. Internal to the library.
#pragma once

#include <DorvikCore/DKString.h>

#include <string>

namespace dkutf {

// Appends the UTF-16 form of `length` bytes of UTF-8 text to out.
// strict (lenient == false): stops at the first invalid sequence (overlong forms, surrogates
//   encoded in UTF-8, values above U+10FFFF, truncated or stray bytes) and returns its byte
//   offset; out is then left as it was on entry.
// lenient: each invalid sequence becomes U+FFFD and decoding goes on.
// Returns DKString::npos when the whole text was valid.
std::size_t Utf8ToUtf16(const char* text, std::size_t length, DKString& out, bool lenient);

// Appends the UTF-8 form of `length` code units to out. An unpaired surrogate becomes U+FFFD.
// Returns the position of the first unpaired surrogate, or DKString::npos.
std::size_t Utf16ToUtf8(const DKChar* text, std::size_t length, std::string& out);

// UTF-32 (platform wchar_t on Linux) to UTF-16 and back; an invalid code point becomes U+FFFD.
void Utf32ToUtf16(const char32_t* text, std::size_t length, DKString& out);
void Utf16ToUtf32(const DKChar* text, std::size_t length, std::u32string& out);

} // namespace dkutf
