// Helpers of the application suites: a scratch directory, small file helpers, and a child
// process whose output is read line by line with generous bounds (never a sleep that has to be
// long enough).
#pragma once

#include <DorvikCore/DKConsole.h>
#include <DorvikCore/DKError.h>
#include <DorvikCore/DKLog.h>
#include <DorvikCore/DKString.h>

#include <gtest/gtest.h>

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

// A program run with its standard output and error on one pipe.
class Child {
public:
  Child(const std::vector<std::string>& arguments, const std::string& workingDirectory) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
      ADD_FAILURE() << "pipe2 failed";
      return;
    }
    // Everything the child needs is made before fork: after it, only exec-safe calls.
    std::vector<char*> argv;
    for (const std::string& argument : arguments)
      argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    m_pid = fork();
    if (m_pid == 0) {
      dup2(fds[1], 1);
      dup2(fds[1], 2);
      if (!workingDirectory.empty() && chdir(workingDirectory.c_str()) != 0)
        _exit(126);
      execv(argv[0], argv.data());
      _exit(127);
    }
    close(fds[1]);
    m_fd = fds[0];
  }
  ~Child() {
    if (m_pid > 0 && !m_reaped) {
      kill(m_pid, SIGKILL);
      waitpid(m_pid, nullptr, 0);
    }
    if (m_fd >= 0)
      close(m_fd);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // Reads until the output holds text; false when the output ended or the bound passed first.
  bool WaitFor(const std::string& text) {
    const auto deadline = std::chrono::steady_clock::now() + kGenerousBound;
    while (m_output.find(text) == std::string::npos) {
      if (!ReadSome(deadline))
        return m_output.find(text) != std::string::npos;
    }
    return true;
  }

  void Signal(int signal) { kill(m_pid, signal); }

  // Reads to the end of the output and reaps the child (killed when it outlives the bound).
  // The exit code, or 128 + the signal that ended it.
  int Finish() {
    const auto deadline = std::chrono::steady_clock::now() + kGenerousBound;
    while (ReadSome(deadline)) {
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      ADD_FAILURE() << "the child did not end; output so far:\n" << m_output;
      kill(m_pid, SIGKILL);
    }
    int status = 0;
    waitpid(m_pid, &status, 0);
    m_reaped = true;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  const std::string& Output() const noexcept { return m_output; }
  std::vector<std::string> Lines() const { return SplitLines(m_output); }

private:
  // False at the end of the output or at the deadline.
  bool ReadSome(std::chrono::steady_clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (m_fd < 0 || left.count() <= 0)
      return false;
    pollfd poller{m_fd, POLLIN, 0};
    if (poll(&poller, 1, static_cast<int>(left.count())) <= 0)
      return false;
    char buffer[4096];
    const ssize_t count = read(m_fd, buffer, sizeof buffer);
    if (count <= 0)
      return false;
    m_output.append(buffer, static_cast<std::size_t>(count));
    return true;
  }

  pid_t m_pid = -1;
  int m_fd = -1;
  bool m_reaped = false;
  std::string m_output;
};

} // namespace apptest
