// A frame's way in, and its data's way out.

#include <cstdio>

#include "MMALH264Encoder/Steps.h"

namespace {

constexpr unsigned int keyFrameFlag = 1;

}  // namespace

CodecStatus CMmalH264Encoder::ProcessInput(unsigned char* frame, unsigned int frameSize,
                                           long long /*duration*/, long long /*timestamp*/) {
  if (frame == nullptr) {
    std::fprintf(stderr, "CMmalH264Encoder::ProcessInput - invalid input arguments [%p][%d]\n",
                 static_cast<void*>(frame), static_cast<int>(frameSize));
    return CodecInvalidArgument;
  }
  if (pComponent == nullptr || pInputPool == nullptr) {
    std::fprintf(stderr, "CMmalH264Encoder::ProcessInput - invalid state [%p] [%p]\n",
                 static_cast<void*>(pComponent), static_cast<void*>(pInputPool));
    return CodecInvalidState;
  }
  const common::ComponentReference reference(pComponent);
  const CodecStatus credit = Steps(*this).driver.TakeInputCredit("CMmalH264Encoder::ProcessInput");
  if (credit != CodecOk) return credit;

  // From here on the credit is ours: a frame that does not get away gives it back.
  common::HeaderOwner buffer(mmal_queue_get(pInputPool->queue));
  if (!buffer) {
    sem_post(&semInput);
    return CodecNoBuffer;
  }
  unsigned int length = 0;
  pfnCopyFrame(frame, frameSize, nWidth, nHeight, buffer->data, buffer->alloc_size, length);
  buffer->length = length;
  buffer->flags = MMAL_BUFFER_HEADER_FLAG_FRAME_START | MMAL_BUFFER_HEADER_FLAG_FRAME_END;
  buffer->pts = buffer->dts = MMAL_TIME_UNKNOWN;
  const MMAL_STATUS_T status = mmal_port_send_buffer(pComponent->input[0], buffer.get());
  if (status != MMAL_SUCCESS) {
    std::printf("CMmalH264Encoder::ProcessInput - send input buffer failed. Error code [0x%x]\n",
                static_cast<unsigned int>(status));
    buffer.reset();
    sem_post(&semInput);
    return CodecSendFailed;
  }
  common::HandOver(buffer);
  return CodecOk;
}

CodecStatus CMmalH264Encoder::ProcessOutput(unsigned char** data, unsigned int& size,
                                            unsigned int& flags) {
  flags = 0;
  if (data == nullptr) {
    std::fputs("CMmalH264Encoder::ProcessOutput - invalid input argument\n", stderr);
    return CodecInvalidArgument;
  }
  return common::CollectIntoNewArray(data, [&](common::OutputMemory& memory) {
    return Steps(*this).CollectOutput(memory, size, flags);
  });
}

CodecStatus CMmalH264Encoder::ProcessOutput(unsigned char* data, unsigned int capacity,
                                            unsigned int& size, unsigned int& flags) {
  flags = 0;
  if (data == nullptr || capacity == 0) {
    std::fprintf(stderr, "CMmalH264Encoder::ProcessOutput - invalid input parameters [%p][%d]\n",
                 static_cast<void*>(data), static_cast<int>(capacity));
    return CodecInvalidArgument;
  }
  common::OutputMemory memory(data, capacity);
  return Steps(*this).CollectOutput(memory, size, flags);
}

/// Waits for a buffer of the stream, copies it out and gives the component its buffers back.
CodecStatus CMmalH264Encoder::Steps::CollectOutput(common::OutputMemory& memory, unsigned int& size,
                                                   unsigned int& flags) {
  if (encoder.pComponent == nullptr || encoder.pOutputPool == nullptr ||
      encoder.pOutputQueue == nullptr) {
    std::fprintf(stderr, "CMmalH264Encoder::ProcessOutput - invalid state [%p] [%p][%p]\n",
                 static_cast<void*>(encoder.pComponent), static_cast<void*>(encoder.pOutputPool),
                 static_cast<void*>(encoder.pOutputQueue));
    return CodecInvalidState;
  }
  const common::ComponentReference reference(encoder.pComponent);
  CodecStatus status = driver.AwaitOutput("CMmalH264Encoder::ProcessOutput", true);
  if (status != CodecOk) return status;

  if (common::HeaderOwner buffer{mmal_queue_get(encoder.pOutputQueue)}) {
    status = common::CopyOut(*buffer, memory, size);
    if (status == CodecOk && (buffer->flags & MMAL_BUFFER_HEADER_FLAG_KEYFRAME))
      flags |= keyFrameFlag;
  } else {
    status = CodecNoBuffer;
  }
  common::SendFreeBuffers(encoder.pOutputPool, encoder.pComponent->output[0]);
  return status;
}
