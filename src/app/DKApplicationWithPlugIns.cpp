// DKApplicationWithPlugIns: the life cycle. Construction, LoadAndRun, running the plug-ins, the
// watched shutdown and unloading. Finding and loading plug-ins is in DKPlugInLoading.cpp, their
// dependency order in DKPlugInOrder.cpp.
#include <DorvikCore/DKApplication.h>
#include <DorvikCore/DKException.h>
#include <DorvikCore/DKCrashHandler.h>
#include <DorvikCore/DKThread.h>
#include <DorvikCore/DKTimer.h>
#include <DorvikCore/DKTrace.h>
#include <DorvikCore/DKUnitTest.h>

#include "app/DKAppPath.h"
#include "app/DKPlugInCalls.h"
#include "app/DKShutdownWatch.h"
#include "os/DKModule.h"
#include "os/DKSignal.h"

#include <DorvikCore/DKConsole.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <mutex>
#include <unordered_set>
#include <utility>

using dkapp::CallPlugIn;
using dkapp::ExceptionText;
using dkapp::Guarded;
using dkapp::SafeDependencies;
using dkapp::SafeName;
using dkapp::StatusOf;

namespace {

// Set by the first RequestExit of the process.
std::atomic<bool> g_exitAnnounced{false};

void OnQuitSignal(int signalNumber) { dkapp::NoteQuitSignal(signalNumber); }

// Holds the quit signals back from the calling thread for its lifetime (DKSignal), turning a
// pending one into an exit request whenever the thread asks.
class QuitSignalHold {
public:
  QuitSignalHold() : m_token(DKSignal::HoldQuitSignals()) {}
  ~QuitSignalHold() { DKSignal::ReleaseQuitSignals(m_token); }
  QuitSignalHold(const QuitSignalHold&) = delete;
  QuitSignalHold& operator=(const QuitSignalHold&) = delete;

  bool ExitPosted() const {
    if (m_token)
      if (const int signalNumber = DKSignal::TakeQuitSignal())
        dkapp::NoteQuitSignal(signalNumber);
    return DKApplication::IsExitPosted();
  }

  // Lets the quit signals through to the handler for its lifetime.
  class LetThrough {
  public:
    explicit LetThrough(QuitSignalHold& hold) : m_hold(hold) {
      DKSignal::ReleaseQuitSignals(m_hold.m_token);
      m_hold.m_token = nullptr;
    }
    ~LetThrough() { m_hold.m_token = DKSignal::HoldQuitSignals(); }
    LetThrough(const LetThrough&) = delete;
    LetThrough& operator=(const LetThrough&) = delete;

  private:
    QuitSignalHold& m_hold;
  };

private:
  void* m_token;
};

// The main menu is named after the program, without directory and extension.
std::unique_ptr<DKUnitTest> NewMainMenu(const DKApplication& app) {
  return std::make_unique<DKUnitTest>(app.GetAppName());
}

// The main thread owns the hidden timer window while Run runs (on Windows), so that windows a
// plug-in makes on it get their messages dispatched while the loop waits. A window some other
// code attached is left as it is; elsewhere attaching refuses and this does nothing.
class TimerWindowScope {
public:
  TimerWindowScope() : m_attached(!DKTimerWnd::GetWindowHandle() && DKTimerWnd::Attach().Good()) {}
  ~TimerWindowScope() {
    if (m_attached)
      DKTimerWnd::Detach();
  }
  TimerWindowScope(const TimerWindowScope&) = delete;
  TimerWindowScope& operator=(const TimerWindowScope&) = delete;

private:
  bool m_attached;
};

} // namespace

// What the watch over the shutdown needs to know, and the watch itself.
struct DKApplicationWithPlugIns::ShutdownState {
  enum Phase { Running, Unloading, Forcing };

  mutable std::mutex lock; // guards threaded and the main thread's call
  std::vector<std::pair<DKThreadedRunPlugIn*, DKString>> threaded; // started, with their names
  const DKPlugIn* callPlugIn = nullptr; // the plug-in the main thread is in, and the member
  DKString callName;
  const DKChar* callMember = nullptr;
  std::atomic<int> phase{Running};
  std::unique_ptr<dkapp::ShutdownWatch> watch;
};

