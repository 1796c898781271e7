// DKApplication: start-up, the current application, console and log output, usage screen.
#include <DorvikCore/DKApplication.h>

#include <DorvikCore/DKCrashHandler.h>
#include <DorvikCore/DKConsole.h>
#include <DorvikCore/DKDirectory.h>
#include <DorvikCore/DKException.h>
#include <DorvikCore/DKSync.h>
#include <DorvikCore/DKThread.h>
#include <DorvikCore/DKTrace.h>

#include "app/DKAppPath.h"
#include "os/DKConsoleOutput.h"
#include "os/DKEnvironment.h"
#include "os/DKProcess.h"

#include <iostream>
#include <mutex>

namespace {

// The current application and its lock. Both live for the whole process: applications may
// be made and destroyed from static constructors and destructors.
struct CurrentApp {
  DKCriticalSection lock;
  DKApplication* app = nullptr; // guarded by lock
};

CurrentApp& Current() {
  static CurrentApp* const current = new CurrentApp;
  return *current;
}

std::atomic<bool> g_exitPosted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the exit flag is set from a signal handler");

// The console verbosity the diagnostics layer asks for: the current application's trace level.
std::uint32_t CurrentTraceLevel(void*) {
  CurrentApp& current = Current();
  std::lock_guard guard(current.lock);
  return current.app ? current.app->GetTraceLevel() : 1;
}

void InstallTraceLevelProvider() {
  static std::once_flag installed;
  std::call_once(installed, [] { DKSetTraceLevelProvider(&CurrentTraceLevel); });
}

// The first switch (not a bare word) of that name.
const DKCommandLineArgument* FindSwitch(const DKCommandLine& cmdLine, const DKChar* name) {
  for (const DKCommandLineArgument& argument : cmdLine.GetParsedArgumentVector()) {
    const DKCommandLineArgument::ArgumentType type = argument.GetArgType();
    if ((type == DKCommandLineArgument::Flag || type == DKCommandLineArgument::Valued) &&
        argument.GetArgument().IsEqual(name, DKString::IgnoreCase))
      return &argument;
  }
  return nullptr;
}

const char* const kStars = "******************************************************************************";

} // namespace

DKApplication::DKApplication(int argc, const char* const* argv, DKLogSubscriberI* subscriber, bool)
    : m_cmdLine(argc > 0 ? static_cast<std::size_t>(argc) : 0, argv) {
  CTor(subscriber);
}

DKApplication::DKApplication(int argc, const DKChar* const* argv, DKLogSubscriberI* subscriber, bool)
    : m_cmdLine(argc > 0 ? static_cast<std::size_t>(argc) : 0, argv) {
  CTor(subscriber);
}

DKApplication::DKApplication(const DKString& commandLine, DKLogSubscriberI* subscriber, bool)
    : m_cmdLine(commandLine) {
  CTor(subscriber);
}

void DKApplication::CTor(DKLogSubscriberI* subscriber) {
  m_consoleSubscriberAdded = false;
  const DKCommandLineArgument* trace = FindSwitch(m_cmdLine, DK_T("trace"));
  m_traceLevel.store(trace ? static_cast<std::uint32_t>(trace->GetValueAsInt()) : 1u, std::memory_order_relaxed);
  m_tmpDirectory = DKString();
  const bool noConsole = FindSwitch(m_cmdLine, DK_T("noconsole")) != nullptr;

  m_channelId = GetLogManager().AddChannel(ChannelName);
  if (subscriber || !noConsole)
    AddLogSubscriber(subscriber);

  {
    CurrentApp& current = Current();
    std::lock_guard guard(current.lock);
    m_previousApp = current.app;
    current.app = this;
  }
  InstallTraceLevelProvider();

  LoadConfigFile();
  ChooseTmpDirectory();
  NameErrorLog();

  if (const DKCommandLineArgument* toFile = FindSwitch(m_cmdLine, DK_T("consoletofile")))
    StartLoggingToFile(toFile->GetValueAsString(), !noConsole);

  m_mainThreadId = DKThread::GetCurrentThreadID().m_threadID;
}

void DKApplication::LoadConfigFile() {
  DKString fileName;
  const DKCommandLineArgument* config = FindSwitch(m_cmdLine, DK_T("config"));
  const bool explicitName = config != nullptr;
  if (explicitName) {
    fileName = config->GetValueAsString();
  } else {
    // The program's name with "ini" for its extension; else that file name in the working
    // directory.
    const DKString besideProgram = GetAppName(true, false) + DK_T(".ini");
    const DKString inWorkingDirectory = GetAppName(false, false) + DK_T(".ini");
    if (!GetAppName(false, false).IsEmpty()) {
      if (dkapp::IsReadableFile(besideProgram))
        fileName = dkapp::MakeAbsolute(besideProgram);
      else if (dkapp::IsReadableFile(inWorkingDirectory))
        fileName = dkapp::MakeAbsolute(inWorkingDirectory);
    }
  }
  if (fileName.IsEmpty()) {
    if (explicitName)
      GetCout(1) << "ERR> *** /config names no file" << std::endl;
    return;
  }

  try {
    m_configFile = DKConfigFile::Load(fileName);
    if (!m_configFile && explicitName)
      GetCout(1) << "ERR> *** Cannot read the configuration file " << fileName << std::endl;
  } catch (const DKException& e) {
    m_configFile = nullptr;
    GetCout(1) << "ERR> *** The configuration file " << fileName << " is not valid: " << e.What() << std::endl;
  }
  if (m_configFile)
    ReportConfigNotes();
}

