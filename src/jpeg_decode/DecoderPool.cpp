#include <bcm_host.h>
#include <tessera/DecoderPool.h>
#include <tessera/Diagnostics.h>

#include <cerrno>
#include <cstdio>
#include <new>

#include "common/OmxAnswers.h"
#include "common/OmxStructure.h"

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
  CreateOmxSemaphores(semCommandDone, semFillDone, semPortSettingsChanged);
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
  if (lastError == OMX_ErrorNone) return true;
  std::puts("OMX_SendCommand failed");
  return false;
}

bool DecoderPool::SetUpInputPort() {
  SendAndAwait(OMX_CommandPortDisable, nInputPort);
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
  SendAndAwait(OMX_CommandPortEnable, nInputPort);
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
  SendAndAwait(OMX_CommandPortDisable, nOutputPort);
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
  SendAndAwait(OMX_CommandPortEnable, nOutputPort);
  OMX_BUFFERHEADERTYPE* allocated = nullptr;
  lastError = OMX_AllocateBuffer(hDecoder, &allocated, nOutputPort, nullptr, firstOutputBufferSize);
  if (lastError != OMX_ErrorNone || allocated == nullptr) {
    errno = ENOMEM;
    std::perror("Eror allocating buffer");
    return false;
  }
  pOutputBuffer = allocated;
  return true;
}

bool DecoderPool::StartExecuting() {
  while (nCompletionsOwed > 0) AwaitCompletion();
  idle = true;
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
    DestroyOmxSemaphores(semCommandDone, semFillDone, semPortSettingsChanged);
  }
  delete[] ppInputBuffers;
}

/// @return false when the component stays as it is: it refused to leave its state
bool DecoderPool::TakeDownComponent() {
  // Answers that never came are not waited for again.
  nCompletionsOwed = 0;
  if (ready) FlushOutputPort();
  ReleaseInputBuffers();
  ReleaseOutputBuffer();
  if (!LeaveState()) {
    std::puts("OMX_SendCommand failed");
    return false;
  }
  OMX_FreeHandle(hDecoder);
  return true;
}

void DecoderPool::FlushOutputPort() {
  const bool sent = Send(OMX_CommandFlush, nOutputPort) == OMX_ErrorNone;
  std::puts("Sending command!");
  if (sent) AwaitCompletion();
  std::puts("Finished waiting!");
}

void DecoderPool::ReleaseInputBuffers() {
  // On an enabled port the release would be an error event. Without the disable the buffers wait
  // for the way to Loaded.
  if (nInputBuffers == 0 || Send(OMX_CommandPortDisable, nInputPort) != OMX_ErrorNone) return;
  bool released = true;
  for (std::int32_t i = 0; i < nInputBuffers; ++i) {
    if (ppInputBuffers[i] == nullptr) continue;
    lastError = OMX_FreeBuffer(hDecoder, nInputPort, ppInputBuffers[i]);
    if (lastError == OMX_ErrorNone) {
      ppInputBuffers[i] = nullptr;
    } else {
      std::printf("OMX_FreeBuffer input port error: %s !\n", OmxErrorDescription(lastError));
      released = false;
    }
  }
  // With a buffer left the disable never completes.
  if (released) AwaitCompletion();
}

void DecoderPool::ReleaseOutputBuffer() {
  if (pOutputBuffer == nullptr) return;
  if (outputPort != OutputPort::Disabling &&
      Send(OMX_CommandPortDisable, nOutputPort) != OMX_ErrorNone)
    return;
  lastError = OMX_FreeBuffer(hDecoder, nOutputPort, pOutputBuffer);
  if (lastError != OMX_ErrorNone) {
    std::printf("OMX_FreeBuffer output port error: %s !\n", OmxErrorDescription(lastError));
    return;
  }
  pOutputBuffer = nullptr;
  AwaitCompletion();
}

/// Back to Loaded, from where setup got to. A change to Idle that may still be under way is left
/// alone: the component can be freed in any state.
bool DecoderPool::LeaveState() {
  if (ready) {
    lastError = Send(OMX_CommandStateSet, OMX_StateIdle);
    if (lastError != OMX_ErrorNone) return false;
    AwaitCompletion();
  }
  if (!idle) return true;
  lastError = Send(OMX_CommandStateSet, OMX_StateLoaded);
  if (lastError != OMX_ErrorNone) return false;
  if (ReleaseLeftBuffers())
    while (nCompletionsOwed > 0) AwaitCompletion();
  return true;
}

/// Frees what is left, now that the component lets go of it in any case.
/// @return whether nothing is left
bool DecoderPool::ReleaseLeftBuffers() {
  bool released = true;
  for (std::int32_t i = 0; i < nInputBuffers; ++i)
    if (ppInputBuffers[i] != nullptr &&
        OMX_FreeBuffer(hDecoder, nInputPort, ppInputBuffers[i]) != OMX_ErrorNone)
      released = false;
  if (pOutputBuffer != nullptr &&
      OMX_FreeBuffer(hDecoder, nOutputPort, pOutputBuffer) != OMX_ErrorNone)
    released = false;
  return released;
}

OMX_ERRORTYPE DecoderPool::Send(OMX_COMMANDTYPE command, OMX_U32 parameter) {
  const OMX_ERRORTYPE error = OMX_SendCommand(hDecoder, command, parameter, nullptr);
  if (error == OMX_ErrorNone) ++nCompletionsOwed;
  return error;
}

/// A refused command is passed over: nobody would answer it.
void DecoderPool::SendAndAwait(OMX_COMMANDTYPE command, OMX_U32 parameter) {
  if (Send(command, parameter) == OMX_ErrorNone) AwaitCompletion();
}

/// Takes whichever completion comes next.
void DecoderPool::AwaitCompletion() {
  WaitForOmxAnswerForGood(semCommandDone);
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

DecoderPool* GetDecoderPool() {
  return new DecoderPool();
}

int ReleaseDecoderPool(DecoderPool* pool) {
  if (pool == nullptr) return 0;
  delete pool;
  return 1;
}