// Marks the plug-in member the calling thread is in, for the watch to name.
class DKApplicationWithPlugIns::MainThreadCall {
public:
  MainThreadCall(ShutdownState& state, const DKPlugIn& plugIn, const DKString& name, const DKChar* member)
      : m_state(state) {
    std::lock_guard guard(m_state.lock);
    m_state.callPlugIn = &plugIn;
    m_state.callName = name;
    m_state.callMember = member;
  }
  ~MainThreadCall() {
    std::lock_guard guard(m_state.lock);
    m_state.callPlugIn = nullptr;
    m_state.callMember = nullptr;
  }
  MainThreadCall(const MainThreadCall&) = delete;
  MainThreadCall& operator=(const MainThreadCall&) = delete;

private:
  ShutdownState& m_state;
};

DKApplicationWithPlugIns::DKApplicationWithPlugIns(int argc, const char* const* argv, void* hostContext,
                                                   DKLogSubscriberI* subscriber, bool unused)
    : DKApplication(argc, argv, subscriber, unused), m_hostContext(hostContext), m_mainMenu(NewMainMenu(*this)),
      m_shutdown(std::make_unique<ShutdownState>()) {}

DKApplicationWithPlugIns::DKApplicationWithPlugIns(int argc, const DKChar* const* argv, void* hostContext,
                                                   DKLogSubscriberI* subscriber, bool unused)
    : DKApplication(argc, argv, subscriber, unused), m_hostContext(hostContext), m_mainMenu(NewMainMenu(*this)),
      m_shutdown(std::make_unique<ShutdownState>()) {}

DKApplicationWithPlugIns::DKApplicationWithPlugIns(const DKString& commandLine, void* hostContext,
                                                   DKLogSubscriberI* subscriber, bool unused)
    : DKApplication(commandLine, subscriber, unused), m_hostContext(hostContext), m_mainMenu(NewMainMenu(*this)),
      m_shutdown(std::make_unique<ShutdownState>()) {}

DKApplicationWithPlugIns::~DKApplicationWithPlugIns() {
  RequestExit(true);
  // No plug-in is unloaded while a thread of the plug-ins still runs. One still running was
  // asked without waiting by the run loop: it is asked again, now waiting.
  for (const DKSmartPtr<DKThreadedRunPlugIn>& threaded : m_threadedPlugIns) {
    if (threaded->IsRunning()) {
      const DKErrorID asked = CallPlugIn(*threaded, DK_T("RequestExit"), [&] { threaded->RequestExit(true); });
      if (asked.Bad())
        PrintError(asked.AsString());
    }
    if (DKSmartPtr<DKThread> thread = threaded->GetThread())
      thread->Join();
  }
  EndShutdownWatch();
  // The menu's tests are code of the plug-ins' modules: they go before any module is closed.
  m_mainMenu->Clear();
  UnloadAll();
  if (m_signalToken)
    DKSignal::Restore(m_signalToken);
  GetCout(1) << "Exiting application..." << std::endl;
}

DKUsageInfo DKApplicationWithPlugIns::GetUsageInfo() const {
  DKUsageInfo usage = DKApplication::GetUsageInfo();
  usage.AddCmdLineArgDesc(
      DKString(DK_T("osxpath:{directory}")),
      DKString(DK_T("Specify to load the plug-ins (.OSX) from a specific directory. This option can be used more than "
                    "once to specify several directories. If you have a listfile named OSX.LST in the directory "
                    "specified, then the .OSX listed in this file will be loaded. If you want to use a different "
                    "listfile name (rather than OSX.LST), you can specify it at then end of the directory statement "
                    "(ex: c:\\PLX\\myosx.lst).")));
  return usage;
}

bool DKApplicationWithPlugIns::IsAppWithPlugIn() const { return true; }

DKApplicationWithPlugIns* DKApplicationWithPlugIns::GetApp() {
  DKApplication* app = DKApplication::GetApp();
  return app && app->IsAppWithPlugIn() ? static_cast<DKApplicationWithPlugIns*>(app) : nullptr;
}

void DKApplicationWithPlugIns::PrintError(const DKString& text) const {
  GetCout(1) << "ERR> *** " << text << std::endl;
}

// ---------------------------------------------------------------------------------------------
// The whole life

