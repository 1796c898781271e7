// The plug-ins of the application tests, one class per behaviour. Each prints what it does on
// the application's console stream, so that a test reads the life of the host from its output.
#include "test_plugins.h"

#include <DorvikCore/DKApplication.h>
#include <DorvikCore/DKException.h>
#include <DorvikCore/DKThread.h>

#include <functional>
#include <map>
#include <stdexcept>
#include <string>

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

// Faults in its run step: a write through a null pointer, which the host's crash catching
// reports (the undefined-behaviour checks would end the process their own way first).
class Crasher : public Reporter {
public:
  Crasher() : Reporter(DK_T("Crasher"), TestId(40)) {}
  __attribute__((noinline, no_sanitize("undefined"))) DKErrorID Run() override {
    volatile int* volatile nowhere = nullptr; // not provably null, so the store stays
    *nowhere = 1;
    return DKErrorID();
  }
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

// Throws from Stop without stopping: only its ticks end its run.
class StopThrows : public Worker {
public:
  StopThrows() : Worker(DK_T("StopThrows"), TestId(22)) {}
  void Stop() override {
    Out() << "StopThrows: stop requested" << std::endl;
    throw std::runtime_error("StopThrows cannot stop");
  }
};

// Hears Stop but goes on: only the end of the process ends its run.
class Stubborn : public Worker {
public:
  Stubborn() : Worker(DK_T("Stubborn"), TestId(27)) {}
  void Stop() override {}
};

// Never returns from Stop.
class StuckStop : public Worker {
public:
  StuckStop() : Worker(DK_T("StuckStop"), TestId(28)) {}
  void Stop() override {
    DKEventSemaphore never;
    never.Wait();
  }
};

// A threaded run step that throws, from a plug-in that cannot tell its name either.
class Nameless : public ThreadThrows {
public:
  DKString GetName() const override { throw std::runtime_error("no name"); }
  PlugInIdEx GetId() const override { return PlugInIdEx(TestId(26)); }
};

class DepsThrow : public Reporter {
public:
  DepsThrow() : Reporter(DK_T("DepsThrow"), TestId(23)) {}
  std::vector<PlugInIdEx> GetDependentV() const override { throw std::runtime_error("DepsThrow cannot tell"); }
};

// A run step on the main thread that lasts until the application is asked to quit: a quit
// signal must reach it while it runs.
class Patient : public Reporter {
public:
  Patient() : Reporter(DK_T("Patient"), TestId(21)) {}
  DKErrorID Run() override {
    Out() << "Patient: waiting" << std::endl;
    while (!DKApplication::IsExitPosted())
      DKThread::Sleep(10);
    Out() << "Patient: exit request seen" << std::endl;
    return DKErrorID();
  }
};

} // namespace

DKPlugIn* DKTestMakePlugIn(const char* kind) {
  using Dependencies = std::vector<PlugInIdEx>;
  static const std::map<std::string, std::function<DKPlugIn*()>> makers{
      {"good", [] { return new Reporter(DK_T("Good"), TestId(1)); }},
      {"duplicate", [] { return new Reporter(DK_T("Duplicate"), TestId(1)); }},
      {"initfail", [] { return new InitFail; }},
      {"runthrows", [] { return new RunThrows; }},
      {"crasher", [] { return new Crasher; }},
      {"box", [] { return new Box; }},
      {"chain_a", [] { return new Reporter(DK_T("ChainA"), TestId(10), Dependencies{{TestId(11), DK_T("ChainB")}}); }},
      {"chain_b", [] { return new Reporter(DK_T("ChainB"), TestId(11), Dependencies{{TestId(12), DK_T("ChainC")}}); }},
      {"chain_c", [] { return new Reporter(DK_T("ChainC"), TestId(12)); }},
      {"cycle_a", [] { return new Reporter(DK_T("CycleA"), TestId(13), Dependencies{PlugInIdEx(TestId(14))}); }},
      {"cycle_b", [] { return new Reporter(DK_T("CycleB"), TestId(14), Dependencies{PlugInIdEx(TestId(13))}); }},
      {"missingdep",
       [] { return new Reporter(DK_T("MissingDep"), TestId(15), Dependencies{{TestId(99), DK_T("Absent")}}); }},
      {"worker", [] { return new Worker(DK_T("Worker"), TestId(16)); }},
      {"worker2", [] { return new Worker(DK_T("Worker2"), TestId(17)); }},
      {"threadthrows", [] { return new ThreadThrows; }},
      {"patient", [] { return new Patient; }},
      {"stopthrows", [] { return new StopThrows; }},
      {"stubborn", [] { return new Stubborn; }},
      {"stuckstop", [] { return new StuckStop; }},
      {"nameless", [] { return new Nameless; }},
      {"depsthrow", [] { return new DepsThrow; }},
      {"entrythrows", []() -> DKPlugIn* { throw std::runtime_error("the plug-in cannot be made"); }},
  };
  const auto maker = makers.find(kind);
  return maker == makers.end() ? nullptr : maker->second();
}
