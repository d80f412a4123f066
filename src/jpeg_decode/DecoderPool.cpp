#include <bcm_host.h>
#include <tessera/DecoderPool.h>
#include <tessera/Diagnostics.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <new>

#include "common/OmxStructure.h"
#include "common/Waits.h"

using namespace common;

namespace {

constexpr OMX_U32 inputBufferSize = 1024000;
constexpr OMX_U32 firstWidth = 1280;
constexpr OMX_U32 firstHeight = 720;
constexpr OMX_U32 firstOutputBufferSize = firstWidth * firstHeight * 3 / 2;

char componentName[] = "OMX.broadcom.image_decode";

}  // namespace

DecoderPool::DecoderPool() {
  bcm_host_init();
  ready = OpenComponent() && RequestIdle() && SetUpInputPort() && AllocateInputBuffers() &&
          SetUpOutputPort() && StartExecuting();
}

bool DecoderPool::OpenComponent() {
  lastError = OMX_Init();
  if (lastError != OMX_ErrorNone) {
    std::printf("error [%x] \n", static_cast<unsigned int>(lastError));
    return false;
  }
  CreateSemaphores(semCommandDone, semFillDone, semPortSettingsChanged, semLoaded);
  started = true;
  lastError = OMX_GetHandle(&hDecoder, componentName, this, &videodeccallbacks);
  if (lastError != OMX_ErrorNone || hDecoder == nullptr) {
    std::puts("failed to get handle");
    hDecoder = nullptr;
    return false;
  }
  FillOmxHeader(portParam);
  OMX_GetParameter(hDecoder, OMX_IndexParamImageInit, &portParam);
  if (portParam.nPorts < 2) {
    std::puts("at least 2 ports expected!");
    return false;
  }
  nInputPort = portParam.nStartPortNumber;
  nOutputPort = portParam.nStartPortNumber + 1;
  return true;
}

// The component completes this one only when every enabled port has its buffers, so the last of the
// waits below is the one for it.
bool DecoderPool::RequestIdle() {
  lastError = Send(OMX_CommandStateSet, OMX_StateIdle);
  if (lastError != OMX_ErrorNone) {
    std::puts("OMX_SendCommand failed");
    return false;
  }
  idle = Idle::Asked;
  return true;
}

bool DecoderPool::SetUpInputPort() {
  if (SendAndAwait(OMX_CommandPortDisable, nInputPort)) inputEnabled = false;
  lastError = SetImageFormat(nInputPort, OMX_IMAGE_CodingJPEG, OMX_COLOR_FormatUnused);
  if (lastError != OMX_ErrorNone) {
    std::printf("OMX_SetParameter [%s] \n", OmxErrorDescription(lastError));
    return false;
  }
  lastError = ReadPort(nInputPort);
  if (lastError != OMX_ErrorNone) {
    std::printf("OMX_GetParameter [%s] \n", OmxErrorDescription(lastError));
    return false;
  }
  portDef.nBufferSize = inputBufferSize;
  lastError = OMX_SetParameter(hDecoder, OMX_IndexParamPortDefinition, &portDef);
  if (lastError != OMX_ErrorNone) {
    std::printf("OMX_SetParameter [%s] \n", OmxErrorDescription(lastError));
    return false;
  }
  if (SendAndAwait(OMX_CommandPortEnable, nInputPort)) inputEnabled = true;
  return true;
}

bool DecoderPool::AllocateInputBuffers() {
  constexpr std::size_t slotBytes = sizeof(void*);  // of one header's address
  const OMX_U32 count = portDef.nBufferCountActual;
  if (count == 0 || count > 0x7FFFFFFF / slotBytes) {
    std::printf("unusable number of input buffers: %u\n", count);
    return false;
  }
  ppInputBuffers = new (std::nothrow) OMX_BUFFERHEADERTYPE*[count]();
  if (ppInputBuffers == nullptr) {
    std::puts("no memory for the input buffers");
    return false;
  }
  nInputBuffers = static_cast<std::int32_t>(count);
  for (std::int32_t i = 0; i < nInputBuffers; ++i) {
    const auto error = OMX_AllocateBuffer(hDecoder, &ppInputBuffers[i], nInputPort,
                                          reinterpret_cast<OMX_PTR>(static_cast<std::intptr_t>(i)),
                                          inputBufferSize);
    if (error != OMX_ErrorNone || ppInputBuffers[i] == nullptr) {
      ppInputBuffers[i] = nullptr;
      errno = ENOMEM;
      std::perror("Allocate decode buffer");
      return false;
    }
  }
  return true;
}

