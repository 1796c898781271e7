// DKInitCatchSignal and the crash report's thread dump.
#include <DorvikCore/DKCrashHandler.h>

#include <DorvikCore/DKThread.h>

#include "os/DKCrash.h"

#include <sstream>
#include <string>

namespace {

// The dump of the registered threads, written after the parts of the report that are safe in a
// signal handler: it allocates and takes the registry's lock, which the watchdog covers.
void WriteThreadDump(DKCrash::ReportSink sink) {
  std::ostringstream dump;
  DKThread::DumpAllThreadsInfo(dump);
  const std::string text = dump.str();
  sink(text.data(), text.size());
}

} // namespace

void DKInitCatchSignal() {
  DKCrash::InstallHandlers(&WriteThreadDump);
  DKCrash::PrepareThread();
}

bool DKSetCrashReportFile(const DKString& path) { return DKCrash::SetReportFile(path.AsUTF8()); }

DKString DKGetCrashReportFile() {
  return DKString::FromUTF8(DKCrash::GetReportFile());
}
