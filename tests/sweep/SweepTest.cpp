#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <string>

#include "Engine.h"

namespace sweep {
namespace {

/// Of how many points one is run: an emulated processor has time for a sample.
int share() {
  const char* const asked = std::getenv("TESSERA_SWEEP_SHARE");
  return asked != nullptr ? std::atoi(asked) : 1;
}

class Sweep : public testing::TestWithParam<support::DriverClass> {};

/// Every platform call and every completion of every scenario goes wrong once: the class says so,
/// returns in time, leaves nothing behind, and it and the next object work. Time is virtual, so a
/// scenario offers the same points in every run, and all of them are met.
TEST_P(Sweep, EveryFaultIsTakenWell) {
  const support::DriverClass& kind = GetParam();
  int points = 0, met = 0, number = 0;
  for (const Scenario& scenario : scenarios()) {
    std::vector<Point> chosen;
    for (const Point& point : record(kind, scenario))
      if (number++ % share() == 0) chosen.push_back(point);
    for (const Verdict& verdict : sweep(kind, scenario, chosen)) {
      ++points;
      met += verdict.met;
      EXPECT_TRUE(verdict.problem.empty())
          << scenario.name << ", " << verdict.point.text() << ": " << verdict.problem;
      EXPECT_TRUE(verdict.met) << scenario.name << ", " << verdict.point.text() << ": not met";
    }
  }
  EXPECT_GT(number, 500) << "hardly a sweep";
  std::cout << kind.name << ": " << number << " points offered, " << points << " tried, " << met
            << " met\n";
}

INSTANTIATE_TEST_SUITE_P(Classes, Sweep, testing::ValuesIn(support::driverClasses()),
                         [](const auto& tested) { return std::string(tested.param.name); });

}  // namespace
}  // namespace sweep
