#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <memory>

#include "support/Calls.h"
#include "support/FaultTest.h"

namespace {

using namespace support;

bool isWhole() {
  const char* const asked = std::getenv("TESSERA_SOAK");
  return asked != nullptr && std::string(asked) == "whole";
}

/// What the process has.
struct Held {
  long resident = 0;
  std::size_t allocations = interpose::allocationsOfLibrary();
  int threads = entries("/proc/self/task"), descriptors = entries("/proc/self/fd");

  Held() {
    long total = 0, pages = 0;
    std::ifstream("/proc/self/statm") >> total >> pages;
    resident = pages * sysconf(_SC_PAGESIZE);
  }
};

constexpr unsigned room = 50000;  ///< for any output

/// One class at work: an object that does one frame a call, with the caller's memory, and says
/// whether it came out.
using Frame = std::function<bool()>;

/// Asks for an output that may be late.
template <typename Ask>
auto late(Ask ask) {
  auto out = ask();
  for (int tries = 1; out.status == CodecTimeout && tries < 20; ++tries) out = ask();
  return out;
}

Frame jpegFrame(const JpegClass& kind) {
  const auto encoder = std::make_shared<JpegEncoder>(kind);
  return [=, raw = encoder->raw(scene(64, 48), 0)] {
    return encoder->encode(raw, 0, 64, 48, room).result == 1;
  };
}

Frame poolFrame() {
  const std::shared_ptr<DecoderPool> pool(GetDecoderPool(), ReleaseDecoderPool);
  return [pool, jpeg = encodeJpeg(scene(64, 48), Sampling::Yuv420, 80)]() mutable {
    int w = 0, h = 0;
    return pool->DecodeJpeg(reinterpret_cast<char*>(jpeg.data()), length(jpeg), w, h) != nullptr;
  };
}

Frame h264Frame(const H264Class& kind) {
  const auto encoder = std::make_shared<H264Encoder>(kind);
  encoder->create();
  return [=, picture = scene(64, 48)] {
    if (encoder->feed(picture) != CodecOk) return false;
    const auto next = [&] { return encoder->take(room); };
    // The parameter sets have a buffer of their own, before every key frame.
    const Output first = late(next);
    return first.status == CodecOk && (holdsSlice(first.data) || late(next).status == CodecOk);
  };
}

Frame decoderFrame() {
  IH264Decoder* made = nullptr;
  CreateH264Decoder(&made);
  const std::shared_ptr<IH264Decoder> decoder(made, FreeH264Decoder);
  if (made == nullptr || !decoder->Create(64, 48, 0, nullptr)) return {};
  return [decoder, unit = 0]() mutable {
    if (feed(*decoder, unit) != CodecOk) return false;
    unit = (unit + 1) % 4;
    return late([&] { return take(*decoder); }).status == CodecOk;
  };
}

struct Worker {
  const char* name;
  std::function<Frame()> make;
};
const Worker workers[] = {
    {"CMmalJpegEncoder", [] { return jpegFrame(mmalJpeg()); }},
    {"COmxJpegEncoder", [] { return jpegFrame(omxJpeg()); }},
    {"DecoderPool", poolFrame},
    {"CMmalH264Encoder", [] { return h264Frame(mmalH264()); }},
    {"COmxH264Encoder", [] { return h264Frame(omxH264()); }},
    {"CMmalH264Decoder", decoderFrame},
};

class Soak : public FaultTest, public testing::WithParamInterface<Worker> {
 protected:
  const bool whole_ = isWhole();
};

TEST_P(Soak, FramesCostNoMemory) {
  const int frames = whole_ ? 100000 : 2000, counted = frames - frames / 10;
  std::unique_ptr<Held> before, after;
  int missed = 0;
  {
    const Capture quiet;
    const Frame frame = GetParam().make();
    ASSERT_TRUE(frame);
    for (int done = 0; done < frames; ++done) {
      if (done == frames - counted) before = std::make_unique<Held>();
      missed += !frame();
    }
    after = std::make_unique<Held>();
  }
  const double perFrame = static_cast<double>(after->resident - before->resident) / counted;
  std::cout << GetParam().name << ": " << frames << " frames, "
            << after->allocations - before->allocations << " allocations by the library, "
            << perFrame << " bytes resident a frame\n";
  EXPECT_EQ(missed, 0);
  EXPECT_EQ(after->allocations, before->allocations);
  // The short form sees single pages; a leak of a frame's bytes would still be thousands.
  EXPECT_LE(perFrame, whole_ ? 1.0 : 200.0);
}

TEST_P(Soak, CyclesLeaveNothing) {
  const int cycles = whole_ ? 2000 : 100, counted = cycles - cycles / 5;
  std::unique_ptr<Held> before;
  int missed = 0;
  for (int done = 0; done < cycles; ++done) {
    const Capture quiet;
    if (done == cycles - counted) before = std::make_unique<Held>();
    const Frame frame = GetParam().make();
    missed += !frame || !frame();
  }
  const Capture same;  // holds as many descriptors as the one in the loop
  const Held after;
  EXPECT_EQ(missed, 0);
  EXPECT_EQ(after.threads, before->threads);
  EXPECT_EQ(after.descriptors, before->descriptors);
  // The short form sees the allocator's arenas fill; a leak of one object's buffers is far beyond.
  EXPECT_LE((after.resident - before->resident) / counted, whole_ ? 2048 : 16384);
}

INSTANTIATE_TEST_SUITE_P(Classes, Soak, testing::ValuesIn(workers), NameOf());

}  // namespace
