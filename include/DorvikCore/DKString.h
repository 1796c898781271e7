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

// A value type: copies share the text until one of them changes, so copying is cheap. Never
// null: a default or cleared string is the empty text. Positions and lengths count UTF-16 code
// units. Copies may be used on different threads; one string object may not be changed by two
// threads at once. A text longer than maxLength throws std::length_error.
class DK_EXPORT DKString {
public:
  // The header of the one heap block behind a string; capacity + 1 code units of text follow
  // it directly, and text[length] is always 0.
  struct DataDef {
    std::uint32_t capacity;               // code units requested; room for capacity + 1
    std::atomic<std::int32_t> references; // additional sharers: 0 means one owner
    std::uint32_t length;                 // code units in use, without the terminator

    // The text that follows the header.
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

  // "No position": what a failed search returns, and "to the end" as a count.
  static constexpr std::size_t npos = static_cast<std::size_t>(-1);
  // Longest text a block can hold: lengths are stored in 32 bits.
  static constexpr std::size_t maxLength = 0xFFFFFFFEu;

  // Construction and assignment. A null source pointer gives the empty string. Text with a
  // count of 0 is read up to its terminator, otherwise exactly count code units; a character
  // may be repeated. A copy shares the other's text; a move takes it and leaves the other empty.
  DKString() noexcept : m_pData(EmptyData()) {}
  DKString(std::nullptr_t) noexcept : m_pData(EmptyData()) {}
  DKString(const DKChar* text, std::size_t count = 0);
  explicit DKString(DKChar ch);
  DKString(DKChar ch, std::size_t repeat);
  DKString(const DKStdString& text);
  DKString(const DKString& other) noexcept;
  DKString(DKString&& other) noexcept : m_pData(other.m_pData) { other.m_pData = EmptyData(); }
  ~DKString() { Release(m_pData); }

  // Replaces the text, as the constructors make it; nullptr clears.
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
  // Replaces the text by other's (shared), or by text: count 0 copies up to the terminator,
  // otherwise exactly count code units.
  DKString& Assign(const DKString& other) noexcept { return *this = other; }
  DKString& Assign(const DKChar* text, std::size_t count = 0);
  // Makes the string empty and lets go of its block.
  void Clear() noexcept;
  // Exchanges the texts of the two strings (nothing is copied).
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

  // A copy of the text as a standard string.
  [[nodiscard]] DKStdString AsStdString() const { return DKStdString(c_str(), Length()); }
  explicit operator DKStdString() const { return AsStdString(); }

  // The text as a view; valid until the string changes or is destroyed.
  operator std::u16string_view() const noexcept {
    return std::u16string_view(reinterpret_cast<const char16_t*>(c_str()), Length());
  }
  [[nodiscard]] DKStringView View() const noexcept { return DKStringView(c_str(), Length()); }

  // Access. size(), data() and empty() are the standard spellings, for generic code.
  // The length in code units, without the terminator.
  std::size_t size() const noexcept { return m_pData->length; }
  // The terminated text; never null, valid until the string changes or is destroyed.
  const DKChar* data() const noexcept { return m_pData->Text(); }
  // True for the empty text.
  bool empty() const noexcept { return m_pData->length == 0; }
  // The length in code units, without the terminator.
  std::size_t Length() const noexcept { return m_pData->length; }
  std::size_t Len() const noexcept { return m_pData->length; }
  // The code units the block holds without growing.
  std::size_t Capacity() const noexcept { return m_pData->capacity; }
  // The terminated text; never null, valid until the string changes or is destroyed.
  const DKChar* AsWChar() const noexcept { return m_pData->Text(); }
  const DKChar* c_str() const noexcept { return m_pData->Text(); }
  // True for the empty text (a string is never null).
  bool IsNull() const noexcept { return m_pData->length == 0; }
  bool IsEmpty() const noexcept { return m_pData->length == 0; }
  // The code unit at pos. No range check: pos must be below Length() (pos == Length() reads
  // the terminator).
  DKChar operator[](std::size_t pos) const noexcept { return m_pData->Text()[pos]; }
  // Replaces the code unit at pos; nothing when pos is not below Length().
  void Set(std::size_t pos, DKChar ch);
  // Iteration over the code units, for range-based for loops and algorithms.
  const DKChar* begin() const noexcept { return c_str(); }
  const DKChar* end() const noexcept { return c_str() + Length(); }

