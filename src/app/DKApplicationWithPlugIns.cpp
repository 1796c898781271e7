// DKApplicationWithPlugIns: finding, loading, initialising, running and unloading plug-ins.
#include <DorvikCore/DKApplication.h>
#include <DorvikCore/DKDirectory.h>
#include <DorvikCore/DKException.h>
#include <DorvikCore/DKCrashHandler.h>
#include <DorvikCore/DKFormat.h>
#include <DorvikCore/DKThread.h>
#include <DorvikCore/DKTimer.h>
#include <DorvikCore/DKTrace.h>
#include <DorvikCore/DKUnitTest.h>

#include "app/DKAppPath.h"
#include "app/DKPlugInCalls.h"
#include "app/DKPlugInLoadProgress.h"
#include "app/DKShutdownWatch.h"
#include "os/DKEnvironment.h"
#include "os/DKFile.h"
#include "os/DKModule.h"
#include "os/DKSignal.h"

#include <DorvikCore/DKConsole.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <mutex>
#include <unordered_map>
#include <unordered_set>
#include <utility>

using dkapp::CallPlugIn;
using dkapp::ExceptionText;
using dkapp::Guarded;
using dkapp::SafeName;

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

// A plug-in whose id cannot be read has the null id; one whose dependencies cannot be read has
// none. The destructor relies on these never throwing.
DKGuid SafeGuid(const DKPlugIn& plugIn) {
  try {
    return plugIn.GetId().GetGuid();
  } catch (...) {
    return DKGuid();
  }
}

std::vector<DKPlugIn::PlugInIdEx> SafeDependencies(const DKPlugIn& plugIn) {
  try {
    return plugIn.GetDependentV();
  } catch (...) {
    return {};
  }
}

// The status as the framework set it. Plug-in code is not asked: the framework keeps the status
// itself, and a plug-in that could not tell it would be neither run nor unloaded.
DKPlugIn::Status StatusOf(const DKPlugIn& plugIn) { return plugIn.DKPlugIn::GetStatus(); }

// The main menu is named after the program, without directory and extension.
std::unique_ptr<DKUnitTest> NewMainMenu(const DKApplication& app) {
  return std::make_unique<DKUnitTest>(app.GetAppName());
}

bool EndsWithIgnoringCase(const DKString& text, const DKString& end) {
  return text.Length() > end.Length() && text.SubStr(text.Length() - end.Length()).IsEqual(end, DKString::IgnoreCase);
}

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
// Finding modules

std::vector<DKString> DKApplicationWithPlugIns::ParsePlugInList(const std::string& text,
                                                                const DKString& searchDirectory,
                                                                std::vector<DKString>& problems) {
  std::vector<DKString> modules;
  std::size_t start = text.compare(0, 3, "\xEF\xBB\xBF") == 0 ? 3 : 0;
  for (std::size_t number = 1; start < text.size(); ++number) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos)
      end = text.size();
    std::size_t cut = end;
    if (cut > start && text[cut - 1] == '\r')
      --cut;
    const std::string_view bytes(text.data() + start, cut - start);
    start = end + 1;

    DKString line;
    if (bytes.find('\0') != std::string_view::npos) {
      problems.push_back(DKFormatString(DK_T("line %d holds a NUL character; skipped"), static_cast<int>(number)));
      continue;
    }
    if (line.SetFromUTF8(bytes.data(), bytes.size()).Bad()) {
      problems.push_back(DKFormatString(DK_T("line %d is not UTF-8 text; skipped"), static_cast<int>(number)));
      continue;
    }
    if (line.Length() > MaxListLine) {
      problems.push_back(DKFormatString(DK_T("line %d is longer than %d characters; skipped"),
                                        static_cast<int>(number), static_cast<int>(MaxListLine)));
      continue;
    }
    line.Trim(DK_T(" \t"));
    if (line.IsEmpty() || line[0] == DK_T('#') || line[0] == DK_T(';'))
      continue;
    modules.push_back(dkapp::JoinPath(searchDirectory, line));
  }
  return modules;
}

