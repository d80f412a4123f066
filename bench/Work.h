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

/// Bytes of one frame that each side copies or converts in vector loops, where counting the calls of
/// memcpy does not see them.
struct Loops {
  double ours = 0;
  double peer = 0;
};

/// One kind of work on one size of picture, with all that it needs set up. The work is a short
/// sequence of frames, run again and again from its first to its last; every side does the same and
/// tells the microseconds of one frame. A side's codec is made at its first frame, so that its cost
/// can be told apart. @throws std::runtime_error when a codec fails
class Work {
 public:
  virtual ~Work() = default;
  virtual double ours(int frame) = 0;
  virtual double peer(int frame) = 0;
  /// What the machine's memory allows at best; none for work that is not bound by it.
  virtual std::optional<double> limit() { return std::nullopt; }
  /// Length of the sequence.
  virtual int frames() const { return 1; }
  /// Sequences of one side before it is another's turn. Short ones take several, so that each side
  /// finds the caches as it left them itself.
  virtual int turn() const { return 5; }
  virtual Loops loops() const { return {}; }
};

struct Entry {
  std::string work;
  int width;
  int height;
  std::string peer;
  std::function<std::unique_ptr<Work>()> make;

  std::string size() const { return std::to_string(width) + "x" + std::to_string(height); }
};

struct Side {
  const char* name;
  double (Work::*run)(int);
};
constexpr Side tesseraSide{"tessera", &Work::ours};
constexpr Side directSide{"direct", &Work::peer};

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
