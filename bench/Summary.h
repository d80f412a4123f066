#ifndef TESSERA_BENCH_SUMMARY_H
#define TESSERA_BENCH_SUMMARY_H

#include <cstdio>
#include <string>
#include <vector>

#include "Work.h"

namespace bench {

/// Prints a tab-separated row for each entry whose work contains `filter`, under a header.
/// @param quick  too short for figures worth keeping: to try the way to the plots
/// @return false when a work failed; its row is missing and standard error tells why
bool printSummary(const std::vector<Entry>& entries, const std::string& filter, bool quick,
                  std::FILE* to);

}  // namespace bench

#endif  // TESSERA_BENCH_SUMMARY_H
