// Plug-ins made in code: interfaces, counting, adding, dependency order and initialisation,
// running, unloading. (The host test runs real modules in a child process.)

#include "AppTestSupport.h"
#include "support/DKCaseFile.h"

#include <functional>
#include <stdexcept>

using namespace apptest;

namespace {

// What the plug-ins did, in order: "Init A", "Run A", "Unload A", "Gone A".
std::vector<std::string>& Journal() {
  static std::vector<std::string> journal;
  return journal;
}

class Probe : public DKRunPlugIn {
public:
  Probe(const char* name, std::uint8_t id, std::vector<PlugInIdEx> dependencies = {})
      : m_name(name), m_id(Id(id)), m_dependencies(std::move(dependencies)) {}
  ~Probe() override { Journal().push_back("Gone " + m_name); }
  DKString GetName() const override { return Text(m_name); }
  PlugInIdEx GetId() const override { return PlugInIdEx(m_id, GetName()); }
  std::vector<PlugInIdEx> GetDependentV() const override { return m_dependencies; }
  DKErrorID Init(const DKApplicationWithPlugIns&) override {
    Journal().push_back("Init " + m_name);
    return DKErrorID();
  }
  DKErrorID Run() override {
    Journal().push_back("Run " + m_name);
    return DKErrorID();
  }
  void Unload() override { Journal().push_back("Unload " + m_name); }

private:
  std::string m_name;
  DKGuid m_id;
  std::vector<PlugInIdEx> m_dependencies;
};

// A container; makeMembers, when given, makes its member list at every call.
class Crate : public DKPlugInContainer {
public:
  explicit Crate(const char* name = "Crate", std::uint8_t id = 50,
                 std::function<DKSmartPtrVector<DKPlugIn>(const Crate&)> makeMembers = nullptr, bool unloadThrows = false)
      : m_name(name), m_id(Id(id)), m_makeMembers(std::move(makeMembers)), m_unloadThrows(unloadThrows) {}
  DKString GetName() const override { return Text(m_name); }
  PlugInIdEx GetId() const override { return PlugInIdEx(m_id); }
  DKSmartPtrVector<DKPlugIn> GetPlugInList() const override {
    return m_makeMembers ? m_makeMembers(*this) : DKPlugInContainer::GetPlugInList();
  }
  void Unload() override {
    Journal().push_back("Unload " + m_name);
    if (m_unloadThrows)
      throw std::runtime_error("boom");
  }

private:
  std::string m_name;
  DKGuid m_id;
  std::function<DKSmartPtrVector<DKPlugIn>(const Crate&)> m_makeMembers;
  bool m_unloadThrows;
};

// A run plug-in that throws from the member named at construction.
class Thrower : public Probe {
public:
  explicit Thrower(std::string member) : Probe("Thrower", 80), m_member(std::move(member)) {}
  DKString GetName() const override { return Throws("GetName"), Probe::GetName(); }
  PlugInIdEx GetId() const override { return Throws("GetId"), PlugInIdEx(Id(80)); }
  bool IsRunningPlugIn() const override { return Throws("IsRunningPlugIn"), Probe::IsRunningPlugIn(); }
  bool IsContainerPlugIn() const override { return Throws("IsContainerPlugIn"), Probe::IsContainerPlugIn(); }
  DKUsageInfo GetUsageInfo() const override { return Throws("GetUsageInfo"), Probe::GetUsageInfo(); }
  std::vector<PlugInIdEx> GetDependentV() const override { return Throws("GetDependentV"), Probe::GetDependentV(); }
  Status GetStatus() const override { return Throws("GetStatus"), Probe::GetStatus(); }
  DKSmartPtr<DKObjectI> QueryInterface(int iuid) const override {
    return Throws("QueryInterface"), Probe::QueryInterface(iuid);
  }
  DKErrorID Init(const DKApplicationWithPlugIns& app) override { return Throws("Init"), Probe::Init(app); }
  void Unload() override { Throws("Unload"), Probe::Unload(); }

protected:
  void RequestExit(bool wait) override { Throws("RequestExit"), Probe::RequestExit(wait); }

private:
  int Throws(const char* member) const {
    if (m_member == member)
      throw std::runtime_error("boom");
    return 0;
  }
  std::string m_member;
};

// Exposes the protected steps.
class TestApp : public DKApplicationWithPlugIns {
public:
  TestApp() : DKApplicationWithPlugIns(DKString(DK_T("host"))) {}
  using DKApplicationWithPlugIns::AddPlugIn;
  using DKApplicationWithPlugIns::CheckDependents;
  using DKApplicationWithPlugIns::GetPlugInHier;
};

class DKPlugInTest : public ConsoleTest {
protected:
  void SetUp() override { Clear(); }
  void Clear() {
    Journal().clear();
    m_console.Clear();
  }
};

std::vector<std::string> Names(const DKSmartPtrVector<DKPlugIn>& plugIns) {
  std::vector<std::string> names;
  for (const auto& plugIn : plugIns)
    names.push_back(plugIn->GetName().AsUTF8());
  return names;
}

TEST_F(DKPlugInTest, EachClassAnswersForItsInterfacesAndItsBases) {
  DKSmartPtr<DKPlugIn> run(new Probe("R", 61));
  DKSmartPtr<DKPlugIn> threaded(new Patient);
  DKSmartPtr<DKPlugIn> container(new Crate);
  struct Case {
    DKPlugIn* plugIn;
    int iuid;
    bool runKind, threadedKind, containerKind;
  } cases[] = {
      {run.Get(), DKRunPlugIn::IUID, true, false, false},
      {threaded.Get(), DKThreadedRunPlugIn::IUID, true, true, false},
      {container.Get(), DKPlugInContainer::IUID, false, false, true},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.plugIn->GetIUID(), c.iuid);
    EXPECT_TRUE(c.plugIn->IsKindOf(DKObjectI::IUID));
    EXPECT_TRUE(c.plugIn->IsKindOf(DKPlugIn::IUID));
    EXPECT_EQ(c.plugIn->IsKindOf(DKRunPlugIn::IUID), c.runKind);
    EXPECT_EQ(DKQueryInterface<DKThreadedRunPlugIn>(c.plugIn).Get() != nullptr, c.threadedKind);
    EXPECT_EQ(DKQueryInterface<DKPlugInContainer>(c.plugIn).Get() != nullptr, c.containerKind);
  }
  EXPECT_EQ(DKQueryInterface<DKRunPlugIn>(nullptr).Get(), nullptr);
}

