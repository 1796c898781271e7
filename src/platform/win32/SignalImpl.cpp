// Placeholder for the Windows build until the Windows thread layer brings console quit events:
// Ctrl+C ends the process as the system ends it, and no quit request is ever pending.
#include "os/DKSignal.h"

void* DKSignal::InstallQuitHandler(QuitHandler) { return nullptr; }
void DKSignal::Restore(void*) {}
void* DKSignal::HoldQuitSignals() { return nullptr; }
int DKSignal::TakeQuitSignal() { return 0; }
void DKSignal::ReleaseQuitSignals(void*) {}
