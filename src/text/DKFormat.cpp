// The printf-style formatting engine: one template over the format's character kind (DKChar
// formats write a DKString, char formats a std::string). The engine parses each conversion,
// asks a DKFormatArgSource for exactly the argument the conversion names, and writes text
// and integers itself (converting between UTF-8 and UTF-16 where the argument and the output
// differ in kind); floating-point values go through std::to_chars or snprintf.
#include <DorvikCore/DKFormat.h>

#include "text/DKUtf.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cmath>
#include <clocale>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>
#include <type_traits>

DKFormatArgSource::~DKFormatArgSource() = default;

namespace {

// Arguments read from a va_list. Characters arrive promoted to int; "%t" arguments
// (ptrdiff_t) are read as the unsigned type of the same width.
class VaArgSource final : public DKFormatArgSource {
public:
  explicit VaArgSource(va_list args) { va_copy(m_args, args); }
  ~VaArgSource() override { va_end(m_args); }
  VaArgSource(const VaArgSource&) = delete;
  VaArgSource& operator=(const VaArgSource&) = delete;

  int NextInt() override { return va_arg(m_args, int); }
  unsigned int NextUnsigned() override { return va_arg(m_args, unsigned int); }
  long NextLong() override { return va_arg(m_args, long); }
  unsigned long NextUnsignedLong() override { return va_arg(m_args, unsigned long); }
  long long NextLongLong() override { return va_arg(m_args, long long); }
  unsigned long long NextUnsignedLongLong() override { return va_arg(m_args, unsigned long long); }
  std::size_t NextSize() override { return va_arg(m_args, std::size_t); }
  double NextDouble() override { return va_arg(m_args, double); }
  long double NextLongDouble() override { return va_arg(m_args, long double); }
  const void* NextPointer() override { return va_arg(m_args, const void*); }
  const char* NextNarrowString() override { return va_arg(m_args, const char*); }
  const DKChar* NextWideString() override { return va_arg(m_args, const DKChar*); }
  void* NextCountPointer() override { return va_arg(m_args, void*); }

private:
  va_list m_args;
};

// "j" arguments (intmax_t) are read as long long, "t" arguments (ptrdiff_t) as size_t.
static_assert(sizeof(std::intmax_t) == sizeof(long long) && sizeof(std::ptrdiff_t) == sizeof(std::size_t));

// ---------------------------------------------------------------------------------------------
// Output: the two string types behind one set of operations.

template <class CharT>
struct OutputTraits;

template <>
struct OutputTraits<DKChar> {
  using String = DKString;
  static void Append(DKString& s, const DKChar* text, std::size_t n) {
    if (n) // DKString::Append reads a count of 0 as "up to the terminator"
      s.Append(text, n);
  }
  static std::size_t Length(const DKString& s) noexcept { return s.Length(); }
  static const void* Begin(const DKString& s) noexcept { return s.c_str(); }
  static const void* End(const DKString& s) noexcept { return s.c_str() + s.Capacity() + 1; }
};

template <>
struct OutputTraits<char> {
  using String = std::string;
  static void Append(std::string& s, const char* text, std::size_t n) { s.append(text, n); }
  static std::size_t Length(const std::string& s) noexcept { return s.size(); }
  static const void* Begin(const std::string& s) noexcept { return s.data(); }
  static const void* End(const std::string& s) noexcept { return s.data() + s.capacity() + 1; }
};

template <class CharT>
using OutString = typename OutputTraits<CharT>::String;

// True when p lies inside the buffer of s, which appending may move.
template <class CharT>
bool PointsInto(const void* p, const OutString<CharT>& s) noexcept {
  const auto at = reinterpret_cast<std::uintptr_t>(p);
  return at >= reinterpret_cast<std::uintptr_t>(OutputTraits<CharT>::Begin(s)) &&
         at < reinterpret_cast<std::uintptr_t>(OutputTraits<CharT>::End(s));
}

bool IsAscii(const char* text, std::size_t n) noexcept {
  for (std::size_t i = 0; i < n; ++i)
    if (static_cast<unsigned char>(text[i]) >= 0x80)
      return false;
  return true;
}

bool IsAscii(const DKChar* text, std::size_t n) noexcept {
  for (std::size_t i = 0; i < n; ++i)
    if (text[i] >= 0x80)
      return false;
  return true;
}

// Collects output in a stack buffer and hands it to the string in large pieces, so a short
// result costs one allocation of the right size.
template <class CharT>
class Sink {
public:
  using Traits = OutputTraits<CharT>;
  using String = OutString<CharT>;

  explicit Sink(String& out) : m_out(out) {}
  Sink(const Sink&) = delete;
  Sink& operator=(const Sink&) = delete;

  const String& Out() const noexcept { return m_out; }

  void Flush() {
    Traits::Append(m_out, m_buffer, m_used);
    m_used = 0;
  }

  void Put(CharT ch) {
    if (m_used == kSize)
      Flush();
    m_buffer[m_used++] = ch;
  }

  // Text of the output's own kind. The text must not lie inside the output string.
  void Write(const CharT* text, std::size_t n) {
    if (n > kSize - m_used) {
      Flush();
      if (n >= kSize) {
        Traits::Append(m_out, text, n);
        return;
      }
    }
    std::copy_n(text, n, m_buffer + m_used);
    m_used += n;
  }

  // Copies a format's literal text up to its terminator or next '%' and returns where it
  // stopped. The text must not lie inside the output string. The scan only reads and the copy
  // is one block move: a loop that stores each unit as it reads it runs slower.
  const CharT* CopyLiteral(const CharT* p) {
    const CharT* run = p;
    while (*p && *p != '%')
      ++p;
    Write(run, static_cast<std::size_t>(p - run));
    return p;
  }

  // Room for n more units in the buffer (flushing it first when needed), to be filled by the
  // caller and then committed; null when n is more than the buffer ever holds.
  CharT* Room(std::size_t n) {
    if (n > kSize - m_used) {
      if (n > kSize)
        return nullptr;
      Flush();
    }
    return m_buffer + m_used;
  }
  void Commit(std::size_t n) noexcept { m_used += n; }

