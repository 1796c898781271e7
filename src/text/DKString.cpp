#include <DorvikCore/DKCharacter.h>
#include <DorvikCore/DKCollator.h>
#include <DorvikCore/DKString.h>

#include "text/DKTextSearch.h"
#include "text/DKUtf.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string_view>

// The shared empty block: constant-initialised, so strings built by other static
// initialisers can use it; never counted and never freed.
constinit DKString::EmptyBlock DKString::glbEmptyData = {{0, 1, 0}, 0};

namespace {

inline void CopyUnits(DKChar* to, const DKChar* from, std::size_t count) noexcept {
  if (count)
    std::memcpy(to, from, count * sizeof(DKChar));
}

inline void MoveUnits(DKChar* to, const DKChar* from, std::size_t count) noexcept {
  if (count)
    std::memmove(to, from, count * sizeof(DKChar));
}

[[noreturn]] void ThrowTooLong() {
  throw std::length_error("DKString: text longer than 4294967294 code units");
}

inline bool InSet(DKChar ch, const DKChar* set) noexcept {
  for (; *set; ++set)
    if (*set == ch)
      return true;
  return false;
}

inline bool IsEmptyText(const DKChar* text) noexcept { return !text || !*text; }

} // namespace

std::size_t DKStrLen(const DKChar* text) noexcept {
  return text ? std::char_traits<DKChar>::length(text) : 0;
}

// ---------------------------------------------------------------------------------------------
// Blocks

// A block's bytes: the header, then room for capacity units and the terminator. The pool keeps no
// header of its own for string blocks, since the capacity tells the size.
std::size_t DKString::BlockBytes(std::size_t capacity) noexcept { return sizeof(DataDef) + sizeof(DKChar) * (capacity + 1); }

DKString::DataDef* DKString::AllocData(std::size_t capacity) {
  if (capacity == 0)
    capacity = 1;
  if (capacity > maxLength + 1)
    ThrowTooLong();
  void* raw = DMMemoryPool::NewSized(BlockBytes(capacity));
  DataDef* d = new (raw) DataDef{static_cast<std::uint32_t>(capacity), 0, 0};
  return d;
}

void DKString::FreeData(DataDef* data) noexcept {
  const std::size_t bytes = BlockBytes(data->capacity);
  data->~DataDef();
  DMMemoryPool::DeleteSized(data, bytes);
}

void DKString::ResizeCapacity(std::size_t capacity) {
  DataDef* old = m_pData;
  // The empty block always reads as shared, so it never passes these tests.
  if (capacity <= old->capacity && !old->IsShared())
    return;
  if (capacity > maxLength + 1)
    ThrowTooLong();
  std::size_t newCapacity = old->capacity;
  if (newCapacity < capacity)
    newCapacity = std::min<std::size_t>(std::max<std::size_t>(capacity, newCapacity + newCapacity / 2), maxLength + 1);
  if (!old->IsShared()) {
    // A private block grows in place where the allocator can (large blocks are remapped,
    // not copied).
    void* moved = DMMemoryPool::ResizeSized(old, BlockBytes(old->capacity), BlockBytes(newCapacity));
    m_pData = static_cast<DataDef*>(moved);
    m_pData->capacity = static_cast<std::uint32_t>(newCapacity);
    return;
  }
  DataDef* d = AllocData(newCapacity);
  CopyUnits(d->Text(), old->Text(), old->length);
  d->length = old->length;
  d->Text()[d->length] = 0;
  m_pData = d;
  Release(old);
}

// ---------------------------------------------------------------------------------------------
// Construction and assignment

DKString::DKString(const DKChar* text, std::size_t count) : m_pData(EmptyData()) { Assign(text, count); }

DKString::DKString(DKChar ch) : m_pData(AllocData(2)) {
  m_pData->Text()[0] = ch;
  m_pData->Text()[1] = 0;
  m_pData->length = 1;
}

DKString::DKString(DKChar ch, std::size_t repeat) : m_pData(EmptyData()) {
  if (repeat == 0)
    return;
  if (repeat > maxLength)
    ThrowTooLong();
  m_pData = AllocData(repeat + 1);
  std::fill_n(m_pData->Text(), repeat, ch);
  m_pData->Text()[repeat] = 0;
  m_pData->length = static_cast<std::uint32_t>(repeat);
}

