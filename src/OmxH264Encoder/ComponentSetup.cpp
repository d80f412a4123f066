// How the encoder obtains its component, configures it and gives it back.

#include <tessera/Basics.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "OmxH264Encoder/PrivateErrorLine.h"
#include "OmxH264Encoder/Steps.h"
#include "common/OmxStructure.h"
#include "convert/FrameCopies.h"

using common::Answer;

namespace {

constexpr OMX_U32 videoInputPort = 200;
constexpr OMX_U32 videoOutputPort = 201;

char componentName[] = "OMX.broadcom.video_encode";
OMX_CALLBACKTYPE callbacks = {OmxH264EventsHandler, OmxH264EmptyInputBufferHandler,
                              OmxH264FillOutputBufferHandler};

constexpr common::OmxEncoderDriver::Labels labels = {
    "COmxH264Encoder::InitializeHardware::OMX_Init",
    "COmxH264Encoder::InitializeHardware::OMX_GetHandle",
    "COmxH264Encoder::InitializeHardware::OMX_CommandPortDisable",
    "COmxH264Encoder::ReleaseBuffers::OMX_FreeBuffer::Input",
    "COmxH264Encoder::ReleaseBuffers::OMX_FreeBuffer::Output",
    "COmxH264Encoder::ReleaseHardware::OMX_FreeHandle"};

}  // namespace

COmxH264Encoder::Steps::Steps(COmxH264Encoder& of, const char* operation)
    : encoder(of),
      driver({of.semStateChanged, of.semPortEnableDisable, of.semFlushed, of.semOutputFilled,
              &of.semInputReturned, of.hEncoder, of.pInputBuffer, of.pOutputBuffer, of.nInputPort,
              of.nOutputPort, of.bComponentError, of.bStarted},
             labels, PrintOmxError, stderr, operation) {}

bool COmxH264Encoder::InitializeHardware() {
  if (bStarted) ReleaseHardware();
  Steps steps(*this, "COmxH264Encoder::InitializeHardware");
  if (!steps.driver.Open(componentName, this, callbacks)) return false;
  if (steps.driver.DisablePorts() != Answer::Done) {
    OMX_FreeHandle(hEncoder);
    hEncoder = nullptr;
    return false;
  }
  nInputPort = videoInputPort;
  nOutputPort = videoOutputPort;
  return true;
}

OMX_ERRORTYPE COmxH264Encoder::SetInputFormat(OMX_HANDLETYPE encoder, unsigned int pixelFormat,
                                              unsigned int width, unsigned int height,
                                              unsigned int frameRateNum, unsigned int, unsigned int,
                                              unsigned int) {
  if (pixelFormat != tessera::fourccI420 && pixelFormat != tessera::fourccYuyv) {
    std::fprintf(stderr,
                 "COmxH264Encoder::SetInputFormat - input image format 0x%x is not supported.\n",
                 pixelFormat);
    return OMX_ErrorNotImplemented;
  }
  pfnCopyFrame = pixelFormat == tessera::fourccI420 ? convert::CopyI420 : convert::CopyYVYU;
  const common::OmxPorts ports(encoder, PrintOmxError);
  OMX_PARAM_PORTDEFINITIONTYPE definition;
  OMX_ERRORTYPE error =
      ports.Read(nInputPort, definition,
                 "COmxH264Encoder::SetInputFormat::OMX_GetParameter::OMX_IndexParamPortDefinition");
  if (error != OMX_ErrorNone) return error;
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
  error =
      ports.Set(OMX_IndexParamPortDefinition, &definition,
                "COmxH264Encoder::SetInputFormat::OMX_SetParameter::OMX_IndexParamPortDefinition");
  if (error != OMX_ErrorNone) return error;
  return ports.Read(nInputPort, definition,
                    "COmxH264Encoder::SetInputFormat::OMX_GetParameter::"
                    "OMX_IndexParamPortDefinition::AfterSetup");
}

