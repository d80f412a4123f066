// Setup and teardown of the component, in the order in which things happen.

#include <tessera/Diagnostics.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <new>

#include "common/OmxStructure.h"
#include "common/Waits.h"
#include "jpeg_decode/Steps.h"

namespace {

/// Most pictures fit into one buffer; longer ones take several in turn.
constexpr OMX_U32 inputBufferSize = 1024000;
/// A first picture of this size finds its output buffer there; any other has it made anew.
constexpr OMX_U32 firstWidth = 1280;
constexpr OMX_U32 firstHeight = 720;
constexpr OMX_U32 firstOutputBufferSize = firstWidth * firstHeight * 3 / 2;

char componentName[] = "OMX.broadcom.image_decode";

}  // namespace

bool DecoderPool::Steps::OpenComponent() {
  pool.lastError = OMX_Init();
  if (pool.lastError != OMX_ErrorNone) {
    std::printf("error [%x] \n", static_cast<unsigned int>(pool.lastError));
    return false;
  }
  common::CreateSemaphores(pool.semCommandDone, pool.semFillDone, pool.semPortSettingsChanged,
                           pool.semLoaded);
  pool.bStarted = true;
  pool.lastError = OMX_GetHandle(&pool.hDecoder, componentName, &pool, &videodeccallbacks);
  if (pool.lastError != OMX_ErrorNone || pool.hDecoder == nullptr) {
    std::puts("failed to get handle");
    pool.hDecoder = nullptr;
    return false;
  }
  common::FillOmxHeader(pool.portParam);
  OMX_GetParameter(pool.hDecoder, OMX_IndexParamImageInit, &pool.portParam);
  if (pool.portParam.nPorts < 2) {
    std::puts("at least 2 ports expected!");
    return false;
  }
  pool.nInputPort = pool.portParam.nStartPortNumber;
  pool.nOutputPort = pool.portParam.nStartPortNumber + 1;
  return true;
}

// The component reaches Idle only once every enabled port has its buffers, which the steps that
// follow see to. Nobody waits for this answer here: StartExecuting() waits for all that are owed.
bool DecoderPool::Steps::RequestIdle() {
  pool.lastError = Send(OMX_CommandStateSet, OMX_StateIdle);
  if (pool.lastError != OMX_ErrorNone) {
    std::puts("OMX_SendCommand failed");
    return false;
  }
  pool.eIdle = Idle::Asked;
  return true;
}

bool DecoderPool::Steps::SetUpInputPort() {
  if (SendAndAwait(OMX_CommandPortDisable, pool.nInputPort)) pool.bInputEnabled = false;
  pool.lastError = SetImageFormat(pool.nInputPort, OMX_IMAGE_CodingJPEG, OMX_COLOR_FormatUnused);
  if (pool.lastError != OMX_ErrorNone) {
    std::printf("OMX_SetParameter [%s] \n", OmxErrorDescription(pool.lastError));
    return false;
  }
  pool.lastError = ReadPort(pool.nInputPort);
  if (pool.lastError != OMX_ErrorNone) {
    std::printf("OMX_GetParameter [%s] \n", OmxErrorDescription(pool.lastError));
    return false;
  }
  pool.portDef.nBufferSize = inputBufferSize;
  pool.lastError = OMX_SetParameter(pool.hDecoder, OMX_IndexParamPortDefinition, &pool.portDef);
  if (pool.lastError != OMX_ErrorNone) {
    std::printf("OMX_SetParameter [%s] \n", OmxErrorDescription(pool.lastError));
    return false;
  }
  if (SendAndAwait(OMX_CommandPortEnable, pool.nInputPort)) pool.bInputEnabled = true;
  return true;
}

