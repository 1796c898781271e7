// Configuration files: the tree of sections, key lines and comment blocks, its reader and
// writer (shared by the files on disk and the stream operators), and the encodings on disk.
#include <DorvikCore/DKConfigFile.h>
#include <DorvikCore/DKException.h>

#include "os/DKFile.h"
#include "text/DKUtf.h"

#include <algorithm>
#include <charconv>
#include <istream>
#include <ostream>
#include <type_traits>

// Access to the items' members for the reader and the writer below.
struct DKConfigIO {
  static DKConfigComments::CommentVector& Texts(DKConfigComments& c) noexcept { return c.m_comments; }
  static const DKConfigComments::CommentVector& Texts(const DKConfigComments& c) noexcept { return c.m_comments; }
  static DKString& Key(DKConfigLine& line) noexcept { return line.m_key; }
  static const DKString& Key(const DKConfigLine& line) noexcept { return line.m_key; }
  static DKString& Value(DKConfigLine& line) noexcept { return line.m_value; }
  static const DKString& Value(const DKConfigLine& line) noexcept { return line.m_value; }
  static DKString& Name(DKConfigSection& section) noexcept { return section.m_name; }
  static const DKString& Name(const DKConfigSection& section) noexcept { return section.m_name; }
  static DKConfigSection::LineVector& Lines(DKConfigSection& section) noexcept { return section.m_lines; }
  static const DKConfigFile::SectionVector& Sections(const DKConfigFile& file) noexcept { return file.m_sections; }
  static void Adopt(DKConfigFile& file, DKConfigFile::SectionVector& sections) { file.Adopt(sections); }
};

namespace {

using CommentVector = DKConfigComments::CommentVector;
using SectionVector = DKConfigFile::SectionVector;

const DKChar* const kEofInKey = DK_T("unexpected EOF while parsing a key name of a configuration line");
const DKChar* const kNoOpeningBracket = DK_T("expecting a '[' at the beginning of a section");
const DKChar* const kEofInName = DK_T("unexpected EOF while parsing a section name");
const DKChar* const kAfterClosingBracket = DK_T("unexpected character after the closing ']' of a section name");

// A unit as the reader sees it: its value, or kEnd after the last one.
typedef long Code;
constexpr Code kEnd = -1;

inline bool IsBlank(Code c) noexcept { return c == ' ' || c == '\t' || c == '\r'; }
inline bool IsWhite(Code c) noexcept { return IsBlank(c) || c == '\n' || c == '\v' || c == '\f'; }
inline bool IsSpaceOrTab(Code c) noexcept { return c == ' ' || c == '\t'; }

// Names and keys match without regard to case. Case folding maps one unit to one unit, so
// texts of different lengths never match.
bool SameName(const DKString& a, const DKString& b) {
  return a.Length() == b.Length() && a.Compare(b, DKString::IgnoreCase) == 0;
}

// The first item at or after from whose name (the member field) matches.
template <class It, class Item>
It FindNamed(It from, It end, const DKString& name, DKString Item::*field) {
  return std::find_if(from, end, [&](const Item& item) { return SameName(item.*field, name); });
}

// Removes the first item at or after from whose name matches; false when there is none.
template <class Vector, class Item>
bool EraseNamed(Vector& items, typename Vector::iterator from, const DKString& name, DKString Item::*field) {
  const auto found = FindNamed(from, items.end(), name, field);
  if (found == items.end())
    return false;
  items.erase(found);
  return true;
}

// ---------------------------------------------------------------------------------------------
// Text in the units of a stream or of memory, to and from DKString

template <class Unit>
DKString ToDKString(const std::basic_string<Unit>& text) {
  DKString out;
  if (text.empty())
    return out;
  if constexpr (std::is_same_v<Unit, DKChar>) {
    out.Assign(text.data(), text.size());
  } else if constexpr (std::is_same_v<Unit, char>) {
    dkutf::Utf8ToUtf16(text.data(), text.size(), out, true);
  } else {
    const std::u32string wide(text.begin(), text.end());
    dkutf::Utf32ToUtf16(wide.data(), wide.size(), out);
  }
  return out;
}

template <class Unit>
std::basic_string<Unit> FromDKString(const DKString& text) {
  if constexpr (std::is_same_v<Unit, DKChar>) {
    return std::basic_string<Unit>(text.c_str(), text.Length());
  } else if constexpr (std::is_same_v<Unit, char>) {
    return text.AsUTF8();
  } else {
    std::u32string wide;
    dkutf::Utf16ToUtf32(text.c_str(), text.Length(), wide);
    return std::basic_string<Unit>(wide.begin(), wide.end());
  }
}

// ---------------------------------------------------------------------------------------------
// Sources: what the reader reads from

// Decoded file text in memory. In CR LF mode a CR LF pair reads as one LF, as a text-mode
// file stream gives it.
class TextSource {
public:
  typedef DKChar Unit;
  TextSource(const DKChar* begin, const DKChar* end, bool crlf) noexcept : m_p(begin), m_end(end), m_crlf(crlf) {}

  Code Peek() const noexcept {
    if (m_p == m_end)
      return kEnd;
    return IsPair() ? '\n' : static_cast<Code>(*m_p);
  }
  void Skip() noexcept { m_p += IsPair() ? 2 : 1; }

private:
  bool IsPair() const noexcept { return m_crlf && *m_p == '\r' && m_p + 1 != m_end && m_p[1] == '\n'; }

