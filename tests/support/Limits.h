#ifndef TESSERA_TESTS_SUPPORT_LIMITS_H
#define TESSERA_TESTS_SUPPORT_LIMITS_H

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace support {

/// Which clock a wait's limit goes by.
enum class LimitBy { WallClock, SteadyClock };

/// One wait that nobody ends: what goes before it, and the wait itself with its result.
struct Limit {
  std::string name;
  std::chrono::milliseconds limit;
  LimitBy clock;
  std::string out, err;  ///< its lines
  int result;
  std::function<int()> wait;
  /// Whether it went well.
  std::function<bool()> before = [] { return true; };
  /// The line with which it ends at once where clock or semaphores do not work.
  std::string broken = {};
};

/// The waits of a class, on objects that have worked so far.
std::vector<Limit> limitsOf(const std::string& name);
/// From now on no frame is answered.
void loseAnswers();

}  // namespace support

#endif  // TESSERA_TESTS_SUPPORT_LIMITS_H
