// DKProgress, DKRateEstimator and DKProgressConsole.
//
// A child counter holds its parent; the parent knows its running children by plain pointers,
// which each child removes, under the parent's lock, when it completes or is destroyed. Locks
// are taken from parent to child only (a reading walks down the tree); a child reports to its
// parent without holding its own lock.
#include <DorvikCore/DKProgress.h>

#include <DorvikCore/DKConsole.h>

#include "os/DKSystem.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <string>

// ---------------------------------------------------------------------------------------------
// DKRateEstimator

DKRateEstimator::DKRateEstimator(Clock::duration timeConstant, Clock::duration minInterval)
    : m_timeConstant(std::max(timeConstant, Clock::duration(1))), m_minInterval(minInterval) {}

void DKRateEstimator::Reset() {
  m_started = false;
  m_known = false;
  m_rate = 0.0;
}

void DKRateEstimator::Add(Clock::time_point when, double amount) {
  if (!m_started || amount < m_lastAmount) { // the first reading, or a counter set back
    m_started = true;
    m_known = false;
    m_lastTime = when;
    m_lastAmount = amount;
    return;
  }
  if (when < m_lastTime || when - m_lastTime < m_minInterval)
    return;
  const double seconds = std::chrono::duration<double>(when - m_lastTime).count();
  const double pace = (amount - m_lastAmount) / seconds;
  if (!m_known) {
    m_rate = pace;
    m_known = true;
  } else {
    const double weight = 1.0 - std::exp(-(when - m_lastTime) / std::chrono::duration<double>(m_timeConstant));
    m_rate += weight * (pace - m_rate);
  }
  m_lastTime = when;
  m_lastAmount = amount;
}

bool DKRateEstimator::GetRemaining(double left, Clock::duration& remaining) const {
  if (!m_known || m_rate <= 0.0)
    return false;
  constexpr double longest = 100.0 * 365 * 86400; // a century: beyond it the figure means nothing
  const double seconds = std::min(std::max(left, 0.0) / m_rate, longest);
  remaining = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  return true;
}

// ---------------------------------------------------------------------------------------------
// DKProgress

namespace {

constexpr auto kSampleEvery = std::chrono::milliseconds(50);

// Adds to a count without passing the total; true when this addition reached the total.
bool AddCapped(std::atomic<DKUInt64>& done, DKUInt64 steps, DKUInt64 total) noexcept {
  DKUInt64 old = done.load(std::memory_order_relaxed);
  for (;;) {
    if (old >= total)
      return false;
    const DKUInt64 next = total - old > steps ? old + steps : total;
    if (done.compare_exchange_weak(old, next, std::memory_order_acq_rel, std::memory_order_relaxed))
      return next == total;
  }
}

} // namespace

DKProgress::DKProgress(const DKString& label, DKUInt64 total, DKProgress* parent, DKUInt64 steps)
    : m_label(label), m_total(total), m_parent(parent), m_steps(steps) {}

DKProgress::~DKProgress() {
  if (m_parent && !m_completed.exchange(true, std::memory_order_acq_rel))
    m_parent->ChildEnded(this); // dropped before it completed: its step counts as done
}

DKSmartPtr<DKProgress> DKProgress::Create(const DKString& label, DKUInt64 total) {
  return DKSmartPtr<DKProgress>(new DKProgress(label, total, nullptr, 0));
}

DKSmartPtr<DKProgress> DKProgress::AddChild(const DKString& label, DKUInt64 total, DKUInt64 steps) {
  DKSmartPtr<DKProgress> child(new DKProgress(label, total, this, steps));
  {
    std::lock_guard<std::mutex> guard(m_lock);
    m_children.push_back(child.Get());
  }
  if (total == 0)
    child->OnComplete();
  return child;
}

void DKProgress::Increment(DKUInt64 steps) noexcept {
  if (steps != 0 && AddCapped(m_done, steps, m_total.load(std::memory_order_acquire)))
    OnComplete();
}

void DKProgress::SetDone(DKUInt64 done) noexcept {
  const DKUInt64 total = m_total.load(std::memory_order_acquire);
  m_done.store(std::min(done, total), std::memory_order_release);
  if (done >= total)
    OnComplete();
}

void DKProgress::SetTotal(DKUInt64 total) noexcept {
  m_total.store(total, std::memory_order_release);
  DKUInt64 done = m_done.load(std::memory_order_relaxed);
  while (done > total && !m_done.compare_exchange_weak(done, total, std::memory_order_acq_rel))
    ;
  if (m_done.load(std::memory_order_acquire) >= total)
    OnComplete();
}

