// Placeholder threads for the Windows build until the Windows thread layer brings its own:
// threads start suspended and run, thread-local keys work; priorities and thread times are not
// read, and cancelling only stops a thread that has not started yet.
#include "threads/DKThreadImpl.h"

#include <windows.h>

#include <process.h>

#include <atomic>
#include <new>

class DKThreadHandleImpl {
public:
  HANDLE handle = nullptr;
  std::atomic<int> references{2}; // the creator's and the running thread's
  DKThreadImpl::Entry entry = nullptr;
  void* argument = nullptr;
  std::atomic<bool> cancelled{false};
};

namespace {

unsigned __stdcall Run(void* context) {
  auto* thread = static_cast<DKThreadHandleImpl*>(context);
  if (!thread->cancelled)
    thread->entry(thread->argument);
  DKThreadImpl::Release(thread);
  return 0;
}

bool IsCurrent(const DKThreadHandleImpl* thread) noexcept { return GetThreadId(thread->handle) == GetCurrentThreadId(); }

} // namespace

DKThreadHandleImpl* DKThreadImpl::CreateHeld(std::size_t stackSize, Entry entry, void* argument, std::uint32_t& id,
                                              int& error) noexcept {
  auto* thread = new (std::nothrow) DKThreadHandleImpl;
  if (!thread) {
    error = ERROR_NOT_ENOUGH_MEMORY;
    return nullptr;
  }
  thread->entry = entry;
  thread->argument = argument;
  unsigned threadId = 0;
  thread->handle = reinterpret_cast<HANDLE>(
      _beginthreadex(nullptr, static_cast<unsigned>(stackSize), Run, thread, CREATE_SUSPENDED, &threadId));
  if (!thread->handle) {
    error = static_cast<int>(GetLastError());
    delete thread;
    return nullptr;
  }
  id = threadId;
  return thread;
}

void DKThreadImpl::Resume(DKThreadHandleImpl* thread) noexcept { ResumeThread(thread->handle); }

void DKThreadImpl::Cancel(DKThreadHandleImpl* thread) noexcept {
  thread->cancelled = true;
  ResumeThread(thread->handle);
}

void DKThreadImpl::AddRef(DKThreadHandleImpl* thread) noexcept { ++thread->references; }

void DKThreadImpl::Release(DKThreadHandleImpl* thread) noexcept {
  if (--thread->references == 0) {
    CloseHandle(thread->handle);
    delete thread;
  }
}

bool DKThreadImpl::Wait(DKThreadHandleImpl* thread, int timeoutMs) noexcept {
  if (IsCurrent(thread))
    return false;
  return WaitForSingleObject(thread->handle, timeoutMs < 0 ? INFINITE : static_cast<DWORD>(timeoutMs)) == WAIT_OBJECT_0;
}

void DKThreadImpl::Close(DKThreadHandleImpl* thread) noexcept {
  if (!IsCurrent(thread))
    WaitForSingleObject(thread->handle, INFINITE);
  Release(thread);
}

std::size_t DKThreadImpl::CurrentStackSize() noexcept {
  ULONG_PTR low = 0, high = 0;
  GetCurrentThreadStackLimits(&low, &high);
  return high - low;
}

int DKThreadImpl::SetPriority(std::uint32_t, int) noexcept { return 0; }

bool DKThreadImpl::GetPriority(std::uint32_t, int& priority) noexcept {
  priority = 0; // THREAD_PRIORITY_NORMAL
  return true;
}

int DKThreadImpl::ProcessPriorityClass() noexcept { return static_cast<int>(GetPriorityClass(GetCurrentProcess())); }

bool DKThreadImpl::GetTimes(std::uint32_t, DKThreadTimes&) noexcept { return false; }

std::int64_t DKThreadImpl::WallClockNow100ns() noexcept {
  FILETIME now{};
  GetSystemTimePreciseAsFileTime(&now);
  return static_cast<std::int64_t>((std::uint64_t{now.dwHighDateTime} << 32) | now.dwLowDateTime) -
         116444736000000000; // 1601-01-01 to 1970-01-01
}

void DKThreadImpl::RethrowIfCancellation() {}

bool DKThreadImpl::AllocateKey(std::uint32_t& key, int& error) noexcept {
  const DWORD index = TlsAlloc();
  if (index == TLS_OUT_OF_INDEXES) {
    error = static_cast<int>(GetLastError());
    return false;
  }
  key = index;
  return true;
}

void DKThreadImpl::ReleaseKey(std::uint32_t key) noexcept { TlsFree(key); }

bool DKThreadImpl::SetKeyValue(std::uint32_t key, void* value) noexcept { return TlsSetValue(key, value) != 0; }

void* DKThreadImpl::GetKeyValue(std::uint32_t key) noexcept { return TlsGetValue(key); }