DKString::DKString(const DKStdString& text) : m_pData(EmptyData()) { Assign(text.c_str()); }

DKString::DKString(const DKString& other) noexcept : m_pData(other.m_pData) {
  if (m_pData != EmptyData())
    m_pData->references.fetch_add(1, std::memory_order_relaxed);
}

DKString& DKString::operator=(const DKString& other) noexcept {
  DataDef* d = other.m_pData;
  if (d == m_pData)
    return *this;
  if (d != EmptyData())
    d->references.fetch_add(1, std::memory_order_relaxed);
  Release(m_pData);
  m_pData = d;
  return *this;
}

DKString& DKString::operator=(DKString&& other) noexcept {
  if (this != &other) {
    Release(m_pData);
    m_pData = other.m_pData;
    other.m_pData = EmptyData();
  }
  return *this;
}

DKString& DKString::operator=(const DKChar* text) {
  SetText(text, DKStrLen(text));
  return *this;
}

DKString& DKString::operator=(DKChar ch) {
  SetText(&ch, 1);
  return *this;
}

DKString& DKString::Assign(const DKChar* text, std::size_t count) {
  if (!text)
    count = 0;
  else if (count == 0)
    count = DKStrLen(text);
  SetText(text, count);
  return *this;
}

void DKString::Clear() noexcept {
  Release(m_pData);
  m_pData = EmptyData();
}

void DKString::SetText(const DKChar* text, std::size_t count) {
  if (count == 0) {
    Clear();
    return;
  }
  if (count > maxLength)
    ThrowTooLong();
  DataDef* d = m_pData;
  if (count <= d->capacity && !d->IsShared()) {
    MoveUnits(d->Text(), text, count); // text may lie inside this block
    d->Text()[count] = 0;
    d->length = static_cast<std::uint32_t>(count);
    return;
  }
  DataDef* nd = AllocData(count + 1);
  CopyUnits(nd->Text(), text, count);
  nd->Text()[count] = 0;
  nd->length = static_cast<std::uint32_t>(count);
  m_pData = nd;
  Release(d);
}

// ---------------------------------------------------------------------------------------------
// Access and editing

void DKString::Set(std::size_t pos, DKChar ch) {
  // Writing at or past the end would overwrite the terminator or memory beyond the text.
  if (pos >= Length())
    return;
  Detach();
  m_pData->Text()[pos] = ch;
}

void DKString::AppendUnits(const DKChar* text, std::size_t count) {
  const std::size_t len = Length();
  if (len == 0) {
    // The first text of a string: one exact block, no growth step to work out.
    SetText(text, count);
    return;
  }
  if (count > maxLength - len)
    ThrowTooLong();
  const DKChar* oldText = m_pData->Text();
  const bool inside = text >= oldText && text <= oldText + len;
  const std::size_t offset = inside ? static_cast<std::size_t>(text - oldText) : 0;
  ResizeCapacity(len + count + 1);
  DKChar* dst = m_pData->Text();
  // After a reallocation the old block may be gone; its text was copied to the same offsets.
  const DKChar* src = inside ? dst + offset : text;
  MoveUnits(dst + len, src, count);
  dst[len + count] = 0;
  m_pData->length = static_cast<std::uint32_t>(len + count);
}

DKString& DKString::Append(const DKChar* text, std::size_t count) {
  if (!text)
    return *this;
  if (count == 0)
    count = DKStrLen(text);
  if (count)
    AppendUnits(text, count);
  return *this;
}

DKString& DKString::Append(const DKString& other) {
  if (!other.IsEmpty())
    AppendUnits(other.c_str(), other.Length());
  return *this;
}

DKString& DKString::Append(std::u16string_view text) {
  static_assert(sizeof(char16_t) == sizeof(DKChar), "DKChar is one UTF-16 code unit");
  if (!text.empty())
    AppendUnits(reinterpret_cast<const DKChar*>(text.data()), text.size());
  return *this;
}

#if DK_WCHAR_IS_DKCHAR
DKString& DKString::Append(DKStringView text) {
  if (!text.empty())
    AppendUnits(text.data(), text.size());
  return *this;
}
#endif

