#include <tessera/CMmalH264Decoder.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>

#include "common/MmalGuards.h"
#include "common/OutputMemory.h"
#include "common/Waits.h"

using namespace common;

namespace {

constexpr unsigned int inputLimitMs = 1000;
constexpr unsigned int outputLimitMs = 100;
constexpr unsigned int waitFailed = 4;
constexpr unsigned int decodeOnlyFlag = 1;

/// Milliseconds with 0 for none to the platform's microseconds.
std::int64_t ToPts(unsigned long long timestamp) {
  return timestamp == 0 ? MMAL_TIME_UNKNOWN : static_cast<std::int64_t>(timestamp * 1000);
}

unsigned long long FromPts(std::int64_t pts) {
  return pts == MMAL_TIME_UNKNOWN ? 0 : static_cast<unsigned long long>(pts / 1000);
}

}  // namespace

/// What is left of a ProcessInput's data, and how the next buffer of it is marked.
struct CMmalH264Decoder::Piece {
  const unsigned char* data;
  unsigned int size;
  int width;
  int height;
  unsigned int sent;
  std::uint32_t frameFlags;
  bool decodeOnly;
  std::int64_t pts;
  CodecStatus status;
};

CodecStatus CMmalH264Decoder::ProcessInput(unsigned char* data, unsigned int size, int width,
                                           int height, unsigned int flags,
                                           unsigned long long timestamp) {
  if (data == nullptr) {
    std::fprintf(stderr, "CMmalH264Decoder::ProcessInput - invalid input arguments [%p][%d]\n",
                 static_cast<void*>(data), static_cast<int>(size));
    return CodecInvalidArgument;
  }
  MMAL_COMPONENT_T* component = nullptr;
  {
    const std::lock_guard<std::mutex> guard(lock);
    if (!FitsStream(width, height)) return CodecStreamMismatch;
    if (pComponent == nullptr || pInputPool == nullptr) {
      std::fprintf(stderr, "CMmalH264Decoder::ProcessInput - invalid state [%p] [%p]\n",
                   static_cast<void*>(pComponent), static_cast<void*>(pInputPool));
      return CodecInvalidState;
    }
    component = pComponent;
  }
  const ComponentReference reference(component);
  Piece piece{data,
              size,
              width,
              height,
              0,
              MMAL_BUFFER_HEADER_FLAG_FRAME_START,
              (flags & decodeOnlyFlag) != 0,
              ToPts(timestamp),
              CodecNoBuffer};
  while (piece.sent < size) {
    const WaitResult waited = TimedWait(semInput, inputLimitMs);
    if (waited == WaitResult::TimedOut) {
      std::puts("CMmalH264Decoder::ProcessInput - timeout");
      return CodecTimeout;
    }
    if (waited == WaitResult::Failed) {
      std::printf("CMmalH264Decoder::ProcessInput - wait failed [0x%x]\n", waitFailed);
      return CodecWaitFailed;
    }
    if (!SendPiece(piece)) return CodecStreamMismatch;
  }
  return piece.status;
}

/// Whether data of that size is what the decoder is set up for. The lock is held.
bool CMmalH264Decoder::FitsStream(int width, int height) const {
  if (width == nStreamWidth && height == nStreamHeight) return true;
  std::fprintf(stderr,
               "CMmalH264Decoder::ProcessInput - invalid stream setup input[%dx%d] "
               "decoder[%dx%d]. Use Create callback.\n",
               width, height, nStreamWidth, nStreamHeight);
  return false;
}

/// Sends as much of the data as one buffer of the input pool takes; nothing when there is none.
/// @return false when the decoder has been set up for another stream since the data came
bool CMmalH264Decoder::SendPiece(Piece& piece) {
  const std::lock_guard<std::mutex> guard(lock);
  if (!FitsStream(piece.width, piece.height)) {
    sem_post(&semInput);
    return false;
  }
  if (pInputPool == nullptr) {
    std::puts("CMmalH264Decoder::ProcessInput - no buffer available for input frame.");
    return true;
  }
  HeaderOwner buffer(mmal_queue_get(pInputPool->queue));
  if (!buffer) return true;

  unsigned int chunk = piece.size - piece.sent;
  if (buffer->alloc_size >= chunk) {
    piece.frameFlags |= MMAL_BUFFER_HEADER_FLAG_FRAME_END;
  } else {
    std::printf(
        "CMmalH264Decoder::ProcessInput - input image buffer [%d] is bigger than input mmal "
        "buffer[%d]\n",
        static_cast<int>(piece.size), static_cast<int>(buffer->alloc_size));
    chunk = buffer->alloc_size;
  }
  if (piece.decodeOnly) piece.frameFlags |= MMAL_BUFFER_HEADER_FLAG_DECODEONLY;
  std::memcpy(buffer->data, piece.data + piece.sent, chunk);
  piece.sent += chunk;
  buffer->length = chunk;
  buffer->dts = MMAL_TIME_UNKNOWN;
  buffer->pts = piece.pts;
  buffer->flags = piece.frameFlags;
  piece.frameFlags = 0;

  const MMAL_STATUS_T status = mmal_port_send_buffer(pComponent->input[0], buffer.get());
  if (status == MMAL_SUCCESS) {
    HandOver(buffer);
    piece.status = CodecOk;
    return true;
  }
  std::printf("CMmalH264Decoder::ProcessInput - send input buffer failed. Error code [0x%x]\n",
              static_cast<unsigned int>(status));
  piece.status = CodecSendFailed;
  // No callback will give back what this buffer took.
  buffer.reset();
  sem_post(&semInput);
  return true;
}

