#ifndef OMX_Index_h
#define OMX_Index_h

#include "OMX_Types.h"

/// Names of the parameter and configuration structures, grouped by their upper byte. The structure
/// that belongs to an index is named in the comment where a component of this platform knows it;
/// every other index answers OMX_ErrorUnsupportedIndex.
typedef enum OMX_INDEXTYPE {
  OMX_IndexComponentStartUnused = 0x01000000,
  OMX_IndexParamPriorityMgmt,
  OMX_IndexParamAudioInit,  // OMX_PORT_PARAM_TYPE
  OMX_IndexParamImageInit,  // OMX_PORT_PARAM_TYPE
  OMX_IndexParamVideoInit,  // OMX_PORT_PARAM_TYPE
  OMX_IndexParamOtherInit,  // OMX_PORT_PARAM_TYPE
  OMX_IndexParamNumAvailableStreams,
  OMX_IndexParamActiveStream,
  OMX_IndexParamSuspensionPolicy,
  OMX_IndexParamComponentSuspended,
  OMX_IndexConfigCapturing,
  OMX_IndexConfigCaptureMode,
  OMX_IndexAutoPauseAfterCapture,
  OMX_IndexParamContentURI,
  OMX_IndexParamCustomContentPipe,
  OMX_IndexParamDisableResourceConcealment,
  OMX_IndexConfigMetadataItemCount,
  OMX_IndexConfigContainerNodeCount,
  OMX_IndexConfigMetadataItem,
  OMX_IndexConfigCounterNodeID,
  OMX_IndexParamMetadataFilterType,
  OMX_IndexParamMetadataKeyFilter,
  OMX_IndexConfigPriorityMgmt,
  OMX_IndexParamStandardComponentRole,  // OMX_PARAM_COMPONENTROLETYPE

  OMX_IndexPortStartUnused = 0x02000000,
  OMX_IndexParamPortDefinition,  // OMX_PARAM_PORTDEFINITIONTYPE
  OMX_IndexParamCompBufferSupplier,

  OMX_IndexReservedStartUnused = 0x03000000,

  OMX_IndexAudioStartUnused = 0x04000000,
  OMX_IndexParamAudioPortFormat,

  OMX_IndexImageStartUnused = 0x05000000,
  OMX_IndexParamImagePortFormat,  // OMX_IMAGE_PARAM_PORTFORMATTYPE
  OMX_IndexParamFlashControl,
  OMX_IndexConfigFocusControl,
  OMX_IndexParamQFactor,  // OMX_IMAGE_PARAM_QFACTORTYPE
  OMX_IndexParamQuantizationTable,
  OMX_IndexParamHuffmanTable,
  OMX_IndexConfigFlashControl,

  OMX_IndexVideoStartUnused = 0x06000000,
  OMX_IndexParamVideoPortFormat,  // OMX_VIDEO_PARAM_PORTFORMATTYPE
  OMX_IndexParamVideoQuantization,
  OMX_IndexParamVideoFastUpdate,
  OMX_IndexParamVideoBitrate,  // OMX_VIDEO_PARAM_BITRATETYPE
  OMX_IndexParamVideoMotionVector,
  OMX_IndexParamVideoIntraRefresh,
  OMX_IndexParamVideoErrorCorrection,
  OMX_IndexParamVideoVBSMC,
  OMX_IndexParamVideoMpeg2,
  OMX_IndexParamVideoMpeg4,
  OMX_IndexParamVideoWmv,
  OMX_IndexParamVideoRv,
  OMX_IndexParamVideoAvc,  // OMX_VIDEO_PARAM_AVCTYPE
  OMX_IndexParamVideoH263,
  OMX_IndexParamVideoProfileLevelQuerySupported,
  OMX_IndexParamVideoProfileLevelCurrent,
  OMX_IndexConfigVideoBitrate,
  OMX_IndexConfigVideoFramerate,
  OMX_IndexConfigVideoIntraVOPRefresh,  // OMX_CONFIG_INTRAREFRESHVOPTYPE
  OMX_IndexConfigVideoIntraMBRefresh,
  OMX_IndexConfigVideoMBErrorReporting,
  OMX_IndexParamVideoMacroblocksPerFrame,
  OMX_IndexConfigVideoMacroBlockErrorMap,
  OMX_IndexParamVideoSliceFMO,
  OMX_IndexConfigVideoAVCIntraPeriod,
  OMX_IndexConfigVideoNalSize,

  OMX_IndexCommonStartUnused = 0x07000000,
  OMX_IndexOtherStartUnused = 0x08000000,
  OMX_IndexTimeStartUnused = 0x09000000,

  OMX_IndexKhronosExtensions = 0x6F000000,
  OMX_IndexVendorStartUnused = 0x7F000000,
  OMX_IndexMax = 0x7FFFFFFF
} OMX_INDEXTYPE;

#endif
