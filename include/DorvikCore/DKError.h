// Counted error objects: DKError (text from a message source), DKErrorWithArgs (with typed
// parameters), DKErrorString (ready-made text), and the library's own message set. The error
// interface DKErrorI and DKErrorID, the result of every fallible operation, are in
// DKErrorID.h, which this header includes.
#pragma once

#include <DorvikCore/DKDouble.h>
#include <DorvikCore/DKErrorID.h>
#include <DorvikCore/DKRefCount.h>
#include <DorvikCore/DKString.h>

#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

class DKMessageSource;
class DKDateTime;

// Settings for turning parameter values into text. An empty date-time format means each
// value's default format.
class DK_EXPORT DKExecContext {
public:
  // The default settings, or a date-time format (as DKDateTime::AsString takes it).
  DKExecContext() = default;
  explicit DKExecContext(const DKString& dateTimeFormat) : m_dateTimeFormat(dateTimeFormat) {}
  // The date-time format of DKDateTime parameters: read, and set.
  const DKString& GetDateTimeFormat() const noexcept { return m_dateTimeFormat; }
  void SetDateTimeFormat(const DKString& format) { m_dateTimeFormat = format; }

private:
  DKString m_dateTimeFormat;
};

// What a message source needs to produce the text of a code: the error whose parameters
// fill the placeholders (none for a default context) and the execution context.
class DK_EXPORT DKFormatContext {
public:
  // No error and the default settings, or the error (not owned: it must outlive the context)
  // and the settings given.
  DKFormatContext() = default;
  explicit DKFormatContext(const DKErrorI* error, const DKExecContext& exec = DKExecContext())
      : m_error(error), m_exec(exec) {}
  // The error whose parameters fill the placeholders; null for none.
  const DKErrorI* GetError() const noexcept { return m_error; }
  // The settings for the parameters' text.
  const DKExecContext& GetExecContext() const noexcept { return m_exec; }

private:
  const DKErrorI* m_error = nullptr;
  DKExecContext m_exec;
};

// A counted error whose text comes from a message source (the formatter).
class DK_EXPORT DKError : public DKErrorI {
public:
  // An error of code whose text the formatter gives; the error keeps a reference to it.
  DKError(const DKSmartPtrToConst<DKMessageSource>& formatter, long code, Severity severity = SeverityError);
  ~DKError() override;
  // The message source of the text; may be null.
  const DKSmartPtrToConst<DKMessageSource>& GetFormatter() const noexcept { return m_formatter; }
  // The formatter's text for the code, its placeholders filled from this error's parameters.
  // Without a formatter the text is "Unknown message <code>" and the result an error.
  DKErrorID AsString(DKString& out, const DKFormatContext& context) const override;

private:
  DKSmartPtrToConst<DKMessageSource> m_formatter;
};

// An error with typed parameters, each a copy taken from the memory pool and owned by the
// error. Parameters are numbered from 0 in the order they were added.
class DK_EXPORT DKErrorWithArgs : public DKError {
public:
  // One stored parameter.
  struct Storage {
    ErrorParamType type; // What the value is.
    void* value;         // The value, in a block of the memory pool that the error owns.
  };

  // An error with no parameters yet, as DKError makes it.
  DKErrorWithArgs(const DKSmartPtrToConst<DKMessageSource>& formatter, long code, Severity severity = SeverityError);
  // Copies take a copy of every parameter (and the code, severity and formatter).
  DKErrorWithArgs(const DKErrorWithArgs& other);
  DKErrorWithArgs& operator=(const DKErrorWithArgs& other);
  ~DKErrorWithArgs() override;

  // Appends a copy of value as the next parameter, of the type of the overload, and returns its
  // index. Not for an error that other threads read at the same time.
  std::size_t AddParam(double value);
  std::size_t AddParam(int value);
  std::size_t AddParam(long value);
  std::size_t AddParam(const DKString& value);
  std::size_t AddParam(const DKChar* value) { return AddParam(DKString(value)); }
  std::size_t AddParam(const DKDouble& value);
  std::size_t AddParam(const DKDateTime& value);

