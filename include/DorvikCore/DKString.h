// DKString: the library's text type. UTF-16 code units in one counted block shared by
// copies and copied just before a sharer changes it (copy on write).
#pragma once

#include <DorvikCore/DKErrorID.h>
#include <DorvikCore/DKFormatArgs.h>
#include <DorvikCore/DKMemoryPool.h>
#include <DorvikCore/DKPointerVector.h>
#include <DorvikCore/DKRefCount.h>
#include <DorvikCore/DKTypes.h>

#include <atomic>
#include <compare>
#include <cstdarg>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

class DKCollator;
class DKStringConverter;
class DKDateTime;
class DKDateTimeEx;
class DKDateEx;
class DKTimeEx;
class DKDurationEx;

class DK_EXPORT DKString {
public:
  // The header of the one heap block behind a string; capacity + 1 code units of text follow
  // it directly, and text[length] is always 0.
  struct DataDef {
    std::uint32_t capacity;               // code units requested; room for capacity + 1
    std::atomic<std::int32_t> references; // additional sharers: 0 means one owner
    std::uint32_t length;                 // code units in use, without the terminator

    DKChar* Text() noexcept { return reinterpret_cast<DKChar*>(reinterpret_cast<char*>(this) + sizeof(DataDef)); }
    const DKChar* Text() const noexcept {
      return reinterpret_cast<const DKChar*>(reinterpret_cast<const char*>(this) + sizeof(DataDef));
    }
    // Whether another string shares the block, so that it must be copied before a change. The
    // acquire pairs with the release of a sharer that let go: its reads of the text happen
    // before the owner writes.
    bool IsShared() const noexcept { return references.load(std::memory_order_acquire) > 0; }
  };
  static_assert(sizeof(std::atomic<std::int32_t>) == 4 && sizeof(DataDef) == 12,
                "the block header is three 32-bit fields, and the text starts right after it");

  static constexpr std::size_t npos = static_cast<std::size_t>(-1);
  // Longest text a block can hold: lengths are stored in 32 bits.
  static constexpr std::size_t maxLength = 0xFFFFFFFEu;

  // Construction and assignment. A null source pointer gives the empty string.
  DKString() noexcept : m_pData(EmptyData()) {}
  DKString(std::nullptr_t) noexcept : m_pData(EmptyData()) {}
  DKString(const DKChar* text, std::size_t count = 0);
  explicit DKString(DKChar ch);
  DKString(DKChar ch, std::size_t repeat);
  DKString(const DKStdString& text);
  DKString(const DKString& other) noexcept;
  DKString(DKString&& other) noexcept : m_pData(other.m_pData) { other.m_pData = EmptyData(); }
  ~DKString() { Release(m_pData); }

  DKString& operator=(const DKString& other) noexcept;
  DKString& operator=(DKString&& other) noexcept;
  DKString& operator=(const DKChar* text);
  DKString& operator=(DKChar ch);
  DKString& operator=(std::nullptr_t) noexcept {
    Clear();
    return *this;
  }
  DKString& operator=(const DKStdString& text) { return Assign(text.c_str(), text.size()); }

  // Views and UTF-8. A view is copied whole (a 0 inside it included); narrow text is UTF-8,
  // and an invalid byte sequence becomes U+FFFD (SetFromUTF8 refuses it instead).
  explicit DKString(std::u16string_view text) : DKString() { Append(text); }
  explicit DKString(const char* utf8) : DKString() { Append(utf8); }
  explicit DKString(std::string_view utf8) : DKString() { Append(utf8); }
  [[nodiscard]] static DKString FromUTF8(std::string_view utf8) { return DKString(utf8); }
  // The decimal text of a number; a double in the shortest form that reads back the same.
  [[nodiscard]] static DKString Number(int value) { return Number(static_cast<long long>(value)); }
  [[nodiscard]] static DKString Number(long value) { return Number(static_cast<long long>(value)); }
  [[nodiscard]] static DKString Number(long long value);
  [[nodiscard]] static DKString Number(unsigned long long value);
  [[nodiscard]] static DKString Number(double value);
  DKString& Assign(const DKString& other) noexcept { return *this = other; }
  // count 0: copy up to the terminator; otherwise exactly count code units.
  DKString& Assign(const DKChar* text, std::size_t count = 0);
  void Clear() noexcept;
  void swap(DKString& other) noexcept { std::swap(m_pData, other.m_pData); }

#if !DK_WCHAR_IS_DKCHAR
  // Platform wide text (UTF-32 here) is transcoded; a code point beyond U+FFFF becomes a
  // surrogate pair and an invalid one becomes U+FFFD.
  DKString(const wchar_t* text);
  DKString(const std::wstring& text);
  DKString& operator=(const wchar_t* text);
  DKString& operator=(const std::wstring& text);
  DKString& Append(const wchar_t* text);
  DKString& operator+=(const wchar_t* text) { return Append(text); }
  DKString& operator+=(const std::wstring& text);
  [[nodiscard]] std::wstring AsStdWString() const;
  explicit operator std::wstring() const { return AsStdWString(); }
#endif

