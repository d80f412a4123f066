#include <tessera/Diagnostics.h>

#include <cstdio>
#include <cstdlib>

#include "common/OmxStructure.h"
#include "jpeg_decode/Steps.h"

namespace {

void PrintNewState(OMX_U32 state) {
  // One call a line, so that other threads cannot print in between.
  if (const char* const name = common::OmxStateName(state))
    std::printf("State changed to: %s\n", name);
  else
    std::printf("State changed to: command [%d] \n", static_cast<int>(state));
}

[[noreturn]] void EndProcess(OMX_U32 code) {
  std::printf("unrecoverable error: %s (0x%x) \n",
              OmxErrorDescription(static_cast<OMX_ERRORTYPE>(static_cast<OMX_S32>(code))), code);
  std::fflush(stdout);
  // exit() would destroy what the application's other threads are still using, and a pool with
  // static storage on the component's own thread.
  std::_Exit(1);
}

// The decode cycle sees by a buffer's nFilledLen that it is free again.
OMX_ERRORTYPE EmptyBufferDone(OMX_HANDLETYPE, OMX_PTR, OMX_BUFFERHEADERTYPE*) {
  return OMX_ErrorNone;
}

OMX_ERRORTYPE FillBufferDone(OMX_HANDLETYPE, OMX_PTR pAppData, OMX_BUFFERHEADERTYPE*) {
  if (auto* pool = static_cast<DecoderPool*>(pAppData)) DecoderPool::Steps(*pool).SignalFillDone();
  return OMX_ErrorNone;
}

}  // namespace

OMX_CALLBACKTYPE videodeccallbacks = {EventHandler, EmptyBufferDone, FillBufferDone};

OMX_ERRORTYPE EventHandler(OMX_HANDLETYPE, OMX_PTR pAppData, OMX_EVENTTYPE eEvent, OMX_U32 nData1,
                           OMX_U32 nData2, OMX_PTR) {
  if (pAppData == nullptr) return OMX_ErrorNone;
  DecoderPool::Steps steps(*static_cast<DecoderPool*>(pAppData));
  switch (eEvent) {
    case OMX_EventCmdComplete:
      if (nData1 == OMX_CommandStateSet) PrintNewState(nData2);
      steps.SignalCommandDone();
      if (nData1 == OMX_CommandStateSet && nData2 == OMX_StateLoaded) steps.SignalLoaded();
      break;
    case OMX_EventPortSettingsChanged:
      steps.SignalPortSettingsChanged();
      break;
    case OMX_EventBufferFlag:
      break;
    case OMX_EventError:
      EndProcess(nData1);
    default:
      std::printf("unhandled event, param1 = %i, param2 = %i", static_cast<int>(nData1),
                  static_cast<int>(nData2));
      break;
  }
  return OMX_ErrorNone;
}