  // ASCII text (digits, signs, prefixes): one output unit per byte in either kind of output.
  void WriteAscii(const char* text, std::size_t n) {
    if constexpr (std::is_same_v<CharT, char>) {
      Write(text, n);
    } else if (CharT* out = Room(n)) {
      std::copy_n(text, n, out);
      Commit(n);
    } else {
      WriteUtf8(text, n);
    }
  }

  void Fill(CharT ch, std::size_t n) {
    while (n) {
      if (m_used == kSize)
        Flush();
      const std::size_t k = std::min(n, kSize - m_used);
      std::fill_n(m_buffer + m_used, k, ch);
      m_used += k;
      n -= k;
    }
  }

  // UTF-8 text: copied into narrow output, decoded (invalid bytes become U+FFFD) into wide.
  void WriteUtf8(const char* text, std::size_t n) {
    if constexpr (std::is_same_v<CharT, char>)
      Write(text, n);
    else
      WriteAsciiThen(text, n, [this](const char* rest, std::size_t k) { dkutf::Utf8ToUtf16(rest, k, m_out, true); });
  }

  // UTF-16 text: copied into wide output, encoded as UTF-8 (unpaired surrogates become
  // U+FFFD) into narrow.
  void WriteUtf16(const DKChar* text, std::size_t n) {
    if constexpr (std::is_same_v<CharT, DKChar>)
      Write(text, n);
    else
      WriteAsciiThen(text, n, [this](const DKChar* rest, std::size_t k) { dkutf::Utf16ToUtf8(rest, k, m_out); });
  }

private:
  static constexpr std::size_t kSize = 256;

  // Copies text unit by unit while it is ASCII, the same in both encodings; hands the rest
  // to convert, which appends to the string.
  template <class TextT, class Convert>
  void WriteAsciiThen(const TextT* text, std::size_t n, Convert convert) {
    std::size_t i = 0;
    while (i < n) {
      if (m_used == kSize)
        Flush();
      const std::size_t end = std::min(n, i + (kSize - m_used));
      for (; i < end; ++i) {
        const auto unit = static_cast<std::make_unsigned_t<TextT>>(text[i]);
        if (unit >= 0x80) {
          Flush();
          convert(text + i, n - i);
          return;
        }
        m_buffer[m_used++] = static_cast<CharT>(unit);
      }
    }
  }