bool DecoderPool::SetUpOutputPort() {
  lastError =
      SetImageFormat(nOutputPort, OMX_IMAGE_CodingUnused, OMX_COLOR_FormatYUV420PackedPlanar);
  if (lastError != OMX_ErrorNone) {
    std::printf("OMX_SetParameter error = [%s] \n", OmxErrorDescription(lastError));
    return false;
  }
  if (SendAndAwait(OMX_CommandPortDisable, nOutputPort)) {
    // The input port has its buffers: nothing keeps the component from Idle.
    outputPort = OutputPort::Disabling;
    idle = Idle::Certain;
  }
  lastError = ReadPort(nOutputPort);
  if (lastError != OMX_ErrorNone) {
    std::printf("Error OMX_GetParameter %s \n", OmxErrorDescription(lastError));
    return false;
  }
  FillOmxHeader(portDef);
  portDef.nPortIndex = nOutputPort;
  OMX_IMAGE_PORTDEFINITIONTYPE& image = portDef.format.image;
  image.nFrameWidth = firstWidth;
  image.nFrameHeight = firstHeight;
  image.nStride = firstWidth;
  image.nSliceHeight = firstHeight;
  image.eCompressionFormat = OMX_IMAGE_CodingUnused;
  image.eColorFormat = OMX_COLOR_FormatYUV420PackedPlanar;
  portDef.nBufferSize = firstOutputBufferSize;
  lastError = OMX_SetParameter(hDecoder, OMX_IndexParamPortDefinition, &portDef);
  if (lastError != OMX_ErrorNone) {
    std::printf("Error OMX_SetParameter %s \n", OmxErrorDescription(lastError));
    return false;
  }
  if (SendAndAwait(OMX_CommandPortEnable, nOutputPort)) outputPort = OutputPort::Enabling;
  OMX_BUFFERHEADERTYPE* allocated = nullptr;
  lastError = OMX_AllocateBuffer(hDecoder, &allocated, nOutputPort, nullptr, firstOutputBufferSize);
  if (lastError != OMX_ErrorNone || allocated == nullptr) {
    errno = ENOMEM;
    std::perror("Eror allocating buffer");
    return false;
  }
  pOutputBuffer = allocated;
  outputPort = OutputPort::Ready;
  return true;
}

bool DecoderPool::StartExecuting() {
  while (nCompletionsOwed > 0) AwaitCompletion();
  idle = Idle::Certain;
  lastError = Send(OMX_CommandStateSet, OMX_StateExecuting);
  if (lastError != OMX_ErrorNone) {
    std::printf("Error switching to State Executing %s \n", OmxErrorDescription(lastError));
    return false;
  }
  AwaitCompletion();
  nCurrentWidth = firstWidth;
  nCurrentHeight = firstHeight;
  return true;
}

DecoderPool::~DecoderPool() {
  std::puts("DecoderPool::~DecoderPool ");
  if (started) {
    int count = 0;
    sem_getvalue(&semCommandDone, &count);
    std::printf("sem get is [%x] \n", static_cast<unsigned int>(count));
  }
  const bool takenDown = hDecoder == nullptr || TakeDownComponent();
  if (takenDown && started) {
    OMX_Deinit();
    DestroySemaphores(semCommandDone, semFillDone, semPortSettingsChanged, semLoaded);
  }
  delete[] ppInputBuffers;
}

/// @return false when the component stays as it is: it refused to leave its state
bool DecoderPool::TakeDownComponent() {
  if (idle != Idle::NotAsked) {
    ForgetAnswers();
    if (ready) FlushOutputPort();
    ReleaseInputBuffers();
    ReleaseOutputBuffer();
    if (!LeaveState()) {
      std::puts("OMX_SendCommand failed");
      return false;
    }
  }
  OMX_FreeHandle(hDecoder);
  return true;
}

/// What has been answered so far answers nothing that is asked from here on. What was waited for in
/// vain is not waited for again.
void DecoderPool::ForgetAnswers() {
  while (TakePosted(semCommandDone) == WaitResult::Done)
    if (nCompletionsOwed > 0) --nCompletionsOwed;
  if (answerLate) nCompletionsOwed = StuckCommands();
}

void DecoderPool::FlushOutputPort() {
  const bool sent = Send(OMX_CommandFlush, nOutputPort) == OMX_ErrorNone;
  std::puts("Sending command!");
  if (sent) AwaitCompletions();
  std::puts("Finished waiting!");
}

void DecoderPool::ReleaseInputBuffers() {
  // On an enabled port the release would be an error event. Without the disable the buffers wait
  // for the way to Loaded.
  if (!inputEnabled || Send(OMX_CommandPortDisable, nInputPort) != OMX_ErrorNone) return;
  inputEnabled = false;
  for (std::int32_t i = 0; i < nInputBuffers; ++i) {
    if (ppInputBuffers[i] == nullptr) continue;
    lastError = OMX_FreeBuffer(hDecoder, nInputPort, ppInputBuffers[i]);
    if (lastError == OMX_ErrorNone)
      ppInputBuffers[i] = nullptr;
    else
      std::printf("OMX_FreeBuffer input port error: %s !\n", OmxErrorDescription(lastError));
  }
  AwaitCompletions();
}

