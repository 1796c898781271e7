// The plug-ins of the application tests, one class per behaviour. Each prints what it does on
// the application's console stream, so that a test reads the life of the host from its output.
#include "test_plugins.h"

#include <DorvikCore/DKApplication.h>
#include <DorvikCore/DKException.h>

#include <stdexcept>

namespace {

constexpr DKGuid TestId(std::uint8_t n) { return DKGuid(0x7E57AB1E, 0, 0, {0, 0, 0, 0, 0, 0, 0, n}); }

std::ostream& Out() { return DKApplication::GetAppCout(1); }

// A run plug-in that says when it runs.
class Reporter : public DKRunPlugIn {
public:
  Reporter(const DKChar* name, DKGuid id, std::vector<PlugInIdEx> dependencies = {})
      : m_name(name), m_id(id), m_dependencies(std::move(dependencies)) {}
  DKString GetName() const override { return m_name; }
  PlugInIdEx GetId() const override { return PlugInIdEx(m_id, GetName()); }
  std::vector<PlugInIdEx> GetDependentV() const override { return m_dependencies; }
  DKErrorID Run() override {
    Out() << m_name << ": run" << std::endl;
    return DKErrorID();
  }
  void Unload() override { Out() << m_name << ": unload" << std::endl; }

private:
  DKString m_name;
  DKGuid m_id;
  std::vector<PlugInIdEx> m_dependencies;
};

class Good : public Reporter {
public:
  Good() : Reporter(DK_T("Good"), TestId(1)) {}
  DKUsageInfo GetUsageInfo() const override {
    DKUsageInfo usage;
    usage.AddCmdLineArgDesc("good:{value}", "An option of the Good plug-in.");
    return usage;
  }
};

class InitFail : public Reporter {
public:
  InitFail() : Reporter(DK_T("InitFail"), TestId(3)) {}
  DKErrorID Init(const DKApplicationWithPlugIns&) override {
    return DKErrorID(DKSmartPtr<DKErrorString>(new DKErrorString(DK_T("InitFail refuses"))));
  }
};

class RunThrows : public Reporter {
public:
  RunThrows() : Reporter(DK_T("RunThrows"), TestId(4)) {}
  DKErrorID Run() override { throw DKException(DK_T("RunThrows is broken")); }
};

class Box : public DKPlugInContainer {
public:
  Box() {
    AddPlugIn(new Reporter(DK_T("BoxOne"), TestId(6)));
    AddPlugIn(new Reporter(DK_T("BoxTwo"), TestId(7), {PlugInIdEx(TestId(6))}));
  }
  DKString GetName() const override { return DK_T("Box"); }
  PlugInIdEx GetId() const override { return PlugInIdEx(TestId(5), GetName()); }
};

// Works on its thread until asked to stop, or until it has ticked [<name>] Ticks of the
// configuration file (0: no limit).
class Worker : public DKThreadedRunPlugIn {
public:
  Worker(const DKChar* name, DKGuid id) : m_name(name), m_id(id) {}
  DKString GetName() const override { return m_name; }
  PlugInIdEx GetId() const override { return PlugInIdEx(m_id, GetName()); }
  DKErrorID Init(const DKApplicationWithPlugIns& app) override {
    if (DKSmartPtr<DKConfigFile> config = app.GetConfigFile())
      m_ticks = config->GetLong(GetName(), DK_T("Ticks"), 0);
    return DKErrorID();
  }
  DKErrorID Run() override {
    Out() << m_name << ": started" << std::endl;
    for (long tick = 1; m_ticks == 0 || tick <= m_ticks; ++tick)
      if (m_stop.Wait(20) == DK_WAIT_OBJECT_0) {
        Out() << m_name << ": stopped" << std::endl;
        return DKErrorID();
      }
    Out() << m_name << ": done after " << m_ticks << " ticks" << std::endl;
    return DKErrorID();
  }
  void Stop() override {
    Out() << m_name << ": stop requested" << std::endl;
    m_stop.Post();
  }
  void Unload() override { Out() << m_name << ": unload" << std::endl; }

private:
  DKString m_name;
  DKGuid m_id;
  long m_ticks = 0;
  DKEventSemaphore m_stop;
};

class ThreadThrows : public Worker {
public:
  ThreadThrows() : Worker(DK_T("ThreadThrows"), TestId(20)) {}
  DKErrorID Run() override { throw std::runtime_error("ThreadThrows is broken"); }
};

} // namespace

DKPlugIn* DKTestMakePlugIn(const char* kind) {
  const std::string k = kind;
  if (k == "good")
    return new Good;
  if (k == "duplicate")
    return new Reporter(DK_T("Duplicate"), TestId(1));
  if (k == "initfail")
    return new InitFail;
  if (k == "runthrows")
    return new RunThrows;
  if (k == "box")
    return new Box;
  if (k == "chain_a")
    return new Reporter(DK_T("ChainA"), TestId(10), {PlugInIdEx(TestId(11), DK_T("ChainB"))});
  if (k == "chain_b")
    return new Reporter(DK_T("ChainB"), TestId(11), {PlugInIdEx(TestId(12), DK_T("ChainC"))});
  if (k == "chain_c")
    return new Reporter(DK_T("ChainC"), TestId(12));
  if (k == "cycle_a")
    return new Reporter(DK_T("CycleA"), TestId(13), {PlugInIdEx(TestId(14))});
  if (k == "cycle_b")
    return new Reporter(DK_T("CycleB"), TestId(14), {PlugInIdEx(TestId(13))});
  if (k == "missingdep")
    return new Reporter(DK_T("MissingDep"), TestId(15), {PlugInIdEx(TestId(99), DK_T("Absent"))});
  if (k == "worker")
    return new Worker(DK_T("Worker"), TestId(16));
  if (k == "worker2")
    return new Worker(DK_T("Worker2"), TestId(17));
  if (k == "threadthrows")
    return new ThreadThrows;
  if (k == "entrythrows")
    throw std::runtime_error("the plug-in cannot be made");
  return nullptr;
}