  String& m_out;
  std::size_t m_used = 0;
  CharT m_buffer[kSize];
};

// ---------------------------------------------------------------------------------------------
// Conversion directives.

enum class Size { None, Char, Short, Long, LongLong, LongDouble, Int32, Int64, PtrSize, IntMax, PtrDiff, Wide };

struct Directive {
  bool left = false;
  bool plus = false;
  bool space = false;
  bool zero = false;
  bool alternate = false;
  bool widthFromArg = false;
  bool precisionFromArg = false;
  bool hasPrecision = false;
  bool tooLarge = false; // a width or precision written as digits went over the limit
  long long width = 0;
  long long precision = 0;
  Size size = Size::None;
  unsigned conversion = 0; // 0: the format ended inside the directive
};

template <class CharT>
bool IsDigit(CharT c) noexcept {
  return c >= '0' && c <= '9';
}

template <class CharT>
bool IsOneOf(CharT c, const char* set) noexcept {
  for (; *set; ++set)
    if (static_cast<unsigned>(c) == static_cast<unsigned char>(*set))
      return true;
  return false;
}

// Reads a run of digits; values above the limit are clamped and flagged.
template <class CharT>
const CharT* ParseNumber(const CharT* p, long long& value, bool& tooLarge) noexcept {
  value = 0;
  for (; IsDigit(*p); ++p) {
    value = value * 10 + (*p - '0');
    if (value > DKFormatMaxWidth) {
      value = DKFormatMaxWidth + 1LL;
      tooLarge = true;
    }
  }
  return p;
}

// Parses what follows a '%'; returns the position after the conversion letter (or at the
// terminator when the format ends first). Consumes no argument.
template <class CharT>
const CharT* ParseDirective(const CharT* p, Directive& dir) noexcept {
  for (;; ++p) {
    switch (*p) {
    case '-': dir.left = true; continue;
    case '+': dir.plus = true; continue;
    case ' ': dir.space = true; continue;
    case '0': dir.zero = true; continue;
    case '#': dir.alternate = true; continue;
    default: break;
    }
    break;
  }
  if (*p == '*') {
    dir.widthFromArg = true;
    ++p;
  } else {
    p = ParseNumber(p, dir.width, dir.tooLarge);
  }
  if (*p == '.') {
    dir.hasPrecision = true;
    if (*++p == '*') {
      dir.precisionFromArg = true;
      ++p;
    } else {
      p = ParseNumber(p, dir.precision, dir.tooLarge);
    }
  }
  // Old far/near pointer markers. "F" alone is the %F conversion.
  if (*p == 'N' || (*p == 'F' && IsOneOf(p[1], "sSpncChlw")))
    ++p;
  switch (*p) {
  case 'h':
    dir.size = p[1] == 'h' ? Size::Char : Size::Short;
    p += dir.size == Size::Char ? 2 : 1;
    break;
  case 'l':
    dir.size = p[1] == 'l' ? Size::LongLong : Size::Long;
    p += dir.size == Size::LongLong ? 2 : 1;
    break;
  case 'L': dir.size = Size::LongDouble; ++p; break;
  case 'w': dir.size = Size::Wide; ++p; break;
  case 'z': dir.size = Size::PtrSize; ++p; break;
  case 't': dir.size = Size::PtrDiff; ++p; break;
  case 'j': dir.size = Size::IntMax; ++p; break;
  case 'I':
    if (p[1] == '6' && p[2] == '4') {
      dir.size = Size::Int64;
      p += 3;
    } else if (p[1] == '3' && p[2] == '2') {
      dir.size = Size::Int32;
      p += 3;
    } else {
      dir.size = Size::PtrSize;
      ++p;
    }
    break;
  default: break;
  }
  dir.conversion = static_cast<unsigned>(*p);
  if (*p)
    ++p;
  return p;
}

bool IsConversion(unsigned c) noexcept {
  switch (c) {
  case 'd': case 'i': case 'o': case 'u': case 'x': case 'X':
  case 'e': case 'E': case 'f': case 'F': case 'g': case 'G': case 'a': case 'A':
  case 'c': case 'C': case 's': case 'S': case 'p': case 'n': case '%':
    return true;
  default:
    return false;
  }
}

// ---------------------------------------------------------------------------------------------
// Floating-point numbers through snprintf.

// Writes the snprintf conversion for `dir` (with the length modifier `modifier` and the
// conversion letter `conversion`) into out. Returns false if the C library refused.
template <class CharT, class T>
bool FormatNumber(Sink<CharT>& sink, const Directive& dir, const char* modifier, char conversion, T value) {
  // A NaN's sign is written on every system (some C runtimes drop it): the positive NaN is
  // formatted with a forced sign, which is then turned.
  const bool negativeNan = std::isnan(value) && std::signbit(value);
  if (negativeNan)
    value = -value;
  char format[48];
  char* f = format;
  *f++ = '%';
  if (dir.left) *f++ = '-';
  if (dir.plus || negativeNan) *f++ = '+';
  if (dir.space && !negativeNan) *f++ = ' ';
  if (dir.zero) *f++ = '0';
  if (dir.alternate) *f++ = '#';
  char* const formatEnd = format + sizeof format;
  if (dir.width > 0)
    f = std::to_chars(f, formatEnd, dir.width).ptr;
  if (dir.hasPrecision) {
    *f++ = '.';
    f = std::to_chars(f, formatEnd, dir.precision).ptr;
  }
  while (*modifier)
    *f++ = *modifier++;
  *f++ = conversion;
  *f = 0;

  // Width and precision are bounded, so this is room for most values; the rest (huge %f
  // values, long doubles) take the exact size snprintf reports.
  char stackBuffer[512];
  std::size_t size = static_cast<std::size_t>(dir.width + dir.precision) + 64;
  std::unique_ptr<char[]> heapBuffer;
  char* buffer = stackBuffer;
  if (size > sizeof stackBuffer) {
    heapBuffer.reset(new char[size]);
    buffer = heapBuffer.get();
  } else {
    size = sizeof stackBuffer;
  }
  int n = std::snprintf(buffer, size, format, value);
  if (n >= 0 && static_cast<std::size_t>(n) >= size) {
    size = static_cast<std::size_t>(n) + 1;
    heapBuffer.reset(new char[size]);
    buffer = heapBuffer.get();
    n = std::snprintf(buffer, size, format, value);
  }
  if (n < 0)
    return false;
  if (negativeNan) {
    if (void* sign = std::memchr(buffer, '+', static_cast<std::size_t>(n)))
      *static_cast<char*>(sign) = '-';
  }
  sink.WriteUtf8(buffer, static_cast<std::size_t>(n));
  return true;
}

// ---------------------------------------------------------------------------------------------
// Text.

// Length of text, reading no more than `limit` units.
std::size_t BoundedLength(const char* text, std::size_t limit) noexcept {
  const void* end = std::memchr(text, 0, limit);
  return end ? static_cast<std::size_t>(static_cast<const char*>(end) - text) : limit;
}

std::size_t BoundedLength(const DKChar* text, std::size_t limit) noexcept {
  std::size_t n = 0;
  while (n < limit && text[n])
    ++n;
  return n;
}

// Shortens a UTF-8 text that a precision cut so that it does not end inside a sequence.
std::size_t WholeCharacters(const char* text, std::size_t n) noexcept {
  for (std::size_t back = 1; back <= 4 && back <= n; ++back) {
    const auto byte = static_cast<unsigned char>(text[n - back]);
    if ((byte & 0xC0) == 0x80)
      continue; // continuation byte: keep looking for the lead
    const std::size_t need = byte >= 0xF0 ? 4 : byte >= 0xE0 ? 3 : byte >= 0xC0 ? 2 : 1;
    return need > back ? n - back : n;
  }
  return n;
}

// The same for UTF-16: a high surrogate at the cut loses its partner.
std::size_t WholeCharacters(const DKChar* text, std::size_t n) noexcept {
  return n && text[n - 1] >= 0xD800 && text[n - 1] <= 0xDBFF ? n - 1 : n;
}

template <class CharT>
void WriteConverted(Sink<CharT>& sink, const char* text, std::size_t n) {
  sink.WriteUtf8(text, n);
}

template <class CharT>
void WriteConverted(Sink<CharT>& sink, const DKChar* text, std::size_t n) {
  sink.WriteUtf16(text, n);
}

// Writes n units of text (either kind) padded to the width.
template <class CharT, class TextT>
void WriteText(Sink<CharT>& sink, const Directive& dir, const TextT* text, std::size_t n) {
  const auto width = static_cast<std::size_t>(dir.width);
  if constexpr (std::is_same_v<CharT, TextT>) {
    if (PointsInto<CharT>(text, sink.Out())) {
      // The argument lives in the output, which may move while it is copied.
      const std::basic_string<CharT> copy(text, n);
      WriteText(sink, dir, copy.c_str(), n);
      return;
    }
    const std::size_t pad = width > n ? width - n : 0;
    if (!dir.left)
      sink.Fill(' ', pad);
    sink.Write(text, n);
    if (dir.left)
      sink.Fill(' ', pad);
  } else {
    if (width == 0 || IsAscii(text, n)) {
      // One output unit per input unit.
      const std::size_t pad = width > n ? width - n : 0;
      if (!dir.left)
        sink.Fill(' ', pad);
      WriteConverted(sink, text, n);
      if (dir.left)
        sink.Fill(' ', pad);
      return;
    }
    // The converted length decides the padding: convert first.
    OutString<CharT> converted;
    if constexpr (std::is_same_v<CharT, DKChar>)
      dkutf::Utf8ToUtf16(text, n, converted, true);
    else
      dkutf::Utf16ToUtf8(text, n, converted);
    WriteText(sink, dir, converted.c_str(), OutputTraits<CharT>::Length(converted));
  }
}

// Writes a text of `length` units, or up to its terminator when length is `terminated`.
template <class CharT, class TextT>
void FormatString(Sink<CharT>& sink, const Directive& dir, const TextT* text, std::size_t length) {
  if (!text) {
    static constexpr char null[] = "(null)";
    const std::size_t n = dir.hasPrecision ? std::min<std::size_t>(6, dir.precision) : 6;
    WriteText(sink, dir, null, n);
    return;
  }
  std::size_t n;
  if (dir.hasPrecision) {
    const auto precision = static_cast<std::size_t>(dir.precision);
    n = length == DKFormatArg::terminated ? BoundedLength(text, precision) : std::min(length, precision);
    if constexpr (!std::is_same_v<CharT, TextT>) {
      if (n == precision)
        n = WholeCharacters(text, n);
    }
  } else if (length != DKFormatArg::terminated) {
    n = length;
  } else {
    n = std::char_traits<TextT>::length(text);
  }
  WriteText(sink, dir, text, n);
}

// Which kind of text a s/S/c/C conversion takes: the format's own kind for the lower-case
// letter, the other kind for the upper-case one, unless the size names the kind.
template <class CharT>
bool TakesWide(const Directive& dir) noexcept {
  if (dir.size == Size::Short)
    return false;
  if (dir.size == Size::Long || dir.size == Size::Wide)
    return true;
  const bool ownKind = dir.conversion == 's' || dir.conversion == 'c';
  return ownKind == std::is_same_v<CharT, DKChar>;
}

// ---------------------------------------------------------------------------------------------
// Numbers written here. Integers follow the C rules for flags, width and precision, which
// are few and exact; the tests hold them to snprintf's output. Floating-point values go
// through std::to_chars, defined as printf in the "C" locale, when the C library would use
// that locale's decimal point and round to nearest, and the "#" form is not asked for;
// otherwise through snprintf.

void ToUpper(char* begin, char* end) noexcept {
  for (char* c = begin; c != end; ++c)
    if (*c >= 'a' && *c <= 'z')
      *c = static_cast<char>(*c - 'a' + 'A');
}

// Lays a number out as printf does: blanks, sign, prefix, zeros, digits (the blanks last
// when left-justified). With zeroFill, zeros rather than blanks make up the width. All of it
// is ASCII, written straight into the sink's buffer when it fits there.
template <class CharT>
void WriteNumber(Sink<CharT>& sink, const Directive& dir, char sign, std::string_view prefix, std::size_t zeros,
                 const char* digits, std::size_t n, bool zeroFill) {
  std::size_t length = (sign ? 1 : 0) + prefix.size() + zeros + n;
  const auto width = static_cast<std::size_t>(dir.width);
  if (zeroFill && width > length) {
    zeros += width - length;
    length = width;
  }
  const std::size_t pad = width > length ? width - length : 0;
  if (CharT* const start = sink.Room(length + pad)) {
    CharT* out = start;
    if (pad && !dir.left)
      out = std::fill_n(out, pad, CharT(' '));
    if (sign)
      *out++ = static_cast<CharT>(sign);
    for (const char c : prefix)
      *out++ = static_cast<CharT>(c);
    if (zeros)
      out = std::fill_n(out, zeros, CharT('0'));
    for (std::size_t i = 0; i < n; ++i)
      *out++ = static_cast<CharT>(digits[i]);
    if (pad && dir.left)
      out = std::fill_n(out, pad, CharT(' '));
    sink.Commit(static_cast<std::size_t>(out - start));
    return;
  }
  if (!dir.left)
    sink.Fill(' ', pad);
  if (sign)
    sink.Put(sign);
  sink.WriteAscii(prefix.data(), prefix.size());
  sink.Fill('0', zeros);
  sink.WriteAscii(digits, n);
  if (dir.left)
    sink.Fill(' ', pad);
}

// Writes the digits of value in the conversion's base so that they end at end; returns where
// they start. Decimal digits go two at a time.
char* IntegerDigits(char* end, unsigned long long value, char conversion) noexcept {
  char* p = end;
  switch (conversion) {
  case 'x':
  case 'X': {
    const char* const hex = conversion == 'x' ? "0123456789abcdef" : "0123456789ABCDEF";
    do {
      *--p = hex[value & 15];
      value >>= 4;
    } while (value);
    return p;
  }
  case 'o':
    do {
      *--p = static_cast<char>('0' + (value & 7));
      value >>= 3;
    } while (value);
    return p;
  default: {
    static constexpr char pairs[] = "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
                                    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
                                    "8081828384858687888990919293949596979899";
    while (value >= 100) {
      const auto pair = static_cast<std::size_t>(value % 100) * 2;
      value /= 100;
      p -= 2;
      p[0] = pairs[pair];
      p[1] = pairs[pair + 1];
    }
    if (value >= 10) {
      p -= 2;
      p[0] = pairs[value * 2];
      p[1] = pairs[value * 2 + 1];
    } else {
      *--p = static_cast<char>('0' + value);
    }
    return p;
  }
  }
}

template <class CharT, class T>
void FormatInteger(Sink<CharT>& sink, const Directive& dir, char conversion, T value) {
  auto magnitude = static_cast<unsigned long long>(value);
  char sign = 0;
  if constexpr (std::is_signed_v<T>) {
    if (value < 0) {
      magnitude = 0ULL - magnitude;
      sign = '-';
    } else {
      sign = dir.plus ? '+' : dir.space ? ' ' : 0;
    }
  }
  // Precision 0 writes no digit for the value 0.
  char buffer[24];
  char* const end = buffer + sizeof buffer;
  const char* digits = end;
  if (magnitude != 0 || !dir.hasPrecision || dir.precision != 0)
    digits = IntegerDigits(end, magnitude, conversion);
  const auto n = static_cast<std::size_t>(end - digits);
  const auto precision = static_cast<std::size_t>(dir.precision);
  std::size_t zeros = precision > n ? precision - n : 0;
  std::string_view prefix;
  if (dir.alternate) {
    if (conversion == 'o') {
      if (zeros == 0 && (n == 0 || digits[0] != '0'))
        zeros = 1; // the octal form starts with 0
    } else if ((conversion == 'x' || conversion == 'X') && magnitude != 0) {
      prefix = conversion == 'x' ? "0x" : "0X";
    }
  }
  WriteNumber(sink, dir, sign, prefix, zeros, digits, n, dir.zero && !dir.left && !dir.hasPrecision);
}

// The probes of RoundsToNearest: a quarter and three quarters of the unit in the last place
// of 1.0. Volatile, so that the additions happen at run time in the current rounding mode.
volatile const double quarterUlp = 0x1p-54;
volatile const double threeQuartersUlp = 0x1.8p-53;

// True when arithmetic rounds to nearest: adding a quarter unit to 1.0 is lost (not upward)
// and adding three quarters is not (neither downward nor toward zero). Cheaper than the
// library call fegetround, and it reads the mode that fesetround sets for the C library too.
bool RoundsToNearest() noexcept {
  const double quarter = quarterUlp;
  const double threeQuarters = threeQuartersUlp;
  return 1.0 + quarter == 1.0 && 1.0 + threeQuarters != 1.0;
}

bool CNumberConventions() noexcept {
  if (!RoundsToNearest())
    return false;
  const char* name = std::setlocale(LC_NUMERIC, nullptr);
  return name && ((name[0] == 'C' && (name[1] == 0 || name[1] == '.')) || std::strcmp(name, "POSIX") == 0);
}

template <class CharT>
bool FormatDouble(Sink<CharT>& sink, const Directive& dir, char conversion, double value) {
  const char lower = static_cast<char>(conversion | 0x20);
  if (!dir.alternate && lower != 'a' && dir.precision <= 64 && CNumberConventions()) {
    const auto format = lower == 'f'   ? std::chars_format::fixed
                        : lower == 'e' ? std::chars_format::scientific
                                       : std::chars_format::general;
    char buffer[128];
    const auto precision = dir.hasPrecision ? static_cast<int>(dir.precision) : 6;
    const auto [end, error] = std::to_chars(buffer, buffer + sizeof buffer, value, format, precision);
    if (error == std::errc()) {
      char* digits = buffer;
      char sign = dir.plus ? '+' : dir.space ? ' ' : 0;
      if (*digits == '-') {
        sign = '-';
        ++digits;
      }
      if (conversion != lower)
        ToUpper(digits, end);
      // Infinity and NaN are padded with blanks even with the "0" flag.
      WriteNumber(sink, dir, sign, {}, 0, digits, static_cast<std::size_t>(end - digits),
                  dir.zero && !dir.left && std::isfinite(value));
      return true;
    }
  }
  return FormatNumber(sink, dir, "", conversion, value);
}

// ---------------------------------------------------------------------------------------------
// The engine.

// One argument, read as the type its conversion names.
struct Argument {
  long long i = 0;
  unsigned long long u = 0;
  double d = 0;
  long double ld = 0;
  const void* pointer = nullptr;
  const char* narrow = nullptr;
  const DKChar* wide = nullptr;
  std::size_t length = DKFormatArg::terminated; // of the narrow or wide text
};

// Source is DKFormatArgSource, or the final VaArgSource, whose reads then compile to va_arg.
// Fills the caller's arg in place: an Argument returned and then assigned is built and copied
// once more, long double and all, on every directive.
template <class CharT, class Source>
void ReadArgument(const Directive& dir, Source& args, Argument& arg) {
  switch (dir.conversion) {
  case 'd':
  case 'i':
    switch (dir.size) {
    case Size::Char: arg.i = static_cast<signed char>(args.NextInt()); break;
    case Size::Short: arg.i = static_cast<short>(args.NextInt()); break;
    case Size::Long: arg.i = args.NextLong(); break;
    case Size::LongLong:
    case Size::LongDouble:
    case Size::Int64:
    case Size::IntMax: arg.i = args.NextLongLong(); break;
    case Size::PtrSize:
    case Size::PtrDiff: arg.i = static_cast<std::ptrdiff_t>(args.NextSize()); break;
    default: arg.i = args.NextInt(); break;
    }
    break;
  case 'o':
  case 'u':
  case 'x':
  case 'X':
    switch (dir.size) {
    case Size::Char: arg.u = static_cast<unsigned char>(args.NextUnsigned()); break;
    case Size::Short: arg.u = static_cast<unsigned short>(args.NextUnsigned()); break;
    case Size::Long: arg.u = args.NextUnsignedLong(); break;
    case Size::LongLong:
    case Size::LongDouble:
    case Size::Int64:
    case Size::IntMax: arg.u = args.NextUnsignedLongLong(); break;
    case Size::PtrSize:
    case Size::PtrDiff: arg.u = args.NextSize(); break;
    default: arg.u = args.NextUnsigned(); break;
    }
    break;
  case 'c':
  case 'C': arg.i = args.NextInt(); break;
  case 's':
  case 'S':
    if (TakesWide<CharT>(dir))
      arg.wide = args.NextWideString();
    else
      arg.narrow = args.NextNarrowString();
    break;
  case 'p': arg.pointer = args.NextPointer(); break;
  case 'n': (void)args.NextCountPointer(); break;
  default: // floating point
    if (dir.size == Size::LongDouble)
      arg.ld = args.NextLongDouble();
    else
      arg.d = args.NextDouble();
    break;
  }
}

// Writes one conversion; false if the C library refused a number (nothing was written then).
template <class CharT>
bool Emit(Sink<CharT>& sink, const Directive& dir, const Argument& arg) {
  const auto conversion = static_cast<char>(dir.conversion);
  switch (conversion) {
  case 'd':
  case 'i': FormatInteger(sink, dir, 'd', arg.i); return true;
  case 'o':
  case 'u':
  case 'x':
  case 'X': FormatInteger(sink, dir, conversion, arg.u); return true;
  case 'p': {
    Directive pointerSpec;
    pointerSpec.left = dir.left;
    pointerSpec.width = dir.width;
    pointerSpec.hasPrecision = true;
    pointerSpec.precision = 2 * sizeof(void*);
    const auto address = static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(arg.pointer));
    FormatInteger(sink, pointerSpec, 'X', address);
    return true;
  }
  case 'n': return true;
  case 'c':
  case 'C':
    if (TakesWide<CharT>(dir)) {
      const auto ch = static_cast<DKChar>(arg.i);
      WriteText(sink, dir, &ch, 1);
    } else {
      const auto ch = static_cast<char>(arg.i);
      WriteText(sink, dir, &ch, 1);
    }
    return true;
  case 's':
  case 'S':
    if (TakesWide<CharT>(dir))
      FormatString(sink, dir, arg.wide, arg.length);
    else
      FormatString(sink, dir, arg.narrow, arg.length);
    return true;
  default:
    if (dir.size == Size::LongDouble)
      return FormatNumber(sink, dir, "L", conversion, arg.ld);
    return FormatDouble(sink, dir, conversion, arg.d);
  }
}