  // Copies the parameter at index to out. False when the index is out of range or the stored
  // type differs (a double parameter is not read as a DKDouble, nor an int as a long); out is
  // then unchanged.
  bool GetParam(double& out, std::size_t index) const;
  bool GetParam(int& out, std::size_t index) const;
  bool GetParam(long& out, std::size_t index) const;
  bool GetParam(DKString& out, std::size_t index) const;
  bool GetParam(DKDouble& out, std::size_t index) const;
  bool GetParam(DKDateTime& out, std::size_t index) const;

  // As DKErrorI describes them, over the parameters added.
  std::size_t GetParameterCount() const override;
  ErrorParamType GetParameterType(std::size_t index) const override;
  const void* GetParameterValue(std::size_t index) const override;
  // "%f" for a double, "%d" for an int, "%ld" for a long, the text of a DKString,
  // DKDouble::AsString() for a DKDouble, a DKDateTime in the context's format; empty out of range.
  DKString GetParameterValueAsString(std::size_t index, const DKExecContext& context) const override;

private:
  template <class T>
  std::size_t Append(ErrorParamType type, const T& value);
  template <class T>
  bool Read(T& out, ErrorParamType type, std::size_t index) const;

  std::vector<Storage> m_params;
};

// A counted error that carries its text ready made.
class DK_EXPORT DKErrorString : public DKErrorI {
public:
  // An error of code (-1 unless given) whose text is text.
  explicit DKErrorString(const DKString& text, long code = -1, Severity severity = SeverityError);
  ~DKErrorString() override;
  // Copies the text to out; always succeeds.
  DKErrorID AsString(DKString& out, const DKFormatContext& context) const override;
  // The text.
  const DKString& GetText() const noexcept { return m_text; }

private:
  DKString m_text;
};

// A new error of the library's own message set; add its parameters, then return it as a
// DKErrorID.
DK_EXPORT DKSmartPtr<DKErrorWithArgs> DKLibraryError(long code, DKErrorI::Severity severity = DKErrorI::SeverityError);

namespace dkerror_detail {

// Stores one parameter by its kind: integers no wider than int as int, long as long, wider
// ones as long when the value fits (and as their decimal text when it does not, where long is
// 32 bits); other arithmetic types as double; text of either kind as DKString.
template <class T>
void AddParam(DKErrorWithArgs& error, const T& value) {
  if constexpr (std::is_enum_v<T>) {
    AddParam(error, static_cast<std::underlying_type_t<T>>(value));
  } else if constexpr (std::is_same_v<T, long>) {
    error.AddParam(value); // before the int-sized kinds: long is as wide as int on Windows
  } else if constexpr (std::is_integral_v<T> && sizeof(T) <= sizeof(int) && !std::is_same_v<T, unsigned>) {
    error.AddParam(static_cast<int>(value));
  } else if constexpr (std::is_integral_v<T>) {
    if (std::in_range<long>(value))
      error.AddParam(static_cast<long>(value));
    else
      error.AddParam(std::is_signed_v<T> ? DKString::Number(static_cast<long long>(value))
                                         : DKString::Number(static_cast<unsigned long long>(value)));
  } else if constexpr (std::is_floating_point_v<T>) {
    error.AddParam(static_cast<double>(value));
  } else if constexpr (std::is_convertible_v<const T&, std::string_view>) {
    error.AddParam(DKString::FromUTF8(std::string_view(value)));
  } else {
    error.AddParam(value); // DKString, DKChar text, DKDouble, DKDateTime
  }
}

} // namespace dkerror_detail

// An error of the library's own message set with its parameters, in one expression:
// return DKLibraryErrorID(DK_MSG_SYSTEM_ERROR, code, text);
template <class... Params>
DKErrorID DKLibraryErrorID(long code, const Params&... params) {
  DKSmartPtr<DKErrorWithArgs> error = DKLibraryError(code);
  (dkerror_detail::AddParam(*error, params), ...);
  return DKErrorID(error);
}

// Message sources complete the family: code that passes or holds a DKSmartPtr to one (a null
// formatter included) needs the class complete.
#include <DorvikCore/DKMessageSource.h>
