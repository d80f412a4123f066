#include "convert/Kernels.h"

namespace convert {
namespace {

bool always() {
  return true;
}

struct Candidate {
  const Kernels* kernels;
  bool (*runsHere)();
};

// Best last. A new kernel takes a file of its own, its line here and its name in Kernels.h.
constexpr Candidate candidates[] = {
    {&plainKernels, always},
};

struct Table {
  const Kernels* runnable[sizeof(candidates) / sizeof(candidates[0])] = {};
  std::size_t count = 0;

  Table() {
    for (const Candidate& candidate : candidates) {
      if (candidate.runsHere()) runnable[count++] = candidate.kernels;
    }
  }
};

const Table& table() {
  static const Table filledOnce;
  return filledOnce;
}

// Constant at first, so that a conversion before this file's initialisation still has a kernel.
const Kernels* active = &plainKernels;

const bool chosenAtLoad = (forceKernels(nullptr), true);

}  // namespace

const Kernels& activeKernels() {
  return *active;
}

const Kernels* const* runnableKernels(std::size_t& count) {
  count = table().count;
  return table().runnable;
}

void forceKernels(const Kernels* kernels) {
  active = kernels != nullptr ? kernels : table().runnable[table().count - 1];
}

}  // namespace convert
