// The "%" text engine (datetime/DKDateTimeText.h).
#include "datetime/DKDateTimeText.h"

#include "datetime/DKCalendar.h"

#include <istream>
#include <ostream>
#include <string>
#include <vector>

namespace dkdt {

namespace {

constexpr bool IsDigit(DKChar c) noexcept { return c >= '0' && c <= '9'; }
constexpr bool IsWhite(DKChar c) noexcept { return c == ' ' || (c >= '\t' && c <= '\r'); }

// Writes the decimal digits of value, at least minDigits of them; returns the count.
inline unsigned PutDigits(DKChar* to, DKUInt64 value, unsigned minDigits) noexcept {
  DKChar digits[20];
  unsigned n = 0;
  do {
    digits[n++] = static_cast<DKChar>('0' + value % 10);
    value /= 10;
  } while (value != 0);
  while (n < minDigits)
    digits[n++] = '0';
  for (unsigned i = 0; i < n; ++i)
    to[i] = digits[n - 1 - i];
  return n;
}

inline unsigned PutNumber(DKChar* to, DKInt64 value, unsigned minDigits) noexcept {
  if (value >= 0)
    return PutDigits(to, static_cast<DKUInt64>(value), minDigits);
  to[0] = '-';
  return 1 + PutDigits(to + 1, 0 - static_cast<DKUInt64>(value), minDigits);
}

// Two digits for the small fields, the common case.
inline unsigned PutTwo(DKChar* to, int value) noexcept {
  if (value >= 0 && value < 100) {
    to[0] = static_cast<DKChar>('0' + value / 10);
    to[1] = static_cast<DKChar>('0' + value % 10);
    return 2;
  }
  return PutNumber(to, value, 2);
}

// The text of one code; at most 21 characters.
unsigned RenderCode(DKChar code, DKChar* to, const WriteFields& f, const WriteExtras& extras) noexcept {
  switch (code) {
  case 'Y': return PutNumber(to, f.year, 1);
  case 'y': return PutTwo(to, static_cast<int>((f.year < 0 ? 0 - static_cast<DKUInt64>(f.year) : static_cast<DKUInt64>(f.year)) % 100));
  case 'm': return PutTwo(to, f.month);
  case 'd': return PutTwo(to, f.day);
  case 'H': return PutTwo(to, f.hour);
  case 'M': return PutTwo(to, f.minute);
  case 'S': return PutTwo(to, f.second);
  case 'L': return PutNumber(to, f.millisecond, 3);
  case 'W': return PutTwo(to, extras.Week());
  case 'Z':
  case 'z': {
    int offset = 0;
    if (!extras.Offset(offset) || offset == 0) {
      to[0] = 'Z';
      return 1;
    }
    const int magnitude = offset < 0 ? -offset : offset;
    to[0] = offset < 0 ? '-' : '+';
    unsigned n = 1 + PutTwo(to + 1, magnitude / 3600);
    to[n++] = ':';
    return n + PutTwo(to + n, magnitude % 3600 / 60);
  }
  default:
    to[0] = code;
    return 1;
  }
}

} // namespace

void AppendInt(DKString& out, DKInt64 value, unsigned minDigits) {
  DKChar digits[24];
  const unsigned n = PutNumber(digits, value, minDigits < 20 ? minDigits : 20);
  out.Append(digits, n);
}

void WriteText(DKChar* buffer, unsigned size, const DKChar* format, const WriteFields& fields, const WriteExtras& extras) noexcept {
  if (size == 0)
    return;
  const unsigned stop = size > 5 ? size - 5 : 0; // no new step once this much is written
  const unsigned room = size - 1;                // characters before the terminator
  unsigned out = 0;
  if (format) {
    for (const DKChar* p = format; *p && out < stop;) {
      if (*p != '%') {
        buffer[out++] = *p++;
        continue;
      }
      if (p[1] == 0) { // "%" ends the format: written as it stands
        buffer[out++] = '%';
        break;
      }
      DKChar piece[24];
      const unsigned n = RenderCode(p[1], piece, fields, extras);
      if (n > room - out)
        break; // a code is never cut
      for (unsigned i = 0; i < n; ++i)
        buffer[out + i] = piece[i];
      out += n;
      p += 2;
    }
  }
  buffer[out] = 0;
}

DKString WriteString(const DKChar* format, const WriteFields& fields, const WriteExtras& extras) {
  const std::size_t length = DKStrLen(format);
  // No code writes more than 24 characters; the 5 spare keep the stop rule out of the way.
  const std::size_t size = length * 24 + 6;
  DKChar local[256];
  std::vector<DKChar> heap;
  DKChar* buffer = local;
  if (size > sizeof local / sizeof local[0]) {
    if (size > 0xFFFFFFFFu)
      return DKString();
    heap.resize(size);
    buffer = heap.data();
  }
  WriteText(buffer, static_cast<unsigned>(size), format, fields, extras);
  return DKString(buffer);
}

// ---------------------------------------------------------------------------------------------
// Reading

const DKString& DefaultReadFormat() {
  static const DKString format(DK_T("%Y/%m/%d %H:%M:%S.%L"));
  return format;
}

namespace {

// What each format code reads: a field of ReadFields, the year of "%y" (widened), a week
// number (read and dropped), the zone, or nothing (a literal).
enum CodeKind : signed char { Literal = -1, ShortYear = 7, Week = 8, Zone = 9 };

constexpr signed char KindOf(DKChar code) noexcept {
  switch (code) {
  case 'Y': return 0;
  case 'm': return 1;
  case 'd': return 2;
  case 'H': return 3;
  case 'M': return 4;
  case 'S': return 5;
  case 'L': return 6;
  case 'y': return ShortYear;
  case 'W': return Week;
  case 'Z':
  case 'z': return Zone;
  default: return Literal;
  }
}

struct KindTable {
  signed char kind[128];
  constexpr KindTable() : kind() {
    for (int c = 0; c < 128; ++c)
      kind[c] = KindOf(static_cast<DKChar>(c));
  }
};
constexpr KindTable kinds;

class Reader {
public:
  Reader(const DKString& text, const DKString& format, ReadFields& fields) noexcept
      : m_text(text.c_str()), m_end(text.c_str() + text.Length()), m_format(format.c_str()),
        m_formatEnd(format.c_str() + format.Length()), m_fields(fields), m_pos(text.c_str()) {}