  const DKChar* m_p;
  const DKChar* m_end;
  bool m_crlf;
};

// A standard input stream, read through its buffer. A few units can be given back (after a
// look for a byte-order mark).
template <class CharT>
class StreamSource {
public:
  typedef CharT Unit;
  typedef std::char_traits<CharT> Traits;
  explicit StreamSource(std::basic_istream<CharT>& in) noexcept : m_buffer(in.rdbuf()) {}

  Code Peek() {
    if (m_given)
      return m_back[m_given - 1];
    if (!m_buffer)
      return kEnd;
    const auto c = m_buffer->sgetc();
    if (Traits::eq_int_type(c, Traits::eof())) {
      m_atEnd = true;
      return kEnd;
    }
    return Value(Traits::to_char_type(c));
  }
  void Skip() {
    if (m_given)
      --m_given;
    else
      m_buffer->sbumpc();
  }
  // Puts units back in front of the input, the last one given first.
  void GiveBack(Code c) noexcept { m_back[m_given++] = c; }
  bool AtEnd() const noexcept { return m_atEnd; }

  // Skips a byte-order mark at the start of the text.
  void SkipByteOrderMark() {
    if constexpr (std::is_same_v<CharT, char>) {
      static constexpr Code mark[3] = {0xEF, 0xBB, 0xBF};
      int matched = 0;
      while (matched < 3 && Peek() == mark[matched]) {
        Skip();
        ++matched;
      }
      if (matched < 3)
        while (matched > 0)
          GiveBack(mark[--matched]);
    } else {
      if (Peek() == 0xFEFF)
        Skip();
    }
  }

private:
  static Code Value(CharT c) noexcept {
    return static_cast<Code>(static_cast<std::make_unsigned_t<CharT>>(c));
  }

  std::basic_streambuf<CharT>* m_buffer;
  Code m_back[3] = {};
  int m_given = 0;
  bool m_atEnd = false;
};

// ---------------------------------------------------------------------------------------------
// The reader

template <class Source>
class Reader {
public:
  typedef typename Source::Unit Unit;
  explicit Reader(Source& in) noexcept : m_in(in) {}

  // The comment and empty lines in front of the next item; blanks are skipped.
  void Comments(CommentVector& out) {
    out.clear();
    for (;;) {
      const Code c = m_in.Peek();
      if (c == ';') {
        m_in.Skip();
        m_text.clear();
        for (Code d = m_in.Peek(); d != kEnd; d = m_in.Peek()) {
          m_in.Skip();
          if (d == '\n')
            break;
          m_text.push_back(static_cast<Unit>(d));
        }
        out.push_back(ToDKString(m_text));
      } else if (c == '\n') {
        m_in.Skip();
        out.emplace_back();
      } else if (IsBlank(c)) {
        m_in.Skip();
      } else {
        return;
      }
    }
  }

  // key "=" value up to the end of the line. Text without "=" is part of the key, line breaks
  // included.
  void KeyLine(DKString& key, DKString& value) {
    m_text.clear();
    for (;;) {
      const Code c = m_in.Peek();
      if (c == kEnd)
        throw DKConfigStreamException(kEofInKey);
      m_in.Skip();
      if (c == '=')
        break;
      m_text.push_back(static_cast<Unit>(c));
    }
    TrimEnd(IsWhite);
    key = ToDKString(m_text);

    m_text.clear();
    for (Code c = m_in.Peek(); c != kEnd; c = m_in.Peek()) {
      m_in.Skip();
      if (c == '\n')
        break;
      if (c == '\r' || (m_text.empty() && IsWhite(c)))
        continue;
      m_text.push_back(static_cast<Unit>(c));
    }
    TrimEnd(IsSpaceOrTab);
    value = ToDKString(m_text);
  }

  // "[" name "]" and the blanks after it up to the end of the line. False at the end of the input.
  bool Header(DKString& name) {
    Code c = m_in.Peek();
    if (c == kEnd)
      return false;
    if (c != '[')
      throw DKConfigStreamException(kNoOpeningBracket);
    m_in.Skip();
    m_text.clear();
    for (;;) {
      c = m_in.Peek();
      if (c == kEnd)
        throw DKConfigStreamException(kEofInName);
      m_in.Skip();
      // A header must be followed by something: even "]" as the last unit is refused.
      if (m_in.Peek() == kEnd)
        throw DKConfigStreamException(kEofInName);
      if (c == ']')
        break;
      m_text.push_back(static_cast<Unit>(c));
    }
    name = ToDKString(m_text);
    for (c = m_in.Peek(); c != kEnd; c = m_in.Peek()) {
      m_in.Skip();
      if (c == '\n')
        break;
      if (!IsBlank(c))
        throw DKConfigStreamException(kAfterClosingBracket);
    }
    return true;
  }

