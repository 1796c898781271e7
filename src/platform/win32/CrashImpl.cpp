// Placeholder for the Windows build until the Windows thread layer brings crash catching: no
// handler is installed, so a fault ends the process as the system ends it.
#include "os/DKCrash.h"

bool DKCrash::InstallHandlers(ReportExtension) { return true; }
bool DKCrash::PrepareThread() { return true; }
bool DKCrash::SetReportFile(const std::string&) { return true; }
std::string DKCrash::GetReportFile() { return {}; }
