// DKThread: a thread object with a process-wide registry, and DKCallback, the counted callable
// it runs.
//
//   DKThread thread(DKMakeCallback([&] { while (!stop) Work(); }));
//   if (thread.Start().Bad()) ...;
//   ...
//   thread.Join(); // also done by the destructor
//
// A running thread is asked to stop cooperatively: SetFlag (on the object or by thread id) sets
// a bit that its run callback polls with IsFlagSet.
//
// Start creates the thread held at a start gate, applies the priority (a refused priority is
// Start's error: the thread then never runs and is never registered), registers it and lets it
// go. On its thread the object runs the callback, then its exit functions in the order they were
// added; exceptions never leave the thread (while GlbGetTraceLevel() is non-zero they are
// reported on the console). An object with SetDeleteOnEnd(true) belongs to its thread, which
// holds a counted reference to it and lets go of it 100 milliseconds after it finished: the
// object is then destroyed, unless smart pointers still hold it. Otherwise its owner destroys
// it, and the destructor waits for the thread. A subclass whose members the thread uses must
// Join in its own destructor. An object held by smart pointers is kept alive by its running
// thread.
//
// The object may be destroyed by its own thread (from the callback or an exit function): the
// thread then goes on without it and runs no further exit function. An object that counted
// references hold must only be let go through them: destroying it while a smart pointer (or its
// running thread) still holds it ends the process with a message on the standard error, as it
// would otherwise be used after it is freed.
//
// The environment variable "DK_THREAD_STACKSIZE" (bytes, read at the first Start of the
// process) sets the stack size of every thread; 0 or absent means the system's default.
#pragma once

#include <DorvikCore/DKDateEx.h>
#include <DorvikCore/DKError.h>
#include <DorvikCore/DKRefCount.h>
#include <DorvikCore/DKString.h>
#include <DorvikCore/DKSync.h>
#include <DorvikCore/DKTypes.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <mutex>
#include <type_traits>
#include <utility>
#include <vector>

// Thread priorities: the Windows values, applied where the system allows (on Linux as the
// thread's nice value, relative to the process's).
inline constexpr int DK_THREAD_PRIORITY_IDLE = -15;         // Runs only when nothing else would.
inline constexpr int DK_THREAD_PRIORITY_LOWEST = -2;        // Two steps below normal.
inline constexpr int DK_THREAD_PRIORITY_BELOW_NORMAL = -1;  // One step below normal.
inline constexpr int DK_THREAD_PRIORITY_NORMAL = 0;         // The default.
inline constexpr int DK_THREAD_PRIORITY_ABOVE_NORMAL = 1;   // One step above normal.
inline constexpr int DK_THREAD_PRIORITY_HIGHEST = 2;        // Two steps above normal.
inline constexpr int DK_THREAD_PRIORITY_TIME_CRITICAL = 15; // The highest.
// GetThreadPriority of a thread that cannot be asked.
inline constexpr int DK_THREAD_PRIORITY_ERROR_RETURN = 0x7FFFFFFF;

// Process priority classes: the Windows values.
inline constexpr int DK_IDLE_PRIORITY_CLASS = 0x40;           // Runs only when the system is idle.
inline constexpr int DK_BELOW_NORMAL_PRIORITY_CLASS = 0x4000; // Below normal.
inline constexpr int DK_NORMAL_PRIORITY_CLASS = 0x20;         // The default.
inline constexpr int DK_ABOVE_NORMAL_PRIORITY_CLASS = 0x8000; // Above normal.
inline constexpr int DK_HIGH_PRIORITY_CLASS = 0x80;           // High.
inline constexpr int DK_REALTIME_PRIORITY_CLASS = 0x100;      // The highest.

// The COM model a thread initialises (kept in the low four bits of a thread's flags). Linux has
// no COM: the value is kept and reported only.
enum DKComModel : std::uint32_t {
  DK_COM_NONE = 0,              // No COM initialisation.
  DK_COM_APARTMENTTHREADED = 1, // A single-threaded apartment.
  DK_COM_MULTITHREADED = 2,     // The multithreaded apartment.
};

