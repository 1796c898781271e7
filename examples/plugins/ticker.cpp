// ticker.osx: a plug-in that does periodic work without a thread of its own. Its run step arms
// an application timer and returns; the host's run loop then delivers each tick on the main
// thread, and keeps running while the timer is armed. It ticks until it has ticked the count of
// its configuration ([Ticker] Ticks in dkhost.ini, or /ticks:<n>; 0 means until asked to stop)
// or until the host asks it to stop (Ctrl+C).
#include <DorvikCore/DKApplication.h>
#include <DorvikCore/DKTimer.h>

#include "SampleIds.h"

namespace {

class Ticker : public DKRunPlugIn {
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

  // On the main thread, once: the ticks come later, from the host's run loop.
  DKErrorID Run() override {
    const int interval = static_cast<int>(m_intervalMs);
    return m_timer.Start(interval, interval);
  }

  void Unload() override { m_timer.Cancel(); }

protected:
  // Asked once when the host quits, on the main thread like the ticks.
  void RequestExit(bool) override {
    if (m_timer.Cancel())
      DKApplication::GetAppCout() << "Ticker: asked to stop after " << m_tick << " ticks" << std::endl;
  }

private:
  void Tick() {
    std::ostream& out = DKApplication::GetAppCout();
    out << "Ticker: tick " << ++m_tick << std::endl;
    if (m_ticks != 0 && m_tick >= m_ticks) {
      m_timer.Cancel(); // from its own callback: disarms, and the host's loop can end
      out << "Ticker: done" << std::endl;
    }
  }

  long m_ticks = 0;
  long m_intervalMs = 500;
  long m_tick = 0; // used on the main thread only
  DKAppTimer m_timer{DKMakeCallback(this, &Ticker::Tick)};
};

} // namespace

DK_PLUGIN_MODULE(Ticker)
