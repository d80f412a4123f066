// Callbacks that nobody expects, and expected ones that go wrong, in any order between the
// operations of live objects: nothing crashes, hangs or stays behind, and a fresh object works.

#include <tessera/tessera.h>
#include <tessera_platform/control.h>

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

/// What the sweep tries one at a time, several together.
void spoilCompletion(FuzzedDataProvider& script) {
  using tessera_platform::CompletionFault;
  CompletionFault fault;
  fault.completion = script.PickValueInArray(
      {"EventHandler", "EmptyBufferDone", "FillBufferDone", "input", "output"});
  fault.nth = script.ConsumeIntegralInRange(1u, 4u);
  fault.sticky = script.ConsumeBool();
  fault.action = static_cast<CompletionFault::Action>(script.ConsumeIntegralInRange(0, 4));
  fault.delayMs = script.ConsumeIntegralInRange(0u, 15u);
  fault.code = fault.completion.size() < 7 ? 7 : 0x80001009;
  tessera_platform::inject(fault);
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
    CMmalH264Encoder mmal;
    for (IH264Encoder* const each :
         {static_cast<IH264Encoder*>(&h264), static_cast<IH264Encoder*>(&mmal)})
      each->Create(0x56595559, width, height, 30, 1, 1, 1, 500000);
    for (int step = 0; step < 12 && script.remaining_bytes() > 0; ++step) {
      switch (script.ConsumeIntegralInRange(0, 9)) {
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
        case 7:
          spoilCompletion(script);
          break;
        case 8:
          workH264(mmal);
          break;
        default:
          OmxH264EmptyInputBufferHandler(nullptr, &h264, nullptr);
          break;
      }
    }
  }
  tessera_platform::clearFaults();
  MUST(tessera_platform::census().empty());
  fuzz::haste = 1;
  COmxJpegEncoder fresh;
  MUST(encodeJpeg(fresh) == 1);
  fuzz::haste = 100;
  return 0;
}