DKString& DKString::Append(std::string_view utf8) {
  dkutf::Utf8ToUtf16(utf8.data(), utf8.size(), *this, true);
  return *this;
}

DKString& DKString::AppendSlow(DKChar ch) {
  AppendUnits(&ch, 1);
  return *this;
}

void DKString::InsertUnits(std::size_t pos, const DKChar* text, std::size_t count) {
  const std::size_t len = Length();
  if (pos > len)
    pos = len;
  if (count > maxLength - len)
    ThrowTooLong();
  // Text taken from this string itself is copied first: the move below would shift it.
  DKStdString own;
  if (text >= c_str() && text <= c_str() + len) {
    own.assign(text, count);
    text = own.c_str();
  }
  ResizeCapacity(len + count + 1);
  DKChar* t = m_pData->Text();
  MoveUnits(t + pos + count, t + pos, len - pos + 1);
  CopyUnits(t + pos, text, count);
  m_pData->length = static_cast<std::uint32_t>(len + count);
}

DKString& DKString::Insert(std::size_t pos, const DKChar* text) {
  const std::size_t count = DKStrLen(text);
  if (count)
    InsertUnits(pos, text, count);
  return *this;
}

DKString& DKString::Insert(std::size_t pos, const DKString& text) {
  if (!text.IsEmpty())
    InsertUnits(pos, text.c_str(), text.Length());
  return *this;
}

DKString& DKString::Insert(std::size_t pos, DKChar ch) {
  InsertUnits(pos, &ch, 1);
  return *this;
}

DKString& DKString::Remove(std::size_t pos, std::size_t count) {
  const std::size_t len = Length();
  if (pos >= len || count == 0)
    return *this;
  if (count >= len - pos) {
    if (pos == 0) {
      Clear();
      return *this;
    }
    count = len - pos;
  }
  Detach();
  DKChar* t = m_pData->Text();
  MoveUnits(t + pos, t + pos + count, len - pos - count + 1);
  m_pData->length = static_cast<std::uint32_t>(len - count);
  return *this;
}

DKString DKString::SubStr(std::size_t pos, std::size_t count) const {
  const std::size_t len = Length();
  if (pos >= len || count == 0)
    return DKString();
  if (count > len - pos)
    count = len - pos;
  if (pos == 0 && count == len)
    return *this; // the whole text: share the block
  return DKString(c_str() + pos, count);
}

std::size_t DKString::ReplaceUnits(const DKChar* find, std::size_t findLen, const DKChar* repl, std::size_t replLen) {
  const DKChar* const text = c_str();
  const std::size_t length = Length();
  std::size_t pos = dktext::FindUnits(text, length, find, findLen, 0);
  if (findLen == 0 || pos == npos)
    return 0;
  // The result is built in a new string while this one (and any text of find or repl that
  // lies inside it) stays intact.
  DKString result;
  result.ResizeCapacity(Length() + 1);
  std::size_t from = 0;
  std::size_t replaced = 0;
  while (pos != npos) {
    result.AppendUnits(c_str() + from, pos - from);
    if (replLen)
      result.AppendUnits(repl, replLen);
    from = pos + findLen;
    ++replaced;
    pos = dktext::FindUnits(text, length, find, findLen, from);
  }
  result.AppendUnits(c_str() + from, Length() - from);
  if (result.IsEmpty())
    result.Clear();
  swap(result);
  return replaced;
}

std::size_t DKString::Replace(const DKChar* find, const DKChar* replacement) {
  if (IsEmptyText(find))
    return 0;
  return ReplaceUnits(find, DKStrLen(find), replacement, DKStrLen(replacement));
}

std::size_t DKString::Replace(const DKString& find, const DKString& replacement) {
  if (find.IsEmpty())
    return 0;
  // Hold the texts: either may share this string's block, which the swap would release.
  const DKString f(find), r(replacement);
  return ReplaceUnits(f.c_str(), f.Length(), r.c_str(), r.Length());
}

std::size_t DKString::Replace(const DKString& find, const DKChar* replacement) {
  if (find.IsEmpty())
    return 0;
  const DKString f(find);
  return ReplaceUnits(f.c_str(), f.Length(), replacement, DKStrLen(replacement));
}

