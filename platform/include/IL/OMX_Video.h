#ifndef OMX_Video_h
#define OMX_Video_h

#include "OMX_IVCommon.h"

typedef enum OMX_VIDEO_CODINGTYPE {
  OMX_VIDEO_CodingUnused,
  OMX_VIDEO_CodingAutoDetect,
  OMX_VIDEO_CodingMPEG2,
  OMX_VIDEO_CodingH263,
  OMX_VIDEO_CodingMPEG4,
  OMX_VIDEO_CodingWMV,
  OMX_VIDEO_CodingRV,
  OMX_VIDEO_CodingAVC,
  OMX_VIDEO_CodingMJPEG,
  OMX_VIDEO_CodingKhronosExtensions = 0x6F000000,
  OMX_VIDEO_CodingVendorStartUnused = 0x7F000000,
  OMX_VIDEO_CodingMax = 0x7FFFFFFF
} OMX_VIDEO_CODINGTYPE;

/// The video view of a port. Units as in OMX_IMAGE_PORTDEFINITIONTYPE; nBitrate counts bits a
/// second, xFramerate frames a second in Q16.
typedef struct OMX_VIDEO_PORTDEFINITIONTYPE {
  OMX_STRING cMIMEType;
  OMX_NATIVE_DEVICETYPE pNativeRender;
  OMX_U32 nFrameWidth;
  OMX_U32 nFrameHeight;
  OMX_S32 nStride;
  OMX_U32 nSliceHeight;
  OMX_U32 nBitrate;
  OMX_U32 xFramerate;
  OMX_BOOL bFlagErrorConcealment;
  OMX_VIDEO_CODINGTYPE eCompressionFormat;
  OMX_COLOR_FORMATTYPE eColorFormat;
  OMX_NATIVE_WINDOWTYPE pNativeWindow;
} OMX_VIDEO_PORTDEFINITIONTYPE;

typedef struct OMX_VIDEO_PARAM_PORTFORMATTYPE {
  OMX_U32 nSize;
  OMX_VERSIONTYPE nVersion;
  OMX_U32 nPortIndex;
  OMX_U32 nIndex;  ///< reading: which of the supported formats; ignored on writing
  OMX_VIDEO_CODINGTYPE eCompressionFormat;
  OMX_COLOR_FORMATTYPE eColorFormat;
  OMX_U32 xFramerate;  ///< Q16; 0: leave as it is
} OMX_VIDEO_PARAM_PORTFORMATTYPE;

typedef enum OMX_VIDEO_CONTROLRATETYPE {
  OMX_Video_ControlRateDisable,  ///< constant quality
  OMX_Video_ControlRateVariable,
  OMX_Video_ControlRateConstant,
  OMX_Video_ControlRateVariableSkipFrames,
  OMX_Video_ControlRateConstantSkipFrames,
  OMX_Video_ControlRateKhronosExtensions = 0x6F000000,
  OMX_Video_ControlRateVendorStartUnused = 0x7F000000,
  OMX_Video_ControlRateMax = 0x7FFFFFFF
} OMX_VIDEO_CONTROLRATETYPE;

typedef struct OMX_VIDEO_PARAM_BITRATETYPE {
  OMX_U32 nSize;
  OMX_VERSIONTYPE nVersion;
  OMX_U32 nPortIndex;
  OMX_VIDEO_CONTROLRATETYPE eControlRate;
  OMX_U32 nTargetBitrate;  ///< bits a second
} OMX_VIDEO_PARAM_BITRATETYPE;

typedef enum OMX_VIDEO_AVCPROFILETYPE {
  OMX_VIDEO_AVCProfileBaseline = 0x01,
  OMX_VIDEO_AVCProfileMain = 0x02,
  OMX_VIDEO_AVCProfileExtended = 0x04,
  OMX_VIDEO_AVCProfileHigh = 0x08,
  OMX_VIDEO_AVCProfileHigh10 = 0x10,
  OMX_VIDEO_AVCProfileHigh422 = 0x20,
  OMX_VIDEO_AVCProfileHigh444 = 0x40,
  OMX_VIDEO_AVCProfileKhronosExtensions = 0x6F000000,
  OMX_VIDEO_AVCProfileVendorStartUnused = 0x7F000000,
  OMX_VIDEO_AVCProfileMax = 0x7FFFFFFF
} OMX_VIDEO_AVCPROFILETYPE;

