#ifndef OMX_IVCommon_h
#define OMX_IVCommon_h

#include "OMX_Core.h"

/// Pixel formats that image and video ports share. The packed RGB formats with an alpha or padding
/// bit are little-endian words named from their highest bit down.
typedef enum OMX_COLOR_FORMATTYPE {
  OMX_COLOR_FormatUnused,
  OMX_COLOR_FormatMonochrome,
  OMX_COLOR_Format8bitRGB332,
  OMX_COLOR_Format12bitRGB444,
  OMX_COLOR_Format16bitARGB4444,
  OMX_COLOR_Format16bitARGB1555,
  OMX_COLOR_Format16bitRGB565,  // red in bits 15..11, green 10..5, blue 4..0
  OMX_COLOR_Format16bitBGR565,
  OMX_COLOR_Format18bitRGB666,
  OMX_COLOR_Format18bitARGB1665,
  OMX_COLOR_Format19bitARGB1666,
  OMX_COLOR_Format24bitRGB888,
  OMX_COLOR_Format24bitBGR888,
  OMX_COLOR_Format24bitARGB1887,  // alpha in bit 23, red 22..15, green 14..7, blue 6..0
  OMX_COLOR_Format25bitARGB1888,
  OMX_COLOR_Format32bitBGRA8888,
  OMX_COLOR_Format32bitARGB8888,  // alpha in bits 31..24, then red, green, blue
  OMX_COLOR_FormatYUV411Planar,
  OMX_COLOR_FormatYUV411PackedPlanar,
  OMX_COLOR_FormatYUV420Planar,
  OMX_COLOR_FormatYUV420PackedPlanar,  // per slice: Y, then U, then V at half stride
  OMX_COLOR_FormatYUV420SemiPlanar,
  OMX_COLOR_FormatYUV422Planar,
  OMX_COLOR_FormatYUV422PackedPlanar,
  OMX_COLOR_FormatYUV422SemiPlanar,
  OMX_COLOR_FormatYCbYCr,  // bytes Y Cb Y Cr
  OMX_COLOR_FormatYCrYCb,
  OMX_COLOR_FormatCbYCrY,
  OMX_COLOR_FormatCrYCbY,
  OMX_COLOR_FormatYUV444Interleaved,
  OMX_COLOR_FormatRawBayer8bit,
  OMX_COLOR_FormatRawBayer10bit,
  OMX_COLOR_FormatRawBayer8bitcompressed,
  OMX_COLOR_FormatL2,
  OMX_COLOR_FormatL4,
  OMX_COLOR_FormatL8,
  OMX_COLOR_FormatL16,
  OMX_COLOR_FormatL24,
  OMX_COLOR_FormatL32,
  OMX_COLOR_FormatYUV420PackedSemiPlanar,
  OMX_COLOR_FormatYUV422PackedSemiPlanar,
  OMX_COLOR_Format18BitBGR666,
  OMX_COLOR_Format24BitARGB6666,
  OMX_COLOR_Format24BitABGR6666,
  OMX_COLOR_FormatKhronosExtensions = 0x6F000000,
  OMX_COLOR_FormatVendorStartUnused = 0x7F000000,
  OMX_COLOR_FormatMax = 0x7FFFFFFF
} OMX_COLOR_FORMATTYPE;

/// Asks a video encoder to make its next frame a key frame.
typedef struct OMX_CONFIG_INTRAREFRESHVOPTYPE {
  OMX_U32 nSize;
  OMX_VERSIONTYPE nVersion;
  OMX_U32 nPortIndex;
  OMX_BOOL IntraRefreshVOP;
} OMX_CONFIG_INTRAREFRESHVOPTYPE;

#endif
