// The cleanups that run when a thread ends (base/DKThreadExit.h): a list per thread on the heap,
// which the platform's thread-end hook hands back to RunThreadExit.
#include "base/DKThreadExit.h"

#include <cstdlib>

namespace dkbase {

struct ThreadExitList {
  struct Entry {
    ThreadCleanup cleanup;
    void* state;
  };
  Entry* entries = nullptr;
  unsigned count = 0;
  unsigned capacity = 0;
  bool started = false;
};

namespace {

// The current list of every thread whose cleanups have run (a running list is marked started
// itself), so that what runs after them is refused. Never changed.
ThreadExitList g_ended{nullptr, 0, 0, true};

} // namespace

bool AtThreadExit(ThreadCleanup cleanup, void* state) noexcept {
  ThreadExitList* list = threadexit::Current();
  if (!list) {
    // From the C allocator, like the entries: a program that replaces operator new only in part
    // must not see one of its forms paired with another's delete.
    list = static_cast<ThreadExitList*>(std::malloc(sizeof(ThreadExitList)));
    if (!list)
      return false;
    *list = ThreadExitList{};
    if (!threadexit::Arm(list)) {
      std::free(list);
      return false;
    }
    threadexit::SetCurrent(list);
  }
  if (list->started)
    return false;
  if (list->count == list->capacity) {
    const unsigned capacity = list->capacity ? list->capacity * 2 : 4;
    void* grown = std::realloc(list->entries, capacity * sizeof(ThreadExitList::Entry));
    if (!grown)
      return false;
    list->entries = static_cast<ThreadExitList::Entry*>(grown);
    list->capacity = capacity;
  }
  list->entries[list->count++] = {cleanup, state};
  return true;
}

bool ThreadExitStarted() noexcept {
  const ThreadExitList* list = threadexit::Current();
  return list && list->started;
}

void RunThreadExit(ThreadExitList* list) noexcept {
  if (!list || list->started)
    return;
  list->started = true; // from here on, registrations are refused
  while (list->count) {
    const ThreadExitList::Entry entry = list->entries[--list->count];
    entry.cleanup(entry.state);
  }
  threadexit::SetCurrent(&g_ended);
  std::free(list->entries);
  std::free(list); // trivially destructible
}

} // namespace dkbase
