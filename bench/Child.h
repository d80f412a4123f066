#ifndef TESSERA_BENCH_CHILD_H
#define TESSERA_BENCH_CHILD_H

#include <functional>
#include <string>

#include "Report.h"

namespace bench {

/// Measures in a process of its own: the memory that others gave back and the threads that they
/// started would hide what this one takes. The caller has no threads.
/// @throws std::runtime_error when that process fails; standard error tells why
Lines inChild(const std::function<Lines()>& measure);

/// Runs this program anew, with an argument and a library that is loaded before all others.
/// @return what it prints @throws std::runtime_error when it fails; standard error tells why
Lines inProgram(const std::string& argument, const char* preloaded);

/// Megabytes of this process in memory.
double residentMegabytes();

}  // namespace bench

#endif  // TESSERA_BENCH_CHILD_H