  [[nodiscard]] DKStdString AsStdString() const { return DKStdString(c_str(), Length()); }
  explicit operator DKStdString() const { return AsStdString(); }

  // The text as a view; valid until the string changes.
  operator std::u16string_view() const noexcept {
    return std::u16string_view(reinterpret_cast<const char16_t*>(c_str()), Length());
  }
  [[nodiscard]] DKStringView View() const noexcept { return DKStringView(c_str(), Length()); }

  // Access. size(), data() and empty() are the standard spellings, for generic code.
  std::size_t size() const noexcept { return m_pData->length; }
  const DKChar* data() const noexcept { return m_pData->Text(); }
  bool empty() const noexcept { return m_pData->length == 0; }
  std::size_t Length() const noexcept { return m_pData->length; }
  std::size_t Len() const noexcept { return m_pData->length; }
  std::size_t Capacity() const noexcept { return m_pData->capacity; }
  const DKChar* AsWChar() const noexcept { return m_pData->Text(); }
  const DKChar* c_str() const noexcept { return m_pData->Text(); }
  bool IsNull() const noexcept { return m_pData->length == 0; }
  bool IsEmpty() const noexcept { return m_pData->length == 0; }
  // No range check: pos must be below Length() (pos == Length() reads the terminator).
  DKChar operator[](std::size_t pos) const noexcept { return m_pData->Text()[pos]; }
  void Set(std::size_t pos, DKChar ch);
  const DKChar* begin() const noexcept { return c_str(); }
  const DKChar* end() const noexcept { return c_str() + Length(); }

  // Editing. Every editing operation first makes the block private.
  DKString& Append(const DKChar* text, std::size_t count = 0);
  DKString& Append(const DKString& other);
  DKString& Append(DKChar ch) {
    DataDef* d = m_pData;
    const std::uint32_t len = d->length;
    // Room for length + 1 + 1 units, the rule every appending form grows by.
    if (len + 1 < d->capacity && !d->IsShared()) {
      d->Text()[len] = ch;
      d->Text()[len + 1] = 0;
      d->length = len + 1;
      return *this;
    }
    return AppendSlow(ch);
  }
  DKString& Append(const DKStdString& text) { return Append(DKStringView(text)); }
  DKString& Append(std::u16string_view text);
#if DK_WCHAR_IS_DKCHAR
  DKString& Append(DKStringView text);
#endif
  DKString& Append(const char* utf8) { return utf8 ? Append(std::string_view(utf8)) : *this; }
  DKString& Append(std::string_view utf8);
  DKString& Append(const std::string& utf8) { return Append(std::string_view(utf8)); }
  DKString& operator+=(const DKString& other) { return Append(other); }
  DKString& operator+=(const DKChar* text) { return Append(text); }
  DKString& operator+=(DKChar ch) { return Append(ch); }
  DKString& operator+=(const DKStdString& text) { return Append(text); }
  DKString& operator+=(std::u16string_view text) { return Append(text); }
  DKString& operator+=(const char* utf8) { return Append(utf8); }
  DKString& operator+=(std::string_view utf8) { return Append(utf8); }
  DKString& operator+=(const std::string& utf8) { return Append(utf8); }

  DKString& Insert(std::size_t pos, const DKChar* text);
  DKString& Insert(std::size_t pos, const DKString& text);
  DKString& Insert(std::size_t pos, DKChar ch);
  DKString& Remove(std::size_t pos, std::size_t count);
  [[nodiscard]] DKString SubStr(std::size_t pos, std::size_t count = npos) const;
  // Replaces every occurrence of find, left to right; returns how many were replaced.
  std::size_t Replace(const DKChar* find, const DKChar* replacement);
  std::size_t Replace(const DKString& find, const DKString& replacement);
  std::size_t Replace(const DKString& find, const DKChar* replacement);
  DKString& Upper();
  DKString& Lower();
  void Reserve(std::size_t capacity) { ResizeCapacity(capacity); }
  // Makes the block private and able to hold `capacity` code units (see the .cpp).
  void ResizeCapacity(std::size_t capacity);
  // Makes the block private, keeping its capacity: the step before writing into the text.
  void Detach() {
    if (m_pData->IsShared())
      ResizeCapacity(Capacity());
  }

