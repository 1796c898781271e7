// Configuration files, the reader: text to tree, from a file's bytes in memory (UTF-8, or
// UTF-16 in either byte order) or from a standard input stream. Exports DKConfigFile::Load,
// Reload, ReloadFromBytes and Parse, DKConfigLoadNote::GetText and the operators >>; private
// here: the sources the reader reads from, the reader itself and its notes.
#include <DorvikCore/DKConfigFile.h>
#include <DorvikCore/DKException.h>

#include "config/DKConfigIO.h"
#include "os/DKFile.h"
#include "text/DKUtf.h"

#include <algorithm>
#include <cstring>
#include <istream>
#include <string>
#include <type_traits>

using dkconfig::Code;
using dkconfig::CommentVector;
using dkconfig::IsLittleEndian;
using dkconfig::IsUtf16;
using dkconfig::kEnd;
using dkconfig::Layout;
using dkconfig::MarkerSet;
using dkconfig::SectionVector;
using dkconfig::Sniff;

namespace {

const DKChar* const kEofInKey = DK_T("unexpected EOF while parsing a key name of a configuration line");
const DKChar* const kNoOpeningBracket = DK_T("expecting a '[' at the beginning of a section");
const DKChar* const kEofInName = DK_T("unexpected EOF while parsing a section name");
const DKChar* const kAfterClosingBracket = DK_T("unexpected character after the closing ']' of a section name");

inline bool IsBlank(Code c) noexcept { return c == ' ' || c == '\t' || c == '\r'; }
inline bool IsWhite(Code c) noexcept { return IsBlank(c) || c == '\n' || c == '\v' || c == '\f'; }

// Long texts are made and given back in pieces of this many units, so that a file's bytes and
// what is made of them are never both whole in memory.
constexpr std::size_t kPieceUnits = std::size_t(1) << 20;

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

} // namespace

// ---------------------------------------------------------------------------------------------
// Loading

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
  const MarkerSet markers = [&] {
    const std::lock_guard guard(*this);
    return MarkerSet(m_commentMarkers);
  }();
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