  // The whole text. Each comment block goes to the item after it; key lines in front of the
  // first header are read and dropped; comments at the end become a last section without a name.
  // The items are given owner as they are made.
  void File(SectionVector& out, const DKConfigLockableI* owner) {
    out.clear();
    CommentVector block;
    // The lines of the open section, collected so that the section's vector is sized once.
    DKConfigSection::LineVector lines;
    const auto closeSection = [&] {
      if (!out.empty())
        DKConfigIO::Lines(out.back()).assign(std::make_move_iterator(lines.begin()), std::make_move_iterator(lines.end()));
      lines.clear();
    };
    DKString droppedKey, droppedValue;
    bool open = false;
    for (;;) {
      Comments(block);
      const Code c = m_in.Peek();
      if (c == kEnd)
        break;
      if (c == '[') {
        closeSection();
        DKConfigSection& section = out.emplace_back();
        section.SetOwner(owner);
        Header(DKConfigIO::Name(section));
        DKConfigIO::Texts(section.GetComments()) = std::move(block);
        open = true;
      } else if (open) {
        DKConfigLine& line = lines.emplace_back();
        line.SetOwner(owner);
        KeyLine(DKConfigIO::Key(line), DKConfigIO::Value(line));
        DKConfigIO::Texts(line.GetComments()) = std::move(block);
      } else {
        KeyLine(droppedKey, droppedValue);
      }
    }
    closeSection();
    if (!block.empty()) {
      DKConfigSection& closing = out.emplace_back();
      closing.SetOwner(owner);
      DKConfigIO::Texts(closing.GetComments()) = std::move(block);
    }
  }

private:
  template <class Pred>
  void TrimEnd(Pred drop) {
    while (!m_text.empty() && drop(static_cast<Code>(m_text.back())))
      m_text.pop_back();
  }

  Source& m_in;
  std::basic_string<Unit> m_text;
};

// ---------------------------------------------------------------------------------------------
// The writer

template <class Sink>
void WriteComments(Sink& out, const CommentVector& comments) {
  for (const DKString& text : comments) {
    if (!text.IsEmpty()) {
      out.Ascii(';');
      out.Text(text);
    }
    out.Ascii('\n');
  }
}

template <class Sink>
void WriteLine(Sink& out, const DKConfigLine& line) {
  WriteComments(out, DKConfigIO::Texts(line.GetComments()));
  out.Text(DKConfigIO::Key(line));
  out.Ascii('=');
  out.Text(DKConfigIO::Value(line));
  out.Ascii('\n');
}

template <class Sink>
void WriteSection(Sink& out, const DKConfigSection& section, bool header) {
  WriteComments(out, DKConfigIO::Texts(section.GetComments()));
  if (header) {
    out.Ascii('[');
    out.Text(DKConfigIO::Name(section));
    out.Ascii(']');
    out.Ascii('\n');
  }
  for (const DKConfigLine& line : section)
    WriteLine(out, line);
}

// Comments that end a file are held by a last section without a name, lines or header.
bool IsClosingComments(const SectionVector& sections, std::size_t index) {
  const DKConfigSection& s = sections[index];
  return index + 1 == sections.size() && s.GetLineCount() == 0 && !s.GetComments().IsEmpty() &&
         DKConfigIO::Name(s).IsEmpty();
}

// A section without a name is written with an empty header "[]" so that it reads back as the
// same section, except when it holds the closing comments.
template <class Sink>
void WriteFile(Sink& out, const SectionVector& sections) {
  for (std::size_t i = 0; i < sections.size(); ++i) {
    const bool named = !DKConfigIO::Name(sections[i]).IsEmpty();
    WriteSection(out, sections[i], named || !IsClosingComments(sections, i));
  }
}

// Writes the file's bytes in one of its encodings; LF becomes CR LF in CR LF mode.
class ByteSink {
public:
  ByteSink(std::string& out, DKConfigFile::Encoding encoding, bool crlf) noexcept
      : m_out(out), m_encoding(encoding), m_crlf(crlf) {}

  void ByteOrderMark() {
    switch (m_encoding) {
    case DKConfigFile::Utf8WithBom: m_out.append("\xEF\xBB\xBF"); break;
    case DKConfigFile::Utf16LE: m_out.append("\xFF\xFE"); break;
    case DKConfigFile::Utf16BE: m_out.append("\xFE\xFF"); break;
    case DKConfigFile::Utf8: break;
    }
  }
  void Ascii(char c) {
    if (c == '\n' && m_crlf)
      Encode(DK_T("\r\n"), 2);
    else if (IsUtf8())
      m_out.push_back(c);
    else
      Encode16(static_cast<DKChar>(c));
  }
  void Text(const DKString& text) {
    const DKChar* p = text.c_str();
    std::size_t n = text.Length();
    if (m_crlf) {
      for (const DKChar* lf; (lf = std::char_traits<DKChar>::find(p, n, '\n')) != nullptr;) {
        Encode(p, static_cast<std::size_t>(lf - p));
        Encode(DK_T("\r\n"), 2);
        n -= static_cast<std::size_t>(lf - p) + 1;
        p = lf + 1;
      }
    }
    Encode(p, n);
  }

private:
  bool IsUtf8() const noexcept { return m_encoding == DKConfigFile::Utf8 || m_encoding == DKConfigFile::Utf8WithBom; }
  void Encode(const DKChar* p, std::size_t n) {
    if (n == 0)
      return;
    if (IsUtf8()) {
      dkutf::Utf16ToUtf8(p, n, m_out);
      return;
    }
    for (std::size_t i = 0; i < n; ++i)
      Encode16(p[i]);
  }
  void Encode16(DKChar u) {
    const char high = static_cast<char>(u >> 8), low = static_cast<char>(u & 0xFF);
    if (m_encoding == DKConfigFile::Utf16LE) {
      m_out.push_back(low);
      m_out.push_back(high);
    } else {
      m_out.push_back(high);
      m_out.push_back(low);
    }
  }