OMX_ERRORTYPE COmxH264Encoder::SetOutputFormat(OMX_HANDLETYPE encoder, unsigned int bitrate) {
  const common::OmxPorts ports(encoder, PrintOmxError);
  OMX_PARAM_PORTDEFINITIONTYPE definition;
  OMX_ERRORTYPE error = ports.Read(
      nInputPort, definition,
      "COmxH264Encoder::SetOutputFormat::OMX_GetParameter::OMX_IndexParamPortDefinition::GetInput");
  if (error != OMX_ErrorNone) return error;
  // Size, frame rate and buffers are the input's.
  definition.nPortIndex = nOutputPort;
  definition.format.video.nBitrate = bitrate;
  definition.format.video.eCompressionFormat = OMX_VIDEO_CodingAVC;
  definition.format.video.eColorFormat = OMX_COLOR_FormatUnused;
  error =
      ports.Set(OMX_IndexParamPortDefinition, &definition,
                "COmxH264Encoder::SetInputFormat::OMX_SetParameter::OMX_IndexParamPortDefinition");
  if (error != OMX_ErrorNone) return error;
  auto rate = common::MakeOmxStructure<OMX_VIDEO_PARAM_BITRATETYPE>(nOutputPort);
  rate.eControlRate = OMX_Video_ControlRateVariable;
  rate.nTargetBitrate = bitrate;
  error = ports.Set(OMX_IndexParamVideoBitrate, &rate,
                    "COmxH264Encoder::SetInputFormat::OMX_IndexParamVideoBitrate");
  if (error != OMX_ErrorNone) return error;
  auto format = common::MakeOmxStructure<OMX_VIDEO_PARAM_PORTFORMATTYPE>(nOutputPort);
  format.eCompressionFormat = OMX_VIDEO_CodingAVC;
  format.eColorFormat = OMX_COLOR_FormatUnused;
  error = ports.Set(OMX_IndexParamVideoPortFormat, &format,
                    "COmxH264Encoder::SetInputFormat::OMX_IndexParamVideoPortFormat");
  if (error != OMX_ErrorNone) return error;
  auto avc = common::MakeOmxStructure<OMX_VIDEO_PARAM_AVCTYPE>(nOutputPort);
  error = ports.Get(OMX_IndexParamVideoAvc, &avc,
                    "COmxH264Encoder::SetInputFormat::OMX_GetParameter::OMX_IndexParamVideoAvc");
  if (error != OMX_ErrorNone) return error;
  avc.eProfile = OMX_VIDEO_AVCProfileHigh;
  avc.eLevel = OMX_VIDEO_AVCLevel4;
  return ports.Set(OMX_IndexParamVideoAvc, &avc,
                   "COmxH264Encoder::SetInputFormat::OMX_SetParameter::OMX_IndexParamVideoAvc");
}

OMX_ERRORTYPE COmxH264Encoder::AllocateOmxInputBuffer(OMX_HANDLETYPE encoder) {
  return common::OmxPorts(encoder, PrintOmxError)
      .AllocateBuffer(nInputPort, pInputBuffer,
                      {"COmxH264Encoder::AllocateOmxInputBuffer::OMX_GetParameter::"
                       "OMX_IndexParamPortDefinition::Input",
                       "COmxH264Encoder::AllocateOmxInputBuffer::OMX_AllocateBuffer::Input"});
}

OMX_ERRORTYPE COmxH264Encoder::AllocateOmxOutputBuffer(OMX_HANDLETYPE encoder) {
  return common::OmxPorts(encoder, PrintOmxError)
      .AllocateBuffer(nOutputPort, pOutputBuffer,
                      {"COmxH264Encoder::AllocateOmxOutputBuffer::OMX_GetParameter::"
                       "OMX_IndexParamPortDefinition::Output",
                       "COmxH264Encoder::AllocateOmxOutputBuffer::OMX_AllocateBuffer::Output"});
}

bool COmxH264Encoder::Steps::StartExecuting() {
  const auto allocated = [](OMX_ERRORTYPE error, const char* step) {
    if (error != OMX_ErrorNone)
      std::fprintf(stderr, "COmxH264Encoder::Create - %s failed 0x%x\n", step,
                   static_cast<unsigned int>(error));
    return error == OMX_ErrorNone;
  };
  const auto allocateInput = [&] {
    return allocated(encoder.AllocateOmxInputBuffer(encoder.hEncoder), "AllocateOmxInputBuffer");
  };
  const auto allocateOutput = [&] {
    return allocated(encoder.AllocateOmxOutputBuffer(encoder.hEncoder), "AllocateOmxOutputBuffer");
  };
  return driver.SetState(OMX_StateIdle,
                         "COmxH264Encoder::Create::OMX_SendCommand::OMX_StateIdle") ==
             Answer::Done &&
         driver.EnablePort(encoder.nInputPort,
                           "COmxH264Encoder::Create::OMX_CommandPortEnable::Input",
                           allocateInput) == Answer::Done &&
         driver.EnablePort(encoder.nOutputPort,
                           "COmxH264Encoder::Create::OMX_CommandPortEnable::Output",
                           allocateOutput) == Answer::Done &&
         driver.SetState(OMX_StateExecuting,
                         "COmxH264Encoder::Create::OMX_CommandStateSet::OMX_StateExecuting") ==
             Answer::Done;
}

/// The padding is part of the encoded picture and is never written by the frame copies: without
/// this it would show whatever was in that memory before.
void COmxH264Encoder::Steps::BlackenInput(std::size_t lumaBytes) {
  constexpr int blackLuma = 16, noChroma = 128;
  const OMX_BUFFERHEADERTYPE& input = *encoder.pInputBuffer;
  const std::size_t luma = std::min<std::size_t>(lumaBytes, input.nAllocLen);
  std::memset(input.pBuffer, blackLuma, luma);
  std::memset(input.pBuffer + luma, noChroma, input.nAllocLen - luma);
}

bool COmxH264Encoder::ReleaseBuffers() {
  return Steps(*this, "COmxH264Encoder::ReleaseBuffers").driver.ReleaseBuffers();
}

bool COmxH264Encoder::ReleaseHardware() {
  Steps(*this, "COmxH264Encoder::ReleaseHardware").driver.Close();
  nWidth = nHeight = 0;
  eOutput = Output::Here;
  bInputAway = bOutputOwed = bFlushOwed = bTried = bCreated = false;
  return true;
}
