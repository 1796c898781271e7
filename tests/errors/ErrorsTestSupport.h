// Helpers shared by the error, exception and console suites.
#pragma once

#include <DorvikCore/DKConsole.h>
#include <DorvikCore/DKString.h>

#include <atomic>
#include <functional>
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
  std::string::size_type start = 0;
  while (start < text.size()) {
    const auto end = text.find('\n', start);
    if (end == std::string::npos) {
      lines.push_back(text.substr(start));
      break;
    }
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

// True when text has the shape of pattern, in which '#' stands for any decimal digit.
inline bool MatchesDigitPattern(const std::string& text, const std::string& pattern) {
  if (text.size() != pattern.size())
    return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool ok = pattern[i] == '#' ? (text[i] >= '0' && text[i] <= '9') : text[i] == pattern[i];
    if (!ok)
      return false;
  }
  return true;
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

// Threads that run a check over and over until Stop, counting the runs that returned false.
class BackgroundReaders {
public:
  BackgroundReaders(int count, std::function<bool()> check) : m_check(std::move(check)) {
    for (int i = 0; i < count; ++i) {
      m_threads.emplace_back([this] {
        while (!m_stop)
          if (!m_check())
            ++m_failures;
      });
    }
  }
  ~BackgroundReaders() { Stop(); }
  BackgroundReaders(const BackgroundReaders&) = delete;
  BackgroundReaders& operator=(const BackgroundReaders&) = delete;

  // Joins the threads; returns how many checks failed.
  int Stop() {
    m_stop = true;
    for (auto& thread : m_threads)
      if (thread.joinable())
        thread.join();
    return m_failures;
  }

private:
  std::function<bool()> m_check;
  std::atomic<bool> m_stop{false};
  std::atomic<int> m_failures{0};
  std::vector<std::thread> m_threads;
};
