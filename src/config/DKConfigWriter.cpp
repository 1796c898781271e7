// Configuration files, the writer: tree to text, as a file's bytes in its encoding and line end
// or to a standard output stream. Exports DKConfigFile::Serialise, SaveToBytes, Save, Save2 and
// WriteToDisk and the operators <<; private here: the sinks, the writing of each item and the
// check that the format can carry a tree.
#include <DorvikCore/DKConfigFile.h>

#include "config/DKConfigIO.h"
#include "os/DKFile.h"
#include "text/DKUtf.h"

#include <ostream>
#include <string>
#include <type_traits>

using dkconfig::CommentVector;
using dkconfig::IsClosingComments;
using dkconfig::IsLittleEndian;
using dkconfig::IsUtf16;
using dkconfig::MarkerSet;
using dkconfig::SectionVector;

namespace {

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

template <class CharT, class Write>
std::basic_ostream<CharT>& WriteToStream(std::basic_ostream<CharT>& out, const DKConfigLockableI& item, Write write) {
  const std::lock_guard guard(item);
  StreamSink<CharT> sink(out);
  write(sink);
  return out;
}

} // namespace

// ---------------------------------------------------------------------------------------------
// Saving

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

// ---------------------------------------------------------------------------------------------
// Stream operators

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