namespace {

// Position of the first unit that map changes, or the length when none does.
template <class Map>
std::size_t FirstChanged(const DKString& s, Map map) noexcept {
  const DKChar* t = s.c_str();
  const std::size_t len = s.Length();
  std::size_t i = 0;
  while (i < len && map(t[i]) == t[i])
    ++i;
  return i;
}

} // namespace

// Both leave the block untouched (and shared) when no unit changes.
DKString& DKString::Upper() {
  const std::size_t i = FirstChanged(*this, DKtowupper);
  if (i < Length()) {
    Detach();
    DKStrUpper(m_pData->Text() + i, Length() - i);
  }
  return *this;
}

DKString& DKString::Lower() {
  const std::size_t i = FirstChanged(*this, DKtowlower);
  if (i < Length()) {
    Detach();
    DKStrLower(m_pData->Text() + i, Length() - i);
  }
  return *this;
}

// ---------------------------------------------------------------------------------------------
// Trimming

DKString& DKString::LTrim(DKChar ch, std::size_t start) {
  const std::size_t len = Length();
  if (len == 0)
    return *this;
  std::size_t k = start >= len ? len - 1 : start;
  const DKChar* t = c_str();
  while (k < len && t[k] == ch)
    ++k;
  if (k != 0)
    Remove(0, k);
  return *this;
}

DKString& DKString::RTrim(DKChar ch, std::size_t start) {
  const std::size_t len = Length();
  if (len == 0)
    return *this;
  const DKChar* t = c_str();
  std::size_t n = 0;
  for (std::size_t i = std::min(start, len - 1) + 1; i-- > 0 && t[i] == ch;)
    ++n;
  if (n != 0)
    Remove(len - n, n);
  return *this;
}

DKString& DKString::LTrim(const DKChar* set, std::size_t start) {
  const std::size_t len = Length();
  if (len == 0)
    return *this;
  if (start >= len) {
    Clear();
    return *this;
  }
  if (IsEmptyText(set))
    return *this;
  const std::size_t k = FindFirstNotOf(set, start);
  if (k == npos)
    Clear();
  else if (k != 0)
    Remove(0, k);
  return *this;
}

DKString& DKString::RTrim(const DKChar* set, std::size_t start) {
  const std::size_t len = Length();
  if (IsEmptyText(set) || len == 0)
    return *this;
  const std::size_t j = FindLastNotOf(set, std::min(start, len - 1));
  if (j == npos)
    Clear();
  else if (j != len - 1)
    Remove(j + 1, npos);
  return *this;
}

// ---------------------------------------------------------------------------------------------
// Searching

std::size_t DKString::Find(const DKChar* text, std::size_t start) const {
  const std::size_t len = Length();
  if (start >= len)
    return npos;
  const std::size_t n = DKStrLen(text);
  if (n == 0)
    return start;
  return dktext::FindUnits(c_str(), len, text, n, start);
}

std::size_t DKString::Find(const DKString& text, std::size_t start) const {
  const std::size_t len = Length();
  if (start >= len)
    return npos;
  if (text.IsEmpty())
    return start;
  return dktext::FindUnits(c_str(), len, text.c_str(), text.Length(), start);
}

std::size_t DKString::Find(DKChar ch, std::size_t start) const {
  const std::size_t len = Length();
  if (start >= len)
    return npos;
  return dktext::FindUnit(c_str(), len, ch, start);
}

namespace {

// The last occurrence of needle that begins at or before start; start is already in range.
std::size_t LastOccurrence(const DKChar* text, std::size_t len, const DKChar* needle, std::size_t n,
                           std::size_t start) {
  if (n == 0)
    return start;
  if (n > len)
    return DKString::npos;
  return std::basic_string_view<DKChar>(text, len).rfind(std::basic_string_view<DKChar>(needle, n), start);
}

} // namespace

std::size_t DKString::RFind(const DKChar* text, std::size_t start) const {
  const std::size_t len = Length();
  if (len == 0)
    return npos;
  return LastOccurrence(c_str(), len, text, DKStrLen(text), std::min(start, len - 1));
}

