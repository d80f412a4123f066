// How the encoder obtains its component, configures it and gives it back.

#include <tessera/Diagnostics.h>

#include <cstdint>
#include <cstdio>

#include "OmxJpegEncoder/Steps.h"
#include "common/OmxStructure.h"

namespace {

constexpr OMX_U32 imageInputPort = 340;
constexpr OMX_U32 imageOutputPort = 341;

char componentName[] = "OMX.broadcom.image_encode";
OMX_CALLBACKTYPE callbacks = {OmxEventsHandler, OmxEmptyInputBufferHandler,
                              OmxFillOutputBufferHandler};

constexpr common::OmxEncoderDriver::Labels labels = {
    "CJpegHardwareEncoder::InitHardware::OMX_Init",
    "CJpegHardwareEncoder::InitHardware::OMX_GetHandle",
    "CJpegHardwareEncoder::InitHardware::OMX_CommandPortDisable",
    "CJpegHardwareEncoder::ReleaseBuffers::OMX_FreeBuffer::Input",
    "CJpegHardwareEncoder::ReleaseBuffers::OMX_FreeBuffer::Output",
    "CJpegHardwareEncoder::ReleaseHardware::OMX_FreeHandle"};

}  // namespace

COmxJpegEncoder::Steps::Steps(COmxJpegEncoder& of)
    : encoder(of),
      driver({of.semStateChanged, of.semPortEnableDisable, of.semFlushed, of.semOutputFilled,
              nullptr, of.hEncoder, of.pInputBuffer, of.pOutputBuffer, of.nInputPort,
              of.nOutputPort, of.bComponentError, of.bStarted},
             labels, PrintOmxError, stdout, "COmxJpegEncoder::Encode") {}

int COmxJpegEncoder::InitializeHardware() {
  if (bStarted) ReleaseHardware();
  Steps steps(*this);
  if (!steps.driver.Open(componentName, this, callbacks)) return 0;
  if (steps.driver.DisablePorts() != common::Answer::Done) {
    bAnswerOwed = true;
    return 0;
  }
  nInputPort = imageInputPort;
  nOutputPort = imageOutputPort;
  return 1;
}

int COmxJpegEncoder::SetupInputPort(OMX_COLOR_FORMATTYPE colorFormat, int bitsPerPixel, int width,
                                    int height) {
  const common::OmxPorts ports(hEncoder, PrintOmxError);
  OMX_PARAM_PORTDEFINITIONTYPE definition;
  OMX_ERRORTYPE error =
      ports.Read(nInputPort, definition,
                 "COmxJpegEncoder::SetupInputPort::OMX_GetParameter::OMX_IndexParamPortDefinition");
  if (error != OMX_ErrorNone) return 0;
  // Unsigned, so that no size overflows: the component refuses what makes no sense.
  const auto bytesPerPixel = static_cast<std::uint32_t>(bitsPerPixel / 8);
  const auto columns = static_cast<std::uint32_t>(width);
  const auto rows = static_cast<std::uint32_t>(height);
  OMX_IMAGE_PORTDEFINITIONTYPE& image = definition.format.image;
  image.nFrameWidth = columns;
  image.nFrameHeight = rows;
  image.nStride = static_cast<OMX_S32>(columns * bytesPerPixel);
  image.nSliceHeight = rows;
  image.bFlagErrorConcealment = OMX_FALSE;
  image.eCompressionFormat = OMX_IMAGE_CodingUnused;
  image.eColorFormat = colorFormat;
  definition.nBufferSize = bytesPerPixel * columns * rows;
  error =
      ports.Set(OMX_IndexParamPortDefinition, &definition,
                "COmxJpegEncoder::SetupInputPort::OMX_SetParameter::OMX_IndexParamPortDefinition");
  if (error != OMX_ErrorNone) return 0;
  error = ports.Read(nInputPort, definition,
                     "COmxJpegEncoder::SetupInputPort::OMX_GetParameter::"
                     "OMX_IndexParamPortDefinition::AfterSetup");
  return error == OMX_ErrorNone;
}

int COmxJpegEncoder::SetupOutputPort(int width, int height, unsigned int quality) {
  const common::OmxPorts ports(hEncoder, PrintOmxError);
  OMX_PARAM_PORTDEFINITIONTYPE definition;
  OMX_ERRORTYPE error = ports.Read(
      nOutputPort, definition,
      "COmxJpegEncoder::SetupOutputPort::OMX_GetParameter::OMX_IndexParamPortDefinition");
  if (error != OMX_ErrorNone) return 0;
  OMX_IMAGE_PORTDEFINITIONTYPE& image = definition.format.image;
  image.nFrameWidth = static_cast<OMX_U32>(width);
  image.nFrameHeight = static_cast<OMX_U32>(height);
  image.bFlagErrorConcealment = OMX_FALSE;
  image.eCompressionFormat = OMX_IMAGE_CodingJPEG;
  image.eColorFormat = OMX_COLOR_FormatUnused;
  error =
      ports.Set(OMX_IndexParamPortDefinition, &definition,
                "COmxJpegEncoder::SetupOutputPort::OMX_SetParameter::OMX_IndexParamPortDefinition");
  if (error != OMX_ErrorNone) return 0;
  auto factor = common::MakeOmxStructure<OMX_IMAGE_PARAM_QFACTORTYPE>(nOutputPort);
  factor.nQFactor = quality >= 5 && quality <= 100 ? quality : common::defaultJpegQuality;
  // A picture in the component's own quality is better than none.
  ports.Set(OMX_IndexParamQFactor, &factor,
            "COmxJpegEncoder::SetupOutputPort::OMX_IndexParamQFactor");
  return 1;
}

int COmxJpegEncoder::AllocateOmxInputBuffer() {
  return common::OmxPorts(hEncoder, PrintOmxError)
             .AllocateBuffer(
                 nInputPort, pInputBuffer,
                 {"CJpegHardwareEncoder::AllocateInputHardwareBuffer::OMX_GetParameter::"
                  "OMX_IndexParamPortDefinition::Input",
                  "CJpegHardwareEncoder::AllocateInputHardwareBuffer::OMX_AllocateBuffer::"
                  "Input"}) == OMX_ErrorNone;
}

int COmxJpegEncoder::AllocateOmxOutputBuffer() {
  return common::OmxPorts(hEncoder, PrintOmxError)
             .AllocateBuffer(
                 nOutputPort, pOutputBuffer,
                 {"CJpegHardwareEncoder::AllocateOutputHardwareBuffer::OMX_GetParameter::"
                  "OMX_IndexParamPortDefinition::Output",
                  "CJpegHardwareEncoder::AllocateOutputHardwareBuffer::OMX_AllocateBuffer::"
                  "Output"}) == OMX_ErrorNone;
}

int COmxJpegEncoder::ReleaseBuffers() {
  return Steps(*this).driver.ReleaseBuffers();
}

int COmxJpegEncoder::ReleaseHardware() {
  Steps(*this).driver.Close();
  bAnswerOwed = false;
  return 1;
}
