// Configuration files: the tree of sections, key lines and comment blocks, its reader and
// writer (shared by the files on disk and the stream operators), and the encodings on disk.
#include <DorvikCore/DKConfigFile.h>
#include <DorvikCore/DKException.h>

#include "os/DKFile.h"
#include "text/DKUtf.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <istream>
#include <ostream>
#include <type_traits>

// Access to the items' members for the reader and the writer below.
struct DKConfigIO {
  static DKConfigComments::CommentVector& Texts(DKConfigComments& c) noexcept { return c.m_comments; }
  static const DKConfigComments::CommentVector& Texts(const DKConfigComments& c) noexcept { return c.m_comments; }
  static DKString& Markers(DKConfigComments& c) noexcept { return c.m_markers; }
  static const DKString& Markers(const DKConfigComments& c) noexcept { return c.m_markers; }
  static DKString& Key(DKConfigLine& line) noexcept { return line.m_key; }
  static const DKString& Key(const DKConfigLine& line) noexcept { return line.m_key; }
  static DKString& Value(DKConfigLine& line) noexcept { return line.m_value; }
  static const DKString& Value(const DKConfigLine& line) noexcept { return line.m_value; }
  static DKString& Name(DKConfigSection& section) noexcept { return section.m_name; }
  static const DKString& Name(const DKConfigSection& section) noexcept { return section.m_name; }
  static DKConfigSection::LineVector& Lines(DKConfigSection& section) noexcept { return section.m_lines; }
  static const DKConfigFile::SectionVector& Sections(const DKConfigFile& file) noexcept { return file.m_sections; }
  static const DKString& LeadingText(const DKConfigFile& file) noexcept { return file.m_leadingText; }
  static void Adopt(DKConfigFile& file, DKConfigFile::SectionVector& sections, DKString& leadingText,
                    std::vector<DKConfigLoadNote>& notes, std::size_t noteCount) {
    file.Adopt(sections, leadingText, notes, noteCount);
  }
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

// Long texts are made and given back in pieces of this many units, so that a file's bytes and
// what is made of them are never both whole in memory.
constexpr std::size_t kPieceUnits = std::size_t(1) << 20;

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

// A character that may start a comment line: ASCII punctuation other than the format's own
// "[", "]" and "=".
bool IsMarkerCharacter(DKChar c) noexcept {
  const bool punctuation = (c >= '!' && c <= '/') || (c >= ':' && c <= '@') || (c >= '[' && c <= '`') ||
                           (c >= '{' && c <= '~');
  return punctuation && c != '[' && c != ']' && c != '=';
}

// The markers a reader takes as the start of a comment line: ';' and those given.
class MarkerSet {
public:
  explicit MarkerSet(const DKString& extra = DKString()) noexcept {
    Add(';');
    for (const DKChar c : extra)
      if (IsMarkerCharacter(c))
        Add(c);
  }
  bool Has(Code c) const noexcept { return c >= 0 && c < 128 && (m_bits[c >> 6] >> (c & 63) & 1u) != 0; }

private:
  void Add(unsigned c) noexcept { m_bits[c >> 6] |= std::uint64_t(1) << (c & 63); }
  std::uint64_t m_bits[2] = {0, 0};
};

// The notes of one read: the first maxLoadNotes of them, and how many there were.
struct NoteList {
  std::vector<DKConfigLoadNote> notes;
  std::size_t count = 0;
  void Add(DKConfigLoadNote::Kind kind, std::size_t first, std::size_t last) {
    ++count;
    if (notes.size() < DKConfigFile::maxLoadNotes)
      notes.push_back({kind, first, last});
  }
  // In file order: a key's own note comes after those about the lines inside it.
  void Sort() {
    std::stable_sort(notes.begin(), notes.end(),
                     [](const DKConfigLoadNote& a, const DKConfigLoadNote& b) { return a.firstLine < b.firstLine; });
  }
};

// ---------------------------------------------------------------------------------------------
// Sources: what the reader reads from. Each gives units one at a time (Peek, Skip), jumps to the
// end of a line, and makes DKString text of a stretch it has passed (positions from Pos). Release
// says that nothing before a position will be asked for again.

// UTF-8 text in memory, already checked to be valid. The reader only looks at ASCII units, and
// a byte of a multi-byte character is never one of them, so it reads the bytes as they are.
class Utf8Memory {
public:
  Utf8Memory(const unsigned char* begin, std::size_t size, DKFileBytes* pages, std::size_t pageOffset) noexcept
      : m_begin(begin), m_p(begin), m_end(begin + size), m_pages(pages), m_pageOffset(pageOffset) {}

  Code Peek() const noexcept { return m_p == m_end ? kEnd : static_cast<Code>(*m_p); }
  void Skip() noexcept { ++m_p; }
  std::size_t Pos() const noexcept { return static_cast<std::size_t>(m_p - m_begin); }
  Code At(std::size_t pos) const noexcept { return m_begin[pos]; }

