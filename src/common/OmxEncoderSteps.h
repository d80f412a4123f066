#ifndef TESSERA_SRC_COMMON_OMXENCODERSTEPS_H
#define TESSERA_SRC_COMMON_OMXENCODERSTEPS_H

#include <IL/OMX_Component.h>

#include <initializer_list>

#include "common/OmxStructure.h"

/// What both OpenMAX IL encoders do in the same way. Each keeps its own labels and its own
/// PrintOmxError, and hands them in.
using OmxErrorPrinter = void (*)(const char* label, OMX_ERRORTYPE error);

/// Reads a port's definition into a cleared structure.
OMX_ERRORTYPE ReadOmxPort(OMX_HANDLETYPE component, OMX_U32 port,
                          OMX_PARAM_PORTDEFINITIONTYPE& definition);

/// Calls `visit(port)` for every port of the component, audio, video, image and other ones in this
/// order, until it answers false. Domains that the component does not know are passed over.
/// @return false when a visit ended the walk
template <typename Visit>
bool ForEachOmxPort(OMX_HANDLETYPE component, Visit&& visit) {
  for (const OMX_INDEXTYPE domain : {OMX_IndexParamAudioInit, OMX_IndexParamVideoInit,
                                     OMX_IndexParamImageInit, OMX_IndexParamOtherInit}) {
    auto ports = MakeOmxStructure<OMX_PORT_PARAM_TYPE>();
    if (OMX_GetParameter(component, domain, &ports) != OMX_ErrorNone) continue;
    for (OMX_U32 i = 0; i < ports.nPorts; ++i)
      if (!visit(ports.nStartPortNumber + i)) return false;
  }
  return true;
}

/// Labels of the two calls that AllocateOmxBuffer makes.
struct OmxBufferLabels {
  const char* readPort;
  const char* allocate;
};

/// Has the component allocate one buffer of the size that the port's definition asks for, unless
/// `buffer` is set already. Failures are printed and leave it null.
OMX_ERRORTYPE AllocateOmxBuffer(OMX_HANDLETYPE component, OMX_U32 port,
                                OMX_BUFFERHEADERTYPE*& buffer, const OmxBufferLabels& labels,
                                OmxErrorPrinter print);

/// Frees the buffer, if there is one, and sets it to null whatever the component answers.
/// @return whether there was one
bool FreeOmxBuffer(OMX_HANDLETYPE component, OMX_U32 port, OMX_BUFFERHEADERTYPE*& buffer,
                   const char* label, OmxErrorPrinter print);

/// Prints an event that answers nothing.
void PrintOtherOmxEvent(OMX_EVENTTYPE event);

/// Passes an event on to the encoder's signal operations. An error event other than same-state
/// answers nothing; it only cuts the wait short that is under way.
template <typename Encoder>
void PassOmxEvent(Encoder& encoder, OMX_EVENTTYPE event, OMX_U32 data, OmxErrorPrinter print) {
  if (event == OMX_EventCmdComplete) {
    if (data == OMX_CommandStateSet)
      encoder.SignalStateChanged();
    else if (data == OMX_CommandFlush)
      encoder.SignalFlushed();
    else if (data == OMX_CommandPortDisable || data == OMX_CommandPortEnable)
      encoder.SignalPortEnabledDisabled();
  } else if (event == OMX_EventError) {
    const auto error = static_cast<OMX_ERRORTYPE>(static_cast<OMX_S32>(data));
    if (error == OMX_ErrorSameState) {
      encoder.SignalStateChanged();
    } else {
      encoder.SignalComponentError();
      print("OmxEventsHandler", error);
    }
  } else {
    PrintOtherOmxEvent(event);
  }
}

#endif  // TESSERA_SRC_COMMON_OMXENCODERSTEPS_H
