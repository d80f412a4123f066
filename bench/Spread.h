#ifndef TESSERA_BENCH_SPREAD_H
#define TESSERA_BENCH_SPREAD_H

#include <cstdio>
#include <vector>

#include "Work.h"

namespace bench {

/// Prints the distribution of one frame's time, of each class and of its peer: tab-separated rows
/// of work, size, side, percentile and microseconds, under a header.
/// @param quick  too short for figures worth keeping: to try the way to the plots
/// @return false when a work failed; standard error tells why
bool printLatency(const std::vector<Entry>& entries, bool quick, std::FILE* to);

/// Prints what 1, 2, 4 and 8 objects at once cost, each in a thread of its own and all of them in a
/// fresh process: frames a second together, the time from nothing to the first result, and by how
/// much the resident memory grows, both of one object.
bool printObjects(const std::vector<Entry>& entries, bool quick, std::FILE* to);

}  // namespace bench

#endif  // TESSERA_BENCH_SPREAD_H
