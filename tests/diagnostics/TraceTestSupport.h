// Helpers of the trace and directory suites: scratch folders, trace lines, and the child
// process that runs a trace scenario with an environment of its own.
#pragma once

#include "support/DKTestPlatform.h"
#include "support/DKTestSupport.h"

#include <DorvikCore/DKError.h>
#include <DorvikCore/DKString.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

// A new empty folder under the system's temporary folder, removed with its content at the end.
class ScratchFolder {
public:
  ScratchFolder() : m_path(dktest::MakeScratchFolder("dk_trace_test_")) {}
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

// A path's UTF-8 text, and the path of UTF-8 text (a narrow path is the ANSI code page on
// Windows).
inline std::string Utf8(const fs::path& path) {
  const std::u8string text = path.u8string();
  return std::string(text.begin(), text.end());
}
inline fs::path PathOf(const std::string& utf8) { return fs::path(std::u8string(utf8.begin(), utf8.end())); }

inline std::string ReadWholeFile(const fs::path& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

// The lines of a trace file. It is a text file with the system's line ends: "\r\n" on Windows,
// which each line must have and loses here.
inline std::vector<std::string> TraceFileLines(const fs::path& path) {
  std::vector<std::string> lines = SplitLines(ReadWholeFile(path));
#if defined(_WIN32)
  for (std::string& line : lines) {
    EXPECT_TRUE(!line.empty() && line.back() == '\r') << "no CR LF at the end of " << line;
    if (!line.empty() && line.back() == '\r')
      line.pop_back();
  }
#endif
  return lines;
}

inline void WriteWholeFile(const fs::path& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

inline std::vector<std::string> FilesIn(const fs::path& folder) {
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(folder, error))
    names.push_back(Utf8(entry.path().filename()));
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
  long mainThread = 0; // the id of its first thread
};

inline std::string ChildExecutableBase() {
  return fs::path(DK_TRACE_CHILD_PATH).stem().string(); // the extension goes
}

// Runs the trace child program with the given commands and waits for it. Its environment is this
// process's without any DK_TRACE* variable, with `set` added (or replacing what is there).
inline ChildResult RunTraceChild(const std::vector<std::string>& commands,
                                 const std::map<std::string, std::string>& set = {}) {
  Texts args{DK_TRACE_CHILD_PATH};
  args.insert(args.end(), commands.begin(), commands.end());
  const dktest::ProcessResult run = dktest::RunProcess(args, set, "DK_TRACE");
  return ChildResult{run.exitCode, run.output, run.pid, run.mainThread};
}

// The lines of the child's trace file in `folder`.
inline std::vector<std::string> ChildTraceLines(const fs::path& folder, const ChildResult& child) {
  return TraceFileLines(TraceFile(folder, ChildExecutableBase(), child.pid));
}