  std::string& m_out;
  DKConfigFile::Encoding m_encoding;
  bool m_crlf;
};

// Writes to a standard output stream in its own units.
template <class CharT>
class StreamSink {
public:
  explicit StreamSink(std::basic_ostream<CharT>& out) noexcept : m_out(out) {}
  void Ascii(char c) { m_out.put(static_cast<CharT>(c)); }
  void Text(const DKString& text) {
    if (text.IsEmpty())
      return;
    const std::basic_string<CharT> units = FromDKString<CharT>(text);
    m_out.write(units.data(), static_cast<std::streamsize>(units.size()));
  }

private:
  std::basic_ostream<CharT>& m_out;
};

// ---------------------------------------------------------------------------------------------
// Bytes on disk

// The text of a file with what is needed to write it back the same way.
struct DecodedText {
  DKString utf8Text;     // the text of a UTF-8 file
  DKStdString utf16Text; // the text of a UTF-16 file
  const DKChar* begin = nullptr;
  const DKChar* end = nullptr;
  DKConfigFile::Encoding encoding = DKConfigFile::Utf8;
  bool crlf = false;
};

// The line ends are CR LF when the first line feed follows a carriage return.
bool FirstLineEndIsCrLf(const DKChar* begin, const DKChar* end) noexcept {
  const DKChar* lf = std::char_traits<DKChar>::find(begin, static_cast<std::size_t>(end - begin), '\n');
  return lf && lf != begin && lf[-1] == '\r';
}

bool Decode(const unsigned char* bytes, std::size_t size, DecodedText& text, DKString& error) {
  std::size_t start = 0;
  if (size >= 2 && bytes[0] == 0xFF && bytes[1] == 0xFE) {
    text.encoding = DKConfigFile::Utf16LE;
    start = 2;
  } else if (size >= 2 && bytes[0] == 0xFE && bytes[1] == 0xFF) {
    text.encoding = DKConfigFile::Utf16BE;
    start = 2;
  } else if (size >= 3 && bytes[0] == 0xEF && bytes[1] == 0xBB && bytes[2] == 0xBF) {
    text.encoding = DKConfigFile::Utf8WithBom;
    start = 3;
  }
  const std::size_t length = size - start;
  if (text.encoding == DKConfigFile::Utf16LE || text.encoding == DKConfigFile::Utf16BE) {
    if (length % 2) {
      error = DK_T("the UTF-16 text ends in half a character");
      return false;
    }
    const bool little = text.encoding == DKConfigFile::Utf16LE;
    text.utf16Text.resize(length / 2);
    for (std::size_t i = 0; i < length / 2; ++i) {
      const unsigned first = bytes[start + 2 * i], second = bytes[start + 2 * i + 1];
      text.utf16Text[i] = static_cast<DKChar>(little ? first | second << 8 : first << 8 | second);
    }
    text.begin = text.utf16Text.data();
    text.end = text.begin + text.utf16Text.size();
  } else {
    if (length > DKString::maxLength) {
      error = DK_T("the file is too large");
      return false;
    }
    const std::size_t bad = dkutf::Utf8ToUtf16(reinterpret_cast<const char*>(bytes) + start, length, text.utf8Text, false);
    if (bad != DKString::npos) {
      error.Format(DK_T("the text is not valid UTF-8 (byte %llu)"), static_cast<unsigned long long>(start + bad));
      return false;
    }
    text.begin = text.utf8Text.c_str();
    text.end = text.begin + text.utf8Text.Length();
  }
  text.crlf = FirstLineEndIsCrLf(text.begin, text.end);
  return true;
}

// The same test on the bytes written.
bool FirstLineEndIsCrLf(const std::string& bytes, DKConfigFile::Encoding encoding) {
  if (encoding == DKConfigFile::Utf8 || encoding == DKConfigFile::Utf8WithBom) {
    const std::size_t start = encoding == DKConfigFile::Utf8WithBom ? 3 : 0;
    const std::size_t lf = bytes.find('\n', start);
    return lf != std::string::npos && lf > start && bytes[lf - 1] == '\r';
  }
  const std::size_t low = encoding == DKConfigFile::Utf16LE ? 0 : 1;
  for (std::size_t i = 2; i + 1 < bytes.size(); i += 2)
    if (bytes[i + low] == '\n' && bytes[i + 1 - low] == 0)
      return i > 2 && bytes[i - 2 + low] == '\r' && bytes[i - 1 - low] == 0;
  return false;
}

// Why the format cannot carry the tree; empty when it can.
DKString FindUnwritable(const SectionVector& sections) {
  DKString why;
  const auto hasLineFeed = [](const DKString& text) { return text.Find(DKChar('\n')) != DKString::npos; };
  const auto checkComments = [&](const DKConfigComments& comments) {
    for (const DKString& text : comments)
      if (hasLineFeed(text)) {
        why.Format(DK_T("the comment \"%s\" holds a line feed"), text.c_str());
        return false;
      }
    return true;
  };
  for (const DKConfigSection& section : sections) {
    const DKString& name = DKConfigIO::Name(section);
    if (name.Find(DKChar(']')) != DKString::npos)
      return why.Format(DK_T("the section name \"%s\" holds a ']'"), name.c_str());
    if (!checkComments(section.GetComments()))
      return why;
    for (const DKConfigLine& line : section) {
      const DKString& key = DKConfigIO::Key(line);
      if (key.Find(DKChar('=')) != DKString::npos)
        return why.Format(DK_T("the key \"%s\" holds a '='"), key.c_str());
      const std::size_t first = key.FindFirstNotOf(DK_T(" \t\r"));
      if (first != DKString::npos && (key[first] == ';' || key[first] == '[' || key[first] == '\n'))
        return why.Format(DK_T("the key \"%s\" would read back as a comment or a header"), key.c_str());
      if (hasLineFeed(DKConfigIO::Value(line)))
        return why.Format(DK_T("the value of the key \"%s\" holds a line feed"), key.c_str());
      if (!checkComments(line.GetComments()))
        return why;
    }
  }
  return why;
}

// The number as text, the shortest form that reads back as the same value.
template <class Number>
DKString NumberText(Number value) {
  char digits[64];
  const auto result = std::to_chars(digits, digits + sizeof digits, value);
  DKString text;
  for (const char* p = digits; p != result.ptr; ++p)
    text.Append(static_cast<DKChar>(*p));
  return text;
}

// Runs a read on a standard stream, with the stream's conventions: nothing is read from a
// stream that is not good, and the end of the input sets eofbit.
template <class CharT, class Read>
std::basic_istream<CharT>& ReadFromStream(std::basic_istream<CharT>& in, Read read) {
  const typename std::basic_istream<CharT>::sentry good(in, true);
  if (!good)
    return in;
  StreamSource<CharT> source(in);
  try {
    read(source);
  } catch (...) {
    if (source.AtEnd())
      in.setstate(std::ios_base::eofbit);
    throw;
  }
  if (source.AtEnd())
    in.setstate(std::ios_base::eofbit);
  return in;
}

template <class CharT>
std::basic_istream<CharT>& ReadComments(std::basic_istream<CharT>& in, DKConfigComments& comments) {
  return ReadFromStream(in, [&](StreamSource<CharT>& source) {
    const DKConfigLockGuard guard(comments);
    Reader<StreamSource<CharT>>(source).Comments(DKConfigIO::Texts(comments));
  });
}

template <class CharT>
std::basic_istream<CharT>& ReadLine(std::basic_istream<CharT>& in, DKConfigLine& line) {
  return ReadFromStream(in, [&](StreamSource<CharT>& source) {
    const DKConfigLockGuard guard(line);
    line.Clear();
    Reader<StreamSource<CharT>> reader(source);
    reader.Comments(DKConfigIO::Texts(line.GetComments()));
    reader.KeyLine(DKConfigIO::Key(line), DKConfigIO::Value(line));
  });
}

template <class CharT>
std::basic_istream<CharT>& ReadSection(std::basic_istream<CharT>& in, DKConfigSection& section) {
  return ReadFromStream(in, [&](StreamSource<CharT>& source) {
    const DKConfigLockGuard guard(section);
    section.Clear();
    Reader<StreamSource<CharT>> reader(source);
    reader.Comments(DKConfigIO::Texts(section.GetComments()));
    reader.Header(DKConfigIO::Name(section));
  });
}

template <class CharT>
std::basic_istream<CharT>& ReadFile(std::basic_istream<CharT>& in, DKConfigFile& file) {
  return ReadFromStream(in, [&](StreamSource<CharT>& source) {
    source.SkipByteOrderMark();
    SectionVector sections;
    Reader<StreamSource<CharT>>(source).File(sections, &file);
    DKConfigIO::Adopt(file, sections);
  });
}

template <class CharT, class Write>
std::basic_ostream<CharT>& WriteToStream(std::basic_ostream<CharT>& out, const DKConfigLockableI& item, Write write) {
  const DKConfigLockGuard guard(item);
  StreamSink<CharT> sink(out);
  write(sink);
  return out;
}

static_assert(std::is_nothrow_move_constructible_v<DKConfigLine> && std::is_nothrow_move_constructible_v<DKConfigSection>,
              "the vectors of a file move their items, keeping each item's owner");

} // namespace

