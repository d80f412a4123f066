#include <tessera/tessera.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>

#include "support/FaultTest.h"
#include "support/H264Oracle.h"
#include "support/JpegOracle.h"

namespace {

using support::Bytes;

constexpr int width = 64, height = 48;

bool isWhole() {
  const char* const asked = std::getenv("TESSERA_SOAK");
  return asked != nullptr && std::string(asked) == "whole";
}

/// What the process has.
struct Held {
  long resident = 0;
  std::size_t allocations = support::interpose::allocationsOfLibrary();
  std::ptrdiff_t threads = entries("/proc/self/task"), descriptors = entries("/proc/self/fd");

  Held() {
    long total = 0, pages = 0;
    std::ifstream("/proc/self/statm") >> total >> pages;
    resident = pages * sysconf(_SC_PAGESIZE);
  }
  static std::ptrdiff_t entries(const char* folder) {
    return std::distance(std::filesystem::directory_iterator(folder), {});
  }
};

unsigned length(const Bytes& bytes) {
  return static_cast<unsigned>(bytes.size());
}

/// One class at work: an object that does one frame a call, with the caller's memory, and says
/// whether it came out.
using Frame = std::function<bool()>;

/// Asks for an output that may be late.
template <typename Ask>
bool comes(Ask ask) {
  CodecStatus status = CodecTimeout;
  for (int tries = 0; status == CodecTimeout && tries < 20; ++tries) status = ask();
  return status == CodecOk;
}

Frame jpegFrame(IJPEGEncoder* made) {
  const std::shared_ptr<IJPEGEncoder> encoder(made, ReleaseEncoderJPEG);
  return [encoder, raw = support::toYuyv(support::scene(width, height)),
          jpeg = Bytes(50000)]() mutable {
    unsigned size = 0;
    return encoder->EncodeYUYV(raw.data(), length(raw), width, height, jpeg.data(), length(jpeg),
                               size) == 1;
  };
}

Frame poolFrame() {
  const std::shared_ptr<DecoderPool> pool(GetDecoderPool(), ReleaseDecoderPool);
  return [pool, jpeg = support::encodeJpeg(support::scene(width, height), support::Sampling::Yuv420,
                                           80)]() mutable {
    int w = 0, h = 0;
    return pool->DecodeJpeg(reinterpret_cast<char*>(jpeg.data()), length(jpeg), w, h) != nullptr;
  };
}

Frame h264Frame(IH264Encoder* made) {
  const std::shared_ptr<IH264Encoder> encoder(made, ReleaseEncoderH264);
  encoder->Create(0x56595559, width, height, 30, 1, 1, 1, 1000000);
  return [encoder, raw = support::toYuyv(support::scene(width, height)),
          data = Bytes(50000)]() mutable {
    if (encoder->ProcessInput(raw.data(), length(raw), 0, 0) != CodecOk) return false;
    unsigned size = 0, flags = 0;
    const auto next = [&] {
      return encoder->ProcessOutput(data.data(), length(data), size, flags);
    };
    // The parameter sets have a buffer of their own, before every key frame.
    return comes(next) && ((data[4] & 31) != 7 || size >= 64 || comes(next));
  };
}

Frame decoderFrame() {
  IH264Decoder* made = nullptr;
  CreateH264Decoder(&made);
  const std::shared_ptr<IH264Decoder> decoder(made, FreeH264Decoder);
  if (made == nullptr || !decoder->Create(width, height, 0, nullptr)) return {};
  return [decoder, clip = support::encodeH264({width, height, 8}), picture = Bytes(64 * 48 * 3 / 2),
          i = std::size_t{0}]() mutable {
    const std::size_t from = clip.units[i], to = clip.units[i + 1];
    i = (i + 1) % (clip.units.size() - 1);
    if (decoder->ProcessInput(&clip.stream[from], static_cast<unsigned>(to - from), width, height,
                              0, 0) != CodecOk)
      return false;
    unsigned size = 0, w = 0, h = 0;
    unsigned long long timestamp = 0;
    return comes([&] {
      return decoder->ProcessOutput(picture.data(), length(picture), size, w, h, timestamp);
    });
  };
}

struct Worker {
  const char* name;
  std::function<Frame()> make;
};
const Worker workers[] = {
    {"CMmalJpegEncoder", [] { return jpegFrame(CreateEncoderJPEG()); }},
    {"COmxJpegEncoder", [] { return jpegFrame(new COmxJpegEncoder); }},
    {"DecoderPool", poolFrame},
    {"CMmalH264Encoder", [] { return h264Frame(CreateEncoderH264()); }},
    {"COmxH264Encoder", [] { return h264Frame(new COmxH264Encoder); }},
    {"CMmalH264Decoder", decoderFrame},
};

class Soak : public support::FaultTest, public testing::WithParamInterface<Worker> {
 protected:
  const bool whole_ = isWhole();
};

TEST_P(Soak, FramesCostNoMemory) {
  const int frames = whole_ ? 100000 : 2000, counted = frames - frames / 10;
  std::unique_ptr<Held> before, after;
  int missed = 0;
  {
    const support::Capture quiet;
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
    const support::Capture quiet;
    if (done == cycles - counted) before = std::make_unique<Held>();
    const Frame frame = GetParam().make();
    missed += !frame || !frame();
  }
  const support::Capture same;  // holds as many descriptors as the one in the loop
  const Held after;
  EXPECT_EQ(missed, 0);
  EXPECT_EQ(after.threads, before->threads);
  EXPECT_EQ(after.descriptors, before->descriptors);
  // The short form sees the allocator's arenas fill; a leak of one object's buffers is far beyond.
  EXPECT_LE((after.resident - before->resident) / counted, whole_ ? 2048 : 16384);
}

INSTANTIATE_TEST_SUITE_P(Classes, Soak, testing::ValuesIn(workers), support::NameOf());

}  // namespace
