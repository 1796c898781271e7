// Windows implementation of the library's internal operating-system services (os/DKSystem.h).
#include "os/DKClock.h"
#include "os/DKSystem.h"
#include "platform/gnu/DKDemangle.h"

#include "Win32Util.h"

#include <windows.h>

#include <signal.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

constexpr int kMaxFrames = 128;

// The name a module exports for the function that starts at rva; null when it exports none
// there. The export table is read in the module's image in memory.
const char* ExportedNameAt(const unsigned char* base, DWORD rva) noexcept {
  const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
  if (dos->e_magic != IMAGE_DOS_SIGNATURE)
    return nullptr;
  const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
  if (nt->Signature != IMAGE_NT_SIGNATURE || nt->OptionalHeader.NumberOfRvaAndSizes <= IMAGE_DIRECTORY_ENTRY_EXPORT)
    return nullptr;
  const IMAGE_DATA_DIRECTORY& directory = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
  if (directory.VirtualAddress == 0 || directory.Size < sizeof(IMAGE_EXPORT_DIRECTORY))
    return nullptr;
  const auto* exports = reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(base + directory.VirtualAddress);
  const auto* functions = reinterpret_cast<const DWORD*>(base + exports->AddressOfFunctions);
  const auto* names = reinterpret_cast<const DWORD*>(base + exports->AddressOfNames);
  const auto* ordinals = reinterpret_cast<const WORD*>(base + exports->AddressOfNameOrdinals);
  for (DWORD i = 0; i < exports->NumberOfNames; ++i) {
    const WORD ordinal = ordinals[i];
    if (ordinal < exports->NumberOfFunctions && functions[ordinal] == rva)
      return reinterpret_cast<const char*>(base + names[i]);
  }
  return nullptr;
}

std::string DescribeFrame(int index, void* address) {
  char text[64];
  std::snprintf(text, sizeof text, "#%-3d 0x%016" PRIxPTR " ", index, reinterpret_cast<std::uintptr_t>(address));
  std::string line(text);

  // A return address may lie just past the end of its function (a call that never returns),
  // so the function is looked up one byte back.
  const auto pc = reinterpret_cast<std::uintptr_t>(address);
  HMODULE module = nullptr;
  if (pc == 0 || !GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                                     reinterpret_cast<LPCWSTR>(pc - 1), &module)) {
    line += "??";
    return line;
  }
  const auto base = reinterpret_cast<std::uintptr_t>(module);
  // The function's start from the module's unwind table, then its exported name if it has one.
  DWORD64 imageBase = 0;
  const RUNTIME_FUNCTION* function = RtlLookupFunctionEntry(pc - 1, &imageBase, nullptr);
  const char* name = function && imageBase == base
                         ? ExportedNameAt(reinterpret_cast<const unsigned char*>(base), function->BeginAddress)
                         : nullptr;
  if (name) {
    std::snprintf(text, sizeof text, "+0x%" PRIxPTR, pc - (base + function->BeginAddress));
    line += dkplatform::Demangle(name);
    line += text;
  } else {
    line += "??";
  }
  wchar_t path[MAX_PATH * 4];
  const DWORD length = GetModuleFileNameW(module, path, static_cast<DWORD>(std::size(path)));
  if (length > 0 && length < std::size(path)) {
    line += " in ";
    line += dkwin::ToUtf8(std::wstring_view(path, length));
  }
  std::snprintf(text, sizeof text, "+0x%" PRIxPTR, pc - base); // where in the module
  line += text;
  return line;
}

} // namespace

__attribute__((noinline)) std::string DKSystem::CaptureStack(unsigned skipFrames) {
  void* frames[kMaxFrames];
  // Frame 0 is this function.
  const DWORD skip = skipFrames < kMaxFrames ? 1 + skipFrames : kMaxFrames;
  const USHORT count = RtlCaptureStackBackTrace(skip, kMaxFrames, frames, nullptr);
  std::string text;
  // The walk may run on past the thread's first frame into what is no frame: it ends at the
  // first null address.
  for (USHORT i = 0; i < count && frames[i]; ++i) {
    if (!text.empty())
      text += '\n';
    text += DescribeFrame(i, frames[i]);
  }
  return text;
}

std::uint64_t DKSystem::CurrentThreadId() noexcept { return GetCurrentThreadId(); }

std::string DKSystem::LocalTimeNow() {
  // The library's local zone (a rule in TZ included), so that the stamp agrees with its dates.
  const DKClockReading reading = DKClock::Now();
  SYSTEMTIME now{};
  if (dkwin::ToSystemTime(DKClock::UtcToLocal(reading.seconds), now))
    now.wMilliseconds = static_cast<WORD>(reading.milliseconds);
  else
    GetLocalTime(&now);
  char text[64];
  std::snprintf(text, sizeof text, "%04u/%02u/%02u %02u:%02u:%02u.%03u", now.wYear, now.wMonth, now.wDay, now.wHour,
                now.wMinute, now.wSecond, now.wMilliseconds);
  return text;
}

// A console, not a pipe or a file: only a console has a console mode.
bool DKSystem::StandardOutputIsTerminal() noexcept {
  HANDLE out = GetStdHandle(STD_OUTPUT_HANDLE);
  DWORD mode = 0;
  return out != nullptr && out != INVALID_HANDLE_VALUE && GetConsoleMode(out, &mode) != 0;
}

