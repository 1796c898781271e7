// Windows crash catching (os/DKCrash.h).
//
// A process-wide unhandled-exception filter writes the report: the exception's code and name,
// its address, the process, the thread, the time, the stack unwound from the exception's context
// (each frame as module, the exported function when one starts exactly there, and the offset),
// then the extension's part under a watchdog. The C runtime's abort (std::terminate ends there)
// is caught as SIGABRT and reported the same way. The report is written with system calls only
// (WriteFile, no allocation, no lock of the library's) up to the extension.
//
// A stack overflow is reported from a thread of its own: the overflowing thread has only the
// stack guarantee that PrepareThread gives it (SetThreadStackGuarantee), enough to start that
// thread and wait for it.
//
// After the report the filter that was installed before runs (in a MinGW program, the C
// runtime's, which calls a handler set with signal()). When it resumes the thread, a later crash
// is reported again, unless the same thread faults at once at the same place (the earlier filter
// changed nothing): then the process ends. Otherwise the process ends with the exception's code,
// at once: neither the system's error reporting (which can wait for a user) nor the DLLs' detach
// code runs in a process that has just crashed.
//
// A fault is never turned into a C++ exception (DKSignalException), on a DKThread or elsewhere:
// GCC's code keeps no unwind state at a faulting instruction (no -fnon-call-exceptions), there is
// no __try/__except to catch it, and nothing after a fault can be trusted. A catch (...) does not
// see a fault either: it reaches this filter.
#include "os/DKCrash.h"
#include "os/DKCrashLine.h"

#include <windows.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <mutex>

