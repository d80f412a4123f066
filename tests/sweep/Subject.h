#ifndef TESSERA_TESTS_SWEEP_SUBJECT_H
#define TESSERA_TESTS_SWEEP_SUBJECT_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace sweep {

/// How one step went: did what it should, or refused it in the documented way. Anything else is a
/// problem, in words.
struct Outcome {
  bool good = true;
  std::string problem;

  static Outcome refused() { return {false, {}}; }
  static Outcome wrong(std::string what) { return {false, std::move(what)}; }
};

/// One of the six classes, driven the way an application drives it and judged by other people's
/// codecs. Every step checks results, lines and outputs; what a refused step left in the outputs is
/// compared with poison.
class Subject {
 public:
  virtual ~Subject() = default;

  /// Constructs the object and sets it up for its first size.
  virtual Outcome make() = 0;
  /// Goes on with another size.
  virtual Outcome resize() = 0;
  /// One frame in and out; `i` counts from 0 and tells the picture.
  virtual Outcome frame(int i) = 0;
  /// Leaves the object in the middle of work.
  virtual void launch() = 0;
  /// After a fault that is over: sets up again what was refused, and does one frame. Good, too,
  /// where the documents ask for the object's release.
  /// @param anew  with a Create of an H.264 class in any case, which takes back what was lost
  virtual Outcome goOn(bool anew) = 0;
  virtual void destroy() = 0;
};

struct SubjectClass {
  const char* name;
  std::function<std::unique_ptr<Subject>()> make;
};

const std::vector<SubjectClass>& subjectClasses();

}  // namespace sweep

#endif  // TESSERA_TESTS_SWEEP_SUBJECT_H
