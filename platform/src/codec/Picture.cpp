#include "codec/Picture.h"

namespace codec {

unsigned bytesPerPixel(PixelFormat format) {
  switch (format) {
    case PixelFormat::Yuyv:
    case PixelFormat::Rgb565:
      return 2;
    case PixelFormat::Rgb24:
    case PixelFormat::Argb1887:
      return 3;
    case PixelFormat::Rgba32:
    case PixelFormat::Bgra32:
      return 4;
  }
  return 0;
}

}  // namespace codec
