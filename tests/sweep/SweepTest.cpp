#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iostream>

#include "Engine.h"

namespace sweep {
namespace {

bool thorough() {
  const char* const asked = std::getenv("TESSERA_SWEEP");
  return asked != nullptr && std::string(asked) == "whole";
}

/// The number of points that a class must offer at least, from the checked-in list.
int floorOf(const std::string& subject) {
  std::ifstream file(TESSERA_SWEEP_FLOORS);
  std::string name;
  for (int shortSet = 0, whole = 0; file >> name >> shortSet >> whole;)
    if (name == subject) return thorough() ? whole : shortSet;
  return -1;
}

class Sweep : public testing::TestWithParam<SubjectClass> {};

/// Every platform call and every completion of every scenario goes wrong once: the class says so,
/// returns in time, leaves nothing behind, and the next object works.
TEST_P(Sweep, EveryFaultIsTakenWell) {
  const SubjectClass& subject = GetParam();
  int points = 0, met = 0;
  for (const Scenario& scenario : scenarios()) {
    for (const Verdict& verdict : sweep(subject, scenario, record(subject, scenario, thorough()))) {
      ++points;
      met += verdict.met;
      EXPECT_TRUE(verdict.problem.empty())
          << scenario.name << ", " << verdict.point.text() << ": " << verdict.problem;
    }
  }
  std::cout << subject.name << ": " << points << " points, " << met << " met\n";
  const int floor = floorOf(subject.name);
  ASSERT_GT(floor, 0) << "no floor for this class";
  EXPECT_GE(met, floor) << "the sweep has shrunk";
}

INSTANTIATE_TEST_SUITE_P(Classes, Sweep, testing::ValuesIn(subjectClasses()),
                         [](const auto& tested) { return std::string(tested.param.name); });

}  // namespace
}  // namespace sweep
