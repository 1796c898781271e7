// Helpers shared by several test suites: console capture, a fixed console verbosity, waiting
// on a condition with a generous bound, and UTF-8 text as a DKString.
#pragma once

#include <DorvikCore/DKConsole.h>
#include <DorvikCore/DKError.h>
#include <DorvikCore/DKString.h>

#include <chrono>
#include <cstdint>
#include <sstream>
#include <string>
#include <thread>
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

// How long a test waits for something that should happen at once: long enough for a loaded
// machine or a sanitizer build, and only ever spent when the test is failing.
inline constexpr auto kGenerousBound = std::chrono::seconds(60);

// Polls the condition until it holds or the bound passes; the condition's last answer.
template <class Condition>
bool WaitUntil(Condition condition, std::chrono::milliseconds bound = kGenerousBound) {
  const auto deadline = std::chrono::steady_clock::now() + bound;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline)
      return condition();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// UTF-8 text as a DKString.
inline DKString Text(const std::string& utf8) { return DKString::FromUTF8(utf8); }
