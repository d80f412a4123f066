#include <immintrin.h>

#include "convert/VectorLoops.h"
#include "convert/X86Steps.h"

namespace convert {
namespace {

struct Avx2 {
  using Type = __m256i;

  static const Kernels& Narrower() { return sse2Kernels; }
  static Type Load(const std::uint8_t* p) {
    return _mm256_loadu_si256(reinterpret_cast<const Type*>(p));
  }
  static void Store(std::uint8_t* p, Type v) { _mm256_storeu_si256(reinterpret_cast<Type*>(p), v); }
  static void Stream(std::uint8_t* p, Type v) {
    _mm256_stream_si256(reinterpret_cast<Type*>(p), v);
  }
  static Type Even(Type a, Type b) {
    const Type low = _mm256_set1_epi16(0x00FF);
    return InOrder(_mm256_packus_epi16(_mm256_and_si256(a, low), _mm256_and_si256(b, low)));
  }
  static Type Odd(Type a, Type b) {
    return InOrder(_mm256_packus_epi16(_mm256_srli_epi16(a, 8), _mm256_srli_epi16(b, 8)));
  }

  /// Packing works within 128-bit lanes: its quarters come as a0 b0 a1 b1.
  static Type InOrder(Type packed) {
    return _mm256_permute4x64_epi64(packed, _MM_SHUFFLE(3, 1, 2, 0));
  }
};

using Loops = VectorLoops<X86Steps<Avx2>>;

}  // namespace

const Kernels avx2Kernels{"avx2", Loops::YuyvToPlanar, Loops::YuyvToSemiPlanar};

}  // namespace convert
