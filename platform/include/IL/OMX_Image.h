#ifndef OMX_Image_h
#define OMX_Image_h

#include "OMX_IVCommon.h"

typedef enum OMX_IMAGE_CODINGTYPE {
  OMX_IMAGE_CodingUnused,
  OMX_IMAGE_CodingAutoDetect,
  OMX_IMAGE_CodingJPEG,
  OMX_IMAGE_CodingJPEG2K,
  OMX_IMAGE_CodingEXIF,
  OMX_IMAGE_CodingTIFF,
  OMX_IMAGE_CodingGIF,
  OMX_IMAGE_CodingPNG,
  OMX_IMAGE_CodingLZW,
  OMX_IMAGE_CodingBMP,
  OMX_IMAGE_CodingKhronosExtensions = 0x6F000000,
  OMX_IMAGE_CodingVendorStartUnused = 0x7F000000,
  OMX_IMAGE_CodingMax = 0x7FFFFFFF
} OMX_IMAGE_CODINGTYPE;

/// The image view of a port. Widths and heights count pixels; nStride counts bytes from row to row
/// (of the luma plane, where the format is planar), nSliceHeight rows from plane to plane.
typedef struct OMX_IMAGE_PORTDEFINITIONTYPE {
  OMX_STRING cMIMEType;
  OMX_NATIVE_DEVICETYPE pNativeRender;
  OMX_U32 nFrameWidth;
  OMX_U32 nFrameHeight;
  OMX_S32 nStride;
  OMX_U32 nSliceHeight;
  OMX_BOOL bFlagErrorConcealment;
  OMX_IMAGE_CODINGTYPE eCompressionFormat;
  OMX_COLOR_FORMATTYPE eColorFormat;
  OMX_NATIVE_WINDOWTYPE pNativeWindow;
} OMX_IMAGE_PORTDEFINITIONTYPE;

typedef struct OMX_IMAGE_PARAM_PORTFORMATTYPE {
  OMX_U32 nSize;
  OMX_VERSIONTYPE nVersion;
  OMX_U32 nPortIndex;
  OMX_U32 nIndex;  ///< reading: which of the supported formats; ignored on writing
  OMX_IMAGE_CODINGTYPE eCompressionFormat;
  OMX_COLOR_FORMATTYPE eColorFormat;
} OMX_IMAGE_PARAM_PORTFORMATTYPE;

/// JPEG quality, 1 to 100.
typedef struct OMX_IMAGE_PARAM_QFACTORTYPE {
  OMX_U32 nSize;
  OMX_VERSIONTYPE nVersion;
  OMX_U32 nPortIndex;
  OMX_U32 nQFactor;
} OMX_IMAGE_PARAM_QFACTORTYPE;

OMX_SIZE_ON_32_BITS(OMX_IMAGE_PORTDEFINITIONTYPE, 40);
OMX_SIZE_ON_32_BITS(OMX_IMAGE_PARAM_PORTFORMATTYPE, 24);
OMX_SIZE_ON_32_BITS(OMX_IMAGE_PARAM_QFACTORTYPE, 16);

#endif
