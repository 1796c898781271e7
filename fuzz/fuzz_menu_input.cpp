// Fuzzes the interactive test menu with arbitrary input: the bytes are what the user types into
// a small tree of tests and sub-menus.
//
// Properties checked besides "no crash, no hang, no exception":
//   - the menu asks at most once per line of input, plus once for the end of the input;
//   - every test that ran wrote one PASS or FAIL line, and the result counts exactly those;
//   - the tests that pass and fail are the ones that were built to.
#include "FuzzCheck.h"

#include <DorvikCore/DKError.h>
#include <DorvikCore/DKUnitTest.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <string>

namespace {

std::size_t g_passes = 0;
std::size_t g_failures = 0;

// Fuzz: 1 Pass, 2 Fail, 3 Throw, 4 Scope > (1 Pass, 2 Deep > (1 Fail)), 5 Empty >
const DKUnitTest& Tree() {
  static const DKUnitTest* const tree = [] {
    auto* root = new DKUnitTest(DK_T("Fuzz"));
    const auto pass = [] { ++g_passes; };
    const auto fail = [] {
      ++g_failures;
      return DKErrorID(DKSmartPtr<DKErrorString>(new DKErrorString(DK_T("fails"))));
    };
    // The names are distinct: adding cannot fail.
    root->AddTest(DK_T("Pass"), pass).IgnoreError();
    root->AddTest(DK_T("Fail"), fail).IgnoreError();
    root->AddTest(DK_T("Throw"), [] {
          ++g_failures;
          throw std::runtime_error("throws");
        }).IgnoreError();
    DKUnitTest& scope = root->AddMenu(DK_T("Scope"));
    scope.AddTest(DK_T("Pass"), pass).IgnoreError();
    scope.AddMenu(DK_T("Deep")).AddTest(DK_T("Fail"), fail).IgnoreError();
    root->AddMenu(DK_T("Empty"));
    return root;
  }();
  return *tree;
}

std::size_t Count(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
    ++count;
  return count;
}

bool StartsWith(const std::string& text, const std::string& start) { return text.compare(0, start.size(), start) == 0; }
bool EndsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// Checks the result lines of the output (the user's text is echoed only inside "Invalid
// choice" lines, so it cannot pass for one) and counts them.
void CheckResultLines(const std::string& shown, std::size_t& passed, std::size_t& failed) {
  std::istringstream lines(shown);
  for (std::string line; std::getline(lines, line);) {
    while (StartsWith(line, "Choice: "))
      line.erase(0, 8);
    if (StartsWith(line, "PASS Fuzz/")) {
      FUZZ_CHECK(EndsWith(line, "/Pass"));
      ++passed;
    } else if (StartsWith(line, "FAIL Fuzz/")) {
      FUZZ_CHECK(EndsWith(line, "/Fail: fails") || EndsWith(line, "/Throw: exception: throws"));
      ++failed;
    }
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::istringstream in(text);
  std::ostringstream out;
  g_passes = g_failures = 0;

  const DKUnitTest::Result result = Tree().RunInteractive(in, out);

  const std::string shown = out.str();
  std::size_t lines = 0;
  for (const char c : text)
    lines += c == '\n';
  FUZZ_CHECK(Count(shown, "\nChoice: ") <= lines + 2);
  FUZZ_CHECK(result.passed == g_passes && result.failed == g_failures);
  std::size_t passed = 0;
  std::size_t failed = 0;
  CheckResultLines(shown, passed, failed);
  FUZZ_CHECK(passed == result.passed && failed == result.failed);
  return 0;
}
