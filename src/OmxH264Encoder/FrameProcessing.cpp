// A frame's way in, and its data's way out.

#include <cstdint>
#include <cstdio>
#include <new>

#include "OmxH264Encoder/PrivateErrorLine.h"
#include "OmxH264Encoder/Steps.h"
#include "common/Geometry.h"

namespace {

constexpr unsigned int keyFrameFlag = 1;

OMX_TICKS ToTicks(long long microseconds) {
  const auto bits = static_cast<std::uint64_t>(microseconds);
  OMX_TICKS ticks{};
  ticks.nLowPart = static_cast<OMX_U32>(bits);
  ticks.nHighPart = static_cast<OMX_U32>(bits >> 32);
  return ticks;
}

}  // namespace

CodecStatus COmxH264Encoder::ProcessInput(unsigned char* frame, unsigned int frameSize, long long,
                                          long long timestamp) {
  if (frame == nullptr) {
    std::fprintf(stderr, "COmxH264Encoder::ProcessInput - invalid input arguments [%p][%d]\n",
                 static_cast<void*>(frame), static_cast<int>(frameSize));
    return CodecInvalidArgument;
  }
  if (!bCreated) {
    std::fprintf(stderr, "COmxH264Encoder::ProcessInput - invalid state [%p] [%p]\n", hEncoder,
                 static_cast<void*>(pInputBuffer));
    return CodecInvalidState;
  }
  if (bInputAway && !WaitForInputBufferReturned()) {
    std::fprintf(stderr, "COmxH264Encoder::ProcessInput - the input buffer did not come back\n");
    return CodecTimeout;
  }
  bInputAway = false;
  Steps steps(*this, "COmxH264Encoder::ProcessInput");
  if (bOutputOwed) {
    const CodecStatus status = steps.DropOwedOutput();
    if (status != CodecOk) return status;
  }
  unsigned int filled = 0;
  // The fields keep the signs that Create was given; the copy must not take them for huge sizes.
  pfnCopyFrame(frame, frameSize, common::Magnitude(static_cast<std::int32_t>(nWidth)),
               common::Magnitude(static_cast<std::int32_t>(nHeight)), pInputBuffer->pBuffer,
               pInputBuffer->nAllocLen, filled);
  pInputBuffer->nFilledLen = filled;
  pInputBuffer->nOffset = 0;
  pInputBuffer->nTimeStamp = ToTicks(timestamp);
  pInputBuffer->nFlags = OMX_BUFFERFLAG_EOS | OMX_BUFFERFLAG_STARTTIME;
  steps.driver.Expect(semInputReturned);
  const OMX_ERRORTYPE error = OMX_EmptyThisBuffer(hEncoder, pInputBuffer);
  if (error != OMX_ErrorNone) {
    PrintOmxError("COmxH264Encoder::ProcessInput - signal new input buffer", error);
    return CodecSendFailed;
  }
  bInputAway = true;
  return CodecOk;
}

CodecStatus COmxH264Encoder::ProcessOutput(unsigned char** data, unsigned int& size,
                                           unsigned int& flags) {
  flags = 0;
  if (data == nullptr) {
    std::fprintf(stderr, "COmxH264Encoder::ProcessOutput - invalid input arguments [%p]\n",
                 static_cast<void*>(data));
    return CodecInvalidArgument;
  }
  return common::CollectIntoNewArray(data, [&](common::OutputMemory& memory) {
    return Steps(*this, "COmxH264Encoder::ProcessOutput").CollectOutput(memory, size, flags);
  });
}

CodecStatus COmxH264Encoder::ProcessOutput(unsigned char* data, unsigned int capacity,
                                           unsigned int& size, unsigned int& flags) {
  flags = 0;
  if (data == nullptr || capacity == 0) {
    std::fprintf(stderr, "COmxH264Encoder::ProcessOutput - invalid input arguments [%p] [%d]\n",
                 static_cast<void*>(data), static_cast<int>(capacity));
    return CodecInvalidArgument;
  }
  common::OutputMemory memory(data, capacity);
  return Steps(*this, "COmxH264Encoder::ProcessOutput").CollectOutput(memory, size, flags);
}

