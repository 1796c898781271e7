// DKScheduleTimer: a DKTimer armed for the next occurrence of a schedule, never more than a
// minute ahead, so that the wall clock is looked at again at least once a minute.
#include <DorvikCore/DKSchedule.h>

#include <DorvikCore/DKTrace.h>

#include "os/DKClock.h"

#include <algorithm>
#include <utility>

namespace {

constexpr DKInt64 kLookAgainMs = 60000;

thread_local DKInt64 t_occurrence = 0;

DKInt64 WallNowMs() {
  const DKClockReading now = DKClock::Now();
  return now.seconds * 1000 + now.milliseconds;
}

} // namespace

DKScheduleTimer::DKScheduleTimer(const DKSchedule& schedule, const DKSmartPtr<DKCallback>& callback,
                                 DKTimerTarget target, DKThreadPool* pool)
    : m_schedule(schedule), m_callback(callback), m_timer(DKMakeCallback([this] { OnTimer(); }), target, pool) {}

DKScheduleTimer::~DKScheduleTimer() { Cancel(); }

DKErrorID DKScheduleTimer::Start() {
  const DKInt64 nowMs = WallNowMs();
  std::lock_guard<std::mutex> guard(m_lock);
  DKInt64 next = 0;
  if (!m_schedule.NextAfter(nowMs / 1000, next))
    return DKLibraryErrorID(DK_MSG_INVALID_SCHEDULE, m_schedule.ToString(), 0, "it never occurs");
  m_next = next;
  m_armed = true;
  const DKErrorID armed = ArmLocked(nowMs);
  m_armed = armed.Good();
  return armed;
}

DKErrorID DKScheduleTimer::ArmLocked(DKInt64 nowMs) {
  const DKInt64 wait = std::clamp(m_next * 1000 - nowMs, DKInt64{0}, kLookAgainMs);
  return m_timer.Start(std::chrono::milliseconds(wait));
}

void DKScheduleTimer::OnTimer() {
  const DKInt64 nowMs = WallNowMs();
  DKInt64 occurrence = 0;
  {
    std::lock_guard<std::mutex> guard(m_lock);
    if (!m_armed)
      return;
    if (nowMs < m_next * 1000) { // a look at the clock, or the clock went back
      if (ArmLocked(nowMs).Bad())
        m_armed = false; // as below: a timer that cannot be armed again stops
      return;
    }
    // Armed for the next occurrence before the callback runs, so that a callback that throws
    // leaves the timer going. Occurrences already past (the clock changed, or a callback ran
    // long) are not run one by one: the next one comes after now.
    occurrence = m_next;
    if (!m_schedule.NextAfter(std::max(occurrence, nowMs / 1000), m_next) || ArmLocked(nowMs).Bad())
      m_armed = false;
  }
  DKTrace::Msg(TL_DETAIL, TS_DK, "DKScheduleTimer", "occurrence %lld (%S)\n", static_cast<long long>(occurrence),
               m_schedule.ToString());
  struct Current {
    explicit Current(DKInt64 occurrence) : outer(std::exchange(t_occurrence, occurrence)) {}
    ~Current() { t_occurrence = outer; }
    DKInt64 outer;
  } current(occurrence);
  if (m_callback)
    m_callback->Call(); // an exception goes on to the timer, which reports it
}

bool DKScheduleTimer::Cancel() {
  bool wasArmed = false;
  {
    std::lock_guard<std::mutex> guard(m_lock);
    wasArmed = m_armed;
    m_armed = false;
  }
  m_timer.Cancel();
  return wasArmed;
}

bool DKScheduleTimer::IsArmed() const {
  std::lock_guard<std::mutex> guard(m_lock);
  return m_armed;
}

bool DKScheduleTimer::GetNextOccurrence(DKInt64& utcSeconds) const {
  std::lock_guard<std::mutex> guard(m_lock);
  if (m_armed)
    utcSeconds = m_next;
  return m_armed;
}

DKInt64 DKScheduleTimer::CurrentOccurrence() noexcept { return t_occurrence; }
