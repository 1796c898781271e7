// The watch over a plug-in application's shutdown.
#include "app/DKShutdownWatch.h"

#include <DorvikCore/DKApplication.h>

#include "os/DKSignal.h"

#include <algorithm>
#include <atomic>

namespace dkapp {

namespace {

std::atomic<unsigned> g_quitSignals{0};
std::atomic<int> g_lastQuitSignal{0};
std::atomic<int> g_forcingSignal{0};

static_assert(std::atomic<unsigned>::is_always_lock_free && std::atomic<int>::is_always_lock_free,
              "the quit signal handler may only touch lock-free atomics");

// How often the watch looks: a forced exit follows its signal within this time.
constexpr std::chrono::milliseconds kLookEvery{50};

} // namespace

void NoteQuitSignal(int signalNumber) noexcept {
  const bool posted = DKApplication::IsExitPosted();
  g_lastQuitSignal.store(signalNumber);
  g_quitSignals.fetch_add(1);
  DKApplication::PostExitRequest();
  if (posted)
    g_forcingSignal.store(signalNumber);
}

unsigned QuitSignalCount() noexcept { return g_quitSignals.load(); }

int ForcingSignal() noexcept { return g_forcingSignal.load(); }

ShutdownWatch::ShutdownWatch(std::chrono::milliseconds gracePeriod, Hooks hooks)
    : m_gracePeriod(gracePeriod), m_hooks(std::move(hooks)), m_thread([this] { Watch(); }) {}

ShutdownWatch::~ShutdownWatch() {
  {
    std::lock_guard guard(m_lock);
    m_done = true;
  }
  m_wake.notify_all();
  m_thread.join();
}

void ShutdownWatch::Watch() {
  // The watch takes the quit signals itself, so that one reaches it even when every other
  // thread of the application holds them back.
  void* const hold = DKSignal::HoldQuitSignals();
  bool stopping = false;
  std::vector<DKString> told; // each busy plug-in is named once
  unsigned signalsBefore = 0;
  std::chrono::steady_clock::time_point since;
  std::unique_lock lock(m_lock);
  while (!m_wake.wait_for(lock, kLookEvery, [this] { return m_done; })) {
    lock.unlock();
    if (const int signalNumber = DKSignal::TakeQuitSignal())
      NoteQuitSignal(signalNumber);
    if (!stopping && m_hooks.stopping()) {
      stopping = true;
      signalsBefore = QuitSignalCount();
      since = std::chrono::steady_clock::now();
    }
    // A quit signal after the exit was requested, whoever requested it, ends the process.
    int forcing = ForcingSignal();
    if (!forcing && stopping && QuitSignalCount() > signalsBefore)
      forcing = g_lastQuitSignal.load();
    if (forcing) {
      if (!m_hooks.forceExit(forcing))
        break; // the application is past its waits
    } else if (stopping && std::chrono::steady_clock::now() - since >= m_gracePeriod) {
      for (const BusyPlugIn& busy : m_hooks.busy()) {
        const DKString line = DKStrCat(DK_T(">>>> Still waiting for <"), busy.name, DK_T("> to return from "), busy.member,
                                       DK_T(". Another quit signal (Ctrl+C) ends the process."));
        if (std::find(told.begin(), told.end(), line) == told.end()) {
          m_hooks.say(line);
          told.push_back(line);
        }
      }
    }
    lock.lock();
  }
  if (lock.owns_lock())
    lock.unlock();
  DKSignal::ReleaseQuitSignals(hold);
}

} // namespace dkapp