bool DecoderPool::Steps::AllocateInputBuffers() {
  constexpr std::size_t slotBytes = sizeof(void*);  // of one header's address
  const OMX_U32 count = pool.portDef.nBufferCountActual;
  if (count == 0 || count > 0x7FFFFFFF / slotBytes) {
    std::printf("unusable number of input buffers: %u\n", count);
    return false;
  }
  pool.ppInputBuffers = new (std::nothrow) OMX_BUFFERHEADERTYPE*[count]();
  if (pool.ppInputBuffers == nullptr) {
    std::puts("no memory for the input buffers");
    return false;
  }
  pool.nInputBuffers = static_cast<std::int32_t>(count);
  for (std::int32_t i = 0; i < pool.nInputBuffers; ++i) {
    const auto error = OMX_AllocateBuffer(pool.hDecoder, &pool.ppInputBuffers[i], pool.nInputPort,
                                          reinterpret_cast<OMX_PTR>(static_cast<std::intptr_t>(i)),
                                          inputBufferSize);
    if (error != OMX_ErrorNone || pool.ppInputBuffers[i] == nullptr) {
      pool.ppInputBuffers[i] = nullptr;
      errno = ENOMEM;
      std::perror("Allocate decode buffer");
      return false;
    }
  }
  return true;
}

bool DecoderPool::Steps::SetUpOutputPort() {
  pool.lastError =
      SetImageFormat(pool.nOutputPort, OMX_IMAGE_CodingUnused, OMX_COLOR_FormatYUV420PackedPlanar);
  if (pool.lastError != OMX_ErrorNone) {
    std::printf("OMX_SetParameter error = [%s] \n", OmxErrorDescription(pool.lastError));
    return false;
  }
  if (SendAndAwait(OMX_CommandPortDisable, pool.nOutputPort)) {
    // The input port has its buffers: nothing keeps the component from Idle.
    pool.eOutputPort = OutputPort::Disabling;
    pool.eIdle = Idle::Certain;
  }
  pool.lastError = ReadPort(pool.nOutputPort);
  if (pool.lastError != OMX_ErrorNone) {
    std::printf("Error OMX_GetParameter %s \n", OmxErrorDescription(pool.lastError));
    return false;
  }
  common::FillOmxHeader(pool.portDef);
  pool.portDef.nPortIndex = pool.nOutputPort;
  OMX_IMAGE_PORTDEFINITIONTYPE& image = pool.portDef.format.image;
  image.nFrameWidth = firstWidth;
  image.nFrameHeight = firstHeight;
  image.nStride = firstWidth;
  image.nSliceHeight = firstHeight;
  image.eCompressionFormat = OMX_IMAGE_CodingUnused;
  image.eColorFormat = OMX_COLOR_FormatYUV420PackedPlanar;
  pool.portDef.nBufferSize = firstOutputBufferSize;
  pool.lastError = OMX_SetParameter(pool.hDecoder, OMX_IndexParamPortDefinition, &pool.portDef);
  if (pool.lastError != OMX_ErrorNone) {
    std::printf("Error OMX_SetParameter %s \n", OmxErrorDescription(pool.lastError));
    return false;
  }
  if (SendAndAwait(OMX_CommandPortEnable, pool.nOutputPort))
    pool.eOutputPort = OutputPort::Enabling;
  OMX_BUFFERHEADERTYPE* allocated = nullptr;
  pool.lastError = OMX_AllocateBuffer(pool.hDecoder, &allocated, pool.nOutputPort, nullptr,
                                      firstOutputBufferSize);
  if (pool.lastError != OMX_ErrorNone || allocated == nullptr) {
    errno = ENOMEM;
    std::perror("Eror allocating buffer");
    return false;
  }
  pool.pOutputBuffer = allocated;
  pool.eOutputPort = OutputPort::Ready;
  return true;
}

bool DecoderPool::Steps::StartExecuting() {
  while (pool.nAnswersOwed > 0) AwaitCommand();
  pool.eIdle = Idle::Certain;
  pool.lastError = Send(OMX_CommandStateSet, OMX_StateExecuting);
  if (pool.lastError != OMX_ErrorNone) {
    std::printf("Error switching to State Executing %s \n", OmxErrorDescription(pool.lastError));
    return false;
  }
  AwaitCommand();
  pool.nCurrentWidth = firstWidth;
  pool.nCurrentHeight = firstHeight;
  return true;
}

