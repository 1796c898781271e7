// Plug-ins: the objects that ".osx" modules hand to a DKApplicationWithPlugIns.
//
//   DKPlugIn             the base: a name, an id (a GUID), the plug-ins it depends on, and the
//                        Init and Unload steps
//   DKRunPlugIn          a plug-in with a run step, run on the main thread after every plug-in
//                        is initialised
//   DKThreadedRunPlugIn  a run plug-in whose run step runs on a thread of its own until it is
//                        done or asked to stop
//   DKPlugInContainer    a plug-in that hands over further plug-ins
//
// A module exports one entry point, "GetPlugInObject", that returns a new plug-in. Keep the
// class in an anonymous namespace and build the module with dorvikcore_add_plugin (CMake), so
// that two modules may name their classes alike:
//
//   namespace {
//   class Hello : public DKRunPlugIn {
//   public:
//     DKString GetName() const override { return DK_T("Hello"); }
//     PlugInIdEx GetId() const override { return PlugInIdEx(Id, GetName()); }
//     DKErrorID Run() override {
//       DKApplication::GetAppCout() << "Hello!" << std::endl;
//       return DKErrorID();
//     }
//     static constexpr DKGuid Id{0x6B29FC40, 0xCA47, 0x1067, {0xB3, 0x1D, 0x00, 0xDD, 0x01, 0x06, 0x62, 0xDA}};
//   };
//   } // namespace
//   DK_PLUGIN_MODULE(Hello)
//
// The life of a plug-in: created by its module's entry point, added to the application
// (which holds a counted reference), initialised (status Initialized), run (Running, then
// Finished), asked to exit, unloaded, released, and only then is its module closed.
#pragma once

#include <DorvikCore/DKError.h>
#include <DorvikCore/DKGuid.h>
#include <DorvikCore/DKObject.h>
#include <DorvikCore/DKRefCount.h>
#include <DorvikCore/DKString.h>
#include <DorvikCore/DKSync.h>
#include <DorvikCore/DKThread.h>
#include <DorvikCore/DKUsageInfo.h>

#include <atomic>
#include <cstdint>
#include <vector>

class DKApplicationWithPlugIns;

// A vector of counted references.
template <class T>
using DKSmartPtrVector = std::vector<DKSmartPtr<T>>;

// The base of every plug-in: a counted object (DKObjectI) that the application drives through
// Init, the run step of its subclasses, RequestExit and Unload. Derive from DKRunPlugIn,
// DKThreadedRunPlugIn or DKPlugInContainer, or from this class for a plug-in without a run step.
class DK_EXPORT DKPlugIn : public DKObjectI {
public:
  static constexpr int IUID = 0x444B504C; // The interface id of DKPlugIn ("DKPL").

  // Where a plug-in is in its life, as the application sets it.
  enum Status : std::int32_t {
    NotLoaded = 0,   // Not initialised (also after a failed Init): never run nor unloaded.
    Initialized = 2, // Init succeeded.
    Running = 3,     // The run step is under way.
    Finished = 4     // The run step returned.
  };

  // A plug-in's identity: a GUID, and a name for messages. Ids compare by the GUID alone.
  class DK_EXPORT PlugInIdEx {
  public:
    // The id of guid, with a name for messages (none unless given).
    PlugInIdEx(const DKGuid& guid) : m_guid(guid) {}
    PlugInIdEx(const DKGuid& guid, const DKString& name) : m_guid(guid), m_name(name) {}

    // The GUID that identifies the plug-in.
    const DKGuid& GetGuid() const noexcept { return m_guid; }
    // The name given; empty when none was.
    const DKString& GetName() const noexcept { return m_name; }
    // "name {GUID}", or the GUID alone when there is no name.
    DKString AsString() const;

    // True when both have the same GUID, whatever their names.
    friend bool operator==(const PlugInIdEx& a, const PlugInIdEx& b) noexcept { return a.m_guid == b.m_guid; }

