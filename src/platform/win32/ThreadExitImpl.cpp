// The thread-end hook on Windows (base/DKThreadExit.h). A fiber-local slot with a callback
// runs the cleanups: the system calls fiber-local callbacks as a thread ends, before the DLLs'
// thread-detach notifications, in which MinGW's emulated TLS frees the thread's thread_local
// storage, and it hands the callback the list itself. A thread-local slot of the system (not
// emulated) keeps the list, and the mark of a thread whose cleanups ran, until the thread is gone.
#include "base/DKThreadExit.h"

#include <windows.h>

namespace {

void WINAPI OnThreadEnd(void* list) { dkbase::RunThreadExit(static_cast<dkbase::ThreadExitList*>(list)); }

DWORD ListSlot() noexcept {
  static const DWORD slot = TlsAlloc();
  return slot;
}

DWORD CallbackSlot() noexcept {
  static const DWORD slot = [] {
    const DWORD allocated = FlsAlloc(&OnThreadEnd);
    // The callback stays reachable as long as a thread may end: the DLL is never unloaded once
    // a cleanup exists.
    HMODULE self = nullptr;
    if (allocated != FLS_OUT_OF_INDEXES &&
        !GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                            reinterpret_cast<LPCWSTR>(&OnThreadEnd), &self)) {
      FlsFree(allocated);
      return static_cast<DWORD>(FLS_OUT_OF_INDEXES);
    }
    return allocated;
  }();
  return slot;
}

} // namespace

namespace dkbase::threadexit {

ThreadExitList* Current() noexcept {
  const DWORD slot = ListSlot();
  if (slot == TLS_OUT_OF_INDEXES)
    return nullptr;
  const DWORD lastError = GetLastError(); // TlsGetValue clears it; the caller may be about to read it
  void* list = TlsGetValue(slot);
  SetLastError(lastError);
  return static_cast<ThreadExitList*>(list);
}

void SetCurrent(ThreadExitList* list) noexcept {
  const DWORD slot = ListSlot();
  if (slot != TLS_OUT_OF_INDEXES)
    TlsSetValue(slot, list);
}

bool Arm(ThreadExitList* list) noexcept {
  const DWORD callback = CallbackSlot();
  return ListSlot() != TLS_OUT_OF_INDEXES && callback != FLS_OUT_OF_INDEXES && FlsSetValue(callback, list);
}

} // namespace dkbase::threadexit
