// Configuration files, the bytes on disk: which encoding a file's bytes are in (a byte-order
// mark, or without one the pattern of their NUL bytes), where the text starts, which line end
// the file uses, and whether the text is valid in that encoding. Exports dkconfig::Sniff;
// private here: the count of NUL bytes.
#include "config/DKConfigIO.h"
#include "text/DKUtf.h"

#include <cstring>

namespace dkconfig {

namespace {

// What the NUL bytes of a text without a byte-order mark say about its encoding.
struct NulBytes {
  enum Pattern { None, Utf16LE, Utf16BE, Utf32LE, Utf32BE, Unclear } pattern = None;
  std::size_t even = 0, odd = 0; // how many at even and at odd offsets
};

// UTF-8 text holds no NUL byte (U+0000 is no character of a configuration file). In UTF-16 of
// Latin text every other byte is NUL: at odd offsets in little-endian order, at even ones in
// big-endian order; characters such as U+4E00 put a few on the other side. In UTF-32 two of
// every four bytes are NUL. The UTF-16 pattern must be plain: at most one NUL on the other side
// for every 8 on the first. Saving takes out whole units only, so a file whose NULs all sit on
// one side keeps its pattern.
NulBytes CountNuls(const unsigned char* bytes, std::size_t size) {
  NulBytes nuls;
  if (!std::memchr(bytes, 0, size))
    return nuls;
  std::size_t zeros[4] = {0, 0, 0, 0};
  for (std::size_t i = 0; i < size; ++i)
    zeros[i & 3] += bytes[i] == 0;
  nuls.even = zeros[0] + zeros[2];
  nuls.odd = zeros[1] + zeros[3];
  const std::size_t groups = size / 4;
  const auto mostly = [&](std::size_t count) { return groups >= 2 && count * 8 >= groups * 7; };
  if (mostly(zeros[2]) && mostly(zeros[3]))
    nuls.pattern = NulBytes::Utf32LE;
  else if (mostly(zeros[0]) && mostly(zeros[1]))
    nuls.pattern = NulBytes::Utf32BE;
  else if (nuls.odd && nuls.even * 8 <= nuls.odd)
    nuls.pattern = NulBytes::Utf16LE;
  else if (nuls.even && nuls.odd * 8 <= nuls.even)
    nuls.pattern = NulBytes::Utf16BE;
  else
    nuls.pattern = NulBytes::Unclear;
  return nuls;
}

} // namespace

bool Sniff(const unsigned char* bytes, std::size_t size, Layout& layout, DKString& error) {
  const auto startsWith = [&](const char* mark, std::size_t length) {
    return size >= length && std::memcmp(bytes, mark, length) == 0;
  };
  if (startsWith("\xFF\xFE\0\0", 4) || startsWith("\0\0\xFE\xFF", 4)) {
    error = DK_T("the text is UTF-32 (its byte-order mark says so); configuration files are UTF-8 or UTF-16");
    return false;
  }
  if (startsWith("\xFF\xFE", 2)) {
    layout.encoding = DKConfigFile::Utf16LE;
    layout.start = 2;
  } else if (startsWith("\xFE\xFF", 2)) {
    layout.encoding = DKConfigFile::Utf16BE;
    layout.start = 2;
  } else if (startsWith("\xEF\xBB\xBF", 3)) {
    layout.encoding = DKConfigFile::Utf8WithBom;
    layout.start = 3;
  }
  const unsigned char* text = bytes + layout.start;
  const std::size_t length = size - layout.start;
  if (!IsUtf16(layout.encoding)) {
    const NulBytes nuls = CountNuls(text, length);
    switch (nuls.pattern) {
    case NulBytes::None: break;
    case NulBytes::Utf16LE:
    case NulBytes::Utf16BE:
      if (layout.start) {
        error = DK_T("the text holds NUL bytes after a UTF-8 byte-order mark");
        return false;
      }
      layout.encoding = nuls.pattern == NulBytes::Utf16LE ? DKConfigFile::Utf16LEWithoutBom : DKConfigFile::Utf16BEWithoutBom;
      break;
    case NulBytes::Utf32LE:
    case NulBytes::Utf32BE:
      error.Format(DK_T("the text looks like UTF-32 %s without a byte-order mark; configuration files are UTF-8 or UTF-16"),
                   nuls.pattern == NulBytes::Utf32LE ? DK_T("LE") : DK_T("BE"));
      return false;
    case NulBytes::Unclear:
      error.Format(DK_T("the text holds NUL bytes (%llu at even offsets, %llu at odd ones): it is not UTF-8, nor plainly ")
                       DK_T("UTF-16 LE or BE without a byte-order mark"),
                   static_cast<unsigned long long>(nuls.even), static_cast<unsigned long long>(nuls.odd));
      return false;
    }
  }

  if (IsUtf16(layout.encoding)) {
    if (length % 2) {
      if (layout.start)
        error = DK_T("the UTF-16 text ends in half a character");
      else
        error.Format(DK_T("the text looks like UTF-16 %s without a byte-order mark, but ends in half a character"),
                     IsLittleEndian(layout.encoding) ? DK_T("LE") : DK_T("BE"));
      return false;
    }
    const std::size_t low = IsLittleEndian(layout.encoding) ? 0 : 1;
    for (std::size_t i = 0; i < length; i += 2)
      if (text[i + low] == '\n' && text[i + 1 - low] == 0) {
        layout.crlf = i >= 2 && text[i - 2 + low] == '\r' && text[i - 1 - low] == 0;
        break;
      }
    return true;
  }
  if (length > DKString::maxLength) {
    error = DK_T("the file is too large");
    return false;
  }
  const std::size_t bad = dkutf::FindInvalidUtf8(reinterpret_cast<const char*>(text), length);
  if (bad != DKString::npos) {
    error.Format(DK_T("the text is not valid UTF-8 (byte %llu)"), static_cast<unsigned long long>(layout.start + bad));
    return false;
  }
  const void* lf = std::memchr(text, '\n', length);
  layout.crlf = lf && lf != text && static_cast<const unsigned char*>(lf)[-1] == '\r';
  return true;
}

} // namespace dkconfig
