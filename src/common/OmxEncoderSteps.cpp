#include "common/OmxEncoderSteps.h"

#include <cstdio>

OMX_ERRORTYPE ReadOmxPort(OMX_HANDLETYPE component, OMX_U32 port,
                          OMX_PARAM_PORTDEFINITIONTYPE& definition) {
  definition = MakeOmxStructure<OMX_PARAM_PORTDEFINITIONTYPE>(port);
  if (component == nullptr) return OMX_ErrorInvalidComponent;
  return OMX_GetParameter(component, OMX_IndexParamPortDefinition, &definition);
}

OMX_ERRORTYPE AllocateOmxBuffer(OMX_HANDLETYPE component, OMX_U32 port,
                                OMX_BUFFERHEADERTYPE*& buffer, const OmxBufferLabels& labels,
                                OmxErrorPrinter print) {
  OMX_PARAM_PORTDEFINITIONTYPE definition;
  OMX_ERRORTYPE error = ReadOmxPort(component, port, definition);
  if (error != OMX_ErrorNone) {
    print(labels.readPort, error);
    return error;
  }
  if (buffer != nullptr) return OMX_ErrorNone;
  OMX_BUFFERHEADERTYPE* allocated = nullptr;
  error = OMX_AllocateBuffer(component, &allocated, port, nullptr, definition.nBufferSize);
  if (error == OMX_ErrorNone && allocated == nullptr) error = OMX_ErrorInsufficientResources;
  if (error != OMX_ErrorNone) {
    print(labels.allocate, error);
    return error;
  }
  buffer = allocated;
  return OMX_ErrorNone;
}

bool FreeOmxBuffer(OMX_HANDLETYPE component, OMX_U32 port, OMX_BUFFERHEADERTYPE*& buffer,
                   const char* label, OmxErrorPrinter print) {
  if (buffer == nullptr) return false;
  const OMX_ERRORTYPE error = OMX_FreeBuffer(component, port, buffer);
  if (error != OMX_ErrorNone) print(label, error);
  buffer = nullptr;
  return true;
}

void PrintOtherOmxEvent(OMX_EVENTTYPE event) {
  if (event == OMX_EventBufferFlag) return;
  if (event == OMX_EventPortSettingsChanged)
    std::puts("--------- OMX_EventPortSettingsChanged");
  else
    std::printf("OmxEventsHandler  unknown event %d\n", static_cast<int>(event));
}
