// The hidden timer window (internal): on Windows, a message-only window that carries the timer
// queue's wake-ups through the owning thread's messages, so that a thread running its own
// message loop runs the queued callbacks without calling DKTimerWnd::Pump. Implemented once per
// platform, in src/platform/<os>/TimerWindowImpl.cpp; where the system has no windows, Create
// refuses and the rest does nothing.
#pragma once

class DKTimerWindowImpl {
public:
  typedef void (*Deliver)();

  // Creates the window on the calling thread; its window procedure calls deliver for every
  // wake-up. False, with error set to the system's code, when the system has no windows or
  // refuses (a window already exists: the caller checks that first).
  static bool Create(Deliver deliver, int& error) noexcept;
  // Destroys the window; on its owner thread only.
  static void Destroy() noexcept;
  // Whether the calling thread owns the window.
  static bool IsOwner() noexcept;
  // The window's handle (an HWND), null without a window.
  static void* Handle() noexcept;
  // Any thread: makes sure one wake-up is on its way to the window (several are one).
  static void Notify() noexcept;
  // The queue was emptied: the next Notify sends a wake-up even when the last one never reached
  // the window (a loop that dropped it must not silence the window for good).
  static void Drained() noexcept;
  // On the owner thread: waits up to timeoutMs (< 0: without limit) for a message of the
  // thread, then dispatches every message waiting, the window's own included. False when a quit
  // message came: it is taken out of the queue, its exit code put in quitCode, and the messages
  // behind it stay for the next wait.
  static bool WaitAndDispatch(int timeoutMs, int& quitCode) noexcept;
};
