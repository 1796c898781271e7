// Helpers of the trace suites: trace files and their lines, and the child process that runs a
// trace scenario with an environment of its own.
#pragma once

#include "support/DKCaseFile.h"
#include "support/DKTestPlatform.h"
#include "support/DKTestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace fs = std::filesystem;
using Texts = std::vector<std::string>;

inline const std::string kIllegalDelimiter =
    "Illegal trace delimiter specified; trace delimiter has been reset to default\n";

// The cases of a file of tests/diagnostics/cases.
inline std::vector<dktest::CaseLine> Cases(const char* name, std::size_t fields) {
  return dktest::ReadCases(fs::path(DK_TEST_CASES) / name, fields);
}

// A field that is a number, decimal or hexadecimal ("0x10"); anything else throws.
inline long long Number(const dktest::CaseLine& c, std::size_t field) {
  std::size_t end = 0;
  const long long value = std::stoll(c[field], &end, 0);
  if (end != c[field].size())
    throw std::runtime_error(c.where + ": not a number: " + c[field]);
  return value;
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

// Each line as "source|level|subject|text"; a line that does not parse fails the test.
inline Texts Digests(const Texts& lines, char delim = '\t') {
  Texts digests;
  for (const std::string& text : lines) {
    const TraceLine line = Parsed(text, delim);
    digests.push_back(line.source + "|" + line.level + "|" + line.subject + "|" + line.text);
  }
  return digests;
}

// What a child program wrote, its exit code and its ids.
using ChildResult = dktest::ProcessResult;

inline std::string ChildExecutableBase() {
  return fs::path(DK_TRACE_CHILD_PATH).stem().string(); // the extension goes
}

// Runs the trace child program with the given commands and waits for it. Its environment is this
// process's without any DK_TRACE* variable, with `set` added (or replacing what is there).
inline ChildResult RunTraceChild(const Texts& commands, const std::map<std::string, std::string>& set = {}) {
  Texts arguments{DK_TRACE_CHILD_PATH};
  arguments.insert(arguments.end(), commands.begin(), commands.end());
  return dktest::RunProcess(arguments, set, "DK_TRACE");
}

// The lines of a trace file. It is a text file with the system's line ends: "\r\n" on Windows,
// which each line must have and loses here.
inline Texts TraceFileLines(const fs::path& path) {
  Texts lines = SplitLines(ReadWholeFile(path));
#if defined(_WIN32)
  for (std::string& line : lines) {
    EXPECT_TRUE(!line.empty() && line.back() == '\r') << "no CR LF at the end of " << line;
    if (!line.empty() && line.back() == '\r')
      line.pop_back();
  }
#endif
  return lines;
}

// The lines of the child's trace file in `folder`.
inline Texts ChildTraceLines(const fs::path& folder, const ChildResult& child) {
  return TraceFileLines(TraceFile(folder, ChildExecutableBase(), child.pid));
}