  private:
    DKGuid m_guid;
    DKString m_name;
  };

  // The id of the library's own plug-ins, which are initialised without progress messages.
  static constexpr DKGuid SilentPlugInId{0x444B5349, 0x4C45, 0x4E54,
                                         {0x8F, 0x2A, 0x51, 0x0C, 0x7E, 0x3D, 0x90, 0x01}};

  // Status NotLoaded, no module, no reference yet.
  DKPlugIn() = default;
  ~DKPlugIn() override;
  // Not copyable: the application holds each plug-in by reference.
  DKPlugIn(const DKPlugIn&) = delete;
  DKPlugIn& operator=(const DKPlugIn&) = delete;

  // The count starts at 0; the plug-in deletes itself when a Release brings it back to 0.
  std::uint32_t AddRef() const override;
  std::uint32_t Release() const override;
  // IUID; a subclass answers its own.
  int GetIUID() const override;
  // True for IUID, DKObjectI::IUID and the ids of the subclasses the object belongs to.
  bool IsKindOf(int iuid) const override;
  // This object when IsKindOf(iuid), else null.
  DKSmartPtr<DKObjectI> QueryInterface(int iuid) const override;

  // The status the application set. The application itself reads its own record: an override
  // changes what others are told, not what the application does.
  virtual Status GetStatus() const;
  // The name printed in the application's progress messages.
  virtual DKString GetName() const = 0;
  // The plug-in's identity; two plug-ins with one GUID cannot both be loaded, and dependencies
  // name plug-ins by it.
  virtual PlugInIdEx GetId() const = 0;
  // Whether the plug-in has a run step (DKRunPlugIn).
  virtual bool IsRunningPlugIn() const;
  // Whether the plug-in hands over further plug-ins (DKPlugInContainer).
  virtual bool IsContainerPlugIn() const;
  // The command-line options the plug-in reads; the application's usage screen lists them.
  // None unless overridden.
  virtual DKUsageInfo GetUsageInfo() const;
  // The plug-ins that must be initialised before this one; none unless overridden.
  virtual std::vector<PlugInIdEx> GetDependentV() const;
  // Prepares the plug-in; a failure leaves it loaded but never run nor unloaded.
  virtual DKErrorID Init(const DKApplicationWithPlugIns& application) = 0;
  // Releases what Init took; called on the main thread before the module is closed. Does
  // nothing unless overridden.
  virtual void Unload();

  // The module the plug-in came from; null for a plug-in made in code. (After <windows.h> the
  // system's GetModuleHandle macro renames this inline member and its calls alike.)
  void* GetModuleHandle() const noexcept { return m_module; }

protected:
  // Asked once when the application is told to quit; wait: return only when the plug-in's
  // work is over. Nothing to do here.
  virtual void RequestExit(bool wait);
  // Records the status that GetStatus reports.
  void SetStatus(Status status) noexcept { m_status.store(status, std::memory_order_release); }

private:
  friend class DKApplicationWithPlugIns;

  mutable std::atomic<std::uint32_t> m_refCount{0};
  std::atomic<std::int32_t> m_status{NotLoaded};
  void* m_module = nullptr;
};

// DKPlugIn::PlugInIdEx under a short name.
typedef DKPlugIn::PlugInIdEx PlugInIdEx;

// A plug-in with a run step. The application runs it on the main thread, after every plug-in
// is initialised, in dependency order.
class DK_EXPORT DKRunPlugIn : public DKPlugIn {
public:
  static constexpr int IUID = 0x444B5250; // The interface id of DKRunPlugIn ("DKRP").

  ~DKRunPlugIn() override;
  int GetIUID() const override;
  bool IsKindOf(int iuid) const override;
  bool IsRunningPlugIn() const override;
  // Succeeds: override it when the plug-in has something to prepare.
  DKErrorID Init(const DKApplicationWithPlugIns& application) override;
  // The plug-in's work. The result is not looked at; an exception ends the application's run.
  virtual DKErrorID Run() = 0;
};

