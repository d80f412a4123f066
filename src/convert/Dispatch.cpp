#if defined(__arm__)
#include <asm/hwcap.h>
#include <sys/auxv.h>
#endif

#include "convert/Kernels.h"

namespace convert {
namespace {

bool always() {
  return true;
}

#if defined(__x86_64__)
bool hasAvx2() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2");
}

bool hasAvx512() {
  __builtin_cpu_init();
  return hasAvx2() && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw");
}
#elif defined(__arm__)
// The oldest boards have no NEON, and the kernel of newer ones may be told to hide it.
bool hasNeon() {
  return (getauxval(AT_HWCAP) & HWCAP_NEON) != 0;
}
#endif

struct Candidate {
  const Kernels* kernels;
  bool (*runsHere)();
};

// Best last. A new kernel takes a file of its own, its line here and its name in Kernels.h.
constexpr Candidate candidates[] = {
    {&plainKernels, always},
#if defined(__x86_64__)
    {&sse2Kernels, always},
    {&avx2Kernels, hasAvx2},
    {&avx512Kernels, hasAvx512},
#elif defined(__aarch64__)
    {&neonKernels, always},
#elif defined(__arm__)
    {&neonKernels, hasNeon},
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
