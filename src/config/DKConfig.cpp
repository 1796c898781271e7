// DKConfig: look-ups that search the configuration file on disk line by line.
#include <DorvikCore/DKConfig.h>

#include "text/DKUtf.h"

#include <filesystem>
#include <string>
#include <system_error>

namespace {

// Names and keys match without regard to case (one unit folds to one unit).
bool SameName(const DKString& a, const DKString& b) {
  return a.Length() == b.Length() && a.Compare(b, DKString::IgnoreCase) == 0;
}

bool IsIn(DKChar c, const DKChar* set) noexcept {
  for (; *set; ++set)
    if (c == *set)
      return true;
  return false;
}

// The next word of line from pos, as strtok gives it: separators in front are skipped, and
// the one separator that ends the word is used up. False when only separators remain.
bool NextWord(const DKString& line, std::size_t& pos, const DKChar* separators, DKString& word) {
  const std::size_t length = line.Length();
  while (pos < length && IsIn(line[pos], separators))
    ++pos;
  if (pos >= length)
    return false;
  const std::size_t start = pos;
  while (pos < length && !IsIn(line[pos], separators))
    ++pos;
  word = line.SubStr(start, pos - start);
  if (pos < length)
    ++pos;
  return true;
}

std::filesystem::path NativePath(const DKString& fileName) {
  const std::string utf8 = fileName.AsUTF8();
  return std::filesystem::path(std::u8string(reinterpret_cast<const char8_t*>(utf8.data()), utf8.size()));
}

// Enough bytes for lookupLineLength units of UTF-8 text.
constexpr std::size_t kLineBytes = 4 * DKConfig::lookupLineLength;

} // namespace

DKConfig::DKConfig() = default;

DKConfig::DKConfig(const DKString& fileName) { Open(fileName); }

DKConfig::~DKConfig() = default;

bool DKConfig::Open(const DKString& fileName) {
  const std::lock_guard<std::mutex> guard(m_lock);
  m_stream.close();
  m_stream.clear();
  m_fileName = fileName;
  m_encoding = Utf8Text;
  m_textStart = 0;

  const std::filesystem::path path = NativePath(fileName);
  // Only a plain file: opening a FIFO would wait for a writer, a device may never end.
  std::error_code error;
  if (!std::filesystem::is_regular_file(path, error))
    return false;
  m_stream.open(path, std::ios::in | std::ios::binary);
  if (!m_stream.is_open())
    return false;

  unsigned char mark[3] = {};
  m_stream.read(reinterpret_cast<char*>(mark), 3);
  const std::streamsize got = m_stream.gcount();
  if (got >= 2 && mark[0] == 0xFF && mark[1] == 0xFE) {
    m_encoding = Utf16LEText;
    m_textStart = 2;
  } else if (got >= 2 && mark[0] == 0xFE && mark[1] == 0xFF) {
    m_encoding = Utf16BEText;
    m_textStart = 2;
  } else if (got == 3 && mark[0] == 0xEF && mark[1] == 0xBB && mark[2] == 0xBF) {
    m_textStart = 3;
  }
  m_stream.clear();
  return true;
}

bool DKConfig::IsOpen() const {
  const std::lock_guard<std::mutex> guard(m_lock);
  return m_stream.is_open();
}

DKString DKConfig::GetFileName() const {
  const std::lock_guard<std::mutex> guard(m_lock);
  return m_fileName;
}

bool DKConfig::ReadLine(DKString& line) const {
  line.Clear();
  std::streambuf* buffer = m_stream.rdbuf();
  typedef std::char_traits<char> Traits;
  bool any = false;
  if (m_encoding == Utf8Text) {
    std::string bytes;
    for (int c = buffer->sbumpc(); c != Traits::eof(); c = buffer->sbumpc()) {
      any = true;
      if (c == '\n')
        break;
      if (bytes.size() < kLineBytes)
        bytes.push_back(static_cast<char>(c));
    }
    if (!bytes.empty() && bytes.back() == '\r')
      bytes.pop_back();
    dkutf::Utf8ToUtf16(bytes.data(), bytes.size(), line, true);
  } else {
    DKStdString units;
    const bool little = m_encoding == Utf16LEText;
    for (;;) {
      const int first = buffer->sbumpc();
      const int second = first == Traits::eof() ? first : buffer->sbumpc();
      if (second == Traits::eof())
        break; // the end, or half a unit before it
      any = true;
      const auto unit = static_cast<DKChar>(little ? first | second << 8 : first << 8 | second);
      if (unit == '\n')
        break;
      if (units.size() <= lookupLineLength)
        units.push_back(unit);
    }
    if (!units.empty() && units.back() == '\r')
      units.pop_back();
    if (!units.empty())
      line.Assign(units.data(), units.size());
  }
  if (line.Length() > lookupLineLength) {
    // Keeps a surrogate pair whole.
    const bool splitsPair = dkutf::IsHighSurrogate(line[lookupLineLength - 1]);
    line.Remove(lookupLineLength - (splitsPair ? 1 : 0), DKString::npos);
  }
  return any;
}

bool DKConfig::Find(const DKString& section, const DKString& key, DKString& value) const {
  const std::lock_guard<std::mutex> guard(m_lock);
  if (!m_stream.is_open())
    return false;
  m_stream.clear();
  if (m_stream.rdbuf()->pubseekpos(m_textStart, std::ios::in) != std::streampos(m_textStart))
    return false;

  DKString line;
  for (;;) {
    if (!ReadLine(line))
      return false;
    if (line.IsEmpty() || line[0] != '[')
      continue;
    const std::size_t close = line.Find(DKChar(']'), 1);
    if (SameName(line.SubStr(1, close == DKString::npos ? DKString::npos : close - 1), section))
      break;
  }

  DKString word;
  for (;;) {
    if (!ReadLine(line))
      return false;
    if (!line.IsEmpty() && line[0] == ';')
      continue;
    std::size_t pos = 0;
    if (!NextWord(line, pos, DK_T(" \t="), word))
      continue;
    if (word[0] == '[')
      return false;
    if (!SameName(word, key))
      continue;
    value.Clear();
    if (NextWord(line, pos, DK_T(" =\t"), word)) {
      value = word;
      while (NextWord(line, pos, DK_T(" \t"), word)) {
        value += DKChar(' ');
        value += word;
      }
    }
    return true;
  }
}

DKString DKConfig::GetString(const DKString& section, const DKString& key, const DKString& defaultValue) const {
  DKString value;
  return Find(section, key, value) ? value : defaultValue;
}

long DKConfig::GetLong(const DKString& section, const DKString& key, long defaultValue) const {
  DKString value;
  return Find(section, key, value) ? value.AsLong() : defaultValue;
}
