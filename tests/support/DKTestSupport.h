// Helpers shared by several test suites: console capture and a fixed console verbosity.
#pragma once

#include <DorvikCore/DKConsole.h>

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

// Sends the locked console to a string for the lifetime of the object.
class ConsoleCapture {
public:
  ConsoleCapture() : m_previous(DKLockedCOUT::SetConsoleStream(&m_stream)) {}
  ~ConsoleCapture() { DKLockedCOUT::SetConsoleStream(m_previous); }
  ConsoleCapture(const ConsoleCapture&) = delete;
  ConsoleCapture& operator=(const ConsoleCapture&) = delete;
  std::string Text() const { return m_stream.str(); }
  void Clear() { m_stream.str(std::string()); }

private:
  std::ostringstream m_stream;
  std::ostream* m_previous;
};

// The lines of a text; a final line break does not start another line.
inline std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    lines.push_back(line);
  return lines;
}

// Installs a fixed console verbosity for the lifetime of the object.
class TraceLevelOverride {
public:
  explicit TraceLevelOverride(std::uint32_t level) : m_level(level) { DKSetTraceLevelProvider(&Provide, &m_level); }
  ~TraceLevelOverride() { DKSetTraceLevelProvider(nullptr); }
  TraceLevelOverride(const TraceLevelOverride&) = delete;
  TraceLevelOverride& operator=(const TraceLevelOverride&) = delete;

private:
  static std::uint32_t Provide(void* context) { return *static_cast<std::uint32_t*>(context); }
  std::uint32_t m_level;
};
