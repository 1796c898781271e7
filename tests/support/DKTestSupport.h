// Helpers shared by the test suites: UTF-8 text as a DKString, console capture, an environment
// variable for a scope, a fixed console verbosity, scratch folders and whole files, the sanitizer flag, waiting on a condition with a
// generous bound, and running the same work on several threads at once.
#pragma once

#include <DorvikCore/DKConsole.h>
#include <DorvikCore/DKError.h>
#include <DorvikCore/DKString.h>

#include "support/DKTestPlatform.h"

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

// Set in a build with AddressSanitizer or ThreadSanitizer, whose own memory and slowness some
// measurements must leave out.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
#  define DK_TEST_SANITIZER 1
#elif defined(__has_feature)
#  if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
#    define DK_TEST_SANITIZER 1
#  endif
#endif

// UTF-8 text as a DKString (U+0000 included).
inline DKString Text(const std::string& utf8) { return DKString::FromUTF8(utf8); }

// Sends the locked console to a string for the lifetime of the object.
class ConsoleCapture {
public:
  ConsoleCapture() : m_previous(DKLockedCOUT::SetConsoleStream(&m_stream)) {}
  ~ConsoleCapture() { DKLockedCOUT::SetConsoleStream(m_previous); }
  ConsoleCapture(const ConsoleCapture&) = delete;
  ConsoleCapture& operator=(const ConsoleCapture&) = delete;
  std::string Text() const { return m_stream.str(); }
  void Clear() { m_stream.str(std::string()); }
  // What was written since the last Take (or Clear), and starts afresh.
  std::string Take() {
    std::string text = m_stream.str();
    Clear();
    return text;
  }

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

// Sets an environment variable (removes it for a null value) for the lifetime of the object,
// then restores it; `reread` runs after each change, for code that caches what it read.
class ScopedEnv {
public:
  ScopedEnv(const char* name, const char* value, void (*reread)() = nullptr) : m_name(name), m_reread(reread) {
    if (const char* old = std::getenv(name))
      m_old = old, m_had = true;
    Set(value);
  }
  ~ScopedEnv() { Set(m_had ? m_old.c_str() : nullptr); }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
  void Set(const char* value) {
    if (value)
      dktest::SetEnvironment(m_name, value);
    else
      dktest::UnsetEnvironment(m_name);
    if (m_reread)
      m_reread();
  }
  std::string m_name, m_old;
  bool m_had = false;
  void (*m_reread)();
};

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

// A new empty folder under the system's temporary folder, removed with all it holds at the end
// (permissions a test took away are given back first).
class ScratchFolder {
public:
  ScratchFolder() : m_path(std::filesystem::canonical(dktest::MakeScratchFolder("dktest-"))) {}
  ~ScratchFolder() {
    namespace fs = std::filesystem;
    std::error_code ignored;
    fs::permissions(m_path, fs::perms::owner_all, fs::perm_options::add, ignored);
    for (auto it = fs::recursive_directory_iterator(m_path, ignored); it != fs::recursive_directory_iterator();
         it.increment(ignored))
      if (it->is_directory(ignored) && !it->is_symlink(ignored))
        fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ignored);
    fs::remove_all(m_path, ignored);
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;
  const std::filesystem::path& Path() const noexcept { return m_path; }
  std::filesystem::path operator/(const std::string& name) const { return m_path / name; }

private:
  std::filesystem::path m_path;
};

// A path's UTF-8 text, and the path of UTF-8 text (a narrow path is the ANSI code page on
// Windows).
inline std::string Utf8(const std::filesystem::path& path) {
  const std::u8string text = path.u8string();
  return std::string(text.begin(), text.end());
}
inline std::filesystem::path PathOf(const std::string& utf8) {
  return std::filesystem::path(std::u8string(utf8.begin(), utf8.end()));
}

inline std::string ReadWholeFile(const std::filesystem::path& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

// Throws when the file cannot be written, so that the test fails where the cause is.
inline void WriteWholeFile(const std::filesystem::path& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary);
  if (!(out << bytes).flush())
    throw std::runtime_error("cannot write " + path.string());
}

// The names in a folder, in no particular order.
inline std::vector<std::string> FilesIn(const std::filesystem::path& folder) {
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(folder, error))
    names.push_back(Utf8(entry.path().filename()));
  return names;
}

using dktest::kGenerousBound;

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

// Calls work(thread, iteration) for every iteration on each of `threads` threads at once, and
// joins them.
template <class Work>
void RunOnThreads(int threads, int iterations, Work work) {
  std::vector<std::thread> running;
  for (int t = 0; t < threads; ++t)
    running.emplace_back([&work, t, iterations] {
      for (int i = 0; i < iterations; ++i)
        work(t, i);
    });
  for (std::thread& thread : running)
    thread.join();
}
