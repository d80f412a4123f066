#include "Cost.h"

#include <dlfcn.h>
#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <thread>

#include "Child.h"
#include "Rounds.h"

namespace bench {
namespace {

const std::vector<std::string> sizes{"320x240", "1280x720", "1920x1080"};
constexpr double secondsOfRound = 0.1;
constexpr int furtherObjects = 4;
constexpr int framesForMemory = 10;
constexpr auto settling = std::chrono::milliseconds(2);

/// What this process and all its threads have used.
struct Used {
  double microseconds;
  double wakeups;    ///< a thread that slept for want of something to do runs again
  double preempted;  ///< a thread that could have run on was stopped

  static Used now() {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return {static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) * 1e-3,
            static_cast<double>(usage.ru_nvcsw), static_cast<double>(usage.ru_nivcsw)};
  }
};

/// One side's figures of a frame, of each round.
struct Frames {
  std::vector<double> microseconds, wakeups, preempted;

  /// Whole sequences, so that every round has the same frames. What the threads of a codec do after
  /// the last frame belongs to it.
  void measure(Work& work, const Side& side, double seconds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    const Used before = Used::now();
    double frames = 0;
    do {
      for (int i = 0; i < work.frames(); ++i, ++frames) (work.*side.run)(i);
    } while (std::chrono::steady_clock::now() < end);
    std::this_thread::sleep_for(settling);
    const Used after = Used::now();
    const double ownSleep = 1;
    microseconds.push_back((after.microseconds - before.microseconds) / frames);
    wakeups.push_back((after.wakeups - before.wakeups - ownSleep) / frames);
    preempted.push_back((after.preempted - before.preempted) / frames);
  }
};

Lines processorOf(const Entry& entry, bool quick) {
  const std::unique_ptr<Work> work = entry.make();
  Frames ours, peer;
  const double seconds = quick ? 0 : secondsOfRound;
  Frames().measure(*work, directSide, 0);
  Frames().measure(*work, tesseraSide, 0);
  std::vector<double> ratios;
  for (int round = 0; round < rounds(quick); ++round) {
    peer.measure(*work, directSide, seconds);
    ours.measure(*work, tesseraSide, seconds);
    ratios.push_back(ours.microseconds.back() / peer.microseconds.back());
  }
  const auto median = [](const std::vector<double>& figures) { return middleOf(figures).median; };
  return {formatted("%.1f\t%.1f\t", median(ours.microseconds), median(peer.microseconds)) +
          columns(middleOf(ratios)) +
          formatted("\t%.2f\t%.2f\t%.2f\t%.2f", median(ours.wakeups), median(peer.wakeups),
                    median(ours.preempted), median(peer.preempted))};
}

/// Megabytes of the first object, with all that the process takes once, and of each further one.
Lines memoryOf(const Entry& entry, const Side& side) {
  std::vector<std::unique_ptr<Work>> works;
  for (int i = 0; i <= furtherObjects; ++i) works.push_back(entry.make());
  const auto run = [&](Work& work) {
    for (int i = 0; i < framesForMemory; ++i) (work.*side.run)(i % work.frames());
    return residentMegabytes();
  };
  malloc_trim(0);
  const double before = residentMegabytes();
  const double first = run(*works[0]);
  double last = first;
  for (int i = 1; i <= furtherObjects; ++i) last = run(*works[static_cast<std::size_t>(i)]);
  return {formatted("%.2f", (last - first) / furtherObjects), formatted("%.2f", first - before)};
}

Lines copiedOf(const Entry& entry, std::uint64_t (*copied)()) {
  const std::unique_ptr<Work> work = entry.make();
  std::string line = entry.work + "\t" + entry.size();
  const Loops loops = work->loops();
  for (const auto& [side, inLoops] :
       {std::pair{tesseraSide, loops.ours}, std::pair{directSide, loops.peer}}) {
    const auto run = [&, side = side] {
      for (int i = 0; i < work->frames(); ++i) (work.get()->*side.run)(i);
      std::this_thread::sleep_for(settling);
    };
    run();
    const std::uint64_t before = copied();
    run();
    line += formatted("\t%.0f", static_cast<double>(copied() - before) / work->frames() + inLoops);
  }
  return {line};
}

/// The bytes that both sides copy for a frame, as columns.
std::string copiedColumns(const Lines& copied, const Entry& entry) {
  const std::string start = entry.work + "\t" + entry.size() + "\t";
  for (const std::string& line : copied) {
    // The last column is the one that every report has.
    if (line.rfind(start, 0) == 0)
      return line.substr(start.size(), line.rfind('\t') - start.size());
  }
  throw std::runtime_error("the bytes were not counted");
}

Lines costOf(const Entry& entry, const Lines& copied, bool quick) {
  entry.make();  // leaves its pictures to the children
  const Lines processor = inChild([&] { return processorOf(entry, quick); });
  const Lines ours = inChild([&] { return memoryOf(entry, tesseraSide); });
  const Lines peer = inChild([&] { return memoryOf(entry, directSide); });
  return {entry.work + "\t" + entry.size() + "\t" + entry.peer + "\t" + processor[0] + "\t" +
          copiedColumns(copied, entry) + "\t" + ours[0] + "\t" + peer[0] + "\t" + ours[1] + "\t" +
          peer[1]};
}

}  // namespace

bool printCost(const std::vector<Entry>& entries, const Settings& settings, std::FILE* to) {
  Report report(settings,
                "work\tsize\tpeer\tcpu_us\tpeer_cpu_us\tcpu_ratio\tcpu_ratio_low\tcpu_ratio_high\t"
                "wakeups\tpeer_wakeups\tpreempted\tpeer_preempted\tcopied_bytes\t"
                "peer_copied_bytes\tmegabytes\tpeer_megabytes\tfirst_megabytes\t"
                "peer_first_megabytes");
  const Lines copied = inProgram("--copied=" + settings.filter, TESSERA_BENCH_COPIES);
  report.addClasses(entries, sizes,
                    [&](const Entry& entry) { return costOf(entry, copied, settings.quick); });
  return report.print(to);
}

bool printCopied(const std::vector<Entry>& entries, const Settings& settings, std::FILE* to) {
  const auto copied =
      reinterpret_cast<std::uint64_t (*)()>(dlsym(RTLD_DEFAULT, "tesseraBenchCopied"));
  require(copied != nullptr, "nothing counts the bytes here; --cost starts a process that does");
  Settings unjudged = settings;
  unjudged.evenIfBusy = true;  // how much is copied does not depend on it
  Report report(unjudged, "work\tsize\tcopied_bytes\tpeer_copied_bytes");
  report.addClasses(entries, sizes, [&](const Entry& entry) { return copiedOf(entry, copied); });
  return report.print(to);
}

}  // namespace bench
