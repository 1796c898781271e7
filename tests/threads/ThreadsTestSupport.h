// Helpers of the threads suites: work on another thread, names unique to this test process,
// and the helper program that plays the other process.
#pragma once

#include <DorvikCore/DKError.h>
#include <DorvikCore/DKString.h>

#include "support/DKChildProcess.h"

#include <chrono>
#include <iostream>
#include <string>
#include <thread>

#include <unistd.h>

// Runs f on a thread of its own and returns its result.
template <class F>
auto OnOtherThread(F f) {
  decltype(f()) result{};
  std::thread([&] { result = f(); }).join();
  return result;
}

// A name for a named object that no other test process uses.
inline std::string UniqueName(const std::string& base) {
  return "DKThreadsTest-" + std::to_string(getpid()) + "-" + base;
}

// Runs the helper program with the arguments through the shell and returns its exit code, or
// 128 + the signal that ended it. shellPrefix goes before the command as a shell reads it:
// environment assignments, or settings such as "ulimit -v 1000;".
inline int RunHelper(const std::string& arguments, const std::string& shellPrefix = std::string()) {
  dktest::Child helper({"/bin/sh", "-c", shellPrefix + " '" DK_THREADS_HELPER_PATH "' " + arguments}, std::string());
  const int code = helper.Finish();
  if (!helper.Output().empty())
    std::cerr << helper.Output();
  return code;
}