TEST_F(DKPlugInTest, HierarchyPutsDependenciesFirstAndDescribesCycles) {
  TestApp app;
  const auto make = [](const char* name, std::uint8_t id, std::vector<std::uint8_t> deps) {
    std::vector<PlugInIdEx> ids;
    for (std::uint8_t dep : deps)
      ids.emplace_back(Id(dep));
    return DKSmartPtr<DKPlugIn>(new Probe(name, id, ids));
  };
  std::vector<DKString> cycles;
  const DKSmartPtrVector<DKPlugIn> chain{make("A", 1, {2, 99}), make("B", 2, {3}), make("C", 3, {}), make("D", 4, {3})};
  EXPECT_EQ(Names(app.GetPlugInHier(chain, &cycles)), (std::vector<std::string>{"C", "B", "A", "D"}));
  EXPECT_TRUE(cycles.empty());

  const DKSmartPtrVector<DKPlugIn> loops{make("A", 1, {2}), make("B", 2, {1}), make("S", 3, {3}), make("E", 4, {})};
  const DKSmartPtrVector<DKPlugIn> ordered = app.GetPlugInHier(loops, &cycles);
  EXPECT_EQ(ordered.size(), 4u) << "every plug-in is listed once";
  ASSERT_EQ(cycles.size(), 2u);
  EXPECT_EQ(cycles[0], DKString(DK_T("A -> B -> A")));
  EXPECT_EQ(cycles[1], DKString(DK_T("S -> S")));
}

