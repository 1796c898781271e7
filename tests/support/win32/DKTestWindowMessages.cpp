// The calling thread's window messages, through the classic loop calls.
#include "support/DKTestWindowMessages.h"

#include <windows.h>

#include <chrono>

namespace dktest {

bool HasWindowMessages() { return true; }

bool DispatchMessagesUntil(const std::function<bool()>& done, int timeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!done()) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0)
      return false;
    MsgWaitForMultipleObjectsEx(0, nullptr, static_cast<DWORD>(left.count()), QS_ALLINPUT, MWMO_INPUTAVAILABLE);
    MSG message;
    while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
      TranslateMessage(&message);
      DispatchMessageW(&message);
    }
  }
  return true;
}

void PostQuitToThisThread(int exitCode) { PostQuitMessage(exitCode); }

int DropThreadMessages() {
  int count = 0;
  MSG message;
  while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE))
    ++count;
  return count;
}

} // namespace dktest
