#ifndef TESSERA_TESTS_SUPPORT_LIMITS_H
#define TESSERA_TESTS_SUPPORT_LIMITS_H

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace support {

/// Which clock a wait's limit goes by.
enum class LimitBy { WallClock, SteadyClock };

/// One wait that nobody ends: what goes before it, and the wait itself. Either says whether it went
/// as expected.
struct Limit {
  std::string name;
  std::chrono::milliseconds limit;
  LimitBy clock;
  std::string out, err;  ///< its lines
  std::function<bool()> wait;
  std::function<bool()> before = [] { return true; };
};

/// The waits of a class, on objects that have worked so far.
std::vector<Limit> limitsOf(const std::string& name);
/// From now on no frame is answered.
void loseAnswers();

}  // namespace support

#endif  // TESSERA_TESTS_SUPPORT_LIMITS_H
