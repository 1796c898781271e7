// The progress of loading plug-ins on the console (internal).
#pragma once

#include <DorvikCore/DKProgress.h>

#include <cstddef>
#include <memory>

// For a load of many modules, a display that writes the step's progress through the
// application's channel every two seconds and once more when destroyed; null for a few modules.
std::unique_ptr<DKProgressConsole> DKStartPlugInLoadDisplay(const DKSmartPtr<DKProgress>& step, std::size_t modules);
