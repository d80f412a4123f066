#include <immintrin.h>

#include "convert/VectorLoops.h"
#include "convert/X86Steps.h"

namespace convert {
namespace {

struct Avx512 {
  using Type = __m512i;

  static const Kernels& Narrower() { return avx2Kernels; }
  static Type Load(const std::uint8_t* p) { return _mm512_loadu_si512(p); }
  static void Store(std::uint8_t* p, Type v) { _mm512_storeu_si512(p, v); }
  static void Stream(std::uint8_t* p, Type v) {
    _mm512_stream_si512(reinterpret_cast<Type*>(p), v);
  }
  static Type Even(Type a, Type b) {
    const Type low = _mm512_set1_epi16(0x00FF);
    return InOrder(_mm512_packus_epi16(_mm512_and_si512(a, low), _mm512_and_si512(b, low)));
  }
  static Type Odd(Type a, Type b) {
    return InOrder(_mm512_packus_epi16(_mm512_srli_epi16(a, 8), _mm512_srli_epi16(b, 8)));
  }

  /// Packing works within 128-bit lanes: its eighths come as a0 b0 a1 b1 a2 b2 a3 b3.
  static Type InOrder(Type packed) {
    // The masked form, all ones: GCC 12 takes the plain one for a use of uninitialised memory.
    return _mm512_maskz_permutexvar_epi64(0xFF, _mm512_setr_epi64(0, 2, 4, 6, 1, 3, 5, 7), packed);
  }
};

using Loops = VectorLoops<X86Steps<Avx512>>;

}  // namespace

const Kernels avx512Kernels{"avx512bw", Loops::YuyvToPlanar, Loops::YuyvToSemiPlanar};

}  // namespace convert
