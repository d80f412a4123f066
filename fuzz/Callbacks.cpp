// Callbacks that nobody expects, and expected ones that go wrong, in any order between the
// operations of live objects: nothing crashes, hangs or stays behind, and a fresh object works.

#include <tessera/tessera.h>
#include <tessera_platform/control.h>

#include <functional>

#include "Fuzz.h"
#include "support/VirtualTime.h"

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

template <typename Handler>
void strayEvent(FuzzedDataProvider& script, Handler handler, void* encoder) {
  const auto event = static_cast<OMX_EVENTTYPE>(script.ConsumeIntegralInRange(0, 8));
  const unsigned data1 = script.ConsumeBool() ? script.ConsumeIntegralInRange(0u, 6u) : 0x80001012u;
  handler(nullptr, encoder, event, data1, script.ConsumeIntegral<unsigned>(), nullptr);
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
  const support::VirtualTime time;
  {
    COmxJpegEncoder jpeg;
    COmxH264Encoder h264;
    CMmalH264Encoder mmal;
    for (IH264Encoder* const each :
         {static_cast<IH264Encoder*>(&h264), static_cast<IH264Encoder*>(&mmal)})
      each->Create(0x56595559, width, height, 30, 1, 1, 1, 500000);
    const std::function<void()> steps[] = {
        [&] { encodeJpeg(jpeg); },
        [&] { workH264(h264); },
        [&] { strayEvent(script, OmxEventsHandler, &jpeg); },
        [&] { strayEvent(script, OmxH264EventsHandler, &h264); },
        [&] { OmxFillOutputBufferHandler(nullptr, &jpeg, nullptr); },
        [&] { OmxEmptyInputBufferHandler(nullptr, &jpeg, nullptr); },
        [&] { OmxH264FillOutputBufferHandler(nullptr, &h264, nullptr); },
        [&] { spoilCompletion(script); },
        [&] { workH264(mmal); },
        [&] { OmxH264EmptyInputBufferHandler(nullptr, &h264, nullptr); }};
    for (int step = 0; step < 12 && script.remaining_bytes() > 0; ++step)
      steps[script.ConsumeIntegralInRange(0, 9)]();
  }
  tessera_platform::clearFaults();
  MUST(tessera_platform::census().empty());
  COmxJpegEncoder fresh;
  MUST(encodeJpeg(fresh) == 1);
  return 0;
}