  // Moves to the next line feed or stop, whichever comes first; returns the unit there.
  Code SkipToLineEndOr(Code stop) noexcept {
    // The line's end is kept: a key line looks for "=" and then for the end of the same line.
    if (!m_haveLineEnd || m_lineEnd < m_p) {
      const void* lf = std::memchr(m_p, '\n', static_cast<std::size_t>(m_end - m_p));
      m_lineEnd = lf ? static_cast<const unsigned char*>(lf) : m_end;
      m_haveLineEnd = true;
    }
    if (stop != '\n')
      if (const void* found = std::memchr(m_p, static_cast<int>(stop), static_cast<std::size_t>(m_lineEnd - m_p))) {
        m_p = static_cast<const unsigned char*>(found);
        return stop;
      }
    m_p = m_lineEnd;
    return Peek();
  }
  std::size_t Find(Code unit, std::size_t from, std::size_t to) const noexcept {
    const void* found = std::memchr(m_begin + from, static_cast<int>(unit), to - from);
    return found ? static_cast<std::size_t>(static_cast<const unsigned char*>(found) - m_begin) : to;
  }
  // The position at or before pos where a character starts.
  std::size_t CharStart(std::size_t pos) const noexcept {
    while (pos > 0 && (m_begin[pos] & 0xC0) == 0x80)
      --pos;
    return pos;
  }
  void Append(DKString& out, std::size_t from, std::size_t to) const {
    // Most texts of a file are short and ASCII: widened on the stack, they are copied once.
    constexpr std::size_t shortText = 256;
    const unsigned char* text = m_begin + from;
    const std::size_t count = to - from;
    if (count <= shortText) {
      DKChar units[shortText];
      std::size_t i = 0;
      for (; i < count && text[i] < 0x80; ++i)
        units[i] = text[i];
      if (i == count) {
        out.Append(units, count);
        return;
      }
    }
    dkutf::Utf8ToUtf16(reinterpret_cast<const char*>(text), count, out, true);
  }
  void Release(std::size_t pos) noexcept {
    if (m_pages && pos >= m_released + kPieceUnits) {
      m_pages->Release(m_pageOffset + pos);
      m_released = pos;
    }
  }

private:
  const unsigned char* m_begin;
  const unsigned char* m_p;
  const unsigned char* m_end;
  const unsigned char* m_lineEnd = nullptr;
  bool m_haveLineEnd = false;
  DKFileBytes* m_pages;
  std::size_t m_pageOffset;
  std::size_t m_released = 0;
};

// UTF-16 text in memory, as bytes in either order; positions count units.
template <bool Little>
class Utf16Memory {
public:
  Utf16Memory(const unsigned char* begin, std::size_t units, DKFileBytes* pages, std::size_t pageOffset) noexcept
      : m_bytes(begin), m_size(units), m_pages(pages), m_pageOffset(pageOffset) {}

  Code Peek() const noexcept { return m_i == m_size ? kEnd : At(m_i); }
  void Skip() noexcept { ++m_i; }
  std::size_t Pos() const noexcept { return m_i; }
  Code At(std::size_t pos) const noexcept { return Unit(pos); }
  Code SkipToLineEndOr(Code stop) noexcept {
    for (; m_i < m_size; ++m_i) {
      const Code u = Unit(m_i);
      if (u == '\n' || u == stop)
        return u;
    }
    return kEnd;
  }
  std::size_t Find(Code unit, std::size_t from, std::size_t to) const noexcept {
    while (from < to && Unit(from) != unit)
      ++from;
    return from;
  }
  std::size_t CharStart(std::size_t pos) const noexcept { return pos; } // units are copied as they are
  void Append(DKString& out, std::size_t from, std::size_t to) const {
    dkutf::ReserveMore(out, to - from);
    dkutf::Utf16Writer writer(out);
    for (std::size_t i = from; i < to; ++i)
      writer.Put(Unit(i));
    writer.Flush();
  }
  void Release(std::size_t pos) noexcept {
    if (m_pages && pos >= m_released + kPieceUnits) {
      m_pages->Release(m_pageOffset + 2 * pos);
      m_released = pos;
    }
  }

private:
  DKChar Unit(std::size_t i) const noexcept {
    const unsigned first = m_bytes[2 * i], second = m_bytes[2 * i + 1];
    return static_cast<DKChar>(Little ? first | second << 8 : first << 8 | second);
  }

  const unsigned char* m_bytes;
  std::size_t m_size;
  std::size_t m_i = 0;
  DKFileBytes* m_pages;
  std::size_t m_pageOffset;
  std::size_t m_released = 0;
};

// Text of a stream's units as DKString.
template <class CharT>
void AppendUnits(DKString& out, const CharT* text, std::size_t count) {
  if (count == 0)
    return;
  if constexpr (std::is_same_v<CharT, DKChar>) {
    out.Append(text, count);
  } else if constexpr (std::is_same_v<CharT, char>) {
    dkutf::Utf8ToUtf16(text, count, out, true);
  } else {
    const std::u32string wide(text, text + count);
    dkutf::Utf32ToUtf16(wide.data(), wide.size(), out);
  }
}

// A standard input stream, read through its buffer. The units passed since the last Release are
// kept, as the text of an item is made once the item's end is known. A few units can be given
// back (after a look for a byte-order mark).
template <class CharT>
class StreamSource {
public:
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
    const Code c = Peek();
    if (c == kEnd)
      return;
    if (m_given)
      --m_given;
    else
      m_buffer->sbumpc();
    if (m_keeping)
      m_kept.push_back(static_cast<CharT>(c));
    ++m_pos;
  }
  std::size_t Pos() const noexcept { return m_pos; }
  Code At(std::size_t pos) const noexcept { return Value(m_kept[pos - m_keptFrom]); }
  Code SkipToLineEndOr(Code stop) {
    for (;;) {
      const Code c = Peek();
      if (c == kEnd || c == '\n' || c == stop)
        return c;
      Skip();
    }
  }
  std::size_t Find(Code unit, std::size_t from, std::size_t to) const noexcept {
    while (from < to && At(from) != unit)
      ++from;
    return from;
  }
  std::size_t CharStart(std::size_t pos) const noexcept {
    if constexpr (std::is_same_v<CharT, char>)
      while (pos > m_keptFrom && (At(pos) & 0xC0) == 0x80)
        --pos;
    return pos;
  }
  void Append(DKString& out, std::size_t from, std::size_t to) const {
    AppendUnits(out, m_kept.data() + (from - m_keptFrom), to - from);
  }
  void Release(std::size_t pos) {
    if (pos <= m_keptFrom)
      return;
    m_kept.erase(0, std::min(pos - m_keptFrom, m_kept.size()));
    m_keptFrom = pos;
  }
  bool AtEnd() const noexcept { return m_atEnd; }

