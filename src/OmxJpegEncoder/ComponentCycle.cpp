// How the encoder drives its component: obtaining it, its two ports, and the way from Idle to
// Executing and back that every picture takes.

#include <bcm_host.h>
#include <tessera/COmxJpegEncoder.h>
#include <tessera/Diagnostics.h>

#include <cstdint>
#include <cstdio>

#include "common/OmxAnswers.h"
#include "common/OmxEncoderSteps.h"

namespace {

constexpr unsigned int defaultQuality = 75;
constexpr OMX_U32 imageInputPort = 340;
constexpr OMX_U32 imageOutputPort = 341;

char componentName[] = "OMX.broadcom.image_encode";
OMX_CALLBACKTYPE callbacks = {OmxEventsHandler, OmxEmptyInputBufferHandler,
                              OmxFillOutputBufferHandler};

}  // namespace

int COmxJpegEncoder::InitializeHardware() {
  if (started) ReleaseHardware();
  bcm_host_init();
  OMX_ERRORTYPE error = OMX_Init();
  if (error != OMX_ErrorNone) {
    PrintOmxError("CJpegHardwareEncoder::InitHardware::OMX_Init", error);
    return 0;
  }
  CreateOmxSemaphores(semStateChanged, semPortEnableDisable, semFlushed, semOutputFilled);
  started = true;
  error = OMX_GetHandle(&hEncoder, componentName, this, &callbacks);
  if (error == OMX_ErrorNone && hEncoder == nullptr) error = OMX_ErrorInsufficientResources;
  if (error != OMX_ErrorNone) {
    PrintOmxError("CJpegHardwareEncoder::InitHardware::OMX_GetHandle", error);
    hEncoder = nullptr;
    return 0;
  }
  const bool disabled = ForEachOmxPort(hEncoder, [this](OMX_U32 port) {
    const OMX_ERRORTYPE refusal = Send(OMX_CommandPortDisable, port, semPortEnableDisable);
    if (refusal != OMX_ErrorNone) {
      PrintOmxError("CJpegHardwareEncoder::InitHardware::OMX_CommandPortDisable", refusal);
      return true;
    }
    return WaitForPortEnableDisable();
  });
  if (!disabled) {
    Unanswered("OMX_CommandPortDisable");
    return 0;
  }
  nInputPort = imageInputPort;
  nOutputPort = imageOutputPort;
  return 1;
}

int COmxJpegEncoder::SetupInputPort(OMX_COLOR_FORMATTYPE colorFormat, int bitsPerPixel, int width,
                                    int height) {
  OMX_PARAM_PORTDEFINITIONTYPE definition;
  OMX_ERRORTYPE error = ReadOmxPort(hEncoder, nInputPort, definition);
  if (error != OMX_ErrorNone) {
    PrintOmxError("COmxJpegEncoder::SetupInputPort::OMX_GetParameter::OMX_IndexParamPortDefinition",
                  error);
    return 0;
  }
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
  error = OMX_SetParameter(hEncoder, OMX_IndexParamPortDefinition, &definition);
  if (error != OMX_ErrorNone) {
    PrintOmxError("COmxJpegEncoder::SetupInputPort::OMX_SetParameter::OMX_IndexParamPortDefinition",
                  error);
    return 0;
  }
  error = ReadOmxPort(hEncoder, nInputPort, definition);
  if (error != OMX_ErrorNone) {
    PrintOmxError(
        "COmxJpegEncoder::SetupInputPort::OMX_GetParameter::OMX_IndexParamPortDefinition::"
        "AfterSetup",
        error);
    return 0;
  }
  return 1;
}

int COmxJpegEncoder::SetupOutputPort(int width, int height, unsigned int quality) {
  OMX_PARAM_PORTDEFINITIONTYPE definition;
  OMX_ERRORTYPE error = ReadOmxPort(hEncoder, nOutputPort, definition);
  if (error != OMX_ErrorNone) {
    PrintOmxError(
        "COmxJpegEncoder::SetupOutputPort::OMX_GetParameter::OMX_IndexParamPortDefinition", error);
    return 0;
  }
  OMX_IMAGE_PORTDEFINITIONTYPE& image = definition.format.image;
  image.nFrameWidth = static_cast<OMX_U32>(width);
  image.nFrameHeight = static_cast<OMX_U32>(height);
  image.bFlagErrorConcealment = OMX_FALSE;
  image.eCompressionFormat = OMX_IMAGE_CodingJPEG;
  image.eColorFormat = OMX_COLOR_FormatUnused;
  error = OMX_SetParameter(hEncoder, OMX_IndexParamPortDefinition, &definition);
  if (error != OMX_ErrorNone) {
    PrintOmxError(
        "COmxJpegEncoder::SetupOutputPort::OMX_SetParameter::OMX_IndexParamPortDefinition", error);
    return 0;
  }
  auto factor = MakeOmxStructure<OMX_IMAGE_PARAM_QFACTORTYPE>(nOutputPort);
  factor.nQFactor = quality >= 5 && quality <= 100 ? quality : defaultQuality;
  error = OMX_SetParameter(hEncoder, OMX_IndexParamQFactor, &factor);
  // A picture in the component's own quality is better than none.
  if (error != OMX_ErrorNone)
    PrintOmxError("COmxJpegEncoder::SetupOutputPort::OMX_IndexParamQFactor", error);
  return 1;
}

