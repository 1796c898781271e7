#include <DorvikCore/DKStringConverter.h>

#include "text/DKTextErrors.h"
#include "text/DKUtf.h"

#include <algorithm>
#include <array>

namespace {

DKErrorID LibraryError(DKLibraryMessage code, std::size_t param) { return DKTextError(code, {static_cast<long>(param)}); }

DKErrorID UnmappableError(std::size_t position, unsigned int codePage) {
  return DKTextError(DK_MSG_UNMAPPABLE_CHARACTER, {static_cast<long>(position), static_cast<long>(codePage)});
}

// Room left in out before the longest text a DKString holds.
std::size_t RoomIn(const DKString& out) noexcept { return DKString::maxLength - out.Length(); }

// ---------------------------------------------------------------------------------------------
// 8-bit code pages whose lower half is ASCII. `high` gives the code point of each byte
// 0x80-0xFF, 0 for a byte the code page leaves undefined.

using HighHalf = std::array<DKChar, 128>;

struct ByteForm {
  DKChar codePoint;
  unsigned char byte;
};

constexpr HighHalf MakeLatin1High() {
  HighHalf high{};
  for (std::size_t i = 0; i < high.size(); ++i)
    high[i] = static_cast<DKChar>(0x80 + i);
  return high;
}

constexpr HighHalf MakeWindows1252High() {
  HighHalf high = MakeLatin1High();
  constexpr DKChar row8[16] = {0x20AC, 0,      0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
                               0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0,      0x017D, 0};
  constexpr DKChar row9[16] = {0,      0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
                               0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0,      0x017E, 0x0178};
  for (std::size_t i = 0; i < 16; ++i) {
    high[i] = row8[i];
    high[16 + i] = row9[i];
  }
  return high;
}

constexpr HighHalf latin1High = MakeLatin1High();
constexpr HighHalf windows1252High = MakeWindows1252High();

// Number of defined bytes whose code point differs from the byte's value.
constexpr std::size_t CountMoved(const HighHalf& high) {
  std::size_t n = 0;
  for (std::size_t i = 0; i < high.size(); ++i)
    n += high[i] != 0 && high[i] != 0x80 + i;
  return n;
}

// The bytes counted by CountMoved, sorted by code point for the encoder's binary search.
template <std::size_t N>
constexpr std::array<ByteForm, N> MakeMoved(const HighHalf& high) {
  std::array<ByteForm, N> moved{};
  std::size_t n = 0;
  for (std::size_t i = 0; i < high.size(); ++i)
    if (high[i] != 0 && high[i] != 0x80 + i)
      moved[n++] = ByteForm{high[i], static_cast<unsigned char>(0x80 + i)};
  std::sort(moved.begin(), moved.end(), [](ByteForm a, ByteForm b) { return a.codePoint < b.codePoint; });
  return moved;
}

constexpr auto windows1252Moved = MakeMoved<CountMoved(windows1252High)>(windows1252High);
static_assert(windows1252Moved.size() == 27, "the 27 typographic characters of 0x80-0x9F");

struct SingleByteCodePage {
  unsigned int codePage;
  const HighHalf& high;
  const ByteForm* moved;
  std::size_t movedCount;
  bool complete; // every byte is defined and stands for its own value

  // The byte of a code unit, or -1 when the code page has none.
  int ByteOf(DKChar u) const noexcept {
    if (u < 0x80 || (u <= 0xFF && high[u - 0x80] == u))
      return u;
    const ByteForm* end = moved + movedCount;
    const ByteForm* it = std::lower_bound(moved, end, u, [](ByteForm f, DKChar c) { return f.codePoint < c; });
    return it != end && it->codePoint == u ? it->byte : -1;
  }

  DKErrorID Decode(const char* text, std::size_t len, DKString& out, bool lenient) const {
    if (!text || !len)
      return DKErrorID();
    if (len > RoomIn(out))
      return LibraryError(DK_MSG_TEXT_TOO_LONG, out.Length() + len);
    const auto* s = reinterpret_cast<const unsigned char*>(text);
    const std::size_t start = out.Length();
    dkutf::ReserveMore(out, len);
    dkutf::Utf16Writer writer(out);
    if (complete) {
      writer.PutBytes(s, len);
      writer.Flush();
      return DKErrorID();
    }
    for (std::size_t i = 0; i < len;) {
      const std::size_t ascii = dkutf::AsciiPrefix(s + i, len - i);
      writer.PutBytes(s + i, ascii);
      i += ascii;
      for (; i < len && s[i] >= 0x80; ++i) {
        const DKChar u = high[s[i] - 0x80];
        if (u) {
          writer.Put(u);
        } else if (lenient) {
          writer.Put(static_cast<DKChar>(dkutf::replacementChar));
        } else {
          writer.Discard();
          dkutf::TruncateTo(out, start);
          return UnmappableError(i, codePage);
        }
      }
    }
    writer.Flush();
    return DKErrorID();
  }

