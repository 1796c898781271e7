// DKProgress: nested progress counters with a smoothed rate and a remaining-time estimate;
// DKRateEstimator: the estimate itself; DKProgressConsole: draws a counter on the console.
//
//   DKSmartPtr<DKProgress> job = DKProgress::Create(DK_T("Importing"), files.size());
//   DKProgressConsole display(job);    // a bar on a terminal, a line every 5 s otherwise
//   display.Start();
//   for (const DKString& file : files) {
//     DKSmartPtr<DKProgress> rows = job->AddChild(file, CountRows(file)); // one step of job
//     for (...) rows->Increment();     // from any thread
//     rows->Complete();
//   }
//   display.Stop();                    // the final state, and a line end
//
// A counter has a total of steps and a count of steps done. A step of a counter can be a child
// counter with its own total: while the child runs, the parent's fraction includes the child's
// fraction of that step, and once the child completes (its count reaches its total, or
// Complete), the step is done. A child that is dropped before it completes counts as complete,
// so that an abandoned step never holds its parent below 100%. Increment and every reading are
// safe from any number of threads.
//
// The rate is in steps of the counter per second, smoothed exponentially over a few seconds
// (partial progress of children included), and the remaining time is what is left at that rate;
// both are unknown (0, false) until two readings at least 50 ms apart have been taken. Readings
// are taken by the getters themselves (at most every 50 ms), by the console display, or by
// Sample.
#pragma once

#include <DorvikCore/DKError.h>
#include <DorvikCore/DKRefCount.h>
#include <DorvikCore/DKString.h>
#include <DorvikCore/DKTimer.h>
#include <DorvikCore/DKTypes.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <mutex>
#include <vector>

// An exponentially smoothed rate of an amount that grows over time.
class DK_EXPORT DKRateEstimator {
public:
  // The clock of the readings: monotonic, so a change of the wall clock does not move a rate.
  typedef std::chrono::steady_clock Clock;

  // timeConstant: how quickly the estimate follows a change of pace (after that long it has
  // moved about two thirds of the way). minInterval: readings closer than that to the previous
  // one are left out, so that noise of tiny intervals does not swing the estimate.
  explicit DKRateEstimator(Clock::duration timeConstant = std::chrono::seconds(5),
                           Clock::duration minInterval = std::chrono::milliseconds(50));

  // Forgets every reading: the rate is unknown again.
  void Reset();
  // The amount reached at a time. Times that go backwards are left out; an amount that goes
  // down (a counter set back) starts the estimate again from there.
  void Add(Clock::time_point when, double amount);
  // Per second; 0 while unknown.
  double GetRate() const noexcept { return m_known ? m_rate : 0.0; }
  bool IsKnown() const noexcept { return m_known; }
  // The time `left` takes at the current rate; false while the rate is unknown or 0.
  bool GetRemaining(double left, Clock::duration& remaining) const;

private:
  Clock::duration m_timeConstant;
  Clock::duration m_minInterval;
  bool m_started = false;
  bool m_known = false;
  Clock::time_point m_lastTime{};
  double m_lastAmount = 0.0;
  double m_rate = 0.0;
};

// A progress counter: a total of steps, a count of steps done, and child counters standing
// for steps of their own (see the head of this file). Counted: hold it in a DKSmartPtr.
class DK_EXPORT DKProgress : public DKRefCount {
public:
  // The monotonic clock of its rate and remaining-time readings.
  typedef std::chrono::steady_clock Clock;

  // A counter of its own (no parent).
  static DKSmartPtr<DKProgress> Create(const DKString& label, DKUInt64 total);
  ~DKProgress() override;
  DKProgress(const DKProgress&) = delete;
  DKProgress& operator=(const DKProgress&) = delete;

  // A child counter that stands for `steps` steps of this one.
  DKSmartPtr<DKProgress> AddChild(const DKString& label, DKUInt64 total, DKUInt64 steps = 1);

  // Adds to the count of steps done (the count stops at the total).
  void Increment(DKUInt64 steps = 1) noexcept;
  // Sets the count (within 0 and the total).
  void SetDone(DKUInt64 done) noexcept;
  // Changes the total; a count above the new total is cut to it. A total of 0 is complete.
  void SetTotal(DKUInt64 total) noexcept;
  // Every step done, and the children completed.
  void Complete() noexcept;

