// tessera_bench [--summary[=TEXT] | --latency | --objects] [--quick] [Google Benchmark's options]
//
// The library beside what a user would call instead, in one process.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <ext/stdio_filebuf.h>
#include <iostream>

#include "Spread.h"
#include "Summary.h"

namespace {

/// Keeps standard output for results: whatever the library prints there goes nowhere.
/// @return a descriptor of the real standard output
int takeStandardOutput() {
  std::cout.flush();
  const int real = dup(STDOUT_FILENO);
  const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (real < 0 || nowhere < 0 || dup2(nowhere, STDOUT_FILENO) < 0) {
    throw std::runtime_error("cannot set standard output aside");
  }
  close(nowhere);
  return real;
}

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

int runInteractively(int argc, char** argv, const std::vector<bench::Entry>& entries, int output) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  for (const bench::Entry& entry : entries) registerSides(entry);
  __gnu_cxx::stdio_filebuf<char> buffer(output, std::ios::out);
  std::ostream stream(&buffer);
  const std::unique_ptr<benchmark::BenchmarkReporter> reporter(
      benchmark::CreateDefaultDisplayReporter());
  reporter->SetOutputStream(&stream);
  benchmark::RunSpecifiedBenchmarks(reporter.get());
  benchmark::Shutdown();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<bench::Entry> entries;
  bench::addConversions(entries);
  bench::addJpegCodecs(entries);
  bench::addH264Codecs(entries);

  const std::string summary = "--summary";
  std::string mode, filter;
  bool quick = false;
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (argument == "--quick") quick = true;
    if (argument == summary || argument == "--latency" || argument == "--objects") mode = argument;
    if (argument.rfind(summary + "=", 0) == 0) {
      mode = summary;
      filter = argument.substr(summary.size() + 1);
    }
  }
  try {
    const int output = takeStandardOutput();
    if (mode.empty()) return runInteractively(argc, argv, entries, output);
    std::FILE* stream = fdopen(output, "w");
    const bool allDone = mode == summary       ? bench::printSummary(entries, filter, quick, stream)
                         : mode == "--latency" ? bench::printLatency(entries, quick, stream)
                                               : bench::printObjects(entries, quick, stream);
    return std::fclose(stream) == 0 && allDone ? 0 : 1;
  } catch (const std::exception& failure) {
    std::cerr << "tessera_bench: " << failure.what() << '\n';
    return 1;
  }
}
