#include "Summary.h"

#include <algorithm>
#include <limits>
#include <numeric>

#include "Rounds.h"

namespace bench {
namespace {

constexpr double secondsForEach = 2;

/// The times of one side: the best of each frame of the sequence over all runs, and the mean of a
/// round. On a busy machine hardly a whole sequence goes through undisturbed, but each of its frames
/// does at times.
class Times {
 public:
  explicit Times(int frames)
      : best_(static_cast<std::size_t>(frames), std::numeric_limits<double>::infinity()) {}

  template <class Run>
  void take(int turn, Run&& run) {
    for (int pass = 0; pass < turn; ++pass) {
      for (std::size_t i = 0; i < best_.size(); ++i) {
        const double taken = run(static_cast<int>(i));
        // The first pass of a turn warms up.
        if (pass == 0 && turn > 1) continue;
        best_[i] = std::min(best_[i], taken);
        sum_ += taken;
        ++count_;
      }
    }
  }
  double best() const {
    return std::accumulate(best_.begin(), best_.end(), 0.0) / static_cast<double>(best_.size());
  }
  double endRound() {
    const double mean = sum_ / count_;
    sum_ = count_ = 0;
    return mean;
  }

 private:
  std::vector<double> best_;
  double sum_ = 0;
  double count_ = 0;
};

/// A round is as many turns as its time allows, so that whatever the machine does in it meets both
/// sides.
Lines measureRow(const Entry& entry, bool quick) {
  const std::unique_ptr<Work> work = entry.make();
  const bool limited = work->limit().has_value();
  const int turn = work->turn();
  Times ours(work->frames()), peer(work->frames()), limit(1);
  std::vector<double> ratios, limitRatios;
  work->peer(0);
  work->ours(0);
  const std::chrono::duration<double> each(quick ? 0 : secondsForEach / roundsOfRow);
  for (int round = 0; round < rounds(quick); ++round) {
    const auto end = std::chrono::steady_clock::now() + each;
    do {
      peer.take(turn, [&](int i) { return work->peer(i); });
      ours.take(turn, [&](int i) { return work->ours(i); });
      if (limited) limit.take(turn, [&](int) { return *work->limit(); });
    } while (std::chrono::steady_clock::now() < end);
    const double mean = ours.endRound();
    ratios.push_back(mean / peer.endRound());
    if (limited) limitRatios.push_back(mean / limit.endRound());
  }
  return {formatted("%s\t%s\t%.2f\t%s\t%.2f\t", entry.work.c_str(), entry.size().c_str(),
                    ours.best(), entry.peer.c_str(), peer.best()) +
          columns(middleOf(ratios)) +
          (limited ? formatted("\t%.3f", middleOf(limitRatios).median) : "\t-")};
}

}  // namespace

bool printSummary(const std::vector<Entry>& entries, const Settings& settings, std::FILE* to) {
  Report report(settings,
                "work\tsize\tus\tpeer\tpeer_us\tratio\tratio_low\tratio_high\tlimit_ratio");
  for (const Entry& entry : entries) {
    report.add(entry, [&] { return measureRow(entry, settings.quick); });
  }
  return report.print(to);
}

}  // namespace bench
