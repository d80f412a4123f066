#include <bcm_host.h>
#include <interface/mmal/util/mmal_util_params.h>
#include <tessera/CMmalJpegEncoder.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

#include "common/Geometry.h"
#include "common/Waits.h"

using namespace common;

namespace {

constexpr int encodeQuality = 75;
constexpr unsigned int retryMs = 10;
constexpr unsigned int retries = answerLimitMs / retryMs;

/// The waits of one request, all of which end together.
class AnswerWait {
 public:
  explicit AnswerWait(sem_t& semaphore) : semaphore_(semaphore), deadline_(answerLimitMs) {}

  /// Until the component has done something. @return false when the time is up
  bool forEvent() { return until(deadline_); }

  /// Likewise, but no longer than a moment: what was refused announces no event of its own.
  bool aLittle() { return until(deadline_.Within(retryMs)); }

 private:
  bool until(const SteadyDeadline& end) {
    if (deadline_.Passed()) return false;
    if (SteadyWait(semaphore_, end) != WaitResult::Failed) return true;
    // Without a clock or a semaphore that works the moments are counted.
    SleepMs(retryMs);
    return ++moments_ < retries;
  }

  sem_t& semaphore_;
  SteadyDeadline deadline_;
  unsigned int moments_ = 0;
};

/// The wrapper makes pool and payloads when it enables the port.
MMAL_STATUS_T EnablePort(MMAL_PORT_T* port) {
  port->buffer_size = port->buffer_size_recommended;
  port->buffer_num = port->buffer_num_recommended;
  return mmal_wrapper_port_enable(port, MMAL_WRAPPER_FLAG_PAYLOAD_ALLOCATE);
}

/// @return what failed, or null
const char* ConfigureInput(MMAL_PORT_T* port, unsigned int encoding, int width, int height) {
  if (port->is_enabled && mmal_wrapper_port_disable(port) != MMAL_SUCCESS)
    return "disable input port";
  port->format->encoding = encoding;
  MMAL_VIDEO_FORMAT_T& video = port->format->es->video;
  video.width = PaddedWidth(static_cast<std::uint32_t>(width));
  video.height = PaddedHeight(static_cast<std::uint32_t>(height));
  video.crop = {0, 0, width, height};
  if (mmal_port_format_commit(port) != MMAL_SUCCESS) return "commit input port format";
  return EnablePort(port) == MMAL_SUCCESS ? nullptr : "enable input port";
}

/// @return what failed, or null
const char* ConfigureOutput(MMAL_PORT_T* port, int quality) {
  if (port->is_enabled && mmal_wrapper_port_disable(port) != MMAL_SUCCESS)
    return "disable output port";
  port->format->encoding = MMAL_ENCODING_JPEG;
  if (mmal_port_format_commit(port) != MMAL_SUCCESS) return "commit output port format";
  mmal_port_parameter_set_uint32(port, MMAL_PARAMETER_JPEG_Q_FACTOR,
                                 static_cast<std::uint32_t>(quality));
  return EnablePort(port) == MMAL_SUCCESS ? nullptr : "enable output port";
}

/// Capacity of an array for the JPEG of a picture, as far as the interface can express it.
unsigned int ArrayCapacity(int width, int height, unsigned int bytesPerPixel) {
  const std::uint64_t pixels = std::uint64_t{Magnitude(width)} * Magnitude(height);
  constexpr std::uint64_t most = std::numeric_limits<unsigned int>::max();
  return static_cast<unsigned int>(std::min(most, std::min(most, pixels) * bytesPerPixel));
}

using Array = std::unique_ptr<unsigned char[]>;

/// Ends an allocating overload: the array goes to the caller, or away.
int HandOut(int result, Array array, unsigned int size, unsigned char** jpeg,
            unsigned int& jpegSize) {
  *jpeg = result ? array.release() : nullptr;
  jpegSize = result ? size : 0;
  return result;
}

}  // namespace

enum class CMmalJpegEncoder::Submission {
  Sent,
  NoBuffer,  ///< the component has it; it announces its return
  Refused,   ///< the wrapper did not answer: no event to be expected
  Failed,
};

void MMALEncoderCallback(MMAL_WRAPPER_T* wrapper) {
  auto* encoder = static_cast<CMmalJpegEncoder*>(wrapper->user_data);
  if (encoder != nullptr) sem_post(&encoder->semaphore);
}

CMmalJpegEncoder::CMmalJpegEncoder() {
  bcm_host_init();
}

CMmalJpegEncoder::~CMmalJpegEncoder() {
  if (pWrapper != nullptr) ReleaseSetup();
}

