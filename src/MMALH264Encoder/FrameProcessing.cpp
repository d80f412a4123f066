#include <tessera/CMmalH264Encoder.h>

#include <cstdio>
#include <new>

#include "common/MmalGuards.h"
#include "common/OutputMemory.h"
#include "common/Waits.h"

using namespace common;

namespace {

constexpr unsigned int inputLimitMs = 1000;
constexpr unsigned int outputLimitMs = 100;
constexpr unsigned int waitFailed = 4;
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
  const ComponentReference reference(pComponent);
  const WaitResult waited = TimedWait(semInput, inputLimitMs);
  if (waited == WaitResult::TimedOut) {
    std::puts("CMmalH264Encoder::ProcessInput - timeout");
    return CodecTimeout;
  }
  if (waited == WaitResult::Failed) {
    std::printf("CMmalH264Encoder::ProcessInput - wait failed [0x%x]\n", waitFailed);
    return CodecWaitFailed;
  }

  // From here on the credit is ours: a frame that does not get away gives it back.
  HeaderOwner buffer(mmal_queue_get(pInputPool->queue));
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
  HandOver(buffer);
  return CodecOk;
}

CodecStatus CMmalH264Encoder::ProcessOutput(unsigned char** data, unsigned int& size,
                                            unsigned int& flags) {
  flags = 0;
  if (data == nullptr) {
    std::fputs("CMmalH264Encoder::ProcessOutput - invalid input argument\n", stderr);
    return CodecInvalidArgument;
  }
  OutputMemory memory;
  const CodecStatus status = CollectOutput(memory, size, flags);
  if (memory.Exhausted()) throw std::bad_alloc();
  if (status == CodecOk) *data = memory.ReleaseArray();
  return status;
}

CodecStatus CMmalH264Encoder::ProcessOutput(unsigned char* data, unsigned int capacity,
                                            unsigned int& size, unsigned int& flags) {
  flags = 0;
  if (data == nullptr || capacity == 0) {
    std::fprintf(stderr, "CMmalH264Encoder::ProcessOutput - invalid input parameters [%p][%d]\n",
                 static_cast<void*>(data), static_cast<int>(capacity));
    return CodecInvalidArgument;
  }
  OutputMemory memory(data, capacity);
  return CollectOutput(memory, size, flags);
}

/// Waits for a buffer of the stream, copies it out and gives the component its buffers back.
CodecStatus CMmalH264Encoder::CollectOutput(OutputMemory& memory, unsigned int& size,
                                            unsigned int& flags) {
  if (pComponent == nullptr || pOutputPool == nullptr || pOutputQueue == nullptr) {
    std::fprintf(stderr, "CMmalH264Encoder::ProcessOutput - invalid state [%p] [%p][%p]\n",
                 static_cast<void*>(pComponent), static_cast<void*>(pOutputPool),
                 static_cast<void*>(pOutputQueue));
    return CodecInvalidState;
  }
  const ComponentReference reference(pComponent);
  const WaitResult waited = TimedWait(semOutput, outputLimitMs);
  if (waited == WaitResult::TimedOut) {
    std::puts("CMmalH264Encoder::ProcessOutput - timeout");
    return CodecTimeout;
  }
  if (waited == WaitResult::Failed) {
    std::printf("CMmalH264Encoder::ProcessOutput - wait failed [0x%x]\n", waitFailed);
    return CodecWaitFailed;
  }

  CodecStatus status = CodecNoBuffer;
  if (HeaderOwner buffer{mmal_queue_get(pOutputQueue)}) {
    status = memory.Take(buffer->data, buffer->length) == CodecOk ? CodecOk : CodecBufferTooSmall;
    if (!memory.Exhausted()) size = buffer->length;
    if (status == CodecOk && (buffer->flags & MMAL_BUFFER_HEADER_FLAG_KEYFRAME))
      flags |= keyFrameFlag;
  }
  SendFreeBuffers(pOutputPool, pComponent->output[0]);
  return status;
}
