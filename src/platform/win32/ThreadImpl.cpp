// Windows threads (threads/DKThreadImpl.h).
//
// _beginthreadex creates the thread suspended: that is its start gate. Resume opens the gate and
// lets it run its entry; Cancel lets it run only to its end. The handle is a counted record with
// the system's thread handle and an "ended" event that the thread sets as it leaves its entry.
// Waiters wait for either: the event tells of the end before the thread goes through the
// system's thread-detach notifications (under the loader lock, so a wait for the thread's final
// end from a DLL's unloading would never return), and the thread handle tells of an end that
// skipped the entry's epilogue (ExitThread). The system handle is closed with the last reference.
#include "threads/DKThreadImpl.h"

#include <windows.h>

#include <process.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <new>

class DKThreadHandleImpl {
public:
  enum Gate { Held, Run, Cancelled };

  std::atomic<int> refs{2}; // the creator's and the thread's
  HANDLE thread = nullptr;
  HANDLE endedEvent = nullptr; // manual reset, set as the thread leaves its entry
  std::atomic<bool> ended{false};
  std::uint32_t id = 0;
  DKThreadImpl::Entry entry = nullptr;
  void* argument = nullptr;
  std::atomic<int> gate{Held};

  ~DKThreadHandleImpl() {
    if (thread)
      CloseHandle(thread);
    if (endedEvent)
      CloseHandle(endedEvent);
  }
};

namespace {

// FILETIME counts from 1601-01-01; the interface from 1970-01-01.
constexpr std::int64_t kUnixEpochAsFileTime = 116444736000000000LL;

std::int64_t FromFileTime(const FILETIME& time) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(time.dwHighDateTime) << 32 | time.dwLowDateTime);
}

int LastError() {
  const DWORD error = GetLastError();
  return error != 0 ? static_cast<int>(error) : ERROR_GEN_FAILURE;
}

// Marks the handle ended when the thread leaves its entry, however it leaves it.
struct EndGuard {
  DKThreadHandleImpl* handle;
  ~EndGuard() {
    handle->ended.store(true, std::memory_order_release);
    SetEvent(handle->endedEvent);
    DKThreadImpl::Release(handle);
  }
};

unsigned __stdcall Trampoline(void* argument) {
  auto* handle = static_cast<DKThreadHandleImpl*>(argument);
  EndGuard end{handle};
  // Resumed only once the gate is open.
  if (handle->gate.load(std::memory_order_acquire) == DKThreadHandleImpl::Run)
    handle->entry(handle->argument);
  return 0;
}

void OpenGate(DKThreadHandleImpl* handle, int state) {
  // Once resumed the thread may run to its end and every other holder let go of the handle
  // before this function is done with it.
  DKThreadImpl::AddRef(handle);
  handle->gate.store(state, std::memory_order_release);
  ResumeThread(handle->thread);
  DKThreadImpl::Release(handle);
}

// A handle to the thread of that identifier with the given rights; null when the system does
// not know it (any more).
HANDLE OpenById(std::uint32_t id, DWORD rights) { return OpenThread(rights, FALSE, static_cast<DWORD>(id)); }

} // namespace

DKThreadHandleImpl* DKThreadImpl::CreateHeld(std::size_t stackSize, Entry entry, void* argument, std::uint32_t& id,
                                             int& error) noexcept {
  if (stackSize > UINT_MAX) {
    error = ERROR_INVALID_PARAMETER;
    return nullptr;
  }
  auto* handle = new (std::nothrow) DKThreadHandleImpl;
  if (!handle) {
    error = ERROR_NOT_ENOUGH_MEMORY;
    return nullptr;
  }
  handle->entry = entry;
  handle->argument = argument;
  handle->endedEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  if (!handle->endedEvent) {
    error = LastError();
    delete handle;
    return nullptr;
  }
  // The size asked for is the whole stack (its reservation), as on the other systems; without
  // the flag it would be only the part committed at the start.
  const unsigned flags = CREATE_SUSPENDED | (stackSize != 0 ? STACK_SIZE_PARAM_IS_A_RESERVATION : 0);
  unsigned threadId = 0;
  SetLastError(0);
  _doserrno = 0;
  const std::uintptr_t thread =
      _beginthreadex(nullptr, static_cast<unsigned>(stackSize), &Trampoline, handle, flags, &threadId);
  if (thread == 0) {
    // The runtime keeps the system's error in _doserrno; a refusal of its own leaves only errno.
    const unsigned long system = _doserrno;
    error = system != 0 ? static_cast<int>(system) : (GetLastError() != 0 ? LastError() : ERROR_NOT_ENOUGH_MEMORY);
    delete handle;
    return nullptr;
  }
  handle->thread = reinterpret_cast<HANDLE>(thread);
  handle->id = threadId;
  id = threadId;
  return handle;
}

void DKThreadImpl::Resume(DKThreadHandleImpl* handle) noexcept { OpenGate(handle, DKThreadHandleImpl::Run); }

void DKThreadImpl::Cancel(DKThreadHandleImpl* handle) noexcept { OpenGate(handle, DKThreadHandleImpl::Cancelled); }