int CMmalJpegEncoder::EncodeYUYV(unsigned char* frame, unsigned int frameSize, int width,
                                 int height, unsigned char** jpeg, unsigned int& jpegSize) {
  if (jpeg == nullptr) {
    std::puts("CMmalJpegEncoder::EncodeYUYV - invalid output buffer pointer");
    return 0;
  }
  const unsigned int capacity = ArrayCapacity(width, height, 2);
  Array array(new unsigned char[capacity]);
  unsigned int size = 0;
  const int result = EncodeYUYV(frame, frameSize, width, height, array.get(), capacity, size);
  return HandOut(result, std::move(array), size, jpeg, jpegSize);
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
  const unsigned int capacity = ArrayCapacity(width, height, 4);
  Array array(new unsigned char[capacity]);
  unsigned int size = 0;
  const int result = EncodeRGB32(frame, frameSize, static_cast<int>(Magnitude(width)),
                                 static_cast<int>(Magnitude(height)), array.get(), capacity, size);
  return HandOut(result, std::move(array), size, jpeg, jpegSize);
}

int CMmalJpegEncoder::EncodeRGB32(unsigned char* frame, unsigned int frameSize, int width,
                                  int height, unsigned char* jpeg, unsigned int jpegCapacity,
                                  unsigned int& jpegSize) {
  return EncodeRGB(frame, frameSize, 32, static_cast<int>(Magnitude(width)),
                   static_cast<int>(Magnitude(height)), jpeg, jpegCapacity, jpegSize);
}

int CMmalJpegEncoder::EncodeRGB(unsigned char* frame, unsigned int frameSize,
                                unsigned int bitsPerPixel, int width, int height,
                                unsigned char* jpeg, unsigned int jpegCapacity,
                                unsigned int& jpegSize) {
  unsigned int encoding = 0;
  switch (bitsPerPixel) {
    case 24:
      encoding = MMAL_ENCODING_RGB24;
      break;
    case 32:
      encoding = MMAL_ENCODING_RGBA;
      break;
    case 16:
      encoding = MMAL_ENCODING_RGB16;
      break;
    default:
      std::printf("CMmalJpegEncoder::EncodeRGB - invalid input image pixel depth %d\n",
                  static_cast<int>(bitsPerPixel));
      return 0;
  }
  return Encode(frame, frameSize, encoding, width, height, jpeg, jpegCapacity, jpegSize);
}

int CMmalJpegEncoder::Encode(unsigned char* frame, unsigned int frameSize, unsigned int encoding,
                             int width, int height, unsigned char* jpeg, unsigned int jpegCapacity,
                             unsigned int& jpegSize) {
  if (frame == nullptr || frameSize == 0) {
    std::puts("CMmalJpegEncoder::Encode - invalid input buffer pointer or buffer size");
    return 0;
  }
  if (jpeg == nullptr || jpegCapacity == 0) {
    std::puts("CMmalJpegEncoder::Encode - invalid output buffer pointer or buffer size");
    return 0;
  }
  const bool fits = pWrapper != nullptr && width == nWidth && height == nHeight;
  if (!fits && !Initialize(encoding, width, height, encodeQuality)) {
    std::puts("CMmalJpegEncoder::Encode - initialization failed");
    return 0;
  }

  AnswerWait answer(semaphore);
  auto submission = Submission::NoBuffer;
  bool refusalTold = false;
  for (bool waiting = true; waiting;) {
    const bool fed = FeedOutput(refusalTold);
    if (submission != Submission::Sent) submission = SubmitFrame(frame, frameSize);
    if (submission == Submission::Failed) return 0;

    MMAL_BUFFER_HEADER_T* filled = nullptr;
    nLastStatus = mmal_wrapper_buffer_get_full(pOutputPort, &filled, 0);
    if (nLastStatus == MMAL_EAGAIN) {
      const bool refused = !fed || submission == Submission::Refused;
      waiting = refused ? answer.aLittle() : answer.forEvent();
    } else if (nLastStatus != MMAL_SUCCESS) {
      std::fputs("CMmalJpegEncoder::Encode - failed to get full buffer\n", stderr);
      std::exit(1);
    } else if (filled == nullptr) {
      waiting = answer.aLittle();
    } else {
      pOutputBuffer = filled;
      if (filled->flags & MMAL_BUFFER_HEADER_FLAG_EOS)
        return TakeJpeg(jpeg, jpegCapacity, jpegSize);
      mmal_buffer_header_release(filled);
    }
  }
  // The component may still answer. It goes, so that no later request takes that answer for its
  // own.
  std::puts("CMmalJpegEncoder::Encode - timeout");
  ReleaseSetup();
  return 0;
}

