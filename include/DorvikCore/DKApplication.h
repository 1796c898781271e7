// DKApplication: the one application object of a process, made early in main from the command
// line; it owns the standard options, the configuration file, the console and log output and
// the temporary directory, and is reachable from anywhere through DKApplication::GetApp().
//
// DKApplicationWithPlugIns: the application that finds ".osx" plug-in modules, loads them,
// initialises the plug-ins in dependency order, runs them, passes a quit request on to them
// and unloads them in reverse order. A host program's whole main can be:
//
//   int main(int argc, char** argv) {
//     DKApplicationWithPlugIns app(argc, argv);
//     return app.LoadAndRun();
//   }
//
// Standard options (switches open with "/" or "-", a value follows ":", names ignore case):
//   /config:{filename}   the configuration file (default: the program's name with "ini")
//   /trace:{tracelevel}  console verbosity: 0 silent, 1 normal, 2 maximum
//   /consoleToFile[:filename]  also write the console to a file (default: program name + ".log")
//   /noConsole           nothing on the console (with /consoleToFile: the file only)
//   /help, /?            DisplayUsageIfNecessary prints the usage screen
//   /osxpath:{directory} (plug-in applications) where the plug-ins are; may be repeated
#pragma once

#include <DorvikCore/DKCommandLine.h>
#include <DorvikCore/DKConfigFile.h>
#include <DorvikCore/DKError.h>
#include <DorvikCore/DKGuid.h>
#include <DorvikCore/DKLog.h>
#include <DorvikCore/DKPlugIn.h>
#include <DorvikCore/DKProgress.h>
#include <DorvikCore/DKRefCount.h>
#include <DorvikCore/DKString.h>
#include <DorvikCore/DKUsageInfo.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

class DKUnitTest; // <DorvikCore/DKUnitTest.h>

// The application of a process: make one in main and keep it until main returns. While it lives
// it is the current application (GetApp); the static members may be called from any thread.
class DK_EXPORT DKApplication {
public:
  // The name of the application's log channel.
  static constexpr const DKChar* ChannelName = DK_T("DKApplicationChannel");

  // From main's arguments (UTF-8) or from a DKChar vector (which must outlive the application),
  // or from one command-line string. subscriber: a log subscriber to use instead of the console
  // (null: the console, unless /noConsole). The bool is accepted and has no effect.
  DKApplication(int argc, const char* const* argv, DKLogSubscriberI* subscriber = nullptr, bool unused = false);
  DKApplication(int argc, const DKChar* const* argv, DKLogSubscriberI* subscriber = nullptr, bool unused = false);
  explicit DKApplication(const DKString& commandLine, DKLogSubscriberI* subscriber = nullptr, bool unused = false);
  // Makes the application that was current before this one current again.
  virtual ~DKApplication();
  // Not copyable: one application per process.
  DKApplication(const DKApplication&) = delete;
  DKApplication& operator=(const DKApplication&) = delete;

  // The standard options.
  virtual DKUsageInfo GetUsageInfo() const;
  // Prints the usage screen on out; null: the console stream at level 1.
  virtual void DisplayUsage(std::ostream* out = nullptr) const;
  // When /help or /? is on the command line, prints the usage screen and returns true.
  virtual bool DisplayUsageIfNecessary(std::ostream* out = nullptr) const;
  // Nothing to do here; the plug-in application asks its plug-ins to exit.
  virtual void RequestExit(bool wait);
  // Whether this is a DKApplicationWithPlugIns: false here.
  virtual bool IsAppWithPlugIn() const;

  // The process's current application; null when there is none.
  static DKApplication* GetApp();

  // The command line the application was made from.
  const DKCommandLine& GetCmdLine() const noexcept { return m_cmdLine; }
  // Null when no configuration file was loaded. When the file holds text that is no setting
  // (its load notes: '#' lines, keys over several lines, key lines before the first section),
  // start-up writes each note to the trace (subject DK) and one line that sums them up to the
  // console ("ERR> *** The configuration file ... holds text that is no setting: ...").
  DKSmartPtr<DKConfigFile> GetConfigFile() const { return m_configFile; }
  // The directory for temporary files and the error log: with a configuration file, its
  // "DebugPath" key of section "DKORE" ("." by default); without one, TMP or TMPDIR when it
  // names a directory, else ".".
  const DKString& GetTmpDirectory() const noexcept { return m_tmpDirectory; }
  // The console verbosity (/trace, SetTraceLevel): 0 silent, 1 normal, 2 maximum.
  std::uint32_t GetTraceLevel() const noexcept { return m_traceLevel.load(std::memory_order_relaxed); }
  // The id of the thread that made the application.
  std::uint32_t GetMainThreadId() const noexcept { return m_mainThreadId; }
  // The application's log channel (ChannelName).
  DKLogManager::ChannelId GetChannelId() const noexcept { return m_channelId; }

