// Helpers of the application suites: a scratch folder for command lines, a log recorder, a
// console captured for the whole test, and the child runner of tests/support.
#pragma once

#include <DorvikCore/DKConsole.h>
#include <DorvikCore/DKError.h>
#include <DorvikCore/DKLog.h>
#include <DorvikCore/DKString.h>

#include <gtest/gtest.h>

#include "support/DKTestPlatform.h"
#include "support/DKTestSupport.h"

#include <algorithm>
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

using dktest::Child;

} // namespace apptest
