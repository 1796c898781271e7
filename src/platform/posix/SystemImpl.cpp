// POSIX implementation of the library's internal operating-system services (os/DKSystem.h).
#include "os/DKSystem.h"
#include "platform/gnu/DKDemangle.h"

#include <dlfcn.h>
#include <errno.h>
#include <execinfo.h>
#include <signal.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

constexpr int kMaxFrames = 128;

std::string DescribeFrame(int index, void* address) {
  char head[48];
  std::snprintf(head, sizeof head, "#%-3d 0x%016" PRIxPTR " ", index, reinterpret_cast<std::uintptr_t>(address));
  std::string line(head);

  // A return address may lie just past the end of its function (a call that never returns),
  // so the symbol is looked up one byte back.
  const auto pc = reinterpret_cast<std::uintptr_t>(address);
  Dl_info info{};
  if (pc == 0 || dladdr(reinterpret_cast<void*>(pc - 1), &info) == 0) {
    line += "??";
    return line;
  }
  if (info.dli_sname) {
    char offset[32];
    std::snprintf(offset, sizeof offset, "+0x%" PRIxPTR, pc - reinterpret_cast<std::uintptr_t>(info.dli_saddr));
    line += dkplatform::Demangle(info.dli_sname);
    line += offset;
  } else {
    line += "??";
  }
  if (info.dli_fname && *info.dli_fname) {
    line += " in ";
    line += info.dli_fname;
  }
  return line;
}

// strerror_r comes in two flavours: GNU returns the text, XSI an error number.
[[maybe_unused]] const char* StrErrorText(const char* result, const char*) { return result; }
[[maybe_unused]] const char* StrErrorText(int result, const char* buffer) { return result == 0 ? buffer : nullptr; }

} // namespace

__attribute__((noinline)) std::string DKSystem::CaptureStack(unsigned skipFrames) {
  void* frames[kMaxFrames];
  const int count = backtrace(frames, kMaxFrames);
  std::string text;
  int shown = 0;
  // Frame 0 is this function.
  for (int i = 1 + static_cast<int>(skipFrames); i < count; ++i) {
    if (!text.empty())
      text += '\n';
    text += DescribeFrame(shown++, frames[i]);
  }
  return text;
}

std::uint64_t DKSystem::CurrentThreadId() noexcept { return static_cast<std::uint64_t>(syscall(SYS_gettid)); }

std::string DKSystem::LocalTimeNow() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  char text[64];
  std::snprintf(text, sizeof text, "%04d/%02d/%02d %02d:%02d:%02d.%03ld", local.tm_year + 1900, local.tm_mon + 1,
                local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, static_cast<long>(now.tv_nsec / 1000000));
  return text;
}

bool DKSystem::StandardOutputIsTerminal() noexcept { return isatty(STDOUT_FILENO) == 1; }

int DKSystem::LastErrorCode() noexcept { return errno; }

std::string DKSystem::ErrorCodeText(int code) {
  char buffer[256] = {};
  const char* text = StrErrorText(strerror_r(code, buffer, sizeof buffer), buffer);
  if (text && *text)
    return text;
  return "Unknown error " + std::to_string(code);
}

std::string DKSystem::CrashCodeText(int code) {
  const char* name = nullptr;
  switch (code) {
  case SIGSEGV: name = "SIGSEGV"; break;
  case SIGBUS: name = "SIGBUS"; break;
  case SIGFPE: name = "SIGFPE"; break;
  case SIGILL: name = "SIGILL"; break;
  case SIGABRT: name = "SIGABRT"; break;
  case SIGTRAP: name = "SIGTRAP"; break;
  case SIGSYS: name = "SIGSYS"; break;
  case SIGINT: name = "SIGINT"; break;
  case SIGTERM: name = "SIGTERM"; break;
  case SIGQUIT: name = "SIGQUIT"; break;
  case SIGPIPE: name = "SIGPIPE"; break;
  default: break;
  }
  std::string text = "Signal " + std::to_string(code);
  if (name)
    text = text + " (" + name + ")";
  return text;
}