int DKApplicationWithPlugIns::LoadAndRun() {
  try {
    bool found = false;
    std::vector<DKString> searched;
    for (const DKCommandLineArgument& argument : GetCmdLine().GetParsedArgumentVector()) {
      const DKCommandLineArgument::ArgumentType type = argument.GetArgType();
      if ((type != DKCommandLineArgument::Flag && type != DKCommandLineArgument::Valued) ||
          !argument.GetArgument().IsEqual(DK_T("osxpath"), DKString::IgnoreCase))
        continue;
      const DKString& path = argument.GetValueAsString();
      if (path.IsEmpty()) {
        PrintError(DK_T("/osxpath needs a directory or a list file: /osxpath:{directory}"));
        continue;
      }
      const DKString full = dkapp::MakeAbsolute(path);
      if (std::find(searched.begin(), searched.end(), full) != searched.end()) {
        GetCout(1) << ">>>> " << path << " is given to /osxpath more than once: searched once." << std::endl;
        continue;
      }
      searched.push_back(full);
      AddToPath(path);
      if (LoadPlugInsFromDirectory(path, PlugInExtension, EntryPointName, false).Good())
        found = true;
    }
    if (!found && m_loadedPlugIns.empty() &&
        LoadPlugInsFromDirectory(DK_T("."), PlugInExtension, EntryPointName, false).Bad()) {
      GetCout(1) << "Couldn't find any OSX to load." << std::endl;
      return 1;
    }
    Run();
    return 0;
  } catch (const std::exception& e) {
    if (!std::exchange(m_runFailureReported, false))
      PrintError(ExceptionText(e));
  } catch (...) {
    if (!std::exchange(m_runFailureReported, false))
      PrintError(DK_T("unknown exception"));
  }
  return 2;
}

// ---------------------------------------------------------------------------------------------
// Running and stopping

int DKApplicationWithPlugIns::Run() {
  DKInitCatchSignal();
  if (!m_signalToken)
    m_signalToken = DKSignal::InstallQuitHandler(&OnQuitSignal);
  if (!m_shutdown->watch) {
    dkapp::ShutdownWatch::Hooks hooks;
    hooks.stopping = [this] { return m_exitRequested.load() || IsExitPosted(); };
    hooks.busy = [this] {
      std::vector<dkapp::BusyPlugIn> busy;
      for (const auto& [name, member] : BusyPlugIns(nullptr))
        busy.push_back({name, member});
      return busy;
    };
    hooks.forceExit = [this](int signalNumber) { return ForceExit(signalNumber); };
    hooks.say = [this](const DKString& line) { GetCout(1) << line << std::endl; };
    m_shutdown->watch = std::make_unique<dkapp::ShutdownWatch>(m_stopGracePeriod, std::move(hooks));
  }
  // While the main thread only starts and watches plug-ins, it holds the quit signals back and
  // takes them itself, so that a quit request never depends on when a handler gets to run. It
  // lets them through while plug-in code or the menu runs on it.
  QuitSignalHold quitSignals;
  const TimerWindowScope timerWindow;

  for (const DKSmartPtr<DKPlugIn>& plugIn : GetPlugInHier(m_runnablePlugIns)) {
    if (StatusOf(*plugIn) != DKPlugIn::Initialized)
      continue;
    if (quitSignals.ExitPosted())
      break; // asked to quit: nothing more is started
    DKSmartPtr<DKThreadedRunPlugIn> threaded;
    const DKErrorID asked = CallPlugIn(*plugIn, DK_T("QueryInterface"),
                                       [&] { threaded = DKQueryInterface<DKThreadedRunPlugIn>(plugIn.Get()); });
    auto* runnable = dynamic_cast<DKRunPlugIn*>(plugIn.Get());
    if (asked.Bad() || !runnable) {
      PrintError(asked.Bad() ? asked.AsString()
                             : DK_T("<") + SafeName(*plugIn) + DK_T(">: runs, but is no DKRunPlugIn: not run"));
      continue;
    }
    const DKString name = SafeName(*plugIn);
    GetCout(1) << "RUN> Running <" << name << ">..." << std::flush;
    if (threaded) {
      GetCout(1) << "(threaded)" << std::endl;
      StartThreaded(*threaded);
      continue;
    }
    GetCout(1) << std::endl;
    runnable->SetStatus(DKPlugIn::Running);
    try {
      const QuitSignalHold::LetThrough letThrough(quitSignals);
      const MainThreadCall call(*m_shutdown, *plugIn, name, DK_T("Run"));
      runnable->Run().IgnoreError(); // the run step's result is released unread
    } catch (const std::exception& e) {
      runnable->SetStatus(DKPlugIn::Finished);
      PrintError(DKStrCat(DK_T("<"), name, DK_T(">: "), ExceptionText(e)));
      m_runFailureReported = true;
      throw;
    } catch (...) {
      runnable->SetStatus(DKPlugIn::Finished);
      PrintError(DK_T("<") + name + DK_T(">: unknown exception"));
      m_runFailureReported = true;
      throw;
    }
    runnable->SetStatus(DKPlugIn::Finished);
  }

  if (m_runWithMenu && !quitSignals.ExitPosted()) {
    const QuitSignalHold::LetThrough letThrough(quitSignals);
    // A stream of its own at level 0: the menu shows even at trace level 0, and its tests may
    // set the level of the thread's console stream as they like.
    DKLogStream console(GetChannelId(), 0);
    m_mainMenu->RunInteractive(std::cin, console, [] { return IsExitPosted(); });
    PostExitRequest();
  }
  // Application timers run here, on the main thread, where the loop waits; while one is armed
  // the loop goes on until the exit is asked for.
  while (AnyRunning() || (DKAppTimer::HasArmedTimers() && !quitSignals.ExitPosted())) {
    if (quitSignals.ExitPosted())
      RequestExit(false);
    DKTimerWnd::Pump(210);
    // A quit message to the main thread (PostQuitMessage) asks the application to end.
    if (DKTimerWnd::TakeQuitMessage())
      PostExitRequest();
  }
  return 1;
}