// ---------------------------------------------------------------------------------------------
// Items

DKConfigLockable::~DKConfigLockable() = default;

void DKConfigLockable::Lock() const {
  if (m_pOwner)
    m_pOwner->Lock();
}

void DKConfigLockable::Unlock() const {
  if (m_pOwner)
    m_pOwner->Unlock();
}

void DKConfigLockable::SetOwner(const DKConfigLockableI* owner) { m_pOwner = owner; }

DKConfigI::~DKConfigI() = default;

DKConfigComments::~DKConfigComments() = default;

DKConfigComments::Iterator DKConfigComments::AddComment(const DKString& text) {
  const DKConfigLockGuard guard(*this);
  m_comments.push_back(text);
  return m_comments.end() - 1;
}

DKConfigComments::Iterator DKConfigComments::AddComment(const DKString& text, Iterator before) {
  const DKConfigLockGuard guard(*this);
  return m_comments.insert(before, text);
}

DKConfigComments::Iterator DKConfigComments::DeleteComment(Iterator position) {
  const DKConfigLockGuard guard(*this);
  return m_comments.erase(position);
}

std::size_t DKConfigComments::GetSize() const {
  const DKConfigLockGuard guard(*this);
  return m_comments.size();
}

void DKConfigComments::Clear() {
  const DKConfigLockGuard guard(*this);
  m_comments.clear();
}

