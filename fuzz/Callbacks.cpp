// Callbacks that nobody expects, and expected ones that go wrong, in any order between the
// operations of live objects: nothing crashes, hangs or stays behind, and a fresh object works.

#include <tessera_platform/control.h>

#include <functional>

#include "Fuzz.h"
#include "support/Calls.h"
#include "support/VirtualTime.h"

namespace {

constexpr int width = 32, height = 16;

int encodeJpeg(support::JpegEncoder& encoder) {
  const support::Encoded out =
      encoder.encode(support::Bytes(width * height * 2, 0x80), 0, width, height, 8192);
  MUST(out.result == 0 || out.jpeg.size() <= 8192);
  return out.result;
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  fuzz::silence();
  FuzzedDataProvider script(bytes, size);
  const support::VirtualTime time;
  {
    support::JpegEncoder jpeg(support::omxJpeg());
    support::H264Encoder omx(support::omxH264()), mmal(support::mmalH264());
    void* const jpegObject = &*jpeg;
    void* const h264Object = &*omx;
    const auto work = [](support::H264Encoder& encoder) {
      encoder.feed();
      encoder.take(8192);
    };
    for (auto* const each : {&omx, &mmal}) each->create({support::yuyv, width, height});
    const std::function<void()> steps[] = {
        [&] { encodeJpeg(jpeg); },
        [&] { work(omx); },
        [&] { strayEvent(script, OmxEventsHandler, jpegObject); },
        [&] { strayEvent(script, OmxH264EventsHandler, h264Object); },
        [&] { OmxFillOutputBufferHandler(nullptr, jpegObject, nullptr); },
        [&] { OmxEmptyInputBufferHandler(nullptr, jpegObject, nullptr); },
        [&] { OmxH264FillOutputBufferHandler(nullptr, h264Object, nullptr); },
        [&] { spoilCompletion(script); },
        [&] { work(mmal); },
        [&] { OmxH264EmptyInputBufferHandler(nullptr, h264Object, nullptr); }};
    for (int step = 0; step < 12 && script.remaining_bytes() > 0; ++step)
      steps[script.ConsumeIntegralInRange(0, 9)]();
  }
  tessera_platform::clearFaults();
  MUST(tessera_platform::census().empty());
  support::JpegEncoder fresh(support::omxJpeg());
  MUST(encodeJpeg(fresh) == 1);
  return 0;
}
