// H.264 input with a plan of cuts: bounded time, no more pictures than slices, statuses that exist.

#include <tessera/IH264Decoder.h>

#include <random>

#include "Fuzz.h"
#include "support/VirtualTime.h"

namespace {

unsigned slicesIn(const std::vector<std::uint8_t>& stream) {
  unsigned slices = 0;
  for (std::size_t i = 0; i + 3 < stream.size(); ++i)
    slices += stream[i] == 0 && stream[i + 1] == 0 && stream[i + 2] == 1;
  return slices;
}

unsigned drain(IH264Decoder& decoder, fuzz::Exact& picture) {
  unsigned pictures = 0;
  for (;;) {
    unsigned bytes = 0, width = 0, height = 0;
    unsigned long long timestamp = 0;
    const CodecStatus status =
        decoder.ProcessOutput(picture.data(), picture.size(), bytes, width, height, timestamp);
    if (status != CodecOk && status != CodecBufferTooSmall) return pictures;
    MUST(status != CodecOk || bytes <= picture.size());
    ++pictures;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::silence();
  FuzzedDataProvider input(data, size);
  const unsigned cut = input.ConsumeIntegralInRange(1u, 400u);
  const bool random = input.ConsumeBool();
  const unsigned flags = input.ConsumeBool();
  fuzz::Exact picture(input.ConsumeBool() ? 700 : 32 * 32 * 3 / 2);
  const std::vector<std::uint8_t> stream = input.ConsumeRemainingBytes<std::uint8_t>();
  std::minstd_rand cuts(cut);

  const support::VirtualTime time;
  IH264Decoder* decoder = nullptr;
  MUST(CreateH264Decoder(&decoder) == 1);
  MUST(decoder->Create(32, 32, 0, nullptr));
  unsigned pictures = 0;
  std::size_t at = 0;
  for (unsigned i = 0; at < stream.size() && i < 64; ++i) {
    const std::size_t wanted = random ? 1 + cuts() % cut : cut;
    const std::size_t length = std::min(wanted, stream.size() - at);
    fuzz::Exact piece(
        std::vector<std::uint8_t>(stream.begin() + static_cast<std::ptrdiff_t>(at),
                                  stream.begin() + static_cast<std::ptrdiff_t>(at + length)));
    at += length;
    const CodecStatus status = decoder->ProcessInput(piece.data(), piece.size(), 32, 32, flags, i);
    MUST(status == CodecOk || status == CodecTimeout);
    // Now and then, since each ends with a wait for nothing.
    if (i % 4 == 3) pictures += drain(*decoder, picture);
  }
  pictures += drain(*decoder, picture);
  // Every picture takes a slice, a change of format one buffer more.
  MUST(pictures <= 2 * slicesIn(stream) + 2);
  MUST(FreeH264Decoder(decoder) == 1);
  return 0;
}
