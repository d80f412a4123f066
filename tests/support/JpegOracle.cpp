#include "support/JpegOracle.h"

#include <turbojpeg.h>

#include <memory>

namespace support {
namespace {

struct HandleDeleter {
  void operator()(void* handle) const { tjDestroy(handle); }
};
using Handle = std::unique_ptr<void, HandleDeleter>;

constexpr TJSAMP turbo(Sampling sampling) {
  return static_cast<TJSAMP>(sampling);
}
static_assert(turbo(Sampling::Yuv444) == TJSAMP_444 && turbo(Sampling::Yuv422) == TJSAMP_422 &&
              turbo(Sampling::Yuv420) == TJSAMP_420 && turbo(Sampling::Grey) == TJSAMP_GRAY &&
              turbo(Sampling::Yuv440) == TJSAMP_440 && turbo(Sampling::Yuv411) == TJSAMP_411);

/// The header call can answer success with a size of 0 x 0.
bool readHeader(void* handle, const Bytes& jpeg, JpegPicture& picture) {
  int sampling = 0, colour = 0;
  if (tjDecompressHeader3(handle, jpeg.data(), static_cast<unsigned long>(jpeg.size()),
                          &picture.width, &picture.height, &sampling, &colour) != 0 ||
      picture.width <= 0 || picture.height <= 0 || sampling < 0)
    return false;
  picture.sampling = static_cast<Sampling>(sampling);
  return true;
}

}  // namespace

JpegPicture decodeJpeg(const Bytes& jpeg) {
  JpegPicture picture;
  const Handle handle(tjInitDecompress());
  if (!readHeader(handle.get(), jpeg, picture)) {
    picture.error = "no JPEG header";
    return picture;
  }
  const TJSAMP sampling = turbo(picture.sampling);
  const bool grey = picture.sampling == Sampling::Grey;
  if (!grey) {
    picture.chromaWidth = tjPlaneWidth(1, picture.width, sampling);
    picture.chromaHeight = tjPlaneHeight(1, picture.height, sampling);
    picture.u.resize(static_cast<std::size_t>(picture.chromaWidth) * picture.chromaHeight);
    picture.v.resize(picture.u.size());
  }
  // The planes are rounded up to the sampling's multiple; go through buffers of that size.
  const int lumaWidth = tjPlaneWidth(0, picture.width, sampling);
  const int lumaHeight = tjPlaneHeight(0, picture.height, sampling);
  Bytes luma(static_cast<std::size_t>(lumaWidth) * lumaHeight);
  unsigned char* planes[3] = {luma.data(), picture.u.data(), picture.v.data()};
  int strides[3] = {lumaWidth, picture.chromaWidth, picture.chromaWidth};
  if (tjDecompressToYUVPlanes(handle.get(), jpeg.data(), static_cast<unsigned long>(jpeg.size()),
                              planes, picture.width, strides, picture.height,
                              TJFLAG_ACCURATEDCT) != 0) {
    picture.error = tjGetErrorStr2(handle.get());
    return picture;
  }
  picture.y = takePlane(luma.data(), picture.width, picture.height, lumaWidth);
  picture.ok = true;
  return picture;
}

Image decodeJpegToRgb(const Bytes& jpeg) {
  const Handle handle(tjInitDecompress());
  JpegPicture header;
  if (!readHeader(handle.get(), jpeg, header)) return {};
  Image image{header.width, header.height,
              Bytes(static_cast<std::size_t>(header.width) * header.height * 3)};
  if (tjDecompress2(handle.get(), jpeg.data(), static_cast<unsigned long>(jpeg.size()),
                    image.rgb.data(), image.width, 0, image.height, TJPF_RGB,
                    TJFLAG_ACCURATEDCT) != 0)
    return {};
  return image;
}

Bytes encodeJpeg(const Image& image, Sampling sampling, int quality, bool progressive) {
  const Handle handle(tjInitCompress());
  unsigned char* data = nullptr;
  unsigned long size = 0;
  if (tjCompress2(handle.get(), image.rgb.data(), image.width, 0, image.height, TJPF_RGB, &data,
                  &size, turbo(sampling), quality,
                  TJFLAG_ACCURATEDCT | (progressive ? TJFLAG_PROGRESSIVE : 0)) != 0)
    return {};
  const Bytes jpeg(data, data + size);
  tjFree(data);
  return jpeg;
}

}  // namespace support
