// Configuration files, the tree: comment blocks, key lines, sections and the file that holds
// them, with their look-ups (names and keys match without regard to case) and their locking
// (an item locks the file that owns it). Exports the members of DKConfigLockable,
// DKConfigComments, DKConfigLine and DKConfigSection, and those of DKConfigFile that edit, look
// up and set; private here: the name matching and the numbers' texts. The reader, the writer and
// the bytes on disk are in DKConfigReader.cpp, DKConfigWriter.cpp and DKConfigEncoding.cpp.
#include <DorvikCore/DKCollator.h>
#include <DorvikCore/DKConfigFile.h>

#include "config/DKConfigIO.h"

#include <algorithm>
#include <charconv>
#include <type_traits>

using dkconfig::IsClosingComments;
using dkconfig::IsMarkerCharacter;

namespace {

// Names and keys match without regard to case. Case folding maps one unit to one unit, so
// texts of different lengths never match.
bool SameName(const DKString& a, const DKString& b) {
  return a.Length() == b.Length() && DKTableIgnoreCaseCollator::Equal(a.c_str(), b.c_str(), a.Length());
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
