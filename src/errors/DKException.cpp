#include <DorvikCore/DKConsole.h>
#include <DorvikCore/DKException.h>

#include "os/DKProcess.h"
#include "os/DKSystem.h"

#include <atomic>
#include <mutex>

namespace {

// "DK_DISABLE_STACK" is read once per process. Two threads racing on the first read both read
// the same environment, so the answer needs no lock.
bool IsStackDisabled() {
  static std::atomic<int> disabled{-1};
  int answer = disabled.load(std::memory_order_relaxed);
  if (answer < 0) {
    std::string value;
    answer = DKProcess::EnvironmentVariableUTF8("DK_DISABLE_STACK", value) ? 1 : 0;
    disabled.store(answer, std::memory_order_relaxed);
  }
  return answer == 1;
}

struct SupportNoticeState {
  std::mutex lock;
  DKString notice{DKException::DefaultSupportNotice};
};

SupportNoticeState& SupportNotice() {
  static SupportNoticeState* const state = new SupportNoticeState;
  return *state;
}

std::size_t FindMarker(const DKString& message) { return message.Find(DKException::MessageMarker); }

constexpr std::size_t kMarkerLength = 9; // "###***###"

// What follows the marker, or the whole message without one.
DKString UserText(const DKString& message) {
  const std::size_t marker = FindMarker(message);
  return marker == DKString::npos ? message : message.SubStr(marker + kMarkerLength);
}

} // namespace

// ---------------------------------------------------------------------------------------------
// DKException

DKException::DKException(const DKString& message, bool noStack) {
  SetMessage(message);
  if (noStack)
    return;
  if (IsStackDisabled()) {
    m_stack = DKString(StackDisabledText);
    return;
  }
  m_stack = DKString::FromUTF8(DKSystem::CaptureStack(1)); // the stack from the code that builds the exception
}

DKException::DKException(const DKException& other) noexcept = default;
DKException& DKException::operator=(const DKException& other) noexcept = default;
DKException::~DKException() = default;

void DKException::SetMessage(const DKString& message) {
  m_message = message;
  m_narrow = std::make_shared<const std::string>(UserText(message).AsUTF8());
}

const char* DKException::what() const noexcept { return m_narrow ? m_narrow->c_str() : ""; }

DKString DKException::What() const { return UserText(m_message); }

DKString DKException::BuildReport() const {
  DKString report = GetSupportNotice();
  report += DK_T("\nDATE:      ");
  report += DKSystem::LocalTimeNow();
  report += DK_T("\nTHREAD:    ");
  report += DKString::Number(static_cast<unsigned long long>(DKSystem::CurrentThreadId()));
  report += DK_T("\nEXCEPTION: ");
  report += m_message;
  report += DK_T("\nSTACK:\n");
  if (!m_stack.IsEmpty()) {
    report += m_stack;
    report += DK_T('\n');
  }
  report += DK_T('\n');
  return report;
}

void DKException::LogInErrorFile(LogOpt option) {
  if (m_logged && option != LogAgain)
    return;
  m_logged = true;
  if (GlbGetTraceLevel() == 0)
    return;

  const std::size_t marker = FindMarker(m_message);
  if (marker != DKString::npos) {
    DKLockedCOUT console;
    console.GetCout() << m_message.SubStr(0, marker) << std::endl;
    return;
  }
  const DKString report = BuildReport();
  DKLockedCOUT console;
  console.GetCout() << report << std::flush;
}

void DKException::SetSupportNotice(const DKString& notice) {
  SupportNoticeState& state = SupportNotice();
  std::lock_guard guard(state.lock);
  state.notice = notice;
}

DKString DKException::GetSupportNotice() {
  SupportNoticeState& state = SupportNotice();
  std::lock_guard guard(state.lock);
  return state.notice;
}

// ---------------------------------------------------------------------------------------------
// Subclasses

// The error code is read before anything else can change it.
DKWindowsLastErrorException::DKWindowsLastErrorException() : DKWindowsLastErrorException(DKSystem::LastErrorCode()) {}

DKWindowsLastErrorException::DKWindowsLastErrorException(int errorCode)
    : DKException(DKString::FromUTF8(DKSystem::ErrorCodeText(errorCode))), m_errorCode(errorCode) {}

DKWindowsLastErrorException::~DKWindowsLastErrorException() = default;

DKStackDump::DKStackDump(int sehNumber, const DKString& stackText, bool alreadyReported)
    : m_sehNumber(sehNumber), m_stackText(stackText), m_alreadyReported(alreadyReported) {}

DKStackDump DKStackDump::Capture(int sehNumber) {
  if (IsStackDisabled())
    return DKStackDump(sehNumber, DKString(DKException::StackDisabledText));
  return DKStackDump(sehNumber, DKString::FromUTF8(DKSystem::CaptureStack(1)));
}

DKSignalException::DKSignalException(const DKStackDump& dump)
    : DKException(DKString::FromUTF8(DKSystem::CrashCodeText(dump.GetSeHNumber())), true), m_sehNumber(dump.GetSeHNumber()) {
  SetStack(dump.GetStackText());
  if (!dump.IsAlreadyReported())
    LogInErrorFile(LogAgain);
}

DKSignalException::~DKSignalException() = default;

namespace {

DKString SourceText(long code, const DKSmartPtr<DKMessageSource>& source) {
  DKString text;
  if (source)
    source->GetText(text, code, DKFormatContext()).IgnoreError(); // the text is the message either way
  else
    DKMessageSource::UnknownCode(text, code).IgnoreError();
  return text;
}

} // namespace

DKMsgException::DKMsgException(long code, const DKSmartPtr<DKMessageSource>& source)
    : DKException(SourceText(code, source)), m_code(code), m_source(source) {}

DKMsgException::~DKMsgException() = default;

DKConfigStreamException::DKConfigStreamException(const DKString& text) : DKException(text) {}

DKConfigStreamException::~DKConfigStreamException() = default;

DKException DKBinaryStream::Exception(const DKString& text) { return DKException(text); }