  // Skips a byte-order mark at the start of the text; positions count from after it.
  void SkipByteOrderMark() {
    m_keeping = false;
    if constexpr (std::is_same_v<CharT, char>) {
      static constexpr Code mark[3] = {0xEF, 0xBB, 0xBF};
      int matched = 0;
      while (matched < 3 && Peek() == mark[matched]) {
        Skip();
        ++matched;
      }
      if (matched < 3)
        while (matched > 0)
          m_back[m_given++] = mark[--matched];
    } else {
      if (Peek() == 0xFEFF)
        Skip();
    }
    m_keeping = true;
    m_pos = 0;
  }

private:
  static Code Value(CharT c) noexcept { return static_cast<Code>(static_cast<std::make_unsigned_t<CharT>>(c)); }

  std::basic_streambuf<CharT>* m_buffer;
  Code m_back[3] = {};
  int m_given = 0;
  bool m_atEnd = false;
  bool m_keeping = true;
  std::size_t m_pos = 0;
  std::basic_string<CharT> m_kept;
  std::size_t m_keptFrom = 0;
};

// ---------------------------------------------------------------------------------------------
// The reader

// What becomes of carriage returns in a text the reader takes.
enum class CarriageReturns {
  Keep,
  FoldLineEnds, // those right before a line feed go: they belong to the line end
  Drop,
};

template <class Source>
class Reader {
public:
  explicit Reader(Source& in, const MarkerSet& markers = MarkerSet(), NoteList* notes = nullptr) noexcept
      : m_in(in), m_markers(markers), m_notes(notes) {}

  // The comment and empty lines in front of the next item; blanks are skipped. markers gets
  // one marker per comment unless every one is ';'.
  void Comments(CommentVector& texts, DKString& markers) {
    texts.clear();
    markers.Clear();
    for (;;) {
      const Code c = m_in.Peek();
      if (m_markers.Has(c)) {
        m_in.Skip();
        const std::size_t start = m_in.Pos();
        const bool ended = m_in.SkipToLineEndOr('\n') == '\n';
        std::size_t end = m_in.Pos();
        while (end > start && m_in.At(end - 1) == '\r')
          --end;
        Take(texts.emplace_back(), start, end, CarriageReturns::Keep);
        AddMarker(markers, texts.size(), static_cast<DKChar>(c));
        if (ended)
          EndLine();
      } else if (c == '\n') {
        EndLine();
        texts.emplace_back();
        AddMarker(markers, texts.size(), ';');
      } else if (IsBlank(c)) {
        m_in.Skip();
      } else {
        if (c == '#')
          NoteHashLine();
        return;
      }
    }
  }

  // key "=" value up to the end of the line. Text without "=" is part of the key, line breaks
  // included. Without key and value the line is only passed over. Returns the number of the
  // line the value is on.
  std::size_t KeyLine(DKString* key, DKString* value, const DKString* previousKey = nullptr) {
    const std::size_t first = m_line, keyStart = m_in.Pos();
    for (;;) {
      const Code c = m_in.SkipToLineEndOr('=');
      if (c == kEnd)
        throw DKConfigStreamException(kEofInKey);
      if (c == '=')
        break;
      EndLine();
      while (IsBlank(m_in.Peek()))
        m_in.Skip();
      if (m_in.Peek() == '[')
        Note(DKConfigLoadNote::HeaderInsideKey, m_line, m_line);
      else if (m_in.Peek() == '#')
        NoteHashLine();
    }
    std::size_t keyEnd = m_in.Pos();
    m_in.Skip();
    const bool oneLine = m_line == first;
    if (!oneLine)
      Note(DKConfigLoadNote::KeyOverSeveralLines, first, m_line);
    if (key) {
      while (keyEnd > keyStart && IsWhite(m_in.At(keyEnd - 1)))
        --keyEnd;
      if (oneLine)
        TakeKey(*key, keyStart, keyEnd, previousKey);
      else
        Take(*key, keyStart, keyEnd, CarriageReturns::FoldLineEnds);
    }

    for (Code c = m_in.Peek(); c != '\n' && IsWhite(c); c = m_in.Peek())
      m_in.Skip();
    const std::size_t valueStart = m_in.Pos(), line = m_line;
    const bool ended = m_in.SkipToLineEndOr('\n') == '\n';
    if (value) {
      std::size_t valueEnd = m_in.Pos();
      while (valueEnd > valueStart && IsBlank(m_in.At(valueEnd - 1)))
        --valueEnd;
      Take(*value, valueStart, valueEnd, CarriageReturns::Drop);
    }
    if (ended)
      EndLine();
    return line;
  }

  // "[" name "]" and the blanks after it up to the end of the line. False at the end of the input.
  bool Header(DKString& name) {
    Code c = m_in.Peek();
    if (c == kEnd)
      return false;
    if (c != '[')
      throw DKConfigStreamException(kNoOpeningBracket);
    m_in.Skip();
    const std::size_t start = m_in.Pos(), first = m_line;
    while ((c = m_in.SkipToLineEndOr(']')) != ']') {
      if (c == kEnd)
        throw DKConfigStreamException(kEofInName);
      EndLine();
    }
    const std::size_t end = m_in.Pos();
    m_in.Skip();
    // A header must be followed by something: even "]" as the last unit is refused.
    if (m_in.Peek() == kEnd)
      throw DKConfigStreamException(kEofInName);
    Take(name, start, end, m_line == first ? CarriageReturns::Keep : CarriageReturns::FoldLineEnds);
    for (c = m_in.Peek(); c != kEnd; c = m_in.Peek()) {
      if (c == '\n') {
        EndLine();
        break;
      }
      if (!IsBlank(c))
        throw DKConfigStreamException(kAfterClosingBracket);
      m_in.Skip();
    }
    return true;
  }