void DKProgress::Complete() noexcept {
  m_done.store(m_total.load(std::memory_order_acquire), std::memory_order_release);
  OnComplete();
}

bool DKProgress::IsComplete() const noexcept { return m_completed.load(std::memory_order_acquire); }

void DKProgress::OnComplete() noexcept {
  if (m_completed.exchange(true, std::memory_order_acq_rel))
    return;
  if (m_parent)
    m_parent->ChildEnded(this);
}

void DKProgress::ChildEnded(DKProgress* child) noexcept {
  bool reached = false;
  {
    // The step moves from the running children to the count in one go, so that no reading sees
    // it in neither or in both.
    std::lock_guard<std::mutex> guard(m_lock);
    const auto it = std::find(m_children.begin(), m_children.end(), child);
    if (it != m_children.end())
      m_children.erase(it);
    reached = AddCapped(m_done, child->m_steps, m_total.load(std::memory_order_acquire));
  }
  if (reached)
    OnComplete();
}

double DKProgress::FractionLocked() const {
  if (m_completed.load(std::memory_order_acquire))
    return 1.0;
  const DKUInt64 total = m_total.load(std::memory_order_acquire);
  if (total == 0)
    return 1.0;
  double done = static_cast<double>(m_done.load(std::memory_order_acquire));
  for (const DKProgress* child : m_children)
    done += child->GetFraction() * static_cast<double>(child->m_steps);
  return std::min(1.0, done / static_cast<double>(total));
}

double DKProgress::GetFraction() const {
  std::lock_guard<std::mutex> guard(m_lock);
  return FractionLocked();
}

DKString DKProgress::GetActivePath() const {
  std::lock_guard<std::mutex> guard(m_lock);
  if (m_children.empty())
    return m_label;
  return m_label + DK_T(" > ") + m_children.front()->GetActivePath();
}

void DKProgress::Sample() { Sample(Clock::now()); }

void DKProgress::Sample(Clock::time_point now) {
  std::lock_guard<std::mutex> guard(m_lock);
  m_estimate.Add(now, FractionLocked() * static_cast<double>(m_total.load(std::memory_order_acquire)));
  m_lastSample = now;
}

void DKProgress::GetEstimate(double& rate, bool& known, Clock::duration& remaining) {
  const Clock::time_point now = Clock::now();
  std::lock_guard<std::mutex> guard(m_lock);
  const double total = static_cast<double>(m_total.load(std::memory_order_acquire));
  const double fraction = FractionLocked();
  if (now - m_lastSample >= kSampleEvery) {
    m_estimate.Add(now, fraction * total);
    m_lastSample = now;
  }
  rate = m_estimate.GetRate();
  remaining = Clock::duration::zero();
  known = fraction >= 1.0 || m_estimate.GetRemaining(total * (1.0 - fraction), remaining);
}

double DKProgress::GetRate() {
  double rate = 0;
  bool known = false;
  Clock::duration remaining{};
  GetEstimate(rate, known, remaining);
  return rate;
}

bool DKProgress::GetRemaining(Clock::duration& remaining) {
  double rate = 0;
  bool known = false;
  GetEstimate(rate, known, remaining);
  return known;
}

// ---------------------------------------------------------------------------------------------
// DKProgressConsole

namespace {

DKString Formatted(const char* format, double value) {
  char text[64];
  std::snprintf(text, sizeof text, format, value);
  return DKString::FromUTF8(text);
}

DKString RateText(double rate) {
  if (rate <= 0.0)
    return DK_T("--/s");
  return Formatted(rate < 10.0 ? "%.1f/s" : "%.0f/s", rate);
}

// Whole percent, 100 only when complete.
int Percent(double fraction) { return fraction >= 1.0 ? 100 : std::clamp(static_cast<int>(fraction * 100.0), 0, 99); }

bool ConsoleIsTerminal() {
  DKLockedCOUT console;
  return &console.GetCout() == &std::cout && DKSystem::StandardOutputIsTerminal();
}

} // namespace

