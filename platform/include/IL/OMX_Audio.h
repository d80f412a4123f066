#ifndef OMX_Audio_h
#define OMX_Audio_h

#include "OMX_Core.h"

/// As much of the audio domain as the port definition needs: no component of this platform has
/// audio ports.
typedef enum OMX_AUDIO_CODINGTYPE {
  OMX_AUDIO_CodingUnused,
  OMX_AUDIO_CodingAutoDetect,
  OMX_AUDIO_CodingPCM,
  OMX_AUDIO_CodingKhronosExtensions = 0x6F000000,
  OMX_AUDIO_CodingVendorStartUnused = 0x7F000000,
  OMX_AUDIO_CodingMax = 0x7FFFFFFF
} OMX_AUDIO_CODINGTYPE;

typedef struct OMX_AUDIO_PORTDEFINITIONTYPE {
  OMX_STRING cMIMEType;
  OMX_NATIVE_DEVICETYPE pNativeRender;
  OMX_BOOL bFlagErrorConcealment;
  OMX_AUDIO_CODINGTYPE eEncoding;
} OMX_AUDIO_PORTDEFINITIONTYPE;

#endif
