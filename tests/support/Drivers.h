#ifndef TESSERA_TESTS_SUPPORT_DRIVERS_H
#define TESSERA_TESTS_SUPPORT_DRIVERS_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace support {

/// How one step went: did what it should, or refused it in the documented way. Anything else is a
/// problem, in words.
struct Outcome {
  bool good = true;
  std::string problem;

  static Outcome refused() { return {false, {}}; }
  static Outcome wrong(std::string what) { return {false, std::move(what)}; }
};

/// An object of one of the six classes, driven the way an application drives it and judged by other
/// people's codecs. Every step checks results, lines and outputs; what a refused step left in the
/// outputs is compared with poison. Lines are seen where standard output and standard error are
/// files, as in a Capture. It is released when it is destroyed.
class Driver {
 public:
  virtual ~Driver() = default;

  /// Constructs the object and sets it up for the first of the sizes.
  virtual Outcome make() = 0;
  /// Goes on with another size, or the same. The H.264 classes are created anew.
  virtual Outcome resize(int which) = 0;
  /// One frame in and out; `i` counts from 0 and tells the picture.
  virtual Outcome frame(int i) = 0;
  /// Leaves the object in the middle of work.
  virtual void launch() = 0;
  /// After a fault that is over: sets up again what was refused, and does one frame. Good, too,
  /// where the documents ask for the object's release.
  /// @param anew  with a Create of an H.264 class in any case, which takes back what was lost
  virtual Outcome goOn(bool anew) = 0;
};

struct DriverClass {
  const char* name;
  std::function<std::unique_ptr<Driver>()> make;
};

const std::vector<DriverClass>& driverClasses();
const DriverClass& driverClass(const std::string& name);

}  // namespace support

#endif  // TESSERA_TESTS_SUPPORT_DRIVERS_H