  // The program's name (the first word of the command line), in four forms:
  //   withPath, withExtension:  as given              "/opt/app/host.bin"
  //   withPath only:            without the extension "/opt/app/host"
  //   withExtension only:       base name and extension, the "." always written: "host.bin", "host."
  //   neither:                  the base name         "host"
  DKString GetAppName(bool withPath = false, bool withExtension = false) const;
  // The directory of the program's name, with its final separator; empty when it has none.
  DKString GetAppPath() const;

  // Sets the console verbosity and the level of every subscriber this application subscribed.
  void SetTraceLevel(std::uint32_t level);
  // Writes the console to a file as well (alsoConsole: and to the console, adding the console
  // subscriber when missing). An empty name means GetAppName(true, false) + ".log". False, with
  // a message on the console, when the file cannot be opened.
  bool StartLoggingToFile(const DKString& fileName, bool alsoConsole);
  bool StartLoggingToFile(bool alsoConsole) { return StartLoggingToFile(DKString(), alsoConsole); }

  // The calling thread's stream on the application's channel (UTF-8). Each thread has its own,
  // so threads never mix their characters; lines are published whole.
  std::ostream& GetCout() const;
  // The same stream, first set to the level.
  std::ostream& GetCout(std::uint32_t level) const;
  // The current application's stream for the calling thread, at the given level; standard
  // output when there is no application.
  static std::ostream& GetAppCout(std::uint32_t level = 1);
  // The process's log manager (DKLogManager::Get()).
  static DKLogManager& GetLogManager();

  // Options of a part of the program (a plug-in) for the usage screen, in order of addition:
  // add, and read.
  void AddCustomUsageInfo(const DKUsageInfo& info);
  const std::vector<DKUsageInfo>& GetCustomUsageInfo() const noexcept { return m_customUsageInfo; }

  // Sets the process-wide exit flag (never cleared); safe from any thread and from a signal
  // handler. Waiting loops of the framework poll it.
  static void PostExitRequest() noexcept;
  // Whether the exit flag is set.
  static bool IsExitPosted() noexcept;

  // Puts text in front of the executable search path: PATH = text ":" PATH.
  static void AddToPath(const DKString& text);

protected:
  // With a subscriber: subscribes it to the application's channel at the trace level and keeps
  // it. With null: adds the console subscriber unless it was added already. False when the
  // subscription fails, otherwise whether the console stream is good.
  bool AddLogSubscriber(DKLogSubscriberI* subscriber);

private:
  // The start-up every constructor runs once the command line is parsed.
  void CTor(DKLogSubscriberI* subscriber);
  void LoadConfigFile();
  // Writes what the loaded configuration file holds that is no setting (its load notes): each
  // note to the trace, and one summary line to the console.
  void ReportConfigNotes();
  void ChooseTmpDirectory();
  void NameErrorLog();

  DKString m_tmpDirectory;
  DKCommandLine m_cmdLine;
  DKSmartPtr<DKConfigFile> m_configFile;
  std::vector<DKUsageInfo> m_customUsageInfo;
  std::atomic<std::uint32_t> m_traceLevel{1};
  std::uint32_t m_mainThreadId = 0;
  DKLogManager::ChannelId m_channelId = DKLogManager::NoChannel;
  std::vector<DKSmartPtr<DKLogSubscriberI>> m_logSubscribers;
  bool m_consoleSubscriberAdded = false;
  DKApplication* m_previousApp = nullptr;
};

// The plug-in host. Loading, running and unloading happen on the thread that made the
// application; RequestExit, PostExitRequest and the look-ups may come from any thread.
class DK_EXPORT DKApplicationWithPlugIns : public DKApplication {
public:
  // The modules' extension, the list file that names them, and their entry point.
  static constexpr const DKChar* PlugInExtension = DK_T(".osx");
  static constexpr const DKChar* ListFileName = DK_T("osx.lst");
  static constexpr const char* EntryPointName = "GetPlugInObject";
  // The longest line of a list file, in characters.
  static constexpr std::size_t MaxListLine = 260;
  // How deep plug-in containers may be nested in one another.
  static constexpr std::size_t MaxContainerDepth = 64;

  // As DKApplication; hostContext is the host program's own pointer, handed back by
  // GetHostContext (plug-ins reach it through the application).
  DKApplicationWithPlugIns(int argc, const char* const* argv, void* hostContext = nullptr,
                           DKLogSubscriberI* subscriber = nullptr, bool unused = false);
  DKApplicationWithPlugIns(int argc, const DKChar* const* argv, void* hostContext = nullptr,
                           DKLogSubscriberI* subscriber = nullptr, bool unused = false);
  explicit DKApplicationWithPlugIns(const DKString& commandLine, void* hostContext = nullptr,
                                    DKLogSubscriberI* subscriber = nullptr, bool unused = false);
  // Asks the plug-ins to exit and waits for them, unloads them in reverse dependency order,
  // releases them, closes their modules in reverse order and prints "Exiting application...".
  ~DKApplicationWithPlugIns() override;