int COmxJpegEncoder::AllocateOmxInputBuffer() {
  const OmxBufferLabels labels = {
      "CJpegHardwareEncoder::AllocateInputHardwareBuffer::OMX_GetParameter::"
      "OMX_IndexParamPortDefinition::Input",
      "CJpegHardwareEncoder::AllocateInputHardwareBuffer::OMX_AllocateBuffer::Input"};
  return AllocateOmxBuffer(hEncoder, nInputPort, pInputBuffer, labels, PrintOmxError) ==
         OMX_ErrorNone;
}

int COmxJpegEncoder::AllocateOmxOutputBuffer() {
  const OmxBufferLabels labels = {
      "CJpegHardwareEncoder::AllocateOutputHardwareBuffer::OMX_GetParameter::"
      "OMX_IndexParamPortDefinition::Output",
      "CJpegHardwareEncoder::AllocateOutputHardwareBuffer::OMX_AllocateBuffer::Output"};
  return AllocateOmxBuffer(hEncoder, nOutputPort, pOutputBuffer, labels, PrintOmxError) ==
         OMX_ErrorNone;
}

bool COmxJpegEncoder::StartExecuting() {
  if (SetState(OMX_StateIdle, "OMX_StateIdle",
               "CJpegHardwareEncoder::Encode::OMX_SendCommand::OMX_StateIdle") != Step::Done)
    return false;
  if (!EnablePort(nInputPort, &COmxJpegEncoder::AllocateOmxInputBuffer,
                  "COmxJpegEncoder::Encode::OMX_CommandPortEnable::Input",
                  "COmxJpegEncoder::Encode - AllocateOmxInputBuffer failed") ||
      !EnablePort(nOutputPort, &COmxJpegEncoder::AllocateOmxOutputBuffer,
                  "CJpegHardwareEncoder::Encode::OMX_CommandPortEnable::Output",
                  "COmxJpegEncoder::Encode - AllocateOmxOutputBuffer failed"))
    return false;
  return SetState(OMX_StateExecuting, "OMX_StateExecuting",
                  "COmxJpegEncoder::Encode::OMX_CommandStateSet::OMX_StateExecuting") == Step::Done;
}

void COmxJpegEncoder::ReturnToIdle() {
  const Step flushed = FlushPort(nInputPort, "COmxJpegEncoder::Encode::OMX_CommandFlush::Input");
  if (flushed == Step::Unanswered) return;
  if (flushed == Step::Done &&
      FlushPort(nOutputPort, "COmxJpegEncoder::Encode::OMX_CommandFlush::Output") ==
          Step::Unanswered)
    return;
  if (SetState(OMX_StatePause, "OMX_StatePause",
               "COmxJpegEncoder::Encode::OMX_CommandStateSet::OMX_StatePause") == Step::Unanswered)
    return;
  if (DisablePort(nInputPort, pInputBuffer,
                  "COmxJpegEncoder::Encode::OMX_CommandPortDisable::Input") != Step::Done)
    return;
  if (DisablePort(nOutputPort, pOutputBuffer,
                  "COmxJpegEncoder::Encode::OMX_CommandPortDisable::Output") != Step::Done)
    return;
  SetState(OMX_StateIdle, "OMX_StateIdle",
           "COmxJpegEncoder::Encode::OMX_CommandStateSet::OMX_StateIdle");
}

COmxJpegEncoder::Step COmxJpegEncoder::SetState(OMX_STATETYPE state, const char* name,
                                                const char* label) {
  const OMX_ERRORTYPE error = Send(OMX_CommandStateSet, state, semStateChanged);
  if (error != OMX_ErrorNone) {
    PrintOmxError(label, error);
    return Step::Refused;
  }
  // In a state that is held already, the same-state error is the answer.
  return WaitForStateChange() ? Step::Done : Unanswered(name);
}