CodecStatus CMmalH264Decoder::ProcessOutput(unsigned char** frame, unsigned int& size,
                                            unsigned int& width, unsigned int& height,
                                            unsigned long long& timestamp) {
  width = height = 0;
  timestamp = 0;
  if (frame == nullptr) {
    std::fputs("CMmalH264Decoder::ProcessOutput - invalid input argument\n", stderr);
    return CodecInvalidArgument;
  }
  OutputMemory memory;
  const CodecStatus status = CollectPicture(memory, size, width, height, timestamp);
  if (memory.Exhausted()) throw std::bad_alloc();
  if (status == CodecOk) *frame = memory.ReleaseArray();
  return status;
}

CodecStatus CMmalH264Decoder::ProcessOutput(unsigned char* frame, unsigned int capacity,
                                            unsigned int& size, unsigned int& width,
                                            unsigned int& height, unsigned long long& timestamp) {
  width = height = 0;
  timestamp = 0;
  if (frame == nullptr || capacity == 0) {
    std::fprintf(stderr, "CMmalH264Decoder::ProcessOutput - invalid input parameters [%p][%d]\n",
                 static_cast<void*>(frame), static_cast<int>(capacity));
    return CodecInvalidArgument;
  }
  OutputMemory memory(frame, capacity);
  return CollectPicture(memory, size, width, height, timestamp);
}

/// Waits for a picture, copies it out and gives the component its buffers back.
CodecStatus CMmalH264Decoder::CollectPicture(OutputMemory& memory, unsigned int& size,
                                             unsigned int& width, unsigned int& height,
                                             unsigned long long& timestamp) {
  MMAL_COMPONENT_T* component = nullptr;
  {
    const std::lock_guard<std::mutex> guard(lock);
    if (pComponent == nullptr || pOutputPool == nullptr || pFrameQueue == nullptr) {
      std::fprintf(stderr, "CMmalH264Decoder::ProcessOutput - invalid state [%p] [%p][%p]\n",
                   static_cast<void*>(pComponent), static_cast<void*>(pOutputPool),
                   static_cast<void*>(pFrameQueue));
      return CodecInvalidState;
    }
    component = pComponent;
  }
  const ComponentReference reference(component);
  const WaitResult waited = TimedWait(semOutput, outputLimitMs);
  if (waited == WaitResult::TimedOut) return CodecTimeout;
  if (waited == WaitResult::Failed) {
    std::printf("CMmalH264Decoder::ProcessOutput - wait failed [0x%x]\n", waitFailed);
    return CodecWaitFailed;
  }

  // Keeps Create from destroying the picture's pool, without keeping a feeding thread waiting.
  const std::lock_guard<std::mutex> picture(pictureLock);
  HeaderOwner buffer;
  unsigned int pictureWidth = 0;
  unsigned int pictureHeight = 0;
  {
    const std::lock_guard<std::mutex> guard(lock);
    if (pFrameQueue != nullptr) buffer.reset(mmal_queue_get(pFrameQueue));
    pictureWidth = nPictureWidth;
    pictureHeight = nPictureHeight;
  }
  CodecStatus status = CodecNoBuffer;
  if (buffer) {
    const bool taken = memory.Take(buffer->data, buffer->length) == CodecOk;
    status = taken ? CodecOk : CodecBufferTooSmall;
    if (!memory.Exhausted()) size = buffer->length;
    if (taken) {
      width = pictureWidth;
      height = pictureHeight;
      timestamp = FromPts(buffer->pts);
    }
    buffer.reset();
  }
  const std::lock_guard<std::mutex> guard(lock);
  if (pOutputPool != nullptr) SendFreeBuffers(pOutputPool, component->output[0]);
  return status;
}