DKConfigLine::~DKConfigLine() = default;

DKString DKConfigLine::GetKey() const {
  const DKConfigLockGuard guard(*this);
  return m_key;
}

void DKConfigLine::SetKey(const DKString& key) {
  const DKConfigLockGuard guard(*this);
  m_key = key;
}

DKString DKConfigLine::GetValue() const {
  const DKConfigLockGuard guard(*this);
  return m_value;
}

void DKConfigLine::SetValue(const DKString& value) {
  const DKConfigLockGuard guard(*this);
  m_value = value;
}

void DKConfigLine::SetValue(long long value) { SetValue(NumberText(value)); }

void DKConfigLine::SetValue(double value) { SetValue(NumberText(value)); }

long DKConfigLine::GetValueAsLong(bool* ok) const { return GetValue().AsLong(ok); }

double DKConfigLine::GetValueAsDouble(bool* ok) const { return GetValue().AsDouble(ok); }

void DKConfigLine::Clear() {
  const DKConfigLockGuard guard(*this);
  m_comments.Clear();
  m_key.Clear();
  m_value.Clear();
}

void DKConfigLine::SetOwner(const DKConfigLockableI* owner) {
  DKConfigLockable::SetOwner(owner);
  m_comments.SetOwner(owner);
}

DKConfigSection::~DKConfigSection() = default;

DKConfigSection& DKConfigSection::operator=(const DKConfigSection& other) {
  if (this != &other) {
    LineVector lines(other.m_lines);
    for (DKConfigLine& line : lines)
      line.SetOwner(GetOwner());
    m_comments = other.m_comments;
    m_name = other.m_name;
    m_lines.swap(lines);
  }
  return *this;
}

DKConfigSection& DKConfigSection::operator=(DKConfigSection&& other) noexcept {
  if (this != &other) {
    const bool sameOwner = other.GetOwner() == GetOwner();
    m_comments = std::move(other.m_comments);
    m_name = std::move(other.m_name);
    m_lines = std::move(other.m_lines);
    if (!sameOwner)
      for (DKConfigLine& line : m_lines)
        line.SetOwner(GetOwner());
  }
  return *this;
}

DKString DKConfigSection::GetName() const {
  const DKConfigLockGuard guard(*this);
  return m_name;
}

void DKConfigSection::SetName(const DKString& name) {
  const DKConfigLockGuard guard(*this);
  m_name = name;
}

std::size_t DKConfigSection::GetLineCount() const {
  const DKConfigLockGuard guard(*this);
  return m_lines.size();
}

DKConfigSection::LineIterator DKConfigSection::FindLine(const DKString& key) { return FindLine(key, m_lines.begin()); }

DKConfigSection::LineIterator DKConfigSection::FindLine(const DKString& key, LineIterator from) {
  const DKConfigLockGuard guard(*this);
  return FindNamed(from, m_lines.end(), key, &DKConfigLine::m_key);
}

DKConfigSection::ConstLineIterator DKConfigSection::FindLine(const DKString& key) const {
  return FindLine(key, m_lines.begin());
}

DKConfigSection::ConstLineIterator DKConfigSection::FindLine(const DKString& key, ConstLineIterator from) const {
  const DKConfigLockGuard guard(*this);
  return FindNamed(from, m_lines.end(), key, &DKConfigLine::m_key);
}

DKConfigSection::LineIterator DKConfigSection::InsertLine(LineIterator before, DKConfigLine&& line) {
  const DKConfigLockGuard guard(*this);
  const LineIterator added = m_lines.insert(before, std::move(line));
  added->SetOwner(GetOwner());
  return added;
}

DKConfigSection::LineIterator DKConfigSection::AddLine(const DKConfigLine& line) {
  return InsertLine(m_lines.end(), DKConfigLine(line));
}

DKConfigSection::LineIterator DKConfigSection::AddLine(const DKConfigLine& line, LineIterator before) {
  return InsertLine(before, DKConfigLine(line));
}

DKConfigSection::LineIterator DKConfigSection::AddLine(const DKString& key, const DKString& value) {
  return InsertLine(m_lines.end(), DKConfigLine(key, value));
}

DKConfigSection::LineIterator DKConfigSection::AddLine(const DKString& key, const DKString& value, LineIterator before) {
  return InsertLine(before, DKConfigLine(key, value));
}

DKConfigSection::LineIterator DKConfigSection::DeleteLine(LineIterator position) {
  const DKConfigLockGuard guard(*this);
  return m_lines.erase(position);
}

bool DKConfigSection::DeleteLine(const DKString& key) { return DeleteLine(key, m_lines.begin()); }

bool DKConfigSection::DeleteLine(const DKString& key, LineIterator from) {
  const DKConfigLockGuard guard(*this);
  return EraseNamed(m_lines, from, key, &DKConfigLine::m_key);
}

void DKConfigSection::Clear() {
  const DKConfigLockGuard guard(*this);
  m_comments.Clear();
  m_name.Clear();
  m_lines.clear();
}

void DKConfigSection::SetOwner(const DKConfigLockableI* owner) {
  DKConfigLockable::SetOwner(owner);
  m_comments.SetOwner(owner);
  for (DKConfigLine& line : m_lines)
    line.SetOwner(owner);
}

// ---------------------------------------------------------------------------------------------
// The file

