// The JPEG decode cycle: whatever comes in, a picture or null comes out, and the next good picture
// decodes. And however many threads decode it, it is the same.

#include <tessera/tessera.h>

#include "Fuzz.h"
#include "support/GuardedDecode.h"
#include "support/JpegOracle.h"

namespace {

/// Several threads make the same of it as one.
void compare(fuzz::Exact& jpeg) {
  const auto limits = [](unsigned threads) {
    codec::JpegDecoder::Limits result;
    result.pixels = 1u << 18;
    result.threads = threads;
    return result;
  };
  static codec::JpegDecoder one(limits(1)), several(limits(3));
  MUST(support::decodeGuarded(one, jpeg.data(), jpeg.size()) ==
       support::decodeGuarded(several, jpeg.data(), jpeg.size(), 255));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::silence();
  static DecoderPool* const pool = GetDecoderPool();
  FuzzedDataProvider input(data, size);
  int width = input.ConsumeIntegralInRange(0, 80), height = input.ConsumeIntegralInRange(0, 80);
  fuzz::Exact jpeg(input.ConsumeRemainingBytes<std::uint8_t>());
  compare(jpeg);
  const unsigned char* const picture = pool->DecodeJpeg(jpeg.chars(), jpeg.size(), width, height);
  if (picture != nullptr) {
    MUST(width > 0 && height > 0);
    const std::size_t bytes = static_cast<std::size_t>((width + 31) & ~31) *
                              static_cast<std::size_t>((height + 15) & ~15);
    // The last byte of the last plane is there to be read.
    volatile unsigned char last = picture[bytes * 3 / 2 - 1];
    static_cast<void>(last);
  }
  int goodWidth = 0, goodHeight = 0;
  static const support::Bytes made =
      support::encodeJpeg(support::scene(32, 32), support::Sampling::Yuv420, 80);
  fuzz::Exact good(made);
  MUST(pool->DecodeJpeg(good.chars(), good.size(), goodWidth, goodHeight) != nullptr);
  MUST(goodWidth == 32 && goodHeight == 32);
  return 0;
}