void DecoderPool::ReleaseOutputBuffer() {
  // While the port waits for a buffer that could not be had, a disable would have to wait as well.
  const bool lacking = outputPort == OutputPort::Enabling && pOutputBuffer == nullptr;
  if (lacking && idle == Idle::Certain) return;
  if (outputPort != OutputPort::Disabling &&
      Send(OMX_CommandPortDisable, nOutputPort) != OMX_ErrorNone)
    return;
  outputPort = OutputPort::Disabling;
  if (pOutputBuffer != nullptr) {
    lastError = OMX_FreeBuffer(hDecoder, nOutputPort, pOutputBuffer);
    if (lastError == OMX_ErrorNone)
      pOutputBuffer = nullptr;
    else
      std::printf("OMX_FreeBuffer output port error: %s !\n", OmxErrorDescription(lastError));
  }
  AwaitCompletions();
}

/// Back to Loaded, from where setup got to.
bool DecoderPool::LeaveState() {
  if (ready) {
    lastError = Send(OMX_CommandStateSet, OMX_StateIdle);
    if (lastError != OMX_ErrorNone) return false;
  } else if (KeptFromIdle()) {
    // A disable was refused. The component is in Loaded still.
    return true;
  }
  AwaitCompletions();
  lastError = Send(OMX_CommandStateSet, OMX_StateLoaded);
  if (lastError != OMX_ErrorNone) return false;
  if (ReleaseLeftBuffers()) {
    AwaitCompletions();
    // An answer that was given up may have come after all, in place of the one for Loaded.
    WaitWithoutLimit(semLoaded);
  }
  return true;
}

/// Frees what is left, now that the component lets go of it in any case.
/// @return whether nothing is left
bool DecoderPool::ReleaseLeftBuffers() {
  bool released = true;
  const auto release = [&](OMX_U32 port, OMX_BUFFERHEADERTYPE*& buffer) {
    if (buffer == nullptr) return;
    if (OMX_FreeBuffer(hDecoder, port, buffer) == OMX_ErrorNone)
      buffer = nullptr;
    else
      released = false;
  };
  for (std::int32_t i = 0; i < nInputBuffers; ++i) release(nInputPort, ppInputBuffers[i]);
  release(nOutputPort, pOutputBuffer);
  return released;
}

/// Whether a port that is enabled and lacks its buffers holds the change to Idle up.
bool DecoderPool::KeptFromIdle() const {
  return idle == Idle::Asked && (inputEnabled || outputPort != OutputPort::Disabling);
}

/// How many of the commands under way cannot complete: the change to Idle, a disable while the port
/// has a buffer left, an enable while it lacks one (in Loaded a port needs none).
std::int32_t DecoderPool::StuckCommands() const {
  std::int32_t stuck = KeptFromIdle() ? 1 : 0;
  const auto left = [](const OMX_BUFFERHEADERTYPE* buffer) { return buffer != nullptr; };
  if (!inputEnabled && std::any_of(ppInputBuffers, ppInputBuffers + nInputBuffers, left)) ++stuck;
  if (outputPort == OutputPort::Disabling && left(pOutputBuffer)) ++stuck;
  if (outputPort == OutputPort::Enabling && !left(pOutputBuffer) && idle == Idle::Certain) ++stuck;
  return stuck;
}

/// Takes as many completions as are owed and can come.
void DecoderPool::AwaitCompletions() {
  while (nCompletionsOwed > StuckCommands()) AwaitCompletion();
}

OMX_ERRORTYPE DecoderPool::Send(OMX_COMMANDTYPE command, OMX_U32 parameter) {
  const OMX_ERRORTYPE error = OMX_SendCommand(hDecoder, command, parameter, nullptr);
  if (error == OMX_ErrorNone) ++nCompletionsOwed;
  return error;
}

/// A refused command is passed over: nobody would answer it. @return whether it was accepted
bool DecoderPool::SendAndAwait(OMX_COMMANDTYPE command, OMX_U32 parameter) {
  if (Send(command, parameter) != OMX_ErrorNone) return false;
  AwaitCompletion();
  return true;
}

/// Takes whichever completion comes next.
void DecoderPool::AwaitCompletion() {
  WaitWithoutLimit(semCommandDone);
  --nCompletionsOwed;
}

OMX_ERRORTYPE DecoderPool::SetImageFormat(OMX_U32 port, OMX_IMAGE_CODINGTYPE coding,
                                          OMX_COLOR_FORMATTYPE color) {
  auto format = MakeOmxStructure<OMX_IMAGE_PARAM_PORTFORMATTYPE>(port);
  format.eCompressionFormat = coding;
  format.eColorFormat = color;
  return OMX_SetParameter(hDecoder, OMX_IndexParamImagePortFormat, &format);
}

OMX_ERRORTYPE DecoderPool::ReadPort(OMX_U32 port) {
  FillOmxHeader(portDef);
  portDef.nPortIndex = port;
  return OMX_GetParameter(hDecoder, OMX_IndexParamPortDefinition, &portDef);
}
