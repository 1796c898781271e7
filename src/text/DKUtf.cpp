#include "text/DKUtf.h"

#include <bit>
#include <cstring>

namespace dkutf {

namespace {

constexpr std::uint64_t highBits8 = 0x8080808080808080ull;

// One UTF-8 sequence that starts with a byte of 0x80 or above. When the bytes are not a
// well-formed sequence, `size` is the length of the maximal invalid subpart: the longest
// prefix of a well-formed sequence, or 1 when the first byte cannot start one.
struct Sequence {
  char32_t codePoint;
  std::size_t size;
  bool valid;
};

// Well-formed sequences (the only ones accepted):
//   C2..DF 80..BF
//   E0 A0..BF 80..BF     E1..EC 80..BF 80..BF     ED 80..9F 80..BF     EE..EF 80..BF 80..BF
//   F0 90..BF 80..BF 80..BF     F1..F3 80..BF 80..BF 80..BF     F4 80..8F 80..BF 80..BF
// The narrowed second-byte ranges are what exclude overlong forms (C0, C1, E0 80..9F,
// F0 80..8F), surrogates (ED A0..BF) and values above U+10FFFF (F4 90.., F5..FF).
inline Sequence DecodeSequence(const unsigned char* s, std::size_t available) noexcept {
  const unsigned lead = s[0];
  if (lead < 0xC2 || lead > 0xF4)
    return {0, 1, false};
  std::size_t trail;
  unsigned lo = 0x80, hi = 0xBF;
  char32_t cp;
  if (lead < 0xE0) {
    trail = 1;
    cp = lead & 0x1F;
  } else if (lead < 0xF0) {
    trail = 2;
    cp = lead & 0x0F;
    if (lead == 0xE0)
      lo = 0xA0;
    else if (lead == 0xED)
      hi = 0x9F;
  } else {
    trail = 3;
    cp = lead & 0x07;
    if (lead == 0xF0)
      lo = 0x90;
    else if (lead == 0xF4)
      hi = 0x8F;
  }
  if (available < 2 || s[1] < lo || s[1] > hi)
    return {0, 1, false};
  cp = (cp << 6) | (s[1] & 0x3Fu);
  std::size_t k = 2;
  for (; k <= trail; ++k) {
    if (k >= available || (s[k] & 0xC0) != 0x80)
      return {0, k, false};
    cp = (cp << 6) | (s[k] & 0x3Fu);
  }
  return {cp, k, true};
}

// The UTF-16 length of a valid UTF-8 text: one unit per byte that is not a continuation byte,
// plus one for each four-byte lead. Only a reservation hint for invalid text. 8 bytes a step.
std::size_t Utf16LengthHint(const unsigned char* s, std::size_t length) noexcept {
  std::size_t units = 0, i = 0;
  for (; i + 8 <= length; i += 8) {
    std::uint64_t v;
    std::memcpy(&v, s + i, 8);
    if (!(v & highBits8)) {
      units += 8;
      continue;
    }
    // Bit 7 of each byte of (v << k) is bit 7 - k of that byte.
    const std::uint64_t continuation = v & ~(v << 1) & highBits8;          // 10xxxxxx
    const std::uint64_t fourByteLead = v & (v << 1) & (v << 2) & (v << 3) & highBits8; // 1111xxxx
    units += 8 - static_cast<std::size_t>(std::popcount(continuation)) +
             static_cast<std::size_t>(std::popcount(fourByteLead));
  }
  for (; i < length; ++i)
    units += ((s[i] & 0xC0) != 0x80) + (s[i] >= 0xF0);
  return units;
}

// Writes the UTF-8 form of one code point (at most U+10FFFF, not a surrogate) at p.
inline char* PutUtf8(char* p, char32_t cp) noexcept {
  if (cp < 0x80) {
    *p++ = static_cast<char>(cp);
  } else if (cp < 0x800) {
    *p++ = static_cast<char>(0xC0 | (cp >> 6));
    *p++ = static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    *p++ = static_cast<char>(0xE0 | (cp >> 12));
    *p++ = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    *p++ = static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    *p++ = static_cast<char>(0xF0 | (cp >> 18));
    *p++ = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    *p++ = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    *p++ = static_cast<char>(0x80 | (cp & 0x3F));
  }
  return p;
}

template <class C32>
void Utf32ToUtf16Impl(const C32* text, std::size_t length, DKString& out) {
  if (!text || !length)
    return;
  std::size_t units = length;
  for (std::size_t i = 0; i < length; ++i)
    units += static_cast<char32_t>(text[i]) - 0x10000u <= 0xFFFFFu;
  ReserveMore(out, units);
  Utf16Writer writer(out);
  for (std::size_t i = 0; i < length; ++i) {
    // A negative wchar_t converts to a value far above U+10FFFF.
    const char32_t cp = static_cast<char32_t>(text[i]);
    writer.PutCodePoint(cp > 0x10FFFF || IsSurrogate(cp) ? replacementChar : cp);
  }
  writer.Flush();
}

template <class String>
void Utf16ToUtf32Impl(const DKChar* text, std::size_t length, String& out) {
  if (!text || !length)
    return;
  using C = typename String::value_type;
  out.reserve(out.size() + length);
  for (std::size_t i = 0; i < length; ++i) {
    char32_t cp = text[i];
    if (IsSurrogate(cp)) {
      if (CharUnits(text, length, i) == 2)
        cp = 0x10000 + ((cp - 0xD800) << 10) + (text[++i] - 0xDC00u);
      else
        cp = replacementChar;
    }
    out.push_back(static_cast<C>(cp));
  }
}

} // namespace

std::size_t Utf8ToUtf16(const char* text, std::size_t length, DKString& out, bool lenient) {
  if (!text || !length)
    return DKString::npos;
  const auto* s = reinterpret_cast<const unsigned char*>(text);
  const std::size_t start = out.Length();
  ReserveMore(out, Utf16LengthHint(s, length));
  Utf16Writer writer(out);
  std::size_t i = 0;
  while (i < length) {
    const std::size_t ascii = AsciiPrefix(s + i, length - i);
    writer.PutBytes(s + i, ascii);
    i += ascii;
    while (i < length && s[i] >= 0x80) {
      const Sequence seq = DecodeSequence(s + i, length - i);
      if (seq.valid) {
        writer.PutCodePoint(seq.codePoint);
      } else if (lenient) {
        writer.Put(static_cast<DKChar>(replacementChar));
      } else {
        writer.Discard();
        TruncateTo(out, start);
        return i;
      }
      i += seq.size;
    }
  }
  writer.Flush();
  return DKString::npos;
}

std::size_t DecodeUtf8(const unsigned char* s, std::size_t available, char32_t& cp) noexcept {
  if (s[0] < 0x80) {
    cp = s[0];
    return 1;
  }
  const Sequence seq = DecodeSequence(s, available);
  cp = seq.valid ? seq.codePoint : replacementChar;
  return seq.size;
}

std::size_t Utf16LengthOfUtf8(const char* text, std::size_t length) noexcept {
  if (!text)
    return 0;
  const auto* s = reinterpret_cast<const unsigned char*>(text);
  std::size_t units = 0;
  for (std::size_t i = 0; i < length;) {
    if (s[i] < 0x80) {
      const std::size_t ascii = AsciiPrefix(s + i, length - i);
      units += ascii;
      i += ascii;
      continue;
    }
    const Sequence seq = DecodeSequence(s + i, length - i);
    units += seq.valid && seq.codePoint >= 0x10000 ? 2 : 1;
    i += seq.size;
  }
  return units;
}

std::size_t FindInvalidUtf8(const char* text, std::size_t length) noexcept {
  if (!text)
    return DKString::npos;
  const auto* s = reinterpret_cast<const unsigned char*>(text);
  for (std::size_t i = 0; i < length;) {
    if (s[i] < 0x80) {
      i += AsciiPrefix(s + i, length - i);
      continue;
    }
    const Sequence seq = DecodeSequence(s + i, length - i);
    if (!seq.valid)
      return i;
    i += seq.size;
  }
  return DKString::npos;
}

std::size_t Utf8LengthBound(const DKChar* text, std::size_t length) noexcept {
  std::size_t bytes = length;
  for (std::size_t i = 0; i < length; ++i)
    bytes += (text[i] >= 0x80) + (text[i] >= 0x800);
  return bytes;
}

std::size_t Utf16ToUtf8(const DKChar* text, std::size_t length, char* dest, std::size_t* firstLone) noexcept {
  char* p = dest;
  std::size_t lone = DKString::npos;
  std::size_t i = 0;
  while (i < length) {
    const std::size_t ascii = AsciiPrefix(text + i, length - i);
    NarrowAscii(p, text + i, ascii);
    p += ascii;
    i += ascii;
    if (i == length)
      break;
    char32_t cp = text[i];
    if (IsSurrogate(cp)) {
      if (CharUnits(text, length, i) == 2) {
        cp = 0x10000 + ((cp - 0xD800) << 10) + (text[i + 1] - 0xDC00u);
        ++i;
      } else {
        if (lone == DKString::npos)
          lone = i;
        cp = replacementChar;
      }
    }
    p = PutUtf8(p, cp);
    ++i;
  }
  if (firstLone)
    *firstLone = lone;
  return static_cast<std::size_t>(p - dest);
}

std::size_t Utf16ToUtf8(const DKChar* text, std::size_t length, std::string& out) {
  if (!text || !length)
    return DKString::npos;
  const std::size_t start = out.size();
  out.resize(start + Utf8LengthBound(text, length));
  std::size_t firstLone;
  out.resize(start + Utf16ToUtf8(text, length, out.data() + start, &firstLone));
  return firstLone;
}

void Utf32ToUtf16(const char32_t* text, std::size_t length, DKString& out) { Utf32ToUtf16Impl(text, length, out); }
void Utf16ToUtf32(const DKChar* text, std::size_t length, std::u32string& out) { Utf16ToUtf32Impl(text, length, out); }

#if !DK_WCHAR_IS_DKCHAR
void Utf32ToUtf16(const wchar_t* text, std::size_t length, DKString& out) { Utf32ToUtf16Impl(text, length, out); }
void Utf16ToUtf32(const DKChar* text, std::size_t length, std::wstring& out) { Utf16ToUtf32Impl(text, length, out); }
#endif

} // namespace dkutf
