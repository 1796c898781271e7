// POSIX crash catching (os/DKCrash.h). The handler writes its report with calls that are safe
// in a signal handler only (write, open, backtrace_symbols_fd, hand-made number formatting),
// then hands the extension the rest under an alarm, and finally lets the signal end the
// process the way it would have: the earlier handler runs, or the default action (core dump).
#include "os/DKCrash.h"
#include "os/DKCrashLine.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <mutex>

#include <execinfo.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace {

constexpr int kFatalSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};
constexpr int kFatalSignalCount = sizeof kFatalSignals / sizeof kFatalSignals[0];
// How long the part of a report that is not signal-safe may take before the process is ended.
constexpr unsigned kWatchdogSeconds = 10;
constexpr int kMaxFrames = 128;
constexpr std::size_t kMaxPath = 4096;

struct sigaction g_previous[kFatalSignalCount];

// The report file: two buffers, so that the handler reads a whole path while another thread
// sets a new one in the other buffer.
char g_reportFiles[2][kMaxPath];
std::atomic<int> g_reportFile{-1};
std::mutex g_reportFileLock;

// The thread writing a report; others that crash meanwhile wait for it to end the process.
std::atomic<pid_t> g_reporter{0};
// The destinations of the report being written (standard error, the report file).
int g_sinks[2] = {-1, -1};

pid_t CurrentThreadId() { return static_cast<pid_t>(syscall(SYS_gettid)); }

void WriteAll(int fd, const char* text, std::size_t size) {
  while (size > 0) {
    const ssize_t written = write(fd, text, size);
    if (written < 0 && errno == EINTR)
      continue;
    if (written <= 0)
      return;
    text += written;
    size -= static_cast<std::size_t>(written);
  }
}

void Sink(const char* text, std::size_t size) {
  for (int fd : g_sinks)
    if (fd >= 0)
      WriteAll(fd, text, size);
}

// A report line written to every destination of the report.
class Line : public DKCrashLine {
public:
  Line() noexcept : DKCrashLine(&Sink) {}
};

const char* SignalName(int signalNumber) {
  switch (signalNumber) {
  case SIGSEGV: return "SIGSEGV (segmentation fault)";
  case SIGBUS: return "SIGBUS (bus error)";
  case SIGFPE: return "SIGFPE (arithmetic error)";
  case SIGILL: return "SIGILL (illegal instruction)";
  case SIGABRT: return "SIGABRT (abort)";
  default: return "signal";
  }
}

// What the system says of the fault, when it says something worth reading.
const char* FaultText(int signalNumber, int code) {
  switch (signalNumber) {
  case SIGSEGV:
    if (code == SEGV_MAPERR)
      return "address not mapped";
    if (code == SEGV_ACCERR)
      return "access not permitted";
    break;
  case SIGBUS:
    if (code == BUS_ADRALN)
      return "misaligned address";
    if (code == BUS_ADRERR)
      return "address does not exist";
    break;
  case SIGFPE:
    if (code == FPE_INTDIV)
      return "integer divide by zero";
    if (code == FPE_INTOVF)
      return "integer overflow";
    if (code == FPE_FLTDIV)
      return "floating-point divide by zero";
    break;
  case SIGILL:
    if (code == ILL_ILLOPC)
      return "illegal opcode";
    if (code == ILL_PRVOPC)
      return "privileged opcode";
    break;
  default: break;
  }
  return nullptr;
}

// "YYYY/MM/DD HH:MM:SS" in UTC, from the clock alone.
void AppendUtcTime(Line& line) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const long long seconds = now.tv_sec;
  long long days = seconds / 86400;
  const long long secondOfDay = seconds % 86400;
  // Days since 1970-01-01 to a civil date (proleptic Gregorian).
  days += 719468;
  const long long era = (days >= 0 ? days : days - 146096) / 146097;
  const long long dayOfEra = days - era * 146097;
  const long long yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const long long dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const long long monthIndex = (5 * dayOfYear + 2) / 153;
  const long long day = dayOfYear - (153 * monthIndex + 2) / 5 + 1;
  const long long month = monthIndex < 10 ? monthIndex + 3 : monthIndex - 9;
  const long long year = yearOfEra + era * 400 + (month <= 2 ? 1 : 0);
  line.Number(static_cast<unsigned long long>(year), 10, 4) << "/";
  line.Number(static_cast<unsigned long long>(month), 10, 2) << "/";
  line.Number(static_cast<unsigned long long>(day), 10, 2) << " ";
  line.Number(static_cast<unsigned long long>(secondOfDay / 3600), 10, 2) << ":";
  line.Number(static_cast<unsigned long long>(secondOfDay / 60 % 60), 10, 2) << ":";
  line.Number(static_cast<unsigned long long>(secondOfDay % 60), 10, 2) << " UTC";
}