  // Trimming. Callers pass 0 as the start of a left trim and npos for a right trim.
  DKString& LTrim(DKChar ch = DK_T(' '), std::size_t start = 0);
  DKString& RTrim(DKChar ch = DK_T(' '), std::size_t start = npos);
  DKString& LTrim(const DKChar* set, std::size_t start = 0);
  DKString& RTrim(const DKChar* set, std::size_t start = npos);
  DKString& LTrim(const DKString& set, std::size_t start = 0) { return LTrim(set.c_str(), start); }
  DKString& RTrim(const DKString& set, std::size_t start = npos) { return RTrim(set.c_str(), start); }
  DKString& Trim(const DKChar* set = DK_T(" \t")) { return RTrim(set).LTrim(set); }

  // Searching; each returns a position or npos. A null text counts as empty.
  [[nodiscard]] std::size_t Find(const DKChar* text, std::size_t start = 0) const;
  [[nodiscard]] std::size_t Find(const DKString& text, std::size_t start = 0) const;
  [[nodiscard]] std::size_t Find(DKChar ch, std::size_t start = 0) const;
  [[nodiscard]] std::size_t RFind(const DKChar* text, std::size_t start = npos) const;
  [[nodiscard]] std::size_t RFind(const DKString& text, std::size_t start = npos) const;
  [[nodiscard]] std::size_t RFind(DKChar ch, std::size_t start = npos) const;
  [[nodiscard]] std::size_t FindFirstOf(const DKChar* set, std::size_t start = 0) const;
  [[nodiscard]] std::size_t FindFirstNotOf(const DKChar* set, std::size_t start = 0) const;
  [[nodiscard]] std::size_t FindLastOf(const DKChar* set, std::size_t start = npos) const;
  [[nodiscard]] std::size_t FindLastNotOf(const DKChar* set, std::size_t start = npos) const;
  [[nodiscard]] std::size_t FindFirstOf(const DKString& set, std::size_t start = 0) const { return FindFirstOf(set.c_str(), start); }
  [[nodiscard]] std::size_t FindFirstNotOf(const DKString& set, std::size_t start = 0) const { return FindFirstNotOf(set.c_str(), start); }
  [[nodiscard]] std::size_t FindLastOf(const DKString& set, std::size_t start = npos) const { return FindLastOf(set.c_str(), start); }
  [[nodiscard]] std::size_t FindLastNotOf(const DKString& set, std::size_t start = npos) const { return FindLastNotOf(set.c_str(), start); }

  // Tests on the text, code unit by code unit.
  [[nodiscard]] bool StartsWith(DKStringView prefix) const noexcept { return View().starts_with(prefix); }
  [[nodiscard]] bool EndsWith(DKStringView suffix) const noexcept { return View().ends_with(suffix); }
  [[nodiscard]] bool Contains(DKStringView text) const noexcept { return View().find(text) != DKStringView::npos; }
  [[nodiscard]] bool StartsWith(DKChar ch) const noexcept { return View().starts_with(ch); }
  [[nodiscard]] bool EndsWith(DKChar ch) const noexcept { return View().ends_with(ch); }
  [[nodiscard]] bool Contains(DKChar ch) const noexcept { return View().find(ch) != DKStringView::npos; }
  // The pieces between separators, empty ones included: "a,,b" split at ',' gives "a", "",
  // "b"; the empty string gives one empty piece. An empty separator gives the whole text.
  [[nodiscard]] std::vector<DKString> Split(DKChar separator) const;
  [[nodiscard]] std::vector<DKString> Split(DKStringView separator) const;

