#include <tessera/Diagnostics.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "common/OmxErrorLine.h"

const char* OmxErrorDescription(OMX_ERRORTYPE code) {
  switch (code) {
    case OMX_ErrorNone:
      return "None";
    case OMX_ErrorInsufficientResources:
      return "There were insufficient resources to perform the requested operation";
    case OMX_ErrorUndefined:
      return "The cause of the error could not be determined";
    case OMX_ErrorInvalidComponentName:
      return "The component name string was not valid";
    case OMX_ErrorComponentNotFound:
      return "No component with the specified name string was found";
    case OMX_ErrorInvalidComponent:
      return "The component specified did not have an entry point";
    case OMX_ErrorBadParameter:
      return "One or more parameters were not valid";
    case OMX_ErrorNotImplemented:
      return "The requested function is not implemented";
    case OMX_ErrorUnderflow:
      return "The buffer was emptied before the next buffer was ready";
    case OMX_ErrorOverflow:
      return "The buffer was not available when it was needed";
    case OMX_ErrorHardware:
      return "The hardware failed to respond as expected";
    case OMX_ErrorInvalidState:
      return "The component is in invalid state";
    case OMX_ErrorStreamCorrupt:
      return "Stream is found to be corrupt";
    case OMX_ErrorPortsNotCompatible:
      return "Ports being connected are not compatible";
    case OMX_ErrorResourcesLost:
      return "Resources allocated to an idle component have been lost";
    case OMX_ErrorNoMore:
      return "No more indices can be enumerated";
    case OMX_ErrorVersionMismatch:
      return "The component detected a version mismatch";
    case OMX_ErrorNotReady:
      return "The component is not ready to return data at this time";
    case OMX_ErrorTimeout:
      return "There was a timeout that occurred";
    case OMX_ErrorSameState:
      return "This error occurs when trying to transition into the state you are already in";
    case OMX_ErrorResourcesPreempted:
      return "Resources allocated to an executing or paused component have been preempted";
    case OMX_ErrorPortUnresponsiveDuringAllocation:
      return "Waited an unusually long time for the supplier to allocate buffers";
    case OMX_ErrorPortUnresponsiveDuringDeallocation:
      return "Waited an unusually long time for the supplier to de-allocate buffers";
    case OMX_ErrorPortUnresponsiveDuringStop:
      return "Waited an unusually long time for the non-supplier to return a buffer during stop";
    case OMX_ErrorIncorrectStateTransition:
      return "Attempting a state transition that is not allowed";
    case OMX_ErrorIncorrectStateOperation:
      return "Attempting a command that is not allowed during the present state";
    case OMX_ErrorUnsupportedSetting:
      return "The values encapsulated in the parameter or config structure are not supported";
    case OMX_ErrorUnsupportedIndex:
      return "The parameter or config indicated by the given index is not supported";
    case OMX_ErrorBadPortIndex:
      return "The port index supplied is incorrect";
    case OMX_ErrorPortUnpopulated:
      return "The port has lost one or more of its buffers and it thus unpopulated";
    case OMX_ErrorComponentSuspended:
      return "Component suspended due to temporary loss of resources";
    case OMX_ErrorDynamicResourcesUnavailable:
      return "Component suspended due to an inability to acquire dynamic resources";
    case OMX_ErrorMbErrorsInFrame:
      return "Frame generated macroblock error";
    case OMX_ErrorFormatNotDetected:
      return "Cannot parse or determine the format of an input stream";
    case OMX_ErrorContentPipeOpenFailed:
      return "The content open operation failed";
    case OMX_ErrorContentPipeCreationFailed:
      return "The content creation operation failed";
    case OMX_ErrorSeperateTablesUsed:
      return "Separate table information is being used";
    case OMX_ErrorTunnelingUnsupported:
      return "Tunneling is unsupported by the component";
    default:
      return "Unknown error";
  }
}

void printState(OMX_HANDLETYPE hComponent) {
  OMX_STATETYPE state = OMX_StateInvalid;
  if (hComponent == nullptr || OMX_GetState(hComponent, &state) != OMX_ErrorNone) {
    std::fprintf(stderr, "Error on getting state\n");
    std::exit(1);
  }
  switch (state) {
    case OMX_StateLoaded:
      std::puts("StateLoaded");
      break;
    case OMX_StateIdle:
      std::puts("StateIdle");
      break;
    case OMX_StateExecuting:
      std::puts("StateExecuting");
      break;
    case OMX_StatePause:
      std::puts("StatePause");
      break;
    case OMX_StateWaitForResources:
      std::puts("StateWiat");
      break;
    default:
      std::puts("State unknown");
      break;
  }
}

int DumpPortDefs(OMX_PARAM_PORTDEFINITIONTYPE* portDef) {
  const OMX_IMAGE_PORTDEFINITIONTYPE& image = portDef->format.image;
  const auto number = [](auto value) { return static_cast<int>(value); };
  const auto address = [](const void* pointer) {
    return static_cast<int>(reinterpret_cast<std::intptr_t>(pointer));
  };
  return std::printf(
      " nSize [%d] \n"
      " nVersion [%x] \n"
      " nIndex[%d] \n"
      " nBufferCountActual[%d] \n"
      " nBufferCountMin[%d] \n"
      " nBufferSize[%d] \n"
      " bEnabled[%d] \n"
      "  bPopulated[%d] \n"
      " eDomain[%d] \n"
      "           MIME[%s] \n"
      " pNativeRender[%d] \n"
      " bFlagError[%d] \n"
      " pNativeWindow[%d] \n"
      " format.width[%d] \n"
      " format.height[%d] \n"
      " format.nStride[%d] \n"
      " format.nSlieHeight[%d] \n"
      " compression[%x] \n"
      "             color[%x] \n"
      " bBuffersContiguous[%d] \n"
      " nBufferAlignment[%d] \n",
      number(portDef->nSize), portDef->nVersion.nVersion, number(portDef->nPortIndex),
      number(portDef->nBufferCountActual), number(portDef->nBufferCountMin),
      number(portDef->nBufferSize), number(portDef->bEnabled), number(portDef->bPopulated),
      number(portDef->eDomain), image.cMIMEType != nullptr ? image.cMIMEType : "(null)",
      address(image.pNativeRender), number(image.bFlagErrorConcealment),
      address(image.pNativeWindow), number(image.nFrameWidth), number(image.nFrameHeight),
      number(image.nStride), number(image.nSliceHeight),
      static_cast<unsigned int>(image.eCompressionFormat),
      static_cast<unsigned int>(image.eColorFormat), number(portDef->bBuffersContiguous),
      number(portDef->nBufferAlignment));
}

void PrintOmxError(const char* label, OMX_ERRORTYPE error) {
  common::WriteOmxErrorLine(label, error, common::ShortOmxErrorText(error));
}