// ---------------------------------------------------------------------------------------------
// Readers: where the engine takes its arguments from. A reader gives the value of a "*"
// (Star) and the argument of a conversion (Read); either returns false with the argument's
// type name when the argument cannot match, having consumed it.

// Arguments of the types their conversions name, from a va_list or a caller's source.
template <class Source>
class SourceReader {
public:
  explicit SourceReader(Source& source) noexcept : m_source(source) {}
  bool Star(long long& value, const char*&) {
    value = m_source.NextInt();
    return true;
  }
  template <class CharT>
  bool Read(Directive& dir, Argument& arg, const char*&) {
    ReadArgument<CharT>(dir, m_source, arg);
    return true;
  }
  template <class CharT>
  static int WriteDirect(Sink<CharT>&, const Directive&) noexcept {
    return -1;
  }

private:
  Source& m_source;
};

// Arguments captured with their types: each is checked against its conversion.
class TypedReader {
public:
  explicit TypedReader(DKFormatArgList list) noexcept : m_next(list.args), m_end(list.args + list.count) {}

  bool Star(long long& value, const char*& type) {
    const DKFormatArg& a = Next();
    if (!IsInteger(a)) {
      type = TypeName(a);
      return false;
    }
    value = IsSignedInteger(a) ? a.i : a.u > static_cast<unsigned long long>(LLONG_MAX) ? LLONG_MAX : static_cast<long long>(a.u);
    return true;
  }