/// @return false when the component stays as it is: it refused to leave its state
bool DecoderPool::Steps::TakeDownComponent() {
  if (pool.eIdle != Idle::NotAsked) {
    SettleAnswers();
    if (pool.bReady) FlushOutputPort();
    ReleaseInputBuffers();
    ReleaseOutputBuffer();
    if (!LeaveState()) {
      std::puts("OMX_SendCommand failed");
      return false;
    }
  }
  OMX_FreeHandle(pool.hDecoder);
  return true;
}

/// Takes the answers that have come, so that none is taken for the answer to a later command. What
/// was waited for in vain is not waited for again.
void DecoderPool::Steps::SettleAnswers() {
  while (common::TakePosted(pool.semCommandDone) == common::WaitResult::Done)
    if (pool.nAnswersOwed > 0) --pool.nAnswersOwed;
  if (pool.bWaitedInVain) pool.nAnswersOwed = StuckCommands();
}

void DecoderPool::Steps::FlushOutputPort() {
  const bool sent = Send(OMX_CommandFlush, pool.nOutputPort) == OMX_ErrorNone;
  std::puts("Sending command!");
  if (sent) AwaitCommands();
  std::puts("Finished waiting!");
}

void DecoderPool::Steps::ReleaseInputBuffers() {
  // On an enabled port the release would be an error event. Without the disable the buffers wait
  // for the way to Loaded.
  if (!pool.bInputEnabled || Send(OMX_CommandPortDisable, pool.nInputPort) != OMX_ErrorNone) return;
  pool.bInputEnabled = false;
  for (std::int32_t i = 0; i < pool.nInputBuffers; ++i) {
    if (pool.ppInputBuffers[i] == nullptr) continue;
    pool.lastError = OMX_FreeBuffer(pool.hDecoder, pool.nInputPort, pool.ppInputBuffers[i]);
    if (pool.lastError == OMX_ErrorNone)
      pool.ppInputBuffers[i] = nullptr;
    else
      std::printf("OMX_FreeBuffer input port error: %s !\n", OmxErrorDescription(pool.lastError));
  }
  AwaitCommands();
}

void DecoderPool::Steps::ReleaseOutputBuffer() {
  // While the port waits for a buffer that could not be had, a disable would have to wait as well.
  const bool lacking = pool.eOutputPort == OutputPort::Enabling && pool.pOutputBuffer == nullptr;
  if (lacking && pool.eIdle == Idle::Certain) return;
  if (pool.eOutputPort != OutputPort::Disabling &&
      Send(OMX_CommandPortDisable, pool.nOutputPort) != OMX_ErrorNone)
    return;
  pool.eOutputPort = OutputPort::Disabling;
  if (pool.pOutputBuffer != nullptr) {
    pool.lastError = OMX_FreeBuffer(pool.hDecoder, pool.nOutputPort, pool.pOutputBuffer);
    if (pool.lastError == OMX_ErrorNone)
      pool.pOutputBuffer = nullptr;
    else
      std::printf("OMX_FreeBuffer output port error: %s !\n", OmxErrorDescription(pool.lastError));
  }
  AwaitCommands();
}

/// Back to Loaded, from where setup got to.
bool DecoderPool::Steps::LeaveState() {
  if (pool.bReady) {
    pool.lastError = Send(OMX_CommandStateSet, OMX_StateIdle);
    if (pool.lastError != OMX_ErrorNone) return false;
  } else if (KeptFromIdle()) {
    // A disable was refused. The component is in Loaded still.
    return true;
  }
  AwaitCommands();
  pool.lastError = Send(OMX_CommandStateSet, OMX_StateLoaded);
  if (pool.lastError != OMX_ErrorNone) return false;
  if (ReleaseLeftBuffers()) {
    AwaitCommands();
    // A late answer to an earlier command may have been taken for the one to this.
    common::WaitWithoutLimit(pool.semLoaded);
  }
  return true;
}

