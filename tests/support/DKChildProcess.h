// Child processes, for the suites that check what a whole process prints and how it ends, or
// that need a process of their own: a program run with its output on one pipe, and a function
// run in a forked copy of the test process.
#pragma once

#include <gtest/gtest.h>

#include "support/DKTestSupport.h"

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace dktest {

// A program run with its standard output and error on one pipe, in this process's environment
// or the one given.
class Child {
public:
  Child(const std::vector<std::string>& arguments, const std::string& workingDirectory,
        const std::vector<std::string>* environment = nullptr) {
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
    std::vector<char*> envp;
    if (environment) {
      for (const std::string& entry : *environment)
        envp.push_back(const_cast<char*>(entry.c_str()));
      envp.push_back(nullptr);
    }
    m_pid = fork();
    if (m_pid == 0) {
      dup2(fds[1], 1);
      dup2(fds[1], 2);
      if (!workingDirectory.empty() && chdir(workingDirectory.c_str()) != 0)
        _exit(126);
      if (environment)
        execve(argv[0], argv.data(), envp.data());
      else
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

  pid_t Pid() const noexcept { return m_pid; }
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

// Runs body in a forked copy of this process, which ends with body's result as its exit code,
// and waits for it: the exit code, or 128 + the signal that ended it. A child that outlives
// the bound is ended by an alarm, so a call that blocks fails the test instead of hanging it.
// Unprivileged, a child of the superuser first gives up the privileges that would bypass file
// permissions.
inline int RunForked(const std::function<int()>& body, bool unprivileged = false) {
  const pid_t pid = fork();
  if (pid == 0) {
    alarm(static_cast<unsigned>(kGenerousBound.count()));
    if (unprivileged && geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0))
      _exit(126);
    _exit(body());
  }
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid)
    return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace dktest