  // The label given at creation.
  const DKString& GetLabel() const noexcept { return m_label; }
  // The count of steps done (a completed child's step included).
  DKUInt64 GetDone() const noexcept { return m_done.load(std::memory_order_acquire); }
  // The total of steps.
  DKUInt64 GetTotal() const noexcept { return m_total.load(std::memory_order_acquire); }
  // Whether every step is done (a total of 0 is complete).
  bool IsComplete() const noexcept;
  // 0 to 1: the steps done and the running children's part of theirs, over the total.
  double GetFraction() const;
  // This counter's label followed by the labels of the running child, its running child and so
  // on, joined by " > " ("Loading > storage.osx"): the step under way, as deep as it goes.
  DKString GetActivePath() const;

  // Takes a reading for the estimate now (or at a given time).
  void Sample();
  void Sample(Clock::time_point now);
  // Steps per second; 0 while unknown.
  double GetRate();
  // The time left; false while unknown.
  bool GetRemaining(Clock::duration& remaining);
  // Both of the above, from the same reading.
  void GetEstimate(double& rate, bool& known, Clock::duration& remaining);

private:
  DKProgress(const DKString& label, DKUInt64 total, DKProgress* parent, DKUInt64 steps);
  void OnComplete() noexcept;
  void ChildEnded(DKProgress* child) noexcept;
  double FractionLocked() const;

  const DKString m_label;
  std::atomic<DKUInt64> m_done{0};
  std::atomic<DKUInt64> m_total;
  std::atomic<bool> m_completed{false};
  DKSmartPtr<DKProgress> m_parent;
  const DKUInt64 m_steps; // of the parent
  mutable std::mutex m_lock; // guards m_children and the estimate
  std::vector<DKProgress*> m_children; // running: each removes itself when it completes or goes
  DKRateEstimator m_estimate;
  Clock::time_point m_lastSample{};
};

// Draws a progress counter on the console: on a terminal, one line redrawn in place,
//   Importing > orders.csv [#############-----------------]  43%  12.5/s  00:41 left
// elsewhere (a file, a pipe, a log) a plain line now and then,
//   Importing > orders.csv: 43% (13/30), 12.5/s, 00:41 left
// Drawing runs on the default thread pool, driven by a DKTimer.
class DK_EXPORT DKProgressConsole {
public:
  // How the counter is drawn.
  enum Mode {
    Auto,  // Bar when the output is the console on a terminal, Lines otherwise
    Bar,   // one line redrawn in place
    Lines, // a plain line every period
  };
  // Receives each plain line (without a line end), for output that goes elsewhere than a
  // stream: a log channel, for instance.
  typedef std::function<void(const DKString& line)> LineSink;

  // out: null means the console (DKLockedCOUT). The display neither owns nor closes out.
  explicit DKProgressConsole(const DKSmartPtr<DKProgress>& progress, std::ostream* out = nullptr, Mode mode = Auto);
  // Lines to a sink.
  DKProgressConsole(const DKSmartPtr<DKProgress>& progress, LineSink sink);
  // Stop.
  ~DKProgressConsole();
  DKProgressConsole(const DKProgressConsole&) = delete;
  DKProgressConsole& operator=(const DKProgressConsole&) = delete;

  // Draws every periodMs (0: 200 ms for a bar, 5000 ms for lines), the first time one period
  // from now; the counter's completion does not stop it (Stop does).
  DKErrorID Start(int periodMs = 0);
  // Stops drawing; draws the last state once more (a bar then ends its line).
  void Stop();
  // Draws now.
  void Draw();
  // Whether it draws a bar (Auto decided).
  bool IsBar() const noexcept { return m_mode == Bar; }
  // How many times it has drawn.
  std::uint64_t GetDrawCount() const noexcept { return m_draws.load(std::memory_order_relaxed); }

  // The texts it draws, for a given state (without the bar's carriage return and padding).
  static DKString FormatBar(const DKString& label, double fraction, double rate, bool remainingKnown,
                            DKProgress::Clock::duration remaining, unsigned barWidth = 30);
  static DKString FormatLine(const DKString& label, double fraction, DKUInt64 done, DKUInt64 total, double rate,
                             bool remainingKnown, DKProgress::Clock::duration remaining);
  // "mm:ss" or "h:mm:ss"; "--:--" when unknown.
  static DKString FormatDuration(bool known, DKProgress::Clock::duration duration);

private:
  void DrawNow(bool last);

  DKSmartPtr<DKProgress> m_progress;
  std::ostream* m_out;
  LineSink m_sink;
  Mode m_mode;
  std::mutex m_drawLock; // one drawing at a time
  std::size_t m_lastWidth = 0; // of the bar drawn last, to blank what a shorter one leaves
  bool m_stopped = false;
  std::atomic<std::uint64_t> m_draws{0};
  std::unique_ptr<DKTimer> m_timer;
};
