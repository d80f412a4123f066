#ifndef TESSERA_TESTS_SWEEP_ENGINE_H
#define TESSERA_TESTS_SWEEP_ENGINE_H

#include <tessera_platform/control.h>

#include <string>
#include <vector>

#include "support/Drivers.h"

namespace sweep {

using support::Driver;
using support::DriverClass;
using support::Outcome;

/// One run of a scenario with one fault in it.
struct Point {
  bool completion = false;
  tessera_platform::CallFault call;
  tessera_platform::CompletionFault event;
  /// Instead of both: which allocation on a worker's thread is refused, and whether all later ones.
  int shortage = 0;
  bool forGood = false;
  /// Or which call on a video device goes wrong, and how: an error, or what devices do.
  unsigned deviceCall = 0;
  int error = 0;
  static constexpr int silent = 0, frameLost = -1;
  /// Once met, the fault is over, and the same object goes on; else it is destroyed as it is.
  bool goesOn = false;

  std::string text() const;
};

/// A way to use a class.
struct Scenario {
  const char* name;
  /// Runs before the fault is armed.
  Outcome (*before)(Driver&);
  /// Runs with the fault armed; the object is destroyed after it, fault still armed.
  Outcome (*run)(Driver&);
  /// A second object lives all the while and must work after the first one's fault.
  bool withNeighbour;
};

const std::vector<Scenario>& scenarios();

/// What became of a run.
struct Verdict {
  Point point;
  std::string problem;  ///< empty: all is well
  bool met = false;     ///< the fault was met
};

/// Runs the scenario once without a fault and returns the points that it offers: every fault at
/// every place. With the stand-in devices in front of the program these are the devices' faults.
std::vector<Point> record(const DriverClass& kind, const Scenario& scenario);

/// Runs the scenario once for each point, in child processes, several at a time. A child takes the
/// next point where the last left nothing behind.
std::vector<Verdict> sweep(const DriverClass& kind, const Scenario& scenario,
                           const std::vector<Point>& points);

}  // namespace sweep

#endif  // TESSERA_TESTS_SWEEP_ENGINE_H