DKErrorID DKApplicationWithPlugIns::GetDLLPlugInsFromDirectory(const DKString& directory, const DKString& extension,
                                                               const char* entryName, bool stopOnError) {
  const bool isDirectory = DKDirectory::IsPathExists(directory);
  const DKString listFile =
      isDirectory ? dkapp::JoinPath(dkapp::MakeAbsolute(directory), ListFileName) : dkapp::MakeAbsolute(directory);
  const DKString searchDirectory = isDirectory ? dkapp::MakeAbsolute(directory) : dkapp::SplitPath(listFile).directory;

  std::vector<DKString> modules;
  const bool listExists = DKEnvironment::PathExists(listFile.AsUTF8());
  if (!isDirectory && !listExists) {
    GetCout(1) << "The plug-ins list file " << directory << " does not exist." << std::endl;
  } else if (listExists) {
    std::string text;
    DKString readError;
    if (!DKFile::ReadAll(listFile, text, readError)) {
      PrintError(DKString(DK_T("The plug-ins list file cannot be read: ")) + readError);
    } else {
      GetCout(1) << "Retrieving plug-ins from " << listFile << "..." << std::endl;
      std::vector<DKString> problems;
      modules = ParsePlugInList(text, searchDirectory, problems);
      for (const DKString& problem : problems)
        PrintError(listFile + DK_T(": ") + problem);
    }
  }

  if (modules.empty() && isDirectory) {
    GetCout(1) << "Retrieving plug-ins from " << dkapp::JoinPath(searchDirectory, DK_T("*")) << extension << "..."
               << std::endl;
    std::vector<std::string> names;
    if (!DKEnvironment::ListFiles(searchDirectory.AsUTF8(), names))
      PrintError(DKString(DK_T("The directory ")) + searchDirectory + DK_T(" cannot be read"));
    // Sorted, so that the order does not depend on the file system.
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
      const DKString file = DKString::FromUTF8(name);
      if (EndsWithIgnoringCase(file, extension))
        modules.push_back(dkapp::JoinPath(searchDirectory, file));
    }
  }
  if (modules.empty())
    return DKErrorID::FromText(DKString(DK_T("No plug-in module in ")) + directory);

  // Modules find their own files relative to their directory while they load.
  std::string previousDirectory;
  const bool moved = DKEnvironment::CurrentDirectory(previousDirectory) &&
                     DKEnvironment::ChangeDirectory(searchDirectory.AsUTF8());
  DKErrorID result = DKErrorID::FromText(DKString(DK_T("No plug-in could be loaded from ")) + directory);
  bool anyLoaded = false;
  const DKSmartPtr<DKProgress> progress = LoadStep(DK_T("Loading plug-ins"), modules.size());
  const std::unique_ptr<DKProgressConsole> display = DKStartPlugInLoadDisplay(progress, modules.size());
  for (const DKString& module : modules) {
    GetCout(1) << "LoadLibrary on " << module << "..." << std::endl;
    const DKErrorID loaded = LoadPlugIn(module, entryName);
    progress->Increment();
    if (loaded.Good()) {
      anyLoaded = true;
    } else {
      result = loaded;
      if (stopOnError)
        break;
    }
  }
  if (moved)
    DKEnvironment::ChangeDirectory(previousDirectory);
  if (anyLoaded && !(stopOnError && result.Bad()))
    return DKErrorID();
  return result;
}

