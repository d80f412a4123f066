#ifndef TESSERA_TOOLS_ENDING_H
#define TESSERA_TOOLS_ENDING_H

#include <cstdint>
#include <string>

#include "Failure.h"

namespace tool {

/// How a command ends whose input ended before its time, by a signal or in the middle of a frame:
/// what came before is finished and kept, then the command fails.
class Ending {
 public:
  /// Runs the loop over the input. A cut through a frame ends it, and is told by tell().
  template <typename Loop>
  void read(Loop&& loop) {
    try {
      loop();
    } catch (const InputCut& cut) {
      why_ = cut.what();
    }
  }

  /// Before the output is finished: throws where there is nothing in it.
  void check(std::uint64_t frames) const;

  /// After the output was finished: throws where it ended early, and says what it holds.
  void tell(std::uint64_t frames, const std::string& output) const;

 private:
  bool isEarly() const;
  [[noreturn]] void fail(const std::string& kept) const;

  std::string why_;
};

}  // namespace tool

#endif  // TESSERA_TOOLS_ENDING_H
