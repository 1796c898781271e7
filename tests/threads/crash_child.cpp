// The process the crash cases end: it installs the crash catching, then crashes the way its
// first argument says. The second argument, when given, is the report file.
#include <DorvikCore/DKCrashHandler.h>
#include <DorvikCore/DKThread.h>

#include <csetjmp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <setjmp.h>
#include <unistd.h>

#if defined(_WIN32)
#  include <windows.h>
#endif

namespace {

volatile int g_sink;

// The undefined-behaviour checks would report these first and end the process their own way.
__attribute__((noinline, no_sanitize("undefined"))) void WriteThroughNull() {
  volatile int* volatile nowhere = nullptr; // not provably null, so the store stays
  *nowhere = 1;
}

__attribute__((noinline, no_sanitize("undefined"))) void DivideByZero() {
  volatile int numerator = 7; // a constant 1 / x would be folded into a comparison
  volatile int zero = 0;
  g_sink = numerator / zero;
}

// Each frame keeps a page alive so that the stack runs out after a few thousand calls.
volatile bool g_deeper = true; // always true; the compiler cannot tell

[[gnu::noinline]] int Recurse(int depth) {
  volatile char page[4096];
  page[0] = static_cast<char>(depth);
  return g_deeper ? Recurse(depth + 1) + page[0] : depth;
}

void Crash(const std::string& how) {
  if (how == "segv")
    WriteThroughNull();
  else if (how == "fpe")
    DivideByZero();
  else if (how == "abort")
    std::abort();
  else if (how == "overflow")
    g_sink = Recurse(0);
}

void SayEarlierHandlerRan() {
  static const char text[] = "earlier handler ran\n";
  (void)!write(STDERR_FILENO, text, sizeof text - 1);
}

#if defined(_WIN32)
// On Windows an application's own last-chance handler is an unhandled-exception filter. (A
// handler set with signal() is called by the C runtime's frame handler, before any filter: the
// application has then taken the fault itself, and no crash is reported.)
void* g_recovery[5]; // what __builtin_setjmp keeps

LONG WINAPI ExitBefore(EXCEPTION_POINTERS*) {
  SayEarlierHandlerRan();
  _exit(42);
}

// Recovers from an arithmetic fault by jumping back, without unwinding: the exception's dispatch
// frames are left behind as a signal handler's are.
LONG WINAPI RecoverFromFpe(EXCEPTION_POINTERS* info) {
  if (info->ExceptionRecord->ExceptionCode != EXCEPTION_INT_DIVIDE_BY_ZERO)
    return EXCEPTION_CONTINUE_SEARCH;
  __builtin_longjmp(g_recovery, 1);
}

#  define DK_SETJMP(buffer) __builtin_setjmp(buffer)
void InstallEarlierHandler() { SetUnhandledExceptionFilter(&ExitBefore); }
void InstallRecovery() { SetUnhandledExceptionFilter(&RecoverFromFpe); }
#else
sigjmp_buf g_recovery;
#  define DK_SETJMP(buffer) sigsetjmp(buffer, 1)

void OnSegvBefore(int) {
  SayEarlierHandlerRan();
  _exit(42);
}

void RecoverFromFpe(int) { siglongjmp(g_recovery, 1); }

void InstallEarlierHandler() { std::signal(SIGSEGV, &OnSegvBefore); }
void InstallRecovery() { std::signal(SIGFPE, &RecoverFromFpe); }
#endif

} // namespace

int main(int argc, char** argv) {
  if (argc < 2)
    return 2;
  std::string how = argv[1];
  if (how == "chained") {
    // An application's own handler, installed before the library's: it still runs.
    InstallEarlierHandler();
    how = "segv";
  }
  const bool recover = how == "recover";
  if (recover) // an application that recovers from arithmetic faults with a handler of its own
    InstallRecovery();
  DKInitCatchSignal();
  DKInitCatchSignal(); // a second call changes nothing
  if (recover) {
    // The count lives in static storage: a local could be clobbered by the jump back.
    static int recoveries = 0;
    while (recoveries < 2) {
      if (DK_SETJMP(g_recovery) == 0) {
        DivideByZero();
      } else {
        ++recoveries;
        std::fprintf(stderr, "recovered\n");
      }
    }
    how = "segv"; // and then a crash nobody recovers from
  }
  if (argc > 2) {
    const DKString reportFile = DKString::FromUTF8(argv[2]);
    if (!DKSetCrashReportFile(reportFile))
      return 3;
  }
  if (how.rfind("thread-", 0) == 0) {
    const std::string inThread = how.substr(7);
    DKThread thread(DKMakeCallback([inThread] { Crash(inThread); }));
    if (thread.Start(0).Bad())
      return 3;
    thread.Join();
    return 4;
  }
  Crash(how);
  return 5;
}