void DKApplication::ReportConfigNotes() {
  const std::vector<DKConfigLoadNote> notes = m_configFile->GetLoadNotes();
  const std::size_t count = m_configFile->GetLoadNoteCount();
  if (notes.empty())
    return;
  const DKString fileName = m_configFile->GetFileName();
  for (const DKConfigLoadNote& note : notes)
    DKTrace::Msg(TL_NORMAL, TS_DK, "DKApplication", "configuration file %S: %S\n", fileName, note.GetText());
  if (count > notes.size())
    DKTrace::Msg(TL_NORMAL, TS_DK, "DKApplication", "configuration file %S: %llu notes more\n", fileName,
                 static_cast<unsigned long long>(count - notes.size()));

  // One console line: how many of each kind, and where the first one is.
  static const char* const kinds[] = {"keys over several lines", "key lines before the first section, kept as text",
                                      "lines starting with '#' read as text", "section headers inside a key"};
  std::size_t perKind[4] = {0, 0, 0, 0}, firstLine[4] = {0, 0, 0, 0};
  for (const DKConfigLoadNote& note : notes)
    if (perKind[note.kind]++ == 0)
      firstLine[note.kind] = note.firstLine;
  std::ostream& out = GetCout(1);
  out << "ERR> *** The configuration file " << fileName << " holds text that is no setting:";
  const char* separator = " ";
  for (const int kind : {2, 3, 0, 1})
    if (perKind[kind]) {
      out << separator << kinds[kind] << ": " << perKind[kind] << " (first on line " << firstLine[kind] << ")";
      separator = "; ";
    }
  if (count > notes.size())
    out << "; " << count - notes.size() << " more";
  out << std::endl;
}

void DKApplication::ChooseTmpDirectory() {
  m_tmpDirectory = DK_T(".");
  if (m_configFile) {
    m_tmpDirectory = m_configFile->GetString(DK_T("DKORE"), DK_T("DebugPath"), DK_T("."));
    return;
  }
  for (const char* variable : {"TMP", "TMPDIR"}) {
    DKString value;
    if (DKProcess::EnvironmentVariable(variable, value) && DKDirectory::IsPathExists(value)) {
      m_tmpDirectory = value;
      return;
    }
  }
}

void DKApplication::NameErrorLog() {
  // The executable's own base name: the command line's first word may be anything.
  DKString executable;
  if (!DKProcess::GetExecutablePath(executable))
    executable = m_cmdLine.GetAppName();
  const dkapp::PathParts parts = dkapp::SplitPath(executable);
  GetLogManager().SetErrorLogFile(m_tmpDirectory, parts.baseName + DK_T("-ERROR.LOG"));
  // A crash report goes to the error log too.
  DKSetCrashReportFile(GetLogManager().GetErrorLogFile());
}

DKApplication::~DKApplication() {
  {
    CurrentApp& current = Current();
    std::lock_guard guard(current.lock);
    if (current.app == this) {
      current.app = m_previousApp;
    } else {
      // Destroyed out of order: the application made after this one points back past it.
      for (DKApplication* app = current.app; app; app = app->m_previousApp)
        if (app->m_previousApp == this) {
          app->m_previousApp = m_previousApp;
          break;
        }
    }
  }
  // What this thread left unfinished on the channel goes out before the channel closes.
  GetCout().flush();
  DKLogManager& logs = GetLogManager();
  for (const DKSmartPtr<DKLogSubscriberI>& subscriber : m_logSubscribers)
    logs.Unsubscribe(m_channelId, subscriber.Get());
  m_logSubscribers.clear();
  logs.RemoveChannel(m_channelId);
}

DKUsageInfo DKApplication::GetUsageInfo() const {
  DKUsageInfo usage;
  usage.AddCmdLineArgDesc(DKString(DK_T("config:{filename}")),
                          DKString(DK_T("Force the application to use a specific config file. If this option is "
                                        "ommited, then a config file which has the same file name than the "
                                        "application (+.ini) will be loaded.")));
  usage.AddCmdLineArgDesc(DKString(DK_T("trace:{tracelevel}")),
                          DKString(DK_T("Set the trace level of the application. 0-Silent, 1-Normal, 2-Maximum.")));
  usage.AddCmdLineArgDesc(DKString(DK_T("consoleToFile[:filename]")),
                          DKString(DK_T("Redirect the console to the specified file. If no filename is specified, "
                                        "then the application filename with the .log extension will be used.")));
  usage.AddCmdLineArgDesc(DKString(DK_T("noConsole")),
                          DKString(DK_T("When used with /consoleToFile option, this option will prevent the display "
                                        "to the console. Display will only be redirected to the log file.")));
  return usage;
}