  // Comparison. Flag bit 1 ignores case, bit 2 ignores accents; other bits are ignored.
  // Without flags the result is exactly -1, 0 or 1.
  enum CompareFlags : long { CaseSensitive = 0, IgnoreCase = 1, IgnoreAccent = 2, IgnoreCaseAndAccent = 3 };
  [[nodiscard]] int Compare(const DKChar* other, long flags = 0) const;
  [[nodiscard]] int Compare(const DKString& other, long flags = 0) const;
  [[nodiscard]] int Compare(const DKString& other, const DKSmartPtrToConst<DKCollator>& collator) const;
  [[nodiscard]] int Compare(const DKChar* other, const DKSmartPtrToConst<DKCollator>& collator) const;
  [[nodiscard]] bool IsEqual(const DKString& other, long flags = 0) const { return Compare(other, flags) == 0; }
  [[nodiscard]] bool IsEqual(const DKChar* other, long flags = 0) const { return Compare(other, flags) == 0; }

  // Number conversions. When ok is given it is always written.
  [[nodiscard]] int AsInt(bool* ok = nullptr) const;
  [[nodiscard]] long AsLong(bool* ok = nullptr) const;         // 32-bit range on every platform
  [[nodiscard]] DKDuration AsDKDuration(bool* ok = nullptr) const;
  [[nodiscard]] unsigned int AsUint(bool* ok = nullptr) const;
  [[nodiscard]] unsigned long AsULong(bool* ok = nullptr) const; // 32-bit range on every platform
  [[nodiscard]] double AsDouble(bool* ok = nullptr) const;
  [[nodiscard]] DKInt64 AsInt64(bool* ok = nullptr) const;
  [[nodiscard]] DKUInt64 AsUInt64(bool* ok = nullptr) const;

  // Date and time conversions: the text is read in each type's default format; ok tells
  // whether it could be read.
  [[nodiscard]] DKDateTime AsDKDateTime(bool* ok = nullptr) const;
  [[nodiscard]] DKDateTimeEx AsDKDateTimeEx(bool* ok = nullptr) const;
  [[nodiscard]] DKDateEx AsDKDateEx(bool* ok = nullptr) const;
  [[nodiscard]] DKTimeEx AsDKTimeEx(bool* ok = nullptr) const;
  [[nodiscard]] DKDurationEx AsDKDurationEx(bool* ok = nullptr) const;

  // Text conversions. Code pages: 0 and 65001 (UTF-8), 1252 (Windows Western), 28591 (Latin-1).
  // AsMbString never fails: a character the code page lacks becomes '?'.
  [[nodiscard]] std::string AsMbString(unsigned int codePage) const;
  [[nodiscard]] std::string AsMbString(const DKSmartPtr<DKStringConverter>& converter) const;
  [[nodiscard]] std::string AsUTF8() const;
  // Replaces the text by the decoded UTF-8; on invalid input the string is left unchanged.
  DKErrorID SetFromUTF8(const char* text, std::size_t length = npos);
  DKErrorID ConvertToUnicode(const char* text, unsigned int codePage);
  static DKErrorID ConvertToUnicode(const char* text, unsigned int codePage, DKString& out);
  DKErrorID ConvertFromUnicode(std::string& out, unsigned int codePage) const;

  // printf-style formatting with the library's engine (DKFormat.h), replacing the text by the
  // result. The arguments are captured with their types (DKFormatArgs.h): any text type
  // prints with %s, and a literal 0 or nullptr is an argument, never an argument list.
  template <class... Args>
  DKString& Format(const DKChar* format, const Args&... args) {
    return FormatArgs(format, DKMakeFormatArgs(args...));
  }
  DKString& FormatArgs(const DKChar* format, DKFormatArgList args);
  // The same with a va_list, for functions that pass their own variadic arguments on: in this
  // wide format "%s" takes a DKChar string and "%S" a narrow (UTF-8) one.
  DKString& FormatV(const DKChar* format, va_list args);

  // Reversible scrambling of the text. Obfuscation only: it does not protect a secret from
  // anyone who has the library.
  DKString& Encrypt();
  DKString& Decrypt();
  bool IsEncrypted() const;

