#if defined(__arm__)
#include <asm/hwcap.h>
#include <sys/auxv.h>
#endif

#include "convert/Kernels.h"

namespace convert {
namespace {

bool Always() {
  return true;
}

#if defined(__x86_64__)
bool HasAvx2() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2");
}

bool HasAvx512() {
  __builtin_cpu_init();
  return HasAvx2() && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw");
}
#elif defined(__arm__)
// The oldest boards have no NEON, and the kernel of newer ones may be told to hide it.
bool HasNeon() {
  return (getauxval(AT_HWCAP) & HWCAP_NEON) != 0;
}
#endif

struct Candidate {
  const Kernels* kernels;
  bool (*runsHere)();
};

// Best last. A new kernel takes a file of its own, its line here and its name in Kernels.h.
constexpr Candidate candidates[] = {
    {&plainKernels, Always},
#if defined(__x86_64__)
    {&sse2Kernels, Always},
    {&avx2Kernels, HasAvx2},
    {&avx512Kernels, HasAvx512},
#elif defined(__aarch64__)
    {&neonKernels, Always},
#elif defined(__arm__)
    {&neonKernels, HasNeon},
#endif
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

const Table& FilledTable() {
  static const Table filledOnce;
  return filledOnce;
}

// Constant at first, so that a conversion before this file's initialisation still has a kernel.
const Kernels* active = &plainKernels;

const bool chosenAtLoad = (ForceKernels(nullptr), true);

}  // namespace

const Kernels& ActiveKernels() {
  return *active;
}

const Kernels* const* RunnableKernels(std::size_t& count) {
  count = FilledTable().count;
  return FilledTable().runnable;
}

void ForceKernels(const Kernels* kernels) {
  active = kernels != nullptr ? kernels : FilledTable().runnable[FilledTable().count - 1];
}

}  // namespace convert
