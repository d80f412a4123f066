#include <tessera/COmxH264Encoder.h>

#include <cstddef>
#include <cstdio>

#include "OmxH264Encoder/PrivateErrorLine.h"
#include "OmxH264Encoder/Steps.h"
#include "common/Geometry.h"
#include "common/Waits.h"
#include "convert/FrameCopies.h"

COmxH264Encoder::COmxH264Encoder() : pfnCopyFrame(convert::CopyI420) {
  InitializeHardware();
}

COmxH264Encoder::~COmxH264Encoder() {
  ReleaseHardware();
}

bool COmxH264Encoder::Create(unsigned int pixelFormat, int width, int height,
                             unsigned int frameRateNum, unsigned int frameRateDen,
                             unsigned int aspectNum, unsigned int aspectDen, unsigned int bitrate) {
  // The steps below start from Loaded and from a component that owes no answer.
  if (bTried) {
    ReleaseHardware();
    // Where that fails, the next call tries it again.
    bTried = !InitializeHardware();
  }
  if (hEncoder == nullptr) {
    std::fprintf(stderr, "COmxH264Encoder::Create - invalid state of encoder object.\n");
    return false;
  }
  bTried = true;
  const unsigned int paddedWidth = common::PaddedWidth(common::Magnitude(width));
  const unsigned int paddedHeight = common::PaddedHeight(common::Magnitude(height));
  OMX_ERRORTYPE error = SetInputFormat(hEncoder, pixelFormat, paddedWidth, paddedHeight,
                                       frameRateNum, frameRateDen, aspectNum, aspectDen);
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
  Steps steps(*this, "COmxH264Encoder::Create");
  if (!steps.StartExecuting()) return false;
  steps.BlackenInput(std::size_t{paddedWidth} * paddedHeight);
  // If this is refused, the first ProcessOutput asks again.
  steps.RequestFill("COmxH264Encoder::Create - OMX_FillThisBuffer failed to request filling");
  nWidth = static_cast<OMX_U32>(width);
  nHeight = static_cast<OMX_U32>(height);
  return bCreated = true;
}

bool COmxH264Encoder::WaitForStateChange() {
  return common::AwaitAnswer(semStateChanged, bComponentError);
}

bool COmxH264Encoder::WaitForPortEnableDisable() {
  return common::AwaitAnswer(semPortEnableDisable, bComponentError);
}

bool COmxH264Encoder::WaitForFlush() {
  return common::AwaitAnswer(semFlushed, bComponentError);
}

bool COmxH264Encoder::WaitForOutputBufferFilled() {
  return common::AwaitAnswer(semOutputFilled, bComponentError);
}

bool COmxH264Encoder::WaitForInputBufferReturned() {
  return common::AwaitAnswer(semInputReturned, bComponentError);
}

void COmxH264Encoder::SignalStateChanged() {
  sem_post(&semStateChanged);
}

void COmxH264Encoder::SignalPortEnabledDisabled() {
  sem_post(&semPortEnableDisable);
}

void COmxH264Encoder::SignalFlushed() {
  sem_post(&semFlushed);
}

void COmxH264Encoder::SignalOutputBufferFill() {
  sem_post(&semOutputFilled);
}

void COmxH264Encoder::SignalInputBufferReturned() {
  sem_post(&semInputReturned);
}

void COmxH264Encoder::SignalComponentError() {
  bComponentError = true;
}

OMX_ERRORTYPE OmxH264EventsHandler(OMX_HANDLETYPE, OMX_PTR appData, OMX_EVENTTYPE event,
                                   OMX_U32 data1, OMX_U32, OMX_PTR) {
  if (appData == nullptr)
    std::puts("OmxH264EventsHandler : nullptr of the COmxH264Encoder object");
  else
    common::PassOmxEvent(*static_cast<COmxH264Encoder*>(appData), event, data1, PrintOmxError);
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