void WriteHeader(int signalNumber, const siginfo_t* info) {
  Line line;
  line << "\n****** Fatal signal " << SignalName(signalNumber) << " ******\n";
  line.Flush();
  if (info && (info->si_code == SI_USER || info->si_code == SI_TKILL)) {
    if (info->si_pid == getpid()) {
      line << "Cause: raised by the process itself\n";
    } else {
      line << "Cause: sent by process ";
      line.Number(static_cast<unsigned long long>(info->si_pid)) << "\n";
    }
  } else if (const char* fault = info ? FaultText(signalNumber, info->si_code) : nullptr) {
    line << "Cause: " << fault << "\n";
  }
  if (info && info->si_code > 0 && signalNumber != SIGABRT) {
    line << "Address: 0x";
    line.Number(reinterpret_cast<std::uintptr_t>(info->si_addr), 16, 16) << "\n";
  }
  line.Flush();
  char program[kMaxPath];
  const ssize_t length = readlink("/proc/self/exe", program, sizeof program - 1);
  program[length > 0 ? length : 0] = '\0';
  line << "Process: ";
  line.Number(static_cast<unsigned long long>(getpid())) << " " << program << "\n";
  line << "Thread: ";
  line.Number(static_cast<unsigned long long>(CurrentThreadId())) << "\n";
  line << "Time: ";
  AppendUtcTime(line);
  line << "\n";
  line.Flush();
}

void WriteStack() {
  void* frames[kMaxFrames];
  const int count = backtrace(frames, kMaxFrames);
  Line line;
  line << "Stack:\n";
  line.Flush();
  // Frame 0 is this function, frame 1 the handler.
  constexpr int kSkipped = 2;
  if (count <= kSkipped)
    return;
  for (int fd : g_sinks)
    if (fd >= 0)
      backtrace_symbols_fd(frames + kSkipped, count - kSkipped, fd);
}

int OpenReportFile() {
  const int index = g_reportFile.load(std::memory_order_acquire);
  if (index < 0 || g_reportFiles[index][0] == '\0')
    return -1;
  return open(g_reportFiles[index], O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
}

// Ends the process should the rest of the report block (a lock held by a thread that crashed).
void StartWatchdog() {
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  sigemptyset(&action.sa_mask);
  sigaction(SIGALRM, &action, nullptr);
  sigset_t alarmOnly;
  sigemptyset(&alarmOnly);
  sigaddset(&alarmOnly, SIGALRM);
  pthread_sigmask(SIG_UNBLOCK, &alarmOnly, nullptr);
  alarm(kWatchdogSeconds);
}

int SignalIndex(int signalNumber) {
  for (int i = 0; i < kFatalSignalCount; ++i)
    if (kFatalSignals[i] == signalNumber)
      return i;
  return -1;
}

// Lets the signal end the process as it would have without the library.
void PassOn(int signalNumber, siginfo_t* info, void* context) {
  const int index = SignalIndex(signalNumber);
  struct sigaction previous {};
  if (index >= 0)
    previous = g_previous[index];
  const bool chained = (previous.sa_flags & SA_SIGINFO) != 0 ? previous.sa_sigaction != nullptr
                                                             : previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN;
  if (chained) {
    // The earlier handler may recover the thread (return, or jump out): a later crash is then
    // reported again rather than waiting for this one.
    g_reporter.store(0);
    if ((previous.sa_flags & SA_SIGINFO) != 0)
      previous.sa_sigaction(signalNumber, info, context);
    else
      previous.sa_handler(signalNumber);
    return;
  }
  // The default action: a fault re-executes and ends the process; a sent signal is raised
  // again and is delivered as soon as the handler returns.
  struct sigaction fallback {};
  fallback.sa_handler = SIG_DFL;
  sigemptyset(&fallback.sa_mask);
  sigaction(signalNumber, &fallback, nullptr);
  raise(signalNumber);
}

void OnFatalSignal(int signalNumber, siginfo_t* info, void* context) {
  const int savedErrno = errno;
  const pid_t self = CurrentThreadId();
  pid_t expected = 0;
  if (!g_reporter.compare_exchange_strong(expected, self)) {
    // A second fault inside the report itself: give up the report and end as usual.
    if (expected == self) {
      PassOn(signalNumber, info, context);
      return;
    }
    // Another thread is reporting and will end the process.
    for (;;)
      pause();
  }
  g_sinks[0] = STDERR_FILENO;
  g_sinks[1] = OpenReportFile();
  WriteHeader(signalNumber, info);
  WriteStack();
  if (DKCrash::ReportExtension extension = DKCrash::Extension()) {
    StartWatchdog();
    extension(&Sink);
    alarm(0);
  }
  Line line;
  line << "****** End of crash report ******\n";
  line.Flush();
  if (g_sinks[1] >= 0)
    close(g_sinks[1]);
  g_sinks[1] = -1;
  errno = savedErrno;
  PassOn(signalNumber, info, context);
}

// Room for the report's formatting on top of the handler, and a guard page below it.
constexpr std::size_t kAlternateStackUsable = 256 * 1024;

// Alternate stacks of ended threads, kept for the next threads: a map, a protection change and
// an unmap per thread would make a thread's start and end markedly slower.
class AlternateStackCache {
public:
  void* Take() {
    std::lock_guard guard(m_lock);
    return m_count > 0 ? m_stacks[--m_count] : nullptr;
  }
  // False when the cache is full: the caller frees the stack.
  bool Keep(void* memory) {
    std::lock_guard guard(m_lock);
    if (m_count == kCapacity)
      return false;
    m_stacks[m_count++] = memory;
    return true;
  }

private:
  static constexpr std::size_t kCapacity = 16;
  std::mutex m_lock;
  void* m_stacks[kCapacity] = {};
  std::size_t m_count = 0;
};

AlternateStackCache& StackCache() {
  static AlternateStackCache* cache = new AlternateStackCache; // outlives every thread's end
  return *cache;
}

std::size_t PageSize() {
  static const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  return page;
}

// The alternate signal stack of a thread, given back at the thread's end.
struct AlternateStack {
  void* memory = nullptr;

  ~AlternateStack() {
    if (!memory)
      return;
    stack_t disabled{};
    disabled.ss_flags = SS_DISABLE;
    sigaltstack(&disabled, nullptr);
    if (!StackCache().Keep(memory))
      munmap(memory, kAlternateStackUsable + PageSize());
  }
};

thread_local AlternateStack t_alternateStack;

} // namespace

