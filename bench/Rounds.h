#ifndef TESSERA_BENCH_ROUNDS_H
#define TESSERA_BENCH_ROUNDS_H

#include <string>
#include <vector>

namespace bench {

/// Rounds in which the sides take turns, in one process. Each round gives one ratio; how far these
/// are apart is the noise of the row.
constexpr int roundsOfRow = 9;
inline int rounds(bool quick) {
  return quick ? 1 : roundsOfRow;
}

/// The middle of the rounds' figures, and the ends of the middle half.
struct Middle {
  double median;
  double low;
  double high;
};
Middle middleOf(std::vector<double> figures);

/// Like std::printf, to a string.
std::string formatted(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// "median, low, high" of ratios, as columns.
std::string columns(const Middle& ratio);

}  // namespace bench

#endif  // TESSERA_BENCH_ROUNDS_H