// The COM model new thread objects take (DKThread::InitializeCOM sets it).
DK_EXPORT extern std::atomic<std::uint32_t> glbComModel;

// A counted callable: the body of a thread and its exit functions.
class DK_EXPORT DKCallback : public DKRefCount {
public:
  ~DKCallback() override;
  // Runs the callback.
  virtual void Call() = 0;
  // Call().
  void operator()() { Call(); }
};

// A callback that calls a copy of any callable.
template <class F>
class DKFunctionCallback final : public DKCallback {
public:
  // Keeps the callable (moved in).
  explicit DKFunctionCallback(F function) : m_function(std::move(function)) {}
  // Calls it.
  void Call() override { m_function(); }

private:
  F m_function;
};

// A new counted callback that calls a copy of function (a lambda, a function pointer, ...).
template <class F>
DKSmartPtr<DKCallback> DKMakeCallback(F&& function) {
  return DKSmartPtr<DKCallback>(new DKFunctionCallback<std::decay_t<F>>(std::forward<F>(function)));
}

// A callback that calls a member function of an object the caller keeps alive.
template <class T>
DKSmartPtr<DKCallback> DKMakeCallback(T* object, void (T::*method)()) {
  return DKMakeCallback([object, method] { (object->*method)(); });
}

// A thread's handle as the system gives it (opaque).
typedef void* DKThreadHandle;
// A thread-local slot.
typedef std::uint32_t DKThreadKey;
// No slot: what ReleaseThreadKey leaves in a key.
inline constexpr DKThreadKey DK_INVALID_THREAD_KEY = 0xFFFFFFFF;

// A thread's identity: its identifier and its handle, both zero until started. The identity of
// the calling thread (GetCurrentThreadID) has no handle.
struct DKThread_t {
  std::uint32_t m_threadID = 0;       // The system's thread identifier (gettid here).
  DKThreadHandle m_hThread = nullptr; // The handle; null for the calling thread's identity.

  // Same identifier (the handles are not compared).
  friend bool operator==(const DKThread_t& a, const DKThread_t& b) noexcept { return a.m_threadID == b.m_threadID; }
};

class DKThreadInfo;

// One thread and the object that controls it. Counted, so that a running thread can hold its
// object, but not copyable. The member functions may be called from any thread.
class DK_EXPORT DKThread : public DKRefCount {
public:
  // The low four bits of the flags hold the COM model; application flags use the bits above.
  static constexpr int ComModelMask = 0xF;

  // Keeps the callback (a null callback runs nothing); does not start.
  explicit DKThread(const DKSmartPtr<DKCallback>& run);
  // Waits for the thread (Join), then releases the callback and the exit functions.
  ~DKThread() override;
  // Not copyable: one object per thread.
  DKThread(const DKThread&) = delete;
  DKThread& operator=(const DKThread&) = delete;

  // Starts the thread. Throws DKException "_beginthreadex failed in DKThread::Start()" when the
  // system cannot create it. Returns the system error when the priority (not 0) is refused,
  // and an error when the object was started before.
  DKErrorID Start(int priority = DK_THREAD_PRIORITY_NORMAL);
  // Waits without limit for the thread to end, once; returns at once for a thread never started
  // or joined already. A thread cannot wait for itself: called from its own thread it returns at
  // once and changes nothing, so that the owner's Join (and the destructor) still wait.
  void Join();

  // Started: the thread has an identifier.
  bool IsStarted() const noexcept { return m_id.load(std::memory_order_acquire) != 0; }
  // Started, and the thread still runs its callback (Exists).
  bool IsRunning() const { return IsStarted() && Exists(); }
  // The thread is in the registry and has not finished its callback.
  bool Exists() const;

  // Whether the thread owns the object and destroys it when it ends.
  bool GetDeleteOnEnd() const noexcept { return m_deleteOnEnd.load(std::memory_order_acquire); }
  // Sets that; decided before Start: who owns the object is settled when the thread starts. False,
  // and nothing changes, once Start was called (a Start that failed does not count).
  bool SetDeleteOnEnd(bool deleteOnEnd) noexcept {
    if (m_startClaimed.load(std::memory_order_acquire))
      return false;
    m_deleteOnEnd.store(deleteOnEnd, std::memory_order_release);
    return true;
  }

