#ifndef TESSERA_TESTS_SUPPORT_FAULTTABLE_H
#define TESSERA_TESTS_SUPPORT_FAULTTABLE_H

#include <string>

namespace support {

/// One body for the faults of every class. Each row of the class's file in support/faults has one
/// fault, whether the call with it works all the same, and all lines that are printed. Afterwards
/// the same object goes on, in two sizes.
void expectFaults(const std::string& name);

/// The class's waits end on time in virtual time, too, while CLOCK_REALTIME is set, unless they go
/// by it.
void expectLimits(const std::string& name);

}  // namespace support

#endif  // TESSERA_TESTS_SUPPORT_FAULTTABLE_H
