// What the parts of the configuration files share, internal to src/config: the reader's and
// the writer's access to the items' members, the units the reader sees, the comment markers, the
// encodings, the closing comments and the look at a file's bytes. The tree is DKConfigFile.cpp,
// the reader DKConfigReader.cpp, the writer DKConfigWriter.cpp and the look at the bytes on
// disk DKConfigEncoding.cpp.
#pragma once

#include <DorvikCore/DKConfigFile.h>

#include <cstddef>
#include <cstdint>
#include <vector>

// Access to the items' members for the reader and the writer.
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

namespace dkconfig {

using CommentVector = DKConfigComments::CommentVector;
using SectionVector = DKConfigFile::SectionVector;

// A unit as the reader sees it: its value, or kEnd after the last one.
typedef long Code;
constexpr Code kEnd = -1;

// A character that may start a comment line: ASCII punctuation other than the format's own
// "[", "]" and "=".
inline bool IsMarkerCharacter(DKChar c) noexcept {
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

// Comments that end a file are held by a last section without a name, lines or header.
inline bool IsClosingComments(const SectionVector& sections, std::size_t index) {
  const DKConfigSection& s = sections[index];
  return index + 1 == sections.size() && s.GetLineCount() == 0 && !s.GetComments().IsEmpty() &&
         DKConfigIO::Name(s).IsEmpty();
}

inline bool IsUtf16(DKConfigFile::Encoding encoding) noexcept {
  return encoding != DKConfigFile::Utf8 && encoding != DKConfigFile::Utf8WithBom;
}

inline bool IsLittleEndian(DKConfigFile::Encoding encoding) noexcept {
  return encoding == DKConfigFile::Utf16LE || encoding == DKConfigFile::Utf16LEWithoutBom;
}

// How the bytes of a file are read: the encoding, where the text starts (after a byte-order
// mark) and the file's line end.
struct Layout {
  DKConfigFile::Encoding encoding = DKConfigFile::Utf8;
  std::size_t start = 0;
  bool crlf = false;
};

// Finds the encoding and the line end of a file's bytes, and checks that the text is valid in
// that encoding. Defined in DKConfigEncoding.cpp.
bool Sniff(const unsigned char* bytes, std::size_t size, Layout& layout, DKString& error);

} // namespace dkconfig
