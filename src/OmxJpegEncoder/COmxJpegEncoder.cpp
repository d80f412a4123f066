#include <tessera/COmxJpegEncoder.h>
#include <tessera/Diagnostics.h>

#include <cstdint>
#include <cstdio>
#include <limits>

#include "OmxJpegEncoder/Steps.h"
#include "common/Geometry.h"
#include "common/Waits.h"

namespace {

// The component knows 24-bit pixels under the name ARGB1887, not under RGB888.
constexpr common::RgbFormats<OMX_COLOR_FORMATTYPE> rgbFormats{
    OMX_COLOR_Format16bitRGB565, OMX_COLOR_Format24bitARGB1887, OMX_COLOR_Format32bitARGB8888};

/// Bytes of an array for the JPEG; 0 where 32 bits do not hold them.
unsigned int ArrayCapacity(int width, int height, unsigned int bytesPerPixel) {
  const std::uint64_t pixels = std::uint64_t{common::Magnitude(width)} * common::Magnitude(height);
  if (pixels > std::numeric_limits<std::uint32_t>::max() / bytesPerPixel) return 0;
  return static_cast<unsigned int>(pixels * bytesPerPixel);
}

/// The magnitude of a size, or the largest int where that is less.
int PositiveSize(int size) {
  constexpr std::uint32_t largest = std::numeric_limits<int>::max();
  const std::uint32_t magnitude = common::Magnitude(size);
  return static_cast<int>(magnitude < largest ? magnitude : largest);
}

}  // namespace

COmxJpegEncoder::COmxJpegEncoder() {
  InitializeHardware();
}

COmxJpegEncoder::~COmxJpegEncoder() {
  ReleaseHardware();
}

int COmxJpegEncoder::EncodeYUYV(unsigned char* frame, unsigned int frameSize, int width, int height,
                                unsigned char** jpeg, unsigned int& jpegSize) {
  if (jpeg == nullptr) {
    std::puts("COmxJpegEncoder::EncodeYUYV- invalid output buffer pointer");
    return 0;
  }
  const unsigned int bytes = ArrayCapacity(width, height, 2);
  if (width <= 0 || height <= 0 || bytes == 0) {
    std::printf("COmxJpegEncoder::EncodeYUYV- invalid input image size %dx%d\n", width, height);
    *jpeg = nullptr;
    jpegSize = 0;
    return 0;
  }
  return common::EncodeIntoNewArray(
      bytes, jpeg, jpegSize,
      [&](unsigned char* into, unsigned int capacity, unsigned int& produced) {
        return EncodeYUYV(frame, frameSize, width, height, into, capacity, produced);
      });
}

int COmxJpegEncoder::EncodeYUYV(unsigned char* frame, unsigned int frameSize, int width, int height,
                                unsigned char* jpeg, unsigned int jpegCapacity,
                                unsigned int& jpegSize) {
  return Encode(frame, frameSize, OMX_COLOR_FormatYCbYCr, 16, width, height, jpeg, jpegCapacity,
                jpegSize);
}

int COmxJpegEncoder::EncodeRGB32(unsigned char* frame, unsigned int frameSize, int width,
                                 int height, unsigned char** jpeg, unsigned int& jpegSize) {
  if (jpeg == nullptr) {
    std::puts("COmxJpegEncoder::EncodeRGB32 - invalid output buffer pointer");
    return 0;
  }
  const unsigned int bytes = ArrayCapacity(width, height, 4);
  if (bytes == 0) {
    std::printf("COmxJpegEncoder::EncodeRGB32 - invalid input image size %dx%d\n", width, height);
    *jpeg = nullptr;
    jpegSize = 0;
    return 0;
  }
  return common::EncodeIntoNewArray(
      bytes, jpeg, jpegSize,
      [&](unsigned char* into, unsigned int capacity, unsigned int& produced) {
        return EncodeRGB32(frame, frameSize, PositiveSize(width), PositiveSize(height), into,
                           capacity, produced);
      });
}

int COmxJpegEncoder::EncodeRGB32(unsigned char* frame, unsigned int frameSize, int width,
                                 int height, unsigned char* jpeg, unsigned int jpegCapacity,
                                 unsigned int& jpegSize) {
  return EncodeRGB(frame, frameSize, 32, PositiveSize(width), PositiveSize(height), jpeg,
                   jpegCapacity, jpegSize);
}

int COmxJpegEncoder::EncodeRGB(unsigned char* frame, unsigned int frameSize,
                               unsigned int bitsPerPixel, int width, int height,
                               unsigned char* jpeg, unsigned int jpegCapacity,
                               unsigned int& jpegSize) {
  const OMX_COLOR_FORMATTYPE* const format = rgbFormats.OfDepth(bitsPerPixel, "COmxJpegEncoder");
  if (format == nullptr) return 0;
  return Encode(frame, frameSize, *format, static_cast<int>(bitsPerPixel), width, height, jpeg,
                jpegCapacity, jpegSize);
}

bool COmxJpegEncoder::WaitForStateChange() {
  return common::AwaitAnswer(semStateChanged, bComponentError);
}

bool COmxJpegEncoder::WaitForPortEnableDisable() {
  return common::AwaitAnswer(semPortEnableDisable, bComponentError);
}

bool COmxJpegEncoder::WaitForFlush() {
  return common::AwaitAnswer(semFlushed, bComponentError);
}

bool COmxJpegEncoder::WaitForOutputBufferFilled() {
  return common::AwaitAnswer(semOutputFilled, bComponentError);
}

void COmxJpegEncoder::SignalStateChanged() {
  sem_post(&semStateChanged);
}

void COmxJpegEncoder::SignalPortEnabledDisabled() {
  sem_post(&semPortEnableDisable);
}

void COmxJpegEncoder::SignalFlushed() {
  sem_post(&semFlushed);
}

void COmxJpegEncoder::SignalOutputBufferFill() {
  sem_post(&semOutputFilled);
}

void COmxJpegEncoder::SignalComponentError() {
  bComponentError = true;
}

OMX_ERRORTYPE OmxEventsHandler(OMX_HANDLETYPE, OMX_PTR appData, OMX_EVENTTYPE event, OMX_U32 data1,
                               OMX_U32, OMX_PTR) {
  if (appData == nullptr)
    std::puts("OmxEventsHandler : nullptr of the COmxJpegEncoder object");
  else
    common::PassOmxEvent(*static_cast<COmxJpegEncoder*>(appData), event, data1, PrintOmxError);
  return OMX_ErrorNone;
}

OMX_ERRORTYPE OmxEmptyInputBufferHandler(OMX_HANDLETYPE, OMX_PTR appData, OMX_BUFFERHEADERTYPE*) {
  if (appData == nullptr)
    std::puts("OmxEmptyInputBufferHandler : nullptr of the COmxJpegEncoder object");
  return OMX_ErrorNone;
}

OMX_ERRORTYPE OmxFillOutputBufferHandler(OMX_HANDLETYPE, OMX_PTR appData, OMX_BUFFERHEADERTYPE*) {
  if (appData == nullptr)
    std::puts("OmxFillOutputBufferHandler : nullptr of the COmxJpegEncoder object");
  else
    static_cast<COmxJpegEncoder*>(appData)->SignalOutputBufferFill();
  return OMX_ErrorNone;
}
