// A peer library on the work of bench_cmdline.cpp, in the same program: QCommandLineParser on
// the same 100 arguments. Qt knows options by "-" and "--" alone (the "/" switches are
// positional arguments to it) and needs every option declared first: the 20 "-noConsole..."
// switches are declared, as long options with one dash, outside the timed part. Its look-up is
// case-sensitive, DKCommandLine's is not. POCO's OptionProcessor has no case here: it takes
// one prefix style at a time and throws on the "/usr/lib/..." arguments as unknown options.
#include "DKBenchInputs.h"

#include <DorvikCore/DKCommandLine.h>

#include <benchmark/benchmark.h>

#if DK_BENCH_HAVE_QT
#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QProcess>
#include <QString>
#include <QStringList>
#endif

namespace {

#if DK_BENCH_HAVE_QT

QString ToQString(const DKString& text) {
  return QString(reinterpret_cast<const QChar*>(text.c_str()), static_cast<int>(text.Length()));
}

// The program path and the 100 arguments, split and unquoted as DKCommandLine splits them.
QStringList Arguments() {
  QStringList args;
  for (const DKString& word : DKCommandLine::SplitCommandLine(DKString(dkbench::CommandLine())))
    args << ToQString(word);
  return args;
}

void DeclareOptions(QCommandLineParser& parser) {
  parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
  for (int i = 1; i < 100; i += 5)
    parser.addOption(QCommandLineOption(QStringLiteral("noConsole") + QChar(u'a' + i % 26) + QChar(u'0' + i % 10)));
}

// The split vector parsed: the counterpart of BM_Classify100_DKCommandLineFromVector.
void BM_Parse100_QCommandLineParser(benchmark::State& state) {
  const QStringList args = Arguments();
  QCommandLineParser parser;
  DeclareOptions(parser);
  for (auto _ : state) {
    if (!parser.parse(args))
      state.SkipWithError("QCommandLineParser refused the arguments");
    benchmark::DoNotOptimize(parser.positionalArguments().size());
  }
  state.counters["positional"] = static_cast<double>(parser.positionalArguments().size());
}
BENCHMARK(BM_Parse100_QCommandLineParser)->Unit(benchmark::kMicrosecond);

// Splitting the text as well: the counterpart of BM_Parse100_DKCommandLine.
void BM_SplitAndParse100_QCommandLineParser(benchmark::State& state) {
  const QString text = QString::fromStdU16String(dkbench::CommandLine());
  QCommandLineParser parser;
  DeclareOptions(parser);
  for (auto _ : state) {
    if (!parser.parse(QProcess::splitCommand(text)))
      state.SkipWithError("QCommandLineParser refused the arguments");
    benchmark::DoNotOptimize(parser.positionalArguments().size());
  }
}
BENCHMARK(BM_SplitAndParse100_QCommandLineParser)->Unit(benchmark::kMicrosecond);

void BM_LookupLast_QCommandLineParser(benchmark::State& state) {
  QCommandLineParser parser;
  DeclareOptions(parser);
  if (!parser.parse(Arguments()))
    state.SkipWithError("QCommandLineParser refused the arguments");
  const QString name = QStringLiteral("noConsoles6"); // argument 97
  if (!parser.isSet(name))
    state.SkipWithError("the switch is missing");
  for (auto _ : state)
    benchmark::DoNotOptimize(parser.isSet(name));
}
BENCHMARK(BM_LookupLast_QCommandLineParser);

#endif // DK_BENCH_HAVE_QT

} // namespace
