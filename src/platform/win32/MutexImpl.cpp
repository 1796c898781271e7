// Windows kernel mutex (threads/DKSyncImpl.h). The kernel gives everything the interface asks:
// recursion, the owner check on release, abandonment when the owner ends holding it, and for a
// named mutex one object for every process that opens the name, destroyed with its last handle.
#include "threads/DKSyncImpl.h"

#include "ObjectNameImpl.h"

#include <windows.h>

#include <new>

namespace {

class WinMutex final : public DKMutexImpl {
public:
  HANDLE handle = nullptr;
};

WinMutex* Self(DKMutexImpl* impl) { return static_cast<WinMutex*>(impl); }

int LastError() {
  const DWORD error = GetLastError();
  return error != 0 ? static_cast<int>(error) : ERROR_GEN_FAILURE;
}

} // namespace

DKMutexImpl* DKMutexImpl::Open(const std::string& name, bool initiallyOwned, int& error) noexcept {
  auto* impl = new (std::nothrow) WinMutex;
  if (!impl) {
    error = ERROR_NOT_ENOUGH_MEMORY;
    return nullptr;
  }
  if (name.empty()) {
    impl->handle = CreateMutexW(nullptr, initiallyOwned ? TRUE : FALSE, nullptr);
  } else {
    try {
      // The kernel applies initial ownership only when this call creates the mutex.
      impl->handle = CreateMutexW(nullptr, initiallyOwned ? TRUE : FALSE, DKKernelObjectName("mutex", name).c_str());
    } catch (const std::bad_alloc&) {
      SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    }
  }
  if (!impl->handle) {
    error = LastError();
    delete impl;
    return nullptr;
  }
  return impl;
}

void DKMutexImpl::Close() noexcept {
  WinMutex* self = Self(this);
  CloseHandle(self->handle);
  delete self;
}

DKWaitStatus DKMutexImpl::Lock(int timeoutMs, int& error) noexcept {
  const DWORD timeout = timeoutMs < 0 ? INFINITE : static_cast<DWORD>(timeoutMs);
  switch (WaitForSingleObject(Self(this)->handle, timeout)) {
  case WAIT_OBJECT_0: return DKWaitStatus::Signalled;
  case WAIT_ABANDONED: return DKWaitStatus::Abandoned; // held now; the kernel made it usable again
  case WAIT_TIMEOUT: return DKWaitStatus::TimedOut;
  default: break;
  }
  error = LastError();
  return DKWaitStatus::Failed;
}

int DKMutexImpl::Unlock() noexcept {
  // A caller that does not hold the mutex gets ERROR_NOT_OWNER.
  return ReleaseMutex(Self(this)->handle) ? 0 : LastError();
}
