// Helpers of the application suites: a scratch folder for command lines, a log recorder, a
// console captured for the whole test, plug-in ids and a threaded plug-in, and the child runner
// of tests/support.
#pragma once

#include <DorvikCore/DKApplication.h>
#include <DorvikCore/DKConsole.h>
#include <DorvikCore/DKError.h>
#include <DorvikCore/DKLog.h>
#include <DorvikCore/DKString.h>

#include <gtest/gtest.h>

#include "support/DKTestPlatform.h"
#include "support/DKTestSupport.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <string>
#include <vector>

namespace apptest {

namespace fs = std::filesystem;

// A scratch folder whose paths are strings, for building command lines.
class ScratchDir : public ScratchFolder {
public:
  std::string operator/(const std::string& name) const { return (Path() / name).string(); }
};

// Keeps every piece it is given, with its level.
class Recorder : public DKLogSubscriberI {
public:
  void Write(std::uint32_t, std::uint32_t level, std::string_view text) override {
    std::lock_guard guard(m_lock);
    m_pieces.emplace_back(level, std::string(text));
  }
  std::vector<std::pair<std::uint32_t, std::string>> Pieces() const {
    std::lock_guard guard(m_lock);
    return m_pieces;
  }
  std::string Text() const {
    std::string all;
    for (const auto& piece : Pieces())
      all += piece.second;
    return all;
  }

private:
  mutable std::mutex m_lock;
  std::vector<std::pair<std::uint32_t, std::string>> m_pieces;
};

// Captures the console for the length of a test.
class ConsoleTest : public ::testing::Test {
protected:
  std::string Console() const { return m_console.Text(); }
  bool ConsoleHas(const std::string& line) const {
    const auto lines = SplitLines(m_console.Text());
    return std::find(lines.begin(), lines.end(), line) != lines.end();
  }

  ConsoleCapture m_console;
};

// The id of the tests' plug-in number n.
constexpr DKGuid Id(std::uint8_t n) { return DKGuid(0xC0DE0000, 0, 0, {0, 0, 0, 0, 0, 0, 0, n}); }

inline DKErrorID ErrorText(const char* text) {
  return DKErrorID(DKSmartPtr<DKErrorString>(new DKErrorString(Text(text))));
}

// A threaded plug-in that works until asked to stop (or, when it ignores that, until m_stop is
// set), takes a while to finish and then reports an error; it counts how often it was asked.
class Patient : public DKThreadedRunPlugIn {
public:
  explicit Patient(bool ignoreStop = false) : m_ignoreStop(ignoreStop) {}
  DKString GetName() const override { return DK_T("Patient"); }
  PlugInIdEx GetId() const override { return PlugInIdEx(Id(70)); }
  DKErrorID Run() override {
    while (!m_stop.load())
      DKThread::Sleep(1);
    DKThread::Sleep(50); // finishing takes a while: the waiter must wait for it
    m_finishedRun.store(true);
    return ErrorText("run reports an error");
  }
  void Stop() override {
    ++m_stops;
    if (!m_ignoreStop)
      m_stop.store(true);
  }
  std::atomic<bool> m_stop{false};
  std::atomic<bool> m_finishedRun{false};
  std::atomic<int> m_stops{0};
  bool m_ignoreStop;
};

using dktest::Child;

} // namespace apptest