namespace {

// How long the part of a report that is not made of system calls alone may take before the
// process is ended.
constexpr DWORD kWatchdogMs = 10000;
// What the stack overflow's reporter may take in all.
constexpr DWORD kOverflowReportMs = 2 * kWatchdogMs;
constexpr int kMaxFrames = 128;
constexpr std::size_t kMaxPath = 4096;
// Stack kept for the filter when a thread overflows its stack.
constexpr ULONG kStackGuarantee = 64 * 1024;
constexpr SIZE_T kReporterStack = 256 * 1024;
// The exit code of the C runtime's abort.
constexpr UINT kAbortExitCode = 3;
// GCC's C++ runtime raises its exceptions with these codes (the customer bit and "GCC").
constexpr DWORD kGccExceptionMask = 0x20FFFFFF;
constexpr DWORD kGccException = 0x20474343;

typedef void (*CrtSignalHandler)(int);

LPTOP_LEVEL_EXCEPTION_FILTER g_previousFilter = nullptr;
CrtSignalHandler g_previousAbort = SIG_DFL;

// The report file: two buffers each (UTF-8 for GetReportFile, UTF-16 for the filter), so that
// the filter reads a whole path while another thread sets a new one in the other buffer.
char g_reportFiles[2][kMaxPath];
wchar_t g_reportFilesWide[2][kMaxPath];
std::atomic<int> g_reportFile{-1};
std::mutex g_reportFileLock;

// Read once at installation: the program's path, its file name and its image.
char g_programPath[kMaxPath];
const char* g_programName = "";
ULONG_PTR g_programBase = 0;

// The thread writing a report; others that crash meanwhile wait until it is done.
std::atomic<DWORD> g_reporter{0};
static_assert(sizeof(std::atomic<DWORD>) == sizeof(DWORD), "the reporter is waited on by address");

// The crash being reported.
struct Crash {
  const EXCEPTION_RECORD* record; // null for an abort
  CONTEXT context;                // where the stack is unwound from
  DWORD threadId;
  ULONG_PTR stackLow, stackHigh; // the crashed thread's stack
  int skipFrames;
  UINT exitCode;
};
Crash g_crash;

// The last crash that the earlier filter resumed.
struct Resumed {
  DWORD threadId;
  DWORD code;
  const void* address;
};
Resumed g_resumed{};

// The destinations of the report being written (the standard error, the report file).
HANDLE g_sinks[2] = {nullptr, nullptr};

void WriteAll(HANDLE file, const char* text, std::size_t size) {
  while (size > 0) {
    DWORD written = 0;
    const DWORD chunk = size > 0x10000000 ? 0x10000000 : static_cast<DWORD>(size);
    if (!WriteFile(file, text, chunk, &written, nullptr) || written == 0)
      return;
    text += written;
    size -= written;
  }
}

void Sink(const char* text, std::size_t size) {
  for (HANDLE file : g_sinks)
    if (file && file != INVALID_HANDLE_VALUE)
      WriteAll(file, text, size);
}

// A report line written to every destination of the report.
class Line : public DKCrashLine {
public:
  Line() noexcept : DKCrashLine(&Sink) {}
};

struct ExceptionName {
  DWORD code;
  const char* name;
  const char* text;
};

constexpr ExceptionName kExceptionNames[] = {
    {EXCEPTION_ACCESS_VIOLATION, "EXCEPTION_ACCESS_VIOLATION", "access violation"},
    {EXCEPTION_ARRAY_BOUNDS_EXCEEDED, "EXCEPTION_ARRAY_BOUNDS_EXCEEDED", "array bounds exceeded"},
    {EXCEPTION_BREAKPOINT, "EXCEPTION_BREAKPOINT", "breakpoint"},
    {EXCEPTION_DATATYPE_MISALIGNMENT, "EXCEPTION_DATATYPE_MISALIGNMENT", "misaligned data"},
    {EXCEPTION_FLT_DENORMAL_OPERAND, "EXCEPTION_FLT_DENORMAL_OPERAND", "floating-point denormal operand"},
    {EXCEPTION_FLT_DIVIDE_BY_ZERO, "EXCEPTION_FLT_DIVIDE_BY_ZERO", "floating-point divide by zero"},
    {EXCEPTION_FLT_INEXACT_RESULT, "EXCEPTION_FLT_INEXACT_RESULT", "floating-point inexact result"},
    {EXCEPTION_FLT_INVALID_OPERATION, "EXCEPTION_FLT_INVALID_OPERATION", "floating-point invalid operation"},
    {EXCEPTION_FLT_OVERFLOW, "EXCEPTION_FLT_OVERFLOW", "floating-point overflow"},
    {EXCEPTION_FLT_STACK_CHECK, "EXCEPTION_FLT_STACK_CHECK", "floating-point stack check"},
    {EXCEPTION_FLT_UNDERFLOW, "EXCEPTION_FLT_UNDERFLOW", "floating-point underflow"},
    {EXCEPTION_ILLEGAL_INSTRUCTION, "EXCEPTION_ILLEGAL_INSTRUCTION", "illegal instruction"},
    {EXCEPTION_IN_PAGE_ERROR, "EXCEPTION_IN_PAGE_ERROR", "page could not be read in"},
    {EXCEPTION_INT_DIVIDE_BY_ZERO, "EXCEPTION_INT_DIVIDE_BY_ZERO", "integer divide by zero"},
    {EXCEPTION_INT_OVERFLOW, "EXCEPTION_INT_OVERFLOW", "integer overflow"},
    {EXCEPTION_INVALID_DISPOSITION, "EXCEPTION_INVALID_DISPOSITION", "invalid disposition"},
    {EXCEPTION_NONCONTINUABLE_EXCEPTION, "EXCEPTION_NONCONTINUABLE_EXCEPTION", "noncontinuable exception"},
    {EXCEPTION_PRIV_INSTRUCTION, "EXCEPTION_PRIV_INSTRUCTION", "privileged instruction"},
    {EXCEPTION_SINGLE_STEP, "EXCEPTION_SINGLE_STEP", "single step"},
    {EXCEPTION_STACK_OVERFLOW, "EXCEPTION_STACK_OVERFLOW", "stack overflow"},
    {EXCEPTION_GUARD_PAGE, "EXCEPTION_GUARD_PAGE", "guard page"},
    {EXCEPTION_INVALID_HANDLE, "EXCEPTION_INVALID_HANDLE", "invalid handle"},
    {0xC0000374, "STATUS_HEAP_CORRUPTION", "heap corruption"},
    {0xC0000409, "STATUS_STACK_BUFFER_OVERRUN", "stack buffer overrun"},
    {0xC0000420, "STATUS_ASSERTION_FAILURE", "assertion failure"},
    {0xE06D7363, nullptr, "C++ exception of Microsoft's runtime"},
};

const ExceptionName* FindExceptionName(DWORD code) {
  for (const ExceptionName& entry : kExceptionNames)
    if (entry.code == code)
      return &entry;
  return nullptr;
}

// "YYYY/MM/DD HH:MM:SS UTC".
void AppendUtcTime(Line& line) {
  SYSTEMTIME now{};
  GetSystemTime(&now);
  line.Number(now.wYear, 10, 4) << "/";
  line.Number(now.wMonth, 10, 2) << "/";
  line.Number(now.wDay, 10, 2) << " ";
  line.Number(now.wHour, 10, 2) << ":";
  line.Number(now.wMinute, 10, 2) << ":";
  line.Number(now.wSecond, 10, 2) << " UTC";
}

void WriteHeader() {
  Line line;
  const EXCEPTION_RECORD* record = g_crash.record;
  if (!record) {
    line << "\n****** Fatal signal SIGABRT (abort) ******\n";
    line << "Cause: raised by the process itself\n";
  } else {
    const ExceptionName* name = FindExceptionName(record->ExceptionCode);
    line << "\n****** Fatal exception ";
    line.Hex(record->ExceptionCode, 8);
    if (name && name->name)
      line << " " << name->name;
    if (name)
      line << " (" << name->text << ")";
    line << " ******\n";
    // The address the fault concerns: the data address of an access, else the instruction's.
    auto address = reinterpret_cast<ULONG_PTR>(record->ExceptionAddress);
    if ((record->ExceptionCode == EXCEPTION_ACCESS_VIOLATION || record->ExceptionCode == EXCEPTION_IN_PAGE_ERROR) &&
        record->NumberParameters >= 2) {
      const ULONG_PTR access = record->ExceptionInformation[0];
      line << "Cause: " << (access == 0 ? "read of" : access == 1 ? "write to" : "execution at")
           << " an address that may not be " << (access == 0 ? "read" : access == 1 ? "written" : "executed") << "\n";
      if (record->ExceptionCode == EXCEPTION_IN_PAGE_ERROR && record->NumberParameters >= 3) {
        line << "Cause: the page could not be read in, status ";
        line.Hex(record->ExceptionInformation[2], 8) << "\n";
      }
      address = record->ExceptionInformation[1];
    }
    line << "Address: ";
    line.Hex(address, 16) << "\n";
  }
  line.Flush();
  line << "Process: ";
  line.Number(GetCurrentProcessId()) << " " << g_programPath << "\n";
  line << "Thread: ";
  line.Number(g_crash.threadId) << "\n";
  line << "Time: ";
  AppendUtcTime(line);
  line << "\n";
  line.Flush();
}

// The export directory of a loaded image; null when it has none.
const IMAGE_EXPORT_DIRECTORY* ExportDirectory(ULONG_PTR base) {
  const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
  if (dos->e_magic != IMAGE_DOS_SIGNATURE)
    return nullptr;
  const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS64*>(base + static_cast<ULONG_PTR>(dos->e_lfanew));
  if (nt->Signature != IMAGE_NT_SIGNATURE || nt->OptionalHeader.Magic != IMAGE_NT_OPTIONAL_HDR64_MAGIC ||
      nt->OptionalHeader.NumberOfRvaAndSizes <= IMAGE_DIRECTORY_ENTRY_EXPORT)
    return nullptr;
  const IMAGE_DATA_DIRECTORY& entry = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
  if (entry.VirtualAddress == 0 || entry.Size == 0)
    return nullptr;
  return reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(base + entry.VirtualAddress);
}

// The name a module is known by: the program's file name, or the name its export directory
// gives. Read from the image in memory, so that no loader lock is taken.
const char* ModuleName(ULONG_PTR base) {
  if (base == g_programBase)
    return g_programName;
  const IMAGE_EXPORT_DIRECTORY* exports = ExportDirectory(base);
  return exports && exports->Name ? reinterpret_cast<const char*>(base + exports->Name) : nullptr;
}

// The exported name of the function that starts at rva; null when none does.
const char* ExportedFunction(ULONG_PTR base, DWORD rva) {
  const IMAGE_EXPORT_DIRECTORY* exports = ExportDirectory(base);
  if (!exports)
    return nullptr;
  const auto* functions = reinterpret_cast<const DWORD*>(base + exports->AddressOfFunctions);
  const auto* names = reinterpret_cast<const DWORD*>(base + exports->AddressOfNames);
  const auto* ordinals = reinterpret_cast<const WORD*>(base + exports->AddressOfNameOrdinals);
  for (DWORD i = 0; i < exports->NumberOfNames; ++i)
    if (ordinals[i] < exports->NumberOfFunctions && functions[ordinals[i]] == rva)
      return reinterpret_cast<const char*>(base + names[i]);
  return nullptr;
}

// The image an address lies in, or 0.
ULONG_PTR ImageBaseOf(ULONG_PTR address) {
  MEMORY_BASIC_INFORMATION region{};
  if (VirtualQuery(reinterpret_cast<const void*>(address), &region, sizeof region) == 0 || region.Type != MEM_IMAGE)
    return 0;
  return reinterpret_cast<ULONG_PTR>(region.AllocationBase);
}

// "module(function+0x12) [0x...]", "module(+0x1234) [0x...]" or "[0x...]", as on the other systems.
void WriteFrame(ULONG_PTR pc, ULONG_PTR imageBase, const RUNTIME_FUNCTION* function) {
  Line line;
  const ULONG_PTR base = imageBase ? imageBase : ImageBaseOf(pc);
  const char* module = base ? ModuleName(base) : nullptr;
  if (base) {
    line << (module ? module : "?") << "(";
    const char* exported = function ? ExportedFunction(base, function->BeginAddress) : nullptr;
    if (exported) {
      line << exported << "+";
      line.Hex(pc - base - function->BeginAddress) << ")";
    } else {
      line << "+";
      line.Hex(pc - base) << ")";
    }
    line << " ";
  }
  line << "[";
  line.Hex(pc, 16) << "]\n";
  line.Flush();
}

bool OnStack(ULONG_PTR address) { return address >= g_crash.stackLow && address + 8 <= g_crash.stackHigh; }

// A frame without unwind data keeps its return address at the top of the stack, unless it saved
// registers first (the stack probe pushes two): the first of a few slots that holds an address
// inside a function known to the system.
bool UnwindWithoutData(CONTEXT& context) {
  for (int slot = 0; slot < 4; ++slot) {
    const ULONG_PTR at = context.Rsp + static_cast<ULONG_PTR>(slot) * 8;
    if (!OnStack(at))
      return false;
    const DWORD64 candidate = *reinterpret_cast<const DWORD64*>(at);
    DWORD64 base = 0;
    if (candidate != 0 && RtlLookupFunctionEntry(candidate, &base, nullptr)) {
      context.Rip = candidate;
      context.Rsp = at + 8;
      return true;
    }
  }
  return false;
}

void WriteStack() {
  Line line;
  line << "Stack:\n";
  line.Flush();
  CONTEXT context = g_crash.context;
  for (int frame = 0; frame < kMaxFrames + g_crash.skipFrames; ++frame) {
    const DWORD64 pc = context.Rip;
    if (pc == 0)
      return;
    DWORD64 imageBase = 0;
    PRUNTIME_FUNCTION function = RtlLookupFunctionEntry(pc, &imageBase, nullptr);
    if (frame >= g_crash.skipFrames)
      WriteFrame(pc, imageBase, function);
    const DWORD64 sp = context.Rsp;
    if (function) {
      void* handlerData = nullptr;
      DWORD64 establisher = 0;
      RtlVirtualUnwind(UNW_FLAG_NHANDLER, imageBase, pc, function, &context, &handlerData, &establisher, nullptr);
    } else if (!UnwindWithoutData(context)) {
      return;
    }
    if (context.Rsp <= sp || !OnStack(context.Rsp))
      return; // no progress, or off the thread's stack: the stack is damaged
  }
}

HANDLE OpenReportFile() {
  const int index = g_reportFile.load(std::memory_order_acquire);
  if (index < 0 || g_reportFilesWide[index][0] == L'\0')
    return nullptr;
  const HANDLE file = CreateFileW(g_reportFilesWide[index], FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                  nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  return file == INVALID_HANDLE_VALUE ? nullptr : file;
}

DWORD WINAPI Watchdog(void* stop) {
  if (WaitForSingleObject(static_cast<HANDLE>(stop), kWatchdogMs) == WAIT_TIMEOUT)
    TerminateProcess(GetCurrentProcess(), g_crash.exitCode);
  return 0;
}

// Runs the extension; ends the process should it block (a lock held by a thread that crashed).
void RunExtension(DKCrash::ReportExtension extension) {
  const HANDLE stop = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  const HANDLE watchdog = stop ? CreateThread(nullptr, 64 * 1024, &Watchdog, stop, 0, nullptr) : nullptr;
  extension(&Sink);
  if (stop)
    SetEvent(stop);
  if (watchdog)
    CloseHandle(watchdog);
  // The event stays: the watchdog may not have started its wait yet, and a process that goes on
  // after a crash is rare enough that one handle does not matter.
}

void WriteReport() {
  const HANDLE error = GetStdHandle(STD_ERROR_HANDLE);
  g_sinks[0] = error == INVALID_HANDLE_VALUE ? nullptr : error;
  g_sinks[1] = OpenReportFile();
  WriteHeader();
  WriteStack();
  if (DKCrash::ReportExtension extension = DKCrash::Extension())
    RunExtension(extension);
  Line line;
  line << "****** End of crash report ******\n";
  line.Flush();
  if (g_sinks[1])
    CloseHandle(g_sinks[1]);
  g_sinks[1] = nullptr;
}

DWORD WINAPI ReportThread(void*) {
  WriteReport();
  return 0;
}

// The overflowing thread has the stack guarantee left: the report gets a stack of its own.
void WriteReportOnAFreshStack() {
  const HANDLE reporter = CreateThread(nullptr, kReporterStack, &ReportThread, nullptr, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
  if (!reporter) {
    WriteReport();
    return;
  }
  WaitForSingleObject(reporter, kOverflowReportMs);
  CloseHandle(reporter);
}

// Claims the report for the calling thread. A thread that crashes while another reports waits
// until that one is done (the process usually ends then); a fault inside the report itself ends
// the process at once with the first crash's code.
void ClaimReport() {
  const DWORD self = GetCurrentThreadId();
  for (;;) {
    DWORD holder = 0;
    if (g_reporter.compare_exchange_strong(holder, self))
      return;
    if (holder == self)
      TerminateProcess(GetCurrentProcess(), g_crash.exitCode);
    WaitOnAddress(&g_reporter, &holder, sizeof holder, INFINITE);
  }
}

void ReleaseReport() {
  g_reporter.store(0);
  WakeByAddressAll(&g_reporter);
}

void Prepare(const EXCEPTION_RECORD* record, UINT exitCode, int skipFrames) {
  g_crash.record = record;
  g_crash.threadId = GetCurrentThreadId();
  g_crash.stackLow = 0;
  g_crash.stackHigh = 0;
  GetCurrentThreadStackLimits(&g_crash.stackLow, &g_crash.stackHigh);
  g_crash.skipFrames = skipFrames;
  g_crash.exitCode = exitCode;
}

LONG WINAPI OnUnhandledException(EXCEPTION_POINTERS* info) {
  const EXCEPTION_RECORD* record = info->ExceptionRecord;
  // An exception of GCC's C++ runtime that no catch took: told to go on, the runtime calls
  // std::terminate, whose abort is reported. The C runtime's filter says so too.
  if ((record->ExceptionCode & kGccExceptionMask) == kGccException && !(record->ExceptionFlags & EXCEPTION_NONCONTINUABLE))
    return g_previousFilter ? g_previousFilter(info) : EXCEPTION_CONTINUE_EXECUTION;

  ClaimReport();
  const DWORD code = record->ExceptionCode;
  const DWORD self = GetCurrentThreadId();
  const bool again = g_resumed.threadId == self && g_resumed.code == code && g_resumed.address == record->ExceptionAddress;
  g_resumed = Resumed{};
  Prepare(record, code, 0);
  g_crash.context = *info->ContextRecord;
  if (code == EXCEPTION_STACK_OVERFLOW)
    WriteReportOnAFreshStack();
  else
    WriteReport();

  if (g_previousFilter && !again) {
    // The earlier filter may resume the thread (or jump out of here): a later crash is then
    // reported again.
    ReleaseReport();
    const LONG verdict = g_previousFilter(info);
    if (verdict == EXCEPTION_CONTINUE_EXECUTION) {
      g_resumed = Resumed{self, code, record->ExceptionAddress};
      return verdict;
    }
  }
  TerminateProcess(GetCurrentProcess(), code);
  return EXCEPTION_EXECUTE_HANDLER;
}

// The C runtime's SIGABRT (abort, and std::terminate through it). The runtime has reset the
// handler to the default before calling this one.
void OnAbort(int signalNumber) {
  ClaimReport();
  Prepare(nullptr, kAbortExitCode, 1); // this function's own frame is not shown
  RtlCaptureContext(&g_crash.context);
  WriteReport();
  const CrtSignalHandler previous = g_previousAbort;
  if (previous != SIG_DFL && previous != SIG_IGN && previous != SIG_ERR && previous) {
    std::signal(SIGABRT, &OnAbort); // should the earlier handler recover, the next abort is reported too
    ReleaseReport();
    previous(signalNumber);
  }
  // The runtime would end the process with this code after its handler, through the DLLs'
  // detach code: ended here at once.
  TerminateProcess(GetCurrentProcess(), kAbortExitCode);
}

void ReadProgram() {
  static wchar_t path[kMaxPath];
  const DWORD length = GetModuleFileNameW(nullptr, path, kMaxPath);
  if (length == 0 || length >= kMaxPath ||
      WideCharToMultiByte(CP_UTF8, 0, path, static_cast<int>(length) + 1, g_programPath, sizeof g_programPath, nullptr,
                          nullptr) == 0)
    g_programPath[0] = '\0';
  g_programName = g_programPath;
  for (const char* c = g_programPath; *c; ++c)
    if (*c == '\\' || *c == '/')
      g_programName = c + 1;
  g_programBase = reinterpret_cast<ULONG_PTR>(GetModuleHandleW(nullptr));
}

} // namespace

bool DKCrash::InstallSystemHandlers() {
  ReadProgram();
  const CrtSignalHandler previousAbort = std::signal(SIGABRT, &OnAbort);
  if (previousAbort == SIG_ERR)
    return false;
  g_previousAbort = previousAbort;
  g_previousFilter = SetUnhandledExceptionFilter(&OnUnhandledException);
  return true;
}

bool DKCrash::PrepareThread() {
  ULONG current = 0; // 0 asks for the guarantee in force without changing it
  if (!SetThreadStackGuarantee(&current))
    return false;
  if (current >= kStackGuarantee)
    return true; // the thread has as much already (the application's own choice)
  ULONG wanted = kStackGuarantee;
  return SetThreadStackGuarantee(&wanted) != 0;
}

bool DKCrash::SetReportFile(const std::string& path) {
  std::lock_guard guard(g_reportFileLock);
  if (path.empty() || path.size() >= kMaxPath) {
    g_reportFile.store(-1, std::memory_order_release);
    return path.empty();
  }
  // Write into the buffers the filter is not reading, then switch.
  const int next = g_reportFile.load(std::memory_order_relaxed) == 0 ? 1 : 0;
  const int wide = MultiByteToWideChar(CP_UTF8, 0, path.c_str(), static_cast<int>(path.size()) + 1, g_reportFilesWide[next],
                                       static_cast<int>(kMaxPath));
  if (wide == 0) {
    g_reportFile.store(-1, std::memory_order_release);
    return false;
  }
  std::memcpy(g_reportFiles[next], path.c_str(), path.size() + 1);
  g_reportFile.store(next, std::memory_order_release);
  return true;
}

std::string DKCrash::GetReportFile() {
  std::lock_guard guard(g_reportFileLock);
  const int index = g_reportFile.load(std::memory_order_relaxed);
  return index < 0 ? std::string() : std::string(g_reportFiles[index]);
}
