#ifndef TESSERA_TESTS_SUPPORT_FAULTTABLE_H
#define TESSERA_TESTS_SUPPORT_FAULTTABLE_H

#include <functional>
#include <memory>
#include <string>

#include "support/Drivers.h"

namespace support {

/// One body for the faults of every class. Each row of the class's file in support/faults has one
/// fault, whether the call with it works all the same, and all lines that are printed. Afterwards
/// the same object goes on, in two sizes, unless something else is to be done with it.
void expectFaults(const std::string& name,
                  const std::function<void(std::unique_ptr<Driver>)>& instead = {});

/// The class's waits end on time in virtual time, too, while CLOCK_REALTIME is set, unless they go
/// by it; and at once where clock or semaphores do not work.
void expectLimits(const std::string& name);

/// Two objects at work on two threads do not disturb each other.
void expectIndependence(const std::string& name);

}  // namespace support

#endif  // TESSERA_TESTS_SUPPORT_FAULTTABLE_H
