// DKThread: start sequence, thread entry, the process-wide registry and the static services.
//
// Lock order: a thread object's critical section, then the registry mutex, never the reverse.
// Nobody waits for a thread while holding the registry mutex, so a finishing thread can always
// reach the registry (from its exit functions, or from the destructor its last reference runs).
#include <DorvikCore/DKThread.h>

#include <DorvikCore/DKConsole.h>
#include <DorvikCore/DKCrashHandler.h>
#include <DorvikCore/DKException.h>

#include "os/DKProcess.h"
#include "os/DKSystem.h"
#include "threads/DKSyncCommon.h"
#include "threads/DKThreadImpl.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>

std::atomic<std::uint32_t> glbComModel{DK_COM_NONE};

DKCallback::~DKCallback() = default;

namespace {

struct RegistryEntry {
  bool running;            // cleared when the thread has finished its run callback
  DKThreadHandleImpl* handle; // the registration's reference, closed by whoever removes the entry
  DKThread* thread;
};

// The registry and its mutex, created on first use and never destroyed, so that threads still
// running while the process exits can use it.
struct Registry {
  DKMutex mutex;
  std::map<std::uint32_t, RegistryEntry> entries;
};

Registry& TheRegistry() {
  static Registry* registry = new Registry;
  return *registry;
}

// Holds the registry mutex: a standard lock over it, with the registry's entries at hand.
class RegistryLock : public std::unique_lock<DKMutex> {
public:
  RegistryLock() : std::unique_lock<DKMutex>(TheRegistry().mutex) {}
  std::map<std::uint32_t, RegistryEntry>& Entries() { return TheRegistry().entries; }
};

std::uint32_t CurrentId() noexcept { return static_cast<std::uint32_t>(DKProcess::CurrentThreadId()); }

DKThreadHandleImpl* AsHandle(DKThreadHandle handle) { return static_cast<DKThreadHandleImpl*>(handle); }

// The entry of who, when it is registered for that very thread.
std::map<std::uint32_t, RegistryEntry>::iterator Find(RegistryLock& lock, const DKThread_t& who) {
  auto& entries = lock.Entries();
  auto it = entries.find(who.m_threadID);
  if (it == entries.end() || !it->second.handle || (who.m_hThread && AsHandle(who.m_hThread) != it->second.handle))
    return entries.end();
  return it;
}

// Waits until who has ended and removes its entry. False when who was not registered to begin
// with; true when it was, even if another waiter removed the entry meanwhile.
bool WaitRegistered(const DKThread_t& who, int sliceMs) {
  RegistryLock lock;
  auto it = Find(lock, who);
  if (it == lock.Entries().end())
    return false;
  for (;;) {
    DKThreadHandleImpl* handle = it->second.handle;
    if (who.m_threadID == CurrentId()) {
      // A thread cannot outlive its own wait: it only gives up its entry.
      lock.Entries().erase(it);
      lock.unlock();
      DKThreadImpl::Close(handle);
      return true;
    }
    const bool running = it->second.running;
    DKThreadImpl::AddRef(handle);
    lock.unlock();
    const bool ended = DKThreadImpl::Wait(handle, running ? sliceMs : -1);
    lock.lock();
    it = lock.Entries().find(who.m_threadID);
    const bool ours = it != lock.Entries().end() && it->second.handle == handle;
    if (!ours) { // another waiter finished the job
      lock.unlock();
      DKThreadImpl::Release(handle);
      return true;
    }
    if (ended && running) {
      it->second.running = false;
    } else if (ended) {
      lock.Entries().erase(it);
      lock.unlock();
      DKThreadImpl::Release(handle); // ours
      DKThreadImpl::Close(handle);   // the registration's
      return true;
    }
    DKThreadImpl::Release(handle);
  }
}

std::size_t ConfiguredStackSize() {
  static const std::size_t size = [] {
    std::string value;
    if (!DKProcess::EnvironmentVariableUTF8("DK_THREAD_STACKSIZE", value))
      return std::size_t(0);
    // The whole size, as large as the system allows (a size cut to an int would be another
    // size); a value that no integer holds is no value.
    errno = 0;
    const long long bytes = std::strtoll(value.c_str(), nullptr, 10);
    return bytes > 0 && errno != ERANGE ? static_cast<std::size_t>(bytes) : std::size_t(0);
  }();
  return size;
}

DKErrorID SystemError(int error) {
  return DKLibraryErrorID(DK_MSG_SYSTEM_ERROR, error, DKSystem::ErrorCodeText(error));
}

// The thread object whose entry runs on this thread, and whether its own callback destroyed it.
thread_local DKThread* t_runningThread = nullptr;
thread_local bool t_threadDestroyed = false;

void ReportUnhandled() {
  if (GlbGetTraceLevel() != 0)
    DKLockedCOUT() << "unhandled exception in DKThread" << std::endl;
}

// Runs a callback; false when it ended by an exception, which is reported and goes no further.
// The callback is held for the call: the thread object that keeps it may be destroyed by it.
bool RunGuarded(const DKSmartPtr<DKCallback> callback) {
  try {
    if (callback)
      callback->Call();
    return true;
  } catch (...) {
    DKThreadImpl::RethrowIfCancellation(); // a cancelled thread's unwinding must go on
    try {
      throw;
    } catch (DKException& e) {
      e.LogInErrorFile();
    } catch (const std::exception& e) {
      if (GlbGetTraceLevel() != 0)
        DKLockedCOUT() << "std::exception: " << e.what() << std::endl;
    } catch (...) {
    }
  }
  return false;
}

} // namespace

