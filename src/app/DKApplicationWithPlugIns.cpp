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
#include "app/DKPlugInLoadProgress.h"
#include "os/DKEnvironment.h"
#include "os/DKFile.h"
#include "os/DKModule.h"
#include "os/DKSignal.h"

#include <algorithm>
#include <exception>
#include <iostream>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace {

// Set by the first RequestExit of the process.
std::atomic<bool> g_exitAnnounced{false};

void OnQuitSignal(int) { DKApplication::PostExitRequest(); }

// Holds the quit signals back from the calling thread for its lifetime (DKSignal), turning a
// pending one into an exit request whenever the thread asks.
class QuitSignalHold {
public:
  QuitSignalHold() : m_token(DKSignal::HoldQuitSignals()) {}
  ~QuitSignalHold() { DKSignal::ReleaseQuitSignals(m_token); }
  QuitSignalHold(const QuitSignalHold&) = delete;
  QuitSignalHold& operator=(const QuitSignalHold&) = delete;

  bool ExitPosted() const {
    if (m_token && DKSignal::TakeQuitSignal())
      DKApplication::PostExitRequest();
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

DKErrorID TextError(const DKString& text) { return DKErrorID(DKSmartPtr<DKErrorString>(new DKErrorString(text))); }

DKString FromUTF8(const std::string& text) {
  DKString result;
  if (!result.SetFromUTF8(text.c_str(), text.size()).IsSuccess())
    result = DK_T("?");
  return result;
}

DKString ExceptionText(const std::exception& e) {
  if (const auto* own = dynamic_cast<const DKException*>(&e))
    return own->What();
  return FromUTF8(e.what());
}

// Runs fn, turning an exception into an error: plug-ins are foreign code, and one of them
// throwing must not bring the host down.
template <class F>
DKErrorID Guarded(const DKString& what, F&& fn) {
  try {
    return fn();
  } catch (const std::exception& e) {
    return TextError(what + DK_T(" threw: ") + ExceptionText(e));
  } catch (...) {
    return TextError(what + DK_T(" threw an unknown exception"));
  }
}

DKString SafeName(const DKPlugIn& plugIn) {
  try {
    return plugIn.GetName();
  } catch (...) {
    return DKString(DK_T("(plug-in without a name)"));
  }
}

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

// The main menu is named after the program, without directory and extension.
std::unique_ptr<DKUnitTest> NewMainMenu(const DKApplication& app) {
  return std::make_unique<DKUnitTest>(app.GetAppName());
}

bool EndsWithIgnoringCase(const DKString& text, const DKString& end) {
  return text.Length() > end.Length() && text.SubStr(text.Length() - end.Length()).IsEqual(end, DKString::IgnoreCase);
}

} // namespace

DKApplicationWithPlugIns::DKApplicationWithPlugIns(int argc, const char* const* argv, void* hostContext,
                                                   DKLogSubscriberI* subscriber, bool unused)
    : DKApplication(argc, argv, subscriber, unused), m_hostContext(hostContext), m_mainMenu(NewMainMenu(*this)) {}

DKApplicationWithPlugIns::DKApplicationWithPlugIns(int argc, const DKChar* const* argv, void* hostContext,
                                                   DKLogSubscriberI* subscriber, bool unused)
    : DKApplication(argc, argv, subscriber, unused), m_hostContext(hostContext), m_mainMenu(NewMainMenu(*this)) {}

DKApplicationWithPlugIns::DKApplicationWithPlugIns(const DKString& commandLine, void* hostContext,
                                                   DKLogSubscriberI* subscriber, bool unused)
    : DKApplication(commandLine, subscriber, unused), m_hostContext(hostContext), m_mainMenu(NewMainMenu(*this)) {}

DKApplicationWithPlugIns::~DKApplicationWithPlugIns() {
  RequestExit(true);
  // No plug-in is unloaded while a thread of the plug-ins still runs. One still running was
  // asked without waiting by the run loop: it is asked again, now waiting.
  for (const DKSmartPtr<DKPlugIn>& plugIn : m_runnablePlugIns)
    if (DKSmartPtr<DKThreadedRunPlugIn> threaded = DKQueryInterface<DKThreadedRunPlugIn>(plugIn.Get())) {
      if (threaded->IsRunning())
        threaded->RequestExit(true);
      if (DKSmartPtr<DKThread> thread = threaded->GetThread())
        thread->Join();
    }
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
      const DKString file = FromUTF8(name);
      if (EndsWithIgnoringCase(file, extension))
        modules.push_back(dkapp::JoinPath(searchDirectory, file));
    }
  }
  if (modules.empty())
    return TextError(DKString(DK_T("No plug-in module in ")) + directory);

  // Modules find their own files relative to their directory while they load.
  std::string previousDirectory;
  const bool moved = DKEnvironment::GetCurrentDirectory(previousDirectory) &&
                     DKEnvironment::SetCurrentDirectory(searchDirectory.AsUTF8());
  DKErrorID result = TextError(DKString(DK_T("No plug-in could be loaded from ")) + directory);
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
    DKEnvironment::SetCurrentDirectory(previousDirectory);
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
    return TextError(moduleFile + DK_T(": ") + FromUTF8(error));
  }
  DKTrace::Msg(TL_NORMAL, TS_DL, "DKApplicationWithPlugIns", "loaded %S\n", moduleFile.c_str());

  const char* entry = entryName ? entryName : EntryPointName;
  auto* getPlugIn = reinterpret_cast<DKGetPlugInObjectFunction>(DKModule::Symbol(module, entry, error));
  if (!getPlugIn) {
    GetCout(1) << "LoadPlugIn failed on " << moduleFile << ": Cannot locate \"" << entry << "\" entry point"
               << std::endl;
    CloseModule({module, moduleFile});
    return TextError(moduleFile + DK_T(": ") + FromUTF8(error));
  }

  DKSmartPtr<DKPlugIn> plugIn;
  DKErrorID result = Guarded(FromUTF8(entry), [&] {
    plugIn = getPlugIn();
    return plugIn ? DKErrorID() : TextError(FromUTF8(entry) + DK_T(" returned no plug-in"));
  });
  if (result.Bad()) {
    GetCout(1) << "LoadPlugIn failed on " << moduleFile << ": " << result.AsString() << std::endl;
    plugIn = nullptr;
    CloseModule({module, moduleFile});
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
    return TextError(DK_T("AddPlugIn: no plug-in"));

  if (plugIn->IsContainerPlugIn()) {
    DKErrorID result;
    if (DKSmartPtr<DKPlugInContainer> container = DKQueryInterface<DKPlugInContainer>(plugIn.Get())) {
      for (const DKSmartPtr<DKPlugIn>& member : container->GetPlugInList()) {
        if (member && !member->m_module)
          member->m_module = plugIn->m_module;
        result = AddPlugIn(member, deferDependencyCheck);
        if (result.Bad())
          break;
      }
    }
    plugIn->Unload();
    return result;
  }

  if (IsLoaded(plugIn.Get()))
    return DKErrorID();
  if (FindPlugIn(plugIn->GetId().GetGuid())) {
    DKSmartPtr<DKErrorWithArgs> error = DKLibraryError(DK_MSG_DUPLICATE_PLUGIN_ID);
    error->AddParam(SafeName(*plugIn));
    const DKErrorID result(error);
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
  if (plugIn->IsRunningPlugIn())
    m_runnablePlugIns.push_back(plugIn);
  AddCustomUsageInfo(plugIn->GetUsageInfo());
  return DKErrorID();
}

DKErrorID DKApplicationWithPlugIns::CheckDependents(const DKSmartPtrToConst<DKPlugIn>& plugIn, bool requireInitialized) {
  if (!plugIn)
    return TextError(DK_T("CheckDependents: no plug-in"));
  for (const DKPlugIn::PlugInIdEx& dependency : plugIn->GetDependentV()) {
    const DKSmartPtr<DKPlugIn> found = FindPlugIn(dependency.GetGuid());
    const DKString name = found ? SafeName(*found) : dependency.GetName();
    const DKString label = (name.IsEmpty() ? DKString() : DK_T("<") + name + DK_T("> ")) + dependency.GetGuid().AsString();
    if (!found)
      return TextError(DK_T("<") + SafeName(*plugIn) + DK_T("> needs ") + label + DK_T(", which is not loaded"));
    if (requireInitialized && found->GetStatus() == DKPlugIn::NotLoaded)
      return TextError(DK_T("<") + SafeName(*plugIn) + DK_T("> needs ") + label + DK_T(", which is not initialised"));
  }
  return DKErrorID();
}

DKErrorID DKApplicationWithPlugIns::LoadPlugIn(const DKSmartPtr<DKPlugIn>& plugIn) {
  if (!plugIn)
    return TextError(DK_T("LoadPlugIn: no plug-in"));
  if (plugIn->IsContainerPlugIn()) {
    DKSmartPtrVector<DKPlugIn> members;
    if (DKSmartPtr<DKPlugInContainer> container = DKQueryInterface<DKPlugInContainer>(plugIn.Get()))
      members = container->GetPlugInList();
    // The members may depend on each other in any order: they are checked when initialised.
    DKErrorID result = AddPlugIn(plugIn, true);
    for (const DKSmartPtr<DKPlugIn>& member : GetPlugInHier(members)) {
      if (!IsLoaded(member.Get()))
        continue;
      const DKErrorID initialised = LoadPlugIn(member);
      if (result.Good())
        result = initialised;
    }
    return result;
  }

  if (!IsLoaded(plugIn.Get())) {
    const DKErrorID added = AddPlugIn(plugIn, false);
    if (added.Bad())
      return added;
  }
  if (plugIn->GetStatus() != DKPlugIn::NotLoaded)
    return DKErrorID();
  const DKErrorID ready = CheckDependents(plugIn, true);
  if (ready.Bad()) {
    PrintError(ready.AsString());
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
    PrintError(DK_T("<") + name + DK_T(">: ") + result.AsString());
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
  // While the main thread only starts and watches plug-ins, it holds the quit signals back and
  // takes them itself, so that a quit request never depends on when a handler gets to run. It
  // lets them through while plug-in code or the menu runs on it.
  QuitSignalHold quitSignals;

  for (const DKSmartPtr<DKPlugIn>& plugIn : GetPlugInHier(m_runnablePlugIns)) {
    if (plugIn->GetStatus() != DKPlugIn::Initialized || !plugIn->IsRunningPlugIn())
      continue;
    if (quitSignals.ExitPosted())
      break; // asked to quit: nothing more is started
    const DKString name = SafeName(*plugIn);
    GetCout(1) << "RUN> Running <" << name << ">..." << std::flush;
    if (DKSmartPtr<DKThreadedRunPlugIn> threaded = DKQueryInterface<DKThreadedRunPlugIn>(plugIn.Get())) {
      GetCout(1) << "(threaded)" << std::endl;
      StartThreaded(*threaded);
      continue;
    }
    GetCout(1) << std::endl;
    auto* runnable = static_cast<DKRunPlugIn*>(plugIn.Get());
    runnable->SetStatus(DKPlugIn::Running);
    try {
      const QuitSignalHold::LetThrough letThrough(quitSignals);
      runnable->Run();
    } catch (const std::exception& e) {
      runnable->SetStatus(DKPlugIn::Finished);
      PrintError(DK_T("<") + name + DK_T(">: ") + ExceptionText(e));
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
  const DKErrorID started = Guarded(DK_T("DKThread::Start"), [&] { return thread->Start(0); });
  if (started.Bad()) {
    PrintError(DK_T("<") + SafeName(plugIn) + DK_T(">: ") + started.AsString());
    return;
  }
  plugIn.WaitUntilStarted();
}

bool DKApplicationWithPlugIns::AnyRunning() const {
  return std::any_of(m_runnablePlugIns.begin(), m_runnablePlugIns.end(),
                     [](const DKSmartPtr<DKPlugIn>& plugIn) { return plugIn->GetStatus() == DKPlugIn::Running; });
}

void DKApplicationWithPlugIns::RequestExit(bool wait) {
  if (m_exitRequested.exchange(true))
    return;
  // The announcement is made once in the life of the process; the plug-ins of an application
  // made after the first one still need to be asked.
  if (!g_exitAnnounced.exchange(true))
    GetCout(1) << ">>>> Quit signal received. Requesting exit to all plug-ins..." << std::endl;
  for (const DKSmartPtr<DKPlugIn>& plugIn : m_loadedPlugIns) {
    const DKErrorID result = Guarded(DK_T("RequestExit"), [&] {
      plugIn->RequestExit(wait);
      return DKErrorID();
    });
    if (result.Bad())
      PrintError(DK_T("<") + SafeName(*plugIn) + DK_T(">: ") + result.AsString());
  }
}

// ---------------------------------------------------------------------------------------------
// Unloading

void DKApplicationWithPlugIns::UnloadAll() {
  DKSmartPtrVector<DKPlugIn> ordered = GetPlugInHier(m_loadedPlugIns);
  for (auto it = ordered.rbegin(); it != ordered.rend(); ++it) {
    DKPlugIn& plugIn = **it;
    if (plugIn.GetStatus() == DKPlugIn::NotLoaded)
      continue;
    GetCout(1) << ">>>> Unloading <" << SafeName(plugIn) << ">..." << std::endl;
    const DKErrorID result = Guarded(DK_T("Unload"), [&] {
      plugIn.Unload();
      return DKErrorID();
    });
    if (result.Bad())
      PrintError(DK_T("<") + SafeName(plugIn) + DK_T(">: ") + result.AsString());
  }

  // Each plug-in is released in reverse dependency order (a dependent may hold a reference to
  // what it depends on). A plug-in that someone else still holds keeps its module open: its
  // code must stay mapped for as long as the object lives.
  m_loadedPlugIns.clear();
  m_runnablePlugIns.clear();
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
    PrintError(DKString(DK_T("Cannot unload ")) + module.path + DK_T(": ") + FromUTF8(error));
}