  // The standard options and /osxpath.
  DKUsageInfo GetUsageInfo() const override;
  // The first call asks every loaded plug-in to exit (wait: and to finish); later calls do
  // nothing. The first call of the process also announces the exit on the console.
  void RequestExit(bool wait) override;
  // True.
  bool IsAppWithPlugIn() const override;

  // Adds the plug-in when it is not loaded yet (its dependencies must be), then initialises it
  // once its dependencies are initialised.
  virtual DKErrorID LoadPlugIn(const DKSmartPtr<DKPlugIn>& plugIn);
  // Loads one module, calls its entry point and adds the plug-in (not initialised yet).
  virtual DKErrorID LoadPlugIn(const DKString& moduleFile, const char* entryName);
  // Runs the initialised run plug-ins in dependency order (threaded ones on their own thread)
  // and waits until all are finished, asking them to exit once a quit signal arrives or
  // PostExitRequest is called. Returns 1.
  virtual int Run();

  // The whole life of a plug-in application: loads the plug-ins of every /osxpath (or of the
  // current directory), then runs them. 1 when no plug-in could be found, 2 when an exception
  // escaped, else 0.
  int LoadAndRun();
  // Finds the modules of a directory (or a list file), loads them and initialises the new
  // plug-ins in dependency order.
  DKErrorID LoadPlugInsFromDirectory(const DKString& directory, const DKString& extension, const char* entryName,
                                     bool stopOnError);

  // What went wrong while plug-ins were loaded, one entry per module or plug-in, in order: a
  // module that could not be loaded or whose plug-in was refused ("LoadLibrary fails on ",
  // "LoadPlugIn failed on ", "LoaPlugIn failed on "), and a plug-in that was not initialised
  // (its Init failed or a dependency is missing). A host tells its caller through its exit code.
  struct LoadFailure {
    // What failed.
    enum Kind {
      ModuleNotLoaded,      // The module, or the plug-in it handed over.
      PlugInNotInitialized, // A loaded plug-in's initialisation.
    };
    Kind kind;       // What failed.
    DKString name;   // The module's path, or the plug-in's name.
    DKString reason; // The error text.
  };
  // The failures so far, in order.
  const std::vector<LoadFailure>& GetLoadFailures() const noexcept { return m_loadFailures; }

  // How long the application waits, once an exit is requested, before it names on the console
  // each plug-in that has not returned from Run or Stop (5 seconds unless set). While it stops,
  // another quit signal (Ctrl+C, SIGTERM) ends the process: the plug-ins that have stopped, and
  // that no plug-in still running depends on, are unloaded, "Exiting application..." is printed
  // and the process exits with code 128 + the signal's number (130 for Ctrl+C) without waiting.
  void SetStopGracePeriod(std::chrono::milliseconds period) noexcept { m_stopGracePeriod = period; }
  std::chrono::milliseconds GetStopGracePeriod() const noexcept { return m_stopGracePeriod; }

  // The progress of the last LoadPlugInsFromDirectory: two steps, loading the modules and
  // initialising the new plug-ins, each a child counter while it runs (a GetDLLPlugInsFromDirectory
  // of its own has a counter of its modules alone). Null before any; any thread may read it
  // while the plug-ins load. From ProgressModuleCount modules on, the loading also writes its
  // progress through the application's channel: a line every two seconds and one at the end.
  DKSmartPtr<DKProgress> GetLoadProgress() const;
  static constexpr std::size_t ProgressModuleCount = 8;

  // The loaded plug-in with that GUID; null when none.
  DKSmartPtr<DKPlugIn> FindPlugIn(const DKGuid& guid) const;
  // In order of addition.
  const DKSmartPtrVector<DKPlugIn>& GetLoadedPlugIns() const noexcept { return m_loadedPlugIns; }
  // The current application when it is a plug-in application; null otherwise.
  static DKApplicationWithPlugIns* GetApp();

  // The main menu, named after the program (GetAppName()). Plug-ins add their tests and
  // maintenance actions to it in Init, where they hold the application read-only: the menu
  // locks itself, so it is open to adding through a const application too. Its entries are
  // dropped before the plug-ins are unloaded (their code lives in the plug-ins' modules).
  DKUnitTest& GetMainMenu() const noexcept { return *m_mainMenu; }
  // With the flag set, Run shows the main menu on the standard input and the console once the
  // run plug-ins are started, and asks for the exit when the user leaves it.
  bool IsRunWithMenu() const noexcept { return m_runWithMenu; }
  void SetIsRunWithMenu(bool runWithMenu) noexcept { m_runWithMenu = runWithMenu; }
  // The host program's pointer given to the constructor (not owned); may be null.
  void* GetHostContext() const noexcept { return m_hostContext; }