  // Comparison operators use the plain comparison (Compare without flags): code-unit order,
  // in both operand orders. Narrow text compares as its UTF-8 decoding.
  friend bool operator==(const DKString& a, const DKString& b) noexcept { return a.Equals(b); }
  friend bool operator==(const DKString& a, const DKChar* b) noexcept { return a.Compare(b) == 0; }
  friend bool operator==(const DKString& a, std::u16string_view b) noexcept { return std::u16string_view(a) == b; }
  friend bool operator==(const DKString& a, std::string_view utf8) noexcept { return a.EqualsUTF8(utf8); }
  friend bool operator==(const DKString& a, const char* utf8) noexcept { return a.EqualsUTF8(utf8 ? utf8 : ""); }
  friend std::strong_ordering operator<=>(const DKString& a, const DKString& b) noexcept { return a.Compare(b) <=> 0; }
  friend std::strong_ordering operator<=>(const DKString& a, const DKChar* b) noexcept { return a.Compare(b) <=> 0; }
  friend std::strong_ordering operator<=>(const DKString& a, std::u16string_view b) noexcept {
    return std::u16string_view(a).compare(b) <=> 0;
  }
  friend bool operator==(const DKString& a, const DKStdString& b) noexcept { return a.View() == DKStringView(b); }
  friend std::strong_ordering operator<=>(const DKString& a, const DKStdString& b) noexcept {
    return a.View().compare(b) <=> 0;
  }

  // The block behind the string, for tests and diagnostics.
  const DataDef* GetData() const noexcept { return m_pData; }
  static const DataDef* GetEmptyData() noexcept { return EmptyData(); }

private:
  // The shared empty block: a header and its terminator. Its count is 1, so it always reads
  // as shared: every editing operation leaves it for a block of its own, and none writes here.
  struct EmptyBlock {
    DataDef header;
    DKChar terminator;
  };
  static EmptyBlock glbEmptyData;
  static DataDef* EmptyData() noexcept { return &glbEmptyData.header; }
  static void Release(DataDef* data) noexcept {
    if (data != EmptyData() && data->references.fetch_sub(1, std::memory_order_acq_rel) == 0)
      FreeData(data);
  }
  static void FreeData(DataDef* data) noexcept;
  static DataDef* AllocData(std::size_t capacity);

  DKString& AppendSlow(DKChar ch);
  bool Equals(const DKString& other) const noexcept;
  bool EqualsUTF8(std::string_view utf8) const noexcept;
  // Copies count units of text (which may lie inside this string) as the new content.
  void SetText(const DKChar* text, std::size_t count);
  void AppendUnits(const DKChar* text, std::size_t count);
  void InsertUnits(std::size_t pos, const DKChar* text, std::size_t count);
  std::size_t ReplaceUnits(const DKChar* find, std::size_t findLen, const DKChar* repl, std::size_t replLen);

  DataDef* m_pData;
};

DK_EXPORT DKString operator+(const DKString& a, const DKString& b);
DK_EXPORT DKString operator+(const DKString& a, const DKChar* b);
DK_EXPORT DKString operator+(const DKChar* a, const DKString& b);
DK_EXPORT DKString operator+(const DKString& a, DKChar b);
// A temporary on the left is appended to in place: a + b + c copies a once.
inline DKString operator+(DKString&& a, const DKString& b) { return std::move(a.Append(b)); }
inline DKString operator+(DKString&& a, const DKChar* b) { return std::move(a.Append(b)); }
inline DKString operator+(DKString&& a, DKChar b) { return std::move(a.Append(b)); }

// A text parameter of name look-ups: a DKString (shared, not copied), DKChar text or a view,
// or UTF-8 narrow text (decoded; an invalid sequence becomes U+FFFD). It refers to the
// caller's text and lives only for the call.
class DKTextArg {
public:
  DKTextArg(const DKString& text) noexcept : m_string(&text) {}
  DKTextArg(const DKChar* text) noexcept : m_wide(text ? text : DK_T("")) {}
  DKTextArg(const DKStdString& text) noexcept : m_wide(text.c_str()) {}
  DKTextArg(const char* utf8) noexcept : m_narrow(utf8 ? utf8 : "") {}
  DKTextArg(std::string_view utf8) noexcept : m_narrow(utf8.data()), m_narrowLength(utf8.size()) {}
  DKTextArg(const std::string& utf8) noexcept : m_narrow(utf8.data()), m_narrowLength(utf8.size()) {}

  DKString Get() const {
    if (m_string)
      return *m_string;
    if (m_wide)
      return DKString(m_wide);
    return DKString::FromUTF8(m_narrowLength == DKString::npos ? std::string_view(m_narrow)
                                                               : std::string_view(m_narrow, m_narrowLength));
  }

private:
  const DKString* m_string = nullptr;
  const DKChar* m_wide = nullptr;
  const char* m_narrow = nullptr;
  std::size_t m_narrowLength = DKString::npos;
};

