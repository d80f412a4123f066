#ifndef TESSERA_TOOLS_PROGRESS_H
#define TESSERA_TOOLS_PROGRESS_H

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "Arguments.h"

namespace tool {

/// How the work goes, on standard error: a line that renews itself while that is a terminal, and
/// one last line that sums up.
class Progress {
 public:
  explicit Progress(const Arguments& arguments);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  /// After each frame. @param fraction  how much of the input is done, where that is known
  void frame(std::optional<double> fraction);

  /// A line of its own above the progress; shown in every case.
  void warn(const std::string& text);

  struct Totals {
    FrameSize size;
    std::uint64_t bytesIn = 0;
    std::uint64_t bytesOut = 0;
    std::uint64_t leftOut = 0;                   ///< frames that went in and did not come out
    std::map<std::string, std::uint64_t> notes;  ///< what else there is to tell of how many frames
  };
  /// The last line, as text or JSON. With --quiet the notes alone, unless JSON was asked for.
  void finish(const Totals& totals);

  std::uint64_t frames() const { return frames_; }

 private:
  using Clock = std::chrono::steady_clock;

  void show(std::optional<double> fraction);
  void clear();
  double seconds() const;

  const Arguments& arguments_;
  bool live_;  ///< the renewing line is wanted
  bool shown_ = false;
  std::uint64_t frames_ = 0;
  Clock::time_point start_ = Clock::now();
  Clock::time_point nextShow_ = start_;
};

}  // namespace tool

#endif  // TESSERA_TOOLS_PROGRESS_H
