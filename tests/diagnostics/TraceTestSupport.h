// Helpers of the trace and directory suites: scratch folders, trace lines, and the child
// process that runs a trace scenario with an environment of its own.
#pragma once

#include "support/DKTestSupport.h"

#include <DorvikCore/DKError.h>
#include <DorvikCore/DKString.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <spawn.h>
#include <sstream>
#include <stdexcept>
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
    std::string pattern = (fs::temp_directory_path() / "dk_trace_test_XXXXXX").string();
    m_path = mkdtemp(pattern.data()) ? pattern : throw std::runtime_error("cannot make " + pattern);
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

inline DKString ToDK(const std::string& utf8) { return DKString::FromUTF8(utf8); }

inline std::string ReadWholeFile(const fs::path& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
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

// The trace file a process gets in `folder`: "<executable base name>__<pid>.log".
inline fs::path TraceFile(const fs::path& folder, const std::string& executableBase, long pid) {
  return folder / (executableBase + "__" + std::to_string(pid) + ".log");
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
  std::size_t start = kStampLength + 1;
  for (std::string* field : {&out.threadId, &out.source, &out.level, &out.subject}) {
    const std::size_t end = line.find(delim, start);
    if (end == std::string::npos)
      return false;
    *field = line.substr(start, end - start);
    start = end + 1;
  }
  out.text = line.substr(start);
  return true;
}

// The line parsed; a line that does not parse fails the test.
inline TraceLine Parsed(const std::string& text, char delim = '\t') {
  TraceLine line;
  EXPECT_TRUE(ParseTraceLine(text, delim, line)) << "not a trace line: " << text;
  return line;
}

// A line as "source|level|subject|text".
inline std::string Digest(const TraceLine& line) {
  return line.source + "|" + line.level + "|" + line.subject + "|" + line.text;
}

// Each line's digest; a line that does not parse fails the test.
inline std::vector<std::string> Digests(const std::vector<std::string>& lines, char delim = '\t') {
  std::vector<std::string> digests;
  for (const std::string& text : lines)
    digests.push_back(Digest(Parsed(text, delim)));
  return digests;
}

using Texts = std::vector<std::string>;

// ---- Child processes ------------------------------------------------------------------------

struct ChildResult {
  int exitCode = -1;  // -1 when it did not exit normally
  std::string output; // its standard output
  long pid = 0;
};

inline std::string ChildExecutableBase() {
  return fs::path(DK_TRACE_CHILD_PATH).filename().string();
}

// Runs the trace child program with the given commands and waits for it. Its environment is this
// process's without any DK_TRACE* variable, with `set` added (or replacing what is there).
inline ChildResult RunTraceChild(const std::vector<std::string>& commands,
                                 const std::map<std::string, std::string>& set = {}) {
  Texts args{DK_TRACE_CHILD_PATH}, env;
  args.insert(args.end(), commands.begin(), commands.end());
  for (char** p = environ; *p; ++p) {
    const std::string entry = *p, name = entry.substr(0, entry.find('='));
    if (name.rfind("DK_TRACE", 0) != 0 && !set.count(name))
      env.push_back(entry);
  }
  for (const auto& [name, value] : set)
    env.push_back(name + "=" + value);
  const auto pointers = [](Texts& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts)
      pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
  };
  std::vector<char*> argv = pointers(args), envp = pointers(env);

  ChildResult result;
  int fds[2];
  if (pipe(fds) != 0)
    return result;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, fds[0]);
  posix_spawn_file_actions_addclose(&actions, fds[1]);
  pid_t pid = 0;
  const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  close(fds[1]);
  char buffer[4096];
  for (ssize_t n; spawned == 0 && (n = read(fds[0], buffer, sizeof buffer)) > 0;)
    result.output.append(buffer, static_cast<std::size_t>(n));
  close(fds[0]);
  int status = 0;
  if (spawned != 0 || waitpid(pid, &status, 0) != pid)
    return result;
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  result.pid = pid;
  return result;
}

// The lines of the child's trace file in `folder`.
inline std::vector<std::string> ChildTraceLines(const fs::path& folder, const ChildResult& child) {
  return SplitLines(ReadWholeFile(TraceFile(folder, ChildExecutableBase(), child.pid)));
}
