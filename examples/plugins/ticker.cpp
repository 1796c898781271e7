// ticker.osx: a plug-in that works on a thread of its own beside the others. It ticks until it
// has ticked the count of its configuration ([Ticker] Ticks in dkhost.ini, or /ticks:<n>; 0
// means until asked to stop) or until the host asks it to stop (Ctrl+C).
#include <DorvikCore/DKApplication.h>

#include "SampleIds.h"

namespace {

class Ticker : public DKThreadedRunPlugIn {
public:
  DKString GetName() const override { return DK_T("Ticker"); }
  PlugInIdEx GetId() const override { return PlugInIdEx(samples::TickerId, GetName()); }

  DKUsageInfo GetUsageInfo() const override {
    DKUsageInfo usage(DKString(DK_T("Ticker plug-in:")));
    usage.AddCmdLineArgDesc("ticks:{count}", "Ticks before the ticker stops by itself; 0 ticks until Ctrl+C. The "
                                             "default is Ticks in section [Ticker] of the configuration file.");
    return usage;
  }

  DKErrorID Init(const DKApplicationWithPlugIns& app) override {
    if (DKSmartPtr<DKConfigFile> config = app.GetConfigFile()) {
      m_ticks = config->GetLong(DK_T("Ticker"), DK_T("Ticks"), m_ticks);
      m_intervalMs = config->GetLong(DK_T("Ticker"), DK_T("IntervalMs"), m_intervalMs);
    }
    m_ticks = app.GetCmdLine().GetArg(DK_T("ticks"), static_cast<int>(m_ticks));
    if (m_ticks < 0 || m_intervalMs <= 0) {
      DKSmartPtr<DKErrorWithArgs> error = DKLibraryError(DK_MSG_INVALID_ARGUMENT);
      error->AddParam(DK_T("[Ticker] Ticks must be 0 or more and IntervalMs more than 0"));
      return DKErrorID(error);
    }
    return DKErrorID();
  }

  // Runs on the plug-in's own thread.
  DKErrorID Run() override {
    std::ostream& out = DKApplication::GetAppCout();
    for (long tick = 1; m_ticks == 0 || tick <= m_ticks; ++tick) {
      if (m_stop.Wait(static_cast<int>(m_intervalMs)) == DK_WAIT_OBJECT_0) {
        out << "Ticker: asked to stop after " << tick - 1 << " ticks" << std::endl;
        return DKErrorID();
      }
      out << "Ticker: tick " << tick << std::endl;
    }
    out << "Ticker: done" << std::endl;
    return DKErrorID();
  }

  // Called from another thread while Run runs: wakes Run's wait.
  void Stop() override { m_stop.Post(); }

private:
  long m_ticks = 0;
  long m_intervalMs = 500;
  DKEventSemaphore m_stop;
};

} // namespace

DK_PLUGIN_MODULE(Ticker)