void DKApplication::DisplayUsage(std::ostream* out) const {
  std::ostream& target = out ? *out : GetAppCout(1);
  target << kStars << '\n' << kStars << '\n';
  target << "USAGE: " << GetAppName(false, true) << " [options list] " << '\n';
  target << kStars << '\n' << "Options list: " << '\n';
  target << GetUsageInfo().FormatUsage();
  for (const DKUsageInfo& custom : m_customUsageInfo)
    target << custom.FormatUsage();
  target.flush();
}

bool DKApplication::DisplayUsageIfNecessary(std::ostream* out) const {
  if (!FindSwitch(m_cmdLine, DK_T("help")) && !FindSwitch(m_cmdLine, DK_T("?")))
    return false;
  DisplayUsage(out);
  return true;
}

void DKApplication::RequestExit(bool) {}

bool DKApplication::IsAppWithPlugIn() const { return false; }

DKApplication* DKApplication::GetApp() {
  CurrentApp& current = Current();
  std::lock_guard guard(current.lock);
  return current.app;
}

DKString DKApplication::GetAppName(bool withPath, bool withExtension) const {
  const DKString& program = m_cmdLine.GetAppName();
  if (withPath && withExtension)
    return program;
  const dkapp::PathParts parts = dkapp::SplitPath(program);
  if (withPath)
    return parts.directory + parts.baseName;
  if (withExtension)
    return parts.baseName + DK_T(".") + (parts.extension.IsEmpty() ? DKString() : parts.extension.SubStr(1));
  return parts.baseName;
}

DKString DKApplication::GetAppPath() const { return dkapp::SplitPath(m_cmdLine.GetAppName()).directory; }

void DKApplication::SetTraceLevel(std::uint32_t level) {
  m_traceLevel.store(level, std::memory_order_relaxed);
  for (const DKSmartPtr<DKLogSubscriberI>& subscriber : m_logSubscribers)
    GetLogManager().ChangeSubscriptionLevel(m_channelId, subscriber.Get(), level);
}

bool DKApplication::AddLogSubscriber(DKLogSubscriberI* subscriber) {
  DKSmartPtr<DKLogSubscriberI> added(subscriber);
  if (!added) {
    if (m_consoleSubscriberAdded)
      return GetCout().good();
    added = new DKConsoleLogSubscriber;
  }
  if (!GetLogManager().Subscribe(m_channelId, added, GetTraceLevel()))
    return false;
  m_logSubscribers.push_back(added);
  if (!subscriber)
    m_consoleSubscriberAdded = true;
  return GetCout().good();
}

bool DKApplication::StartLoggingToFile(const DKString& fileName, bool alsoConsole) {
  const DKString name = fileName.IsEmpty() ? GetAppName(true, false) + DK_T(".log") : fileName;
  if (alsoConsole && !AddLogSubscriber(nullptr))
    return false;
  DKSmartPtr<DKFileLogSubscriber> file(new DKFileLogSubscriber(name));
  if (!file->IsGood()) {
    // Said on the console directly: the channel may have no subscriber that would show it.
    DKLockedCOUT() << "ERR> *** " << file->GetErrorText() << std::endl;
    return false;
  }
  // A file written already, under this name or another, is not written a second time.
  for (const DKSmartPtr<DKLogSubscriberI>& subscriber : m_logSubscribers)
    if (const auto* existing = dynamic_cast<const DKFileLogSubscriber*>(subscriber.Get()))
      if (existing->IsSameFile(*file))
        return GetCout().good();
  return AddLogSubscriber(file.Get());
}

std::ostream& DKApplication::GetCout() const { return DKLogStream::ForThread(m_channelId); }

std::ostream& DKApplication::GetCout(std::uint32_t level) const {
  DKLogStream& stream = DKLogStream::ForThread(m_channelId);
  stream.SetLevel(level);
  return stream;
}

std::ostream& DKApplication::GetAppCout(std::uint32_t level) {
  CurrentApp& current = Current();
  std::lock_guard guard(current.lock);
  if (!current.app)
    return DKConsoleOutput::Stream();
  // The stream refers to the channel by its id only: it stays safe to write to after the
  // application is gone (the text then goes nowhere).
  DKLogStream& stream = DKLogStream::ForThread(current.app->m_channelId);
  stream.SetLevel(level);
  return stream;
}

DKLogManager& DKApplication::GetLogManager() { return DKLogManager::Get(); }

void DKApplication::AddCustomUsageInfo(const DKUsageInfo& info) { m_customUsageInfo.push_back(info); }

void DKApplication::PostExitRequest() noexcept { g_exitPosted.store(true, std::memory_order_relaxed); }

bool DKApplication::IsExitPosted() noexcept { return g_exitPosted.load(std::memory_order_relaxed); }

void DKApplication::AddToPath(const DKString& text) {
  DKString value = text;
  DKString path;
  if (DKProcess::EnvironmentVariable("PATH", path) && !path.IsEmpty()) {
    value += DKString(DKEnvironment::PathListSeparator()) + path;
  }
  DKEnvironment::SetVariable("PATH", value.AsUTF8());
}
