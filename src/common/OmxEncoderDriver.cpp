#include "common/OmxEncoderDriver.h"

#include <bcm_host.h>

#include "common/OmxStructure.h"
#include "common/Waits.h"

namespace common {
namespace {

constexpr OMX_INDEXTYPE domains[] = {OMX_IndexParamAudioInit, OMX_IndexParamVideoInit,
                                     OMX_IndexParamImageInit, OMX_IndexParamOtherInit};

}  // namespace

OMX_ERRORTYPE OmxPorts::Told(OMX_ERRORTYPE error, const char* label) const {
  if (error != OMX_ErrorNone) print_(label, error);
  return error;
}

OMX_ERRORTYPE OmxPorts::Get(OMX_INDEXTYPE index, OMX_PTR structure, const char* label) const {
  return Told(OMX_GetParameter(component_, index, structure), label);
}

OMX_ERRORTYPE OmxPorts::Set(OMX_INDEXTYPE index, OMX_PTR structure, const char* label) const {
  return Told(OMX_SetParameter(component_, index, structure), label);
}

OMX_ERRORTYPE OmxPorts::Read(OMX_U32 port, OMX_PARAM_PORTDEFINITIONTYPE& definition,
                             const char* label) const {
  definition = MakeOmxStructure<OMX_PARAM_PORTDEFINITIONTYPE>(port);
  if (component_ == nullptr) return Told(OMX_ErrorInvalidComponent, label);
  return Get(OMX_IndexParamPortDefinition, &definition, label);
}

OMX_ERRORTYPE OmxPorts::AllocateBuffer(OMX_U32 port, OMX_BUFFERHEADERTYPE*& buffer,
                                       const AllocateLabels& labels) const {
  OMX_PARAM_PORTDEFINITIONTYPE definition;
  OMX_ERRORTYPE error = Read(port, definition, labels.read);
  if (error != OMX_ErrorNone || buffer != nullptr) return error;
  OMX_BUFFERHEADERTYPE* allocated = nullptr;
  error = OMX_AllocateBuffer(component_, &allocated, port, nullptr, definition.nBufferSize);
  if (error == OMX_ErrorNone && allocated == nullptr) error = OMX_ErrorInsufficientResources;
  if (error == OMX_ErrorNone) buffer = allocated;
  return Told(error, labels.allocate);
}

bool OmxPorts::FreeBuffer(OMX_U32 port, OMX_BUFFERHEADERTYPE*& buffer, const char* label) const {
  if (buffer == nullptr) return false;
  Told(OMX_FreeBuffer(component_, port, buffer), label);
  buffer = nullptr;
  return true;
}

bool OmxEncoderDriver::Open(char* componentName, OMX_PTR encoder, OMX_CALLBACKTYPE& callbacks) {
  bcm_host_init();
  OMX_ERRORTYPE error = OMX_Init();
  if (error != OMX_ErrorNone) {
    print_(labels_.init, error);
    return false;
  }
  CreateSemaphores(fields_.semStateChanged, fields_.semPortEnableDisable, fields_.semFlushed,
                   fields_.semOutputFilled);
  if (fields_.semInputReturned != nullptr) CreateSemaphores(*fields_.semInputReturned);
  fields_.bStarted = true;
  OMX_HANDLETYPE component = nullptr;
  error = OMX_GetHandle(&component, componentName, encoder, &callbacks);
  if (error == OMX_ErrorNone && component == nullptr) error = OMX_ErrorInsufficientResources;
  if (error != OMX_ErrorNone) {
    print_(labels_.getHandle, error);
    return false;
  }
  fields_.hEncoder = component;
  return true;
}

Answer OmxEncoderDriver::DisablePorts() {
  for (const OMX_INDEXTYPE domain : domains) {
    auto ports = MakeOmxStructure<OMX_PORT_PARAM_TYPE>();
    if (OMX_GetParameter(fields_.hEncoder, domain, &ports) != OMX_ErrorNone) continue;
    for (OMX_U32 i = 0; i < ports.nPorts; ++i) {
      const OMX_U32 port = ports.nStartPortNumber + i;
      sem_t& answer = fields_.semPortEnableDisable;
      if (Send(OMX_CommandPortDisable, port, answer, labels_.portDisable) &&
          Await(answer, "OMX_CommandPortDisable") == Answer::Unanswered)
        return Answer::Unanswered;
    }
  }
  return Answer::Done;
}

bool OmxEncoderDriver::ReleaseBuffers() {
  const OmxPorts ports = Ports();
  const bool input = ports.FreeBuffer(fields_.nInputPort, fields_.pInputBuffer, labels_.freeInput);
  const bool output =
      ports.FreeBuffer(fields_.nOutputPort, fields_.pOutputBuffer, labels_.freeOutput);
  return input || output;
}

void OmxEncoderDriver::Close() {
  ReleaseBuffers();
  OMX_HANDLETYPE const component = fields_.hEncoder;
  fields_.hEncoder = nullptr;
  if (component != nullptr) {
    const OMX_ERRORTYPE error = OMX_FreeHandle(component);
    if (error != OMX_ErrorNone) print_(labels_.freeHandle, error);
  }
  if (fields_.bStarted) {
    OMX_Deinit();
    DestroySemaphores(fields_.semStateChanged, fields_.semPortEnableDisable, fields_.semFlushed,
                      fields_.semOutputFilled);
    if (fields_.semInputReturned != nullptr) DestroySemaphores(*fields_.semInputReturned);
    fields_.bStarted = false;
  }
  fields_.nInputPort = fields_.nOutputPort = 0;
}

Answer OmxEncoderDriver::SetState(OMX_STATETYPE state, const char* label) {
  if (!Send(OMX_CommandStateSet, state, fields_.semStateChanged, label)) return Answer::Refused;
  // In a state that is held already, the same-state error is the answer.
  return Await(fields_.semStateChanged, OmxStateName(state));
}

Answer OmxEncoderDriver::FlushPort(OMX_U32 port, const char* label) {
  if (!Send(OMX_CommandFlush, port, fields_.semFlushed, label)) return Answer::Refused;
  return Await(fields_.semFlushed, "OMX_CommandFlush");
}

Answer OmxEncoderDriver::DisablePort(OMX_U32 port, OMX_BUFFERHEADERTYPE*& buffer,
                                     const char* label) {
  sem_t& answer = fields_.semPortEnableDisable;
  if (!Send(OMX_CommandPortDisable, port, answer, label)) return Answer::Refused;
  OMX_FreeBuffer(fields_.hEncoder, port, buffer);
  buffer = nullptr;
  return Await(answer, "OMX_CommandPortDisable");
}

bool OmxEncoderDriver::Send(OMX_COMMANDTYPE command, OMX_U32 parameter, sem_t& answer,
                            const char* label) {
  Expect(answer);
  const OMX_ERRORTYPE error = OMX_SendCommand(fields_.hEncoder, command, parameter, nullptr);
  if (error != OMX_ErrorNone) print_(label, error);
  return error == OMX_ErrorNone;
}

Answer OmxEncoderDriver::Await(sem_t& answer, const char* request) {
  if (AwaitAnswer(answer, fields_.bComponentError)) return Answer::Done;
  std::fprintf(stream_, "%s - no answer to %s\n", operation_, request);
  return Answer::Unanswered;
}

void OmxEncoderDriver::Expect(sem_t& answer) {
  Empty(answer);
  fields_.bComponentError = false;
}

void PrintOtherOmxEvent(OMX_EVENTTYPE event) {
  if (event == OMX_EventBufferFlag) return;
  if (event == OMX_EventPortSettingsChanged)
    std::puts("--------- OMX_EventPortSettingsChanged");
  else
    std::printf("OmxEventsHandler  unknown event %d\n", static_cast<int>(event));
}

}  // namespace common
