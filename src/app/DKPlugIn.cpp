// The plug-in classes.
#include <DorvikCore/DKApplication.h>
#include <DorvikCore/DKPlugIn.h>

#include "app/DKPlugInCalls.h"

#include <exception>
#include <mutex>

DKString DKPlugIn::PlugInIdEx::AsString() const {
  return m_name.IsEmpty() ? m_guid.AsString() : m_name + DK_T(" ") + m_guid.AsString();
}

DKPlugIn::~DKPlugIn() = default;

std::uint32_t DKPlugIn::AddRef() const { return m_refCount.fetch_add(1, std::memory_order_relaxed) + 1; }

std::uint32_t DKPlugIn::Release() const {
  const std::uint32_t count = m_refCount.fetch_sub(1, std::memory_order_acq_rel) - 1;
  if (count == 0)
    delete this;
  return count;
}

int DKPlugIn::GetIUID() const { return IUID; }

bool DKPlugIn::IsKindOf(int iuid) const { return iuid == IUID || iuid == DKObjectI::IUID; }

DKSmartPtr<DKObjectI> DKPlugIn::QueryInterface(int iuid) const {
  // The interfaces of a plug-in are its base classes: the object itself answers for them.
  return IsKindOf(iuid) ? DKSmartPtr<DKObjectI>(const_cast<DKPlugIn*>(this)) : DKSmartPtr<DKObjectI>();
}

DKPlugIn::Status DKPlugIn::GetStatus() const { return static_cast<Status>(m_status.load(std::memory_order_acquire)); }

bool DKPlugIn::IsRunningPlugIn() const { return false; }

bool DKPlugIn::IsContainerPlugIn() const { return false; }

DKUsageInfo DKPlugIn::GetUsageInfo() const { return DKUsageInfo(); }

std::vector<DKPlugIn::PlugInIdEx> DKPlugIn::GetDependentV() const { return {}; }

void DKPlugIn::Unload() {}

void DKPlugIn::RequestExit(bool) {}

// ---------------------------------------------------------------------------------------------

DKRunPlugIn::~DKRunPlugIn() = default;

int DKRunPlugIn::GetIUID() const { return IUID; }

bool DKRunPlugIn::IsKindOf(int iuid) const { return iuid == IUID || DKPlugIn::IsKindOf(iuid); }

bool DKRunPlugIn::IsRunningPlugIn() const { return true; }

DKErrorID DKRunPlugIn::Init(const DKApplicationWithPlugIns&) { return DKErrorID(); }

// ---------------------------------------------------------------------------------------------

DKThreadedRunPlugIn::DKThreadedRunPlugIn() = default;

DKThreadedRunPlugIn::~DKThreadedRunPlugIn() {
  // The thread touches this object until its body returns.
  DKSmartPtr<DKThread> thread = GetThread();
  if (thread)
    thread->Join();
}

int DKThreadedRunPlugIn::GetIUID() const { return IUID; }

bool DKThreadedRunPlugIn::IsKindOf(int iuid) const { return iuid == IUID || DKRunPlugIn::IsKindOf(iuid); }

DKPlugIn::Status DKThreadedRunPlugIn::GetStatus() const {
  std::lock_guard guard(m_cs);
  return DKRunPlugIn::GetStatus();
}

bool DKThreadedRunPlugIn::IsRunning() const {
  std::lock_guard guard(m_cs);
  return m_running;
}

DKSmartPtr<DKThread> DKThreadedRunPlugIn::GetThread() const {
  std::lock_guard guard(m_cs);
  return m_thread;
}

bool DKThreadedRunPlugIn::IsInStop() const {
  std::lock_guard guard(m_cs);
  return m_inStop;
}

void DKThreadedRunPlugIn::SetInStop(bool inStop) {
  std::lock_guard guard(m_cs);
  m_inStop = inStop;
}

void DKThreadedRunPlugIn::SetThread(const DKSmartPtr<DKThread>& thread) {
  std::lock_guard guard(m_cs);
  m_thread = thread;
}

void DKThreadedRunPlugIn::RunInThread() {
  {
    std::lock_guard guard(m_cs);
    m_running = true;
    SetStatus(Running);
  }
  m_changed.Post();
  // The thread must reach the end below whatever the plug-in throws, or whoever waits for the
  // run would wait for ever.
  DKString failure;
  try {
    Run().IgnoreError(); // the run step's result is released unread
  } catch (const std::exception& e) {
    failure = dkapp::ExceptionText(e);
  } catch (...) {
    failure = DK_T("unknown exception");
  }
  if (!failure.IsEmpty()) {
    try {
      DKApplication::GetAppCout(1) << "ERR> *** " << dkapp::SafeName(*this) << ": " << failure << std::endl;
    } catch (...) {
    }
  }
  {
    std::lock_guard guard(m_cs);
    m_running = false;
    SetStatus(Finished);
  }
  m_changed.Post();
}

// The waits below reset the event before they look at the state, so that a change after the
// look wakes them; the timeouts bound the wait should two waiters reset each other's wake-up.
void DKThreadedRunPlugIn::WaitUntilStarted() {
  for (;;) {
    m_changed.Reset();
    {
      std::lock_guard guard(m_cs);
      if (m_running || DKRunPlugIn::GetStatus() == Finished)
        return;
      // A thread that ended without running the body (it could not start) never will.
      if (m_thread && m_thread->IsStarted() && !m_thread->Exists())
        return;
    }
    DKThread::Sleep(0);
    m_changed.Wait(100);
  }
}

void DKThreadedRunPlugIn::RequestExit(bool wait) {
  if (!IsRunning())
    return;
  // A Stop that throws is a request Run may not have heard: the wait still holds, so that
  // nothing is unloaded under a running thread, and the exception goes to the caller after it.
  std::exception_ptr stopFailure;
  SetInStop(true);
  try {
    Stop();
  } catch (...) {
    stopFailure = std::current_exception();
  }
  SetInStop(false);
  // Run may ignore the request: the caller then waits as long as Run takes.
  while (wait) {
    m_changed.Reset();
    if (!IsRunning())
      break;
    DKThread::Sleep(0);
    m_changed.Wait(200);
  }
  if (stopFailure)
    std::rethrow_exception(stopFailure);
}

// ---------------------------------------------------------------------------------------------

DKPlugInContainer::~DKPlugInContainer() = default;

int DKPlugInContainer::GetIUID() const { return IUID; }

bool DKPlugInContainer::IsKindOf(int iuid) const { return iuid == IUID || DKPlugIn::IsKindOf(iuid); }

bool DKPlugInContainer::IsContainerPlugIn() const { return true; }

DKSmartPtrVector<DKPlugIn> DKPlugInContainer::GetPlugInList() const { return m_plugIns; }

void DKPlugInContainer::AddPlugIn(const DKSmartPtr<DKPlugIn>& plugIn) {
  if (plugIn)
    m_plugIns.push_back(plugIn);
}

DKErrorID DKPlugInContainer::Init(const DKApplicationWithPlugIns& application) {
  for (const DKSmartPtr<DKPlugIn>& plugIn : m_plugIns) {
    const DKErrorID result = plugIn->Init(application);
    if (result.Bad())
      return result;
  }
  return DKErrorID();
}