  // Writes the common conversions (an int, an unsigned, a double, text) straight from the
  // captured argument: 1 when written, 0 when the C library refused a number, -1 when the
  // conversion takes the general route (nothing consumed then).
  template <class CharT>
  int WriteDirect(Sink<CharT>& sink, const Directive& dir) {
    if (m_next == m_end)
      return -1;
    const DKFormatArg& a = *m_next;
    const auto conversion = static_cast<char>(dir.conversion);
    switch (conversion) {
    case 'd':
    case 'i':
      if (a.kind != Kind::Int || dir.size != Size::None)
        return -1;
      ++m_next;
      FormatInteger(sink, dir, 'd', a.i);
      return 1;
    case 'o':
    case 'u':
    case 'x':
    case 'X':
      if (dir.size != Size::None)
        return -1;
      if (a.kind == Kind::Int) {
        ++m_next;
        FormatInteger(sink, dir, conversion, a.bytes == 4 ? static_cast<unsigned>(a.i) : static_cast<unsigned long long>(a.i));
        return 1;
      }
      if (a.kind == Kind::UInt) {
        ++m_next;
        FormatInteger(sink, dir, conversion, a.u);
        return 1;
      }
      return -1;
    case 's':
    case 'S':
      if (a.kind == Kind::NarrowText) {
        ++m_next;
        FormatString(sink, dir, static_cast<const char*>(a.s.text), a.s.length);
        return 1;
      }
      if (a.kind == Kind::WideText) {
        ++m_next;
        FormatString(sink, dir, static_cast<const DKChar*>(a.s.text), a.s.length);
        return 1;
      }
      return -1;
    case 'e': case 'E': case 'f': case 'F': case 'g': case 'G': case 'a': case 'A':
      if (a.kind != Kind::Double || dir.size == Size::LongDouble)
        return -1;
      ++m_next;
      return FormatDouble(sink, dir, conversion, a.d) ? 1 : 0;
    default: return -1;
    }
  }