DKErrorID DKApplicationWithPlugIns::LoadPlugInsFromDirectory(const DKString& directory, const DKString& extension,
                                                             const char* entryName, bool stopOnError) {
  const std::size_t before = m_loadedPlugIns.size();
  // Two steps: loading the modules, then initialising their plug-ins.
  const DKSmartPtr<DKProgress> progress = LoadStep(DKString(DK_T("Loading plug-ins from ")) + directory, 2);
  struct Completion {
    DKProgress& progress;
    ~Completion() { progress.Complete(); }
  } completion{*progress};
  const DKErrorID found = GetDLLPlugInsFromDirectory(directory, extension, entryName, stopOnError);
  progress->SetDone(1);
  if (found.Bad() && stopOnError)
    return found;

  // Plug-ins are only ever appended: the new ones are at the end.
  const DKSmartPtrVector<DKPlugIn> added(m_loadedPlugIns.begin() + static_cast<std::ptrdiff_t>(before),
                                         m_loadedPlugIns.end());
  std::vector<DKString> cycles;
  const DKSmartPtrVector<DKPlugIn> ordered = GetPlugInHier(added, &cycles);
  for (const DKString& cycle : cycles)
    PrintError(DKString(DK_T("Dependency cycle: ")) + cycle);
  const DKSmartPtr<DKProgress> initialising = progress->AddChild(DK_T("Initializing plug-ins"), ordered.size());
  for (const DKSmartPtr<DKPlugIn>& plugIn : ordered) {
    const DKErrorID initialised = LoadPlugIn(plugIn);
    initialising->Increment();
    if (initialised.Bad() && stopOnError)
      return initialised;
  }
  return found;
}

// ---------------------------------------------------------------------------------------------
// Loading one module, adding and initialising plug-ins

DKErrorID DKApplicationWithPlugIns::LoadPlugIn(const DKString& moduleFile, const char* entryName) {
  const std::string path = moduleFile.AsUTF8();
  std::string error;
  DKModule::Handle module = DKModule::Open(path, error);
  if (!module) {
    GetCout(1) << "LoadLibrary fails on " << moduleFile << ": " << error << std::endl;
    const DKErrorID result = DKErrorID::FromText(moduleFile + DK_T(": ") + DKString::FromUTF8(error));
    NoteFailure(LoadFailure::ModuleNotLoaded, moduleFile, result);
    return result;
  }
  DKTrace::Msg(TL_NORMAL, TS_DL, "DKApplicationWithPlugIns", "loaded %S\n", moduleFile.c_str());

  const char* entry = entryName ? entryName : EntryPointName;
  auto* getPlugIn = reinterpret_cast<DKGetPlugInObjectFunction>(DKModule::Symbol(module, entry, error));
  if (!getPlugIn) {
    GetCout(1) << "LoadPlugIn failed on " << moduleFile << ": Cannot locate \"" << entry << "\" entry point"
               << std::endl;
    CloseModule({module, moduleFile});
    const DKErrorID result = DKErrorID::FromText(moduleFile + DK_T(": ") + DKString::FromUTF8(error));
    NoteFailure(LoadFailure::ModuleNotLoaded, moduleFile, result);
    return result;
  }

  DKSmartPtr<DKPlugIn> plugIn;
  DKErrorID result = Guarded(DKString::FromUTF8(entry), [&] {
    plugIn = getPlugIn();
    return plugIn ? DKErrorID() : DKErrorID::FromText(DKString::FromUTF8(entry) + DK_T(" returned no plug-in"));
  });
  if (result.Bad()) {
    GetCout(1) << "LoadPlugIn failed on " << moduleFile << ": " << result.AsString() << std::endl;
    plugIn = nullptr;
    CloseModule({module, moduleFile});
    NoteFailure(LoadFailure::ModuleNotLoaded, moduleFile, result);
    return result;
  }

  const std::size_t before = m_loadedPlugIns.size();
  plugIn->m_module = module;
  result = Guarded(DK_T("AddPlugIn"), [&] { return AddPlugIn(plugIn, true); });
  if (result.Good()) {
    m_modules.push_back({module, moduleFile});
    return result;
  }

  GetCout(1) << "LoaPlugIn failed on " << moduleFile << ": AddPlugIn failed" << std::endl;
  NoteFailure(LoadFailure::ModuleNotLoaded, moduleFile, result);
  // The members a container managed to add before one failed keep the module in use.
  bool inUse = false;
  for (std::size_t i = before; i < m_loadedPlugIns.size(); ++i)
    inUse = inUse || m_loadedPlugIns[i]->m_module == module;
  DKPlugIn* raw = plugIn.Get();
  raw->AddRef();
  plugIn = nullptr;
  inUse = raw->Release() != 0 || inUse;
  if (inUse)
    m_modules.push_back({module, moduleFile});
  else
    CloseModule({module, moduleFile});
  return result;
}

