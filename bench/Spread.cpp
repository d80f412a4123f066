#include "Spread.h"

#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <future>

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

/// One work of each class, the one that takes a frame at a time.
const char* const classes[] = {"jpeg-encode yuyv", "jpeg-encode-omx yuyv", "jpeg-decode",
                               "h264-encode i420", "h264-encode-omx i420", "h264-decode-latency"};
constexpr int percentiles[] = {1, 5, 10, 25, 50, 75, 90, 95, 99, 100};
constexpr int objectCounts[] = {1, 2, 4, 8};

struct Side {
  const char* name;
  double (Work::*run)(int);
};
constexpr Side sides[] = {{"tessera", &Work::ours}, {"direct", &Work::peer}};

template <class Print>
bool forEachClass(const std::vector<Entry>& entries, const char* size, Print&& print) {
  bool allDone = true;
  for (const char* name : classes) {
    for (const Entry& entry : entries) {
      if (entry.work != name || entry.size() != size) continue;
      try {
        print(entry);
      } catch (const std::exception& failure) {
        std::fprintf(stderr, "tessera_bench: %s %s: %s\n", name, size, failure.what());
        allDone = false;
      }
    }
  }
  return allDone;
}

void printPercentiles(const Entry& entry, double seconds, std::FILE* to) {
  const std::unique_ptr<Work> work = entry.make();
  std::vector<double> times[2];
  const int frames = work->frames();
  const auto end = Clock::now() + Seconds(seconds);
  // The sides take turns, so that whatever else the machine does meets both.
  for (bool warm = false; !warm || Clock::now() < end; warm = true) {
    for (int side = 0; side < 2; ++side) {
      for (int i = 0; i < frames; ++i) {
        const double taken = (work.get()->*sides[side].run)(i);
        if (warm || frames > 1) times[side].push_back(taken);
      }
    }
  }
  for (int side = 0; side < 2; ++side) {
    std::vector<double>& all = times[side];
    if (all.empty()) all.push_back((work.get()->*sides[side].run)(0));
    std::sort(all.begin(), all.end());
    for (const int percentile : percentiles) {
      const std::size_t at = (all.size() - 1) * static_cast<std::size_t>(percentile) / 100;
      std::fprintf(to, "%s\t%s\t%s\t%d\t%.1f\n", entry.work.c_str(), entry.size().c_str(),
                   sides[side].name, percentile, all[at]);
    }
  }
  std::fflush(to);
}

double residentMegabytes() {
  std::ifstream file("/proc/self/statm");
  long size = 0, resident = 0;
  file >> size >> resident;
  return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1e6;
}

/// Runs every work in a thread of its own. @return frames done by all of them
long runAtOnce(const std::vector<std::unique_ptr<Work>>& works, const Side& side, double seconds) {
  const auto end = Clock::now() + Seconds(seconds);
  std::vector<std::future<long>> threads;
  for (const auto& work : works) {
    threads.push_back(std::async(std::launch::async, [&side, end, work = work.get()] {
      long frames = 0;
      do {
        for (int i = 0; i < work->frames(); ++i, ++frames) (work->*side.run)(i);
      } while (Clock::now() < end);
      return frames;
    }));
  }
  long frames = 0;
  for (auto& thread : threads) frames += thread.get();
  return frames;
}

void printAtOnce(const Entry& entry, const Side& side, int count, double seconds, std::FILE* to) {
  std::vector<std::unique_ptr<Work>> works;
  for (int i = 0; i < count; ++i) works.push_back(entry.make());
  malloc_trim(0);
  const double before = residentMegabytes();
  const double first = timed([&] {
    for (const auto& work : works) (work.get()->*side.run)(0);
  });
  runAtOnce(works, side, 0);
  const double grown = residentMegabytes() - before;
  long frames = 0;
  const double taken = timed([&] { frames = runAtOnce(works, side, seconds); });
  std::fprintf(to, "%s\t%s\t%s\t%d\t%.1f\t%.2f\t%.2f\n", entry.work.c_str(), entry.size().c_str(),
               side.name, count, static_cast<double>(frames) * 1e6 / taken, first / 1e3 / count,
               grown / count);
}

/// In a process of its own: the memory that others gave back would hide what this one takes.
void printInChild(const Entry& entry, const Side& side, int count, double seconds, std::FILE* to) {
  std::fflush(to);
  const pid_t child = fork();
  require(child >= 0, "no process for the objects");
  if (child == 0) {
    int result = 1;
    try {
      printAtOnce(entry, side, count, seconds, to);
      result = std::fflush(to) == 0 ? 0 : 1;
    } catch (const std::exception& failure) {
      std::fprintf(stderr, "tessera_bench: %s\n", failure.what());
    }
    _exit(result);
  }
  int status = 0;
  require(waitpid(child, &status, 0) == child && status == 0, "the objects' process failed");
}

}  // namespace

bool printLatency(const std::vector<Entry>& entries, bool quick, std::FILE* to) {
  std::fputs("work\tsize\tside\tpercentile\tus\n", to);
  return forEachClass(entries, "1280x720",
                      [&](const Entry& entry) { printPercentiles(entry, quick ? 0.2 : 5, to); });
}

bool printObjects(const std::vector<Entry>& entries, bool quick, std::FILE* to) {
  std::fputs("work\tsize\tside\tobjects\tframes_a_second\tfirst_ms\tmegabytes\n", to);
  return forEachClass(entries, "640x480", [&](const Entry& entry) {
    for (const Side& side : sides) {
      for (const int count : objectCounts) printInChild(entry, side, count, quick ? 0.1 : 0.7, to);
    }
  });
}

}  // namespace bench
