// Message sources turn an error code into text, filling "%0:d", "%1:s" placeholders from
// the parameters of the error named in the format context.
#pragma once

#include <DorvikCore/DKError.h>

#include <initializer_list>
#include <memory>

class DK_EXPORT DKMessageSource : public DKRefCount {
public:
  ~DKMessageSource() override;
  // Writes the text of code to out. An unknown code gives an error result and a text that
  // still names the code, so a caller that prints it shows something useful.
  virtual DKErrorID GetText(DKString& out, long code, const DKFormatContext& context) const = 0;

  // Fills the placeholders of a message text from the parameters of the context's error.
  // A placeholder is "%" + parameter index + ":" + a type letter (d, s, f, ...); every
  // parameter kind prints through GetParameterValueAsString, whatever the letter says.
  // "%%" is one literal "%". A placeholder whose parameter does not exist (no error, or an
  // index beyond the count) stays in the text as written, so the gap is visible; any other
  // "%" sequence is copied unchanged.
  static DKString FillPlaceholders(const DKString& text, const DKFormatContext& context);

  // The answer for a code a source does not know: out becomes "Unknown message <code>" and
  // the result is a DK_MSG_UNKNOWN_MESSAGE error naming the code.
  static DKErrorID UnknownCode(DKString& out, long code);
};

// A message source held in memory: a table from code to message text. Reads may run on
// several threads at once, also while another thread adds or removes messages.
class DK_EXPORT DKMemoryMessageSource : public DKMessageSource {
public:
  struct Entry {
    long code;
    const DKChar* text;
  };

  DKMemoryMessageSource();
  DKMemoryMessageSource(std::initializer_list<Entry> entries);
  DKMemoryMessageSource(const DKMemoryMessageSource&) = delete;
  DKMemoryMessageSource& operator=(const DKMemoryMessageSource&) = delete;
  ~DKMemoryMessageSource() override;

  // Adds the message, or replaces the text of a code already present.
  void Add(long code, const DKString& text);
  // False when the code was not present.
  bool Remove(long code);
  bool Contains(long code) const;
  std::size_t GetCount() const;
  // The message text as stored, placeholders unfilled; false (out unchanged) when unknown.
  bool GetTemplate(long code, DKString& out) const;

  DKErrorID GetText(DKString& out, long code, const DKFormatContext& context) const override;

private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};

// The library's own messages (DKLibraryMessage codes), compiled in. The source is created on
// first use, safely from any thread, and cannot be changed through this pointer.
DK_EXPORT DKSmartPtr<DKMessageSource> DKGetLibraryMessageSource();
