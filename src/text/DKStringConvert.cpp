// DKString's conversions to and from narrow text (through the string converters) and, where
// wchar_t is not the library's code unit, to and from the platform's UTF-32 wide text.
#include <DorvikCore/DKString.h>
#include <DorvikCore/DKStringConverter.h>

#include "text/DKUtf.h"

#include <cstring>
#include <cwchar>
#include <ostream>
#include <string_view>

namespace {

std::size_t NarrowLength(const char* text) noexcept { return text ? std::strlen(text) : 0; }

// Decodes len bytes as the whole new text of out; out is left as it was on failure.
DKErrorID Decode(const DKStringConverter& converter, const char* text, std::size_t len, DKString& out) {
  DKString decoded;
  DKErrorID result = converter.ToUnicode(text, len, decoded);
  if (result.Good())
    out = std::move(decoded);
  return result;
}

// Encodes with a converter that may refuse some characters: each refused character (a
// surrogate pair counts as one) becomes '?'.
std::string EncodeReplacing(const DKStringConverter& converter, const DKChar* text, std::size_t len) {
  std::string out;
  if (converter.FromUnicode(text, len, out).Good())
    return out;
  // Rare: go character by character so that only the refused ones are replaced.
  out.clear();
  for (std::size_t i = 0; i < len;) {
    const std::size_t units = dkutf::CharUnits(text, len, i);
    if (converter.FromUnicode(text + i, units, out).Bad())
      out.push_back('?');
    i += units;
  }
  return out;
}

} // namespace

// A code page the library does not know gives UTF-8, which keeps every character.
std::string DKString::AsMbString(unsigned int codePage) const {
  const DKSmartPtr<DKStringConverter> converter = DKStringConverter::ForCodePage(codePage, DKStringConverter::Replace);
  if (!converter)
    return AsUTF8();
  std::string out;
  converter->FromUnicode(c_str(), Length(), out).IgnoreError(); // a replacing converter does not fail
  return out;
}

// A null converter gives UTF-8.
std::string DKString::AsMbString(const DKSmartPtr<DKStringConverter>& converter) const {
  if (!converter)
    return AsUTF8();
  return EncodeReplacing(*converter, c_str(), Length());
}

std::string DKString::AsUTF8() const {
  std::string out;
  dkutf::Utf16ToUtf8(c_str(), Length(), out);
  return out;
}

// With an explicit length the text still ends at a 0 byte: a DKString is terminated text.
DKErrorID DKString::SetFromUTF8(const char* text, std::size_t length) {
  if (!text)
    length = 0;
  else if (length == npos)
    length = std::strlen(text);
  else if (const void* nul = std::memchr(text, 0, length))
    length = static_cast<std::size_t>(static_cast<const char*>(nul) - text);
  return Decode(*DKStringConverter::ForCodePage(DKStringConverter::codePageUTF8), text, length, *this);
}

DKErrorID DKString::ConvertToUnicode(const char* text, unsigned int codePage) {
  return ConvertToUnicode(text, codePage, *this);
}

DKErrorID DKString::ConvertToUnicode(const char* text, unsigned int codePage, DKString& out) {
  DKSmartPtr<DKStringConverter> converter;
  DKErrorID result = DKStringConverter::ForCodePage(codePage, converter);
  if (result.Bad())
    return result;
  return Decode(*converter, text, NarrowLength(text), out);
}

DKErrorID DKString::ConvertFromUnicode(std::string& out, unsigned int codePage) const {
  DKSmartPtr<DKStringConverter> converter;
  DKErrorID result = DKStringConverter::ForCodePage(codePage, converter);
  if (result.Bad())
    return result;
  std::string encoded;
  result = converter->FromUnicode(c_str(), Length(), encoded);
  if (result.Good())
    out = std::move(encoded);
  return result;
}

std::ostream& operator<<(std::ostream& os, const DKString& s) {
  // Short texts, the usual trace and console lines, are encoded on the stack.
  constexpr std::size_t stackBytes = 512;
  if (dkutf::Utf8LengthBound(s.c_str(), s.Length()) <= stackBytes) {
    char buffer[stackBytes];
    const std::size_t n = dkutf::Utf16ToUtf8(s.c_str(), s.Length(), buffer, nullptr);
    return os << std::string_view(buffer, n);
  }
  return os << std::string_view(s.AsUTF8());
}

#if !DK_WCHAR_IS_DKCHAR

namespace {

// A standard wide string's text ends at its first 0, as a DKStdString's does.
std::size_t TextLength(const std::wstring& text) noexcept {
  const std::size_t nul = text.find(L'\0');
  return nul == std::wstring::npos ? text.size() : nul;
}

} // namespace

DKString::DKString(const wchar_t* text) : DKString() { Append(text); }

DKString::DKString(const std::wstring& text) : DKString() { *this += text; }

DKString& DKString::operator=(const wchar_t* text) { return *this = DKString(text); }

DKString& DKString::operator=(const std::wstring& text) { return *this = DKString(text); }

DKString& DKString::Append(const wchar_t* text) {
  if (text)
    dkutf::Utf32ToUtf16(text, std::wcslen(text), *this);
  return *this;
}

DKString& DKString::operator+=(const std::wstring& text) {
  dkutf::Utf32ToUtf16(text.c_str(), TextLength(text), *this);
  return *this;
}

std::wstring DKString::AsStdWString() const {
  std::wstring out;
  dkutf::Utf16ToUtf32(c_str(), Length(), out);
  return out;
}

#endif
