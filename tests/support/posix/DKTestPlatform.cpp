// The test suites' operating-system helpers on POSIX systems (DKTestPlatform.h).
#include "support/DKTestPlatform.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

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

std::vector<std::filesystem::path> ProgramArguments(int argc, char** argv) {
  return std::vector<std::filesystem::path>(argv + (argc > 0 ? 1 : 0), argv + (argc > 0 ? argc : 0));
}

void SetLastSystemError(int code) { errno = code; }

std::string SystemErrorText(int code) { return std::strerror(code); }

std::string TempFolderVariable() { return "TMPDIR"; }

std::filesystem::path UnwritableFolder() { return "/proc"; }

bool TimeZoneFollowsTZ() { return true; }

ProcessResult RunProcess(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& set,
                         const std::string& dropPrefix) {
  std::vector<std::string> args = arguments, env;
  for (char** p = environ; *p; ++p) {
    const std::string entry = *p, name = entry.substr(0, entry.find('='));
    if ((dropPrefix.empty() || name.rfind(dropPrefix, 0) != 0) && !set.count(name))
      env.push_back(entry);
  }
  for (const auto& [name, value] : set)
    env.push_back(name + "=" + value);
  const auto pointers = [](std::vector<std::string>& texts) {
    std::vector<char*> list;
    for (std::string& text : texts)
      list.push_back(text.data());
    list.push_back(nullptr);
    return list;
  };
  std::vector<char*> argv = pointers(args), envp = pointers(env);

  ProcessResult result;
  int fds[2];
  if (args.empty() || ::pipe(fds) != 0)
    return result;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, fds[0]);
  posix_spawn_file_actions_addclose(&actions, fds[1]);
  pid_t pid = 0;
  const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  ::close(fds[1]);
  char buffer[4096];
  for (ssize_t n; spawned == 0 && (n = ::read(fds[0], buffer, sizeof buffer)) > 0;)
    result.output.append(buffer, static_cast<std::size_t>(n));
  ::close(fds[0]);
  int status = 0;
  if (spawned != 0 || ::waitpid(pid, &status, 0) != pid)
    return result;
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  result.pid = pid;
  result.mainThread = pid;
  return result;
}

} // namespace dktest
