#include <bcm_host.h>
#include <tessera/CMmalJpegEncoder.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <limits>

#include "MMALJpegEncoder/Steps.h"
#include "common/Geometry.h"

namespace {

constexpr common::RgbFormats<unsigned int> rgbFormats{MMAL_ENCODING_RGB16, MMAL_ENCODING_RGB24,
                                                      MMAL_ENCODING_RGBA};

/// Bytes of an array for the JPEG, or as many as 32 bits hold.
unsigned int ArrayCapacity(int width, int height, unsigned int bytesPerPixel) {
  const std::uint64_t pixels = std::uint64_t{common::Magnitude(width)} * common::Magnitude(height);
  constexpr std::uint64_t most = std::numeric_limits<unsigned int>::max();
  return static_cast<unsigned int>(std::min(most, std::min(most, pixels) * bytesPerPixel));
}

int PositiveSize(int size) {
  return static_cast<int>(common::Magnitude(size));
}

}  // namespace

void MMALEncoderCallback(MMAL_WRAPPER_T* wrapper) {
  if (auto* encoder = static_cast<CMmalJpegEncoder*>(wrapper->user_data))
    CMmalJpegEncoder::Steps(*encoder).SignalEvent();
}

CMmalJpegEncoder::CMmalJpegEncoder() {
  bcm_host_init();
}

CMmalJpegEncoder::~CMmalJpegEncoder() {
  if (pWrapper != nullptr) Steps(*this).ReleaseSetup();
}

int CMmalJpegEncoder::EncodeYUYV(unsigned char* frame, unsigned int frameSize, int width,
                                 int height, unsigned char** jpeg, unsigned int& jpegSize) {
  if (jpeg == nullptr) {
    std::puts("CMmalJpegEncoder::EncodeYUYV - invalid output buffer pointer");
    return 0;
  }
  return common::EncodeIntoNewArray(
      ArrayCapacity(width, height, 2), jpeg, jpegSize,
      [&](unsigned char* into, unsigned int capacity, unsigned int& produced) {
        return EncodeYUYV(frame, frameSize, width, height, into, capacity, produced);
      });
}

int CMmalJpegEncoder::EncodeYUYV(unsigned char* frame, unsigned int frameSize, int width,
                                 int height, unsigned char* jpeg, unsigned int jpegCapacity,
                                 unsigned int& jpegSize) {
  return Encode(frame, frameSize, MMAL_ENCODING_YUYV, width, height, jpeg, jpegCapacity, jpegSize);
}

int CMmalJpegEncoder::EncodeRGB32(unsigned char* frame, unsigned int frameSize, int width,
                                  int height, unsigned char** jpeg, unsigned int& jpegSize) {
  if (jpeg == nullptr) {
    std::puts("CMmalJpegEncoder::EncodeRGB32 - invalid output buffer pointer");
    return 0;
  }
  return common::EncodeIntoNewArray(
      ArrayCapacity(width, height, 4), jpeg, jpegSize,
      [&](unsigned char* into, unsigned int capacity, unsigned int& produced) {
        return EncodeRGB32(frame, frameSize, PositiveSize(width), PositiveSize(height), into,
                           capacity, produced);
      });
}

int CMmalJpegEncoder::EncodeRGB32(unsigned char* frame, unsigned int frameSize, int width,
                                  int height, unsigned char* jpeg, unsigned int jpegCapacity,
                                  unsigned int& jpegSize) {
  return EncodeRGB(frame, frameSize, 32, PositiveSize(width), PositiveSize(height), jpeg,
                   jpegCapacity, jpegSize);
}

int CMmalJpegEncoder::EncodeRGB(unsigned char* frame, unsigned int frameSize,
                                unsigned int bitsPerPixel, int width, int height,
                                unsigned char* jpeg, unsigned int jpegCapacity,
                                unsigned int& jpegSize) {
  const unsigned int* const format = rgbFormats.OfDepth(bitsPerPixel, "CMmalJpegEncoder");
  if (format == nullptr) return 0;
  return Encode(frame, frameSize, *format, width, height, jpeg, jpegCapacity, jpegSize);
}
