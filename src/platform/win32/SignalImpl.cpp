// Windows quit signals (os/DKSignal.h): the console's control events. Ctrl+C arrives as SIGINT,
// Ctrl+Break as SIGBREAK, and the console's window being closed or the system shutting down as
// SIGTERM. A user logging off is passed on: a console program that runs for another session
// (a service) must not stop because someone logs off.
//
// The system calls console control handlers on a thread of its own, so there is no thread's
// mask to hold the signals back: while any thread holds them, an event waits as pending in one
// word until a holder takes it (several pending are one request, as elsewhere); otherwise it goes
// to the handler at once. A thread that stops holding hands a pending one to the handler.
#include "os/DKSignal.h"

#include <windows.h>

#include <atomic>
#include <csignal>
#include <new>

namespace {

std::atomic<DKSignal::QuitHandler> g_handler{nullptr};
std::atomic<int> g_holds{0};   // threads holding the quit signals back
std::atomic<int> g_pending{0}; // the signal waiting for a holder to take it, or 0

static_assert(std::atomic<DKSignal::QuitHandler>::is_always_lock_free && std::atomic<int>::is_always_lock_free,
              "the control handler touches lock-free atomics only");

struct Saved {
  DKSignal::QuitHandler previous;
};

// The token of a hold: there is no per-thread state to give back.
char g_holdToken;

int SignalFor(DWORD event) {
  switch (event) {
  case CTRL_C_EVENT: return SIGINT;
  case CTRL_BREAK_EVENT: return SIGBREAK;
  case CTRL_CLOSE_EVENT:
  case CTRL_SHUTDOWN_EVENT: return SIGTERM;
  default: return 0;
  }
}

// Gives a pending signal to the handler; puts it back when no handler is installed.
void DeliverPending() {
  const int pending = g_pending.exchange(0);
  if (pending == 0)
    return;
  if (const DKSignal::QuitHandler handler = g_handler.load())
    handler(pending);
  else
    g_pending.store(pending);
}

BOOL WINAPI OnConsoleEvent(DWORD event) {
  const int signalNumber = SignalFor(event);
  const DKSignal::QuitHandler handler = g_handler.load();
  if (signalNumber == 0 || !handler)
    return FALSE; // the next handler in the chain decides (in the end the system's)
  if (g_holds.load() > 0) {
    g_pending.store(signalNumber);
    // The last holder may have let go meanwhile without seeing it: then no one would take it.
    if (g_holds.load() == 0)
      DeliverPending();
  } else {
    handler(signalNumber);
  }
  if (event == CTRL_CLOSE_EVENT || event == CTRL_SHUTDOWN_EVENT) {
    // The system ends the process as soon as this returns, and otherwise after a few seconds:
    // the application's own shutdown gets that time.
    Sleep(INFINITE);
  }
  return TRUE;
}

} // namespace

void* DKSignal::InstallQuitHandler(QuitHandler handler) {
  auto* saved = new Saved{g_handler.exchange(handler)};
  if (!SetConsoleCtrlHandler(&OnConsoleEvent, TRUE)) {
    g_handler.store(saved->previous);
    delete saved;
    return nullptr;
  }
  // A process started in a new process group has Ctrl+C ignored; the handler takes it again,
  // as installing a handler for an ignored SIGINT does elsewhere.
  SetConsoleCtrlHandler(nullptr, FALSE);
  return saved;
}

void DKSignal::Restore(void* token) {
  auto* saved = static_cast<Saved*>(token);
  if (!saved)
    return;
  // Ctrl+C stays taken: the system does not tell whether the process ignored it before.
  SetConsoleCtrlHandler(&OnConsoleEvent, FALSE);
  g_handler.store(saved->previous);
  delete saved;
}

void* DKSignal::HoldQuitSignals() {
  g_holds.fetch_add(1);
  return &g_holdToken;
}

int DKSignal::TakeQuitSignal() { return g_pending.exchange(0); }

void DKSignal::ReleaseQuitSignals(void* token) {
  if (!token)
    return;
  g_holds.fetch_sub(1);
  DeliverPending();
}
