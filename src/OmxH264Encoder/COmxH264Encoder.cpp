#include <tessera/COmxH264Encoder.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "OmxH264Encoder/PrivateErrorLine.h"
#include "common/Geometry.h"
#include "common/OmxAnswers.h"
#include "common/OmxEncoderSteps.h"

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

bool COmxH264Encoder::Create(unsigned int pixelFormat, int width, int height,
                             unsigned int frameRateNum, unsigned int frameRateDen,
                             unsigned int aspectNum, unsigned int aspectDen, unsigned int bitrate) {
  // The steps below start from Loaded and from a component that owes no answer.
  if (tried) {
    ReleaseHardware();
    InitializeHardware();
    tried = true;  // also when it could not be had: the next call asks for it again
  }
  if (hEncoder == nullptr) {
    std::fprintf(stderr, "COmxH264Encoder::Create - invalid state of encoder object.\n");
    return false;
  }
  tried = true;
  OMX_ERRORTYPE error = SetInputFormat(hEncoder, pixelFormat, PaddedWidth(Magnitude(width)),
                                       PaddedHeight(Magnitude(height)), frameRateNum, frameRateDen,
                                       aspectNum, aspectDen);
  if (error != OMX_ErrorNone) {
    std::fprintf(stderr, "COmxH264Encoder::Create - SetInputFormat failed with 0x%x\n",
                 static_cast<unsigned int>(error));
    return false;
  }
  error = SetOutputFormat(hEncoder, bitrate);
  if (error != OMX_ErrorNone) {
    std::fprintf(stderr, "COmxH264Encoder::Create - SetOutputFormat failed with 0x%x\n",
                 static_cast<unsigned int>(error));
    return false;
  }
  if (!SetState(OMX_StateIdle, "OMX_StateIdle",
                "COmxH264Encoder::Create::OMX_SendCommand::OMX_StateIdle") ||
      !EnablePort(nInputPort, &COmxH264Encoder::AllocateOmxInputBuffer,
                  "COmxH264Encoder::Create::OMX_CommandPortEnable::Input",
                  "AllocateOmxInputBuffer") ||
      !EnablePort(nOutputPort, &COmxH264Encoder::AllocateOmxOutputBuffer,
                  "COmxH264Encoder::Create::OMX_CommandPortEnable::Output",
                  "AllocateOmxOutputBuffer") ||
      !SetState(OMX_StateExecuting, "OMX_StateExecuting",
                "COmxH264Encoder::Create::OMX_CommandStateSet::OMX_StateExecuting"))
    return false;
  BlackenInput(static_cast<std::size_t>(PaddedWidth(Magnitude(width))) *
               PaddedHeight(Magnitude(height)));
  // A refusal is made up for by the first ProcessOutput.
  RequestFill("COmxH264Encoder::Create - OMX_FillThisBuffer failed to request filling");
  nWidth = static_cast<OMX_U32>(width);
  nHeight = static_cast<OMX_U32>(height);
  return created = true;
}

/// The padding is part of the encoded picture and is never written by the frame copies: without
/// this it would show whatever was in that memory before.
void COmxH264Encoder::BlackenInput(std::size_t lumaBytes) {
  constexpr int blackLuma = 16, noChroma = 128;
  const std::size_t luma = std::min<std::size_t>(lumaBytes, pInputBuffer->nAllocLen);
  std::memset(pInputBuffer->pBuffer, blackLuma, luma);
  std::memset(pInputBuffer->pBuffer + luma, noChroma, pInputBuffer->nAllocLen - luma);
}

CodecStatus COmxH264Encoder::ProcessInput(unsigned char* frame, unsigned int frameSize, long long,
                                          long long timestamp) {
  if (frame == nullptr) {
    std::fprintf(stderr, "COmxH264Encoder::ProcessInput - invalid input arguments [%p][%d]\n",
                 static_cast<void*>(frame), static_cast<int>(frameSize));
    return CodecInvalidArgument;
  }
  if (!created) {
    std::fprintf(stderr, "COmxH264Encoder::ProcessInput - invalid state [%p] [%p]\n", hEncoder,
                 static_cast<void*>(pInputBuffer));
    return CodecInvalidState;
  }
  if (inputAway && !WaitForInputBufferReturned()) {
    std::fprintf(stderr, "COmxH264Encoder::ProcessInput - the input buffer did not come back\n");
    return CodecTimeout;
  }
  inputAway = false;
  if (outputLate) {
    const CodecStatus status = DropLateOutput();
    if (status != CodecOk) return status;
  }
  unsigned int filled = 0;
  // The fields keep the signs that Create was given; the copy must not take them for huge sizes.
  pfnCopyFrame(frame, frameSize, Magnitude(static_cast<std::int32_t>(nWidth)),
               Magnitude(static_cast<std::int32_t>(nHeight)), pInputBuffer->pBuffer,
               pInputBuffer->nAllocLen, filled);
  pInputBuffer->nFilledLen = filled;
  pInputBuffer->nOffset = 0;
  pInputBuffer->nTimeStamp = ToTicks(timestamp);
  pInputBuffer->nFlags = OMX_BUFFERFLAG_EOS | OMX_BUFFERFLAG_STARTTIME;
  ForgetOmxAnswers(semInputReturned);
  componentError = false;
  const OMX_ERRORTYPE error = OMX_EmptyThisBuffer(hEncoder, pInputBuffer);
  if (error != OMX_ErrorNone) {
    PrintOmxError("COmxH264Encoder::ProcessInput - signal new input buffer", error);
    return CodecSendFailed;
  }
  inputAway = true;
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
  const CodecStatus status = AwaitOutput();
  if (status != CodecOk) return status;
  const OMX_BUFFERHEADERTYPE& buffer = *pOutputBuffer;
  auto* const array = new unsigned char[buffer.nFilledLen];
  if (buffer.nFilledLen != 0) std::memcpy(array, buffer.pBuffer, buffer.nFilledLen);
  size = buffer.nFilledLen;
  *data = array;
  if ((buffer.nFlags & OMX_BUFFERFLAG_SYNCFRAME) != 0) flags |= keyFrameFlag;
  ReturnOutput();
  return CodecOk;
}