DKErrorID DKApplicationWithPlugIns::AddPlugIn(const DKSmartPtr<DKPlugIn>& plugIn, bool deferDependencyCheck) {
  if (!plugIn)
    return DKErrorID::FromText(DK_T("AddPlugIn: no plug-in"));

  bool container = false;
  DKErrorID asked = CallPlugIn(*plugIn, DK_T("IsContainerPlugIn"), [&] { container = plugIn->IsContainerPlugIn(); });
  if (asked.Bad()) {
    PrintError(asked.AsString());
    return asked;
  }
  if (container)
    return AddContainerMembers(plugIn, deferDependencyCheck);

  if (IsLoaded(plugIn.Get()))
    return DKErrorID();
  // Everything the framework needs to know of the plug-in is asked before it is added, so that
  // one that cannot answer is refused whole.
  DKGuid id;
  bool runnable = false;
  DKUsageInfo usage;
  asked = CallPlugIn(*plugIn, DK_T("GetId"), [&] { id = plugIn->GetId().GetGuid(); });
  if (asked.Good())
    asked = CallPlugIn(*plugIn, DK_T("IsRunningPlugIn"), [&] { runnable = plugIn->IsRunningPlugIn(); });
  if (asked.Good())
    asked = CallPlugIn(*plugIn, DK_T("GetUsageInfo"), [&] { usage = plugIn->GetUsageInfo(); });
  if (asked.Bad()) {
    PrintError(asked.AsString());
    return asked;
  }
  if (FindPlugIn(id)) {
    const DKErrorID result = DKLibraryErrorID(DK_MSG_DUPLICATE_PLUGIN_ID, SafeName(*plugIn));
    PrintError(result.AsString());
    return result;
  }
  if (!deferDependencyCheck) {
    const DKErrorID result = CheckDependents(plugIn, false);
    if (result.Bad()) {
      PrintError(result.AsString());
      return result;
    }
  }
  m_loadedPlugIns.push_back(plugIn);
  if (runnable)
    m_runnablePlugIns.push_back(plugIn);
  AddCustomUsageInfo(usage);
  return DKErrorID();
}

DKErrorID DKApplicationWithPlugIns::AddContainerMembers(const DKSmartPtr<DKPlugIn>& container,
                                                        bool deferDependencyCheck) {
  // A container met again inside itself (the same object, or one with its id) would be
  // expanded for ever: the cycle is refused with its chain. So is nesting beyond any sensible
  // depth, which only a container that makes ever new containers reaches.
  const DKString name = SafeName(*container);
  const DKGuid id = SafeGuid(*container);
  const auto open = std::find_if(m_openContainers.begin(), m_openContainers.end(), [&](const OpenContainer& o) {
    return o.plugIn == container.Get() || (id != DKGuid() && o.id == id);
  });
  DKErrorID result;
  if (open != m_openContainers.end()) {
    DKString chain;
    for (auto it = open; it != m_openContainers.end(); ++it)
      chain += it->name + DK_T(" -> ");
    result = DKErrorID::FromText(DK_T("Plug-in container cycle: ") + chain + name);
  } else if (m_openContainers.size() >= MaxContainerDepth) {
    result = DKErrorID::FromText(DKFormatString(DK_T("Plug-in containers nested more than %d deep, at <%s>"),
                                      static_cast<int>(MaxContainerDepth), name.c_str()));
  }
  if (result.Bad()) {
    PrintError(result.AsString());
    return result;
  }

  DKSmartPtrVector<DKPlugIn> members;
  result = CallPlugIn(*container, DK_T("GetPlugInList"), [&] {
    if (DKSmartPtr<DKPlugInContainer> asContainer = DKQueryInterface<DKPlugInContainer>(container.Get()))
      members = asContainer->GetPlugInList();
  });
  if (result.Bad()) {
    PrintError(result.AsString());
  } else {
    m_openContainers.push_back({container.Get(), id, name});
    struct Close {
      std::vector<OpenContainer>& open;
      ~Close() { open.pop_back(); }
    } close{m_openContainers};
    for (const DKSmartPtr<DKPlugIn>& member : members) {
      if (member && !member->m_module)
        member->m_module = container->m_module;
      result = AddPlugIn(member, deferDependencyCheck);
      if (result.Bad())
        break;
    }
  }
  // The container's own clean-up failing costs its members nothing: it is only reported.
  const DKErrorID unloaded = CallPlugIn(*container, DK_T("Unload"), [&] { container->Unload(); });
  if (unloaded.Bad())
    PrintError(unloaded.AsString());
  return result;
}