std::size_t DKString::RFind(const DKString& text, std::size_t start) const {
  const std::size_t len = Length();
  if (len == 0)
    return npos;
  return LastOccurrence(c_str(), len, text.c_str(), text.Length(), std::min(start, len - 1));
}

std::size_t DKString::RFind(DKChar ch, std::size_t start) const {
  const std::size_t len = Length();
  if (len == 0)
    return npos;
  const DKChar* t = c_str();
  for (std::size_t i = std::min(start, len - 1) + 1; i-- > 0;)
    if (t[i] == ch)
      return i;
  return npos;
}

std::size_t DKString::FindFirstOf(const DKChar* set, std::size_t start) const {
  const std::size_t len = Length();
  if (start >= len || IsEmptyText(set))
    return npos;
  const DKChar* t = c_str();
  for (std::size_t i = start; i < len; ++i)
    if (InSet(t[i], set))
      return i;
  return npos;
}

std::size_t DKString::FindFirstNotOf(const DKChar* set, std::size_t start) const {
  const std::size_t len = Length();
  if (start >= len)
    return npos;
  if (IsEmptyText(set))
    return 0; // deliberately 0, not start
  const DKChar* t = c_str();
  for (std::size_t i = start; i < len; ++i)
    if (!InSet(t[i], set))
      return i;
  return npos;
}

std::size_t DKString::FindLastOf(const DKChar* set, std::size_t start) const {
  const std::size_t len = Length();
  if (IsEmptyText(set) || len == 0)
    return npos;
  const DKChar* t = c_str();
  for (std::size_t i = std::min(start, len - 1) + 1; i-- > 0;)
    if (InSet(t[i], set))
      return i;
  return npos;
}

std::size_t DKString::FindLastNotOf(const DKChar* set, std::size_t start) const {
  const std::size_t len = Length();
  if (IsEmptyText(set))
    return len - 1; // whatever start is; npos for an empty string
  if (len == 0)
    return npos;
  const DKChar* t = c_str();
  for (std::size_t i = std::min(start, len - 1) + 1; i-- > 0;)
    if (!InSet(t[i], set))
      return i;
  return npos;
}

// ---------------------------------------------------------------------------------------------
// Comparison

namespace {

int PlainCompare(const DKChar* a, std::size_t na, const DKChar* b, std::size_t nb) noexcept {
  const std::size_t n = std::min(na, nb);
  for (std::size_t i = 0; i < n; ++i)
    if (a[i] != b[i])
      return static_cast<std::uint16_t>(a[i]) < static_cast<std::uint16_t>(b[i]) ? -1 : 1;
  return na == nb ? 0 : (na < nb ? -1 : 1);
}

} // namespace

bool DKString::EqualsUTF8(std::string_view utf8) const noexcept {
  // Decoded on the fly, unit by unit: no allocation.
  const DKChar* t = c_str();
  const std::size_t len = Length();
  std::size_t i = 0;
  const auto* p = reinterpret_cast<const unsigned char*>(utf8.data());
  const auto* end = p + utf8.size();
  while (p < end) {
    char32_t cp;
    const std::size_t n = dkutf::DecodeUtf8(p, static_cast<std::size_t>(end - p), cp);
    p += n;
    if (cp < 0x10000) {
      if (i >= len || t[i] != static_cast<DKChar>(cp))
        return false;
      ++i;
    } else {
      if (i + 1 >= len || t[i] != static_cast<DKChar>(0xD800 + ((cp - 0x10000) >> 10)) ||
          t[i + 1] != static_cast<DKChar>(0xDC00 + ((cp - 0x10000) & 0x3FF)))
        return false;
      i += 2;
    }
  }
  return i == len;
}

bool DKString::Equals(const DKString& other) const noexcept {
  if (m_pData == other.m_pData)
    return true;
  const std::size_t len = Length();
  return len == other.Length() && std::memcmp(c_str(), other.c_str(), len * sizeof(DKChar)) == 0;
}

int DKString::Compare(const DKChar* other, long flags) const {
  if (!other)
    return IsEmpty() ? 0 : -1;
  const std::size_t otherLen = DKStrLen(other);
  if (flags & 3)
    if (const DKCollator* collator = DKGetFlagsCollator(flags & 3))
      return collator->Compare(c_str(), Length(), other, otherLen);
  return PlainCompare(c_str(), Length(), other, otherLen);
}

