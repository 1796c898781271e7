// Peer libraries on the work of bench_threads.cpp, in the same program: uncontended lock and
// unlock of QMutex, QRecursiveMutex, Poco::FastMutex and Poco::Mutex (recursive), and starting
// and joining a thread with an empty body through QThread and Poco::Thread.
#include "DKBenchInputs.h"

#include <benchmark/benchmark.h>

#include <memory>

#if DK_BENCH_HAVE_QT
#include <QMutex>
#include <QRecursiveMutex>
#include <QThread>
#endif
#if DK_BENCH_HAVE_POCO
#include <Poco/Mutex.h>
#include <Poco/Runnable.h>
#include <Poco/Thread.h>
#endif

namespace {

using dkbench::BM_LockUnlock;

#if DK_BENCH_HAVE_QT

BENCHMARK(BM_LockUnlock<QMutex>)->Name("BM_LockUnlock_QMutex");
BENCHMARK(BM_LockUnlock<QRecursiveMutex>)->Name("BM_LockUnlock_QRecursiveMutex");

void BM_StartJoin_QThread(benchmark::State& state) {
  for (auto _ : state) {
    std::unique_ptr<QThread> thread(QThread::create([] {}));
    thread->start();
    if (!thread->wait())
      state.SkipWithError("the thread did not end");
  }
}
BENCHMARK(BM_StartJoin_QThread)->UseRealTime();

#endif // DK_BENCH_HAVE_QT

#if DK_BENCH_HAVE_POCO

BENCHMARK(BM_LockUnlock<Poco::FastMutex>)->Name("BM_LockUnlock_PocoFastMutex");
BENCHMARK(BM_LockUnlock<Poco::Mutex>)->Name("BM_LockUnlock_PocoMutex");

class EmptyRunnable : public Poco::Runnable {
public:
  void run() override {}
};

void BM_StartJoin_PocoThread(benchmark::State& state) {
  EmptyRunnable empty;
  for (auto _ : state) {
    Poco::Thread thread;
    thread.start(empty);
    thread.join();
  }
}
BENCHMARK(BM_StartJoin_PocoThread)->UseRealTime();

#endif // DK_BENCH_HAVE_POCO

} // namespace