  void Run() noexcept {
    while (m_pos < m_end && *m_pos == ' ')
      ++m_pos;
    if (!ReadExact())
      ReadLenient();
  }

private:
  // The common case first: the text follows the format to the letter (or a beginning of it),
  // numbers made of digits (the year may have a "-") separated by the format's own literals,
  // none of which could start a number. Whatever the lenient reading would make of such a
  // text, this reads the same; anything else is left to the lenient reading.
  bool ReadExact() noexcept {
    const DKChar* p = m_pos;
    bool afterCode = false;
    for (const DKChar* f = m_format; f < m_formatEnd;) {
      if (p == m_end)
        return true; // the fields still to come are all unset, as the lenient reading leaves them
      if (*f != '%') {
        if (*p != *f || IsDigit(*f) || *f == '+' || *f == '-' || *f == 'Z')
          return false;
        ++f;
        ++p;
        afterCode = false;
        continue;
      }
      if (f + 1 >= m_formatEnd || afterCode)
        return false;
      const DKChar code = f[1];
      const int kind = code < 128 ? kinds.kind[code] : int{Literal};
      if (kind < 0 || kind > 6)
        return false;
      f += 2;
      const bool negative = kind == 0 && *p == '-';
      const DKChar* const digits = negative ? ++p : p;
      DKUInt64 magnitude = 0;
      for (; IsDigit(*p); ++p)
        magnitude = magnitude * 10 + static_cast<unsigned>(*p - '0');
      if (p == digits || p - digits > 15)
        return false;
      m_fields.value[kind] = negative ? -static_cast<DKInt64>(magnitude) : static_cast<DKInt64>(magnitude);
      m_fields.read |= 1u << kind;
      afterCode = true;
    }
    return p == m_end;
  }

  void ReadLenient() noexcept {
    m_fields = ReadFields(); // nothing of what the exact reading found is kept
    for (const DKChar* f = m_format; f < m_formatEnd;) {
      if (*f != '%' || f + 1 >= m_formatEnd) { // literals are passed over
        ++f;
        continue;
      }
      const DKChar code = f[1];
      f += 2;
      const int kind = code < 128 ? kinds.kind[code] : int{Literal};
      if (kind == Zone)
        ReadZone();
      else if (kind != Literal)
        ReadNumber(f, kind);
    }
  }