CodecStatus COmxH264Encoder::ProcessOutput(unsigned char* data, unsigned int capacity,
                                           unsigned int& size, unsigned int& flags) {
  flags = 0;
  if (data == nullptr || capacity == 0) {
    std::fprintf(stderr, "COmxH264Encoder::ProcessOutput - invalid input arguments [%p] [%d]\n",
                 static_cast<void*>(data), static_cast<int>(capacity));
    return CodecInvalidArgument;
  }
  CodecStatus status = AwaitOutput();
  if (status != CodecOk) return status;
  const OMX_BUFFERHEADERTYPE& buffer = *pOutputBuffer;
  size = buffer.nFilledLen;
  if (buffer.nFilledLen > capacity) {
    status = CodecBufferTooSmall;
  } else {
    if (buffer.nFilledLen != 0) std::memcpy(data, buffer.pBuffer, buffer.nFilledLen);
    if ((buffer.nFlags & OMX_BUFFERFLAG_SYNCFRAME) != 0) flags |= keyFrameFlag;
  }
  ReturnOutput();
  return status;
}

CodecStatus COmxH264Encoder::AwaitOutput() {
  if (!created) {
    std::fprintf(stderr, "COmxH264Encoder::ProcessOutput - invalid state [%p] [%p]\n", hEncoder,
                 static_cast<void*>(pOutputBuffer));
    return CodecInvalidState;
  }
  if (output == Output::Here &&
      RequestFill("COmxH264Encoder::ProcessOutput - OMX_FillThisBuffer failed") != OMX_ErrorNone)
    return CodecSendFailed;
  if (output == Output::Component) {
    if (!WaitForOutputBufferFilled()) {
      std::fprintf(stderr, "COmxH264Encoder::ProcessOutput - the output buffer was not filled\n");
      outputLate = true;
      return CodecTimeout;
    }
    output = Output::Filled;
  }
  outputLate = false;
  return CodecOk;
}

void COmxH264Encoder::ReturnOutput() {
  output = Output::Here;
  RequestFill("COmxH264Encoder::ProcessOutput - OMX_FillThisBuffer failed");
}

OMX_ERRORTYPE COmxH264Encoder::RequestFill(const char* label) {
  pOutputBuffer->nFilledLen = 0;
  pOutputBuffer->nOffset = 0;
  pOutputBuffer->nFlags = 0;
  ForgetOmxAnswers(semOutputFilled);
  componentError = false;
  const OMX_ERRORTYPE error = OMX_FillThisBuffer(hEncoder, pOutputBuffer);
  if (error != OMX_ErrorNone)
    PrintOmxError(label, error);
  else
    output = Output::Component;
  return error;
}

/// Makes room for the output of the frame that comes next: what the last frame's wait was given up
/// for must not be taken for it. A flush brings the buffer back, filled by now or not.
CodecStatus COmxH264Encoder::DropLateOutput() {
  if (!flushOwed) {
    const OMX_ERRORTYPE error = Send(hEncoder, OMX_CommandFlush, nOutputPort, semFlushed);
    if (error != OMX_ErrorNone) {
      PrintOmxError("COmxH264Encoder::ProcessInput::OMX_CommandFlush::Output", error);
      return CodecSendFailed;
    }
    flushOwed = true;
  }
  const bool flushed = WaitForFlush();
  if (flushed) flushOwed = false;
  if (!flushed || !WaitForOutputBufferFilled()) {
    std::fprintf(stderr, "COmxH264Encoder::ProcessInput - the late output did not come back\n");
    return CodecTimeout;
  }
  outputLate = false;
  output = Output::Here;
  RequestFill("COmxH264Encoder::ProcessInput - OMX_FillThisBuffer failed");
  return CodecOk;
}

OMX_ERRORTYPE OmxH264EventsHandler(OMX_HANDLETYPE, OMX_PTR appData, OMX_EVENTTYPE event,
                                   OMX_U32 data1, OMX_U32, OMX_PTR) {
  if (appData == nullptr)
    std::puts("OmxH264EventsHandler : nullptr of the COmxH264Encoder object");
  else
    PassOmxEvent(*static_cast<COmxH264Encoder*>(appData), event, data1, PrintOmxError);
  return OMX_ErrorNone;
}

OMX_ERRORTYPE OmxH264EmptyInputBufferHandler(OMX_HANDLETYPE, OMX_PTR appData,
                                             OMX_BUFFERHEADERTYPE*) {
  if (appData == nullptr)
    std::puts("OmxH264EmptyInputBufferHandler : nullptr of the COmxH264Encoder object");
  else
    static_cast<COmxH264Encoder*>(appData)->SignalInputBufferReturned();
  return OMX_ErrorNone;
}

OMX_ERRORTYPE OmxH264FillOutputBufferHandler(OMX_HANDLETYPE, OMX_PTR appData,
                                             OMX_BUFFERHEADERTYPE*) {
  if (appData == nullptr)
    std::puts("OmxH264FillOutputBufferHandler : nullptr of the COmxH264Encoder object");
  else
    static_cast<COmxH264Encoder*>(appData)->SignalOutputBufferFill();
  return OMX_ErrorNone;
}