DKString DKProgressConsole::FormatDuration(bool known, DKProgress::Clock::duration duration) {
  if (!known)
    return DK_T("--:--");
  const auto seconds = std::chrono::ceil<std::chrono::seconds>(duration).count();
  char text[32];
  if (seconds >= 3600)
    std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", static_cast<long long>(seconds / 3600),
                  static_cast<long long>(seconds / 60 % 60), static_cast<long long>(seconds % 60));
  else
    std::snprintf(text, sizeof text, "%02lld:%02lld", static_cast<long long>(seconds / 60),
                  static_cast<long long>(seconds % 60));
  return DKString::FromUTF8(text);
}

DKString DKProgressConsole::FormatBar(const DKString& label, double fraction, double rate, bool remainingKnown,
                                      DKProgress::Clock::duration remaining, unsigned barWidth) {
  const auto filled =
      static_cast<std::size_t>(std::clamp(fraction, 0.0, 1.0) * static_cast<double>(barWidth) + 1e-9);
  DKString bar = label + DK_T(" [");
  bar += DKString(DK_T('#'), filled);
  bar += DKString(DK_T('-'), barWidth - filled);
  char percent[8];
  std::snprintf(percent, sizeof percent, "%3d%%", Percent(fraction));
  return DKStrCat(bar, "] ", percent, "  ", RateText(rate), "  ", FormatDuration(remainingKnown, remaining), " left");
}

DKString DKProgressConsole::FormatLine(const DKString& label, double fraction, DKUInt64 done, DKUInt64 total,
                                       double rate, bool remainingKnown, DKProgress::Clock::duration remaining) {
  return DKStrCat(label, ": ", Percent(fraction), "% (", done, "/", total, "), ", RateText(rate), ", ",
                  FormatDuration(remainingKnown, remaining), " left");
}

DKProgressConsole::DKProgressConsole(const DKSmartPtr<DKProgress>& progress, std::ostream* out, Mode mode)
    : m_progress(progress), m_out(out), m_mode(mode) {
  if (m_mode == Auto)
    m_mode = !out && ConsoleIsTerminal() ? Bar : Lines;
}

DKProgressConsole::DKProgressConsole(const DKSmartPtr<DKProgress>& progress, LineSink sink)
    : m_progress(progress), m_out(nullptr), m_sink(std::move(sink)), m_mode(Lines) {}

DKProgressConsole::~DKProgressConsole() { Stop(); }

DKErrorID DKProgressConsole::Start(int periodMs) {
  if (!m_progress)
    return DKLibraryErrorID(DK_MSG_INVALID_ARGUMENT, "DKProgressConsole::Start: no progress to draw");
  const int period = periodMs > 0 ? periodMs : m_mode == Bar ? 200 : 5000;
  {
    std::lock_guard<std::mutex> guard(m_drawLock);
    m_stopped = false;
  }
  m_progress->Sample(); // the first reading: the first drawing can tell a rate
  if (!m_timer)
    m_timer = std::make_unique<DKTimer>(DKMakeCallback([this] { DrawNow(false); }));
  return m_timer->Start(period, period);
}

void DKProgressConsole::Stop() {
  if (!m_timer)
    return;
  m_timer->Cancel(); // no drawing runs after this
  DrawNow(true);
  m_timer.reset();
}

void DKProgressConsole::Draw() { DrawNow(false); }

void DKProgressConsole::DrawNow(bool last) {
  if (!m_progress)
    return;
  std::lock_guard<std::mutex> guard(m_drawLock);
  if (m_stopped)
    return;
  m_stopped = last;
  double rate = 0;
  bool known = false;
  DKProgress::Clock::duration remaining{};
  m_progress->GetEstimate(rate, known, remaining);
  const double fraction = m_progress->GetFraction();
  const DKString label = m_progress->GetActivePath();
  if (m_mode == Bar) {
    DKString line = FormatBar(label, fraction, rate, known, remaining);
    const std::size_t width = line.Length();
    if (m_lastWidth > width)
      line += DKString(DK_T(' '), m_lastWidth - width); // blank what the longer line left
    m_lastWidth = width;
    line = DKString(DK_T("\r")) + line;
    if (last)
      line += DK_T("\n");
    if (m_out)
      *m_out << line << std::flush;
    else
      DKLockedCOUT() << line;
  } else {
    const DKString line = FormatLine(label, fraction, m_progress->GetDone(), m_progress->GetTotal(), rate, known,
                                     remaining);
    if (m_sink)
      m_sink(line);
    else if (m_out)
      *m_out << line << std::endl;
    else
      DKLockedCOUT() << line << std::endl;
  }
  m_draws.fetch_add(1, std::memory_order_relaxed);
}
