// DKApplicationWithPlugIns: finding modules (a directory or a list file), loading one module
// through its entry point, adding its plug-ins (containers included) and initialising them in
// dependency order; FindPlugIn and IsLoaded.
#include <DorvikCore/DKApplication.h>
#include <DorvikCore/DKDirectory.h>
#include <DorvikCore/DKFormat.h>
#include <DorvikCore/DKProgress.h>
#include <DorvikCore/DKTrace.h>

#include "app/DKAppPath.h"
#include "app/DKPlugInCalls.h"
#include "app/DKPlugInLoadProgress.h"
#include "os/DKEnvironment.h"
#include "os/DKFile.h"
#include "os/DKModule.h"

#include <DorvikCore/DKConsole.h>

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

using dkapp::CallPlugIn;
using dkapp::Guarded;
using dkapp::SafeGuid;
using dkapp::SafeName;
using dkapp::StatusOf;

namespace {

bool EndsWithIgnoringCase(const DKString& text, const DKString& end) {
  return text.Length() > end.Length() && text.SubStr(text.Length() - end.Length()).IsEqual(end, DKString::IgnoreCase);
}

} // namespace

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
