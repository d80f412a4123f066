#ifndef TESSERA_BENCH_SPREAD_H
#define TESSERA_BENCH_SPREAD_H

#include <cstdio>
#include <vector>

#include "Report.h"

namespace bench {

/// Prints the distribution of one frame's time, of each class and of its peer: rows of work, size,
/// side, percentile and microseconds.
/// @return false when a work failed; standard error tells why
bool printLatency(const std::vector<Entry>& entries, const Settings& settings, std::FILE* to);

/// Prints what 1, 2, 4 and 8 objects at once cost, each in a thread of its own: frames a second
/// together, the time from nothing to the first result and by how much the resident memory grows,
/// both of one object, and the ratio of the frames a second to the peer's over several rounds.
bool printObjects(const std::vector<Entry>& entries, const Settings& settings, std::FILE* to);

}  // namespace bench

#endif  // TESSERA_BENCH_SPREAD_H
