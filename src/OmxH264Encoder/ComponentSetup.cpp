// How the encoder obtains its component, configures it and gives it back.

#include <bcm_host.h>
#include <tessera/COmxH264Encoder.h>

#include <cstdint>
#include <cstdio>

#include "OmxH264Encoder/PrivateErrorLine.h"
#include "common/OmxAnswers.h"
#include "common/OmxEncoderSteps.h"
#include "convert/FrameCopies.h"

namespace {

constexpr unsigned int fourCcI420 = 0x30323449;
constexpr unsigned int fourCcYuyv = 0x56595559;
constexpr OMX_U32 videoInputPort = 200;
constexpr OMX_U32 videoOutputPort = 201;

char componentName[] = "OMX.broadcom.video_encode";
OMX_CALLBACKTYPE callbacks = {OmxH264EventsHandler, OmxH264EmptyInputBufferHandler,
                              OmxH264FillOutputBufferHandler};

// The class has frame copies of its own under the exported names, so the header that declares those
// is not included here.

void CopyYVYU(unsigned char* source, unsigned int sourceSize, unsigned int width,
              unsigned int height, unsigned char* destination, unsigned int capacity,
              unsigned int& outSize) {
  convert::yuyvToPaddedI420(source, sourceSize, width, height, destination, capacity);
  outSize = capacity;
}

void CopyI420(unsigned char* source, unsigned int sourceSize, unsigned int, unsigned int,
              unsigned char* destination, unsigned int capacity, unsigned int& outSize) {
  outSize = convert::copyFrame(source, sourceSize, destination, capacity);
}

}  // namespace

COmxH264Encoder::COmxH264Encoder() : pfnCopyFrame(CopyI420) {
  InitializeHardware();
}

COmxH264Encoder::~COmxH264Encoder() {
  ReleaseHardware();
}

bool COmxH264Encoder::InitializeHardware() {
  if (started) ReleaseHardware();
  bcm_host_init();
  OMX_ERRORTYPE error = OMX_Init();
  if (error != OMX_ErrorNone) {
    PrintOmxError("COmxH264Encoder::InitializeHardware::OMX_Init", error);
    return false;
  }
  CreateOmxSemaphores(semStateChanged, semPortEnableDisable, semFlushed, semOutputFilled,
                      semInputReturned);
  started = true;
  OMX_HANDLETYPE encoder = nullptr;
  error = OMX_GetHandle(&encoder, componentName, this, &callbacks);
  if (error == OMX_ErrorNone && encoder == nullptr) error = OMX_ErrorInsufficientResources;
  if (error != OMX_ErrorNone) {
    PrintOmxError("COmxH264Encoder::InitializeHardware::OMX_GetHandle", error);
    return false;
  }
  const bool disabled = ForEachOmxPort(encoder, [&](OMX_U32 port) {
    const OMX_ERRORTYPE refusal = Send(encoder, OMX_CommandPortDisable, port, semPortEnableDisable);
    if (refusal != OMX_ErrorNone) {
      PrintOmxError("COmxH264Encoder::InitializeHardware::OMX_CommandPortDisable", refusal);
      return true;
    }
    return WaitForPortEnableDisable();
  });
  if (!disabled) {
    std::fprintf(stderr,
                 "COmxH264Encoder::InitializeHardware - no answer to OMX_CommandPortDisable\n");
    OMX_FreeHandle(encoder);
    return false;
  }
  nInputPort = videoInputPort;
  nOutputPort = videoOutputPort;
  hEncoder = encoder;
  return true;
}

