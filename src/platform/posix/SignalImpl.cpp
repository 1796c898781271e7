// POSIX quit signals (os/DKSignal.h): SIGINT and SIGTERM.
#include "os/DKSignal.h"

#include <pthread.h>
#include <signal.h>
#include <time.h>

namespace {

constexpr int kQuitSignals[] = {SIGINT, SIGTERM};
constexpr int kQuitSignalCount = sizeof kQuitSignals / sizeof kQuitSignals[0];

sigset_t QuitSet() {
  sigset_t set;
  sigemptyset(&set);
  for (int signalNumber : kQuitSignals)
    sigaddset(&set, signalNumber);
  return set;
}

struct SavedActions {
  struct sigaction previous[kQuitSignalCount];
};

} // namespace

void* DKSignal::InstallQuitHandler(QuitHandler handler) {
  auto* saved = new SavedActions{};
  struct sigaction action {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART; // blocking calls of other threads go on after the handler
  for (int i = 0; i < kQuitSignalCount; ++i) {
    if (sigaction(kQuitSignals[i], &action, &saved->previous[i]) != 0) {
      for (int j = 0; j < i; ++j)
        sigaction(kQuitSignals[j], &saved->previous[j], nullptr);
      delete saved;
      return nullptr;
    }
  }
  return saved;
}

void DKSignal::Restore(void* token) {
  auto* saved = static_cast<SavedActions*>(token);
  if (!saved)
    return;
  for (int i = 0; i < kQuitSignalCount; ++i)
    sigaction(kQuitSignals[i], &saved->previous[i], nullptr);
  delete saved;
}

void* DKSignal::HoldQuitSignals() {
  auto* previous = new sigset_t;
  const sigset_t quit = QuitSet();
  if (pthread_sigmask(SIG_BLOCK, &quit, previous) != 0) {
    delete previous;
    return nullptr;
  }
  return previous;
}

int DKSignal::TakeQuitSignal() {
  const sigset_t quit = QuitSet();
  const timespec noWait{0, 0};
  // Several pending quit signals are one request: take them all.
  int taken = 0;
  for (int signalNumber; (signalNumber = sigtimedwait(&quit, nullptr, &noWait)) > 0;)
    taken = signalNumber;
  return taken;
}

void DKSignal::ReleaseQuitSignals(void* token) {
  auto* previous = static_cast<sigset_t*>(token);
  if (!previous)
    return;
  pthread_sigmask(SIG_SETMASK, previous, nullptr);
  delete previous;
}