/// Frees what is left, now that the component lets go of it in any case.
/// @return whether nothing is left
bool DecoderPool::Steps::ReleaseLeftBuffers() {
  bool released = true;
  const auto release = [&](OMX_U32 port, OMX_BUFFERHEADERTYPE*& buffer) {
    if (buffer == nullptr) return;
    if (OMX_FreeBuffer(pool.hDecoder, port, buffer) == OMX_ErrorNone)
      buffer = nullptr;
    else
      released = false;
  };
  for (std::int32_t i = 0; i < pool.nInputBuffers; ++i)
    release(pool.nInputPort, pool.ppInputBuffers[i]);
  release(pool.nOutputPort, pool.pOutputBuffer);
  return released;
}

/// Whether the component cannot reach Idle, since an enabled port lacks its buffers.
bool DecoderPool::Steps::KeptFromIdle() const {
  return pool.eIdle == Idle::Asked &&
         (pool.bInputEnabled || pool.eOutputPort != OutputPort::Disabling);
}

/// How many of the commands under way cannot complete: the change to Idle, a disable while the port
/// has a buffer left, an enable while it lacks one (in Loaded a port needs none).
std::int32_t DecoderPool::Steps::StuckCommands() const {
  std::int32_t stuck = KeptFromIdle() ? 1 : 0;
  const auto left = [](const OMX_BUFFERHEADERTYPE* buffer) { return buffer != nullptr; };
  if (!pool.bInputEnabled &&
      std::any_of(pool.ppInputBuffers, pool.ppInputBuffers + pool.nInputBuffers, left))
    ++stuck;
  if (pool.eOutputPort == OutputPort::Disabling && left(pool.pOutputBuffer)) ++stuck;
  if (pool.eOutputPort == OutputPort::Enabling && !left(pool.pOutputBuffer) &&
      pool.eIdle == Idle::Certain)
    ++stuck;
  return stuck;
}

/// Takes as many completions as are owed and can come.
void DecoderPool::Steps::AwaitCommands() {
  while (pool.nAnswersOwed > StuckCommands()) AwaitCommand();
}

OMX_ERRORTYPE DecoderPool::Steps::Send(OMX_COMMANDTYPE command, OMX_U32 parameter) {
  const OMX_ERRORTYPE error = OMX_SendCommand(pool.hDecoder, command, parameter, nullptr);
  if (error == OMX_ErrorNone) ++pool.nAnswersOwed;
  return error;
}

/// A refused command is passed over: nobody would answer it. @return whether it was accepted
bool DecoderPool::Steps::SendAndAwait(OMX_COMMANDTYPE command, OMX_U32 parameter) {
  if (Send(command, parameter) != OMX_ErrorNone) return false;
  AwaitCommand();
  return true;
}

/// Takes whichever completion comes next.
void DecoderPool::Steps::AwaitCommand() {
  common::WaitWithoutLimit(pool.semCommandDone);
  --pool.nAnswersOwed;
}

OMX_ERRORTYPE DecoderPool::Steps::SetImageFormat(OMX_U32 port, OMX_IMAGE_CODINGTYPE coding,
                                                 OMX_COLOR_FORMATTYPE color) {
  auto format = common::MakeOmxStructure<OMX_IMAGE_PARAM_PORTFORMATTYPE>(port);
  format.eCompressionFormat = coding;
  format.eColorFormat = color;
  return OMX_SetParameter(pool.hDecoder, OMX_IndexParamImagePortFormat, &format);
}

OMX_ERRORTYPE DecoderPool::Steps::ReadPort(OMX_U32 port) {
  common::FillOmxHeader(pool.portDef);
  pool.portDef.nPortIndex = port;
  return OMX_GetParameter(pool.hDecoder, OMX_IndexParamPortDefinition, &pool.portDef);
}