  // Does the next code of the format (after its literals) read a zone?
  bool NextCodeIsZone(const DKChar* f) const noexcept {
    while (f < m_formatEnd && *f != '%')
      ++f;
    return f + 1 < m_formatEnd && (f[1] == 'Z' || f[1] == 'z');
  }

  // f is the format position after the code. The text is terminated (*m_end is 0, neither
  // white space, a sign nor a digit), so the scans below stop at its end by themselves.
  void ReadNumber(const DKChar* f, int kind) noexcept {
    const DKChar* p = m_pos;
    while (IsWhite(*p))
      ++p;
    bool negative = false;
    if (*p == '-' || *p == '+')
      negative = *p++ == '-';
    const DKChar* const digits = p;
    DKUInt64 magnitude = 0;
    for (; IsDigit(*p); ++p)
      magnitude = magnitude * 10 + static_cast<unsigned>(*p - '0'); // wraps harmlessly: see below
    if (p == digits)
      return; // no number here: the field stays unset
    // More digits than any field holds: a value out of every range.
    DKInt64 number = p - digits > 15 ? DKInt64{1000000000000000} : static_cast<DKInt64>(magnitude);
    // The number must end where the format expects: at its next character, at the end of the
    // text, or anywhere when another code follows at once.
    if (p < m_end) {
      const DKChar expected = f < m_formatEnd ? *f : DKChar(0);
      const bool codeFollows = expected == '%' && f + 1 < m_formatEnd && f[1] != '%';
      if (*p != expected && !codeFollows)
        return; // not this field: the next code reads from the same place
    }
    if (negative)
      number = -number;
    if (kind == ShortYear) {
      if (number >= 0 && number < 100)
        number += number < 70 ? 2000 : 1900;
      kind = 0;
    }
    if (kind != Week) { // a week number is read so that the text moves on, and dropped
      m_fields.value[kind] = number;
      m_fields.read |= 1u << kind;
    }
    // Separators are skipped up to the next number, a "Z", or a sign that may start a zone
    // offset or a negative number.
    const DKChar* const separators = p;
    for (; p < m_end; ++p) {
      const DKChar c = *p;
      if (IsDigit(c) || c == 'Z')
        break;
      if ((c == '+' || c == '-') && (p > separators || NextCodeIsZone(f)))
        break;
    }
    m_pos = p;
  }

  void ReadZone() noexcept {
    const std::size_t left = static_cast<std::size_t>(m_end - m_pos);
    const DKChar* z = m_pos;
    if (left > 0 && *z == 'Z') {
      m_fields.zoneNamed = true;
      m_fields.offset = 0;
    } else if (left == 6 && (*z == '+' || *z == '-') && IsDigit(z[1]) && IsDigit(z[2]) && IsDigit(z[4]) && IsDigit(z[5])) {
      const int hours = (z[1] - '0') * 10 + (z[2] - '0');
      const int minutes = (z[4] - '0') * 10 + (z[5] - '0');
      const int offset = (hours * 60 + minutes) * 60;
      // The fields were read in the text's zone: adding this brings them to UTC.
      m_fields.zoneNamed = true;
      m_fields.offset = *z == '-' ? offset : -offset;
    }
    m_pos += left < 6 ? left : 6;
  }

  const DKChar* m_text;
  const DKChar* m_end;
  const DKChar* m_format;
  const DKChar* m_formatEnd;
  ReadFields& m_fields;
  const DKChar* m_pos;
};

} // namespace

void ReadText(const DKString& text, const DKString& format, ReadFields& fields) noexcept {
  Reader(text, format, fields).Run();
}

DKErrorID InvalidDate(const DKString& text) { return DKLibraryErrorID(DK_MSG_INVALID_DATE, text); }

bool ReadStreamText(std::istream& is, DKString& text) {
  std::string word;
  if (!(is >> word))
    return false;
  if (is.good() && is.peek() == ' ') {
    is.get();
    const int next = is.good() ? is.peek() : std::char_traits<char>::eof();
    if (next >= '0' && next <= '9') {
      std::string second;
      is >> second;
      word += ' ';
      word += second;
    } else if (next != std::char_traits<char>::eof()) {
      is.unget();
    }
  }
  DKString wide;
  if (wide.SetFromUTF8(word.c_str(), word.size()).Bad()) {
    is.setstate(std::ios::failbit);
    return false;
  }
  text = wide;
  return true;
}


} // namespace dkdt
