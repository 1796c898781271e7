// The other process of the threads suites. Each mode does one thing and answers by its exit code:
// 0 for what the test expects, another small number for each way it can go wrong.
#include <DorvikCore/DKError.h>
#include <DorvikCore/DKException.h>
#include <DorvikCore/DKSync.h>
#include <DorvikCore/DKThread.h>

#include <cstdlib>
#include <string>

namespace {

std::size_t StackOfNewThread() {
  std::size_t size = 0;
  DKThread thread(DKMakeCallback([&size] { size = DKThread::GetCurrentThreadStackSize(); }));
  if (thread.Start().Bad())
    return 0;
  thread.Join();
  return size;
}

} // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  DKString name; // the named object, or the number the mode expects
  if (argc > 2)
    name.SetFromUTF8(argv[2]);

  // mutex-try NAME: 0 when the mutex could be taken at once, 10 when another holds it.
  if (mode == "mutex-try" && argc == 3) {
    DKMutex mutex(name);
    if (!mutex.Lock(0))
      return 10;
    mutex.Unlock();
    return 0;
  }
  // mutex-abandon NAME: takes the mutex and ends without letting go or closing it.
  if (mode == "mutex-abandon" && argc == 3)
    std::_Exit((new DKMutex(name))->Lock(0) ? 0 : 10);
  // event-wait NAME READY: says it is ready on READY, then 0 when NAME is posted within 30 s.
  if (mode == "event-wait" && argc == 4) {
    DKEventSemaphore event(name);
    DKString readyName;
    readyName.SetFromUTF8(argv[3]);
    DKEventSemaphore(readyName).Post();
    return event.Wait(30000) == DK_WAIT_OBJECT_0 ? 0 : 11;
  }
  // event-posted NAME: 0 when the event is posted, 12 when not.
  if (mode == "event-posted" && argc == 3)
    return DKEventSemaphore(name).Posted() ? 0 : 12;
  // event-create-and-die NAME: creates the event posted and ends without closing it.
  if (mode == "event-create-and-die" && argc == 3) {
    new DKEventSemaphore(name, true);
    std::_Exit(0);
  }
  // stacksize BYTES: every thread gets BYTES of stack (from DK_THREAD_STACKSIZE), also after the
  // variable changes; 13 for the first thread, 14 for the one started after the change.
  if (mode == "stacksize" && argc == 3) {
    const std::size_t expected = std::strtoull(argv[2], nullptr, 10);
    if (StackOfNewThread() != expected)
      return 13;
    setenv("DK_THREAD_STACKSIZE", "4194304", 1);
    return StackOfNewThread() != expected ? 14 : 0;
  }
  // start-refused: Start throws the creation failure (the system refuses the thread's stack);
  // 15 when the thread started, 16 for another failure.
  if (mode == "start-refused" && argc == 2) {
    DKThread thread(DKMakeCallback([] {}));
    try {
      return thread.Start().Good() ? 15 : 16;
    } catch (const DKException& e) {
      return e.What().AsUTF8() == "_beginthreadex failed in DKThread::Start()" && !thread.IsStarted() ? 0 : 16;
    }
  }
  return 2;
}
