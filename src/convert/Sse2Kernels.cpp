#include <emmintrin.h>

#include "convert/VectorLoops.h"
#include "convert/X86Steps.h"

namespace convert {
namespace {

struct Sse2 {
  using Type = __m128i;

  static const Kernels& Narrower() { return plainKernels; }
  static Type Load(const std::uint8_t* p) {
    return _mm_loadu_si128(reinterpret_cast<const Type*>(p));
  }
  static void Store(std::uint8_t* p, Type v) { _mm_storeu_si128(reinterpret_cast<Type*>(p), v); }
  static void Stream(std::uint8_t* p, Type v) { _mm_stream_si128(reinterpret_cast<Type*>(p), v); }
  static Type Even(Type a, Type b) {
    const Type low = _mm_set1_epi16(0x00FF);
    return _mm_packus_epi16(_mm_and_si128(a, low), _mm_and_si128(b, low));
  }
  static Type Odd(Type a, Type b) {
    return _mm_packus_epi16(_mm_srli_epi16(a, 8), _mm_srli_epi16(b, 8));
  }
};

using Loops = VectorLoops<X86Steps<Sse2>>;

}  // namespace

const Kernels sse2Kernels{"sse2", Loops::YuyvToPlanar, Loops::YuyvToSemiPlanar};

}  // namespace convert
