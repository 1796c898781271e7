// The hidden timer window has no counterpart here: the run loop pumps the timer queue itself.
#include "threads/DKTimerWndImpl.h"

#include <cerrno>

bool DKTimerWindowImpl::Create(Deliver, int& error) noexcept {
  error = ENOTSUP;
  return false;
}
void DKTimerWindowImpl::Destroy() noexcept {}
bool DKTimerWindowImpl::IsOwner() noexcept { return false; }
void* DKTimerWindowImpl::Handle() noexcept { return nullptr; }
void DKTimerWindowImpl::Notify() noexcept {}
void DKTimerWindowImpl::Drained() noexcept {}
bool DKTimerWindowImpl::WaitAndDispatch(int, int&) noexcept { return true; }