  // Adds a callback run on the thread after the run callback (in the order added).
  void AddExitFunction(const DKSmartPtr<DKCallback>& function);

  // SetFlag: flags |= value, without a lock. IsFlagSet: whether all bits of value are set.
  void SetFlag(int value) noexcept { m_flags.fetch_or(static_cast<std::uint32_t>(value), std::memory_order_acq_rel); }
  bool IsFlagSet(int value) const noexcept {
    const auto bits = static_cast<std::uint32_t>(value);
    return (m_flags.load(std::memory_order_acquire) & bits) == bits;
  }
  // The same on the registered thread of that identifier; false when there is none.
  static bool SetFlag(std::uint32_t threadId, int value);
  static bool IsFlagSet(std::uint32_t threadId, int value);

  // The COM model taken from glbComModel at construction.
  std::uint32_t GetComModel() const noexcept { return m_flags.load(std::memory_order_relaxed) & ComModelMask; }

  // Sets or reads the priority of the object's thread: false (refused by the system too), or
  // DK_THREAD_PRIORITY_ERROR_RETURN, when it has not started or has ended (its identifier may
  // then belong to another thread).
  bool SetThreadPriority(int priority);
  int GetThreadPriority() const;
  // The same by identifier: false, or DK_THREAD_PRIORITY_ERROR_RETURN, when the system knows no
  // such thread.
  static bool SetThreadPriority(const DKThread_t& thread, int priority);
  static int GetThreadPriority(const DKThread_t& thread);

  // The identity of the object's thread; zero until started.
  DKThread_t GetThreadID() const noexcept;
  // The identity of the calling thread (without a handle).
  static DKThread_t GetCurrentThreadID() noexcept;
  // The calling thread's object from the registry; null for a thread not started by a DKThread.
  static DKThread* GetCurrentThreadP();

  // Returns once the thread has ended (timeoutMs is the slice between looks at the registry;
  // 0 or negative: without limit) and removes it from the registry. Throws DKException
  // "Invalid Thread ID" for an identifier that is not registered. Called by the thread on
  // itself it does not wait: it only removes the registry entry.
  static void WaitForThread(const DKThread_t& thread, int timeoutMs = DK_INFINITE);

  // Lets other threads run.
  static void yield() noexcept;
  // Suspends the calling thread for at least milliseconds; 0 only yields. Milli_sleep is the same.
  static void Sleep(std::uint32_t milliseconds);
  static void Milli_sleep(std::uint32_t milliseconds);

  // Thread-local slots: AllocateThreadKey throws DKWindowsLastErrorException when the system
  // has none left; ReleaseThreadKey sets the key to DK_INVALID_THREAD_KEY.
  static DKThreadKey AllocateThreadKey();
  static void ReleaseThreadKey(DKThreadKey& key) noexcept;
  // Stores the calling thread's value of the slot (not owned); false for an invalid key.
  static bool Set(DKThreadKey key, void* value) noexcept;
  // The calling thread's value of the slot; null when none was set or the key is invalid.
  static void* Get(DKThreadKey key) noexcept;

  // Sets the process-wide COM model for thread objects created from now on (a DKComModel
  // value, 0..15). False for a value out of range.
  static bool InitializeCOM(std::uint32_t model = DK_COM_APARTMENTTHREADED);
  // Whether that model is DK_COM_APARTMENTTHREADED.
  static bool IsSingleThreadedCOMApartment() noexcept;

  // The stack size of the calling thread, in bytes (0 when the system does not tell).
  static std::size_t GetCurrentThreadStackSize() noexcept;

  // One record per registered thread.
  static std::vector<DKThreadInfo> GetAllThreadsInfo();
  // Writes the dump of every registered thread (see DKThreadInfo::WriteThreadsInfo).
  static void DumpAllThreadsInfo(std::ostream& out);

private:
  static void ThreadEntry(void* argument);
  void GiveUpRegistration();
  bool HasEnded() const noexcept;
  void MarkFinished();
  void RunExitFunctions();

