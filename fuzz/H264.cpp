// H.264 input with a plan of cuts: bounded time, no more pictures than slices, statuses that exist.

#include <random>

#include "Fuzz.h"
#include "support/Calls.h"
#include "support/VirtualTime.h"

namespace {

unsigned drain(IH264Decoder& decoder, unsigned capacity) {
  for (unsigned pictures = 0;; ++pictures) {
    const support::Picture out = support::take(decoder, capacity);
    if (out.status != CodecOk && out.status != CodecBufferTooSmall) return pictures;
    MUST(out.status != CodecOk || out.size <= capacity);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::silence();
  FuzzedDataProvider input(data, size);
  const unsigned cut = input.ConsumeIntegralInRange(1u, 400u);
  const bool random = input.ConsumeBool();
  const unsigned flags = input.ConsumeBool();
  const unsigned room = input.ConsumeBool() ? 700 : 32 * 32 * 3 / 2;
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
    if (i % 4 == 3) pictures += drain(*decoder, room);
  }
  pictures += drain(*decoder, room);
  // Every picture takes a slice, a change of format one buffer more; the end counts as one.
  MUST(pictures <= 2 * support::nalStarts(stream).size());
  MUST(FreeH264Decoder(decoder) == 1);
  return 0;
}