  // The whole text. Each comment block goes to the item after it; comments at the end become a
  // last section without a name. Key lines in front of the first header are not in the tree:
  // the text up to the end of the last of them goes to leading, as it stands. The items are
  // given owner as they are made.
  void File(SectionVector& out, DKString& leading, const DKConfigLockableI* owner) {
    out.clear();
    leading.Clear();
    CommentVector block;
    DKString blockMarkers;
    const auto giveBlock = [&](DKConfigComments& comments) {
      DKConfigIO::Texts(comments) = std::move(block);
      DKConfigIO::Markers(comments) = std::move(blockMarkers);
    };
    // The lines of the open section, collected so that the section's vector is sized once.
    DKConfigSection::LineVector lines;
    std::size_t previous = 0; // one more than the index of the section before the open one
    const auto closeSection = [&] {
      if (!out.empty())
        DKConfigIO::Lines(out.back()).assign(std::make_move_iterator(lines.begin()), std::make_move_iterator(lines.end()));
      lines.clear();
      previous = out.size();
    };
    std::size_t leadingEnd = 0;
    bool open = false;
    m_hold = 0; // the leading text is taken from the start
    for (;;) {
      Comments(block, blockMarkers);
      const Code c = m_in.Peek();
      if (c == kEnd)
        break;
      if (c == '[') {
        if (!open)
          Leading(leading, leadingEnd);
        open = true;
        closeSection();
        DKConfigSection& section = out.emplace_back();
        section.SetOwner(owner);
        Header(DKConfigIO::Name(section));
        giveBlock(section.GetComments());
      } else if (open) {
        DKConfigLine& line = lines.emplace_back();
        line.SetOwner(owner);
        const DKString* previousKey = nullptr;
        if (previous) {
          const DKConfigSection::LineVector& before = DKConfigIO::Lines(out[previous - 1]);
          if (lines.size() <= before.size())
            previousKey = &DKConfigIO::Key(before[lines.size() - 1]);
        }
        KeyLine(&DKConfigIO::Key(line), &DKConfigIO::Value(line), previousKey);
        giveBlock(line.GetComments());
      } else {
        const std::size_t first = m_line;
        Note(DKConfigLoadNote::KeyBeforeFirstSection, first, KeyLine(nullptr, nullptr));
        leadingEnd = m_in.Pos();
      }
      Keep(m_in.Pos());
    }
    if (!open)
      Leading(leading, leadingEnd);
    if (m_notes)
      m_notes->Sort();
    closeSection();
    if (!block.empty()) {
      DKConfigSection& closing = out.emplace_back();
      closing.SetOwner(owner);
      giveBlock(closing.GetComments());
    }
  }

private:
  void EndLine() {
    m_in.Skip();
    ++m_line;
  }

  void Note(DKConfigLoadNote::Kind kind, std::size_t first, std::size_t last) {
    if (m_notes)
      m_notes->Add(kind, first, last);
  }
  void NoteHashLine() {
    if (!m_markers.Has('#'))
      Note(DKConfigLoadNote::HashLineAsText, m_line, m_line);
  }

  static void AddMarker(DKString& markers, std::size_t count, DKChar marker) {
    if (markers.IsEmpty()) {
      if (marker == ';')
        return;
      markers = DKString(DKChar(';'), count - 1);
    }
    markers.Append(marker);
  }

  // Nothing before pos will be read again, unless the leading text still holds it.
  void Keep(std::size_t pos) { m_in.Release(std::min(pos, m_hold)); }

  // The text from the start up to end, every line ended by a line feed.
  void Leading(DKString& out, std::size_t end) {
    m_hold = static_cast<std::size_t>(-1);
    if (end == 0)
      return;
    const bool ended = m_in.At(end - 1) == '\n';
    if (!ended)
      while (end > 0 && m_in.At(end - 1) == '\r')
        --end;
    dkutf::ReserveMore(out, end + 1);
    Take(out, 0, end, CarriageReturns::FoldLineEnds);
    if (!ended)
      out.Append(DKChar('\n'));
  }

  // Files repeat the keys of one section in the next. A key equal to the one at its place in
  // the section before shares that key's text (a copy of a DKString shares its block): no block
  // is made for it.
  void TakeKey(DKString& out, std::size_t from, std::size_t to, const DKString* previous) {
    const std::size_t count = to - from;
    if (previous && previous->Length() == count) {
      std::size_t i = 0;
      for (Code c; i < count && (c = m_in.At(from + i)) < 0x80 && c == (*previous)[i];)
        ++i;
      if (i == count) {
        out = *previous;
        return;
      }
    }
    Take(out, from, to, CarriageReturns::Keep);
  }

  // Appends the text between two positions.
  void Take(DKString& out, std::size_t from, std::size_t to, CarriageReturns crs) {
    if (from >= to)
      return;
    std::size_t cr = crs == CarriageReturns::Keep ? to : m_in.Find('\r', from, to);
    if (cr == to && to - from <= kPieceUnits) {
      m_in.Append(out, from, to);
      return;
    }
    dkutf::ReserveMore(out, to - from);
    for (;;) {
      AppendInPieces(out, from, cr);
      if (cr == to)
        return;
      std::size_t run = cr;
      while (run < to && m_in.At(run) == '\r')
        ++run;
      if (crs == CarriageReturns::FoldLineEnds && !(run < to && m_in.At(run) == '\n'))
        m_in.Append(out, cr, run);
      from = run;
      cr = m_in.Find('\r', from, to);
    }
  }

  void AppendInPieces(DKString& out, std::size_t from, std::size_t to) {
    while (to - from > kPieceUnits) {
      std::size_t cut = m_in.CharStart(from + kPieceUnits);
      if (cut <= from)
        cut = from + kPieceUnits;
      m_in.Append(out, from, cut);
      from = cut;
      Keep(from);
    }
    if (from < to)
      m_in.Append(out, from, to);
  }

