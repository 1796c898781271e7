// DKApplicationWithPlugIns: the progress of loading plug-ins.
#include <DorvikCore/DKApplication.h>

#include "app/DKPlugInLoadProgress.h"

DKSmartPtr<DKProgress> DKApplicationWithPlugIns::GetLoadProgress() const {
  std::lock_guard<std::mutex> guard(m_loadProgressLock);
  return m_loadProgress;
}

DKSmartPtr<DKProgress> DKApplicationWithPlugIns::LoadStep(const DKString& label, std::size_t count) {
  std::lock_guard<std::mutex> guard(m_loadProgressLock);
  if (m_loadProgress && !m_loadProgress->IsComplete())
    return m_loadProgress->AddChild(label, count);
  m_loadProgress = DKProgress::Create(label, count);
  return m_loadProgress;
}

std::unique_ptr<DKProgressConsole> DKStartPlugInLoadDisplay(const DKSmartPtr<DKProgress>& step, std::size_t modules) {
  if (modules < DKApplicationWithPlugIns::ProgressModuleCount)
    return nullptr;
  // Written from the display's thread through that thread's own stream on the channel.
  auto display = std::make_unique<DKProgressConsole>(
      step, [](const DKString& line) { DKApplication::GetAppCout(1) << line << std::endl; });
  if (display->Start(2000).Bad())
    return nullptr;
  return display;
}
