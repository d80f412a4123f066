#ifndef TESSERA_BENCH_COST_H
#define TESSERA_BENCH_COST_H

#include <cstdio>
#include <vector>

#include "Report.h"

namespace bench {

/// Prints what a frame costs besides time, for each class at three sizes and for its peer: the
/// processor time and the wake-ups of all threads, the bytes copied, and the memory of an object.
/// @return false when a work failed; standard error tells why
bool printCost(const std::vector<Entry>& entries, const Settings& settings, std::FILE* to);

/// Prints the bytes that either side copies for a frame, in a process in which Copies.cpp counts:
/// printCost starts one.
bool printCopied(const std::vector<Entry>& entries, const Settings& settings, std::FILE* to);

}  // namespace bench

#endif  // TESSERA_BENCH_COST_H