bool DKCrash::InstallSystemHandlers() {
  // The first backtrace loads the unwinder, which allocates: never let that happen in a handler.
  void* warmUp[2];
  backtrace(warmUp, 2);

  struct sigaction action {};
  action.sa_sigaction = &OnFatalSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  for (int i = 0; i < kFatalSignalCount; ++i) {
    if (sigaction(kFatalSignals[i], &action, &g_previous[i]) != 0) {
      for (int j = 0; j < i; ++j)
        sigaction(kFatalSignals[j], &g_previous[j], nullptr);
      return false;
    }
  }
  return true;
}

bool DKCrash::PrepareThread() {
  if (t_alternateStack.memory)
    return true;
  stack_t current{};
  if (sigaltstack(nullptr, &current) == 0 && (current.ss_flags & SS_DISABLE) == 0)
    return true; // the thread has one already (a sanitizer's, or the application's own)
  const std::size_t page = PageSize();
  void* memory = StackCache().Take();
  if (!memory) {
    memory = mmap(nullptr, kAlternateStackUsable + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE,
                  -1, 0);
    if (memory == MAP_FAILED)
      return false;
    mprotect(memory, page, PROT_NONE);
  }
  stack_t stack{};
  stack.ss_sp = static_cast<char*>(memory) + page;
  stack.ss_size = kAlternateStackUsable;
  if (sigaltstack(&stack, nullptr) != 0) {
    if (!StackCache().Keep(memory))
      munmap(memory, kAlternateStackUsable + page);
    return false;
  }
  t_alternateStack.memory = memory;
  return true;
}

bool DKCrash::SetReportFile(const std::string& path) {
  std::lock_guard guard(g_reportFileLock);
  if (path.empty() || path.size() >= kMaxPath) {
    g_reportFile.store(-1, std::memory_order_release);
    return path.empty();
  }
  // Write into the buffer the handler is not reading, then switch.
  const int next = g_reportFile.load(std::memory_order_relaxed) == 0 ? 1 : 0;
  std::memcpy(g_reportFiles[next], path.c_str(), path.size() + 1);
  g_reportFile.store(next, std::memory_order_release);
  return true;
}

std::string DKCrash::GetReportFile() {
  std::lock_guard guard(g_reportFileLock);
  const int index = g_reportFile.load(std::memory_order_relaxed);
  return index < 0 ? std::string() : std::string(g_reportFiles[index]);
}