  Source& m_in;
  const MarkerSet m_markers;
  NoteList* m_notes;
  std::size_t m_line = 1;
  std::size_t m_hold = static_cast<std::size_t>(-1);
};

// ---------------------------------------------------------------------------------------------
// The writer

// Each comment as its marker and text, an empty ';' comment as an empty line. Carriage returns
// at the end of a text are left out: they would read back as part of the line end.
template <class Sink>
void WriteComments(Sink& out, const DKConfigComments& comments) {
  const CommentVector& texts = DKConfigIO::Texts(comments);
  const DKString& markers = DKConfigIO::Markers(comments);
  for (std::size_t i = 0; i < texts.size(); ++i) {
    const DKString& text = texts[i];
    std::size_t length = text.Length();
    while (length && text[length - 1] == '\r')
      --length;
    const DKChar marker = markers.IsEmpty() ? DKChar(';') : markers[i];
    if (length || marker != ';') {
      out.Ascii(static_cast<char>(marker));
      out.Text(text.c_str(), length);
    }
    out.Ascii('\n');
  }
}

template <class Sink>
void WriteLine(Sink& out, const DKConfigLine& line) {
  WriteComments(out, line.GetComments());
  out.Text(DKConfigIO::Key(line));
  out.Ascii('=');
  out.Text(DKConfigIO::Value(line));
  out.Ascii('\n');
}