DKErrorID DKApplicationWithPlugIns::CheckDependents(const DKSmartPtrToConst<DKPlugIn>& plugIn, bool requireInitialized) {
  if (!plugIn)
    return DKErrorID::FromText(DK_T("CheckDependents: no plug-in"));
  std::vector<DKPlugIn::PlugInIdEx> dependencies;
  const DKErrorID asked = CallPlugIn(*plugIn, DK_T("GetDependentV"), [&] { dependencies = plugIn->GetDependentV(); });
  if (asked.Bad())
    return asked;
  for (const DKPlugIn::PlugInIdEx& dependency : dependencies) {
    const DKSmartPtr<DKPlugIn> found = FindPlugIn(dependency.GetGuid());
    const DKString name = found ? SafeName(*found) : dependency.GetName();
    const DKString label = name.IsEmpty() ? dependency.GetGuid().AsString()
                                          : DKStrCat(DK_T("<"), name, DK_T("> "), dependency.GetGuid().AsString());
    if (!found)
      return DKErrorID::FromText(DKStrCat(DK_T("<"), SafeName(*plugIn), DK_T("> needs "), label, DK_T(", which is not loaded")));
    if (requireInitialized && StatusOf(*found) == DKPlugIn::NotLoaded)
      return DKErrorID::FromText(
          DKStrCat(DK_T("<"), SafeName(*plugIn), DK_T("> needs "), label, DK_T(", which is not initialised")));
  }
  return DKErrorID();
}

DKErrorID DKApplicationWithPlugIns::LoadPlugIn(const DKSmartPtr<DKPlugIn>& plugIn) {
  if (!plugIn)
    return DKErrorID::FromText(DK_T("LoadPlugIn: no plug-in"));
  bool container = false;
  const DKErrorID asked = CallPlugIn(*plugIn, DK_T("IsContainerPlugIn"), [&] { container = plugIn->IsContainerPlugIn(); });
  if (asked.Bad()) {
    PrintError(asked.AsString());
    return asked;
  }
  if (container) {
    // The plug-ins it hands over, those of nested containers included, are the ones added now.
    // They may depend on each other in any order: they are checked when initialised.
    const std::size_t before = m_loadedPlugIns.size();
    DKErrorID result = AddPlugIn(plugIn, true);
    if (result.Bad())
      NoteFailure(LoadFailure::PlugInNotInitialized, SafeName(*plugIn), result);
    const DKSmartPtrVector<DKPlugIn> added(m_loadedPlugIns.begin() + static_cast<std::ptrdiff_t>(before),
                                           m_loadedPlugIns.end());
    for (const DKSmartPtr<DKPlugIn>& member : GetPlugInHier(added)) {
      const DKErrorID initialised = LoadPlugIn(member);
      if (result.Good())
        result = initialised;
    }
    return result;
  }

  if (!IsLoaded(plugIn.Get())) {
    const DKErrorID added = AddPlugIn(plugIn, false);
    if (added.Bad()) {
      NoteFailure(LoadFailure::PlugInNotInitialized, SafeName(*plugIn), added);
      return added;
    }
  }
  if (StatusOf(*plugIn) != DKPlugIn::NotLoaded)
    return DKErrorID();
  const DKErrorID ready = CheckDependents(plugIn, true);
  if (ready.Bad()) {
    PrintError(ready.AsString());
    NoteFailure(LoadFailure::PlugInNotInitialized, SafeName(*plugIn), ready);
    return ready;
  }
  return InitPlugIn(*plugIn);
}

