// The exception family: a message, the call stack captured where the exception was built,
// and an incident report for the operator.
#pragma once

#include <DorvikCore/DKMessageSource.h>
#include <DorvikCore/DKRefCount.h>
#include <DorvikCore/DKString.h>

#include <exception>
#include <memory>
#include <string>

// Thrown by value, caught by reference; copies are cheap and never throw.
//
// A message may keep two texts: "internal text" + MessageMarker + "user text". What and
// what return the user text (the whole message when there is no marker); the incident
// report gives the internal text only.
class DK_EXPORT DKException : public std::exception {
public:
  // Whether LogInErrorFile reports an exception that was reported already.
  enum LogOpt : int {
    LogOnce = 0,  // Report unless this exception was reported already.
    LogAgain = 1, // Report even if it was.
  };
  // Separates the internal text from the user text in a message.
  static constexpr const DKChar* MessageMarker = DK_T("###***###");
  // The stack text when capturing is switched off by DK_DISABLE_STACK.
  static constexpr const DKChar* StackDisabledText = DK_T("(Stack disabled - DK_DISABLE_STACK is defined)");
  // The support notice until SetSupportNotice replaces it.
  static constexpr const DKChar* DefaultSupportNotice =
      DK_T("The application encountered an unexpected situation. Please contact technical support for assistance.");

  // Captures the current call stack unless noStack is set or the environment variable
  // "DK_DISABLE_STACK" is set (read once per process); then the stack reads StackDisabledText.
  explicit DKException(const DKString& message, bool noStack = false);
  // Copies share the texts (nothing is copied) and keep whether the exception was reported.
  DKException(const DKException& other) noexcept;
  DKException& operator=(const DKException& other) noexcept;
  ~DKException() override;

  // The user text as UTF-8.
  const char* what() const noexcept override;
  // The user text: what follows the marker, or the whole message without one.
  virtual DKString What() const;
  // Writes the incident report to the console when GlbGetTraceLevel() is not 0: for a message
  // with the marker its internal text only, otherwise the full report (support notice, date,
  // thread, message and stack). Reports once; LogAgain reports again.
  virtual void LogInErrorFile(LogOpt option = LogOnce);

  // The call stack captured at construction, one frame a line; empty with noStack.
  const DKString& Stack() const noexcept { return m_stack; }
  // The whole message, marker and both texts included. (A Windows program that includes
  // <windows.h> first sees the system's GetMessage macro rename this inline member, and its
  // calls alike: keep the order of those includes the same in every file.)
  const DKString& GetMessage() const noexcept { return m_message; }
  // Whether LogInErrorFile has reported this exception (or the one it was copied from).
  bool IsLogged() const noexcept { return m_logged; }

  // The full report LogInErrorFile writes for a message without the marker, one item a line.
  DKString BuildReport() const;

  // The process-wide support notice that opens every report: set, and read.
  static void SetSupportNotice(const DKString& notice);
  static DKString GetSupportNotice();

protected:
  // For subclasses that know their message or stack only after the base is built.
  void SetMessage(const DKString& message);
  void SetStack(const DKString& stack) { m_stack = stack; }

private:
  DKString m_message;
  DKString m_stack;
  std::shared_ptr<const std::string> m_narrow; // UTF-8 user text returned by what()
  bool m_logged = false;
};

// The calling thread's last system error (errno here) or a given system error code, with the
// system's text for it as the message.
class DK_EXPORT DKWindowsLastErrorException : public DKException {
public:
  // The calling thread's last error, or the code given; the message is the system's text for
  // it ("Unknown error <code>" when the system has none).
  DKWindowsLastErrorException();
  explicit DKWindowsLastErrorException(int errorCode);
  ~DKWindowsLastErrorException() override;
  // The system error code.
  int GetErrorCode() const noexcept { return m_errorCode; }

private:
  int m_errorCode;
};

// What the crash handling knows about one crash: the signal (or structured-exception)
// number, the stack text at the crash, and whether it was reported already.
class DK_EXPORT DKStackDump {
public:
  // A dump of the given facts.
  DKStackDump(int sehNumber, const DKString& stackText, bool alreadyReported = false);
  // The dump of the current call stack, for a crash handler to hand to DKSignalException.
  static DKStackDump Capture(int sehNumber);

  // The signal number.
  int GetSeHNumber() const noexcept { return m_sehNumber; }
  // The stack at the crash, one frame a line.
  const DKString& GetStackText() const noexcept { return m_stackText; }
  // Whether the crash was reported already: set, and read.
  bool IsAlreadyReported() const noexcept { return m_alreadyReported; }
  void SetAlreadyReported(bool reported = true) noexcept { m_alreadyReported = reported; }

private:
  int m_sehNumber;
  DKString m_stackText;
  bool m_alreadyReported;
};

// A crash turned into an exception. Its message names the signal, its stack is the dump's;
// unless the dump was reported already, construction reports it at once (LogAgain).
class DK_EXPORT DKSignalException : public DKException {
public:
  // The exception of the dump's crash.
  explicit DKSignalException(const DKStackDump& dump);
  ~DKSignalException() override;
  // The signal number.
  int GetSeHNumber() const noexcept { return m_sehNumber; }

private:
  int m_sehNumber;
};

// An exception whose message is a message source's text for a code (default context).
class DK_EXPORT DKMsgException : public DKException {
public:
  // The message is the source's text for code; with a null source, "Unknown message <code>".
  // The exception keeps a reference to the source.
  DKMsgException(long code, const DKSmartPtr<DKMessageSource>& source);
  ~DKMsgException() override;
  // The message code.
  long GetCode() const noexcept { return m_code; }
  // The source of the text; may be null.
  const DKSmartPtr<DKMessageSource>& GetSource() const noexcept { return m_source; }

private:
  long m_code;
  DKSmartPtr<DKMessageSource> m_source;
};

// A syntax error met while reading a configuration file.
class DK_EXPORT DKConfigStreamException : public DKException {
public:
  // The text is the message.
  explicit DKConfigStreamException(const DKString& text);
  ~DKConfigStreamException() override;
};

// The binary streams' failure report.
class DK_EXPORT DKBinaryStream {
public:
  // The exception a binary stream throws for the given text.
  static DKException Exception(const DKString& text);
};
