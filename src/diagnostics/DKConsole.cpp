#include <DorvikCore/DKConsole.h>

#include "os/DKConsoleOutput.h"

#include <atomic>
#include <mutex>
#include <thread>
#include <utility>

namespace {

// Process-wide state, created on first use and never destroyed, so that the console still
// works from static constructors and destructors of any module.
struct ConsoleState {
  std::recursive_mutex lock;
  std::ostream* stream = &DKConsoleOutput::Stream(); // guarded by lock
};

ConsoleState& Console() {
  static ConsoleState* const state = new ConsoleState;
  return *state;
}

// One installed provider. Calls in progress are counted so that removing the provider can
// wait for them without blocking callers of the new one.
struct TraceLevelProvider {
  DKTraceLevelProvider function;
  void* context;
  std::atomic<int> calls{0};
};

struct TraceLevelState {
  std::mutex lock; // guards current; held only to read or swap it, never during a call
  TraceLevelProvider* current = nullptr;
};

TraceLevelState& TraceLevel() {
  static TraceLevelState* const state = new TraceLevelState;
  return *state;
}

} // namespace

DKLockedCOUT::DKLockedCOUT() { Console().lock.lock(); }

DKLockedCOUT::~DKLockedCOUT() {
  ConsoleState& console = Console();
  console.stream->flush();
  console.lock.unlock();
}

std::ostream& DKLockedCOUT::GetCout() const noexcept { return *Console().stream; }

std::ostream* DKLockedCOUT::SetConsoleStream(std::ostream* stream) {
  ConsoleState& console = Console();
  std::lock_guard guard(console.lock);
  std::ostream* previous = console.stream;
  console.stream = stream ? stream : &DKConsoleOutput::Stream();
  return previous;
}

void DKSetTraceLevelProvider(DKTraceLevelProvider provider, void* context) {
  TraceLevelProvider* replacement = provider ? new TraceLevelProvider{provider, context} : nullptr;
  TraceLevelState& state = TraceLevel();
  TraceLevelProvider* previous;
  {
    std::lock_guard guard(state.lock);
    previous = std::exchange(state.current, replacement);
  }
  if (!previous)
    return;
  // No new call can reach the previous provider; wait for the ones under way.
  while (previous->calls.load(std::memory_order_acquire) != 0)
    std::this_thread::yield();
  delete previous;
}

std::uint32_t GlbGetTraceLevel() {
  TraceLevelState& state = TraceLevel();
  TraceLevelProvider* provider;
  {
    std::lock_guard guard(state.lock);
    provider = state.current;
    if (!provider)
      return 1;
    provider->calls.fetch_add(1, std::memory_order_relaxed);
  }
  struct CallEnd {
    TraceLevelProvider* provider;
    ~CallEnd() { provider->calls.fetch_sub(1, std::memory_order_release); } // the last use of provider
  } callEnd{provider};
  return provider->function(provider->context);
}
