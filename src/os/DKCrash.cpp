// The installation of the crash catching (os/DKCrash.h), the same on every system; the system's
// handlers come from the platform file.
#include "os/DKCrash.h"

#include <atomic>
#include <mutex>

namespace {

std::atomic<bool> g_installed{false};
std::atomic<DKCrash::ReportExtension> g_extension{nullptr};
std::mutex g_installLock;

static_assert(std::atomic<DKCrash::ReportExtension>::is_always_lock_free, "the extension is read in a signal handler");

} // namespace

bool DKCrash::InstallHandlers(ReportExtension extension) {
  // Every thread start comes here: once installed, nothing to lock.
  if (g_installed.load(std::memory_order_acquire) &&
      (!extension || extension == g_extension.load(std::memory_order_acquire)))
    return true;
  std::lock_guard guard(g_installLock);
  if (extension)
    g_extension.store(extension, std::memory_order_release);
  if (g_installed.load(std::memory_order_acquire))
    return true;
  if (!InstallSystemHandlers())
    return false;
  g_installed.store(true, std::memory_order_release);
  return true;
}

DKCrash::ReportExtension DKCrash::Extension() noexcept { return g_extension.load(std::memory_order_acquire); }