OMX_ERRORTYPE COmxH264Encoder::SetInputFormat(OMX_HANDLETYPE encoder, unsigned int pixelFormat,
                                              unsigned int width, unsigned int height,
                                              unsigned int frameRateNum, unsigned int, unsigned int,
                                              unsigned int) {
  if (pixelFormat == fourCcI420) {
    pfnCopyFrame = CopyI420;
  } else if (pixelFormat == fourCcYuyv) {
    pfnCopyFrame = CopyYVYU;
  } else {
    std::fprintf(stderr,
                 "COmxH264Encoder::SetInputFormat - input image format 0x%x is not supported.\n",
                 pixelFormat);
    return OMX_ErrorNotImplemented;
  }
  OMX_PARAM_PORTDEFINITIONTYPE definition;
  OMX_ERRORTYPE error = ReadOmxPort(encoder, nInputPort, definition);
  if (error != OMX_ErrorNone) {
    PrintOmxError("COmxH264Encoder::SetInputFormat::OMX_GetParameter::OMX_IndexParamPortDefinition",
                  error);
    return error;
  }
  definition.nBufferSize = width * height;
  OMX_VIDEO_PORTDEFINITIONTYPE& video = definition.format.video;
  video.nFrameWidth = width;
  video.nStride = static_cast<OMX_S32>(width);
  video.nFrameHeight = height;
  video.nSliceHeight = height;
  video.xFramerate = frameRateNum << 16;
  video.bFlagErrorConcealment = OMX_FALSE;
  video.eCompressionFormat = OMX_VIDEO_CodingUnused;
  video.eColorFormat = OMX_COLOR_FormatYUV420PackedPlanar;
  error = OMX_SetParameter(encoder, OMX_IndexParamPortDefinition, &definition);
  if (error != OMX_ErrorNone) {
    PrintOmxError("COmxH264Encoder::SetInputFormat::OMX_SetParameter::OMX_IndexParamPortDefinition",
                  error);
    return error;
  }
  error = ReadOmxPort(encoder, nInputPort, definition);
  if (error != OMX_ErrorNone)
    PrintOmxError(
        "COmxH264Encoder::SetInputFormat::OMX_GetParameter::OMX_IndexParamPortDefinition::"
        "AfterSetup",
        error);
  return error;
}

OMX_ERRORTYPE COmxH264Encoder::SetOutputFormat(OMX_HANDLETYPE encoder, unsigned int bitrate) {
  OMX_PARAM_PORTDEFINITIONTYPE definition;
  OMX_ERRORTYPE error = ReadOmxPort(encoder, nInputPort, definition);
  if (error != OMX_ErrorNone) {
    PrintOmxError(
        "COmxH264Encoder::SetOutputFormat::OMX_GetParameter::OMX_IndexParamPortDefinition::"
        "GetInput",
        error);
    return error;
  }
  // Size, frame rate and buffers are the input's.
  definition.nPortIndex = nOutputPort;
  definition.format.video.nBitrate = bitrate;
  definition.format.video.eCompressionFormat = OMX_VIDEO_CodingAVC;
  definition.format.video.eColorFormat = OMX_COLOR_FormatUnused;
  error = OMX_SetParameter(encoder, OMX_IndexParamPortDefinition, &definition);
  if (error != OMX_ErrorNone) {
    PrintOmxError("COmxH264Encoder::SetInputFormat::OMX_SetParameter::OMX_IndexParamPortDefinition",
                  error);
    return error;
  }
  auto rate = MakeOmxStructure<OMX_VIDEO_PARAM_BITRATETYPE>(nOutputPort);
  rate.eControlRate = OMX_Video_ControlRateVariable;
  rate.nTargetBitrate = bitrate;
  error = OMX_SetParameter(encoder, OMX_IndexParamVideoBitrate, &rate);
  if (error != OMX_ErrorNone) {
    PrintOmxError("COmxH264Encoder::SetInputFormat::OMX_IndexParamVideoBitrate", error);
    return error;
  }
  auto format = MakeOmxStructure<OMX_VIDEO_PARAM_PORTFORMATTYPE>(nOutputPort);
  format.eCompressionFormat = OMX_VIDEO_CodingAVC;
  format.eColorFormat = OMX_COLOR_FormatUnused;
  error = OMX_SetParameter(encoder, OMX_IndexParamVideoPortFormat, &format);
  if (error != OMX_ErrorNone) {
    PrintOmxError("COmxH264Encoder::SetInputFormat::OMX_IndexParamVideoPortFormat", error);
    return error;
  }
  auto avc = MakeOmxStructure<OMX_VIDEO_PARAM_AVCTYPE>(nOutputPort);
  error = OMX_GetParameter(encoder, OMX_IndexParamVideoAvc, &avc);
  if (error != OMX_ErrorNone) {
    PrintOmxError("COmxH264Encoder::SetInputFormat::OMX_GetParameter::OMX_IndexParamVideoAvc",
                  error);
    return error;
  }
  avc.eProfile = OMX_VIDEO_AVCProfileHigh;
  avc.eLevel = OMX_VIDEO_AVCLevel4;
  error = OMX_SetParameter(encoder, OMX_IndexParamVideoAvc, &avc);
  if (error != OMX_ErrorNone)
    PrintOmxError("COmxH264Encoder::SetInputFormat::OMX_SetParameter::OMX_IndexParamVideoAvc",
                  error);
  return error;
}

OMX_ERRORTYPE COmxH264Encoder::AllocateOmxInputBuffer(OMX_HANDLETYPE encoder) {
  const OmxBufferLabels labels = {
      "COmxH264Encoder::AllocateOmxInputBuffer::OMX_GetParameter::OMX_IndexParamPortDefinition::"
      "Input",
      "COmxH264Encoder::AllocateOmxInputBuffer::OMX_AllocateBuffer::Input"};
  return AllocateOmxBuffer(encoder, nInputPort, pInputBuffer, labels, PrintOmxError);
}