COmxJpegEncoder::Step COmxJpegEncoder::FlushPort(OMX_U32 port, const char* label) {
  const OMX_ERRORTYPE error = Send(OMX_CommandFlush, port, semFlushed);
  if (error != OMX_ErrorNone) {
    PrintOmxError(label, error);
    return Step::Refused;
  }
  return WaitForFlush() ? Step::Done : Unanswered("OMX_CommandFlush");
}

bool COmxJpegEncoder::EnablePort(OMX_U32 port, int (COmxJpegEncoder::*allocate)(),
                                 const char* label, const char* failure) {
  const OMX_ERRORTYPE error = Send(OMX_CommandPortEnable, port, semPortEnableDisable);
  if (error != OMX_ErrorNone) {
    PrintOmxError(label, error);
    return false;
  }
  // The port counts as enabled only once it has its buffer.
  if ((this->*allocate)() == 0) {
    std::puts(failure);
    answerOwed = true;
    return false;
  }
  return WaitForPortEnableDisable() || Unanswered("OMX_CommandPortEnable") == Step::Done;
}

COmxJpegEncoder::Step COmxJpegEncoder::DisablePort(OMX_U32 port, OMX_BUFFERHEADERTYPE*& buffer,
                                                   const char* label) {
  const OMX_ERRORTYPE error = Send(OMX_CommandPortDisable, port, semPortEnableDisable);
  if (error != OMX_ErrorNone) {
    PrintOmxError(label, error);
    return Step::Refused;
  }
  OMX_FreeBuffer(hEncoder, port, buffer);
  buffer = nullptr;
  return WaitForPortEnableDisable() ? Step::Done : Unanswered("OMX_CommandPortDisable");
}

OMX_ERRORTYPE COmxJpegEncoder::Send(OMX_COMMANDTYPE command, OMX_U32 parameter, sem_t& answer) {
  ForgetOmxAnswers(answer);
  componentError = false;
  return OMX_SendCommand(hEncoder, command, parameter, nullptr);
}

COmxJpegEncoder::Step COmxJpegEncoder::Unanswered(const char* command) {
  std::printf("COmxJpegEncoder::Encode - no answer to %s\n", command);
  answerOwed = true;
  return Step::Unanswered;
}

int COmxJpegEncoder::ReleaseBuffers() {
  const bool input =
      FreeOmxBuffer(hEncoder, nInputPort, pInputBuffer,
                    "CJpegHardwareEncoder::ReleaseBuffers::OMX_FreeBuffer::Input", PrintOmxError);
  const bool output =
      FreeOmxBuffer(hEncoder, nOutputPort, pOutputBuffer,
                    "CJpegHardwareEncoder::ReleaseBuffers::OMX_FreeBuffer::Output", PrintOmxError);
  return input || output;
}

int COmxJpegEncoder::ReleaseHardware() {
  ReleaseBuffers();
  if (hEncoder != nullptr) {
    const OMX_ERRORTYPE error = OMX_FreeHandle(hEncoder);
    if (error != OMX_ErrorNone)
      PrintOmxError("CJpegHardwareEncoder::ReleaseHardware::OMX_FreeHandle", error);
    hEncoder = nullptr;
  }
  if (started) {
    OMX_Deinit();
    DestroyOmxSemaphores(semStateChanged, semPortEnableDisable, semFlushed, semOutputFilled);
    started = false;
  }
  nInputPort = nOutputPort = 0;
  answerOwed = false;
  return 1;
}

bool COmxJpegEncoder::WaitForStateChange() {
  return WaitForOmxAnswer(semStateChanged, componentError);
}

bool COmxJpegEncoder::WaitForPortEnableDisable() {
  return WaitForOmxAnswer(semPortEnableDisable, componentError);
}

bool COmxJpegEncoder::WaitForFlush() {
  return WaitForOmxAnswer(semFlushed, componentError);
}

bool COmxJpegEncoder::WaitForOutputBufferFilled() {
  return WaitForOmxAnswer(semOutputFilled, componentError);
}

void COmxJpegEncoder::SignalStateChanged() {
  sem_post(&semStateChanged);
}

void COmxJpegEncoder::SignalPortEnabledDisabled() {
  sem_post(&semPortEnableDisable);
}

void COmxJpegEncoder::SignalFlushed() {
  sem_post(&semFlushed);
}

void COmxJpegEncoder::SignalOutputBufferFill() {
  sem_post(&semOutputFilled);
}

void COmxJpegEncoder::SignalComponentError() {
  componentError = true;
}
