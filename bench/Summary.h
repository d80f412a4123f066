#ifndef TESSERA_BENCH_SUMMARY_H
#define TESSERA_BENCH_SUMMARY_H

#include <cstdio>
#include <vector>

#include "Report.h"

namespace bench {

/// Prints a row for each entry: the best time of a frame on either side, and the ratio of the times
/// over several rounds, its middle and its spread.
/// @return false when a work failed; its row is missing and standard error tells why
bool printSummary(const std::vector<Entry>& entries, const Settings& settings, std::FILE* to);

}  // namespace bench

#endif  // TESSERA_BENCH_SUMMARY_H