void DKApplicationWithPlugIns::StartThreaded(DKThreadedRunPlugIn& plugIn) {
  DKThreadedRunPlugIn* target = &plugIn; // kept alive by the loaded list until the thread is joined
  DKSmartPtr<DKThread> thread(new DKThread(DKMakeCallback([target] { target->RunInThread(); })));
  plugIn.SetThread(thread);
  m_threadedPlugIns.push_back(&plugIn);
  {
    std::lock_guard guard(m_shutdown->lock);
    m_shutdown->threaded.emplace_back(&plugIn, SafeName(plugIn));
  }
  const DKErrorID started = Guarded(DK_T("DKThread::Start"), [&] { return thread->Start(0); });
  if (started.Bad()) {
    PrintError(DKStrCat(DK_T("<"), SafeName(plugIn), DK_T(">: "), started.AsString()));
    return;
  }
  plugIn.WaitUntilStarted();
}

bool DKApplicationWithPlugIns::AnyRunning() const {
  return std::any_of(m_runnablePlugIns.begin(), m_runnablePlugIns.end(),
                     [](const DKSmartPtr<DKPlugIn>& plugIn) { return StatusOf(*plugIn) == DKPlugIn::Running; });
}

void DKApplicationWithPlugIns::RequestExit(bool wait) {
  if (m_exitRequested.exchange(true))
    return;
  // The announcement is made once in the life of the process; the plug-ins of an application
  // made after the first one still need to be asked.
  if (!g_exitAnnounced.exchange(true))
    GetCout(1) << ">>>> Quit signal received. Requesting exit to all plug-ins..." << std::endl;
  for (const DKSmartPtr<DKPlugIn>& plugIn : m_loadedPlugIns) {
    const DKErrorID result = CallPlugIn(*plugIn, DK_T("RequestExit"), [&] { plugIn->RequestExit(wait); });
    if (result.Bad())
      PrintError(result.AsString());
  }
}

// ---------------------------------------------------------------------------------------------
// Watching the shutdown

void DKApplicationWithPlugIns::NoteFailure(LoadFailure::Kind kind, const DKString& name, const DKErrorID& error) {
  m_loadFailures.push_back({kind, name, error.AsString()});
}

std::vector<std::pair<DKString, const DKChar*>> DKApplicationWithPlugIns::BusyPlugIns(
    std::vector<const DKPlugIn*>* plugIns) const {
  std::vector<std::pair<DKString, const DKChar*>> busy;
  std::lock_guard guard(m_shutdown->lock);
  const DKPlugIn* call = m_shutdown->callPlugIn;
  for (const auto& [plugIn, name] : m_shutdown->threaded) {
    const bool inStop = plugIn->IsInStop();
    if (!inStop && !plugIn->IsRunning())
      continue;
    busy.emplace_back(name, inStop ? DK_T("Stop") : DK_T("Run"));
    if (plugIns)
      plugIns->push_back(plugIn);
    if (call == plugIn)
      call = nullptr; // named already
  }
  if (call) {
    busy.emplace_back(m_shutdown->callName, m_shutdown->callMember);
    if (plugIns)
      plugIns->push_back(call);
  }
  return busy;
}