  template <class CharT>
  bool Read(Directive& dir, Argument& arg, const char*& type) {
    const DKFormatArg& a = Next();
    if (ReadAs<CharT>(dir, arg, a))
      return true;
    type = TypeName(a);
    return false;
  }

private:
  using Kind = DKFormatArg::Kind;

  // The argument as the directive's conversion reads it; false when it cannot match.
  template <class CharT>
  bool ReadAs(Directive& dir, Argument& arg, const DKFormatArg& a) {
    switch (dir.conversion) {
    case 'd':
    case 'i':
      if (!IsInteger(a))
        return false;
      if (dir.size != Size::None)
        arg.i = Cast<long long>(a, dir.size, true);
      else if (IsSignedInteger(a) || a.u <= static_cast<unsigned long long>(LLONG_MAX))
        arg.i = IsSignedInteger(a) ? a.i : static_cast<long long>(a.u);
      else {
        arg.u = a.u; // an unsigned value beyond the signed range keeps its value
        dir.conversion = 'u';
      }
      return true;
    case 'o':
    case 'u':
    case 'x':
    case 'X':
      if (!IsInteger(a))
        return false;
      if (dir.size != Size::None)
        arg.u = Cast<unsigned long long>(a, dir.size, false);
      else if (IsSignedInteger(a))
        arg.u = a.bytes == 4 ? static_cast<unsigned>(a.i) : static_cast<unsigned long long>(a.i);
      else
        arg.u = a.u;
      return true;
    case 'c':
    case 'C': return ReadCharacter<CharT>(dir, arg, a);
    case 's':
    case 'S': return ReadText(dir, arg, a);
    case 'p':
    case 'n':
      if (a.kind == Kind::Pointer)
        arg.pointer = a.p;
      else if (IsText(a))
        arg.pointer = a.s.text;
      else
        return a.kind == Kind::Null;
      return true;
    default: { // floating point: any arithmetic argument
      if (a.kind == Kind::LongDouble) {
        arg.ld = *a.ld;
        dir.size = Size::LongDouble;
        return true;
      }
      long double value;
      if (a.kind == Kind::Double)
        value = a.d;
      else if (IsInteger(a))
        value = IsSignedInteger(a) ? static_cast<long double>(a.i) : static_cast<long double>(a.u);
      else
        return false;
      if (dir.size == Size::LongDouble)
        arg.ld = value;
      else
        arg.d = a.kind == Kind::Double ? a.d : static_cast<double>(value);
      return true;
    }
    }
  }