  // Reads the text of a list file: one module a line; "#" or ";" opens a comment line; blanks
  // and tabs around a name and empty lines are ignored; a relative name is taken in
  // searchDirectory. A line longer than MaxListLine characters is refused with a problem text
  // naming its number; so is a line that is not UTF-8 or holds a NUL character.
  static std::vector<DKString> ParsePlugInList(const std::string& text, const DKString& searchDirectory,
                                               std::vector<DKString>& problems);

protected:
  // Adds a plug-in (a container: its members, then the container is unloaded and dropped).
  // A plug-in added already is left alone; another with the same id is refused. Unless
  // deferDependencyCheck, every dependency must be loaded already. Nothing is initialised here.
  // A container that holds itself, directly or through other containers (the same object or
  // its id), is refused with the chain, "Plug-in container cycle: A -> B -> A"; so is nesting
  // deeper than MaxContainerDepth. A plug-in that throws from a member the framework asks is
  // refused with an error naming it and the member.
  virtual DKErrorID AddPlugIn(const DKSmartPtr<DKPlugIn>& plugIn, bool deferDependencyCheck);
  // Every dependency of the plug-in must be loaded (requireInitialized: and initialised). The
  // error names the plug-in and the missing dependency.
  virtual DKErrorID CheckDependents(const DKSmartPtrToConst<DKPlugIn>& plugIn, bool requireInitialized);
  // Finds the modules (list file or directory listing) and loads each with LoadPlugIn.
  virtual DKErrorID GetDLLPlugInsFromDirectory(const DKString& directory, const DKString& extension,
                                               const char* entryName, bool stopOnError);

  // The plug-ins ordered so that each comes after the ones it depends on (dependencies outside
  // the list are left out of the ordering). Each dependency cycle is described, "A -> B -> A",
  // in cycles when given; its members are still listed, in an order that breaks the cycle.
  DKSmartPtrVector<DKPlugIn> GetPlugInHier(const DKSmartPtrVector<DKPlugIn>& plugIns,
                                           std::vector<DKString>* cycles = nullptr) const;

private:
  struct Module {
    void* handle;
    DKString path;
  };
  // A container whose members are being added.
  struct OpenContainer {
    const DKPlugIn* plugIn;
    DKGuid id;
    DKString name;
  };

  // The watch over the shutdown and what it needs to know (DKShutdownWatch.h).
  struct ShutdownState;
  class MainThreadCall;

  DKErrorID AddContainerMembers(const DKSmartPtr<DKPlugIn>& container, bool deferDependencyCheck);
  DKErrorID InitPlugIn(DKPlugIn& plugIn);
  void StartThreaded(DKThreadedRunPlugIn& plugIn);
  bool AnyRunning() const;
  void UnloadAll();
  void CloseModule(const Module& module);
  bool IsLoaded(const DKPlugIn* plugIn) const;
  void PrintError(const DKString& text) const;
  void NoteFailure(LoadFailure::Kind kind, const DKString& name, const DKErrorID& error);
  // The watch's view: the plug-ins still in Run or Stop (with their objects in plugIns).
  std::vector<std::pair<DKString, const DKChar*>> BusyPlugIns(std::vector<const DKPlugIn*>* plugIns) const;
  // Ends the process on a quit signal that came while stopping; false (doing nothing) once the
  // destructor is past its waits.
  bool ForceExit(int signalNumber);
  // Ends the watch before the plug-ins are unloaded.
  void EndShutdownWatch();

  void* m_hostContext;
  DKSmartPtrVector<DKPlugIn> m_loadedPlugIns;
  DKSmartPtrVector<DKPlugIn> m_runnablePlugIns;
  DKSmartPtrVector<DKThreadedRunPlugIn> m_threadedPlugIns; // those Run started on their threads
  std::vector<OpenContainer> m_openContainers;               // innermost last
  std::vector<Module> m_modules; // in order of loading
  std::unique_ptr<DKUnitTest> m_mainMenu;
  bool m_runWithMenu = false;
  void* m_signalToken = nullptr;
  bool m_runFailureReported = false; // Run reported the exception it lets through
  std::atomic<bool> m_exitRequested{false};
  std::vector<LoadFailure> m_loadFailures;
  std::chrono::milliseconds m_stopGracePeriod{5000};
  std::unique_ptr<ShutdownState> m_shutdown;

  // A step of the load under way (a child of its counter), or the counter of a load of its own.
  DKSmartPtr<DKProgress> LoadStep(const DKString& label, std::size_t count);
  mutable std::mutex m_loadProgressLock;
  DKSmartPtr<DKProgress> m_loadProgress;
};
