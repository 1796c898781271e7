// The hidden timer window: a message-only window ("DKTimerWnd") owned by one thread. A wake-up
// is one posted message, coalesced by a flag so that a queue nobody dispatches holds one message
// at most, never thousands (the system caps a thread's posted messages).
#include "threads/DKTimerWndImpl.h"

#include <windows.h>

#include <atomic>

namespace {

constexpr UINT WM_DKTIMER = WM_APP + 0x2D4B; // private to the window's class
constexpr wchar_t kClassName[] = L"DKTimerWnd";

std::atomic<HWND> g_window{nullptr};
std::atomic<DWORD> g_owner{0};
std::atomic<bool> g_notified{false}; // a wake-up message is waiting in the owner's queue
DKTimerWindowImpl::Deliver g_deliver = nullptr;

HINSTANCE ThisModule() noexcept {
  HMODULE module = nullptr;
  GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                     reinterpret_cast<LPCWSTR>(&ThisModule), &module);
  return module;
}

LRESULT CALLBACK WindowProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
  if (message != WM_DKTIMER)
    return DefWindowProcW(window, message, wParam, lParam);
  // Cleared before delivering: a callback posted while they run sends a new wake-up.
  g_notified.store(false, std::memory_order_seq_cst);
  if (g_deliver)
    g_deliver();
  return 0;
}

} // namespace

bool DKTimerWindowImpl::Create(Deliver deliver, int& error) noexcept {
  const HINSTANCE module = ThisModule();
  WNDCLASSEXW windowClass{};
  windowClass.cbSize = sizeof windowClass;
  windowClass.lpfnWndProc = WindowProc;
  windowClass.hInstance = module;
  windowClass.lpszClassName = kClassName;
  // A class registered by an earlier window of this module is reused.
  if (!RegisterClassExW(&windowClass) && GetLastError() != ERROR_CLASS_ALREADY_EXISTS) {
    error = static_cast<int>(GetLastError());
    return false;
  }
  g_deliver = deliver;
  const HWND window = CreateWindowExW(0, kClassName, kClassName, 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, module, nullptr);
  if (!window) {
    error = static_cast<int>(GetLastError());
    return false;
  }
  g_notified.store(false);
  g_owner.store(GetCurrentThreadId());
  g_window.store(window);
  // Callbacks queued before the window existed are announced to it.
  Notify();
  return true;
}

void DKTimerWindowImpl::Destroy() noexcept {
  if (!IsOwner())
    return;
  const HWND window = g_window.exchange(nullptr);
  g_owner.store(0);
  DestroyWindow(window);
  // Its wake-up, if one is still queued, went with it.
  g_notified.store(false);
}

bool DKTimerWindowImpl::IsOwner() noexcept {
  return g_window.load() != nullptr && g_owner.load() == GetCurrentThreadId();
}

void* DKTimerWindowImpl::Handle() noexcept { return g_window.load(); }

void DKTimerWindowImpl::Notify() noexcept {
  const HWND window = g_window.load();
  if (!window || g_notified.exchange(true))
    return;
  if (!PostMessageW(window, WM_DKTIMER, 0, 0))
    g_notified.store(false); // the window is gone or its queue is full: a later post tries again
}

void DKTimerWindowImpl::Drained() noexcept { g_notified.store(false); }

bool DKTimerWindowImpl::WaitAndDispatch(int timeoutMs, int& quitCode) noexcept {
  MsgWaitForMultipleObjectsEx(0, nullptr, timeoutMs < 0 ? INFINITE : static_cast<DWORD>(timeoutMs), QS_ALLINPUT,
                              MWMO_INPUTAVAILABLE);
  MSG message;
  while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
    if (message.message == WM_QUIT) {
      quitCode = static_cast<int>(message.wParam);
      return false;
    }
    TranslateMessage(&message);
    DispatchMessageW(&message);
  }
  return true;
}