  // Editing. Every editing operation first makes the block private.
  // Appends text of any kind (as the constructors read it; narrow text is UTF-8) and returns
  // this string; the text may be part of this string.
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

  // Inserts before pos (past the end: at the end); returns this string.
  DKString& Insert(std::size_t pos, const DKChar* text);
  DKString& Insert(std::size_t pos, const DKString& text);
  DKString& Insert(std::size_t pos, DKChar ch);
  // Removes up to count code units from pos (npos: to the end); nothing when pos is past the end.
  DKString& Remove(std::size_t pos, std::size_t count);
  // A copy of up to count code units from pos (npos: to the end); empty when pos is past the end.
  [[nodiscard]] DKString SubStr(std::size_t pos, std::size_t count = npos) const;
  // Replaces every occurrence of find, left to right; returns how many were replaced.
  std::size_t Replace(const DKChar* find, const DKChar* replacement);
  std::size_t Replace(const DKString& find, const DKString& replacement);
  std::size_t Replace(const DKString& find, const DKChar* replacement);
  // Maps every code unit to upper or lower case (DKtowupper, DKtowlower); returns this string.
  DKString& Upper();
  DKString& Lower();
  // Makes room for capacity code units, so that growing up to them does not reallocate.
  void Reserve(std::size_t capacity) { ResizeCapacity(capacity); }
  // Makes the block private and able to hold `capacity` code units (see the .cpp).
  void ResizeCapacity(std::size_t capacity);
  // Makes the block private, keeping its capacity: the step before writing into the text.
  void Detach() {
    if (m_pData->IsShared())
      ResizeCapacity(Capacity());
  }

  // Trimming: removes the leading (LTrim) or trailing (RTrim) run of the character, or of any
  // character of the set, or both (Trim, blanks and tabs by default); returns this string.
  // Callers pass 0 as the start of a left trim and npos for a right trim.
  DKString& LTrim(DKChar ch = DK_T(' '), std::size_t start = 0);
  DKString& RTrim(DKChar ch = DK_T(' '), std::size_t start = npos);
  DKString& LTrim(const DKChar* set, std::size_t start = 0);
  DKString& RTrim(const DKChar* set, std::size_t start = npos);
  DKString& LTrim(const DKString& set, std::size_t start = 0) { return LTrim(set.c_str(), start); }
  DKString& RTrim(const DKString& set, std::size_t start = npos) { return RTrim(set.c_str(), start); }
  DKString& Trim(const DKChar* set = DK_T(" \t")) { return RTrim(set).LTrim(set); }

  // Searching; each returns a position or npos. A null text counts as empty. Find looks forward
  // from start, RFind backward from start (npos: from the end); the FindFirst/FindLast forms look
  // for a unit that is (Of) or is not (NotOf) in the set.
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

