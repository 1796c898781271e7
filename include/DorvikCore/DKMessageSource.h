// Message sources turn an error code into text, filling "%0:d", "%1:s" placeholders from
// the parameters of the error named in the format context.
#pragma once

#include <DorvikCore/DKError.h>

#include <initializer_list>
#include <memory>

// The interface of a message source: a counted object that errors hold through smart pointers
// and ask for their text. Implementations answer GetText and may use FillPlaceholders.
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
  // One message of a table given to the constructor.
  struct Entry {
    long code;          // The message code.
    const DKChar* text; // Its text, copied by the source; null is the empty text.
  };

  // An empty source.
  DKMemoryMessageSource();
  // A source holding the entries' messages; of two entries with one code, the later one wins.
  DKMemoryMessageSource(std::initializer_list<Entry> entries);
  // Not copyable: errors share one source through smart pointers.
  DKMemoryMessageSource(const DKMemoryMessageSource&) = delete;
  DKMemoryMessageSource& operator=(const DKMemoryMessageSource&) = delete;

  ~DKMemoryMessageSource() override;

  // Adds the message, or replaces the text of a code already present.
  void Add(long code, const DKString& text);
  // Removes the message of code; false when the code was not present.
  bool Remove(long code);
  // Whether the source has a message for code.
  bool Contains(long code) const;
  // The number of messages held.
  std::size_t GetCount() const;
  // The message text as stored, placeholders unfilled; false (out unchanged) when unknown.
  bool GetTemplate(long code, DKString& out) const;

  // The message of code with its placeholders filled; for an unknown code, what UnknownCode gives.
  DKErrorID GetText(DKString& out, long code, const DKFormatContext& context) const override;

private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};

// The library's own messages (DKLibraryMessage codes), compiled in. The source is created on
// first use, safely from any thread, and cannot be changed through this pointer.
DK_EXPORT DKSmartPtr<DKMessageSource> DKGetLibraryMessageSource();