int DKSystem::LastErrorCode() noexcept { return static_cast<int>(GetLastError()); }

std::string DKSystem::ErrorCodeText(int code) {
  const auto Format = [code](DWORD language) {
    wchar_t* buffer = nullptr;
    const DWORD length = FormatMessageW(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
        static_cast<DWORD>(code), language, reinterpret_cast<LPWSTR>(&buffer), 0, nullptr);
    std::wstring text(buffer ? buffer : L"", buffer ? length : 0);
    LocalFree(buffer);
    return text;
  };
  std::wstring text = Format(MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT));
  if (text.empty())
    text = Format(0); // the system's own choice of language
  // The system ends its texts with a line break.
  while (!text.empty() && (text.back() == L'\n' || text.back() == L'\r' || text.back() == L' '))
    text.pop_back();
  if (text.empty())
    return "Unknown error " + std::to_string(code);
  return dkwin::ToUtf8(text);
}

std::string DKSystem::CrashCodeText(int code) {
  // The exception codes of the faults a process can meet, and the runtime's signals.
  static const struct {
    DWORD code;
    const char* name;
  } exceptions[] = {
      {EXCEPTION_ACCESS_VIOLATION, "EXCEPTION_ACCESS_VIOLATION"},
      {EXCEPTION_ARRAY_BOUNDS_EXCEEDED, "EXCEPTION_ARRAY_BOUNDS_EXCEEDED"},
      {EXCEPTION_BREAKPOINT, "EXCEPTION_BREAKPOINT"},
      {EXCEPTION_DATATYPE_MISALIGNMENT, "EXCEPTION_DATATYPE_MISALIGNMENT"},
      {EXCEPTION_FLT_DENORMAL_OPERAND, "EXCEPTION_FLT_DENORMAL_OPERAND"},
      {EXCEPTION_FLT_DIVIDE_BY_ZERO, "EXCEPTION_FLT_DIVIDE_BY_ZERO"},
      {EXCEPTION_FLT_INEXACT_RESULT, "EXCEPTION_FLT_INEXACT_RESULT"},
      {EXCEPTION_FLT_INVALID_OPERATION, "EXCEPTION_FLT_INVALID_OPERATION"},
      {EXCEPTION_FLT_OVERFLOW, "EXCEPTION_FLT_OVERFLOW"},
      {EXCEPTION_FLT_STACK_CHECK, "EXCEPTION_FLT_STACK_CHECK"},
      {EXCEPTION_FLT_UNDERFLOW, "EXCEPTION_FLT_UNDERFLOW"},
      {EXCEPTION_GUARD_PAGE, "EXCEPTION_GUARD_PAGE"},
      {EXCEPTION_ILLEGAL_INSTRUCTION, "EXCEPTION_ILLEGAL_INSTRUCTION"},
      {EXCEPTION_IN_PAGE_ERROR, "EXCEPTION_IN_PAGE_ERROR"},
      {EXCEPTION_INT_DIVIDE_BY_ZERO, "EXCEPTION_INT_DIVIDE_BY_ZERO"},
      {EXCEPTION_INT_OVERFLOW, "EXCEPTION_INT_OVERFLOW"},
      {EXCEPTION_INVALID_DISPOSITION, "EXCEPTION_INVALID_DISPOSITION"},
      {EXCEPTION_INVALID_HANDLE, "EXCEPTION_INVALID_HANDLE"},
      {EXCEPTION_NONCONTINUABLE_EXCEPTION, "EXCEPTION_NONCONTINUABLE_EXCEPTION"},
      {EXCEPTION_PRIV_INSTRUCTION, "EXCEPTION_PRIV_INSTRUCTION"},
      {EXCEPTION_SINGLE_STEP, "EXCEPTION_SINGLE_STEP"},
      {EXCEPTION_STACK_OVERFLOW, "EXCEPTION_STACK_OVERFLOW"},
      {STATUS_STACK_BUFFER_OVERRUN, "STATUS_STACK_BUFFER_OVERRUN"},
      {STATUS_HEAP_CORRUPTION, "STATUS_HEAP_CORRUPTION"},
      {0xE06D7363, "C++ exception"},
  };
  static const struct {
    int number;
    const char* name;
  } signals[] = {{SIGINT, "SIGINT"},   {SIGILL, "SIGILL"},     {SIGFPE, "SIGFPE"},  {SIGSEGV, "SIGSEGV"},
                 {SIGTERM, "SIGTERM"}, {SIGBREAK, "SIGBREAK"}, {SIGABRT, "SIGABRT"}};
  const auto unsignedCode = static_cast<DWORD>(code);
  if (unsignedCode >= 0x40000000) { // an exception code: the severity bits are set
    char text[32];
    std::snprintf(text, sizeof text, "Exception 0x%08lX", static_cast<unsigned long>(unsignedCode));
    std::string result(text);
    for (const auto& exception : exceptions)
      if (exception.code == unsignedCode)
        return result + " (" + exception.name + ")";
    return result;
  }
  std::string text = "Signal " + std::to_string(code);
  for (const auto& signal : signals)
    if (signal.number == code)
      return text + " (" + signal.name + ")";
  return text;
}
