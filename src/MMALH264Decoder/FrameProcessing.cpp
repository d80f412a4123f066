// A stream's way in, and its pictures' way out.

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "MMALH264Decoder/Steps.h"

namespace {

constexpr unsigned int decodeOnlyFlag = 1;

/// From milliseconds, with 0 for none, to the platform's microseconds.
std::int64_t ToPts(unsigned long long timestamp) {
  return timestamp == 0 ? MMAL_TIME_UNKNOWN : static_cast<std::int64_t>(timestamp * 1000);
}

unsigned long long FromPts(std::int64_t pts) {
  return pts == MMAL_TIME_UNKNOWN ? 0 : static_cast<unsigned long long>(pts / 1000);
}

}  // namespace

CodecStatus CMmalH264Decoder::ProcessInput(unsigned char* data, unsigned int size, int width,
                                           int height, unsigned int flags,
                                           unsigned long long timestamp) {
  if (data == nullptr) {
    std::fprintf(stderr, "CMmalH264Decoder::ProcessInput - invalid input arguments [%p][%d]\n",
                 static_cast<void*>(data), static_cast<int>(size));
    return CodecInvalidArgument;
  }
  Steps steps(*this);
  MMAL_COMPONENT_T* component = nullptr;
  {
    const std::lock_guard<std::mutex> guard(lock);
    if (!steps.FitsStream(width, height)) return CodecStreamMismatch;
    if (pComponent == nullptr || pInputPool == nullptr) {
      std::fprintf(stderr, "CMmalH264Decoder::ProcessInput - invalid state [%p] [%p]\n",
                   static_cast<void*>(pComponent), static_cast<void*>(pInputPool));
      return CodecInvalidState;
    }
    component = pComponent;
  }
  const common::ComponentReference reference(component);
  Steps::Input input{data, size, width, height, (flags & decodeOnlyFlag) != 0, ToPts(timestamp)};
  while (input.sent < size) {
    const CodecStatus credit = steps.driver.TakeInputCredit("CMmalH264Decoder::ProcessInput");
    if (credit != CodecOk) return credit;
    if (!steps.SendPiece(input)) return CodecStreamMismatch;
  }
  return input.status;
}

bool CMmalH264Decoder::Steps::FitsStream(int width, int height) const {
  if (width == decoder.nStreamWidth && height == decoder.nStreamHeight) return true;
  std::fprintf(stderr,
               "CMmalH264Decoder::ProcessInput - invalid stream setup input[%dx%d] "
               "decoder[%dx%d]. Use Create callback.\n",
               width, height, decoder.nStreamWidth, decoder.nStreamHeight);
  return false;
}

/// Sends as much of the data as one buffer of the input pool takes. Without a buffer it sends
/// nothing, and the credit is spent.
/// @return false when the decoder has been set up for another stream since the data came
bool CMmalH264Decoder::Steps::SendPiece(Input& input) {
  const std::lock_guard<std::mutex> guard(decoder.lock);
  if (!FitsStream(input.width, input.height)) {
    sem_post(&decoder.semInput);
    return false;
  }
  if (decoder.pInputPool == nullptr) {
    std::puts("CMmalH264Decoder::ProcessInput - no buffer available for input frame.");
    return true;
  }
  common::HeaderOwner buffer(mmal_queue_get(decoder.pInputPool->queue));
  if (!buffer) return true;

  unsigned int chunk = input.size - input.sent;
  if (buffer->alloc_size >= chunk) {
    input.frameFlags |= MMAL_BUFFER_HEADER_FLAG_FRAME_END;
  } else {
    std::printf(
        "CMmalH264Decoder::ProcessInput - input image buffer [%d] is bigger than input mmal "
        "buffer[%d]\n",
        static_cast<int>(input.size), static_cast<int>(buffer->alloc_size));
    chunk = buffer->alloc_size;
  }
  if (input.decodeOnly) input.frameFlags |= MMAL_BUFFER_HEADER_FLAG_DECODEONLY;
  std::memcpy(buffer->data, input.data + input.sent, chunk);
  input.sent += chunk;
  buffer->length = chunk;
  buffer->dts = MMAL_TIME_UNKNOWN;
  buffer->pts = input.pts;
  buffer->flags = input.frameFlags;
  input.frameFlags = 0;

  const MMAL_STATUS_T status = mmal_port_send_buffer(decoder.pComponent->input[0], buffer.get());
  if (status == MMAL_SUCCESS) {
    common::HandOver(buffer);
    input.status = CodecOk;
    return true;
  }
  std::printf("CMmalH264Decoder::ProcessInput - send input buffer failed. Error code [0x%x]\n",
              static_cast<unsigned int>(status));
  input.status = CodecSendFailed;
  // No callback will give back what this buffer took.
  buffer.reset();
  sem_post(&decoder.semInput);
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
  return common::CollectIntoNewArray(frame, [&](common::OutputMemory& memory) {
    return Steps(*this).CollectPicture(memory, {size, width, height, timestamp});
  });
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
  common::OutputMemory memory(frame, capacity);
  return Steps(*this).CollectPicture(memory, {size, width, height, timestamp});
}

/// Waits for a picture, copies it out and gives the component its buffers back.
CodecStatus CMmalH264Decoder::Steps::CollectPicture(common::OutputMemory& memory,
                                                    const Picture& picture) {
  MMAL_COMPONENT_T* component = nullptr;
  {
    const std::lock_guard<std::mutex> guard(decoder.lock);
    if (decoder.pComponent == nullptr || decoder.pOutputPool == nullptr ||
        decoder.pFrameQueue == nullptr) {
      std::fprintf(stderr, "CMmalH264Decoder::ProcessOutput - invalid state [%p] [%p][%p]\n",
                   static_cast<void*>(decoder.pComponent), static_cast<void*>(decoder.pOutputPool),
                   static_cast<void*>(decoder.pFrameQueue));
      return CodecInvalidState;
    }
    component = decoder.pComponent;
  }
  const common::ComponentReference reference(component);
  CodecStatus status = driver.AwaitOutput("CMmalH264Decoder::ProcessOutput", false);
  if (status != CodecOk) return status;

  // Keeps Create from destroying the picture's pool, without keeping a feeding thread waiting.
  const std::lock_guard<std::mutex> noCreate(decoder.pictureLock);
  common::HeaderOwner buffer;
  unsigned int width = 0;
  unsigned int height = 0;
  {
    const std::lock_guard<std::mutex> guard(decoder.lock);
    if (decoder.pFrameQueue != nullptr) buffer.reset(mmal_queue_get(decoder.pFrameQueue));
    width = decoder.nPictureWidth;
    height = decoder.nPictureHeight;
  }
  status = buffer ? common::CopyOut(*buffer, memory, picture.size) : CodecNoBuffer;
  if (status == CodecOk) {
    picture.width = width;
    picture.height = height;
    picture.timestamp = FromPts(buffer->pts);
  }
  buffer.reset();
  const std::lock_guard<std::mutex> guard(decoder.lock);
  if (decoder.pOutputPool != nullptr)
    common::SendFreeBuffers(decoder.pOutputPool, component->output[0]);
  return status;
}
