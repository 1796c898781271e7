#include <DorvikCore/DKConsole.h>

#include <iostream>
#include <mutex>
#include <shared_mutex>

namespace {

// Process-wide state, created on first use and never destroyed, so that the console still
// works from static constructors and destructors of any module.
struct ConsoleState {
  std::recursive_mutex lock;
  std::ostream* stream = &std::cout; // guarded by lock
};

ConsoleState& Console() {
  static ConsoleState* const state = new ConsoleState;
  return *state;
}

struct TraceLevelState {
  std::shared_mutex lock; // shared while a provider runs, exclusive to change it
  DKTraceLevelProvider provider = nullptr;
  void* context = nullptr;
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
  console.stream = stream ? stream : &std::cout;
  return previous;
}

void DKSetTraceLevelProvider(DKTraceLevelProvider provider, void* context) {
  TraceLevelState& state = TraceLevel();
  std::unique_lock guard(state.lock);
  state.provider = provider;
  state.context = provider ? context : nullptr;
}

std::uint32_t GlbGetTraceLevel() {
  TraceLevelState& state = TraceLevel();
  std::shared_lock guard(state.lock);
  return state.provider ? state.provider(state.context) : 1;
}
