#ifndef OMX_Other_h
#define OMX_Other_h

#include "OMX_Core.h"

/// As much of the other domain as the port definition needs: no component of this platform has
/// such ports.
typedef enum OMX_OTHER_FORMATTYPE {
  OMX_OTHER_FormatTime,
  OMX_OTHER_FormatPower,
  OMX_OTHER_FormatStats,
  OMX_OTHER_FormatBinary,
  OMX_OTHER_FormatVendorReserved = 1000,
  OMX_OTHER_FormatKhronosExtensions = 0x6F000000,
  OMX_OTHER_FormatVendorStartUnused = 0x7F000000,
  OMX_OTHER_FormatMax = 0x7FFFFFFF
} OMX_OTHER_FORMATTYPE;

typedef struct OMX_OTHER_PORTDEFINITIONTYPE {
  OMX_OTHER_FORMATTYPE eFormat;
} OMX_OTHER_PORTDEFINITIONTYPE;

#endif