OMX_ERRORTYPE COmxH264Encoder::AllocateOmxOutputBuffer(OMX_HANDLETYPE encoder) {
  const OmxBufferLabels labels = {
      "COmxH264Encoder::AllocateOmxOutputBuffer::OMX_GetParameter::OMX_IndexParamPortDefinition::"
      "Output",
      "COmxH264Encoder::AllocateOmxOutputBuffer::OMX_AllocateBuffer::Output"};
  return AllocateOmxBuffer(encoder, nOutputPort, pOutputBuffer, labels, PrintOmxError);
}

bool COmxH264Encoder::SetState(OMX_STATETYPE state, const char* name, const char* label) {
  const OMX_ERRORTYPE error = Send(hEncoder, OMX_CommandStateSet, state, semStateChanged);
  if (error != OMX_ErrorNone) {
    PrintOmxError(label, error);
    return false;
  }
  if (WaitForStateChange()) return true;
  std::fprintf(stderr, "COmxH264Encoder::Create - no answer to %s\n", name);
  return false;
}

bool COmxH264Encoder::EnablePort(OMX_U32 port,
                                 OMX_ERRORTYPE (COmxH264Encoder::*allocate)(OMX_HANDLETYPE),
                                 const char* label, const char* allocateName) {
  OMX_ERRORTYPE error = Send(hEncoder, OMX_CommandPortEnable, port, semPortEnableDisable);
  if (error != OMX_ErrorNone) {
    PrintOmxError(label, error);
    return false;
  }
  // The port counts as enabled only once it has its buffer.
  error = (this->*allocate)(hEncoder);
  if (error != OMX_ErrorNone) {
    std::fprintf(stderr, "COmxH264Encoder::Create - %s failed 0x%x\n", allocateName,
                 static_cast<unsigned int>(error));
    return false;
  }
  if (WaitForPortEnableDisable()) return true;
  std::fprintf(stderr, "COmxH264Encoder::Create - no answer to OMX_CommandPortEnable\n");
  return false;
}

OMX_ERRORTYPE COmxH264Encoder::Send(OMX_HANDLETYPE encoder, OMX_COMMANDTYPE command,
                                    OMX_U32 parameter, sem_t& answer) {
  ForgetOmxAnswers(answer);
  componentError = false;
  return OMX_SendCommand(encoder, command, parameter, nullptr);
}

bool COmxH264Encoder::ReleaseBuffers() {
  const bool input =
      FreeOmxBuffer(hEncoder, nInputPort, pInputBuffer,
                    "COmxH264Encoder::ReleaseBuffers::OMX_FreeBuffer::Input", PrintOmxError);
  const bool freedOutput =
      FreeOmxBuffer(hEncoder, nOutputPort, pOutputBuffer,
                    "COmxH264Encoder::ReleaseBuffers::OMX_FreeBuffer::Output", PrintOmxError);
  return input || freedOutput;
}

bool COmxH264Encoder::ReleaseHardware() {
  ReleaseBuffers();
  OMX_HANDLETYPE const encoder = hEncoder;
  hEncoder = nullptr;
  if (encoder != nullptr) {
    const OMX_ERRORTYPE error = OMX_FreeHandle(encoder);
    if (error != OMX_ErrorNone)
      PrintOmxError("COmxH264Encoder::ReleaseHardware::OMX_FreeHandle", error);
  }
  if (started) {
    OMX_Deinit();
    DestroyOmxSemaphores(semStateChanged, semPortEnableDisable, semFlushed, semOutputFilled,
                         semInputReturned);
    started = false;
  }
  nInputPort = nOutputPort = nWidth = nHeight = 0;
  output = Output::Here;
  inputAway = outputLate = flushOwed = tried = created = false;
  return true;
}

bool COmxH264Encoder::WaitForStateChange() {
  return WaitForOmxAnswer(semStateChanged, componentError);
}

bool COmxH264Encoder::WaitForPortEnableDisable() {
  return WaitForOmxAnswer(semPortEnableDisable, componentError);
}

bool COmxH264Encoder::WaitForFlush() {
  return WaitForOmxAnswer(semFlushed, componentError);
}

bool COmxH264Encoder::WaitForOutputBufferFilled() {
  return WaitForOmxAnswer(semOutputFilled, componentError);
}

bool COmxH264Encoder::WaitForInputBufferReturned() {
  return WaitForOmxAnswer(semInputReturned, componentError);
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
  componentError = true;
}
