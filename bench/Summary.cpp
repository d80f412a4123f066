#include "Summary.h"

#include <algorithm>
#include <limits>
#include <numeric>

namespace bench {
namespace {

constexpr double secondsForEach = 2;

/// The best of many runs of one side: of each frame of the sequence, then their mean. On a busy
/// machine hardly a whole sequence goes through undisturbed, but each of its frames does at times.
class Best {
 public:
  explicit Best(int frames)
      : microseconds_(static_cast<std::size_t>(frames), std::numeric_limits<double>::infinity()) {}

  template <class Side>
  void take(int turn, Side&& side) {
    for (int pass = 0; pass < turn; ++pass) {
      for (std::size_t i = 0; i < microseconds_.size(); ++i) {
        const double taken = side(static_cast<int>(i));
        // The first pass of a turn warms up.
        if (pass > 0 || turn == 1) microseconds_[i] = std::min(microseconds_[i], taken);
      }
    }
  }
  double mean() const {
    return std::accumulate(microseconds_.begin(), microseconds_.end(), 0.0) /
           static_cast<double>(microseconds_.size());
  }

 private:
  std::vector<double> microseconds_;
};

void printRow(const Entry& entry, bool quick, std::FILE* to) {
  const std::unique_ptr<Work> work = entry.make();
  const bool limited = work->limit().has_value();
  const int frames = work->frames();
  Best ours(frames), peer(frames), limit(1);
  const int turn = work->turn();
  const int fewestTurns = quick ? 1 : 5;
  const auto end =
      std::chrono::steady_clock::now() + std::chrono::duration<double>(quick ? 0 : secondsForEach);
  for (int turns = 0; turns < fewestTurns || std::chrono::steady_clock::now() < end; ++turns) {
    ours.take(turn, [&](int i) { return work->ours(i); });
    peer.take(turn, [&](int i) { return work->peer(i); });
    if (limited) limit.take(turn, [&](int) { return *work->limit(); });
  }
  std::fprintf(to, "%s\t%s\t%.2f\t%s\t%.2f\t%.3f\t", entry.work.c_str(), entry.size().c_str(),
               ours.mean(), entry.peer.c_str(), peer.mean(), ours.mean() / peer.mean());
  if (limited) {
    std::fprintf(to, "%.3f\n", ours.mean() / limit.mean());
  } else {
    std::fputs("-\n", to);
  }
  std::fflush(to);
}

}  // namespace

bool printSummary(const std::vector<Entry>& entries, const std::string& filter, bool quick,
                  std::FILE* to) {
  bool allDone = true;
  std::fputs("work\tsize\tus\tpeer\tpeer_us\tratio\tlimit_ratio\n", to);
  for (const Entry& entry : entries) {
    if (entry.work.find(filter) == std::string::npos) continue;
    try {
      printRow(entry, quick, to);
    } catch (const std::exception& failure) {
      std::fprintf(stderr, "tessera_bench: %s %s: %s\n", entry.work.c_str(), entry.size().c_str(),
                   failure.what());
      allDone = false;
    }
  }
  return allDone;
}

}  // namespace bench