DKErrorID DKApplicationWithPlugIns::InitPlugIn(DKPlugIn& plugIn) {
  const DKString name = SafeName(plugIn);
  const bool silent = SafeGuid(plugIn) == DKPlugIn::SilentPlugInId;
  if (!silent)
    GetCout(1) << ">>>> Initializing <" << name << ">..." << std::flush;
  const DKErrorID result = Guarded(DK_T("Init"), [&] { return plugIn.Init(*this); });
  if (result.Good()) {
    plugIn.SetStatus(DKPlugIn::Initialized);
    if (!silent)
      GetCout(1) << " Done." << std::endl;
  } else {
    if (!silent)
      GetCout(1) << "Failed." << std::endl;
    PrintError(DKStrCat(DK_T("<"), name, DK_T(">: "), result.AsString()));
    NoteFailure(LoadFailure::PlugInNotInitialized, name, result);
  }
  return result;
}

DKSmartPtr<DKPlugIn> DKApplicationWithPlugIns::FindPlugIn(const DKGuid& guid) const {
  for (const DKSmartPtr<DKPlugIn>& plugIn : m_loadedPlugIns)
    if (SafeGuid(*plugIn) == guid)
      return plugIn;
  return nullptr;
}

bool DKApplicationWithPlugIns::IsLoaded(const DKPlugIn* plugIn) const {
  return std::any_of(m_loadedPlugIns.begin(), m_loadedPlugIns.end(),
                     [plugIn](const DKSmartPtr<DKPlugIn>& loaded) { return loaded.Get() == plugIn; });
}

DKSmartPtrVector<DKPlugIn> DKApplicationWithPlugIns::GetPlugInHier(const DKSmartPtrVector<DKPlugIn>& plugIns,
                                                                   std::vector<DKString>* cycles) const {
  const std::size_t count = plugIns.size();
  std::unordered_map<DKGuid, std::size_t> indexOf;
  for (std::size_t i = 0; i < count; ++i)
    indexOf.emplace(SafeGuid(*plugIns[i]), i);
  std::vector<std::vector<std::size_t>> dependencies(count);
  for (std::size_t i = 0; i < count; ++i)
    for (const DKPlugIn::PlugInIdEx& dependency : SafeDependencies(*plugIns[i])) {
      const auto found = indexOf.find(dependency.GetGuid());
      if (found != indexOf.end())
        dependencies[i].push_back(found->second);
    }

  // Depth first, without recursion, so that a long chain cannot exhaust the stack. A plug-in
  // is listed once all it depends on is listed; meeting a plug-in that is still open closes a
  // cycle, which is described and then ignored.
  enum Mark { Unvisited, Open, Listed };
  std::vector<Mark> marks(count, Unvisited);
  DKSmartPtrVector<DKPlugIn> ordered;
  ordered.reserve(count);
  struct Frame {
    std::size_t node;
    std::size_t next;
  };
  std::vector<Frame> path;
  for (std::size_t root = 0; root < count; ++root) {
    if (marks[root] != Unvisited)
      continue;
    marks[root] = Open;
    path.push_back({root, 0});
    while (!path.empty()) {
      Frame& frame = path.back();
      if (frame.next < dependencies[frame.node].size()) {
        const std::size_t next = dependencies[frame.node][frame.next++];
        if (marks[next] == Unvisited) {
          marks[next] = Open;
          path.push_back({next, 0});
        } else if (marks[next] == Open && cycles) {
          DKString chain;
          const auto start = std::find_if(path.begin(), path.end(), [next](const Frame& f) { return f.node == next; });
          for (auto it = start; it != path.end(); ++it)
            chain += SafeName(*plugIns[it->node]) + DK_T(" -> ");
          cycles->push_back(chain + SafeName(*plugIns[next]));
        }
        continue;
      }
      marks[frame.node] = Listed;
      ordered.push_back(plugIns[frame.node]);
      path.pop_back();
    }
  }
  return ordered;
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