bool DKApplicationWithPlugIns::ForceExit(int signalNumber) {
  int running = ShutdownState::Running;
  if (!m_shutdown->phase.compare_exchange_strong(running, ShutdownState::Forcing))
    return false;
  // Runs on the watch's thread while the main thread waits for (or is inside) a plug-in that
  // does not return. The plug-ins still busy, and all they depend on, are left as they are.
  std::vector<const DKPlugIn*> busy;
  DKString names;
  for (const auto& [name, member] : BusyPlugIns(&busy))
    names += (names.IsEmpty() ? DK_T("<") : DK_T(", <")) + name + DK_T(">");
  PrintError(names.IsEmpty() ? DKString(DK_T("Quit signal while stopping: ending the process"))
                             : DK_T("Quit signal while stopping: ending the process without waiting for ") + names);
  std::unordered_set<const DKPlugIn*> kept(busy.begin(), busy.end());
  for (std::size_t next = 0; next < busy.size(); ++next)
    for (const DKPlugIn::PlugInIdEx& dependency : SafeDependencies(*busy[next])) {
      const DKSmartPtr<DKPlugIn> found = FindPlugIn(dependency.GetGuid());
      if (found && kept.insert(found.Get()).second)
        busy.push_back(found.Get());
    }
  const DKSmartPtrVector<DKPlugIn> ordered = GetPlugInHier(m_loadedPlugIns);
  for (auto it = ordered.rbegin(); it != ordered.rend(); ++it) {
    DKPlugIn& plugIn = **it;
    if (StatusOf(plugIn) == DKPlugIn::NotLoaded || kept.count(&plugIn))
      continue;
    GetCout(1) << ">>>> Unloading <" << SafeName(plugIn) << ">..." << std::endl;
    const DKErrorID result = CallPlugIn(plugIn, DK_T("Unload"), [&] { plugIn.Unload(); });
    if (result.Bad())
      PrintError(result.AsString());
  }
  GetCout(1) << "Exiting application..." << std::endl;
  DKLockedCOUT().GetCout().flush();
  std::fflush(nullptr);
  // No destructor may run: a plug-in's thread is still inside its module.
  std::_Exit(128 + signalNumber);
}

void DKApplicationWithPlugIns::EndShutdownWatch() {
  int running = ShutdownState::Running;
  if (!m_shutdown->phase.compare_exchange_strong(running, ShutdownState::Unloading) &&
      running == ShutdownState::Forcing)
    for (;;)
      DKThread::Sleep(1000); // the watch is ending the process
  m_shutdown->watch.reset();
}

// ---------------------------------------------------------------------------------------------
// Unloading

void DKApplicationWithPlugIns::UnloadAll() {
  DKSmartPtrVector<DKPlugIn> ordered = GetPlugInHier(m_loadedPlugIns);
  for (auto it = ordered.rbegin(); it != ordered.rend(); ++it) {
    DKPlugIn& plugIn = **it;
    if (StatusOf(plugIn) == DKPlugIn::NotLoaded)
      continue;
    GetCout(1) << ">>>> Unloading <" << SafeName(plugIn) << ">..." << std::endl;
    const DKErrorID result = CallPlugIn(plugIn, DK_T("Unload"), [&] { plugIn.Unload(); });
    if (result.Bad())
      PrintError(result.AsString());
  }

  // Each plug-in is released in reverse dependency order (a dependent may hold a reference to
  // what it depends on). A plug-in that someone else still holds keeps its module open: its
  // code must stay mapped for as long as the object lives.
  m_loadedPlugIns.clear();
  m_runnablePlugIns.clear();
  m_threadedPlugIns.clear();
  std::unordered_set<void*> stillInUse;
  for (auto it = ordered.rbegin(); it != ordered.rend(); ++it) {
    DKPlugIn* plugIn = it->Get();
    void* module = plugIn->m_module;
    plugIn->AddRef();
    *it = nullptr;
    if (plugIn->Release() != 0 && module)
      stillInUse.insert(module);
  }
  ordered.clear();

  for (auto it = m_modules.rbegin(); it != m_modules.rend(); ++it) {
    if (stillInUse.count(it->handle)) {
      DKTrace::Msg(TL_NORMAL, TS_DL, "DKApplicationWithPlugIns", "%S stays loaded: a plug-in is still referenced\n",
                   it->path.c_str());
      continue;
    }
    CloseModule(*it);
  }
  m_modules.clear();
}

void DKApplicationWithPlugIns::CloseModule(const Module& module) {
  std::string error;
  if (!DKModule::Close(module.handle, error))
    PrintError(DKStrCat(DK_T("Cannot unload "), module.path, DK_T(": "), error));
}
