// The peak memory of a piece of work, measured in a fresh child process so that nothing the
// caller holds or has freed counts: how many times a file's size the resident set grows while
// the work runs (the peak, VmHWM, reset first through /proc/self/clear_refs, less the resident
// size before). Used by the configuration tests and benchmark.
#pragma once

#if !defined(_WIN32)
#  include <sys/wait.h>
#  include <unistd.h>
#endif

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

namespace dktest {

// -1 where the system does not tell.
inline double PeakResidentPerFileByte(const std::string& path, const std::function<void()>& work) {
#if defined(_WIN32)
  (void)path;
  (void)work;
  return -1; // no resettable peak of the resident set (a fresh child per measurement would be needed)
#else
  int pipe[2];
  if (::pipe(pipe) != 0)
    return -1;
  const pid_t pid = ::fork();
  if (pid == 0) {
    const auto read = [](const char* field) {
      std::ifstream status("/proc/self/status");
      for (std::string line; std::getline(status, line);)
        if (line.rfind(field, 0) == 0)
          return std::stod(line.substr(std::strlen(field))) * 1024;
      return -1.0;
    };
    double ratio = -1;
    if (std::ofstream("/proc/self/clear_refs") << "5") {
      const double before = read("VmRSS:");
      work();
      const double peak = read("VmHWM:");
      if (before >= 0 && peak >= 0)
        ratio = (peak - before) / static_cast<double>(std::filesystem::file_size(path));
    }
    const bool written = ::write(pipe[1], &ratio, sizeof ratio) == sizeof ratio;
    ::_exit(written ? 0 : 1);
  }
  ::close(pipe[1]);
  double ratio = -1;
  if (::read(pipe[0], &ratio, sizeof ratio) != sizeof ratio)
    ratio = -1;
  ::close(pipe[0]);
  ::waitpid(pid, nullptr, 0);
  return ratio;
#endif
}

} // namespace dktest
