// DKUnitTest: a tree of named checks (test cases) and scopes (sub-menus), run unattended with
// RunAll or driven by hand through a numbered text menu with RunInteractive.
//
//   DKUnitTest& storage = app.GetMainMenu().AddMenu(DK_T("Storage"));
//   storage.AddTest(DK_T("Reload"), [this] { return m_store.Reload(); });     // DKErrorID result
//   storage.AddTest(DK_T("Compact"), [this] { m_store.Compact(); });          // fails by throwing
//   DKUnitTest::Result result = app.GetMainMenu().RunAll(std::cout);
//
// RunAll writes one line per test, "PASS host/Storage/Reload" or "FAIL host/Storage/Compact: why",
// then a summary. A test fails when it returns a bad DKErrorID (the error's text is the reason)
// or when an exception escapes it (DKException, std::exception: their text; anything else:
// "unknown exception"). A failing test never ends the run.
//
// Adding is safe from any thread, also while the menu runs on another one: each run looks at
// the entries present when it reaches their level. A sub-menu lives as long as its parent (or
// until Clear), so the reference AddMenu returns may be kept.
#pragma once

#include <DorvikCore/DKError.h>
#include <DorvikCore/DKExport.h>
#include <DorvikCore/DKString.h>

#include <cstddef>
#include <functional>
#include <iosfwd>
#include <memory>
#include <mutex>
#include <type_traits>
#include <utility>
#include <vector>

// One menu: a name and its entries, tests and sub-menus, in order of addition. The top menu
// belongs to its creator (the application has one); sub-menus belong to their parent.
class DK_EXPORT DKUnitTest {
public:
  // A test that reports through its result: a bad DKErrorID is a failure.
  using ErrorTest = std::function<DKErrorID()>;
  // A test that fails only by throwing.
  using VoidTest = std::function<void()>;

  // The count of a run.
  struct Result {
    std::size_t passed = 0; // Tests that passed.
    std::size_t failed = 0; // Tests that failed.

    // Tests run.
    std::size_t Total() const noexcept { return passed + failed; }
    // True when no test failed (also when none ran).
    bool AllPassed() const noexcept { return failed == 0; }
    // Adds the counts of another run.
    Result& operator+=(const Result& other) noexcept {
      passed += other.passed;
      failed += other.failed;
      return *this;
    }
  };

  // The longest line RunInteractive accepts as a choice, in bytes.
  static constexpr std::size_t MaxChoiceLine = 64;

  // An empty menu; the name starts each path in the result lines.
  explicit DKUnitTest(const DKString& name);
  // Destroys the menu with its sub-menus; references to them become invalid.
  ~DKUnitTest();
  // Not copyable: sub-menus are handed out by reference.
  DKUnitTest(const DKUnitTest&) = delete;
  DKUnitTest& operator=(const DKUnitTest&) = delete;

  // The menu's name.
  const DKString& GetName() const noexcept { return m_name; }

  // Appends a test. Refused (DK_MSG_INVALID_ARGUMENT, naming the menu and the entry) when the
  // name is empty, when the test is empty, or when an entry of this level (a test or a
  // sub-menu) has the name already, compared without regard to case: every path is unique.
  DKErrorID AddTest(const DKString& name, ErrorTest test);
  DKErrorID AddTest(const DKString& name, VoidTest test);
  // Any other callable without arguments: one returning a DKErrorID is an ErrorTest, one
  // returning nothing a VoidTest.
  template <class F>
    requires(std::is_invocable_v<F&> && !std::is_same_v<std::decay_t<F>, ErrorTest> &&
             !std::is_same_v<std::decay_t<F>, VoidTest>)
  DKErrorID AddTest(const DKString& name, F&& test) {
    using R = std::invoke_result_t<F&>;
    static_assert(std::is_void_v<R> || std::is_convertible_v<R, DKErrorID>,
                  "a test returns nothing (it fails by throwing) or a DKErrorID");
    if constexpr (std::is_void_v<R>)
      return AddTest(name, VoidTest(std::forward<F>(test)));
    else
      return AddTest(name, ErrorTest(std::forward<F>(test)));
  }

  // The sub-menu of this name, appended when there is none yet (names compared without regard
  // to case), so that several plug-ins can fill one scope. Throws DKException when the name is
  // empty or belongs to a test of this level.
  DKUnitTest& AddMenu(const DKString& name);
  // The sub-menu of this name; null when there is none.
  DKUnitTest* FindMenu(const DKString& name) const;

  // Number of entries (tests and sub-menus) of this level.
  std::size_t GetEntryCount() const;
  // Removes every entry. References to removed sub-menus become invalid; a run under way
  // finishes with the entries it had reached.
  void Clear();

  // Runs every test depth first in the order of addition and writes one line per test, then
  // "<name>: <n> run, <p> passed, <f> failed".
  Result RunAll(std::ostream& out) const;

  // Shows the entries of a level, numbered from 1 (a sub-menu ends with " >"), and reads one
  // choice a line: a number runs that test or opens that sub-menu, "a" runs everything under
  // the level, "0" goes back one level (leaves at the top), "q" leaves at once. Anything else
  // is answered with a message and the menu again. End of input leaves every level at once;
  // so does stop when it answers true (asked before each choice). Returns what ran.
  Result RunInteractive(std::istream& in, std::ostream& out, const std::function<bool()>& stop = {}) const;

private:
  struct Entry;
  using EntryList = std::vector<std::shared_ptr<const Entry>>;

  DKErrorID Add(const DKString& name, ErrorTest test);
  DKErrorID EmptyTest(const DKString& name) const;
  // The entries as they are now.
  EntryList Snapshot() const;
  std::shared_ptr<const Entry> FindEntry(const DKString& name) const;
  Result RunAll(const DKString& path, std::ostream& out) const;
  // The menu of a level and the prompt.
  static void ShowLevel(const DKString& path, const EntryList& entries, bool top, std::ostream& out);

  const DKString m_name;
  mutable std::mutex m_lock; // guards m_entries
  EntryList m_entries;
};