  DKErrorID Encode(const DKChar* text, std::size_t len, std::string& out, bool lenient) const {
    if (!text || !len)
      return DKErrorID();
    const std::size_t start = out.size();
    out.resize(start + len); // one byte per character at most
    char* p = out.data() + start;
    for (std::size_t i = 0; i < len;) {
      const std::size_t ascii = dkutf::AsciiPrefix(text + i, len - i);
      dkutf::NarrowAscii(p, text + i, ascii);
      p += ascii;
      i += ascii;
      while (i < len && text[i] >= 0x80) {
        const int byte = ByteOf(text[i]);
        if (byte >= 0) {
          *p++ = static_cast<char>(byte);
          ++i;
        } else if (lenient) {
          *p++ = '?';
          i += dkutf::CharUnits(text, len, i);
        } else {
          out.resize(start);
          return UnmappableError(i, codePage);
        }
      }
    }
    out.resize(static_cast<std::size_t>(p - out.data()));
    return DKErrorID();
  }
};

constexpr SingleByteCodePage latin1 = {DKStringConverter::codePageLatin1, latin1High, nullptr, 0, true};
constexpr SingleByteCodePage windows1252 = {DKStringConverter::codePageWindows1252, windows1252High,
                                            windows1252Moved.data(), windows1252Moved.size(), false};

// ---------------------------------------------------------------------------------------------
// Shared instances: created once, holding a reference of their own so that they are never freed
// (not even by a holder that outlives the static destructors).

template <class Converter>
DKStringConverter* Immortal(DKStringConverter::Policy policy) {
  DKStringConverter* converter = new Converter(policy);
  converter->AddRef();
  return converter;
}

struct SharedConverters {
  // Index 0: strict, 1: replacing.
  DKStringConverter* utf8[2];
  DKStringConverter* latin1[2];
  DKStringConverter* windows1252[2];
};

const SharedConverters& Shared() {
  using P = DKStringConverter::Policy;
  static const SharedConverters shared = {
      {Immortal<DKUTF8StringConverter>(P::Strict), Immortal<DKUTF8StringConverter>(P::Replace)},
      {Immortal<DKLatin1StringConverter>(P::Strict), Immortal<DKLatin1StringConverter>(P::Replace)},
      {Immortal<DKWindows1252StringConverter>(P::Strict), Immortal<DKWindows1252StringConverter>(P::Replace)},
  };
  return shared;
}

} // namespace

// ---------------------------------------------------------------------------------------------

DKStringConverter::~DKStringConverter() = default;
DKUTF8StringConverter::~DKUTF8StringConverter() = default;
DKLatin1StringConverter::~DKLatin1StringConverter() = default;
DKWindows1252StringConverter::~DKWindows1252StringConverter() = default;

DKSmartPtr<DKStringConverter> DKStringConverter::ForCodePage(unsigned int codePage, Policy policy) {
  const std::size_t index = policy == Replace ? 1 : 0;
  switch (codePage) {
  case codePageSystem:
  case codePageUTF8:
    return Shared().utf8[index];
  case codePageLatin1:
    return Shared().latin1[index];
  case codePageWindows1252:
    return Shared().windows1252[index];
  default:
    return nullptr;
  }
}

DKErrorID DKStringConverter::ForCodePage(unsigned int codePage, DKSmartPtr<DKStringConverter>& out, Policy policy) {
  DKSmartPtr<DKStringConverter> converter = ForCodePage(codePage, policy);
  if (!converter)
    return LibraryError(DK_MSG_UNKNOWN_CODE_PAGE, codePage);
  out = std::move(converter);
  return DKErrorID();
}

DKErrorID DKUTF8StringConverter::ToUnicode(const char* text, std::size_t len, DKString& out) const {
  if (!text || !len)
    return DKErrorID();
  // A UTF-8 text never has more UTF-16 units than bytes: count exactly only near the limit.
  if (len > RoomIn(out)) {
    const std::size_t units = dkutf::Utf16LengthOfUtf8(text, len);
    if (units > RoomIn(out))
      return LibraryError(DK_MSG_TEXT_TOO_LONG, out.Length() + units);
  }
  const std::size_t bad = dkutf::Utf8ToUtf16(text, len, out, GetPolicy() == Replace);
  if (bad != DKString::npos)
    return LibraryError(DK_MSG_INVALID_UTF8, bad);
  return DKErrorID();
}

DKErrorID DKUTF8StringConverter::FromUnicode(const DKChar* text, std::size_t len, std::string& out) const {
  const std::size_t start = out.size();
  const std::size_t lone = dkutf::Utf16ToUtf8(text, len, out);
  if (lone != DKString::npos && GetPolicy() == Strict) {
    out.resize(start);
    return LibraryError(DK_MSG_INVALID_UTF16, lone);
  }
  return DKErrorID();
}

DKErrorID DKLatin1StringConverter::ToUnicode(const char* text, std::size_t len, DKString& out) const {
  return latin1.Decode(text, len, out, GetPolicy() == Replace);
}

DKErrorID DKLatin1StringConverter::FromUnicode(const DKChar* text, std::size_t len, std::string& out) const {
  return latin1.Encode(text, len, out, GetPolicy() == Replace);
}

DKErrorID DKWindows1252StringConverter::ToUnicode(const char* text, std::size_t len, DKString& out) const {
  return windows1252.Decode(text, len, out, GetPolicy() == Replace);
}

DKErrorID DKWindows1252StringConverter::FromUnicode(const DKChar* text, std::size_t len, std::string& out) const {
  return windows1252.Encode(text, len, out, GetPolicy() == Replace);
}