void DKThreadImpl::AddRef(DKThreadHandleImpl* handle) noexcept { handle->refs.fetch_add(1, std::memory_order_relaxed); }

void DKThreadImpl::Release(DKThreadHandleImpl* handle) noexcept {
  if (handle->refs.fetch_sub(1, std::memory_order_acq_rel) == 1)
    delete handle; // closes the system's handles; the thread itself may still be finishing
}

bool DKThreadImpl::Wait(DKThreadHandleImpl* handle, int timeoutMs) noexcept {
  if (handle->ended.load(std::memory_order_acquire))
    return true;
  // Identifiers are unique among live threads, and this one has not ended: it is the caller.
  if (GetCurrentThreadId() == handle->id)
    return false;
  const HANDLE either[2] = {handle->endedEvent, handle->thread};
  const DWORD rc = WaitForMultipleObjects(2, either, FALSE, timeoutMs < 0 ? INFINITE : static_cast<DWORD>(timeoutMs));
  return rc == WAIT_OBJECT_0 || rc == WAIT_OBJECT_0 + 1;
}

void DKThreadImpl::Close(DKThreadHandleImpl* handle) noexcept {
  Wait(handle, -1); // tells a thread closing its own handle false at once
  Release(handle);
}

// The exit handlers of the library's DLL run in its detach code, after ExitProcess has ended every
// other thread; the system's loader says when it is shutting the process down.
bool DKThreadImpl::OtherThreadsEnded() noexcept {
  typedef BOOLEAN(NTAPI * ShutdownInProgress)();
  static const auto inProgress = reinterpret_cast<ShutdownInProgress>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlDllShutdownInProgress")));
  return inProgress && inProgress();
}

std::size_t DKThreadImpl::CurrentStackSize() noexcept {
  ULONG_PTR low = 0;
  ULONG_PTR high = 0;
  GetCurrentThreadStackLimits(&low, &high);
  return static_cast<std::size_t>(high - low);
}

int DKThreadImpl::SetPriority(std::uint32_t id, int priority) noexcept {
  // THREAD_SET_LIMITED_INFORMATION would do on Windows; Wine asks for the full right.
  const HANDLE thread = OpenById(id, THREAD_SET_INFORMATION);
  if (!thread)
    return LastError();
  const int rc = SetThreadPriority(thread, priority) ? 0 : LastError();
  CloseHandle(thread);
  return rc;
}

bool DKThreadImpl::GetPriority(std::uint32_t id, int& priority) noexcept {
  const HANDLE thread = OpenById(id, THREAD_QUERY_LIMITED_INFORMATION);
  if (!thread)
    return false;
  const int value = GetThreadPriority(thread);
  CloseHandle(thread);
  if (value == THREAD_PRIORITY_ERROR_RETURN)
    return false;
  priority = value;
  return true;
}

int DKThreadImpl::ProcessPriorityClass() noexcept { return static_cast<int>(GetPriorityClass(GetCurrentProcess())); }

bool DKThreadImpl::GetTimes(std::uint32_t id, DKThreadTimes& times) noexcept {
  times = DKThreadTimes();
  const HANDLE thread = OpenById(id, THREAD_QUERY_LIMITED_INFORMATION);
  if (!thread)
    return false;
  FILETIME creation{}, exit{}, kernel{}, user{};
  const bool read = GetThreadTimes(thread, &creation, &exit, &kernel, &user) != 0;
  CloseHandle(thread);
  if (!read)
    return false;
  const std::int64_t created = FromFileTime(creation);
  times.creationUnix100ns = created > kUnixEpochAsFileTime ? created - kUnixEpochAsFileTime : 0;
  times.kernel100ns = FromFileTime(kernel);
  times.user100ns = FromFileTime(user);
  return true;
}

std::int64_t DKThreadImpl::WallClockNow100ns() noexcept {
  FILETIME now{};
  GetSystemTimePreciseAsFileTime(&now);
  return FromFileTime(now) - kUnixEpochAsFileTime;
}

// Windows ends a thread without unwinding it (ExitThread, TerminateThread): no exception of the
// system's ever passes through a catch block, so there is nothing to let through.
void DKThreadImpl::RethrowIfCancellation() {}

bool DKThreadImpl::AllocateKey(std::uint32_t& key, int& error) noexcept {
  const DWORD slot = TlsAlloc();
  if (slot == TLS_OUT_OF_INDEXES) {
    error = LastError();
    return false;
  }
  key = slot;
  return true;
}

void DKThreadImpl::ReleaseKey(std::uint32_t key) noexcept { TlsFree(key); }

bool DKThreadImpl::SetKeyValue(std::uint32_t key, void* value) noexcept { return TlsSetValue(key, value) != 0; }

void* DKThreadImpl::GetKeyValue(std::uint32_t key) noexcept {
  // TlsGetValue clears the last error on success; the caller's stays as it was.
  const DWORD error = GetLastError();
  void* value = TlsGetValue(key);
  SetLastError(error);
  return value;
}