TEST_F(DKPlugInTest, LoadPlugInAddsAndInitialisesOnceAndRefusesATakenId) {
  TestApp app;
  DKSmartPtr<DKPlugIn> base(new Probe("Base", 1));
  DKSmartPtr<DKPlugIn> user(new Probe("User", 2, {PlugInIdEx(Id(1), DK_T("Base"))}));
  const DKErrorID early = app.LoadPlugIn(user);
  EXPECT_EQ(early.AsString().AsUTF8(), "<User> needs <Base> {C0DE0000-0000-0000-0000-000000000001}, which is not loaded");
  EXPECT_TRUE(ConsoleHas("ERR> *** " + early.AsString().AsUTF8()));

  EXPECT_TRUE(app.LoadPlugIn(base).Good());
  EXPECT_TRUE(app.LoadPlugIn(user).Good());
  EXPECT_TRUE(app.LoadPlugIn(user).Good()) << "loaded already: nothing to do";
  EXPECT_EQ(Journal(), (std::vector<std::string>{"Init Base", "Init User"}));
  EXPECT_EQ(user->GetStatus(), DKPlugIn::Initialized);
  EXPECT_EQ(app.FindPlugIn(Id(2)), user);
  EXPECT_TRUE(app.CheckDependents(user, true).Good());

  // A second plug-in with a taken id is refused (the line it prints: host_runs.txt); the same
  // object again is no duplicate.
  EXPECT_EQ(app.AddPlugIn(new Probe("Second", 1), false).GetCode(), DK_MSG_DUPLICATE_PLUGIN_ID);
  EXPECT_TRUE(app.AddPlugIn(base, false).Good());
  EXPECT_EQ(Names(app.GetLoadedPlugIns()), (std::vector<std::string>{"Base", "User"}));
}

// A quit request ends the run of a second application of the process too: the process
// announced its exit already, but this application's plug-ins were not asked yet. The exit
// flag cannot be cleared, so this runs in a child process.
TEST_F(DKPlugInTest, QuitRequestReachesThePlugInsOfEveryApplication) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        { TestApp first; } // announces the process's exit as it goes
        DKSmartPtr<Patient> patient(new Patient(true));
        int failure = 0;
        {
          TestApp app;
          if (app.LoadPlugIn(patient).Bad())
            std::exit(10);
          std::thread runner([&app] { app.Run(); });
          if (!WaitUntil([&] { return patient->IsRunning(); }) || patient->GetStatus() != DKPlugIn::Running ||
              !patient->GetThread())
            failure = 11;
          DKApplication::PostExitRequest();
          if (!WaitUntil([&] { return patient->m_stops.load() == 1; }))
            failure = 12;
          // The plug-in ignores the request: the run goes on until the plug-in ends by itself.
          if (!patient->IsRunning() || patient->m_finishedRun.load())
            failure = 13;
          patient->m_stop.store(true);
          runner.join();
        }
        // Finished, although its run reported an error.
        if (!patient->m_finishedRun.load() || patient->GetStatus() != DKPlugIn::Finished || patient->IsRunning())
          failure = 14;
        std::exit(failure);
      },
      ::testing::ExitedWithCode(0), "");
}

// Whatever member of a plug-in throws, that plug-in alone fails (with the member named) and
// the host goes on: the other plug-in is run and unloaded, and the application ends normally
// (the members and what each case shows: tests/app/cases/plugin_throwers.txt).
TEST_F(DKPlugInTest, APlugInThrowingFromAnyMemberFailsAloneAndTheHostGoesOn) {
  for (const auto& c : dktest::ReadCases(fs::path(DK_APP_CASES) / "plugin_throwers.txt", 4)) {
    SCOPED_TRACE(c.where);
    Clear();
    {
      TestApp app;
      ASSERT_TRUE(app.LoadPlugIn(new Probe("Good", 1)).Good());
      EXPECT_EQ(app.LoadPlugIn(new Thrower(c[0])).Good(), c.YesNo(1));
      EXPECT_EQ(app.Run(), 1);
    }
    const auto& journal = Journal();
    EXPECT_EQ(std::count(journal.begin(), journal.end(), "Run Thrower"), c.YesNo(2) ? 1 : 0);
    for (const char* entry : {"Run Good", "Unload Good", "Gone Good", "Gone Thrower"})
      EXPECT_EQ(std::count(journal.begin(), journal.end(), entry), 1) << entry;
    EXPECT_TRUE(ConsoleHas(c[3])) << Console();
    EXPECT_TRUE(ConsoleHas("Exiting application..."));
  }
}