int CMmalJpegEncoder::Initialize(unsigned int encoding, int width, int height, int quality) {
  if (pWrapper != nullptr) ReleaseSetup();
  if (sem_init(&semaphore, 0, 0) != 0) {
    std::fputs("CMmalJpegEncoder::Initialize - failed to create semaphore\n", stderr);
    return 0;
  }
  MMAL_WRAPPER_T* wrapper = nullptr;
  if (mmal_wrapper_create(&wrapper, "vc.ril.image_encode") != MMAL_SUCCESS || wrapper == nullptr) {
    std::fputs("CMmalJpegEncoder::Initialize - failed to create mmal component\n", stderr);
    sem_destroy(&semaphore);
    return 0;
  }
  pWrapper = wrapper;
  pWrapper->callback = MMALEncoderCallback;
  pWrapper->user_data = this;
  pInputPort = pWrapper->input[0];
  pWrapper->status = MMAL_SUCCESS;

  const char* failed = ConfigureInput(pInputPort, encoding, width, height);
  if (failed == nullptr) {
    pOutputPort = pWrapper->output[0];
    failed = ConfigureOutput(pOutputPort, quality);
  }
  if (failed != nullptr) {
    std::fprintf(stderr, "CMmalJpegEncoder::Initialize - failed to %s\n", failed);
    DestroyWrapper();
    return 0;
  }
  nWidth = width;
  nHeight = height;
  return 1;
}

void CMmalJpegEncoder::ReleaseSetup() {
  mmal_port_flush(pOutputPort);
  DestroyWrapper();
}

void CMmalJpegEncoder::DestroyWrapper() {
  mmal_wrapper_destroy(pWrapper);
  pWrapper = nullptr;
  pInputPort = pOutputPort = nullptr;
  pInputBuffer = pOutputBuffer = nullptr;
  sem_destroy(&semaphore);
}

/// Hands every empty output buffer to the component. A request tells of its first refusal only.
/// @return whether nothing was refused
bool CMmalJpegEncoder::FeedOutput(bool& refusalTold) {
  for (;;) {
    MMAL_BUFFER_HEADER_T* empty = nullptr;
    const MMAL_STATUS_T status = mmal_wrapper_buffer_get_empty(pOutputPort, &empty, 0);
    if (status != MMAL_SUCCESS || empty == nullptr) return status == MMAL_EAGAIN;
    pOutputBuffer = empty;
    if (mmal_port_send_buffer(pOutputPort, empty) != MMAL_SUCCESS) {
      if (!refusalTold) std::fputs("CMmalJpegEncoder::Encode - failed to send buffer\n", stderr);
      refusalTold = true;
      mmal_buffer_header_release(empty);
      return false;
    }
  }
}

CMmalJpegEncoder::Submission CMmalJpegEncoder::SubmitFrame(const unsigned char* frame,
                                                           unsigned int frameSize) {
  MMAL_BUFFER_HEADER_T* buffer = nullptr;
  const MMAL_STATUS_T status = mmal_wrapper_buffer_get_empty(pInputPort, &buffer, 0);
  if (status == MMAL_EAGAIN) return Submission::NoBuffer;
  if (status != MMAL_SUCCESS || buffer == nullptr) return Submission::Refused;
  pInputBuffer = buffer;
  if (frameSize > buffer->alloc_size) {
    std::printf("CMmalJpegEncoder::Encode - frame of %u bytes does not fit input buffer of %u\n",
                frameSize, static_cast<unsigned int>(buffer->alloc_size));
    mmal_buffer_header_release(buffer);
    return Submission::Failed;
  }
  std::memcpy(buffer->data, frame, frameSize);
  buffer->length = buffer->alloc_size;
  buffer->flags = MMAL_BUFFER_HEADER_FLAG_EOS;
  if (mmal_port_send_buffer(pInputPort, buffer) != MMAL_SUCCESS) {
    std::fputs("CMmalJpegEncoder::Encode - failed to send buffer\n", stderr);
    mmal_buffer_header_release(buffer);
    return Submission::Failed;
  }
  return Submission::Sent;
}

/// Copies the finished JPEG out of the output buffer and gives that back.
int CMmalJpegEncoder::TakeJpeg(unsigned char* jpeg, unsigned int jpegCapacity,
                               unsigned int& jpegSize) {
  const unsigned int length = pOutputBuffer->length;
  const bool whole = length != 0 && length <= jpegCapacity;
  if (length == 0)
    std::puts("CMmalJpegEncoder::Encode - the component delivered no picture");
  else
    jpegSize = length;
  if (whole) std::memcpy(jpeg, pOutputBuffer->data, length);
  mmal_buffer_header_release(pOutputBuffer);
  return whole ? 1 : 0;
}
