// dkhost: a generic plug-in host. It loads the ".osx" plug-ins of the directories given with
// /osxpath (those named by their osx.lst, else every *.osx), or of the working directory,
// initialises them in dependency order once every module is loaded, runs them, and unloads them
// once they are done or Ctrl+C asks it to quit. Its exit code tells what went wrong (see
// kExitCodes); /help lists every option, those of the plug-ins found included.
//
//   dkhost /osxpath:<directory or list file> [/strict] [/stopWait:<seconds>] [/config:<file>]
//          [/trace:0|1|2] [/consoleToFile[:<file>]] [/noConsole] [/help]
#include <DorvikCore/DKApplication.h>

#include <algorithm>
#include <chrono>
#include <ostream>

namespace {

// The exit codes, lowest first; when several apply, the lowest is returned.
enum ExitCode : int {
  Success = 0,
  NoPlugIn = 1,             // LoadAndRun found no plug-in
  RunFailed = 2,            // LoadAndRun: an exception ended the run
  ModuleNotLoaded = 3,      // a module could not be loaded, or its plug-in was refused
  PlugInNotInitialized = 4, // a plug-in's Init failed, or a plug-in it needs is missing
  OptionRefused = 5,        // /strict: an option no one describes, or a value that does not fit
};

constexpr const char* kExitCodes =
    "Exit codes (when several apply, the lowest):\n"
    "   0  every plug-in found was loaded, initialised and run (or /help)\n"
    "   1  no plug-in was found\n"
    "   2  an exception ended the run\n"
    "   3  a module could not be loaded, or its plug-in was refused (a duplicate id, say)\n"
    "   4  a plug-in was not initialised: its Init failed or a plug-in it needs is missing\n"
    "   5  /strict refused an option; no plug-in was initialised\n"
    "   128+N  a second quit signal N ended the process while plug-ins were stopping\n"
    "          (130 for Ctrl+C, 143 for SIGTERM)\n";

DKUsageInfo HostUsage() {
  DKUsageInfo usage(DKString(DK_T("dkhost options:")));
  usage.AddCmdLineArgDesc("strict",
                          "Refuse to run when an option is one that neither dkhost nor a plug-in describes, or "
                          "its value does not fit: exit code 5, and no plug-in is initialised. Without it such "
                          "options are named and ignored.");
  usage.AddCmdLineArgDesc("stopWait:{seconds}",
                          "Seconds to wait, once asked to quit, before naming the plug-ins that have not "
                          "stopped (default 5). Another quit signal ends the process.",
                          DKUsageInfo::ValueKind::Integer);
  return usage;
}

// The application of dkhost: plug-ins are added as their modules load, and are initialised all
// together once the command line has been checked against the options they describe.
class Host : public DKApplicationWithPlugIns {
public:
  Host(int argc, char** argv) : DKApplicationWithPlugIns(argc, argv) {
    AddCustomUsageInfo(HostUsage());
    const DKCommandLine& line = GetCmdLine();
    m_help = line.ArgPresent("help") || line.ArgPresent("?");
    m_strict = line.ArgPresent("strict");
    bool ok = false;
    const int seconds = line.GetArg("stopWait", 5, &ok);
    if (ok && seconds >= 0)
      SetStopGracePeriod(std::chrono::seconds(seconds));
  }

  int Main() {
    const int loaded = LoadAndRun();
    if (m_help) {
      if (!m_helpShown) // no plug-in was found: the usage screen still shows the host's options
        ShowHelp();
      SetTraceLevel(0); // nothing ran: the shut-down lines would only bury the screen
      return Success;
    }
    int code = m_refused ? OptionRefused : Success;
    if (loaded != 0)
      code = loaded;
    for (const LoadFailure& failure : GetLoadFailures()) {
      const int failed = failure.kind == LoadFailure::ModuleNotLoaded ? ModuleNotLoaded : PlugInNotInitialized;
      code = code == Success ? failed : std::min(code, failed);
    }
    return code;
  }

  // While modules load, plug-ins are only added; Run initialises them.
  DKErrorID LoadPlugIn(const DKSmartPtr<DKPlugIn>& plugIn) override {
    return m_initialising ? DKApplicationWithPlugIns::LoadPlugIn(plugIn) : DKErrorID();
  }
  using DKApplicationWithPlugIns::LoadPlugIn;

  int Run() override {
    if (m_help) {
      ShowHelp();
      return 1;
    }
    std::vector<const DKUsageInfo*> usages;
    const DKUsageInfo standard = GetUsageInfo();
    usages.push_back(&standard);
    for (const DKUsageInfo& custom : GetCustomUsageInfo())
      usages.push_back(&custom);
    for (const DKCommandLine::Problem& problem : GetCmdLine().Check(usages)) {
      if (m_strict)
        GetCout(1) << "ERR> *** " << problem.message << std::endl;
      else
        GetCout(1) << ">>>> " << problem.message << ": ignored (/strict refuses it)" << std::endl;
      m_refused = m_strict;
    }
    if (m_refused) {
      GetCout(1) << "ERR> *** No plug-in is initialised: see dkhost /help for the options." << std::endl;
      return 1;
    }
    m_initialising = true;
    for (const DKSmartPtr<DKPlugIn>& plugIn : GetPlugInHier(GetLoadedPlugIns()))
      LoadPlugIn(plugIn).IgnoreError(); // a failure is printed and noted for the exit code
    return DKApplicationWithPlugIns::Run();
  }

private:
  void ShowHelp() {
    DisplayUsage();
    GetCout(1) << kExitCodes << std::flush;
    m_helpShown = true;
  }

  bool m_help = false;
  bool m_helpShown = false;
  bool m_strict = false;
  bool m_refused = false;
  bool m_initialising = false;
};

} // namespace

int main(int argc, char** argv) {
  Host host(argc, argv);
  return host.Main();
}