template <class Sink>
void WriteSection(Sink& out, const DKConfigSection& section, bool header) {
  WriteComments(out, section.GetComments());
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

// The leading text first, then the sections. A section without a name is written with an empty
// header "[]" so that it reads back as the same section, except when it holds the closing
// comments.
template <class Sink>
void WriteFile(Sink& out, const DKString& leading, const SectionVector& sections) {
  out.Text(leading);
  for (std::size_t i = 0; i < sections.size(); ++i) {
    const bool named = !DKConfigIO::Name(sections[i]).IsEmpty();
    WriteSection(out, sections[i], named || !IsClosingComments(sections, i));
  }
}

bool IsUtf16(DKConfigFile::Encoding encoding) noexcept {
  return encoding != DKConfigFile::Utf8 && encoding != DKConfigFile::Utf8WithBom;
}

bool IsLittleEndian(DKConfigFile::Encoding encoding) noexcept {
  return encoding == DKConfigFile::Utf16LE || encoding == DKConfigFile::Utf16LEWithoutBom;
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
    default: break;
    }
  }
  void Ascii(char c) {
    if (c == '\n' && m_crlf)
      Encode(DK_T("\r\n"), 2);
    else if (!IsUtf16(m_encoding))
      m_out.push_back(c);
    else
      Encode16(static_cast<DKChar>(c));
  }
  void Text(const DKString& text) { Text(text.c_str(), text.Length()); }
  void Text(const DKChar* p, std::size_t n) {
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
  void Encode(const DKChar* p, std::size_t n) {
    if (n == 0)
      return;
    if (!IsUtf16(m_encoding)) {
      dkutf::Utf16ToUtf8(p, n, m_out);
      return;
    }
    for (std::size_t i = 0; i < n; ++i)
      Encode16(p[i]);
  }
  void Encode16(DKChar u) {
    const char high = static_cast<char>(u >> 8), low = static_cast<char>(u & 0xFF);
    if (IsLittleEndian(m_encoding)) {
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
  void Text(const DKString& text) { Text(text.c_str(), text.Length()); }
  void Text(const DKChar* p, std::size_t n) {
    if (n == 0)
      return;
    if constexpr (std::is_same_v<CharT, DKChar>) {
      m_out.write(p, static_cast<std::streamsize>(n));
    } else if constexpr (std::is_same_v<CharT, char>) {
      std::string units;
      dkutf::Utf16ToUtf8(p, n, units);
      m_out.write(units.data(), static_cast<std::streamsize>(units.size()));
    } else {
      std::u32string wide;
      dkutf::Utf16ToUtf32(p, n, wide);
      const std::basic_string<CharT> units(wide.begin(), wide.end());
      m_out.write(units.data(), static_cast<std::streamsize>(units.size()));
    }
  }

private:
  std::basic_ostream<CharT>& m_out;
};

// ---------------------------------------------------------------------------------------------
// Bytes on disk

// How the bytes of a file are read: the encoding, where the text starts (after a byte-order
// mark) and the file's line end.
struct Layout {
  DKConfigFile::Encoding encoding = DKConfigFile::Utf8;
  std::size_t start = 0;
  bool crlf = false;
};

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

// How many lines of UTF-8 text start with "[": the sections it will have, in most files.
std::size_t CountHeaderLines(const unsigned char* text, std::size_t length) noexcept {
  std::size_t count = 0;
  for (const unsigned char* p = text; const void* found = std::memchr(p, '[', static_cast<std::size_t>(text + length - p));) {
    const auto* bracket = static_cast<const unsigned char*>(found);
    count += bracket == text || bracket[-1] == '\n';
    p = bracket + 1;
  }
  return count + 1;
}

// Finds the encoding and the line end of a file's bytes, and checks that the text is valid in
// that encoding.
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

// Why the format cannot carry the tree; empty when it can.
DKString FindUnwritable(const SectionVector& sections, const MarkerSet& markers) {
  DKString why;
  const auto hasLineFeed = [](const DKString& text) { return text.Find(DKChar('\n')) != DKString::npos; };
  const auto checkComments = [&](const DKConfigComments& comments) {
    for (auto it = comments.begin(); it != comments.end(); ++it) {
      const DKChar marker = comments.GetMarker(it);
      if (hasLineFeed(*it)) {
        why.Format(DK_T("the comment \"%s\" holds a line feed"), it->c_str());
        return false;
      }
      if (!markers.Has(marker)) {
        why.Format(DK_T("the comment \"%s\" starts with '%c', which this file does not read as a comment marker"),
                   it->c_str(), static_cast<int>(marker));
        return false;
      }
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
      if (first != DKString::npos && (markers.Has(key[first]) || key[first] == '[' || key[first] == '\n'))
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
    const std::lock_guard guard(comments);
    Reader<StreamSource<CharT>>(source).Comments(DKConfigIO::Texts(comments), DKConfigIO::Markers(comments));
  });
}

template <class CharT>
std::basic_istream<CharT>& ReadLine(std::basic_istream<CharT>& in, DKConfigLine& line) {
  return ReadFromStream(in, [&](StreamSource<CharT>& source) {
    const std::lock_guard guard(line);
    line.Clear();
    Reader<StreamSource<CharT>> reader(source);
    reader.Comments(DKConfigIO::Texts(line.GetComments()), DKConfigIO::Markers(line.GetComments()));
    reader.KeyLine(&DKConfigIO::Key(line), &DKConfigIO::Value(line));
  });
}

template <class CharT>
std::basic_istream<CharT>& ReadSection(std::basic_istream<CharT>& in, DKConfigSection& section) {
  return ReadFromStream(in, [&](StreamSource<CharT>& source) {
    const std::lock_guard guard(section);
    section.Clear();
    Reader<StreamSource<CharT>> reader(source);
    reader.Comments(DKConfigIO::Texts(section.GetComments()), DKConfigIO::Markers(section.GetComments()));
    reader.Header(DKConfigIO::Name(section));
  });
}

template <class CharT>
std::basic_istream<CharT>& ReadFile(std::basic_istream<CharT>& in, DKConfigFile& file) {
  const MarkerSet markers(file.GetCommentMarkers());
  return ReadFromStream(in, [&](StreamSource<CharT>& source) {
    source.SkipByteOrderMark();
    SectionVector sections;
    DKString leading;
    NoteList notes;
    Reader<StreamSource<CharT>>(source, markers, &notes).File(sections, leading, &file);
    DKConfigIO::Adopt(file, sections, leading, notes.notes, notes.count);
  });
}

template <class CharT, class Write>
std::basic_ostream<CharT>& WriteToStream(std::basic_ostream<CharT>& out, const DKConfigLockableI& item, Write write) {
  const std::lock_guard guard(item);
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
  const std::lock_guard guard(*this);
  return InsertComment(m_comments.end(), text, ';');
}

DKConfigComments::Iterator DKConfigComments::AddComment(const DKString& text, Iterator before) {
  const std::lock_guard guard(*this);
  return InsertComment(before, text, ';');
}

DKConfigComments::Iterator DKConfigComments::AddComment(const DKString& text, Iterator before, DKChar marker) {
  const std::lock_guard guard(*this);
  return InsertComment(before, text, marker);
}

DKConfigComments::Iterator DKConfigComments::InsertComment(Iterator before, const DKString& text, DKChar marker) {
  if (!IsMarkerCharacter(marker))
    marker = ';';
  const std::size_t index = static_cast<std::size_t>(before - m_comments.begin());
  DKString markers = m_markers;
  if (!markers.IsEmpty() || marker != ';') {
    if (markers.IsEmpty())
      markers = DKString(DKChar(';'), m_comments.size());
    markers.Insert(index, marker);
  }
  const Iterator added = m_comments.insert(before, text);
  m_markers.swap(markers);
  return added;
}

DKChar DKConfigComments::GetMarker(ConstIterator position) const {
  const std::lock_guard guard(*this);
  return m_markers.IsEmpty() ? DKChar(';') : m_markers[static_cast<std::size_t>(position - m_comments.begin())];
}

bool DKConfigComments::SetMarker(Iterator position, DKChar marker) {
  const std::lock_guard guard(*this);
  if (!IsMarkerCharacter(marker))
    return false;
  if (m_markers.IsEmpty()) {
    if (marker == ';')
      return true;
    m_markers = DKString(DKChar(';'), m_comments.size());
  }
  m_markers.Set(static_cast<std::size_t>(position - m_comments.begin()), marker);
  return true;
}

bool DKConfigComments::SameMarkers(const DKConfigComments& other) const noexcept {
  if (m_markers.IsEmpty() && other.m_markers.IsEmpty())
    return true;
  const std::size_t count = std::min(m_comments.size(), other.m_comments.size());
  for (std::size_t i = 0; i < count; ++i) {
    const DKChar mine = m_markers.IsEmpty() ? DKChar(';') : m_markers[i];
    const DKChar theirs = other.m_markers.IsEmpty() ? DKChar(';') : other.m_markers[i];
    if (mine != theirs)
      return false;
  }
  return true;
}

DKConfigComments::Iterator DKConfigComments::DeleteComment(Iterator position) {
  const std::lock_guard guard(*this);
  if (!m_markers.IsEmpty())
    m_markers.Remove(static_cast<std::size_t>(position - m_comments.begin()), 1);
  return m_comments.erase(position);
}

std::size_t DKConfigComments::GetSize() const {
  const std::lock_guard guard(*this);
  return m_comments.size();
}

void DKConfigComments::Clear() {
  const std::lock_guard guard(*this);
  m_comments.clear();
  m_markers.Clear();
}

DKConfigLine::~DKConfigLine() = default;

DKString DKConfigLine::GetKey() const {
  const std::lock_guard guard(*this);
  return m_key;
}

void DKConfigLine::SetKey(const DKString& key) {
  const std::lock_guard guard(*this);
  m_key = key;
}

DKString DKConfigLine::GetValue() const {
  const std::lock_guard guard(*this);
  return m_value;
}

void DKConfigLine::SetValue(const DKString& value) {
  const std::lock_guard guard(*this);
  m_value = value;
}

void DKConfigLine::SetValue(long long value) { SetValue(NumberText(value)); }

void DKConfigLine::SetValue(double value) { SetValue(NumberText(value)); }

long DKConfigLine::GetValueAsLong(bool* ok) const { return GetValue().AsLong(ok); }

double DKConfigLine::GetValueAsDouble(bool* ok) const { return GetValue().AsDouble(ok); }

void DKConfigLine::Clear() {
  const std::lock_guard guard(*this);
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
  const std::lock_guard guard(*this);
  return m_name;
}

void DKConfigSection::SetName(const DKString& name) {
  const std::lock_guard guard(*this);
  m_name = name;
}

std::size_t DKConfigSection::GetLineCount() const {
  const std::lock_guard guard(*this);
  return m_lines.size();
}

DKConfigSection::LineIterator DKConfigSection::FindLine(const DKString& key) { return FindLine(key, m_lines.begin()); }

DKConfigSection::LineIterator DKConfigSection::FindLine(const DKString& key, LineIterator from) {
  const std::lock_guard guard(*this);
  return FindNamed(from, m_lines.end(), key, &DKConfigLine::m_key);
}

DKConfigSection::ConstLineIterator DKConfigSection::FindLine(const DKString& key) const {
  return FindLine(key, m_lines.begin());
}

DKConfigSection::ConstLineIterator DKConfigSection::FindLine(const DKString& key, ConstLineIterator from) const {
  const std::lock_guard guard(*this);
  return FindNamed(from, m_lines.end(), key, &DKConfigLine::m_key);
}

DKConfigSection::LineIterator DKConfigSection::InsertLine(LineIterator before, DKConfigLine&& line) {
  const std::lock_guard guard(*this);
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
  const std::lock_guard guard(*this);
  return m_lines.erase(position);
}

bool DKConfigSection::DeleteLine(const DKString& key) { return DeleteLine(key, m_lines.begin()); }

bool DKConfigSection::DeleteLine(const DKString& key, LineIterator from) {
  const std::lock_guard guard(*this);
  return EraseNamed(m_lines, from, key, &DKConfigLine::m_key);
}

void DKConfigSection::Clear() {
  const std::lock_guard guard(*this);
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

DKString DKConfigLoadNote::GetText() const {
  DKString text;
  if (firstLine == lastLine)
    text.Format(DK_T("line %llu: "), static_cast<unsigned long long>(firstLine));
  else
    text.Format(DK_T("lines %llu-%llu: "), static_cast<unsigned long long>(firstLine),
                static_cast<unsigned long long>(lastLine));
  switch (kind) {
  case KeyOverSeveralLines:
    return text + DK_T("a key spans several lines (a line without '=' joins the key of the next '=' line)");
  case KeyBeforeFirstSection:
    return text + DK_T("a key line before the first section header: kept as text, it is no setting");
  case HashLineAsText:
    return text + DK_T("a line starting with '#' is read as text, not as a comment ('#' is no comment marker here)");
  case HeaderInsideKey:
    return text + DK_T("a section header inside a key that spans lines starts no section");
  }
  return text;
}

DKSmartPtr<DKConfigFile> DKConfigFile::Load(const DKString& path) {
  DKSmartPtr<DKConfigFile> file(new DKConfigFile(path));
  if (!file->Reload())
    return nullptr;
  return file;
}

DKSmartPtr<DKConfigFile> DKConfigFile::Load(const DKString& path, const DKString& commentMarkers) {
  DKSmartPtr<DKConfigFile> file(new DKConfigFile(path));
  if (!file->SetCommentMarkers(commentMarkers)) {
    file->Fail(DK_T("invalid comment markers"));
    return nullptr;
  }
  if (!file->Reload())
    return nullptr;
  return file;
}

DKConfigFile::DKConfigFile(const DKString& path) : m_fileName(path) {}

DKConfigFile::~DKConfigFile() = default;

void DKConfigFile::Lock() const { m_criticalSection.lock(); }

void DKConfigFile::Unlock() const { m_criticalSection.unlock(); }

bool DKConfigFile::Fail(const DKString& reason) const {
  const std::lock_guard guard(*this);
  m_lastError = reason;
  return false;
}

DKString DKConfigFile::GetLastErrorText() const {
  const std::lock_guard guard(*this);
  return m_lastError;
}

void DKConfigFile::Adopt(SectionVector& sections, DKString& leadingText, std::vector<DKConfigLoadNote>& notes,
                         std::size_t noteCount) {
  const std::lock_guard guard(*this);
  m_sections.swap(sections);
  m_leadingText.swap(leadingText);
  m_notes.swap(notes);
  m_noteCount = noteCount;
  m_lastError.Clear();
}

bool DKConfigFile::Reload() {
  DKFileBytes bytes;
  DKString error;
  if (!DKFile::ReadAll(GetFileName(), bytes, error))
    return Fail(error);
  return Parse(bytes.Data(), bytes.Size(), &bytes);
}

bool DKConfigFile::ReloadFromBytes(const void* data, std::size_t size) {
  return Parse(static_cast<const unsigned char*>(data), size, nullptr);
}

bool DKConfigFile::Parse(const unsigned char* data, std::size_t size, DKFileBytes* pages) {
  static const unsigned char nothing[1] = {0};
  if (!data || !size) {
    data = nothing;
    size = 0;
  }
  Layout layout;
  DKString error;
  if (!Sniff(data, size, layout, error))
    return Fail(error);
  const MarkerSet markers(GetCommentMarkers());
  SectionVector sections;
  DKString leading;
  NoteList notes;
  const auto read = [&](auto& source) {
    Reader<std::remove_reference_t<decltype(source)>>(source, markers, &notes).File(sections, leading, this);
  };
  const unsigned char* text = data + layout.start;
  const std::size_t length = size - layout.start;
  if (!IsUtf16(layout.encoding)) {
    sections.reserve(CountHeaderLines(text, length));
    Utf8Memory source(text, length, pages, layout.start);
    read(source);
  } else if (IsLittleEndian(layout.encoding)) {
    Utf16Memory<true> source(text, length / 2, pages, layout.start);
    read(source);
  } else {
    Utf16Memory<false> source(text, length / 2, pages, layout.start);
    read(source);
  }

  const std::lock_guard guard(*this);
  Adopt(sections, leading, notes.notes, notes.count);
  m_encoding = layout.encoding;
  m_lineEnd = layout.crlf ? LineEndCRLF : LineEndLF;
  return true; // the old tree goes with `sections`, after the lock is released
}

bool DKConfigFile::Serialise(std::string& out) const {
  const DKString why = FindUnwritable(m_sections, MarkerSet(m_commentMarkers));
  if (!why.IsEmpty())
    return Fail(why);
  out.clear();
  ByteSink sink(out, m_encoding, m_lineEnd == LineEndCRLF);
  sink.ByteOrderMark();
  WriteFile(sink, m_leadingText, m_sections);
  return true;
}

DKString DKConfigFile::GetLeadingText() const {
  const std::lock_guard guard(*this);
  return m_leadingText;
}

void DKConfigFile::ClearLeadingText() {
  const std::lock_guard guard(*this);
  m_leadingText.Clear();
}

bool DKConfigFile::SetCommentMarkers(const DKString& markers) {
  DKString extra;
  for (const DKChar c : markers) {
    if (!IsMarkerCharacter(c))
      return false;
    if (c != ';' && extra.Find(c) == DKString::npos)
      extra.Append(c);
  }
  const std::lock_guard guard(*this);
  m_commentMarkers = extra;
  return true;
}

DKString DKConfigFile::GetCommentMarkers() const {
  const std::lock_guard guard(*this);
  return DKString(DK_T(";")) + m_commentMarkers;
}

std::vector<DKConfigLoadNote> DKConfigFile::GetLoadNotes() const {
  const std::lock_guard guard(*this);
  return m_notes;
}

std::size_t DKConfigFile::GetLoadNoteCount() const {
  const std::lock_guard guard(*this);
  return m_noteCount;
}

bool DKConfigFile::SaveToBytes(std::string& out) const {
  const std::lock_guard guard(*this);
  if (!Serialise(out))
    return false;
  m_lastError.Clear();
  return true;
}

bool DKConfigFile::Save() const { return WriteToDisk(false); }

bool DKConfigFile::Save2() const { return WriteToDisk(true); }

bool DKConfigFile::WriteToDisk(bool atomically) const {
  const std::lock_guard guard(*this);
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
  const std::lock_guard guard(*this);
  return m_fileName;
}

void DKConfigFile::SetFileName(const DKString& path) {
  const std::lock_guard guard(*this);
  m_fileName = path;
}

DKConfigFile::Encoding DKConfigFile::GetEncoding() const {
  const std::lock_guard guard(*this);
  return m_encoding;
}

void DKConfigFile::SetEncoding(Encoding encoding) {
  const std::lock_guard guard(*this);
  m_encoding = encoding;
}

DKConfigFile::LineEnd DKConfigFile::GetLineEnd() const {
  const std::lock_guard guard(*this);
  return m_lineEnd;
}

void DKConfigFile::SetLineEnd(LineEnd lineEnd) {
  const std::lock_guard guard(*this);
  m_lineEnd = lineEnd;
}

std::size_t DKConfigFile::GetSectionCount() const {
  const std::lock_guard guard(*this);
  return m_sections.size();
}

DKConfigFile::SectionIterator DKConfigFile::FindSection(const DKString& name) {
  return FindSection(name, m_sections.begin());
}

DKConfigFile::SectionIterator DKConfigFile::FindSection(const DKString& name, SectionIterator from) {
  const std::lock_guard guard(*this);
  return FindNamed(from, m_sections.end(), name, &DKConfigSection::m_name);
}

DKConfigFile::ConstSectionIterator DKConfigFile::FindSection(const DKString& name) const {
  return FindSection(name, m_sections.begin());
}

DKConfigFile::ConstSectionIterator DKConfigFile::FindSection(const DKString& name, ConstSectionIterator from) const {
  const std::lock_guard guard(*this);
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
  const std::lock_guard guard(*this);
  const SectionIterator added = m_sections.insert(before, section);
  added->SetOwner(this);
  return added;
}

DKConfigFile::SectionIterator DKConfigFile::DeleteSection(SectionIterator position) {
  const std::lock_guard guard(*this);
  return m_sections.erase(position);
}

bool DKConfigFile::DeleteSection(const DKString& name) { return DeleteSection(name, m_sections.begin()); }

bool DKConfigFile::DeleteSection(const DKString& name, SectionIterator from) {
  const std::lock_guard guard(*this);
  return EraseNamed(m_sections, from, name, &DKConfigSection::m_name);
}

void DKConfigFile::Clear() {
  const std::lock_guard guard(*this);
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
  const std::lock_guard guard(*this);
  const DKString* value = FindValue(section, key);
  return value ? *value : defaultValue;
}

long DKConfigFile::GetLong(const DKString& section, const DKString& key, long defaultValue) const {
  const std::lock_guard guard(*this);
  const DKString* value = FindValue(section, key);
  return value ? value->AsLong() : defaultValue;
}

void DKConfigFile::SetString(const DKString& section, const DKString& key, const DKString& value) {
  const std::lock_guard guard(*this);
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
  return WriteToStream(out, comments, [&](auto& sink) { WriteComments(sink, comments); });
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
  return WriteToStream(out, file, [&](auto& sink) { WriteFile(sink, DKConfigIO::LeadingText(file), DKConfigIO::Sections(file)); });
}
std::wostream& operator<<(std::wostream& out, const DKConfigComments& comments) {
  return WriteToStream(out, comments, [&](auto& sink) { WriteComments(sink, comments); });
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
  return WriteToStream(out, file, [&](auto& sink) { WriteFile(sink, DKConfigIO::LeadingText(file), DKConfigIO::Sections(file)); });
}
