// The frame conversions with sizes and buffer ends of every kind.

#include <tessera/FrameConversion.h>

#include "Fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  const int which = input.ConsumeIntegralInRange(0, 2);
  const bool wild = input.ConsumeBool();
  const unsigned width =
      wild ? input.ConsumeIntegral<unsigned>() : input.ConsumeIntegralInRange(0u, 200u);
  const unsigned height =
      wild ? input.ConsumeIntegral<unsigned>() : input.ConsumeIntegralInRange(0u, 40u);
  if (which == 2) {
    const int w = static_cast<int>(width % 256) - 8, h = static_cast<int>(height % 64) - 8;
    const std::size_t pixels = w > 0 && h > 0 ? static_cast<std::size_t>(w) * h : 0;
    // An odd height needs no chroma row for its last row.
    const std::size_t chroma = w > 0 && h > 0 ? static_cast<std::size_t>(w) * (h / 2) : 0;
    fuzz::Exact from(pixels * 2), to(pixels + chroma);
    std::fill_n(from.data(), from.size(), std::uint8_t{0x5A});
    YUYVToNV12(from.data(), to.data(), w, h);
    return 0;
  }
  fuzz::Exact from(input.ConsumeIntegralInRange<std::size_t>(0, 40000));
  fuzz::Exact to(input.ConsumeIntegralInRange<std::size_t>(0, 40000));
  std::fill_n(from.data(), from.size(), std::uint8_t{0x5A});
  unsigned filled = 12345;
  if (which == 0)
    CopyYVYU(from.data(), from.size(), width, height, to.data(), to.size(), filled);
  else
    CopyI420(from.data(), from.size(), width, height, to.data(), to.size(), filled);
  MUST(filled == (which == 0 ? to.size() : std::min(from.size(), to.size())));
  return 0;
}
