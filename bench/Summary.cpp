#include "Summary.h"

#include <algorithm>
#include <limits>

namespace bench {
namespace {

constexpr double secondsForEach = 2.5;
constexpr int fewestTurns = 5;

/// The best of many runs of one side.
struct Best {
  double microseconds = std::numeric_limits<double>::infinity();

  template <class Side>
  void take(int runs, Side&& side) {
    for (int i = 0; i < runs; ++i) {
      const double taken = side();
      // The first run of a turn warms up.
      if (i > 0 || runs == 1) microseconds = std::min(microseconds, taken);
    }
  }
};

void printRow(const Entry& entry, std::FILE* to) {
  const std::unique_ptr<Work> work = entry.make();
  const bool limited = work->limit().has_value();
  Best ours, peer, limit;
  const int turn = work->turn();
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(secondsForEach);
  for (int turns = 0; turns < fewestTurns || std::chrono::steady_clock::now() < end; ++turns) {
    ours.take(turn, [&] { return work->ours(); });
    peer.take(turn, [&] { return work->peer(); });
    if (limited) limit.take(turn, [&] { return *work->limit(); });
  }
  std::fprintf(to, "%s\t%s\t%.2f\t%s\t%.2f\t%.3f\t", entry.work.c_str(), entry.size().c_str(),
               ours.microseconds, entry.peer.c_str(), peer.microseconds,
               ours.microseconds / peer.microseconds);
  if (limited) {
    std::fprintf(to, "%.3f\n", ours.microseconds / limit.microseconds);
  } else {
    std::fputs("-\n", to);
  }
  std::fflush(to);
}

}  // namespace

bool printSummary(const std::vector<Entry>& entries, const std::string& filter, std::FILE* to) {
  bool allDone = true;
  std::fputs("work\tsize\tus\tpeer\tpeer_us\tratio\tlimit_ratio\n", to);
  for (const Entry& entry : entries) {
    if (entry.work.find(filter) == std::string::npos) continue;
    try {
      printRow(entry, to);
    } catch (const std::exception& failure) {
      std::fprintf(stderr, "tessera_bench: %s %s: %s\n", entry.work.c_str(), entry.size().c_str(),
                   failure.what());
      allDone = false;
    }
  }
  return allDone;
}

}  // namespace bench
