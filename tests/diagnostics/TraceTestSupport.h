// Helpers of the trace and directory suites: scratch folders, trace lines, and the child
// process that runs a trace scenario with an environment of its own.
#pragma once

#include "../errors/ErrorsTestSupport.h"

#include <DorvikCore/DKError.h>
#include <DorvikCore/DKString.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <spawn.h>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace fs = std::filesystem;

// A new empty folder under the system's temporary folder, removed with its content at the end.
class ScratchFolder {
public:
  ScratchFolder() {
    static std::atomic<int> counter{0};
    m_path = fs::temp_directory_path() /
             ("dk_trace_test_" + std::to_string(getpid()) + "_" + std::to_string(counter.fetch_add(1)));
    fs::remove_all(m_path);
    fs::create_directories(m_path);
  }
  ~ScratchFolder() {
    std::error_code ignored;
    fs::remove_all(m_path, ignored);
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  const fs::path& Path() const { return m_path; }
  fs::path operator/(const std::string& name) const { return m_path / name; }

private:
  fs::path m_path;
};

inline DKString ToDK(const std::string& utf8) {
  DKString text;
  text.SetFromUTF8(utf8.c_str());
  return text;
}

inline std::string ReadWholeFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

inline void WriteWholeFile(const fs::path& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

inline std::vector<std::string> FilesIn(const fs::path& folder) {
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(folder, error))
    names.push_back(entry.path().filename().string());
  return names;
}

// The trace file name a process gets: "<executable base name>__<pid>.log".
inline std::string TraceFileName(const std::string& executableBase, long pid) {
  return executableBase + "__" + std::to_string(pid) + ".log";
}

// The fields of one trace line.
struct TraceLine {
  std::string stamp, threadId, source, level, subject, text;
};

// Splits a line into its fields; false when it does not have them all. The date-time has a
// fixed width (it holds a ";" itself), the other fields end at the delimiter.
inline bool ParseTraceLine(const std::string& line, char delim, TraceLine& out) {
  constexpr std::size_t kStampLength = 23; // 2024-03-01;14:05:09.042
  if (line.size() <= kStampLength || line[kStampLength] != delim)
    return false;
  out.stamp = line.substr(0, kStampLength);
  std::string* fields[] = {&out.threadId, &out.source, &out.level, &out.subject};
  std::size_t start = kStampLength + 1;
  for (std::string* field : fields) {
    const std::size_t end = line.find(delim, start);
    if (end == std::string::npos)
      return false;
    *field = line.substr(start, end - start);
    start = end + 1;
  }
  out.text = line.substr(start);
  return true;
}

// ---- Child processes ------------------------------------------------------------------------

struct ChildResult {
  int exitCode = -1;  // -1 when it did not exit normally
  std::string output; // its standard output
  long pid = 0;
};

// The environment of a child: this process's, without any DK_TRACE* variable, with `set` added
// (or replacing what is there).
inline std::vector<std::string> ChildEnvironment(const std::map<std::string, std::string>& set) {
  std::vector<std::string> env;
  for (char** p = environ; *p; ++p) {
    const std::string entry = *p;
    const std::string name = entry.substr(0, entry.find('='));
    if (name.rfind("DK_TRACE", 0) == 0 || set.count(name))
      continue;
    env.push_back(entry);
  }
  for (const auto& [name, value] : set)
    env.push_back(name + "=" + value);
  return env;
}

// Runs the trace child program with the given commands and environment, and waits for it.
inline ChildResult RunTraceChild(const std::vector<std::string>& commands,
                                 const std::map<std::string, std::string>& environment = {}) {
  ChildResult result;
  int pipeFds[2];
  if (pipe(pipeFds) != 0)
    return result;

  std::vector<std::string> argStore{DK_TRACE_CHILD_PATH};
  argStore.insert(argStore.end(), commands.begin(), commands.end());
  std::vector<char*> argv;
  for (std::string& arg : argStore)
    argv.push_back(arg.data());
  argv.push_back(nullptr);
  std::vector<std::string> envStore = ChildEnvironment(environment);
  std::vector<char*> envp;
  for (std::string& entry : envStore)
    envp.push_back(entry.data());
  envp.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, pipeFds[0]);
  posix_spawn_file_actions_addclose(&actions, pipeFds[1]);
  pid_t pid = 0;
  const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  close(pipeFds[1]);
  if (spawned != 0) {
    close(pipeFds[0]);
    return result;
  }
  char buffer[4096];
  for (ssize_t n; (n = read(pipeFds[0], buffer, sizeof buffer)) > 0;)
    result.output.append(buffer, static_cast<std::size_t>(n));
  close(pipeFds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  result.pid = pid;
  return result;
}

inline std::string ChildExecutableBase() {
  return fs::path(DK_TRACE_CHILD_PATH).filename().string();
}
inline fs::path ChildExecutableFolder() {
  return fs::path(DK_TRACE_CHILD_PATH).parent_path();
}