  // Tests on the text, code unit by code unit: begins with, ends with, holds.
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
  enum CompareFlags : long {
    CaseSensitive = 0,      // Code-unit order.
    IgnoreCase = 1,         // As DKTableIgnoreCaseCollator orders.
    IgnoreAccent = 2,       // As DKTableIgnoreAccentCollator orders.
    IgnoreCaseAndAccent = 3 // As DKTableIgnoreCaseAndAccentCollator orders.
  };
  // Negative, 0 or positive as this text orders before, with or after other, by the flags or by
  // a collator (a null collator: code-unit order); IsEqual: whether the result is 0.
  [[nodiscard]] int Compare(const DKChar* other, long flags = 0) const;
  [[nodiscard]] int Compare(const DKString& other, long flags = 0) const;
  [[nodiscard]] int Compare(const DKString& other, const DKSmartPtrToConst<DKCollator>& collator) const;
  [[nodiscard]] int Compare(const DKChar* other, const DKSmartPtrToConst<DKCollator>& collator) const;
  [[nodiscard]] bool IsEqual(const DKString& other, long flags = 0) const { return Compare(other, flags) == 0; }
  [[nodiscard]] bool IsEqual(const DKChar* other, long flags = 0) const { return Compare(other, flags) == 0; }

  // Number conversions: white space, a sign and decimal digits (AsDouble: any decimal or
  // hexadecimal floating-point form), read as far as they go. ok is true when the whole text
  // was read and the value is in range; when given it is always written. The 32-bit forms
  // stop at the ends of their range; the 64-bit forms wrap.
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
  // AsMbString never fails: a character the code page lacks becomes '?'; an unknown code page
  // or a null converter gives UTF-8.
  [[nodiscard]] std::string AsMbString(unsigned int codePage) const;
  [[nodiscard]] std::string AsMbString(const DKSmartPtr<DKStringConverter>& converter) const;
  // The text as UTF-8; an unpaired surrogate becomes U+FFFD.
  [[nodiscard]] std::string AsUTF8() const;
  // Replaces the text by the decoded UTF-8 (up to length bytes, or to a 0 byte); on invalid
  // input the string is left unchanged and the error says where.
  DKErrorID SetFromUTF8(const char* text, std::size_t length = npos);
  // Replaces the text (of this string, or out) by the terminated narrow text decoded from the
  // code page; on an error (an unknown code page, a byte it cannot map) the text is unchanged.
  DKErrorID ConvertToUnicode(const char* text, unsigned int codePage);
  static DKErrorID ConvertToUnicode(const char* text, unsigned int codePage, DKString& out);
  // Replaces out by the text encoded in the code page; on an error (an unknown code page, a
  // character it lacks) out is unchanged.
  DKErrorID ConvertFromUnicode(std::string& out, unsigned int codePage) const;

  // printf-style formatting with the library's engine (DKFormat.h), replacing the text by the
  // result. The arguments are captured with their types (DKFormatArgs.h): any text type
  // prints with %s, and a literal 0 or nullptr is an argument, never an argument list.
  template <class... Args>
  DKString& Format(const DKChar* format, const Args&... args) {
    return FormatArgs(format, DKMakeFormatArgs(args...));
  }
  // The same with arguments captured already (DKMakeFormatArgs).
  DKString& FormatArgs(const DKChar* format, DKFormatArgList args);
  // The same with a va_list, for functions that pass their own variadic arguments on: in this
  // wide format "%s" takes a DKChar string and "%S" a narrow (UTF-8) one.
  DKString& FormatV(const DKChar* format, va_list args);

  // Reversible scrambling of the text. Obfuscation only: it does not protect a secret from
  // anyone who has the library. Encrypt leaves a scrambled text as it is; Decrypt leaves a text
  // that is not scrambled as it is. Both return this string.
  DKString& Encrypt();
  DKString& Decrypt();
  // Whether the text is a scrambled text (its marker and check agree).
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
  // The one shared block of every empty string.
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
  // A block with no other sharer is freed without an atomic read-modify-write: nobody else can
  // take a share of it now (that would need a string sharing it), and the acquire load pairs
  // with the release of every sharer that let go, as the decrement would.
  static void Release(DataDef* data) noexcept {
    if (data == EmptyData())
      return;
    if (data->references.load(std::memory_order_acquire) == 0 ||
        data->references.fetch_sub(1, std::memory_order_acq_rel) == 0)
      FreeData(data);
  }
  static void FreeData(DataDef* data) noexcept;
  static DataDef* AllocData(std::size_t capacity);
  static std::size_t BlockBytes(std::size_t capacity) noexcept;

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

// A new string of a followed by b.
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
  // Refers to the caller's text (a null pointer is the empty text); nothing is copied yet.
  DKTextArg(const DKString& text) noexcept : m_string(&text) {}
  DKTextArg(const DKChar* text) noexcept : m_wide(text ? text : DK_T("")) {}
  DKTextArg(const DKStdString& text) noexcept : m_wide(text.c_str()) {}
  DKTextArg(const char* utf8) noexcept : m_narrow(utf8 ? utf8 : "") {}
  DKTextArg(std::string_view utf8) noexcept : m_narrow(utf8.data()), m_narrowLength(utf8.size()) {}
  DKTextArg(const std::string& utf8) noexcept : m_narrow(utf8.data()), m_narrowLength(utf8.size()) {}

