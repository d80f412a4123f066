// Callbacks that nobody expects, in any order, between the operations of live objects: nothing
// crashes or hangs, and a fresh object works.

#include <tessera/tessera.h>

#include "Fuzz.h"
#include "Haste.h"

namespace {

constexpr int width = 32, height = 16;

int encodeJpeg(IJPEGEncoder& encoder) {
  fuzz::Exact frame(width * height * 2), jpeg(8192);
  std::fill_n(frame.data(), frame.size(), std::uint8_t{0x80});
  unsigned size = 0;
  const int result =
      encoder.EncodeYUYV(frame.data(), frame.size(), width, height, jpeg.data(), jpeg.size(), size);
  MUST(result == 0 || size <= jpeg.size());
  return result;
}

void strayJpegEvent(FuzzedDataProvider& script, COmxJpegEncoder& encoder) {
  const auto event = static_cast<OMX_EVENTTYPE>(script.ConsumeIntegralInRange(0, 8));
  const unsigned data1 = script.ConsumeBool() ? script.ConsumeIntegralInRange(0u, 6u) : 0x80001012u;
  OmxEventsHandler(nullptr, &encoder, event, data1, script.ConsumeIntegral<unsigned>(), nullptr);
}

void strayH264Event(FuzzedDataProvider& script, COmxH264Encoder& encoder) {
  const auto event = static_cast<OMX_EVENTTYPE>(script.ConsumeIntegralInRange(0, 8));
  OmxH264EventsHandler(nullptr, &encoder, event, script.ConsumeIntegralInRange(0u, 6u), 0, nullptr);
}

void workH264(IH264Encoder& encoder) {
  fuzz::Exact frame(width * height * 2), data(8192);
  std::fill_n(frame.data(), frame.size(), std::uint8_t{0x80});
  unsigned size = 0, flags = 0;
  encoder.ProcessInput(frame.data(), frame.size(), 0, 0);
  encoder.ProcessOutput(data.data(), data.size(), size, flags);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  fuzz::silence();
  FuzzedDataProvider script(bytes, size);
  {
    COmxJpegEncoder jpeg;
    COmxH264Encoder h264;
    h264.Create(0x56595559, width, height, 30, 1, 1, 1, 500000);
    for (int step = 0; step < 12 && script.remaining_bytes() > 0; ++step) {
      switch (script.ConsumeIntegralInRange(0, 7)) {
        case 0:
          encodeJpeg(jpeg);
          break;
        case 1:
          workH264(h264);
          break;
        case 2:
          strayJpegEvent(script, jpeg);
          break;
        case 3:
          strayH264Event(script, h264);
          break;
        case 4:
          OmxFillOutputBufferHandler(nullptr, &jpeg, nullptr);
          break;
        case 5:
          OmxEmptyInputBufferHandler(nullptr, &jpeg, nullptr);
          break;
        case 6:
          OmxH264FillOutputBufferHandler(nullptr, &h264, nullptr);
          break;
        default:
          OmxH264EmptyInputBufferHandler(nullptr, &h264, nullptr);
          break;
      }
    }
  }
  fuzz::haste = 1;
  COmxJpegEncoder fresh;
  MUST(encodeJpeg(fresh) == 1);
  fuzz::haste = 100;
  return 0;
}
