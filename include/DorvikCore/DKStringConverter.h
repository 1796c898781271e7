// String converters: between DKString (UTF-16) and narrow text in one code page.
#pragma once

#include <DorvikCore/DKErrorID.h>
#include <DorvikCore/DKRefCount.h>
#include <DorvikCore/DKString.h>

#include <string>

// A counted converter for one code page. Converters hold no state beyond their policy, so
// one instance may be shared and used by several threads at once.
//
// Both directions append to out. On failure they return the error and leave out exactly as
// it was. A null text is the empty text. Errors of the library's message set:
//   DK_MSG_INVALID_UTF8          (byte offset of the invalid sequence)
//   DK_MSG_UNMAPPABLE_CHARACTER  (position, code page): a character the code page lacks when
//                                encoding, or a byte the code page leaves undefined when decoding
//   DK_MSG_INVALID_UTF16         (position of an unpaired surrogate, encoding to UTF-8)
//   DK_MSG_TEXT_TOO_LONG         (code units): the result would not fit in a DKString
class DK_EXPORT DKStringConverter : public DKRefCount {
public:
  // What a conversion does with input that it cannot map.
  enum Policy : int {
    // Fail with an error.
    Strict = 0,
    // Go on: an invalid input sequence decodes to U+FFFD (one for each maximal invalid
    // subpart of UTF-8); a character the code page lacks encodes as '?', an unpaired
    // surrogate as U+FFFD in UTF-8. Conversions with this policy never fail.
    Replace = 1,
  };

  // The code pages the library knows. 0 is the system's narrow code page, UTF-8 on Linux.
  static constexpr unsigned int codePageSystem = 0;
  static constexpr unsigned int codePageWindows1252 = 1252;
  static constexpr unsigned int codePageLatin1 = 28591;
  static constexpr unsigned int codePageUTF8 = 65001;

  ~DKStringConverter() override;

  // Appends the UTF-16 form of len bytes of text to out. Every byte counts, 0 included.
  virtual DKErrorID ToUnicode(const char* text, std::size_t len, DKString& out) const = 0;
  // Appends the narrow form of len code units of text to out.
  virtual DKErrorID FromUnicode(const DKChar* text, std::size_t len, std::string& out) const = 0;
  // The code page this converter implements (65001 for UTF-8, also when asked for 0).
  virtual unsigned int GetCodePage() const = 0;

  // What the converter does with input it cannot map, fixed when it is made.
  Policy GetPolicy() const noexcept { return m_policy; }

  // The shared converter of a code page (0, 1252, 28591 or 65001); null for any other.
  static DKSmartPtr<DKStringConverter> ForCodePage(unsigned int codePage, Policy policy = Strict);
  // The same, reporting an unknown code page as DK_MSG_UNKNOWN_CODE_PAGE (the code page).
  static DKErrorID ForCodePage(unsigned int codePage, DKSmartPtr<DKStringConverter>& out, Policy policy = Strict);

protected:
  // For the implementing classes.
  explicit DKStringConverter(Policy policy) noexcept : m_policy(policy) {}

private:
  const Policy m_policy;
};

// UTF-8, code page 65001. Strict decoding rejects overlong forms, encoded surrogates, values
// above U+10FFFF, truncated sequences and stray continuation bytes; strict encoding rejects
// unpaired surrogates.
class DK_EXPORT DKUTF8StringConverter : public DKStringConverter {
public:
  // A converter of its own; ForCodePage hands out shared ones.
  explicit DKUTF8StringConverter(Policy policy = Strict) noexcept : DKStringConverter(policy) {}
  ~DKUTF8StringConverter() override;

  // As DKStringConverter describes them.
  DKErrorID ToUnicode(const char* text, std::size_t len, DKString& out) const override;
  DKErrorID FromUnicode(const DKChar* text, std::size_t len, std::string& out) const override;
  unsigned int GetCodePage() const override { return codePageUTF8; }
};

// ISO-8859-1, code page 28591: each byte is the code point of the same value, so decoding
// never fails; encoding fails on characters above U+00FF.
class DK_EXPORT DKLatin1StringConverter : public DKStringConverter {
public:
  // A converter of its own; ForCodePage hands out shared ones.
  explicit DKLatin1StringConverter(Policy policy = Strict) noexcept : DKStringConverter(policy) {}
  ~DKLatin1StringConverter() override;

  // As DKStringConverter describes them.
  DKErrorID ToUnicode(const char* text, std::size_t len, DKString& out) const override;
  DKErrorID FromUnicode(const DKChar* text, std::size_t len, std::string& out) const override;
  unsigned int GetCodePage() const override { return codePageLatin1; }
};

// Windows Western, code page 1252: Latin-1 except for 0x80-0x9F, which hold typographic
// characters (0x80 is the euro sign). The bytes 0x81, 0x8D, 0x8F, 0x90 and 0x9D are
// undefined: strict decoding rejects them, and U+0081 and the like have no form either.
class DK_EXPORT DKWindows1252StringConverter : public DKStringConverter {
public:
  // A converter of its own; ForCodePage hands out shared ones.
  explicit DKWindows1252StringConverter(Policy policy = Strict) noexcept : DKStringConverter(policy) {}
  ~DKWindows1252StringConverter() override;

  // As DKStringConverter describes them.
  DKErrorID ToUnicode(const char* text, std::size_t len, DKString& out) const override;
  DKErrorID FromUnicode(const DKChar* text, std::size_t len, std::string& out) const override;
  unsigned int GetCodePage() const override { return codePageWindows1252; }
};