  const DKFormatArg& Next() noexcept {
    static constexpr DKFormatArg missing;
    return m_next == m_end ? missing : *m_next++;
  }

  static bool IsInteger(const DKFormatArg& a) noexcept {
    switch (a.kind) {
    case Kind::Int: case Kind::UInt: case Kind::Bool: case Kind::Char: case Kind::Char16: case Kind::Char32: return true;
    default: return false;
    }
  }
  static bool IsSignedInteger(const DKFormatArg& a) noexcept { return a.kind == Kind::Int || a.kind == Kind::Char; }
  static bool IsText(const DKFormatArg& a) noexcept {
    return a.kind == Kind::NarrowText || a.kind == Kind::WideText || a.kind == Kind::Utf32Text;
  }

  static const char* TypeName(const DKFormatArg& a) noexcept {
    switch (a.kind) {
    case Kind::Missing: return "missing";
    case Kind::Int: return a.bytes == 4 ? "int" : "int64";
    case Kind::UInt: return a.bytes == 4 ? "unsigned int" : "uint64";
    case Kind::Bool: return "bool";
    case Kind::Char: return "char";
    case Kind::Char16: return "DKChar";
    case Kind::Char32: return "char32_t";
    case Kind::Double: return "double";
    case Kind::LongDouble: return "long double";
    case Kind::Pointer: return "pointer";
    case Kind::Null: return "nullptr";
    default: return "text";
    }
  }

  // The integer converted to the type that a size prefix names, as a cast would.
  template <class T>
  static T Cast(const DKFormatArg& a, Size size, bool isSigned) noexcept {
    const unsigned long long bits = IsSignedInteger(a) ? static_cast<unsigned long long>(a.i) : a.u;
    auto as = [&](auto signedValue, auto unsignedValue) -> T {
      return isSigned ? static_cast<T>(static_cast<decltype(signedValue)>(bits))
                      : static_cast<T>(static_cast<decltype(unsignedValue)>(bits));
    };
    switch (size) {
    case Size::Char: return as(static_cast<signed char>(0), static_cast<unsigned char>(0));
    case Size::Short: return as(short(0), static_cast<unsigned short>(0));
    case Size::Long: return as(0L, 0UL);
    case Size::Int32: return as(std::int32_t(0), std::uint32_t(0));
    case Size::PtrSize:
    case Size::PtrDiff: return as(std::ptrdiff_t(0), std::size_t(0));
    default: return as(0LL, 0ULL); // ll, L, I64, j; "w" means nothing for integers
    }
  }

  template <class CharT>
  bool ReadCharacter(Directive& dir, Argument& arg, const DKFormatArg& a) {
    if (!IsInteger(a))
      return false;
    if (a.kind == Kind::Char16 || a.kind == Kind::Char32) {
      // A character of known encoding is written as text of its own kind.
      const char32_t cp = a.u > 0x10FFFF ? dkutf::replacementChar : static_cast<char32_t>(a.u);
      std::size_t n = 0;
      if (cp < 0x10000) {
        m_units[n++] = static_cast<DKChar>(cp);
      } else {
        m_units[n++] = static_cast<DKChar>(0xD800 + ((cp - 0x10000) >> 10));
        m_units[n++] = static_cast<DKChar>(0xDC00 + ((cp - 0x10000) & 0x3FF));
      }
      SetText(dir, arg, m_units, n);
      return true;
    }
    if (a.kind == Kind::Char) {
      m_byte = static_cast<char>(a.i);
      SetText(dir, arg, &m_byte, 1);
      return true;
    }
    arg.i = IsSignedInteger(a) ? a.i : static_cast<long long>(a.u);
    return true;
  }

  bool ReadText(Directive& dir, Argument& arg, const DKFormatArg& a) {
    switch (a.kind) {
    case Kind::Null: SetText(dir, arg, static_cast<const char*>(nullptr), DKFormatArg::terminated); return true;
    case Kind::NarrowText: SetText(dir, arg, static_cast<const char*>(a.s.text), a.s.length); return true;
    case Kind::WideText: SetText(dir, arg, static_cast<const DKChar*>(a.s.text), a.s.length); return true;
    case Kind::Utf32Text: {
      const auto* text = static_cast<const char32_t*>(a.s.text);
      if (!text) {
        SetText(dir, arg, static_cast<const DKChar*>(nullptr), DKFormatArg::terminated);
        return true;
      }
      const std::size_t n = a.s.length == DKFormatArg::terminated ? std::char_traits<char32_t>::length(text) : a.s.length;
      m_scratch.Clear();
      dkutf::Utf32ToUtf16(text, n, m_scratch);
      SetText(dir, arg, m_scratch.c_str(), m_scratch.Length());
      return true;
    }
    default: return false;
    }
  }

  // Makes the directive a text conversion of the argument's own kind.
  static void SetText(Directive& dir, Argument& arg, const char* text, std::size_t length) noexcept {
    dir.conversion = 's';
    dir.size = Size::Short;
    arg.narrow = text;
    arg.length = length;
  }
  static void SetText(Directive& dir, Argument& arg, const DKChar* text, std::size_t length) noexcept {
    dir.conversion = 's';
    dir.size = Size::Wide;
    arg.wide = text;
    arg.length = length;
  }

  const DKFormatArg* m_next;
  const DKFormatArg* m_end;
  DKString m_scratch; // 32-bit text converted for the conversion being written
  DKChar m_units[2] = {};
  char m_byte = 0;
};

// Writes "%!" + conversion + "(" + type + ")" for an argument that cannot match.
template <class CharT>
void WriteMismatch(Sink<CharT>& sink, char conversion, const char* type) {
  sink.WriteUtf8("%!", 2);
  sink.Put(static_cast<CharT>(conversion));
  sink.Put('(');
  sink.WriteUtf8(type, std::strlen(type));
  sink.Put(')');
}