// Containers that hold themselves, directly, through another container or as a fresh object
// with their own id, are refused with the chain instead of being expanded for ever; so is a
// container that makes ever new ones. Members added before the refusal stay; nested members
// are initialised; a container whose own calls throw is reported.
TEST_F(DKPlugInTest, ContainersHandOverTheirMembersAndCyclesAndFailingOnesAreRefusedWithTheirChain) {
  const auto probe = [](const char* name, std::uint8_t id) { return DKSmartPtr<DKPlugIn>(new Probe(name, id)); };
  const auto crate = [](const char* name, std::uint8_t id, std::function<DKSmartPtrVector<DKPlugIn>(const Crate&)> make) {
    return DKSmartPtr<DKPlugIn>(new Crate(name, id, std::move(make)));
  };
  std::function<DKSmartPtrVector<DKPlugIn>(const Crate&)> endless = [&](const Crate& self) {
    const std::uint8_t next = static_cast<std::uint8_t>(self.GetId().GetGuid().Data4()[7] + 1);
    return DKSmartPtrVector<DKPlugIn>{crate("Endless", next, endless)};
  };
  const struct {
    const char* label;
    DKSmartPtr<DKPlugIn> container;
    const char* error; // the whole error, or empty for success
    std::vector<std::string> initialised;
  } cases[] = {
      {"lists itself",
       crate("Self", 51, [&](const Crate& self) { return DKSmartPtrVector<DKPlugIn>{probe("Before", 1), const_cast<Crate*>(&self)}; }),
       "Plug-in container cycle: Self -> Self", {"Init Before"}},
      {"through another container",
       crate("Outer", 52,
             [&](const Crate& self) {
               DKSmartPtr<DKPlugIn> outer(const_cast<Crate*>(&self));
               return DKSmartPtrVector<DKPlugIn>{crate("Inner", 53, [outer](const Crate&) { return DKSmartPtrVector<DKPlugIn>{outer}; })};
             }),
       "Plug-in container cycle: Outer -> Inner -> Outer", {}},
      {"a fresh copy with its id", crate("Copy", 54, [&](const Crate&) { return DKSmartPtrVector<DKPlugIn>{crate("Copy", 54, nullptr)}; }),
       "Plug-in container cycle: Copy -> Copy", {}},
      {"ever new containers", crate("Endless", 100, endless), "Plug-in containers nested more than 64 deep, at <Endless>", {}},
      {"nested members", crate("Outer", 55, [&](const Crate&) {
                           return DKSmartPtrVector<DKPlugIn>{crate("Inner", 56, [&](const Crate&) {
                             return DKSmartPtrVector<DKPlugIn>{probe("Deep", 2)};
                           }), probe("Shallow", 3)};
                         }),
       "", {"Init Deep", "Init Shallow"}},
      {"member list throws", crate("Broken", 57, [](const Crate&) -> DKSmartPtrVector<DKPlugIn> { throw std::runtime_error("boom"); }),
       "<Broken>: GetPlugInList threw: boom", {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    Clear();
    TestApp app;
    const DKErrorID result = app.LoadPlugIn(c.container);
    EXPECT_EQ(result.Good() ? std::string() : result.AsString().AsUTF8(), c.error);
    if (*c.error) {
      EXPECT_TRUE(ConsoleHas(std::string("ERR> *** ") + c.error)) << Console();
    }
    std::vector<std::string> initialised;
    for (const std::string& entry : Journal())
      if (entry.rfind("Init ", 0) == 0)
        initialised.push_back(entry);
    EXPECT_EQ(initialised, c.initialised);
    EXPECT_EQ(app.FindPlugIn(c.container->GetId().GetGuid()), nullptr) << "a container is never kept";
  }

  // A container hands over its members (in dependency order for their initialisation) and is
  // dropped, even when its Unload throws.
  Journal().clear();
  TestApp app;
  DKSmartPtr<Crate> leaky(new Crate("Leaky", 58, nullptr, true));
  leaky->AddPlugIn(new Probe("Second", 2, {PlugInIdEx(Id(1))}));
  leaky->AddPlugIn(new Probe("First", 1));
  leaky->AddPlugIn(nullptr);
  EXPECT_TRUE(app.LoadPlugIn(leaky).Good()) << "its members are loaded all the same";
  EXPECT_TRUE(ConsoleHas("ERR> *** <Leaky>: Unload threw: boom")) << Console();
  EXPECT_EQ(Names(app.GetLoadedPlugIns()), (std::vector<std::string>{"Second", "First"}));
  EXPECT_EQ(Journal(), (std::vector<std::string>{"Unload Leaky", "Init First", "Init Second"}));
}

} // namespace
