// Catching of fatal signals (internal): the installation in os/DKCrash.cpp, the rest once per
// platform in src/platform/<os>/CrashImpl.cpp. A fatal signal produces a crash report on the
// standard error and, when one is set, appended to a report file; the process then ends as it
// would have without the library (or the handler that was there before runs).
#pragma once

#include <cstddef>
#include <string>

class DKCrash {
public:
  // Writes text to every destination of the report being written.
  typedef void (*ReportSink)(const char* text, std::size_t size);
  // Adds the parts of a report that need the library's higher layers. It runs inside the
  // signal handler, after everything that is safe there has been written, under a watchdog
  // that ends the process should it block.
  typedef void (*ReportExtension)(ReportSink sink);

  // Installs the handlers for the process on the first call; later calls only replace the
  // extension when one is given. False when the system refused.
  static bool InstallHandlers(ReportExtension extension);
  // The extension given last; null for none. Safe in a signal handler.
  static ReportExtension Extension() noexcept;
  // Gives the calling thread an alternate signal stack, so that a stack overflow is reported
  // too; a thread that already has one keeps it. The stack is freed when the thread ends.
  static bool PrepareThread();
  // The file a report is appended to besides the standard error (UTF-8); empty for none.
  // False, and no file, when the path is too long to be kept.
  static bool SetReportFile(const std::string& path);
  static std::string GetReportFile();

private:
  // Installs the system's handlers for the process; called once, under InstallHandlers's lock.
  // False when the system refused.
  static bool InstallSystemHandlers();
};
