#ifndef TESSERA_SRC_COMMON_OMXERRORLINE_H
#define TESSERA_SRC_COMMON_OMXERRORLINE_H

#include <IL/OMX_Core.h>

namespace common {

/// The encoders' short text for an OpenMAX IL status.
const char* ShortOmxErrorText(OMX_ERRORTYPE error);

/// Writes "label - 0x80001005:text" as one line to standard error.
void WriteOmxErrorLine(const char* label, OMX_ERRORTYPE error, const char* text);

}  // namespace common

#endif  // TESSERA_SRC_COMMON_OMXERRORLINE_H
