// Helpers of the threads suites: work on another thread, names unique to this test process,
// and the helper program that plays the other process.
#pragma once

#include <DorvikCore/DKError.h>
#include <DorvikCore/DKException.h>
#include <DorvikCore/DKString.h>
#include <DorvikCore/DKSync.h>

#include "support/DKTestSupport.h"

#include <atomic>
#include <iostream>
#include <map>
#include <string>
#include <thread>
#include <vector>

// A gate that holds the threads behind it until opened, counting those that reached it.
struct Gate {
  DKEventSemaphore open;
  std::atomic<int> waiting{0};

  void Pass() {
    ++waiting;
    open.Wait();
  }
  bool Reached(int n) {
    return WaitUntil([&] { return waiting.load() >= n; });
  }
};

// Runs f on a thread of its own and returns its result.
template <class F>
auto OnOtherThread(F f) {
  decltype(f()) result{};
  std::thread([&] { result = f(); }).join();
  return result;
}

// The text of the DKException that f throws, or "no exception".
template <class F>
std::string ThrownText(F f) {
  try {
    f();
  } catch (const DKException& e) {
    return e.What().AsUTF8();
  }
  return "no exception";
}

// A name for a named object that no other test process uses.
inline std::string UniqueName(const std::string& base) {
  return "DKThreadsTest-" + std::to_string(dktest::CurrentProcessId()) + "-" + base;
}

// Runs a command and returns its exit code (on POSIX 128 + the signal that ended it); what it
// wrote goes to the standard error.
inline int RunChild(const std::vector<std::string>& command, const std::map<std::string, std::string>& set = {}) {
  dktest::Child child(command, std::string(), set);
  const int code = child.Finish();
  if (!child.Output().empty())
    std::cerr << child.Output();
  return code;
}

// Runs the helper program with the arguments, with the variables of set in its environment.
inline int RunHelper(std::vector<std::string> arguments, const std::map<std::string, std::string>& set = {}) {
  arguments.insert(arguments.begin(), DK_THREADS_HELPER_PATH);
  return RunChild(arguments, set);
}
