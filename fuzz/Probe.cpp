// The JPEG probe: reads nothing outside, and leaves the outputs alone when it finds nothing.

#include <tessera/JpegProbe.h>

#include "Fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Exact jpeg(std::vector<std::uint8_t>(data, data + size));
  int width = -7, height = -9;
  if (GetJpegWidthAndHeight(width, height, jpeg.chars(), jpeg.size()))
    MUST(width >= 0 && width <= 65535 && height >= 0 && height <= 65535);
  else
    MUST(width == -7 && height == -9);
  return 0;
}
