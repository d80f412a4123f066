#include <tessera/COmxJpegEncoder.h>
#include <tessera/Diagnostics.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>

#include "common/Geometry.h"
#include "common/OmxAnswers.h"
#include "common/OmxEncoderSteps.h"

namespace {

constexpr unsigned int jpegQuality = 75;

/// Bytes of the padded picture, more than any frame where they do not fit into 32 bits.
std::uint64_t PaddedBytes(int bitsPerPixel, std::uint32_t width, std::uint32_t height) {
  constexpr std::uint64_t tooMany = std::uint64_t{1} << 32;
  const std::uint64_t pixels = std::uint64_t{width} * height;
  const std::uint64_t bytesPerPixel =
      bitsPerPixel < 8 ? 0 : static_cast<unsigned>(bitsPerPixel) / 8;
  return pixels >= tooMany ? tooMany : pixels * bytesPerPixel;
}

int PrintShortFrame(unsigned int frameSize, std::uint64_t needed) {
  std::printf("COmxJpegEncoder::Encode - frame of %u bytes, the input buffer takes %llu\n",
              frameSize, static_cast<unsigned long long>(needed));
  return 0;
}

/// Runs a caller-buffer encode into a new array and hands that over when it succeeds.
template <typename EncodeInto>
int EncodeIntoNewArray(std::uint64_t capacity, unsigned char** jpeg, unsigned int& jpegSize,
                       EncodeInto encodeInto) {
  std::unique_ptr<unsigned char[]> array(new unsigned char[static_cast<std::size_t>(capacity)]);
  unsigned int produced = 0;
  const int result = encodeInto(array.get(), static_cast<unsigned int>(capacity), produced);
  *jpeg = result != 0 ? array.release() : nullptr;
  jpegSize = result != 0 ? produced : 0;
  return result;
}

/// Whether an array of width x height x bytesPerPixel can be made and its size be told in 32 bits.
bool IsEncodableSize(std::uint32_t width, std::uint32_t height, unsigned int bytesPerPixel) {
  return width != 0 && height != 0 &&
         std::uint64_t{width} * height <= std::numeric_limits<std::uint32_t>::max() / bytesPerPixel;
}

/// The nearest size that an int holds to the magnitude of one.
int PositiveSize(int size) {
  constexpr std::uint32_t largest = std::numeric_limits<int>::max();
  const std::uint32_t magnitude = Magnitude(size);
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
  if (width <= 0 || height <= 0 || !IsEncodableSize(Magnitude(width), Magnitude(height), 2)) {
    std::printf("COmxJpegEncoder::EncodeYUYV- invalid input image size %dx%d\n", width, height);
    *jpeg = nullptr;
    jpegSize = 0;
    return 0;
  }
  return EncodeIntoNewArray(
      std::uint64_t{Magnitude(width)} * Magnitude(height) * 2, jpeg, jpegSize,
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
  if (!IsEncodableSize(Magnitude(width), Magnitude(height), 4)) {
    std::printf("COmxJpegEncoder::EncodeRGB32 - invalid input image size %dx%d\n", width, height);
    *jpeg = nullptr;
    jpegSize = 0;
    return 0;
  }
  return EncodeIntoNewArray(
      std::uint64_t{Magnitude(width)} * Magnitude(height) * 4, jpeg, jpegSize,
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
  OMX_COLOR_FORMATTYPE colorFormat = OMX_COLOR_FormatUnused;
  if (bitsPerPixel == 24) {
    // The component names its 24-bit words by this format, not by 24bitRGB888.
    colorFormat = OMX_COLOR_Format24bitARGB1887;
  } else if (bitsPerPixel == 32) {
    colorFormat = OMX_COLOR_Format32bitARGB8888;
  } else if (bitsPerPixel == 16) {
    colorFormat = OMX_COLOR_Format16bitRGB565;
  } else {
    std::printf("COmxJpegEncoder::EncodeRGB - invalid input image pixel depth %d\n",
                static_cast<int>(bitsPerPixel));
    return 0;
  }
  return Encode(frame, frameSize, colorFormat, static_cast<int>(bitsPerPixel), width, height, jpeg,
                jpegCapacity, jpegSize);
}

int COmxJpegEncoder::Encode(unsigned char* frame, unsigned int frameSize,
                            OMX_COLOR_FORMATTYPE colorFormat, int bitsPerPixel, int width,
                            int height, unsigned char* jpeg, unsigned int jpegCapacity,
                            unsigned int& jpegSize) {
  if (frame == nullptr || frameSize == 0) {
    std::puts("COmxJpegEncoder::Encode - invalid input buffer size or buffer pointer");
    return 0;
  }
  if (jpeg == nullptr || jpegCapacity == 0) {
    std::puts("COmxJpegEncoder::Encode - invalid output buffer or buffer size pointer");
    return 0;
  }
  // An answer that is still owed would be taken for the answer to a later request. A component that
  // is gone owes nothing.
  if (answerOwed) {
    ReleaseHardware();
    InitializeHardware();
  }
  if (hEncoder == nullptr) {
    std::puts("COmxJpegEncoder::Encode - encoder handle is empty");
    return 0;
  }
  if (nInputPort == 0 || nOutputPort == 0) {
    std::printf("COmxJpegEncoder::Encode - invalid value for port inp[%d] out[%d]\n",
                static_cast<int>(nInputPort), static_cast<int>(nOutputPort));
    return 0;
  }
  if (width <= 0 || height <= 0) {
    std::printf("COmxJpegEncoder::Encode- invalid input image size %dx%d\n", width, height);
    return 0;
  }
  const std::uint32_t paddedWidth = PaddedWidth(Magnitude(width));
  const std::uint32_t paddedHeight = PaddedHeight(Magnitude(height));
  const std::uint64_t needed = PaddedBytes(bitsPerPixel, paddedWidth, paddedHeight);
  if (frameSize < needed) return PrintShortFrame(frameSize, needed);

  if (!SetupInputPort(colorFormat, bitsPerPixel, static_cast<int>(paddedWidth),
                      static_cast<int>(paddedHeight))) {
    std::puts("COmxJpegEncoder::Encode - SetupInputPort failed");
    return 0;
  }
  if (!SetupOutputPort(static_cast<int>(paddedWidth), static_cast<int>(paddedHeight),
                       jpegQuality)) {
    std::puts("COmxJpegEncoder::Encode - SetupOutputPort failed");
    return 0;
  }
  if (!StartExecuting()) return 0;

  OMX_PARAM_PORTDEFINITIONTYPE definition;
  const OMX_ERRORTYPE error = ReadOmxPort(hEncoder, nInputPort, definition);
  if (error != OMX_ErrorNone) {
    PrintOmxError("COmxJpegEncoder::Encode::OMX_IndexParamPortDefinition::Input", error);
    return 0;
  }
  unsigned int produced = jpegSize;
  const int result = EncodePicture(frame, frameSize, jpeg, jpegCapacity, produced);
  if (!answerOwed) ReturnToIdle();
  if (answerOwed) return 0;
  jpegSize = produced;
  return result;
}

int COmxJpegEncoder::EncodePicture(const unsigned char* frame, unsigned int frameSize,
                                   unsigned char* jpeg, unsigned int jpegCapacity,
                                   unsigned int& jpegSize) {
  OMX_BUFFERHEADERTYPE& input = *pInputBuffer;
  // The component may have made its buffer longer than the picture.
  if (frameSize < input.nAllocLen) return PrintShortFrame(frameSize, input.nAllocLen);
  std::memcpy(input.pBuffer, frame, input.nAllocLen);
  input.nFilledLen = input.nAllocLen;
  input.nOffset = 0;
  input.nFlags = OMX_BUFFERFLAG_EOS;
  ForgetOmxAnswers(semOutputFilled);
  componentError = false;
  OMX_ERRORTYPE error = OMX_EmptyThisBuffer(hEncoder, &input);
  if (error != OMX_ErrorNone) {
    PrintOmxError("COmxJpegEncoder::Encode - signal new input buffer", error);
    return 0;
  }
  error = OMX_FillThisBuffer(hEncoder, pOutputBuffer);
  if (error != OMX_ErrorNone) {
    PrintOmxError("COmxJpegEncoder::Encode - failed to request filling", error);
    return 0;
  }
  if (!WaitForOutputBufferFilled()) {
    Unanswered("OMX_FillThisBuffer");
    return 0;
  }
  const OMX_BUFFERHEADERTYPE& output = *pOutputBuffer;
  if ((output.nFlags & OMX_BUFFERFLAG_ENDOFFRAME) == 0) return 0;
  if (output.nFilledLen == 0) {
    std::puts("COmxJpegEncoder::Encode - the component delivered no whole picture");
    return 0;
  }
  jpegSize = output.nFilledLen;
  if (jpegCapacity < output.nFilledLen) return 0;
  std::memcpy(jpeg, output.pBuffer, output.nFilledLen);
  return 1;
}

OMX_ERRORTYPE OmxEventsHandler(OMX_HANDLETYPE, OMX_PTR appData, OMX_EVENTTYPE event, OMX_U32 data1,
                               OMX_U32, OMX_PTR) {
  if (appData == nullptr)
    std::puts("OmxEventsHandler : nullptr of the COmxJpegEncoder object");
  else
    PassOmxEvent(*static_cast<COmxJpegEncoder*>(appData), event, data1, PrintOmxError);
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