DKSmartPtr<DKConfigFile> DKConfigFile::Load(const DKString& path) {
  DKSmartPtr<DKConfigFile> file(new DKConfigFile(path));
  if (!file->Reload())
    return nullptr;
  return file;
}

DKConfigFile::DKConfigFile(const DKString& path) : m_fileName(path) {}

DKConfigFile::~DKConfigFile() = default;

void DKConfigFile::Lock() const { m_criticalSection.lock(); }

void DKConfigFile::Unlock() const { m_criticalSection.unlock(); }

bool DKConfigFile::Fail(const DKString& reason) const {
  const DKConfigLockGuard guard(*this);
  m_lastError = reason;
  return false;
}

DKString DKConfigFile::GetLastErrorText() const {
  const DKConfigLockGuard guard(*this);
  return m_lastError;
}

void DKConfigFile::Adopt(SectionVector& sections) {
  const DKConfigLockGuard guard(*this);
  m_sections.swap(sections);
  m_lastError.Clear();
}

bool DKConfigFile::Reload() {
  std::string bytes;
  DKString error;
  if (!DKFile::ReadAll(GetFileName(), bytes, error))
    return Fail(error);
  return ReloadFromBytes(bytes.data(), bytes.size());
}

bool DKConfigFile::ReloadFromBytes(const void* data, std::size_t size) {
  DecodedText text;
  DKString error;
  if (!Decode(static_cast<const unsigned char*>(data), size, text, error))
    return Fail(error);
  SectionVector sections;
  TextSource source(text.begin, text.end, text.crlf);
  Reader<TextSource>(source).File(sections, this);

  const DKConfigLockGuard guard(*this);
  Adopt(sections);
  m_encoding = text.encoding;
  m_lineEnd = text.crlf ? LineEndCRLF : LineEndLF;
  return true; // the old tree goes with `sections`, after the lock is released
}

bool DKConfigFile::Serialise(std::string& out) const {
  const DKString why = FindUnwritable(m_sections);
  if (!why.IsEmpty())
    return Fail(why);
  const auto write = [&](bool crlf) {
    out.clear();
    ByteSink sink(out, m_encoding, crlf);
    sink.ByteOrderMark();
    WriteFile(sink, m_sections);
  };
  write(m_lineEnd == LineEndCRLF);
  // Text that itself ends its first line in CR would read back as a CR LF file; written with
  // CR LF line ends throughout it reads back the same.
  if (m_lineEnd == LineEndLF && FirstLineEndIsCrLf(out, m_encoding))
    write(true);
  return true;
}

bool DKConfigFile::SaveToBytes(std::string& out) const {
  const DKConfigLockGuard guard(*this);
  if (!Serialise(out))
    return false;
  m_lastError.Clear();
  return true;
}

bool DKConfigFile::Save() const { return WriteToDisk(false); }

bool DKConfigFile::Save2() const { return WriteToDisk(true); }

bool DKConfigFile::WriteToDisk(bool atomically) const {
  const DKConfigLockGuard guard(*this);
  std::string bytes;
  if (!Serialise(bytes))
    return false;
  DKString error;
  const auto write = atomically ? &DKFile::ReplaceAtomically : &DKFile::WriteAll;
  if (!write(m_fileName, bytes.data(), bytes.size(), error))
    return Fail(error);
  m_lastError.Clear();
  return true;
}

DKString DKConfigFile::GetFileName() const {
  const DKConfigLockGuard guard(*this);
  return m_fileName;
}

void DKConfigFile::SetFileName(const DKString& path) {
  const DKConfigLockGuard guard(*this);
  m_fileName = path;
}

DKConfigFile::Encoding DKConfigFile::GetEncoding() const {
  const DKConfigLockGuard guard(*this);
  return m_encoding;
}

void DKConfigFile::SetEncoding(Encoding encoding) {
  const DKConfigLockGuard guard(*this);
  m_encoding = encoding;
}

DKConfigFile::LineEnd DKConfigFile::GetLineEnd() const {
  const DKConfigLockGuard guard(*this);
  return m_lineEnd;
}

void DKConfigFile::SetLineEnd(LineEnd lineEnd) {
  const DKConfigLockGuard guard(*this);
  m_lineEnd = lineEnd;
}

std::size_t DKConfigFile::GetSectionCount() const {
  const DKConfigLockGuard guard(*this);
  return m_sections.size();
}

DKConfigFile::SectionIterator DKConfigFile::FindSection(const DKString& name) {
  return FindSection(name, m_sections.begin());
}

DKConfigFile::SectionIterator DKConfigFile::FindSection(const DKString& name, SectionIterator from) {
  const DKConfigLockGuard guard(*this);
  return FindNamed(from, m_sections.end(), name, &DKConfigSection::m_name);
}

DKConfigFile::ConstSectionIterator DKConfigFile::FindSection(const DKString& name) const {
  return FindSection(name, m_sections.begin());
}

DKConfigFile::ConstSectionIterator DKConfigFile::FindSection(const DKString& name, ConstSectionIterator from) const {
  const DKConfigLockGuard guard(*this);
  return FindNamed(from, m_sections.end(), name, &DKConfigSection::m_name);
}

DKConfigFile::SectionIterator DKConfigFile::AddSection(const DKString& name) {
  return AddSection(DKConfigSection(name), m_sections.end());
}

DKConfigFile::SectionIterator DKConfigFile::AddSection(const DKString& name, SectionIterator before) {
  return AddSection(DKConfigSection(name), before);
}

