// Placeholder events for the Windows build until the Windows thread layer brings its own: unnamed
// only (a name is ignored), on a standard mutex and condition variable. Posted, reset, pulse and
// the ticket contract hold inside one process.
#include "threads/DKSyncImpl.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <new>

namespace {

struct PlaceholderEvent : DKEventImpl {
  std::mutex lock;
  std::condition_variable changed;
  bool posted = false;
  std::uint32_t generation = 0;
};

PlaceholderEvent* Self(const DKEventImpl* event) {
  return const_cast<PlaceholderEvent*>(static_cast<const PlaceholderEvent*>(event));
}

} // namespace

DKEventImpl* DKEventImpl::Open(const std::string&, bool posted, int& error) noexcept {
  auto* event = new (std::nothrow) PlaceholderEvent;
  if (!event) {
    error = 8; // ERROR_NOT_ENOUGH_MEMORY
    return nullptr;
  }
  event->posted = posted;
  return event;
}

void DKEventImpl::Close() noexcept { delete Self(this); }

void DKEventImpl::Post() noexcept {
  PlaceholderEvent* self = Self(this);
  std::lock_guard guard(self->lock);
  self->posted = true;
  ++self->generation;
  self->changed.notify_all();
}

void DKEventImpl::Reset() noexcept {
  PlaceholderEvent* self = Self(this);
  std::lock_guard guard(self->lock);
  self->posted = false;
}

void DKEventImpl::Pulse() noexcept {
  PlaceholderEvent* self = Self(this);
  std::lock_guard guard(self->lock);
  ++self->generation;
  self->changed.notify_all();
}

bool DKEventImpl::IsPosted() const noexcept {
  PlaceholderEvent* self = Self(this);
  std::lock_guard guard(self->lock);
  return self->posted;
}

std::uint32_t DKEventImpl::Ticket() const noexcept {
  PlaceholderEvent* self = Self(this);
  std::lock_guard guard(self->lock);
  return self->generation;
}

DKWaitStatus DKEventImpl::WaitAfter(std::uint32_t ticket, int timeoutMs) noexcept {
  return WaitAfterNs(ticket, timeoutMs < 0 ? -1 : std::int64_t{timeoutMs} * 1000000);
}

DKWaitStatus DKEventImpl::WaitAfterNs(std::uint32_t ticket, std::int64_t timeoutNs) noexcept {
  PlaceholderEvent* self = Self(this);
  std::unique_lock guard(self->lock);
  const auto released = [&] { return self->posted || self->generation != ticket; };
  if (timeoutNs < 0) {
    self->changed.wait(guard, released);
    return DKWaitStatus::Signalled;
  }
  return self->changed.wait_for(guard, std::chrono::nanoseconds(timeoutNs), released) ? DKWaitStatus::Signalled
                                                                                      : DKWaitStatus::TimedOut;
}