int DKString::Compare(const DKString& other, long flags) const {
  if (flags & 3)
    if (const DKCollator* collator = DKGetFlagsCollator(flags & 3))
      return collator->Compare(c_str(), Length(), other.c_str(), other.Length());
  if (m_pData == other.m_pData)
    return 0;
  return PlainCompare(c_str(), Length(), other.c_str(), other.Length());
}

int DKString::Compare(const DKString& other, const DKSmartPtrToConst<DKCollator>& collator) const {
  if (!collator)
    return Compare(other);
  return collator->Compare(c_str(), Length(), other.c_str(), other.Length());
}

int DKString::Compare(const DKChar* other, const DKSmartPtrToConst<DKCollator>& collator) const {
  if (!other)
    return IsEmpty() ? 0 : -1;
  if (!collator)
    return Compare(other);
  return collator->Compare(c_str(), Length(), other, DKStrLen(other));
}

// ---------------------------------------------------------------------------------------------
// Free operators

DKString operator+(const DKString& a, const DKString& b) {
  if (a.IsEmpty())
    return b;
  DKString r;
  r.Reserve(a.Length() + b.Length() + 1);
  r.Append(a).Append(b);
  return r;
}

DKString operator+(const DKString& a, const DKChar* b) {
  DKString r(a);
  r.Append(b);
  return r;
}

DKString operator+(const DKChar* a, const DKString& b) {
  DKString r(a);
  r.Append(b);
  return r;
}

DKString operator+(const DKString& a, DKChar b) {
  DKString r(a);
  r.Append(b);
  return r;
}

// ---------------------------------------------------------------------------------------------
// Numbers, splitting and concatenation

DKString DKString::Number(long long value) { return DKStrCat(value); }
DKString DKString::Number(unsigned long long value) { return DKStrCat(value); }

DKString DKString::Number(double value) {
  char buffer[32];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  return DKString(std::string_view(buffer, static_cast<std::size_t>(result.ptr - buffer)));
}

std::vector<DKString> DKString::Split(DKStringView separator) const {
  std::vector<DKString> pieces;
  const DKStringView text = View();
  if (separator.empty()) {
    pieces.push_back(*this);
    return pieces;
  }
  std::size_t from = 0;
  for (;;) {
    const std::size_t at = dktext::FindUnits(text.data(), text.size(), separator.data(), separator.size(), from);
    if (at == DKStringView::npos) {
      pieces.push_back(from == 0 ? *this : DKString(text.data() + from, text.size() - from));
      return pieces;
    }
    pieces.push_back(at == from ? DKString() : DKString(text.data() + from, at - from));
    from = at + separator.size();
  }
}

std::vector<DKString> DKString::Split(DKChar separator) const { return Split(DKStringView(&separator, 1)); }

DKStrCatPiece::DKStrCatPiece(long long v) noexcept : m_wide(m_digits) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof digits, v).ptr;
  m_length = static_cast<std::size_t>(end - digits);
  std::copy(digits, end, m_digits);
}

DKStrCatPiece::DKStrCatPiece(unsigned long long v) noexcept : m_wide(m_digits) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof digits, v).ptr;
  m_length = static_cast<std::size_t>(end - digits);
  std::copy(digits, end, m_digits);
}

DKString DKStrCatPieces(const DKStrCatPiece* const* pieces, std::size_t count) {
  std::size_t total = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const DKStrCatPiece& p = *pieces[i];
    total += p.m_narrow ? dkutf::Utf16LengthOfUtf8(p.m_narrow, p.m_length) : p.m_length;
  }
  DKString result;
  if (total == 0)
    return result;
  result.Reserve(total + 1);
  for (std::size_t i = 0; i < count; ++i) {
    const DKStrCatPiece& p = *pieces[i];
    if (p.m_narrow)
      result.Append(std::string_view(p.m_narrow, p.m_length));
    else if (p.m_length)
      result.Append(p.m_wide, p.m_length);
  }
  return result;
}

std::size_t std::hash<DKString>::operator()(const DKString& s) const noexcept {
  return std::hash<std::basic_string_view<DKChar>>()(std::basic_string_view<DKChar>(s.c_str(), s.Length()));
}