DKConfigFile::SectionIterator DKConfigFile::AddSection(const DKConfigSection& section) {
  return AddSection(section, m_sections.end());
}

DKConfigFile::SectionIterator DKConfigFile::AddSection(const DKConfigSection& section, SectionIterator before) {
  const DKConfigLockGuard guard(*this);
  const SectionIterator added = m_sections.insert(before, section);
  added->SetOwner(this);
  return added;
}

DKConfigFile::SectionIterator DKConfigFile::DeleteSection(SectionIterator position) {
  const DKConfigLockGuard guard(*this);
  return m_sections.erase(position);
}

bool DKConfigFile::DeleteSection(const DKString& name) { return DeleteSection(name, m_sections.begin()); }

bool DKConfigFile::DeleteSection(const DKString& name, SectionIterator from) {
  const DKConfigLockGuard guard(*this);
  return EraseNamed(m_sections, from, name, &DKConfigSection::m_name);
}

void DKConfigFile::Clear() {
  const DKConfigLockGuard guard(*this);
  m_sections.clear();
}

const DKString* DKConfigFile::FindValue(const DKString& section, const DKString& key) const {
  const auto s = FindNamed(m_sections.begin(), m_sections.end(), section, &DKConfigSection::m_name);
  if (s == m_sections.end())
    return nullptr;
  const auto line = FindNamed(s->m_lines.begin(), s->m_lines.end(), key, &DKConfigLine::m_key);
  return line == s->m_lines.end() ? nullptr : &line->m_value;
}

DKString DKConfigFile::GetString(const DKString& section, const DKString& key, const DKString& defaultValue) const {
  const DKConfigLockGuard guard(*this);
  const DKString* value = FindValue(section, key);
  return value ? *value : defaultValue;
}

long DKConfigFile::GetLong(const DKString& section, const DKString& key, long defaultValue) const {
  const DKConfigLockGuard guard(*this);
  const DKString* value = FindValue(section, key);
  return value ? value->AsLong() : defaultValue;
}

void DKConfigFile::SetString(const DKString& section, const DKString& key, const DKString& value) {
  const DKConfigLockGuard guard(*this);
  SectionIterator s = FindSection(section);
  if (s == m_sections.end()) {
    const bool closing = !m_sections.empty() && IsClosingComments(m_sections, m_sections.size() - 1);
    s = AddSection(section, closing ? m_sections.end() - 1 : m_sections.end());
  }
  const DKConfigSection::LineIterator line = s->FindLine(key);
  if (line == s->m_lines.end())
    s->AddLine(key, value);
  else
    line->SetValue(value);
}

void DKConfigFile::SetLong(const DKString& section, const DKString& key, long value) {
  SetString(section, key, NumberText(value));
}

// ---------------------------------------------------------------------------------------------
// Stream operators

std::istream& operator>>(std::istream& in, DKConfigComments& comments) { return ReadComments(in, comments); }
std::istream& operator>>(std::istream& in, DKConfigLine& line) { return ReadLine(in, line); }
std::istream& operator>>(std::istream& in, DKConfigSection& section) { return ReadSection(in, section); }
std::istream& operator>>(std::istream& in, DKConfigFile& file) { return ReadFile(in, file); }
std::wistream& operator>>(std::wistream& in, DKConfigComments& comments) { return ReadComments(in, comments); }
std::wistream& operator>>(std::wistream& in, DKConfigLine& line) { return ReadLine(in, line); }
std::wistream& operator>>(std::wistream& in, DKConfigSection& section) { return ReadSection(in, section); }
std::wistream& operator>>(std::wistream& in, DKConfigFile& file) { return ReadFile(in, file); }

std::ostream& operator<<(std::ostream& out, const DKConfigComments& comments) {
  return WriteToStream(out, comments, [&](auto& sink) { WriteComments(sink, DKConfigIO::Texts(comments)); });
}
std::ostream& operator<<(std::ostream& out, const DKConfigLine& line) {
  return WriteToStream(out, line, [&](auto& sink) { WriteLine(sink, line); });
}
std::ostream& operator<<(std::ostream& out, const DKConfigSection& section) {
  return WriteToStream(out, section, [&](auto& sink) {
    WriteSection(sink, section, !DKConfigIO::Name(section).IsEmpty());
  });
}
std::ostream& operator<<(std::ostream& out, const DKConfigFile& file) {
  return WriteToStream(out, file, [&](auto& sink) { WriteFile(sink, DKConfigIO::Sections(file)); });
}
std::wostream& operator<<(std::wostream& out, const DKConfigComments& comments) {
  return WriteToStream(out, comments, [&](auto& sink) { WriteComments(sink, DKConfigIO::Texts(comments)); });
}
std::wostream& operator<<(std::wostream& out, const DKConfigLine& line) {
  return WriteToStream(out, line, [&](auto& sink) { WriteLine(sink, line); });
}
std::wostream& operator<<(std::wostream& out, const DKConfigSection& section) {
  return WriteToStream(out, section, [&](auto& sink) {
    WriteSection(sink, section, !DKConfigIO::Name(section).IsEmpty());
  });
}
std::wostream& operator<<(std::wostream& out, const DKConfigFile& file) {
  return WriteToStream(out, file, [&](auto& sink) { WriteFile(sink, DKConfigIO::Sections(file)); });
}
