// POSIX process facts (os/DKProcess.h).
#include "os/DKProcess.h"

#include <atomic>
#include <cstdlib>
#include <pthread.h>
#include <time.h>
#include <unistd.h>
#include <vector>

namespace {

std::atomic<unsigned> g_forkGeneration{0};

void OnForkInChild() {
  g_forkGeneration.fetch_add(1, std::memory_order_relaxed);
}

// Registered when the library is loaded.
const int g_forkHandlerRegistered = pthread_atfork(nullptr, nullptr, OnForkInChild);

} // namespace

unsigned DKProcess::ForkGeneration() noexcept {
  (void)g_forkHandlerRegistered;
  return g_forkGeneration.load(std::memory_order_relaxed);
}

bool DKProcess::ExecutablePathUTF8(std::string& path) {
  // readlink does not say whether the buffer was large enough: grow it until the link fits.
  std::vector<char> buffer(512);
  for (;;) {
    const ssize_t length = readlink("/proc/self/exe", buffer.data(), buffer.size());
    if (length <= 0)
      return false;
    if (static_cast<std::size_t>(length) < buffer.size()) {
      path.assign(buffer.data(), static_cast<std::size_t>(length));
      return true;
    }
    if (buffer.size() >= 1u << 20)
      return false;
    buffer.resize(buffer.size() * 2);
  }
}

unsigned long DKProcess::ProcessId() noexcept {
  return static_cast<unsigned long>(getpid());
}

std::string DKProcess::TempFolderUTF8() {
  const char* folder = std::getenv("TMPDIR");
  return folder && *folder ? std::string(folder) : std::string("/tmp");
}

bool DKProcess::EnvironmentVariableUTF8(const char* name, std::string& value) {
  const char* text = name ? std::getenv(name) : nullptr;
  if (!text)
    return false;
  value = text;
  return true;
}

bool DKProcess::ToLocalTime(std::int64_t seconds, std::tm& local) noexcept {
  const time_t t = static_cast<time_t>(seconds);
  return localtime_r(&t, &local) != nullptr;
}
