#include "common/OmxErrorLine.h"

#include <cinttypes>
#include <cstdio>

namespace common {

const char* ShortOmxErrorText(OMX_ERRORTYPE error) {
  switch (error) {
    case OMX_ErrorNone:
      return "success";
    case OMX_ErrorInsufficientResources:
      return "there were insufficient resources to perform the requested operation";
    case OMX_ErrorBadParameter:
      return "one or more parameters were not valid";
    case OMX_ErrorHardware:
      return "the hardware failed to respond as expected";
    case OMX_ErrorStreamCorrupt:
      return "stream is found to be corrupt";
    case OMX_ErrorSameState:
      return "the same state";
    case OMX_ErrorIncorrectStateTransition:
      return "attempting a state transtion that is not allowed";
    case OMX_ErrorIncorrectStateOperation:
      return "invalid state while trying to perform command.";
    case OMX_ErrorBadPortIndex:
      return "the port index supplied is incorrect.";
    default:
      return "(no description).";
  }
}

void WriteOmxErrorLine(const char* label, OMX_ERRORTYPE error, const char* text) {
  // One call, so that lines of two threads stay whole.
  std::fprintf(stderr, "%s - 0x%08" PRIx32 ":%s\n", label, static_cast<std::uint32_t>(error), text);
  std::fflush(stderr);
}

}  // namespace common
