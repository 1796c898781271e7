// The test suites' operating-system helpers on POSIX systems (DKTestPlatform.h).
#include "support/DKTestPlatform.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace dktest {

void SetEnvironment(const std::string& name, const std::string& value) { ::setenv(name.c_str(), value.c_str(), 1); }

void UnsetEnvironment(const std::string& name) { ::unsetenv(name.c_str()); }

std::filesystem::path MakeScratchFolder(const std::string& prefix) {
  std::string pattern = (std::filesystem::temp_directory_path() / (prefix + "XXXXXX")).string();
  if (!::mkdtemp(pattern.data()))
    throw std::runtime_error("cannot make " + pattern);
  return pattern;
}

long CurrentProcessId() { return static_cast<long>(::getpid()); }

long CurrentThreadId() { return static_cast<long>(::gettid()); }

std::tm LocalTime(std::time_t moment) {
  std::tm local{};
  ::localtime_r(&moment, &local);
  return local;
}

std::filesystem::path CurrentExecutable() { return std::filesystem::canonical("/proc/self/exe"); }

std::size_t OpenHandleCount() {
  std::size_t count = 0;
  for (auto it = std::filesystem::directory_iterator("/proc/self/fd"); it != std::filesystem::directory_iterator(); ++it)
    ++count;
  return count;
}

bool FeedStandardInput(const std::string& text) {
  int fds[2];
  if (::pipe(fds) != 0)
    return false;
  const bool written = ::write(fds[1], text.data(), text.size()) == static_cast<ssize_t>(text.size());
  ::close(fds[1]);
  const bool replaced = written && ::dup2(fds[0], STDIN_FILENO) == STDIN_FILENO;
  ::close(fds[0]);
  return replaced;
}

std::vector<std::filesystem::path> ProgramArguments(int argc, char** argv) {
  return std::vector<std::filesystem::path>(argv + (argc > 0 ? 1 : 0), argv + (argc > 0 ? argc : 0));
}

void SetLastSystemError(int code) { errno = code; }

std::string SystemErrorText(int code) { return std::strerror(code); }

std::string TempFolderVariable() { return "TMPDIR"; }

std::filesystem::path UnwritableFolder() { return "/proc"; }

namespace {

// This process's environment without the variables whose names start with dropPrefix, with set
// added or replacing.
std::vector<std::string> Environment(const std::map<std::string, std::string>& set, const std::string& dropPrefix) {
  std::vector<std::string> env;
  for (char** p = environ; *p; ++p) {
    const std::string entry = *p, name = entry.substr(0, entry.find('='));
    if ((dropPrefix.empty() || name.rfind(dropPrefix, 0) != 0) && !set.count(name))
      env.push_back(entry);
  }
  for (const auto& [name, value] : set)
    env.push_back(name + "=" + value);
  return env;
}

// The null-ended list of pointers that exec reads.
std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> list;
  for (std::string& text : texts)
    list.push_back(text.data());
  list.push_back(nullptr);
  return list;
}

int StatusCode(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

// Starts the program (args[0]) in the environment and the working directory (this process's
// when empty), its standard output, and its standard error when withError, on a new pipe whose
// reading end goes to fd (-1 when there is none). The pid, or -1 with the reason in error.
pid_t Spawn(std::vector<std::string> args, std::vector<std::string> env, const std::string& workingDirectory,
            bool withError, int& fd, int& error) {
  std::vector<char*> argv = Pointers(args), envp = Pointers(env);
  int fds[2];
  if (args.empty() || ::pipe2(fds, O_CLOEXEC) != 0) { // close-on-exec: no other child keeps the pipe open
    error = args.empty() ? EINVAL : errno;
    return -1;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
  if (withError)
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDERR_FILENO);
  if (!workingDirectory.empty())
    posix_spawn_file_actions_addchdir_np(&actions, workingDirectory.c_str());
  pid_t pid = -1;
  error = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  ::close(fds[1]);
  fd = fds[0];
  return error == 0 ? pid : -1;
}

} // namespace

ProcessResult RunProcess(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& set,
                         const std::string& dropPrefix) {
  ProcessResult result;
  int fd = -1, error = 0;
  const pid_t pid = Spawn(arguments, Environment(set, dropPrefix), {}, false, fd, error);
  char buffer[4096];
  for (ssize_t n; pid > 0 && (n = ::read(fd, buffer, sizeof buffer)) > 0;)
    result.output.append(buffer, static_cast<std::size_t>(n));
  if (fd >= 0)
    ::close(fd);
  int status = 0;
  if (pid <= 0 || ::waitpid(pid, &status, 0) != pid)
    return result;
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  result.pid = pid;
  result.mainThread = pid;
  return result;
}

struct Child::Process {
  pid_t pid = -1;
  int fd = -1;
  bool reaped = false;
};

Child::Child(const std::vector<std::string>& arguments, const std::string& workingDirectory,
             const std::map<std::string, std::string>& set)
    : m_process(std::make_unique<Process>()) {
  int error = 0;
  m_process->pid = Spawn(arguments, Environment(set, {}), workingDirectory, true, m_process->fd, error);
  if (m_process->pid < 0)
    ADD_FAILURE() << "cannot start " << (arguments.empty() ? "(no program)" : arguments[0]) << ": "
                  << std::strerror(error);
}

Child::~Child() {
  if (m_process->pid > 0 && !m_process->reaped) {
    ::kill(m_process->pid, SIGKILL);
    ::waitpid(m_process->pid, nullptr, 0);
  }
  if (m_process->fd >= 0)
    ::close(m_process->fd);
}

bool Child::ReadSome(std::chrono::steady_clock::time_point deadline) {
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  if (m_process->fd < 0 || left.count() <= 0)
    return false;
  pollfd poller{m_process->fd, POLLIN, 0};
  if (::poll(&poller, 1, static_cast<int>(left.count())) <= 0)
    return false;
  char buffer[4096];
  const ssize_t count = ::read(m_process->fd, buffer, sizeof buffer);
  if (count <= 0)
    return false;
  m_output.append(buffer, static_cast<std::size_t>(count));
  return true;
}

bool Child::Quit(int signalNumber, std::string* why) {
  if (m_process->pid > 0 && ::kill(m_process->pid, signalNumber) == 0)
    return true;
  if (why)
    *why = std::strerror(errno);
  return false;
}

int Child::Finish() {
  const auto deadline = std::chrono::steady_clock::now() + kGenerousBound;
  while (ReadSome(deadline)) {
  }
  if (m_process->pid <= 0)
    return -1;
  if (std::chrono::steady_clock::now() >= deadline) {
    ADD_FAILURE() << "the child did not end; output so far:\n" << m_output;
    ::kill(m_process->pid, SIGKILL);
  }
  int status = 0;
  ::waitpid(m_process->pid, &status, 0);
  m_process->reaped = true;
  return StatusCode(status);
}

void Child::Kill() {
  if (m_process->pid > 0 && !m_process->reaped)
    ::kill(m_process->pid, SIGKILL);
}

long Child::Pid() const noexcept { return static_cast<long>(m_process->pid); }

int RunForked(const std::function<int()>& body, bool unprivileged) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::alarm(static_cast<unsigned>(std::chrono::duration_cast<std::chrono::seconds>(kGenerousBound).count()));
    if (unprivileged && ::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0))
      ::_exit(126);
    ::_exit(body());
  }
  int status = 0;
  if (pid < 0 || ::waitpid(pid, &status, 0) != pid)
    return -1;
  return StatusCode(status);
}

} // namespace dktest