/// Waits for a buffer of the stream, copies it out and gives it back. Where there is no memory for
/// a new array, the data is kept.
CodecStatus COmxH264Encoder::Steps::CollectOutput(common::OutputMemory& memory, unsigned int& size,
                                                  unsigned int& flags) {
  CodecStatus status = AwaitOutput();
  if (status != CodecOk) return status;
  const OMX_BUFFERHEADERTYPE& buffer = *encoder.pOutputBuffer;
  status = memory.Take(buffer.pBuffer, buffer.nFilledLen);
  if (memory.Exhausted()) return status;
  size = buffer.nFilledLen;
  if (status == CodecOk && (buffer.nFlags & OMX_BUFFERFLAG_SYNCFRAME) != 0) flags |= keyFrameFlag;
  encoder.eOutput = Output::Here;
  RequestFill("COmxH264Encoder::ProcessOutput - OMX_FillThisBuffer failed");
  return status;
}

CodecStatus COmxH264Encoder::Steps::AwaitOutput() {
  if (!encoder.bCreated) {
    std::fprintf(stderr, "COmxH264Encoder::ProcessOutput - invalid state [%p] [%p]\n",
                 encoder.hEncoder, static_cast<void*>(encoder.pOutputBuffer));
    return CodecInvalidState;
  }
  if (encoder.eOutput == Output::Here &&
      RequestFill("COmxH264Encoder::ProcessOutput - OMX_FillThisBuffer failed") != OMX_ErrorNone)
    return CodecSendFailed;
  if (encoder.eOutput == Output::Component) {
    if (!encoder.WaitForOutputBufferFilled()) {
      std::fprintf(stderr, "COmxH264Encoder::ProcessOutput - the output buffer was not filled\n");
      encoder.bOutputOwed = true;
      return CodecTimeout;
    }
    encoder.eOutput = Output::Filled;
  }
  encoder.bOutputOwed = false;
  return CodecOk;
}

OMX_ERRORTYPE COmxH264Encoder::Steps::RequestFill(const char* label) {
  OMX_BUFFERHEADERTYPE& buffer = *encoder.pOutputBuffer;
  buffer.nFilledLen = 0;
  buffer.nOffset = 0;
  buffer.nFlags = 0;
  driver.Expect(encoder.semOutputFilled);
  const OMX_ERRORTYPE error = OMX_FillThisBuffer(encoder.hEncoder, &buffer);
  if (error != OMX_ErrorNone)
    PrintOmxError(label, error);
  else
    encoder.eOutput = Output::Component;
  return error;
}

/// Drops the output that a ProcessOutput gave up waiting for, so that it is not taken for the next
/// frame's. A flush brings the buffer back, filled by now or not.
CodecStatus COmxH264Encoder::Steps::DropOwedOutput() {
  if (!encoder.bFlushOwed) {
    if (!driver.Send(OMX_CommandFlush, encoder.nOutputPort, encoder.semFlushed,
                     "COmxH264Encoder::ProcessInput::OMX_CommandFlush::Output"))
      return CodecSendFailed;
    encoder.bFlushOwed = true;
  }
  if (encoder.WaitForFlush()) encoder.bFlushOwed = false;
  if (encoder.bFlushOwed || !encoder.WaitForOutputBufferFilled()) {
    std::fprintf(stderr, "COmxH264Encoder::ProcessInput - the late output did not come back\n");
    return CodecTimeout;
  }
  encoder.bOutputOwed = false;
  encoder.eOutput = Output::Here;
  RequestFill("COmxH264Encoder::ProcessInput - OMX_FillThisBuffer failed");
  return CodecOk;
}
