// The error interface DKErrorI and DKErrorID, the result of every fallible operation. This
// header needs neither DKString nor the error classes, so that every layer, the text layer
// included, can return DKErrorID; the error classes themselves are in DKError.h.
#pragma once

#include <DorvikCore/DKRefCount.h>
#include <DorvikCore/DKTypes.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>

class DKString;
class DKExecContext;
class DKFormatContext;
class DKErrorID;

// The error interface: a code (0 means success) and a severity, plus typed parameters.
// The base has no parameters: the count is 0, every type ParamNone, every value null and
// every value text empty.
class DK_EXPORT DKErrorI : public DKRefCount {
public:
  // How grave an error is; the library itself makes SeverityError errors unless told otherwise.
  enum Severity : std::int32_t {
    SeveritySuccess = 0, // Not an error.
    SeverityInfo = 1,    // Information only.
    SeverityWarning = 2, // Something to look at; the operation went on.
    SeverityError = 3,   // The operation failed.
    SeverityFatal = 4,   // The program cannot go on.
  };
  // The type of a parameter, and its text in a message.
  enum ErrorParamType : std::int32_t {
    ParamNone = 0,       // No parameter (index out of range).
    ParamDouble = 1,     // A double; text "%f".
    ParamInt = 2,        // An int; text "%d".
    ParamLong = 3,       // A long; text "%ld".
    ParamDKString = 4,   // A DKString; the text itself.
    ParamDKDateTime = 5, // A DKDateTime; text in the execution context's date-time format.
    ParamDKDouble = 6    // A DKDouble; text DKDouble::AsString().
  };
  static constexpr int IUID = 0x444B4552; // The interface id of DKErrorI ("DKER").

  // An error of this code and severity; it starts with no reference (hold it in a smart pointer).
  DKErrorI(long code, Severity severity) noexcept : m_code(code), m_severity(severity) {}
  ~DKErrorI() override;

  // The interface identifier, IUID unless a subclass answers for another interface.
  virtual int GetIUID() const;
  // The number of parameters.
  virtual std::size_t GetParameterCount() const;
  // The type of the parameter at index; ParamNone out of range.
  virtual ErrorParamType GetParameterType(std::size_t index) const;
  // Points at the stored value (of the type GetParameterType names); null out of range. The
  // value belongs to the error and lives as long as it.
  virtual const void* GetParameterValue(std::size_t index) const;
  // The parameter's text as a message shows it (see ErrorParamType); empty out of range.
  virtual DKString GetParameterValueAsString(std::size_t index, const DKExecContext& context) const;
  // Writes the error's text to out; the result says whether the text could be produced.
  virtual DKErrorID AsString(DKString& out, const DKFormatContext& context) const = 0;

  // The code given at construction; 0 means success.
  long GetCode() const noexcept { return m_code; }
  // The severity given at construction.
  Severity GetSeverity() const noexcept { return m_severity; }

private:
  long m_code;
  Severity m_severity;
};

// The result of a fallible operation: success (no error, or an error whose code is 0) or a
// shared reference to an error object. Copies share the object.
class [[nodiscard, DK_EXPORT_ATTRIBUTE]] DKErrorID {
public:
  // The constant that reads as success: return DKErrorID::SUCCESS.
  enum DefaultConstant {
    SUCCESS = 0, // Success.
  };

  // Success, whatever the constant.
  DKErrorID() noexcept = default;
  DKErrorID(DefaultConstant) noexcept {}
  // The result of an error object, which the result keeps a reference to (a null one is success).
  DKErrorID(const DKSmartPtrToConst<DKErrorI>& error) noexcept : m_error(error) {}
  template <class E, class = std::enable_if_t<std::is_convertible_v<E*, const DKErrorI*>>>
  DKErrorID(const DKSmartPtr<E>& error) noexcept : m_error(error.Get()) {}
  explicit DKErrorID(const DKErrorI* error) noexcept : m_error(error) {}

  // True for success: no error object, or one whose code is 0. Good is the same, Bad the opposite.
  bool IsSuccess() const noexcept { return !m_error || m_error->GetCode() == 0; }
  bool Good() const noexcept { return IsSuccess(); }
  bool Bad() const noexcept { return !IsSuccess(); }
  // The code as an int (0 for success), for code that tests "if (result)" for failure.
  operator int() const noexcept { return m_error ? static_cast<int>(m_error->GetCode()) : 0; }
  // The error's code; 0 when there is no error object.
  long GetCode() const noexcept { return m_error ? m_error->GetCode() : 0; }
  // The error object; null when there is none.
  const DKSmartPtrToConst<DKErrorI>& GetError() const noexcept { return m_error; }
  // "SUCCESS" when there is no error object, else the error's text in a default context.
  DKString AsString() const;

  // Drops the result on purpose: a DKErrorID that is not used is a compile-time warning
  // otherwise. Say why where it is called.
  void IgnoreError() const noexcept {}

  // An error that carries its text ready made (a DKErrorString), in one expression.
  static DKErrorID FromText(const DKString& text, long code = -1);

private:
  DKSmartPtrToConst<DKErrorI> m_error;
};

// The library's own message set, held by the library's in-memory message source
// (DKGetLibraryMessageSource in DKMessageSource.h). The comment is the message text.
enum DKLibraryMessage : long {
  DK_MSG_UNSPECIFIED = 1,          // "Unspecified failure"
  DK_MSG_INVALID_ARGUMENT = 2,     // "Invalid argument: %0:s"
  DK_MSG_INVALID_UTF8 = 3,         // "Invalid UTF-8 sequence at byte %0:d"
  DK_MSG_UNKNOWN_CODE_PAGE = 4,    // "Unknown code page %0:d"
  DK_MSG_UNMAPPABLE_CHARACTER = 5, // "Character at position %0:d has no form in code page %1:d"
  DK_MSG_INVALID_UTF16 = 6,        // "Unpaired surrogate at position %0:d"
  DK_MSG_SYSTEM_ERROR = 7,         // "System error %0:d: %1:s"
  DK_MSG_TEXT_TOO_LONG = 8,        // "Text too long: %0:d code units"
  DK_MSG_INVALID_DATE = 9,         // "Invalid date: %0:s"
  DK_MSG_DUPLICATE_PLUGIN_ID = 10, // "Duplicate plug-in id %0:s"
  DK_MSG_UNKNOWN_MESSAGE = 11,     // "Unknown message %0:d" (a message source lacks the code)
  DK_MSG_INVALID_REGEX = 12,       // "Invalid regular expression \"%0:s\" at position %1:d: %2:s"
  DK_MSG_QUEUE_FULL = 13,          // "%0:s: the queue is full (%1:d tasks)"
  DK_MSG_SHUT_DOWN = 14,           // "%0:s is shut down"
  DK_MSG_TASK_CANCELLED = 15,      // "The task was cancelled before it started"
  DK_MSG_TASK_EXCEPTION = 16,      // "The task threw an exception: %0:s"
  DK_MSG_INVALID_SCHEDULE = 17,    // "Invalid schedule \"%0:s\" at position %1:d: %2:s"
  DK_MSG_LAST = DK_MSG_INVALID_SCHEDULE, // the highest code of the set
};
