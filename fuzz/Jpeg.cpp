// The JPEG decode cycle: whatever comes in, a picture or null comes out, and the next good picture
// decodes.

#include <tessera/tessera.h>

#include "Fuzz.h"

namespace {

constexpr int goodSize = 32;

std::vector<std::uint8_t> goodJpeg() {
  std::vector<std::uint8_t> frame(goodSize * goodSize * 2, 0x80), jpeg(8192);
  COmxJpegEncoder encoder;
  unsigned size = 0;
  MUST(encoder.EncodeYUYV(frame.data(), goodSize * goodSize * 2, goodSize, goodSize, jpeg.data(),
                          8192, size) == 1);
  jpeg.resize(size);
  return jpeg;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::silence();
  static DecoderPool* const pool = GetDecoderPool();
  FuzzedDataProvider input(data, size);
  int width = input.ConsumeIntegralInRange(0, 80), height = input.ConsumeIntegralInRange(0, 80);
  fuzz::Exact jpeg(input.ConsumeRemainingBytes<std::uint8_t>());
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
  static const std::vector<std::uint8_t> made = goodJpeg();
  fuzz::Exact good(made);
  MUST(pool->DecodeJpeg(good.chars(), good.size(), goodWidth, goodHeight) != nullptr);
  MUST(goodWidth == goodSize && goodHeight == goodSize);
  return 0;
}