DKThread::DKThread(const DKSmartPtr<DKCallback>& run)
    : m_deleteOnEnd(false), m_threadReference(false), m_joined(false), m_run(run), m_flags(glbComModel.load(std::memory_order_relaxed) & ComModelMask),
      m_id(0), m_handle(nullptr), m_startClaimed(false) {}

namespace {

// Destroying an object that counted references still hold leaves them pointing at freed
// memory: that is stopped here, loudly, rather than left to corrupt the process later.
[[noreturn]] void DestroyedWhileHeld(std::uint32_t references) {
  std::fprintf(stderr,
               "DKThread: a thread object is destroyed while %u counted reference(s) still hold it; let it go "
               "through its smart pointers instead of deleting it\n",
               static_cast<unsigned>(references));
  std::fflush(stderr);
  std::abort();
}

} // namespace

DKThread::~DKThread() {
  const bool byOwnThread = t_runningThread == this;
  // The reference of the thread itself, when it still holds one, is the only one allowed here:
  // then the object is destroyed by its own thread, which lets go of it without a release.
  const std::uint32_t allowed = byOwnThread && m_threadReference ? 1 : 0;
  if (NbRef() > allowed)
    DestroyedWhileHeld(NbRef());
  if (byOwnThread) {
    // The entry must not touch the object again, and nobody is left to wait for the thread.
    t_threadDestroyed = true;
    GiveUpRegistration();
  } else {
    Join();
  }
  if (DKThreadHandle handle = m_handle.load(std::memory_order_acquire))
    DKThreadImpl::Release(AsHandle(handle));
}

void DKThread::GiveUpRegistration() {
  DKThreadHandleImpl* handle = nullptr;
  {
    RegistryLock lock;
    auto it = lock.Entries().find(CurrentId());
    if (it != lock.Entries().end() && it->second.thread == this) {
      handle = it->second.handle;
      lock.Entries().erase(it);
    }
  }
  if (handle)
    DKThreadImpl::Close(handle); // on the thread itself: the system reclaims it when it ends
  m_joined = true;
}

DKErrorID DKThread::Start(int priority) {
  bool unclaimed = false;
  if (!m_startClaimed.compare_exchange_strong(unclaimed, true, std::memory_order_acq_rel)) {
    return DKLibraryErrorID(DK_MSG_INVALID_ARGUMENT, DK_T("DKThread::Start called on a thread that was started already"));
  }
  const std::size_t stackSize = ConfiguredStackSize();

  RegistryLock lock;
  std::uint32_t id = 0;
  int error = 0;
  DKThreadHandleImpl* handle = DKThreadImpl::CreateHeld(stackSize, &DKThread::ThreadEntry, this, id, error);
  if (!handle) {
    lock.unlock();
    m_startClaimed.store(false, std::memory_order_release);
    throw DKException(DK_T("_beginthreadex failed in DKThread::Start()"));
  }
  if (priority != 0) {
    if (const int refused = DKThreadImpl::SetPriority(id, priority)) {
      // The thread never runs and is never registered; it ends at the gate.
      lock.unlock();
      DKThreadImpl::Cancel(handle);
      DKThreadImpl::Close(handle);
      m_startClaimed.store(false, std::memory_order_release);
      return SystemError(refused);
    }
  }
  DKThreadHandleImpl* stale = nullptr;
  try {
    auto [it, inserted] = lock.Entries().try_emplace(id, RegistryEntry{true, handle, this});
    if (!inserted) {
      // The entry of an ended thread whose identifier the system has given out again.
      stale = it->second.handle;
      it->second = RegistryEntry{true, handle, this};
    }
  } catch (...) {
    lock.unlock();
    DKThreadImpl::Cancel(handle);
    DKThreadImpl::Close(handle);
    m_startClaimed.store(false, std::memory_order_release);
    throw;
  }
  lock.unlock();
  if (stale)
    DKThreadImpl::Close(stale);

  {
    std::lock_guard<DKCriticalSection> guard(m_cs);
    DKThreadImpl::AddRef(handle); // the object's own reference, for Join after the entry is gone
    m_handle.store(handle, std::memory_order_release);
    m_id.store(id, std::memory_order_release);
  }
  // A counted object is kept alive by its running thread, and an object the thread is to
  // destroy is counted from now on, so that smart pointers may share it safely. The reference
  // is taken here, before the thread runs, so that an owner dropping its own reference right
  // after Start cannot destroy the object first.
  m_threadReference = NbRef() != 0 || GetDeleteOnEnd();
  if (m_threadReference)
    AddRef();
  DKThreadImpl::Resume(handle);
  return DKErrorID();
}

