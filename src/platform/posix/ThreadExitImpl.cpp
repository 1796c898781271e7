// The thread-end hook on POSIX systems (base/DKThreadExit.h): the C library runs thread_local
// destructors correctly here, so one thread_local object, made at a thread's first registration,
// runs the thread's cleanups from its destructor, in the order thread_local destructors keep
// (also for the main thread, at exit).
#include "base/DKThreadExit.h"

namespace {

thread_local dkbase::ThreadExitList* t_list DK_FAST_TLS = nullptr;

struct Trigger {
  ~Trigger() { dkbase::RunThreadExit(t_list); }
};

} // namespace

namespace dkbase::threadexit {

ThreadExitList* Current() noexcept { return t_list; }

void SetCurrent(ThreadExitList* list) noexcept { t_list = list; }

bool Arm(ThreadExitList*) noexcept {
  thread_local Trigger trigger;
  (void)&trigger; // made here, so destroyed in this place of the thread's thread_local objects
  return true;
}

} // namespace dkbase::threadexit
