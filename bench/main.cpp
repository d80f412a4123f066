// tessera_bench [--summary | --latency | --objects | --cost][=TEXT] [--quick] [--even-if-busy]
// tessera_bench [Google Benchmark's options]
//
// The library beside what a user would call instead, in one process; with TEXT only the works whose
// names contain it.

#include <benchmark/benchmark.h>

#include <ext/stdio_filebuf.h>
#include <iostream>

#include "Cost.h"
#include "Spread.h"
#include "Streams.h"
#include "Summary.h"

namespace {

/// Registers both sides of an entry for the interactive mode.
void registerSides(const bench::Entry& entry) {
  const auto run = [entry](benchmark::State& state, double (bench::Work::*side)(int)) {
    try {
      const std::unique_ptr<bench::Work> work = entry.make();
      int frame = 0;
      for (auto _ : state) {
        state.SetIterationTime((work.get()->*side)(frame)*1e-6);
        frame = (frame + 1) % work->frames();
      }
    } catch (const std::exception& failure) {
      state.SkipWithError(failure.what());
    }
  };
  const auto add = [&](const std::string& who, double (bench::Work::*side)(int)) {
    const std::string name = entry.work + "/" + entry.size() + "/" + who;
    benchmark::RegisterBenchmark(name.c_str(), run, side)
        ->UseManualTime()
        ->Unit(benchmark::kMicrosecond);
  };
  add("tessera", &bench::Work::ours);
  add(entry.peer, &bench::Work::peer);
}

int runInteractively(int argc, char** argv, const std::vector<bench::Entry>& entries) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  for (const bench::Entry& entry : entries) registerSides(entry);
  std::FILE* const output = bench::takeStream(stdout);
  __gnu_cxx::stdio_filebuf<char> buffer(output, std::ios::out);
  std::ostream stream(&buffer);
  const std::unique_ptr<benchmark::BenchmarkReporter> reporter(
      benchmark::CreateDefaultDisplayReporter());
  reporter->SetOutputStream(&stream);
  benchmark::RunSpecifiedBenchmarks(reporter.get());
  benchmark::Shutdown();
  return 0;
}

using Print = bool (*)(const std::vector<bench::Entry>&, const bench::Settings&, std::FILE*);

struct Mode {
  const char* option;
  Print print;
};
constexpr Mode modes[] = {{"--summary", bench::printSummary},
                          {"--latency", bench::printLatency},
                          {"--objects", bench::printObjects},
                          {"--cost", bench::printCost},
                          {"--copied", bench::printCopied}};

/// @return what the arguments ask for, nullptr for Google Benchmark
Print readArguments(int argc, char** argv, bench::Settings& settings) {
  Print print = nullptr;
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (argument == "--quick") settings.quick = true;
    if (argument == "--even-if-busy") settings.evenIfBusy = true;
    const std::size_t end = argument.find('=');
    for (const Mode& mode : modes) {
      if (argument.substr(0, end) != mode.option) continue;
      print = mode.print;
      if (end != std::string::npos) settings.filter = argument.substr(end + 1);
    }
  }
  return print;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<bench::Entry> entries;
  bench::addConversions(entries);
  bench::addJpegCodecs(entries);
  bench::addH264Codecs(entries);
  bench::Settings settings;
  const Print print = readArguments(argc, argv, settings);
  try {
    if (print == nullptr) return runInteractively(argc, argv, entries);
    std::FILE* const results = bench::takeStream(stdout);
    bench::complainTo(bench::takeStream(stderr));
    const bool allDone = print(entries, settings, results);
    return std::fclose(results) == 0 && allDone ? 0 : 1;
  } catch (const std::exception& failure) {
    bench::complain(failure.what());
    return 1;
  }
}