// One piece of a DKStrCat: text of either kind, a character or an integer.
class DK_EXPORT DKStrCatPiece {
public:
  DKStrCatPiece(const DKString& s) noexcept : m_wide(s.c_str()), m_length(s.Length()) {}
  DKStrCatPiece(const DKStdString& s) noexcept : m_wide(s.data()), m_length(s.size()) {}
  DKStrCatPiece(DKStringView s) noexcept : m_wide(s.data()), m_length(s.size()) {}
  DKStrCatPiece(const DKChar* s) noexcept : m_wide(s), m_length(DKStrLenInline(s)) {}
  DKStrCatPiece(DKChar ch) noexcept : m_wide(m_digits), m_length(1) { m_digits[0] = ch; }
  DKStrCatPiece(char ch) noexcept : m_narrow(&m_byte), m_length(1), m_byte(ch) {}
  DKStrCatPiece(std::string_view utf8) noexcept : m_narrow(utf8.data()), m_length(utf8.size()) {}
  DKStrCatPiece(const char* utf8) noexcept : DKStrCatPiece(std::string_view(utf8 ? utf8 : "")) {}
  DKStrCatPiece(const std::string& utf8) noexcept : DKStrCatPiece(std::string_view(utf8)) {}
  DKStrCatPiece(int v) noexcept : DKStrCatPiece(static_cast<long long>(v)) {}
  DKStrCatPiece(long v) noexcept : DKStrCatPiece(static_cast<long long>(v)) {}
  DKStrCatPiece(long long v) noexcept;
  DKStrCatPiece(unsigned v) noexcept : DKStrCatPiece(static_cast<unsigned long long>(v)) {}
  DKStrCatPiece(unsigned long v) noexcept : DKStrCatPiece(static_cast<unsigned long long>(v)) {}
  DKStrCatPiece(unsigned long long v) noexcept;
  DKStrCatPiece(const DKStrCatPiece&) = delete;
  DKStrCatPiece& operator=(const DKStrCatPiece&) = delete;

private:
  friend DK_EXPORT DKString DKStrCatPieces(const DKStrCatPiece* const* pieces, std::size_t count);
  static std::size_t DKStrLenInline(const DKChar* s) noexcept { return s ? std::char_traits<DKChar>::length(s) : 0; }

  const DKChar* m_wide = nullptr;
  const char* m_narrow = nullptr; // UTF-8 text when set
  std::size_t m_length = 0;
  char m_byte = 0;
  DKChar m_digits[24];
};

DK_EXPORT DKString DKStrCatPieces(const DKStrCatPiece* const* pieces, std::size_t count);

// Concatenates its pieces into one new string, sized once: DKStrCat(name, DK_T(": "), count).
template <class... Pieces>
DKString DKStrCat(const Pieces&... pieces) {
  const auto join = [](const auto&... piece) {
    const DKStrCatPiece* list[] = {&piece..., nullptr};
    return DKStrCatPieces(list, sizeof...(piece));
  };
  return join(DKStrCatPiece(pieces)...);
}

// Writes the text as UTF-8.
DK_EXPORT std::ostream& operator<<(std::ostream& os, const DKString& s);

inline void swap(DKString& a, DKString& b) noexcept { a.swap(b); }

template <>
struct std::hash<DKString> {
  DK_EXPORT std::size_t operator()(const DKString& s) const noexcept;
};

// Length of a terminated DKChar text; 0 for a null pointer.
DK_EXPORT std::size_t DKStrLen(const DKChar* text) noexcept;

// Natural-order comparison: digit runs compare by value, other characters without regard
// to case; leading white space is skipped. Negative, 0 or positive.
class DK_EXPORT DKStringNatCompare {
public:
  int operator()(const DKChar* a, const DKChar* b) const noexcept;
  int operator()(const DKString& a, const DKString& b) const noexcept { return (*this)(a.c_str(), b.c_str()); }
};

// Splits a writable buffer in place at separator characters.
class DK_EXPORT DKTokenizer {
public:
  DKTokenizer();
  void SetSeparators(const DKChar* separators) { m_separators = separators; }
  const DKString& GetSeparators() const noexcept { return m_separators; }
  void AllowEmptyTokens(bool allow) noexcept { m_allowEmptyTokens = allow; }
  bool AllowEmptyTokens() const noexcept { return m_allowEmptyTokens; }
  // Overwrites each separator in buffer with 0 and appends a pointer to each token to out.
  void Tokenize(DKChar* buffer, DKPointerVector<DKChar>& out) const;

private:
  DKString m_separators;
  bool m_allowEmptyTokens;
};
