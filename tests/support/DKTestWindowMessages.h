// A thread's window messages, for the tests of the hidden timer window: what a program's own
// message loop does, with one implementation per system (posix/ and win32/ beside this file).
// Where the system has no windows, each says so and the tests that need one skip.
#pragma once

#include <functional>

namespace dktest {

// Whether the system has window messages (Windows).
bool HasWindowMessages();
// A message loop on the calling thread: waits for its messages and dispatches them until done()
// is true (checked after each batch) or timeoutMs passed; false when it timed out.
bool DispatchMessagesUntil(const std::function<bool()>& done, int timeoutMs);
// Posts a quit message with exitCode to the calling thread's queue.
void PostQuitToThisThread(int exitCode);
// Removes the calling thread's waiting messages without dispatching them, and counts them.
int DropThreadMessages();

} // namespace dktest
