// Helpers of the application suites: a scratch directory, small file helpers, and a child
// process whose output is read line by line with generous bounds (never a sleep that has to be
// long enough).
#pragma once

#include <DorvikCore/DKConsole.h>
#include <DorvikCore/DKError.h>
#include <DorvikCore/DKLog.h>
#include <DorvikCore/DKString.h>

#include <gtest/gtest.h>

#include "support/DKChildProcess.h"
#include "support/DKTestSupport.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace apptest {

namespace fs = std::filesystem;

// Reached only when something is wrong: a loaded machine under a sanitizer is slow.
// A fresh directory, removed with everything in it at the end of the test.
class ScratchDir {
public:
  ScratchDir() {
    std::string pattern = (fs::temp_directory_path() / "dkapp-XXXXXX").string();
    if (!mkdtemp(pattern.data()))
      ADD_FAILURE() << "mkdtemp failed";
    m_path = fs::canonical(pattern);
  }
  ~ScratchDir() {
    std::error_code ignored;
    fs::permissions(m_path, fs::perms::owner_all, fs::perm_options::add, ignored);
    fs::remove_all(m_path, ignored);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const fs::path& Path() const noexcept { return m_path; }
  std::string operator/(const std::string& name) const { return (m_path / name).string(); }

private:
  fs::path m_path;
};

inline void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary);
  out << content;
  ASSERT_TRUE(out.good()) << path;
}

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

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
  void SetUp() override { m_previous = DKLockedCOUT::SetConsoleStream(&m_console); }
  void TearDown() override { DKLockedCOUT::SetConsoleStream(m_previous); }
  std::string Console() const { return m_console.str(); }
  bool ConsoleHas(const std::string& line) const {
    const auto lines = SplitLines(m_console.str());
    return std::find(lines.begin(), lines.end(), line) != lines.end();
  }

  std::ostringstream m_console;
  std::ostream* m_previous = nullptr;
};

using dktest::Child;

} // namespace apptest
