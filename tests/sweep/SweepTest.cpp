#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iostream>

#include "Engine.h"

namespace sweep {
namespace {

bool asked(const char* extent) {
  const char* const said = std::getenv("TESSERA_SWEEP");
  return said != nullptr && std::string(said) == extent;
}
bool thorough() {
  return asked("whole");
}
/// Of how many points one is run: an emulated processor has time for a sample.
int share() {
  return asked("sample") ? 12 : 1;
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
  int points = 0, met = 0, number = 0;
  for (const Scenario& scenario : scenarios()) {
    std::vector<Point> offered = record(subject, scenario, thorough());
    offered.erase(std::remove_if(offered.begin(), offered.end(),
                                 [&](const Point&) { return number++ % share() != 0; }),
                  offered.end());
    for (const Verdict& verdict : sweep(subject, scenario, offered)) {
      ++points;
      met += verdict.met;
      EXPECT_TRUE(verdict.problem.empty())
          << scenario.name << ", " << verdict.point.text() << ": " << verdict.problem;
    }
  }
  std::cout << subject.name << ": " << points << " points, " << met << " met\n";
  const int floor = floorOf(subject.name);
  ASSERT_GT(floor, 0) << "no floor for this class";
  // A share may hit a few more of the points that are not met.
  EXPECT_GE(met, share() == 1 ? floor : floor * 3 / 4 / share()) << "the sweep has shrunk";
}

INSTANTIATE_TEST_SUITE_P(Classes, Sweep, testing::ValuesIn(subjectClasses()),
                         [](const auto& tested) { return std::string(tested.param.name); });

}  // namespace
}  // namespace sweep
