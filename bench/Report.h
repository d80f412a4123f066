#ifndef TESSERA_BENCH_REPORT_H
#define TESSERA_BENCH_REPORT_H

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "Work.h"

namespace bench {

struct Settings {
  bool quick = false;       ///< too short for figures worth keeping: to try the way to the plots
  bool evenIfBusy = false;  ///< take figures whatever else the machine does
  std::string filter;       ///< of the works' names

  bool judged() const { return !quick && !evenIfBusy; }
};

/// Lines of tab-separated fields.
using Lines = std::vector<std::string>;

/// The rows of one run. They are printed when all of them were measured on a quiet machine, each
/// with a last column: the percentage of the processors' time that others took meanwhile.
class Report {
 public:
  /// @param columns  names of the fields, separated by tabs
  /// @throws std::runtime_error when the machine is busy
  Report(const Settings& settings, const std::string& columns);

  const Settings& settings() const { return settings_; }

  /// Takes the lines that `measure` gives, unless the filter leaves the entry out; once more when
  /// others disturbed it. When it throws, its lines are missing and standard error tells why.
  /// @throws std::runtime_error when the machine stays busy
  void add(const Entry& entry, const std::function<Lines()>& measure);

  /// The same for one work of each class of the library, the one that takes a frame at a time, in
  /// each of the sizes.
  void addClasses(const std::vector<Entry>& entries, const std::vector<std::string>& sizes,
                  const std::function<Lines(const Entry&)>& measure);

  /// @return false when lines are missing or cannot be written
  bool print(std::FILE* to) const;

 private:
  void awaitQuiet(double seconds);

  Settings settings_;
  std::string text_;
  double patience_;
  bool complete_ = true;
};

}  // namespace bench

#endif  // TESSERA_BENCH_REPORT_H