// Performs one conversion of a known letter; false means it is to be written as it stands.
template <class CharT, class ReaderT>
bool Convert(Sink<CharT>& sink, Directive& dir, ReaderT& args) {
  if (dir.conversion == '%') {
    sink.Put('%');
    return true;
  }
  if (dir.tooLarge)
    return false;
  if (!dir.widthFromArg && !dir.precisionFromArg) {
    if (const int written = args.WriteDirect(sink, dir); written >= 0)
      return written != 0;
  }
  const char* badType = nullptr;
  // A "*" argument that is not an integer: the directive's other arguments are consumed all
  // the same, so that the arguments after it keep their places.
  auto refuseStar = [&](bool precisionLeft) {
    const char* unused = nullptr;
    long long ignoredStar = 0;
    if (precisionLeft)
      (void)args.Star(ignoredStar, unused);
    Argument ignored;
    Directive copy = dir;
    (void)args.template Read<CharT>(copy, ignored, unused);
    WriteMismatch(sink, '*', badType);
    return true;
  };
  if (dir.widthFromArg) {
    long long width = 0;
    if (!args.Star(width, badType))
      return refuseStar(dir.precisionFromArg);
    if (width < 0) {
      dir.left = true;
      width = width < -DKFormatMaxWidth ? DKFormatMaxWidth + 1LL : -width;
    }
    dir.width = width;
  }
  if (dir.precisionFromArg) {
    long long precision = 0;
    if (!args.Star(precision, badType))
      return refuseStar(false);
    dir.hasPrecision = precision >= 0;
    dir.precision = dir.hasPrecision ? precision : 0;
  }
  // The conversion's own argument is consumed even when a "*" value is refused, so that the
  // arguments after it keep their places.
  const auto conversion = static_cast<char>(dir.conversion);
  Argument arg;
  if (!args.template Read<CharT>(dir, arg, badType)) {
    WriteMismatch(sink, conversion, badType);
    return true;
  }
  if (dir.width > DKFormatMaxWidth || dir.precision > DKFormatMaxWidth)
    return false;
  return Emit(sink, dir, arg);
}

template <class CharT, class ReaderT>
void Run(Sink<CharT>& sink, const CharT* format, ReaderT& args) {
  const CharT* p = format;
  for (;;) {
    p = sink.CopyLiteral(p);
    if (!*p)
      return;
    const CharT* start = p;
    Directive dir;
    if (const auto letter = static_cast<unsigned>(static_cast<std::make_unsigned_t<CharT>>(p[1]));
        letter != 'F' && IsConversion(letter)) {
      // A bare conversion ("%d", "%s"): no flags, width, precision or size to parse. "F" may
      // be the old far-pointer marker, so it takes the full parse.
      dir.conversion = letter;
      p += 2;
    } else {
      p = ParseDirective(p + 1, dir);
    }
    if (!IsConversion(dir.conversion)) {
      // Unknown letter, or the format ended inside the directive: write it as it stands.
      sink.Write(start, static_cast<std::size_t>(p - start));
      continue;
    }
    if (!Convert(sink, dir, args))
      sink.Write(start, static_cast<std::size_t>(p - start));
  }
}

template <class CharT, class ReaderT>
void Append(OutString<CharT>& out, const CharT* format, ReaderT& args) {
  if (!format)
    return;
  if (PointsInto<CharT>(format, out)) {
    // The format lives in the output, which moves as it grows: build apart, then append.
    OutString<CharT> result;
    Append(result, format, args);
    OutputTraits<CharT>::Append(out, result.c_str(), OutputTraits<CharT>::Length(result));
    return;
  }
  Sink<CharT> sink(out);
  Run(sink, format, args);
  sink.Flush();
}

} // namespace

void DKFormatAppend(DKString& out, const DKChar* format, DKFormatArgList args) {
  TypedReader reader(args);
  Append<DKChar>(out, format, reader);
}

void DKFormatAppend(std::string& out, const char* format, DKFormatArgList args) {
  TypedReader reader(args);
  Append<char>(out, format, reader);
}

void DKFormatAppend(DKString& out, const DKChar* format, DKFormatArgSource& args) {
  SourceReader reader(args);
  Append<DKChar>(out, format, reader);
}

void DKFormatAppend(std::string& out, const char* format, DKFormatArgSource& args) {
  SourceReader reader(args);
  Append<char>(out, format, reader);
}

void DKFormatAppendV(DKString& out, const DKChar* format, va_list args) {
  VaArgSource source(args);
  SourceReader reader(source);
  Append<DKChar>(out, format, reader);
}

void DKFormatAppendV(std::string& out, const char* format, va_list args) {
  VaArgSource source(args);
  SourceReader reader(source);
  Append<char>(out, format, reader);
}

DKString DKFormatStringV(const DKChar* format, va_list args) {
  DKString result;
  DKFormatAppendV(result, format, args);
  return result;
}

std::string DKFormatNarrowV(const char* format, va_list args) {
  std::string result;
  DKFormatAppendV(result, format, args);
  return result;
}

namespace {

// Replaces s by the text that append writes. A string with text is rebuilt apart, since the
// format or an argument may be that text.
template <class AppendFn>
DKString& Reformat(DKString& s, AppendFn append) {
  if (s.Capacity() == 0) {
    // The shared empty block (the only one of capacity 0) holds no text that the format or an
    // argument could share: append in place, and leave the string empty if that fails.
    try {
      append(s);
    } catch (...) {
      s.Clear();
      throw;
    }
    return s;
  }
  DKString result;
  append(result);
  if (result.IsEmpty())
    s.Clear();
  else
    s = std::move(result);
  return s;
}

} // namespace

DKString& DKString::FormatV(const DKChar* format, va_list args) {
  return Reformat(*this, [&](DKString& out) { DKFormatAppendV(out, format, args); });
}

DKString& DKString::FormatArgs(const DKChar* format, DKFormatArgList args) {
  return Reformat(*this, [&](DKString& out) { DKFormatAppend(out, format, args); });
}
