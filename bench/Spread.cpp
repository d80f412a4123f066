#include "Spread.h"

#include <malloc.h>

#include <algorithm>
#include <future>

#include "Child.h"
#include "Rounds.h"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;
using Instant = std::chrono::time_point<Clock, Seconds>;

constexpr int percentiles[] = {1, 5, 10, 25, 50, 75, 90, 95, 99, 100};
constexpr int objectCounts[] = {1, 2, 4, 8};

Lines percentilesOf(const Entry& entry, double seconds) {
  const std::unique_ptr<Work> work = entry.make();
  std::vector<double> times[2];
  const Side sides[] = {tesseraSide, directSide};
  const auto end = Clock::now() + Seconds(seconds);
  // The sides take turns, so that whatever else the machine does meets both.
  for (bool warm = false; !warm || times[0].empty() || Clock::now() < end; warm = true) {
    for (int side = 0; side < 2; ++side) {
      for (int i = 0; i < work->frames(); ++i) {
        const double taken = (work.get()->*sides[side].run)(i);
        if (warm) times[side].push_back(taken);
      }
    }
  }
  Lines lines;
  for (int side = 0; side < 2; ++side) {
    std::vector<double>& all = times[side];
    std::sort(all.begin(), all.end());
    for (const int percentile : percentiles) {
      const std::size_t at = (all.size() - 1) * static_cast<std::size_t>(percentile) / 100;
      lines.push_back(formatted("%s\t%s\t%s\t%d\t%.1f", entry.work.c_str(), entry.size().c_str(),
                                sides[side].name, percentile, all[at]));
    }
  }
  return lines;
}

std::vector<std::unique_ptr<Work>> make(const Entry& entry, int count) {
  std::vector<std::unique_ptr<Work>> works;
  for (int i = 0; i < count; ++i) works.push_back(entry.make());
  return works;
}

/// One side of several works at once. It goes on with the frame at which it stopped.
class AtOnce {
 public:
  AtOnce(const std::vector<std::unique_ptr<Work>>& works, const Side& side)
      : works_(works), side_(side), next_(works.size(), 0) {}

  /// Runs every work in a thread of its own. @return the frames of all, a second
  double rate(double seconds) {
    int frames = 0;
    const double taken = timed([&] {
      const auto end = Clock::now() + Seconds(seconds);
      std::vector<std::future<int>> threads;
      for (std::size_t i = 0; i < works_.size(); ++i)
        threads.push_back(std::async(std::launch::async, [&, i] { return framesOfOne(i, end); }));
      for (auto& thread : threads) frames += thread.get();
    });
    return frames * 1e6 / taken;
  }

 private:
  int framesOfOne(std::size_t i, Instant end) {
    int frames = 0;
    do {
      (works_[i].get()->*side_.run)(next_[i]);
      next_[i] = (next_[i] + 1) % works_[i]->frames();
      ++frames;
    } while (Clock::now() < end);
    return frames;
  }

  const std::vector<std::unique_ptr<Work>>& works_;
  const Side side_;
  std::vector<int> next_;
};

/// Milliseconds to the first result and megabytes, of one object.
Lines startOf(const Entry& entry, const Side& side, int count, double seconds) {
  const auto works = make(entry, count);
  std::async(std::launch::async, [] {}).get();  // what every thread needs is not the object's
  malloc_trim(0);
  const double before = residentMegabytes();
  const double first = timed([&] {
    for (const auto& work : works) (work.get()->*side.run)(0);
  });
  AtOnce(works, side).rate(seconds);
  const double grown = residentMegabytes() - before;
  return {formatted("%.2f\t%.2f", first / 1e3 / count, grown / count)};
}

/// Frames a second of both sides, and their ratio.
Lines ratesOf(const Entry& entry, int count, double seconds, int rounds) {
  const auto works = make(entry, count);
  AtOnce ours(works, tesseraSide), peer(works, directSide);
  std::vector<double> rates[2], ratios;
  ours.rate(0);
  peer.rate(0);
  for (int round = 0; round < rounds; ++round) {
    rates[1].push_back(peer.rate(seconds));
    rates[0].push_back(ours.rate(seconds));
    ratios.push_back(rates[0].back() / rates[1].back());
  }
  return {formatted("%.1f", middleOf(rates[0]).median),
          formatted("%.1f", middleOf(rates[1]).median), columns(middleOf(ratios))};
}

Lines objectsOf(const Entry& entry, int count, bool quick) {
  const double seconds = quick ? 0.05 : 0.15;
  entry.make();  // leaves its pictures to the children
  const Lines rates = inChild([&] { return ratesOf(entry, count, seconds, rounds(quick)); });
  Lines lines;
  for (const Side& side : {tesseraSide, directSide}) {
    const Lines start = inChild([&] { return startOf(entry, side, count, seconds); });
    lines.push_back(formatted("%s\t%s\t%s\t%d\t%s\t%s\t%s", entry.work.c_str(),
                              entry.size().c_str(), side.name, count, rates[lines.size()].c_str(),
                              start[0].c_str(), lines.empty() ? rates[2].c_str() : "-\t-\t-"));
  }
  return lines;
}

}  // namespace

bool printLatency(const std::vector<Entry>& entries, const Settings& settings, std::FILE* to) {
  Report report(settings, "work\tsize\tside\tpercentile\tus");
  report.addClasses(entries, {"1280x720"}, [&](const Entry& entry) {
    return percentilesOf(entry, settings.quick ? 0 : 5);
  });
  return report.print(to);
}

bool printObjects(const std::vector<Entry>& entries, const Settings& settings, std::FILE* to) {
  Report report(settings,
                "work\tsize\tside\tobjects\tframes_a_second\tfirst_ms\tmegabytes\t"
                "ratio\tratio_low\tratio_high");
  for (const int count : objectCounts) {
    report.addClasses(entries, {"640x480"},
                      [&](const Entry& entry) { return objectsOf(entry, count, settings.quick); });
  }
  return report.print(to);
}

}  // namespace bench