// A run plug-in whose run step runs on a thread of its own (a DKThread the application makes),
// beside the other plug-ins. When the application is told to quit, Stop is called while Run
// runs; it must make Run return soon. The application waits for Run to return before any
// plug-in is unloaded.
class DK_EXPORT DKThreadedRunPlugIn : public DKRunPlugIn {
public:
  static constexpr int IUID = 0x444B5452; // The interface id of DKThreadedRunPlugIn ("DKTR").

  // Not running, no thread yet.
  DKThreadedRunPlugIn();
  // Waits for the plug-in's thread.
  ~DKThreadedRunPlugIn() override;
  int GetIUID() const override;
  bool IsKindOf(int iuid) const override;
  Status GetStatus() const override;

  // Asks Run to return soon. Called from whichever thread requests the exit (never under the
  // plug-in's lock), possibly while Run runs on the plug-in's thread. An exception from it is
  // reported by the application, which still waits for Run to return before unloading.
  virtual void Stop() = 0;

  // True exactly while Run executes on the plug-in's thread.
  bool IsRunning() const;
  // The thread the application made for the plug-in; null before the run.
  DKSmartPtr<DKThread> GetThread() const;

private:
  friend class DKApplicationWithPlugIns;

  // Calls Stop when Run runs; with wait, returns only once Run has returned. What Stop throws
  // is thrown on after the wait.
  void RequestExit(bool wait) override;
  // The body of the plug-in's thread.
  void RunInThread();
  void SetThread(const DKSmartPtr<DKThread>& thread);
  // Waits until the run step has begun (or is over already), looking every 100 milliseconds.
  void WaitUntilStarted();
  // True while RequestExit is in Stop.
  bool IsInStop() const;
  void SetInStop(bool inStop);

  mutable DKCriticalSection m_cs; // guards m_running, m_inStop, m_thread and status changes
  bool m_running = false;
  bool m_inStop = false;
  DKSmartPtr<DKThread> m_thread;
  DKEventSemaphore m_changed; // posted when the run step begins and when it ends
};

// A plug-in that hands over further plug-ins. The application adds each member in its place
// and then drops the container (after calling its Unload).
class DK_EXPORT DKPlugInContainer : public DKPlugIn {
public:
  static constexpr int IUID = 0x444B5043; // The interface id of DKPlugInContainer ("DKPC").

  ~DKPlugInContainer() override;
  int GetIUID() const override;
  bool IsKindOf(int iuid) const override;
  bool IsContainerPlugIn() const override;
  // The members, in order.
  virtual DKSmartPtrVector<DKPlugIn> GetPlugInList() const;

  // Appends a member; null is ignored.
  void AddPlugIn(const DKSmartPtr<DKPlugIn>& plugIn);

private:
  // Initialises every member in order; the first failure is the result.
  DKErrorID Init(const DKApplicationWithPlugIns& application) override;

  DKSmartPtrVector<DKPlugIn> m_plugIns;
};

// The entry point every plug-in module exports: returns a new plug-in that the caller owns
// (the application holds it by a counted reference), or null.
typedef DKPlugIn* (*DKGetPlugInObjectFunction)();
// The entry point's exported name.
#define DK_PLUGIN_ENTRY_NAME "GetPlugInObject"

#if defined(_WIN32)
#  define DK_PLUGIN_EXPORT extern "C" __declspec(dllexport)
#else
// Exports a function of a plug-in module under its plain C name.
#  define DK_PLUGIN_EXPORT extern "C" __attribute__((visibility("default")))
#endif

// Defines the module's entry point, returning a new PlugInClass.
#define DK_PLUGIN_MODULE(PlugInClass)                                                                                  \
  DK_PLUGIN_EXPORT DKPlugIn* GetPlugInObject() { return new PlugInClass; }
