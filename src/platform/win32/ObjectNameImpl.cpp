// Names of the library's named kernel objects (ObjectNameImpl.h).
#include "ObjectNameImpl.h"

#include "text/DKUtf.h"
#include "threads/DKSyncImpl.h"

#include <cstdint>

namespace {

// Object names are limited to MAX_PATH characters; stay clear of it.
constexpr std::size_t kLongest = 240;

void AppendHex(std::wstring& out, std::uint64_t value, int digits) {
  for (int shift = (digits - 1) * 4; shift >= 0; shift -= 4)
    out += L"0123456789ABCDEF"[(value >> shift) & 0xF];
}

void AppendEscaped(std::wstring& out, unsigned char byte) {
  out += L'%';
  AppendHex(out, byte, 2);
}

} // namespace

std::wstring DKKernelObjectName(const char* kind, const std::string& name) {
  const std::string bare = name.rfind("Local\\", 0) == 0 ? name.substr(6) : name;
  std::wstring result = L"Local\\DorvikCore.";
  for (const char* k = kind; *k; ++k)
    result += static_cast<wchar_t>(*k);
  result += L'.';
  const std::size_t prefix = result.size();

  const auto* bytes = reinterpret_cast<const unsigned char*>(bare.data());
  for (std::size_t at = 0; at < bare.size();) {
    char32_t cp = 0;
    const std::size_t length = dkutf::DecodeUtf8(bytes + at, bare.size() - at, cp);
    const bool invalid = cp == dkutf::replacementChar &&
                         !(length == 3 && bytes[at] == 0xEF && bytes[at + 1] == 0xBF && bytes[at + 2] == 0xBD);
    if (invalid) {
      for (std::size_t i = 0; i < length; ++i)
        AppendEscaped(result, bytes[at + i]);
    } else if (cp == U'\\' || cp == U'%' || cp < 0x20 || cp == 0x7F) {
      AppendEscaped(result, static_cast<unsigned char>(cp));
    } else if (cp > 0xFFFF) {
      result += static_cast<wchar_t>(0xD800 + ((cp - 0x10000) >> 10));
      result += static_cast<wchar_t>(0xDC00 + ((cp - 0x10000) & 0x3FF));
    } else {
      result += static_cast<wchar_t>(cp);
    }
    at += length;
  }

  if (result.size() > kLongest) {
    // "~" and 16 hex digits of a hash of the whole name after the name's beginning.
    std::size_t keep = kLongest - 17;
    if (keep > prefix && dkutf::IsLowSurrogate(result[keep]))
      --keep; // never split a surrogate pair
    result.resize(keep);
    result += L'~';
    AppendHex(result, DKSyncNameHash(bare), 16);
  }
  return result;
}
