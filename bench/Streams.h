#ifndef TESSERA_BENCH_STREAMS_H
#define TESSERA_BENCH_STREAMS_H

#include <cstdio>
#include <string>

namespace bench {

/// From now on, what is written to a standard stream goes nowhere: it is the libraries' lines.
/// @return the real stream, for the program's own
std::FILE* takeStream(std::FILE* standard);

/// Writes the program's own lines there instead of standard error.
void complainTo(std::FILE* errors);
std::FILE* complaints();
void complain(const std::string& what);

}  // namespace bench

#endif  // TESSERA_BENCH_STREAMS_H
