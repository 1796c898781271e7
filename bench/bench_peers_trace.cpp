// Peer libraries on the filtered messages of bench_trace.cpp, in the same program: a logging
// call that its library drops at the call site, with the same text and arguments. Qt: qCDebug
// on a QLoggingCategory whose debug messages are switched off by a filter rule. POCO: an
// information message through poco_information_f3 to a Poco::Logger set to warnings (the
// debug macros compile to nothing in a release build, so they would measure nothing).
#include <benchmark/benchmark.h>

#include <string>

#if DK_BENCH_HAVE_QT
#include <QLoggingCategory>
#endif
#if DK_BENCH_HAVE_POCO
#include <Poco/Format.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>
#endif

#if DK_BENCH_HAVE_QT
Q_LOGGING_CATEGORY(lcBenchPeers, "dk.bench.peers")
#endif

namespace {

#if DK_BENCH_HAVE_QT

void BM_QLoggingCategory_DebugOff(benchmark::State& state) {
  QLoggingCategory::setFilterRules(QStringLiteral("dk.bench.peers.debug=false"));
  if (lcBenchPeers().isDebugEnabled())
    state.SkipWithError("the category's debug messages are on");
  int i = 0;
  for (auto _ : state) {
    qCDebug(lcBenchPeers, "request %d took %.3f ms for %s", ++i, 1.5, "client-42");
    benchmark::ClobberMemory();
  }
  QLoggingCategory::setFilterRules(QString());
}
BENCHMARK(BM_QLoggingCategory_DebugOff);

#endif // DK_BENCH_HAVE_QT

#if DK_BENCH_HAVE_POCO

void BM_PocoLogger_BelowLevel(benchmark::State& state) {
  Poco::Logger& logger = Poco::Logger::get("dk.bench.peers");
  logger.setLevel(Poco::Message::PRIO_WARNING);
  int i = 0;
  const std::string client = "client-42";
  for (auto _ : state) {
    poco_information_f3(logger, "request %d took %.3f ms for %s", ++i, 1.5, client);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_PocoLogger_BelowLevel);

#endif // DK_BENCH_HAVE_POCO

} // namespace
