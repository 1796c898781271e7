// Helpers of the threads suites: work on another thread, names unique to this test process,
// and the helper program that plays the other process.
#pragma once

#include <DorvikCore/DKError.h>
#include <DorvikCore/DKString.h>

#include "support/DKTestSupport.h"

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include <sys/wait.h>
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

// Runs the helper program with the arguments and returns its exit code, or -1 when it did not
// exit normally. shellPrefix goes before the command as a shell reads it: environment
// assignments, or settings such as "ulimit -v 1000;".
inline int RunHelper(const std::string& arguments, const std::string& shellPrefix = std::string()) {
  const std::string command = shellPrefix + " '" DK_THREADS_HELPER_PATH "' " + arguments;
  const int status = std::system(command.c_str());
  return status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