typedef enum OMX_VIDEO_AVCLEVELTYPE {
  OMX_VIDEO_AVCLevel1 = 0x01,
  OMX_VIDEO_AVCLevel1b = 0x02,
  OMX_VIDEO_AVCLevel11 = 0x04,
  OMX_VIDEO_AVCLevel12 = 0x08,
  OMX_VIDEO_AVCLevel13 = 0x10,
  OMX_VIDEO_AVCLevel2 = 0x20,
  OMX_VIDEO_AVCLevel21 = 0x40,
  OMX_VIDEO_AVCLevel22 = 0x80,
  OMX_VIDEO_AVCLevel3 = 0x100,
  OMX_VIDEO_AVCLevel31 = 0x200,
  OMX_VIDEO_AVCLevel32 = 0x400,
  OMX_VIDEO_AVCLevel4 = 0x800,
  OMX_VIDEO_AVCLevel41 = 0x1000,
  OMX_VIDEO_AVCLevel42 = 0x2000,
  OMX_VIDEO_AVCLevel5 = 0x4000,
  OMX_VIDEO_AVCLevel51 = 0x8000,
  OMX_VIDEO_AVCLevelKhronosExtensions = 0x6F000000,
  OMX_VIDEO_AVCLevelVendorStartUnused = 0x7F000000,
  OMX_VIDEO_AVCLevelMax = 0x7FFFFFFF
} OMX_VIDEO_AVCLEVELTYPE;

typedef enum OMX_VIDEO_AVCLOOPFILTERTYPE {
  OMX_VIDEO_AVCLoopFilterEnable,
  OMX_VIDEO_AVCLoopFilterDisable,
  OMX_VIDEO_AVCLoopFilterDisableSliceBoundary,
  OMX_VIDEO_AVCLoopFilterKhronosExtensions = 0x6F000000,
  OMX_VIDEO_AVCLoopFilterVendorStartUnused = 0x7F000000,
  OMX_VIDEO_AVCLoopFilterMax = 0x7FFFFFFF
} OMX_VIDEO_AVCLOOPFILTERTYPE;

/// H.264 settings. nPFrames is the number of frames between two key frames.
typedef struct OMX_VIDEO_PARAM_AVCTYPE {
  OMX_U32 nSize;
  OMX_VERSIONTYPE nVersion;
  OMX_U32 nPortIndex;
  OMX_U32 nSliceHeaderSpacing;
  OMX_U32 nPFrames;
  OMX_U32 nBFrames;
  OMX_BOOL bUseHadamard;
  OMX_U32 nRefFrames;
  OMX_U32 nRefIdx10ActiveMinus1;
  OMX_U32 nRefIdx11ActiveMinus1;
  OMX_BOOL bEnableUEP;
  OMX_BOOL bEnableFMO;
  OMX_BOOL bEnableASO;
  OMX_BOOL bEnableRS;
  OMX_VIDEO_AVCPROFILETYPE eProfile;
  OMX_VIDEO_AVCLEVELTYPE eLevel;
  OMX_U32 nAllowedPictureTypes;
  OMX_BOOL bFrameMBsOnly;
  OMX_BOOL bMBAFF;
  OMX_BOOL bEntropyCodingCABAC;
  OMX_BOOL bWeightedPPrediction;
  OMX_U32 nWeightedBipredicitonMode;
  OMX_BOOL bconstIpred;
  OMX_BOOL bDirect8x8Inference;
  OMX_BOOL bDirectSpatialTemporal;
  OMX_U32 nCabacInitIdc;
  OMX_VIDEO_AVCLOOPFILTERTYPE eLoopFilterMode;
} OMX_VIDEO_PARAM_AVCTYPE;

OMX_SIZE_ON_32_BITS(OMX_VIDEO_PORTDEFINITIONTYPE, 48);
OMX_SIZE_ON_32_BITS(OMX_VIDEO_PARAM_PORTFORMATTYPE, 28);
OMX_SIZE_ON_32_BITS(OMX_VIDEO_PARAM_BITRATETYPE, 20);
OMX_SIZE_ON_32_BITS(OMX_VIDEO_PARAM_AVCTYPE, 108);

#endif