  // The text as a DKString (a DKString is shared, other text is copied or decoded).
  DKString Get() const {
    if (m_string)
      return *m_string;
    if (m_wide)
      return DKString(m_wide);
    return DKString::FromUTF8(m_narrowLength == DKString::npos ? std::string_view(m_narrow)
                                                               : std::string_view(m_narrow, m_narrowLength));
  }
  // The text as a view when it is UTF-16 already (nothing is copied); false for UTF-8 text.
  bool GetView(DKStringView& view) const noexcept {
    if (m_string)
      view = m_string->View();
    else if (m_wide)
      view = DKStringView(m_wide);
    else
      return false;
    return true;
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
  // Refers to the caller's text (UTF-16, or UTF-8 narrow text; a null pointer is the empty text),
  // or holds a character or the decimal digits of an integer. It lives only for the call.
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
  // Not copyable: a piece may point into itself.
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

// The string of count pieces joined, sized once; the engine behind DKStrCat.
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

// Exchanges the texts of a and b (nothing is copied).
inline void swap(DKString& a, DKString& b) noexcept { a.swap(b); }

// Hashing of strings, for std::unordered_map and std::unordered_set keys.
template <>
struct std::hash<DKString> {
  // The hash of the code units, as std::hash of the same text as a standard string view.
  DK_EXPORT std::size_t operator()(const DKString& s) const noexcept;
};

// Length of a terminated DKChar text; 0 for a null pointer.
DK_EXPORT std::size_t DKStrLen(const DKChar* text) noexcept;

// Natural-order comparison: digit runs compare by value, other characters without regard
// to case; leading white space is skipped. Negative, 0 or positive.
class DK_EXPORT DKStringNatCompare {
public:
  // Compares two terminated texts (a null pointer is the empty text) or two strings.
  int operator()(const DKChar* a, const DKChar* b) const noexcept;
  int operator()(const DKString& a, const DKString& b) const noexcept { return (*this)(a.c_str(), b.c_str()); }
};

// Splits a writable buffer in place at separator characters.
class DK_EXPORT DKTokenizer {
public:
  // Separators blank and tab; empty tokens skipped.
  DKTokenizer();
  // The separator characters (each character of the text is one; none: the whole buffer is one
  // token): set, and read.
  void SetSeparators(const DKChar* separators) { m_separators = separators; }
  const DKString& GetSeparators() const noexcept { return m_separators; }
  // Whether two separators in a row (or one at either end) make an empty token: set, and read.
  void AllowEmptyTokens(bool allow) noexcept { m_allowEmptyTokens = allow; }
  bool AllowEmptyTokens() const noexcept { return m_allowEmptyTokens; }
  // Overwrites each separator in buffer with 0 and appends a pointer to each token to out. The
  // tokens point into buffer, which the caller keeps; a null or empty buffer gives none.
  void Tokenize(DKChar* buffer, DKPointerVector<DKChar>& out) const;

private:
  DKString m_separators;
  bool m_allowEmptyTokens;
};
