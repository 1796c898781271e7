#include <DorvikCore/DKFormat.h>
#include <DorvikCore/DKUsageInfo.h>

#include "text/DKUtf.h"

namespace {

// The chunks of a description as (start, length) pairs. A chunk ends at the last blank that
// keeps it within the width, and the next one starts after that blank; without such a blank the
// chunk is cut at the width, so every step moves forward.
struct Chunk {
  std::size_t start;
  std::size_t length;
};

std::vector<Chunk> BreakDescription(const DKString& description) {
  constexpr std::size_t width = DKUsageInfo::descriptionWidth;
  std::vector<Chunk> chunks;
  const std::size_t length = description.Length();
  std::size_t start = 0;
  const DKChar* text = description.c_str();
  while (length - start > width) {
    // The scan stops at the chunk's start, so a long text without blanks stays linear.
    std::size_t blank = start + width;
    while (blank > start && text[blank] != DK_T(' '))
      --blank;
    if (text[blank] == DK_T(' ')) {
      chunks.push_back({start, blank - start});
      start = blank + 1;
    } else {
      // No break point: cut at the width, but not between the halves of a surrogate pair.
      std::size_t cut = width;
      if (dkutf::IsLowSurrogate(text[start + cut]) && dkutf::IsHighSurrogate(text[start + cut - 1]))
        --cut;
      chunks.push_back({start, cut});
      start += cut;
    }
  }
  if (start < length)
    chunks.push_back({start, length - start});
  return chunks;
}

// printf widths for the layout's fields.
constexpr int nameField = static_cast<int>(DKUsageInfo::nameWidth);
constexpr int descriptionField = static_cast<int>(DKUsageInfo::descriptionWidth);

DKString ChunkLine(const DKChar* format, const DKString& first, const DKString& description, const Chunk& chunk) {
  return DKFormatString(format, nameField, first.c_str(), descriptionField, static_cast<int>(chunk.length),
                        description.c_str() + chunk.start);
}

} // namespace

void DKUsageInfo::AddCmdLineArgDesc(const DKString& name, const DKString& description, bool flag) {
  m_entries.push_back({name, description, flag, ValueKind::Text});
}

void DKUsageInfo::AddCmdLineArgDesc(const char* name, const char* description, bool flag) {
  m_entries.push_back({DKString(name), DKString(description), flag, ValueKind::Text});
}

void DKUsageInfo::AddCmdLineArgDesc(const DKString& name, const DKString& description, ValueKind kind) {
  m_entries.push_back({name, description, false, kind});
}

void DKUsageInfo::AddCmdLineArgDesc(const char* name, const char* description, ValueKind kind) {
  m_entries.push_back({DKString(name), DKString(description), false, kind});
}

// "name:{value}" takes a value, "name[:value]" may take one, "name" takes none. The name ends
// at the first ':', '[', '{' or blank.
std::vector<DKUsageInfo::Option> DKUsageInfo::GetOptions() const {
  std::vector<Option> options;
  options.reserve(m_entries.size());
  for (const Entry& entry : m_entries) {
    const std::size_t end = entry.name.FindFirstOf(DK_T(":[{ "));
    Option option{entry.name.SubStr(0, end), Option::NoValue, entry.kind};
    if (end != DKString::npos)
      option.value = entry.name[end] == DK_T('[') ? Option::OptionalValue : Option::RequiredValue;
    options.push_back(std::move(option));
  }
  return options;
}

bool DKUsageInfo::GetCmdLineArgDesc(std::size_t index, DKString& name, DKString& description, bool& flag) const {
  if (index >= m_entries.size())
    return false;
  const Entry& entry = m_entries[index];
  name = entry.name;
  description = entry.description;
  flag = entry.flag;
  return true;
}

std::vector<DKString> DKUsageInfo::FormatOptionLines() const {
  static constexpr const DKChar* optionLine = DK_T("   /%-*s %-*.*s");
  static constexpr const DKChar* continuationLine = DK_T("    %*s %-*.*s");
  std::vector<DKString> lines;
  for (const Entry& entry : m_entries) {
    const std::vector<Chunk> chunks = BreakDescription(entry.description);
    std::size_t next = 0;
    if (entry.name.Length() > nameWidth) {
      lines.push_back(DKFormatString(DK_T("   /%s"), entry.name.c_str()));
    } else {
      // An empty description still gives the name its line, with an empty first chunk.
      const Chunk first = chunks.empty() ? Chunk{0, 0} : chunks.front();
      lines.push_back(ChunkLine(optionLine, entry.name, entry.description, first));
      next = 1;
    }
    for (; next < chunks.size(); ++next)
      lines.push_back(ChunkLine(continuationLine, DKString(), entry.description, chunks[next]));
  }
  return lines;
}

DKString DKUsageInfo::FormatUsage() const {
  DKString text;
  if (!m_generalInfo.IsEmpty())
    text.Append(m_generalInfo).Append(DK_T('\n'));
  for (const DKString& line : FormatOptionLines())
    text.Append(line).Append(DK_T('\n'));
  return text;
}