  std::atomic<bool> m_deleteOnEnd;
  // The running thread holds a counted reference, released when it ends: taken at Start for an
  // object that is counted already or that the thread is to destroy (delete-on-end).
  bool m_threadReference;
  bool m_joined;
  std::mutex m_exitLock; // guards m_exitFunctions
  std::vector<DKSmartPtr<DKCallback>> m_exitFunctions;
  DKSmartPtr<DKCallback> m_run;
  std::atomic<std::uint32_t> m_flags;
  std::atomic<std::uint32_t> m_id;
  std::atomic<DKThreadHandle> m_handle;
  std::atomic<bool> m_startClaimed;
  DKCriticalSection m_cs; // guards the identity's changes and m_joined
};

// What the system knows of one thread, for the thread dump.
class DK_EXPORT DKThreadInfo {
public:
  // Reads the system's record of the thread (the handle may be null).
  DKThreadInfo(DKThreadHandle handle, std::uint32_t threadId);
  // A record with the given values (times in milliseconds).
  DKThreadInfo(std::uint32_t threadId, const DKDateTimeEx& creationTime, DKInt64 kernelMs, DKInt64 userMs,
               DKInt64 elapsedMs, int priorityClass, int threadPriority);

  // The thread's identifier.
  std::uint32_t GetThreadId() const noexcept { return m_threadId; }
  // When the thread was created; null when the system does not know the thread.
  const DKDateTimeEx& GetCreationTime() const noexcept { return m_creationTime; }
  // Milliseconds the thread has run in the kernel, and in user code.
  DKInt64 GetKernelTime() const noexcept { return m_kernelMs; }
  DKInt64 GetUserTime() const noexcept { return m_userMs; }
  // Milliseconds since the thread was created.
  DKInt64 GetElapsedTime() const noexcept { return m_elapsedMs; }
  // The process's priority class (DK_..._PRIORITY_CLASS) and the thread's priority
  // (DK_THREAD_PRIORITY_..., DK_THREAD_PRIORITY_ERROR_RETURN when unknown).
  int GetPriorityClass() const noexcept { return m_priorityClass; }
  int GetThreadPriority() const noexcept { return m_threadPriority; }
  // Those as the Windows constant names ("NORMAL_PRIORITY_CLASS", "THREAD_PRIORITY_NORMAL", ...).
  DKString GetPriorityClassText() const { return PriorityClassText(m_priorityClass); }
  DKString GetThreadPriorityText() const { return ThreadPriorityText(m_threadPriority); }
  // The creation time as "YYYY/MM/DD HH:MM:SS" in the local zone; empty when unknown.
  DKString GetCreationTimeText() const;

  // The name of a priority class or thread priority; an unknown value gives
  // "UNKNOWN_PRIORITY_CLASS(0x<hex>)" or "THREAD_PRIORITY(<value>)".
  static DKString PriorityClassText(int priorityClass);
  static DKString ThreadPriorityText(int priority);
  // A time counted in 100-nanosecond units, in milliseconds (truncated).
  static DKInt64 TimeAsMilliSec(DKInt64 hundredNanoseconds) noexcept { return hundredNanoseconds / 10000; }
  static DKInt64 TimeAsMilliSec(const dk::FILETIME& time) noexcept;
  // Milliseconds as "hours:minutes:seconds.milliseconds", e.g. "1:02:03.004".
  static DKString FmtTime(DKInt64 milliseconds);

  // The thread dump: a title line, a header line, one line per record and a closing line.
  static void WriteThreadsInfo(std::ostream& out, const std::vector<DKThreadInfo>& infos);

private:
  std::uint32_t m_threadId;
  DKDateTimeEx m_creationTime;
  DKInt64 m_kernelMs = 0;
  DKInt64 m_userMs = 0;
  DKInt64 m_elapsedMs = 0;
  int m_priorityClass = 0;
  int m_threadPriority = DK_THREAD_PRIORITY_ERROR_RETURN;
};