void DKThread::ThreadEntry(void* argument) {
  DKInitCatchSignal();
  auto* self = static_cast<DKThread*>(argument);
  // The COM model (self->GetComModel()) needs no initialisation here.
  const bool referenced = self->m_threadReference;
  t_runningThread = self;
  t_threadDestroyed = false;

  try {
    if (!RunGuarded(self->m_run))
      ReportUnhandled();
  } catch (...) { // cancellation: leave the registry in order on the way out
    if (!t_threadDestroyed)
      self->MarkFinished();
    t_runningThread = nullptr;
    throw;
  }
  if (!t_threadDestroyed) {
    self->MarkFinished();
    self->RunExitFunctions();
  }
  if (t_threadDestroyed || !referenced) {
    t_runningThread = nullptr;
    return;
  }
  if (self->GetDeleteOnEnd()) {
    // Let go of it a little later, from another thread, once this one has left the object's code.
    t_runningThread = nullptr;
    try {
      std::thread([self] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        self->Release();
      }).detach();
      return;
    } catch (...) {
      t_runningThread = self;
    }
  }
  // Still this thread's object while it lets go: a last release destroys it from here.
  self->Release();
  t_runningThread = nullptr;
}

void DKThread::MarkFinished() {
  RegistryLock lock;
  auto it = lock.Entries().find(CurrentId());
  if (it != lock.Entries().end() && it->second.thread == this)
    it->second.running = false;
}

void DKThread::RunExitFunctions() {
  for (std::size_t i = 0;; ++i) {
    DKSmartPtr<DKCallback> function;
    {
      std::lock_guard<std::mutex> guard(m_exitLock);
      if (i >= m_exitFunctions.size())
        return;
      function = m_exitFunctions[i];
    }
    if (!RunGuarded(function))
      ReportUnhandled();
    if (t_threadDestroyed)
      return;
  }
}

void DKThread::Join() {
  if (t_runningThread == this)
    return; // a thread cannot outlive its own wait
  std::lock_guard<DKCriticalSection> guard(m_cs);
  const DKThread_t identity = GetThreadID();
  if (!identity.m_hThread || !identity.m_threadID || m_joined)
    return;
  // Gone from the registry already (another thread waited for it by id): wait on our own handle.
  if (!WaitRegistered(identity, DK_INFINITE) && identity.m_threadID != CurrentId())
    DKThreadImpl::Wait(AsHandle(identity.m_hThread), -1);
  m_joined = true;
}

bool DKThread::Exists() const {
  const DKThread_t identity = GetThreadID();
  if (!identity.m_threadID)
    return false;
  RegistryLock lock;
  auto it = Find(lock, identity);
  return it != lock.Entries().end() && it->second.running;
}

void DKThread::AddExitFunction(const DKSmartPtr<DKCallback>& function) {
  std::lock_guard<std::mutex> guard(m_exitLock);
  m_exitFunctions.push_back(function);
}

bool DKThread::SetFlag(std::uint32_t threadId, int value) {
  RegistryLock lock;
  auto it = lock.Entries().find(threadId);
  if (it == lock.Entries().end() || !it->second.thread)
    return false;
  it->second.thread->SetFlag(value);
  return true;
}

bool DKThread::IsFlagSet(std::uint32_t threadId, int value) {
  RegistryLock lock;
  auto it = lock.Entries().find(threadId);
  return it != lock.Entries().end() && it->second.thread && it->second.thread->IsFlagSet(value);
}

