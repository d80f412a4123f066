// How a picture becomes a JPEG.

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "MMALJpegEncoder/Steps.h"
#include "common/Waits.h"

namespace {

/// A buffer that was refused is offered again after so long.
constexpr unsigned int retryMs = 10;
constexpr unsigned int retries = common::answerLimitMs / retryMs;

/// The waits of one request, all of which end together.
class AnswerWait {
 public:
  explicit AnswerWait(sem_t& semaphore) : semaphore_(semaphore), deadline_(common::answerLimitMs) {}

  /// Until the component has done something. @return false when the time is up
  bool ForEvent() { return Until(deadline_); }

  /// Likewise, but for retryMs at most: after a refusal there may be no event to come.
  bool ForRetry() { return Until(deadline_.Within(retryMs)); }

 private:
  bool Until(const common::SteadyDeadline& end) {
    if (deadline_.Passed()) return false;
    if (common::SteadyWait(semaphore_, end) != common::WaitResult::Failed) return true;
    // Where the clock or the semaphore does not work, it sleeps and counts.
    common::SleepMs(retryMs);
    return ++sleeps_ < retries;
  }

  sem_t& semaphore_;
  common::SteadyDeadline deadline_;
  unsigned int sleeps_ = 0;
};

}  // namespace

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
  if (!fits && !Initialize(encoding, width, height, common::defaultJpegQuality)) {
    std::puts("CMmalJpegEncoder::Encode - initialization failed");
    return 0;
  }
  Steps steps(*this);
  common::JpegMemory memory{jpeg, jpegCapacity, jpegSize};
  if (!steps.EncodePicture({frame, frameSize}, memory)) {
    // The component may still answer. It goes, so that no later request takes that answer for its
    // own.
    std::puts("CMmalJpegEncoder::Encode - timeout");
    steps.ReleaseSetup();
  }
  jpegSize = memory.size;
  return memory.whole;
}

/// @return false when the component did not answer in time
bool CMmalJpegEncoder::Steps::EncodePicture(const common::RawFrame& frame,
                                            common::JpegMemory& jpeg) {
  AnswerWait answer(encoder.semaphore);
  auto submission = Submission::NoBuffer;
  for (bool waiting = true; waiting;) {
    const bool fed = FeedOutput();
    if (submission != Submission::Sent) submission = SubmitFrame(frame);
    if (submission == Submission::Failed) return true;

    MMAL_BUFFER_HEADER_T* filled = nullptr;
    encoder.nLastStatus = mmal_wrapper_buffer_get_full(encoder.pOutputPort, &filled, 0);
    if (encoder.nLastStatus == MMAL_EAGAIN) {
      const bool refused = !fed || submission == Submission::Refused;
      waiting = refused ? answer.ForRetry() : answer.ForEvent();
    } else if (encoder.nLastStatus != MMAL_SUCCESS) {
      std::fputs("CMmalJpegEncoder::Encode - failed to get full buffer\n", stderr);
      std::exit(1);
    } else if (filled == nullptr) {
      waiting = answer.ForRetry();
    } else {
      encoder.pOutputBuffer = filled;
      const bool whole = (filled->flags & MMAL_BUFFER_HEADER_FLAG_EOS) != 0;
      if (whole) TakeJpeg(jpeg);
      mmal_buffer_header_release(filled);
      if (whole) return true;
    }
  }
  return false;
}

/// Hands every empty output buffer to the component. @return whether nothing was refused
bool CMmalJpegEncoder::Steps::FeedOutput() {
  for (;;) {
    MMAL_BUFFER_HEADER_T* empty = nullptr;
    const MMAL_STATUS_T status = mmal_wrapper_buffer_get_empty(encoder.pOutputPort, &empty, 0);
    if (status != MMAL_SUCCESS || empty == nullptr) return status == MMAL_EAGAIN;
    encoder.pOutputBuffer = empty;
    if (mmal_port_send_buffer(encoder.pOutputPort, empty) != MMAL_SUCCESS) {
      if (!refusalTold) std::fputs("CMmalJpegEncoder::Encode - failed to send buffer\n", stderr);
      refusalTold = true;
      mmal_buffer_header_release(empty);
      return false;
    }
  }
}

CMmalJpegEncoder::Steps::Submission CMmalJpegEncoder::Steps::SubmitFrame(
    const common::RawFrame& frame) {
  MMAL_BUFFER_HEADER_T* buffer = nullptr;
  const MMAL_STATUS_T status = mmal_wrapper_buffer_get_empty(encoder.pInputPort, &buffer, 0);
  if (status == MMAL_EAGAIN) return Submission::NoBuffer;
  if (status != MMAL_SUCCESS || buffer == nullptr) return Submission::Refused;
  encoder.pInputBuffer = buffer;
  if (frame.size > buffer->alloc_size) {
    std::printf("CMmalJpegEncoder::Encode - frame of %u bytes does not fit input buffer of %u\n",
                frame.size, static_cast<unsigned int>(buffer->alloc_size));
    mmal_buffer_header_release(buffer);
    return Submission::Failed;
  }
  std::memcpy(buffer->data, frame.data, frame.size);
  buffer->length = buffer->alloc_size;
  buffer->flags = MMAL_BUFFER_HEADER_FLAG_EOS;
  if (mmal_port_send_buffer(encoder.pInputPort, buffer) != MMAL_SUCCESS) {
    std::fputs("CMmalJpegEncoder::Encode - failed to send buffer\n", stderr);
    mmal_buffer_header_release(buffer);
    return Submission::Failed;
  }
  return Submission::Sent;
}

/// Copies the finished JPEG out of the output buffer.
void CMmalJpegEncoder::Steps::TakeJpeg(common::JpegMemory& jpeg) {
  const MMAL_BUFFER_HEADER_T& output = *encoder.pOutputBuffer;
  if (output.length == 0)
    std::puts("CMmalJpegEncoder::Encode - the component delivered no picture");
  else
    jpeg.Take(output.data, output.length);
}
