#ifndef TESSERA_BENCH_WORK_H
#define TESSERA_BENCH_WORK_H

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace bench {

/// One kind of work on one size of picture, with all that it needs set up. Every side does the same
/// work and tells its microseconds a frame. @throws std::runtime_error when a codec fails
class Work {
 public:
  virtual ~Work() = default;
  virtual double ours() = 0;
  virtual double peer() = 0;
  /// What the machine's memory allows at best; none for work that is not bound by it.
  virtual std::optional<double> limit() { return std::nullopt; }
  /// Runs of one side before it is another's turn. Single calls take several, so that each side
  /// finds the caches as it left them itself; whole clips need but one.
  virtual int turn() const { return 5; }
};

struct Entry {
  std::string work;
  int width;
  int height;
  std::string peer;
  std::function<std::unique_ptr<Work>()> make;

  std::string size() const { return std::to_string(width) + "x" + std::to_string(height); }
};

struct Size {
  int width;
  int height;
};

void addConversions(std::vector<Entry>& entries);
void addJpegCodecs(std::vector<Entry>& entries);
void addH264Codecs(std::vector<Entry>& entries);

/// Microseconds that `run` takes.
template <class Run>
double timed(Run&& run) {
  const auto start = std::chrono::steady_clock::now();
  run();
  return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
      .count();
}

inline void require(bool done, const char* what) {
  if (!done) throw std::runtime_error(what);
}

}  // namespace bench

#endif  // TESSERA_BENCH_WORK_H
