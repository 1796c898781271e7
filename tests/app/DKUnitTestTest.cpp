// The test menu: adding, unattended and interactive runs, adding while a run goes on, and the
// plug-in application's main menu.
#include "AppTestSupport.h"
#include "support/DKCaseFile.h"

#include <DorvikCore/DKException.h>
#include <DorvikCore/DKUnitTest.h>

#include <atomic>
#include <cstdio>
#include <iostream>
#include <stdexcept>
#include <thread>

using namespace apptest;

namespace {

// Main: 1 A, 2 Sub > (1 B fails, 2 Inner > (1 C)). The tests note their names in ran.
struct Tree {
  Tree() : main(DK_T("Main")) {
    EXPECT_TRUE(main.AddTest(DK_T("A"), [this] { ran.push_back("A"); }).Good());
    DKUnitTest& sub = main.AddMenu(DK_T("Sub"));
    EXPECT_TRUE(sub.AddTest(DK_T("B"), [this] { return ran.push_back("B"), ErrorText("no"); }).Good());
    EXPECT_TRUE(sub.AddMenu(DK_T("Inner")).AddTest(DK_T("C"), [this] { ran.push_back("C"); }).Good());
  }
  std::vector<std::string> ran;
  DKUnitTest main;
};

TEST(DKUnitTestRun, RunsDepthFirstInOrderOfAdditionAndNamesEachPath) {
  Tree tree;
  // A second plug-in opening the same scope adds to it, in its place.
  DKUnitTest& sub = tree.main.AddMenu(DK_T("SUB"));
  ASSERT_EQ(&sub, tree.main.FindMenu(DK_T("sub")));
  ASSERT_TRUE(sub.AddTest(DK_T("Late"), [&] { tree.ran.push_back("Late"); }).Good());
  std::ostringstream out;
  const DKUnitTest::Result result = tree.main.RunAll(out);
  EXPECT_EQ(tree.ran, (std::vector<std::string>{"A", "B", "C", "Late"}));
  EXPECT_EQ(SplitLines(out.str()),
            (std::vector<std::string>{"PASS Main/A", "FAIL Main/Sub/B: no", "PASS Main/Sub/Inner/C",
                                      "PASS Main/Sub/Late", "Main: 4 run, 3 passed, 1 failed"}));
  EXPECT_EQ(result.passed, 3u);
  EXPECT_EQ(result.failed, 1u);
}

TEST(DKUnitTestRun, EveryKindOfFailureIsReportedWithItsReasonAndTheRunGoesOn) {
  const auto throws = [](auto thrown) -> DKUnitTest::ErrorTest { return [thrown]() -> DKErrorID { throw thrown; }; };
  const struct {
    const char* name;
    DKUnitTest::ErrorTest test;
    const char* line;
  } cases[] = {
      {"ok", [] { return DKErrorID(); }, "PASS M/ok"},
      {"bad id", [] { return ErrorText("disk full"); }, "FAIL M/bad id: disk full"},
      {"library error",
       [] {
         DKSmartPtr<DKErrorWithArgs> invalid = DKLibraryError(DK_MSG_INVALID_DATE);
         invalid->AddParam(DKString(DK_T("31.02")));
         return DKErrorID(invalid);
       },
       "FAIL M/library error: Invalid date: 31.02"},
      {"no text", [] { return ErrorText(""); }, "FAIL M/no text: error -1"},
      {"DKException", throws(DKException(DK_T("inside###***###locked"), true)),
       "FAIL M/DKException: exception: locked"},
      {"std", throws(std::runtime_error("boom")), "FAIL M/std: exception: boom"},
      {"other", throws(7), "FAIL M/other: unknown exception"},
      {"lines", throws(std::runtime_error("1\r\n2\n3")), "FAIL M/lines: exception: 1 2 3"},
  };
  DKUnitTest menu(DK_T("M"));
  std::vector<std::string> expected;
  for (const auto& c : cases) {
    ASSERT_TRUE(menu.AddTest(Text(c.name), c.test).Good()) << c.name;
    expected.push_back(c.line);
  }
  // Tests that return nothing fail by throwing.
  ASSERT_TRUE(menu.AddTest(DK_T("void"), [] { throw std::logic_error("thrown"); }).Good());
  ASSERT_TRUE(menu.AddTest(DK_T("void ok"), [] {}).Good());
  expected.insert(expected.end(),
                  {"FAIL M/void: exception: thrown", "PASS M/void ok", "M: 10 run, 2 passed, 8 failed"});
  std::ostringstream out;
  menu.RunAll(out);
  EXPECT_EQ(SplitLines(out.str()), expected);
}

TEST(DKUnitTestAdd, RefusesWhatWouldMakeAPathAmbiguousAndKeepsWhatWasThere) {
  Tree tree;
  const auto again = [&] { tree.ran.push_back("again"); };
  const struct {
    DKErrorID refused;
    const char* text;
  } cases[] = {
      {tree.main.AddTest(DK_T("a"), again), "menu <Main> has an entry named <A> already"},
      {tree.main.AddTest(DK_T("SUB"), again), "menu <Main> has an entry named <Sub> already"},
      {tree.main.AddTest(DKString(), again), "a test of menu <Main> has no name"},
      {tree.main.AddTest(DK_T("E"), DKUnitTest::ErrorTest()), "the test <E> of menu <Main> is empty"},
      {tree.main.AddTest(DK_T("E"), DKUnitTest::VoidTest()), "the test <E> of menu <Main> is empty"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.refused.GetCode(), DK_MSG_INVALID_ARGUMENT) << c.text;
    EXPECT_EQ(c.refused.AsString().AsUTF8(), std::string("Invalid argument: ") + c.text);
  }
  EXPECT_THROW(tree.main.AddMenu(DK_T("a")), DKException) << "a test cannot become a scope";
  EXPECT_THROW(tree.main.AddMenu(DKString()), DKException);
  EXPECT_EQ(tree.main.FindMenu(DK_T("A")), nullptr);
  EXPECT_EQ(tree.main.GetEntryCount(), 2u);

  // A scope stays where it is however many entries follow.
  DKUnitTest* const sub = tree.main.FindMenu(DK_T("Sub"));
  for (int i = 0; i < 100; ++i)
    tree.main.AddMenu(Text("More " + std::to_string(i)));
  EXPECT_EQ(&tree.main.AddMenu(DK_T("Sub")), sub);
  tree.main.Clear();
  EXPECT_EQ(tree.main.GetEntryCount(), 0u);
  EXPECT_TRUE(tree.main.AddTest(DK_T("A"), again).Good()) << "the name is free again";
}

// Runs the tree on the input: the tests run (names separated by blanks), how many failed, how
// many prompts were shown, and a part of the output.
void ExpectInteractive(const std::string& label, const std::string& input, const std::string& ran,
                       std::int64_t failed, std::int64_t prompts, const std::string& shown) {
  Tree tree;
  std::istringstream in(input);
  std::ostringstream out;
  const DKUnitTest::Result result = tree.main.RunInteractive(in, out);
  std::string names;
  for (const std::string& name : tree.ran)
    names += (names.empty() ? "" : " ") + name;
  EXPECT_EQ(names, ran) << label;
  EXPECT_EQ(result.Total(), tree.ran.size()) << label;
  EXPECT_EQ(result.failed, static_cast<std::size_t>(failed)) << label;
  const std::string text = out.str();
  std::int64_t shownPrompts = 0;
  for (auto at = text.find("Choice: "); at != std::string::npos; at = text.find("Choice: ", at + 1))
    ++shownPrompts;
  EXPECT_EQ(shownPrompts, prompts) << label;
  EXPECT_NE(text.find(shown), std::string::npos) << label << "\n" << text.substr(0, 2000);
}

TEST(DKUnitTestInteractive, ChoicesRunTestsOpenScopesAndLeave) {
  for (const dktest::CaseLine& c : dktest::ReadCases(fs::path(DK_APP_CASES) / "unittest_menu.txt", 5))
    ExpectInteractive(c.where, c[0], c[1], c.Int(2), c.Int(3), c[4]);
  ExpectInteractive("an overlong line", std::string(65, '1') + "\n" + std::string(1 << 20, '7'), "", 0, 3,
                    "Invalid choice: the line is longer than 64 characters.\n");
}

TEST(DKUnitTestInteractive, StopsWhenAskedAndSurvivesAClearOfAnOpenScope) {
  Tree tree;
  std::istringstream in("1\n1\n");
  std::ostringstream out;
  tree.main.RunInteractive(in, out, [&] { return !tree.ran.empty(); });
  EXPECT_EQ(tree.ran, std::vector<std::string>{"A"}) << "stop is asked before each choice";

  tree.ran.clear();
  EXPECT_TRUE(tree.main.FindMenu(DK_T("Sub"))->AddTest(DK_T("Clear"), [&] { tree.main.Clear(); }).Good());
  std::istringstream clearing("2\n3\n2\n1\n0\n0\n");
  EXPECT_EQ(tree.main.RunInteractive(clearing, out).passed, 2u);
  EXPECT_EQ(tree.ran, std::vector<std::string>{"C"}) << "the open scope lives on until it is left";
  EXPECT_NE(out.str().find("== Main ==\n  (no entries)\n"), std::string::npos);
}

// Adding from two threads while the tree runs: meaningful under ThreadSanitizer.
TEST(DKUnitTestThreads, AddingWhileRunningNeitherCrashesNorLosesEntries) {
  constexpr int kPerWriter = 150;
  DKUnitTest main(DK_T("Main"));
  std::atomic<int> runs{0};
  std::atomic<int> done{0};
  DKUnitTest* shared[2] = {};
  std::vector<std::thread> writers;
  for (int w = 0; w < 2; ++w)
    writers.emplace_back([&, w] {
      shared[w] = &main.AddMenu(DK_T("Shared"));
      for (int i = 0; i < kPerWriter; ++i)
        EXPECT_TRUE(main.AddMenu(Text("S" + std::to_string(i % 7)))
                        .AddTest(Text(std::to_string(w) + "-" + std::to_string(i)), [&] { ++runs; })
                        .Good());
      ++done;
    });
  for (int rounds = 0; done.load() < 2 || rounds < 2; ++rounds) {
    std::ostringstream out;
    std::istringstream in("a\n3\na\n0\n");
    main.RunAll(out);
    main.RunInteractive(in, out);
  }
  for (std::thread& writer : writers)
    writer.join();
  EXPECT_EQ(shared[0], shared[1]) << "one scope, whichever thread opened it first";
  runs = 0;
  std::ostringstream out;
  EXPECT_EQ(main.RunAll(out).passed, std::size_t{2 * kPerWriter});
  EXPECT_EQ(runs.load(), 2 * kPerWriter);
}

// ---------------------------------------------------------------------------------------------
// The main menu of a plug-in application

// Adds a check to the main menu in Init; it passes only while the patient works.
class Maintenance : public DKPlugIn {
public:
  explicit Maintenance(Patient* worker) : m_worker(worker) {}
  DKString GetName() const override { return DK_T("Maintenance"); }
  PlugInIdEx GetId() const override { return PlugInIdEx(Id(71)); }
  DKErrorID Init(const DKApplicationWithPlugIns& application) override {
    return application.GetMainMenu().AddMenu(DK_T("Tools")).AddTest(DK_T("Check"), [this] {
      ++m_checks;
      return m_worker->IsRunning() ? DKErrorID() : ErrorText("the worker is not running");
    });
  }
  std::atomic<int> m_checks{0};
  Patient* m_worker;
};

using DKUnitTestApp = ConsoleTest;

// The exit flag cannot be cleared, so the run happens in a child process.
TEST_F(DKUnitTestApp, MenuRunsAPlugInsEntryThenTheApplicationStopsItsPlugIns) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        // A run that never returns ends the child instead of hanging the suite.
        static std::atomic<bool> done{false};
        std::thread([] {
          if (!WaitUntil([] { return done.load(); }))
            std::_Exit(20);
        }).detach();
        // The library reads its own std::cin (on Windows the DLL has its own C++ runtime): the
        // answers come through the standard input itself.
        if (!dktest::FeedStandardInput("1\n1\n0\n0\n"))
          std::_Exit(21);
        DKSmartPtr<Patient> worker(new Patient);
        DKSmartPtr<Maintenance> maintenance(new Maintenance(worker.Get()));
        int failure = 0;
        {
          const char* argv[] = {"/opt/app/host.bin"};
          DKApplicationWithPlugIns app(1, argv);
          app.SetIsRunWithMenu(true);
          if (app.LoadPlugIn(worker).Bad() || app.LoadPlugIn(maintenance).Bad())
            failure = 10;
          else if (app.Run() != 1)
            failure = 11;
          else if (maintenance->m_checks.load() != 1 || worker->m_stops.load() != 1 || worker->IsRunning())
            failure = 12;
          else if (Console().find("== host ==\n  1. Tools >\n") == std::string::npos ||
                   Console().find("PASS host/Tools/Check\n") == std::string::npos ||
                   Console().find(">>>> Quit signal received. Requesting exit to all plug-ins...\n") ==
                       std::string::npos)
            failure = 13;
        }
        done = true;
        if (failure != 0)
          std::fprintf(stderr, "failure %d; console:\n%s\n", failure, Console().c_str());
        std::exit(failure);
      },
      ::testing::ExitedWithCode(0), "");
}

} // namespace
