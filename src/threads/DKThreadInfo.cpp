// DKThreadInfo: the system's record of a thread, and the thread dump.
#include <DorvikCore/DKThread.h>

#include <DorvikCore/DKFormat.h>

#include "threads/DKThreadImpl.h"

#include <ostream>
#include <string>

DKThreadInfo::DKThreadInfo(DKThreadHandle, std::uint32_t threadId) : m_threadId(threadId) {
  m_priorityClass = DKThreadImpl::ProcessPriorityClass();
  if (!DKThreadImpl::GetPriority(threadId, m_threadPriority))
    m_threadPriority = DK_THREAD_PRIORITY_ERROR_RETURN;
  DKThreadTimes times;
  if (!DKThreadImpl::GetTimes(threadId, times))
    return;
  m_kernelMs = TimeAsMilliSec(times.kernel100ns);
  m_userMs = TimeAsMilliSec(times.user100ns);
  if (times.creationUnix100ns > 0) {
    const DKInt64 creationMs = TimeAsMilliSec(times.creationUnix100ns);
    m_creationTime.FromUnixTime(creationMs / 1000, static_cast<std::int32_t>(creationMs % 1000));
    const DKInt64 elapsed = TimeAsMilliSec(DKThreadImpl::WallClockNow100ns() - times.creationUnix100ns);
    m_elapsedMs = elapsed > 0 ? elapsed : 0;
  }
}

DKThreadInfo::DKThreadInfo(std::uint32_t threadId, const DKDateTimeEx& creationTime, DKInt64 kernelMs, DKInt64 userMs,
                           DKInt64 elapsedMs, int priorityClass, int threadPriority)
    : m_threadId(threadId), m_creationTime(creationTime), m_kernelMs(kernelMs), m_userMs(userMs), m_elapsedMs(elapsedMs),
      m_priorityClass(priorityClass), m_threadPriority(threadPriority) {}

DKString DKThreadInfo::GetCreationTimeText() const {
  return m_creationTime.IsNull() ? DKString() : m_creationTime.AsString(DK_T("%Y/%m/%d %H:%M:%S"));
}

DKString DKThreadInfo::PriorityClassText(int priorityClass) {
  switch (priorityClass) {
  case DK_IDLE_PRIORITY_CLASS: return DK_T("IDLE_PRIORITY_CLASS");
  case DK_BELOW_NORMAL_PRIORITY_CLASS: return DK_T("BELOW_NORMAL_PRIORITY_CLASS");
  case DK_NORMAL_PRIORITY_CLASS: return DK_T("NORMAL_PRIORITY_CLASS");
  case DK_ABOVE_NORMAL_PRIORITY_CLASS: return DK_T("ABOVE_NORMAL_PRIORITY_CLASS");
  case DK_HIGH_PRIORITY_CLASS: return DK_T("HIGH_PRIORITY_CLASS");
  case DK_REALTIME_PRIORITY_CLASS: return DK_T("REALTIME_PRIORITY_CLASS");
  default: return DKFormatString(DK_T("UNKNOWN_PRIORITY_CLASS(0x%x)"), priorityClass);
  }
}

DKString DKThreadInfo::ThreadPriorityText(int priority) {
  switch (priority) {
  case DK_THREAD_PRIORITY_IDLE: return DK_T("THREAD_PRIORITY_IDLE");
  case DK_THREAD_PRIORITY_LOWEST: return DK_T("THREAD_PRIORITY_LOWEST");
  case DK_THREAD_PRIORITY_BELOW_NORMAL: return DK_T("THREAD_PRIORITY_BELOW_NORMAL");
  case DK_THREAD_PRIORITY_NORMAL: return DK_T("THREAD_PRIORITY_NORMAL");
  case DK_THREAD_PRIORITY_ABOVE_NORMAL: return DK_T("THREAD_PRIORITY_ABOVE_NORMAL");
  case DK_THREAD_PRIORITY_HIGHEST: return DK_T("THREAD_PRIORITY_HIGHEST");
  case DK_THREAD_PRIORITY_TIME_CRITICAL: return DK_T("THREAD_PRIORITY_TIME_CRITICAL");
  case DK_THREAD_PRIORITY_ERROR_RETURN: return DK_T("THREAD_PRIORITY_ERROR_RETURN");
  default: return DKFormatString(DK_T("THREAD_PRIORITY(%d)"), priority);
  }
}

DKInt64 DKThreadInfo::TimeAsMilliSec(const dk::FILETIME& time) noexcept {
  const auto units = static_cast<DKInt64>(static_cast<DKUInt64>(time.dwHighDateTime) << 32 | time.dwLowDateTime);
  return TimeAsMilliSec(units);
}

DKString DKThreadInfo::FmtTime(DKInt64 milliseconds) {
  const long long ms = milliseconds;
  return DKFormatString(DK_T("%I64d:%02I64d:%02I64d.%03I64d"), ms / 3600000, ms / 60000 % 60, ms / 1000 % 60, ms % 1000);
}

void DKThreadInfo::WriteThreadsInfo(std::ostream& out, const std::vector<DKThreadInfo>& infos) {
  out << "\n\n****** Writing thread info ******\n\n";
  out << DKFormatNarrow("%12s, %-27s, %-29s, %-19s, %15s, %15s, %15s\n", "ThreadId", "PriorityClass", "ThreadPriority",
                        "CreationTime", "KernelTime", "UserTime", "ElapsedTime");
  for (const DKThreadInfo& info : infos) {
    const DKString priorityClass = info.GetPriorityClassText();
    const DKString priority = info.GetThreadPriorityText();
    const DKString creation = info.GetCreationTimeText();
    const DKString kernel = FmtTime(info.GetKernelTime());
    const DKString user = FmtTime(info.GetUserTime());
    const DKString elapsed = FmtTime(info.GetElapsedTime());
    out << DKFormatNarrow("%12d, %-27S, %-29S, %-19S, %15S, %15S, %15S\n", static_cast<int>(info.GetThreadId()),
                          priorityClass.c_str(), priority.c_str(), creation.c_str(), kernel.c_str(), user.c_str(),
                          elapsed.c_str());
  }
  out << "\n****** Thread info written ******\n\n";
  out.flush();
}
