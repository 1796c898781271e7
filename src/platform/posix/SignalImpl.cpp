// POSIX quit signals (os/DKSignal.h): SIGINT and SIGTERM.
#include "os/DKSignal.h"

#include <signal.h>

namespace {

constexpr int kQuitSignals[] = {SIGINT, SIGTERM};
constexpr int kQuitSignalCount = sizeof kQuitSignals / sizeof kQuitSignals[0];

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