// Once the object's thread has ended, its identifier is no longer its own: the system may still
// know it for a moment, or already give it to another thread.
bool DKThread::SetThreadPriority(int priority) { return !HasEnded() && SetThreadPriority(GetThreadID(), priority); }

int DKThread::GetThreadPriority() const {
  return HasEnded() ? DK_THREAD_PRIORITY_ERROR_RETURN : GetThreadPriority(GetThreadID());
}

bool DKThread::HasEnded() const noexcept {
  const DKThreadHandle handle = m_handle.load(std::memory_order_acquire);
  return handle && DKThreadImpl::Wait(AsHandle(handle), 0);
}

bool DKThread::SetThreadPriority(const DKThread_t& thread, int priority) {
  return thread.m_threadID != 0 && DKThreadImpl::SetPriority(thread.m_threadID, priority) == 0;
}

int DKThread::GetThreadPriority(const DKThread_t& thread) {
  int priority = DK_THREAD_PRIORITY_ERROR_RETURN;
  if (thread.m_threadID == 0 || !DKThreadImpl::GetPriority(thread.m_threadID, priority))
    return DK_THREAD_PRIORITY_ERROR_RETURN;
  return priority;
}

DKThread_t DKThread::GetThreadID() const noexcept {
  DKThread_t identity;
  identity.m_threadID = m_id.load(std::memory_order_acquire);
  identity.m_hThread = m_handle.load(std::memory_order_acquire);
  return identity;
}

DKThread_t DKThread::GetCurrentThreadID() noexcept {
  DKThread_t identity;
  identity.m_threadID = CurrentId();
  return identity;
}

DKThread* DKThread::GetCurrentThreadP() {
  RegistryLock lock;
  auto it = lock.Entries().find(CurrentId());
  return it == lock.Entries().end() ? nullptr : it->second.thread;
}

void DKThread::WaitForThread(const DKThread_t& thread, int timeoutMs) {
  if (!WaitRegistered(thread, timeoutMs > 0 ? timeoutMs : DK_INFINITE))
    throw DKException(DK_T("Invalid Thread ID"));
}

void DKThread::yield() noexcept { std::this_thread::yield(); }

void DKThread::Sleep(std::uint32_t milliseconds) {
  if (milliseconds == 0)
    std::this_thread::yield();
  else
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

void DKThread::Milli_sleep(std::uint32_t milliseconds) { Sleep(milliseconds); }

DKThreadKey DKThread::AllocateThreadKey() {
  DKThreadKey key = DK_INVALID_THREAD_KEY;
  int error = 0;
  if (!DKThreadImpl::AllocateKey(key, error))
    DKThrowSystemError(error);
  return key;
}

void DKThread::ReleaseThreadKey(DKThreadKey& key) noexcept {
  if (key == DK_INVALID_THREAD_KEY)
    return;
  DKThreadImpl::ReleaseKey(key);
  key = DK_INVALID_THREAD_KEY;
}

bool DKThread::Set(DKThreadKey key, void* value) noexcept {
  return key != DK_INVALID_THREAD_KEY && DKThreadImpl::SetKeyValue(key, value);
}

void* DKThread::Get(DKThreadKey key) noexcept {
  return key == DK_INVALID_THREAD_KEY ? nullptr : DKThreadImpl::GetKeyValue(key);
}

bool DKThread::InitializeCOM(std::uint32_t model) {
  if (model > static_cast<std::uint32_t>(ComModelMask))
    return false;
  glbComModel.store(model, std::memory_order_relaxed);
  return true;
}

bool DKThread::IsSingleThreadedCOMApartment() noexcept {
  return glbComModel.load(std::memory_order_relaxed) == DK_COM_APARTMENTTHREADED;
}

std::size_t DKThread::GetCurrentThreadStackSize() noexcept { return DKThreadImpl::CurrentStackSize(); }

std::vector<DKThreadInfo> DKThread::GetAllThreadsInfo() {
  std::vector<std::pair<std::uint32_t, DKThreadHandle>> threads;
  {
    RegistryLock lock;
    for (const auto& [id, entry] : lock.Entries())
      threads.emplace_back(id, entry.handle);
  }
  // The system is asked outside the lock; a thread that ended meanwhile reads as unknown.
  std::vector<DKThreadInfo> infos;
  infos.reserve(threads.size());
  for (const auto& [id, handle] : threads)
    infos.emplace_back(handle, id);
  return infos;
}

void DKThread::DumpAllThreadsInfo(std::ostream& out) { DKThreadInfo::WriteThreadsInfo(out, GetAllThreadsInfo()); }
