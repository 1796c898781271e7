// The watch over a plug-in application's shutdown (internal). Once an exit is requested it
// waits a grace period and then names the plug-ins that are still in Run or Stop; a quit signal
// that arrives while the application stops ends the process through the application's forced
// exit. It runs on a thread of its own, so that it works while the main thread is held up in a
// plug-in.
#pragma once

#include <DorvikCore/DKString.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace dkapp {

// Counts a quit signal and posts the exit request; safe in a signal handler. A quit signal that
// arrives once the process's exit is posted asks for the forced exit.
void NoteQuitSignal(int signalNumber) noexcept;
// The quit signals counted so far.
unsigned QuitSignalCount() noexcept;
// The number of the signal that asked for the forced exit; 0 while none did.
int ForcingSignal() noexcept;

// A plug-in that has not returned from one of its members.
struct BusyPlugIn {
  DKString name;
  const DKChar* member;
};

class ShutdownWatch {
public:
  struct Hooks {
    std::function<bool()> stopping;                 // whether the application was asked to exit
    std::function<std::vector<BusyPlugIn>()> busy;  // the plug-ins it still waits for
    std::function<bool(int signalNumber)> forceExit; // false when the application ends normally already
    std::function<void(const DKString&)> say;       // one console line
  };

  ShutdownWatch(std::chrono::milliseconds gracePeriod, Hooks hooks);
  // Ends the watch and waits for its thread.
  ~ShutdownWatch();
  ShutdownWatch(const ShutdownWatch&) = delete;
  ShutdownWatch& operator=(const ShutdownWatch&) = delete;

private:
  void Watch();

  const std::chrono::milliseconds m_gracePeriod;
  const Hooks m_hooks;
  std::mutex m_lock; // guards m_done
  std::condition_variable m_wake;
  bool m_done = false;
  std::thread m_thread;
};

} // namespace dkapp
