// UTF-8 <-> UTF-16 transcoding shared by the converters, the formatting engine and the
// platform wide-text bridge. Internal to the library.
#pragma once

#include <DorvikCore/DKString.h>

#include <algorithm>
#include <bit>
#include <cstring>
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

// The byte offset of the first invalid sequence (as the strict Utf8ToUtf16 finds it), or
// DKString::npos when the whole text is valid. Nothing is decoded.
std::size_t FindInvalidUtf8(const char* text, std::size_t length) noexcept;

// An upper bound of the UTF-8 length of `length` code units (exact without surrogate pairs).
std::size_t Utf8LengthBound(const DKChar* text, std::size_t length) noexcept;
// Writes the UTF-8 form of `length` code units at dest, which has room for
// Utf8LengthBound(text, length) bytes; returns the bytes written. An unpaired surrogate
// becomes U+FFFD; *firstLone (when given) receives the position of the first, or npos.
std::size_t Utf16ToUtf8(const DKChar* text, std::size_t length, char* dest, std::size_t* firstLone) noexcept;

// UTF-32 (platform wchar_t on Linux) to UTF-16 and back; an invalid code point becomes U+FFFD.
void Utf32ToUtf16(const char32_t* text, std::size_t length, DKString& out);
void Utf16ToUtf32(const DKChar* text, std::size_t length, std::u32string& out);

#if !DK_WCHAR_IS_DKCHAR
// The same for the platform's 32-bit wchar_t text (a distinct type from char32_t).
void Utf32ToUtf16(const wchar_t* text, std::size_t length, DKString& out);
void Utf16ToUtf32(const DKChar* text, std::size_t length, std::wstring& out);
#endif

// Decodes the character at the start of `available` bytes (at least one): returns how many
// bytes it takes, and the code point in cp, U+FFFD for an invalid sequence (as the lenient
// mode of Utf8ToUtf16 decodes it).
std::size_t DecodeUtf8(const unsigned char* s, std::size_t available, char32_t& cp) noexcept;

// Number of code units Utf8ToUtf16 produces for the text in lenient mode (the exact length
// of a valid text's UTF-16 form).
std::size_t Utf16LengthOfUtf8(const char* text, std::size_t length) noexcept;

// Surrogate tests and the replacement character.
constexpr char32_t replacementChar = 0xFFFD;
constexpr bool IsHighSurrogate(char32_t u) noexcept { return u >= 0xD800 && u <= 0xDBFF; }
constexpr bool IsLowSurrogate(char32_t u) noexcept { return u >= 0xDC00 && u <= 0xDFFF; }
constexpr bool IsSurrogate(char32_t u) noexcept { return u >= 0xD800 && u <= 0xDFFF; }

// Number of code units (1 or 2) of the character that starts at text[pos]: 2 for a
// surrogate pair, 1 otherwise (a lone surrogate counts as one character).
inline std::size_t CharUnits(const DKChar* text, std::size_t length, std::size_t pos) noexcept {
  return IsHighSurrogate(text[pos]) && pos + 1 < length && IsLowSurrogate(text[pos + 1]) ? 2 : 1;
}

// Length of the run of ASCII bytes (below 0x80) at the start of text, read 8 bytes at a time.
inline std::size_t AsciiPrefix(const unsigned char* text, std::size_t length) noexcept {
  constexpr std::uint64_t highBits = 0x8080808080808080ull;
  std::size_t i = 0;
  for (; i + 8 <= length; i += 8) {
    std::uint64_t v;
    std::memcpy(&v, text + i, 8);
    if (const std::uint64_t high = v & highBits) {
      if constexpr (std::endian::native == std::endian::little)
        return i + static_cast<std::size_t>(std::countr_zero(high)) / 8;
      else
        return i + static_cast<std::size_t>(std::countl_zero(high)) / 8;
    }
  }
  while (i < length && text[i] < 0x80)
    ++i;
  return i;
}

// Length of the run of ASCII units (below 0x80) at the start of text, read 4 units at a time.
inline std::size_t AsciiPrefix(const DKChar* text, std::size_t length) noexcept {
  static_assert(sizeof(DKChar) == 2, "DKChar is one UTF-16 code unit");
  constexpr std::uint64_t highBits = 0xFF80FF80FF80FF80ull;
  std::size_t i = 0;
  for (; i + 4 <= length; i += 4) {
    std::uint64_t v;
    std::memcpy(&v, text + i, 8);
    if (v & highBits)
      break;
  }
  while (i < length && text[i] < 0x80)
    ++i;
  return i;
}

// Copies count ASCII units as bytes.
inline void NarrowAscii(char* to, const DKChar* from, std::size_t count) noexcept {
  for (std::size_t i = 0; i < count; ++i)
    to[i] = static_cast<char>(from[i]);
}

// Collects code units in a local buffer and appends them to a DKString one block at a time,
// so that the decoding loops write to plain memory. Flush hands the rest over: call it when
// the text is complete (a destructor must not append, as appending may throw).
class Utf16Writer {
public:
  explicit Utf16Writer(DKString& out) noexcept : m_out(out) {}
  Utf16Writer(const Utf16Writer&) = delete;
  Utf16Writer& operator=(const Utf16Writer&) = delete;

  void Put(DKChar ch) {
    if (m_used == blockSize)
      Flush();
    m_block[m_used++] = ch;
  }
  void PutCodePoint(char32_t cp) {
    if (cp < 0x10000) {
      Put(static_cast<DKChar>(cp));
    } else {
      cp -= 0x10000;
      Put(static_cast<DKChar>(0xD800 + (cp >> 10)));
      Put(static_cast<DKChar>(0xDC00 + (cp & 0x3FF)));
    }
  }
  // Widens count bytes below 0x100 (ASCII or Latin-1) to code units.
  void PutBytes(const unsigned char* bytes, std::size_t count) {
    while (count) {
      if (m_used == blockSize)
        Flush();
      const std::size_t n = std::min(count, blockSize - m_used);
      DKChar* to = m_block + m_used;
      for (std::size_t i = 0; i < n; ++i)
        to[i] = bytes[i];
      m_used += n;
      bytes += n;
      count -= n;
    }
  }
  void Flush() {
    if (m_used)
      m_out.Append(m_block, m_used);
    m_used = 0;
  }
  // Drops what is still buffered (the caller gives up on the text).
  void Discard() noexcept { m_used = 0; }

private:
  static constexpr std::size_t blockSize = 256;
  DKString& m_out;
  std::size_t m_used = 0;
  DKChar m_block[blockSize];
};

// Reserves room for a text that grows by about `extra` units (the block keeps room for the
// terminator), so that the appends that follow do not reallocate.
inline void ReserveMore(DKString& out, std::size_t extra) {
  const std::size_t room = DKString::maxLength - out.Length();
  out.Reserve(out.Length() + std::min(extra, room) + 1);
}

// Takes out back to its first `length` units after a failed append.
inline void TruncateTo(DKString& out, std::size_t length) { out.Remove(length, DKString::npos); }

} // namespace dkutf
