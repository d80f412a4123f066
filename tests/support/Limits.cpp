#include "support/Limits.h"

#include <tessera_platform/control.h>

#include "support/Calls.h"
#include "support/Drivers.h"

namespace support {
namespace {

using namespace std::chrono_literals;

struct Object {
  std::function<CodecStatus()> feed, take;
};

Object h264Object(const std::string& name) {
  if (name == "CMmalH264Decoder") {
    IH264Decoder* made = nullptr;
    CreateH264Decoder(&made);
    const std::shared_ptr<IH264Decoder> decoder(made, FreeH264Decoder);
    decoder->Create(sizes[0].width, sizes[0].height, 0, nullptr);
    return {[=] { return feed(*decoder); }, [=] { return take(*decoder).status; }};
  }
  const bool mmal = name == mmalH264().name;
  const auto encoder = std::make_shared<H264Encoder>(mmal ? mmalH264() : omxH264());
  encoder->create();
  return {[=] { return encoder->feed(); }, [=] { return encoder->take().status; }};
}

/// Both waits of an H.264 class, on objects of their own.
std::vector<Limit> h264Limits(const std::string& name) {
  const Object fed = h264Object(name), drained = h264Object(name);
  std::vector<Limit> limits;
  const auto add = [&](const char* way, auto limit, LimitBy clock) -> Limit& {
    return limits.emplace_back(Limit{name + way, limit, clock, "", "", CodecTimeout, {}});
  };
  const std::string input = name + "::ProcessInput - ", output = name + "::ProcessOutput - ";
  if (name == omxH264().name) {
    add(" in", 10s, LimitBy::SteadyClock).err = input + "the input buffer did not come back\n";
    add(" out", 10s, LimitBy::SteadyClock).err = output + "the output buffer was not filled\n";
  } else {
    add(" in", 1s, LimitBy::WallClock).out = input + "timeout\n";
    add(" out", 100ms, LimitBy::WallClock).out =
        name == mmalH264().name ? output + "timeout\n" : "";
    limits[0].broken = input + "wait failed [0x4]\n";
    limits[1].broken = output + "wait failed [0x4]\n";
  }
  limits[0].before = [=] { return fed.feed() == CodecOk; };
  limits[0].wait = [=] { return fed.feed(); };
  limits[1].wait = [=] { return drained.take(); };
  return limits;
}

}  // namespace

std::vector<Limit> limitsOf(const std::string& name) {
  if (name.find("H264") != std::string::npos) return h264Limits(name);
  const std::shared_ptr<Driver> driver = driverClass(name).make();
  const bool works = driver->make().good && driver->frame(0).good;
  const auto wait = [=] { return !works || driver->frame(1).good; };
  const std::string unfilled = " - no answer to OMX_FillThisBuffer\n";
  if (name == mmalJpeg().name)
    return {{name, 10s, LimitBy::SteadyClock, name + "::Encode - timeout\n", "", 0, wait}};
  if (name == omxJpeg().name)
    return {{name, 10s, LimitBy::SteadyClock, name + "::Encode" + unfilled, "", 0, wait}};
  return {{name, 9950ms, LimitBy::SteadyClock, name + "::DecodeJpeg" + unfilled, "", 0, wait}};
}

void loseAnswers() {
  using tessera_platform::CompletionFault;
  for (const char* lost : {"wrapper", "input", "output", "EmptyBufferDone", "FillBufferDone"})
    tessera_platform::inject(CompletionFault{lost, 1, true, CompletionFault::Drop, 0, 0});
}

}  // namespace support
