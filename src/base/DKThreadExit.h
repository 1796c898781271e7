// Internal: per-thread state that is given back when its thread ends, without thread_local
// destructors. MinGW-w64 GCC emulates thread-local storage and frees a thread's thread_local
// objects before it runs their destructors, so a thread_local with a destructor is read after it
// is freed there. Here the state lives on the heap, a trivially destructible thread_local pointer
// finds it fast, and each platform runs the cleanups from its own thread-end hook (before the
// thread's thread_local storage goes away).
#pragma once

#include "base/DKThreadToken.h"

namespace dkbase {

using ThreadCleanup = void (*)(void* state) noexcept;

// Runs cleanup(state) on the calling thread when it ends; the cleanups of a thread run last in,
// first out, in the place of a thread_local destructor made at the first registration. Returns
// false, and keeps nothing, once the thread's cleanups have started (a cleanup, or a destructor
// that runs after them, asks for new state) or when no memory is left: the caller then works
// without per-thread state.
[[nodiscard]] bool AtThreadExit(ThreadCleanup cleanup, void* state) noexcept;

// Whether the calling thread's cleanups have started.
[[nodiscard]] bool ThreadExitStarted() noexcept;

// One heap object of T per thread for one use: Get() makes it on first use and returns null
// while the thread ends (or when there is no memory), and the object is deleted when its thread
// ends. Each T type is one separate use.
template <class T>
class ThreadOwned {
public:
  static T* Get() noexcept {
    if (T* current = t_current) [[likely]]
      return current;
    return Make();
  }

  // The calling thread's T if it has one (one thread-local load).
  static T* Current() noexcept { return t_current; }

private:
  static inline thread_local T* t_current DK_FAST_TLS = nullptr;

  [[gnu::noinline]] static T* Make() noexcept {
    if (ThreadExitStarted())
      return nullptr;
    T* made = nullptr;
    try {
      made = new T;
    } catch (...) {
      return nullptr;
    }
    if (!AtThreadExit(&Drop, made)) {
      delete made;
      return nullptr;
    }
    t_current = made;
    return made;
  }

  // The pointer is cleared first: what the destructor touches finds no state and makes none.
  static void Drop(void* state) noexcept {
    t_current = nullptr;
    delete static_cast<T*>(state);
  }
};

// What each platform provides: the calling thread's list of cleanups (null before the first
// registration), and arming the hook that calls RunThreadExit(list) when the thread ends.
struct ThreadExitList;
namespace threadexit {
ThreadExitList* Current() noexcept;
void SetCurrent(ThreadExitList* list) noexcept;
[[nodiscard]] bool Arm(ThreadExitList* list) noexcept;
} // namespace threadexit
void RunThreadExit(ThreadExitList* list) noexcept;

} // namespace dkbase
