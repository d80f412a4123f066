#ifndef OMX_Core_h
#define OMX_Core_h

#include "OMX_Index.h"
#include "OMX_Types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef enum OMX_COMMANDTYPE {
  OMX_CommandStateSet,     ///< parameter: the OMX_STATETYPE to go to
  OMX_CommandFlush,        ///< parameter: a port, or OMX_ALL
  OMX_CommandPortDisable,  ///< parameter: a port, or OMX_ALL
  OMX_CommandPortEnable,   ///< parameter: a port, or OMX_ALL
  OMX_CommandMarkBuffer,
  OMX_CommandKhronosExtensions = 0x6F000000,
  OMX_CommandVendorStartUnused = 0x7F000000,
  OMX_CommandMax = 0x7FFFFFFF
} OMX_COMMANDTYPE;

typedef enum OMX_STATETYPE {
  OMX_StateInvalid,
  OMX_StateLoaded,
  OMX_StateIdle,
  OMX_StateExecuting,
  OMX_StatePause,
  OMX_StateWaitForResources,
  OMX_StateKhronosExtensions = 0x6F000000,
  OMX_StateVendorStartUnused = 0x7F000000,
  OMX_StateMax = 0x7FFFFFFF
} OMX_STATETYPE;

typedef enum OMX_ERRORTYPE {
  OMX_ErrorNone = 0,
  OMX_ErrorInsufficientResources = (OMX_S32)0x80001000,
  OMX_ErrorUndefined = (OMX_S32)0x80001001,
  OMX_ErrorInvalidComponentName = (OMX_S32)0x80001002,
  OMX_ErrorComponentNotFound = (OMX_S32)0x80001003,
  OMX_ErrorInvalidComponent = (OMX_S32)0x80001004,
  OMX_ErrorBadParameter = (OMX_S32)0x80001005,
  OMX_ErrorNotImplemented = (OMX_S32)0x80001006,
  OMX_ErrorUnderflow = (OMX_S32)0x80001007,
  OMX_ErrorOverflow = (OMX_S32)0x80001008,
  OMX_ErrorHardware = (OMX_S32)0x80001009,
  OMX_ErrorInvalidState = (OMX_S32)0x8000100A,
  OMX_ErrorStreamCorrupt = (OMX_S32)0x8000100B,
  OMX_ErrorPortsNotCompatible = (OMX_S32)0x8000100C,
  OMX_ErrorResourcesLost = (OMX_S32)0x8000100D,
  OMX_ErrorNoMore = (OMX_S32)0x8000100E,
  OMX_ErrorVersionMismatch = (OMX_S32)0x8000100F,
  OMX_ErrorNotReady = (OMX_S32)0x80001010,
  OMX_ErrorTimeout = (OMX_S32)0x80001011,
  OMX_ErrorSameState = (OMX_S32)0x80001012,
  OMX_ErrorResourcesPreempted = (OMX_S32)0x80001013,
  OMX_ErrorPortUnresponsiveDuringAllocation = (OMX_S32)0x80001014,
  OMX_ErrorPortUnresponsiveDuringDeallocation = (OMX_S32)0x80001015,
  OMX_ErrorPortUnresponsiveDuringStop = (OMX_S32)0x80001016,
  OMX_ErrorIncorrectStateTransition = (OMX_S32)0x80001017,
  OMX_ErrorIncorrectStateOperation = (OMX_S32)0x80001018,
  OMX_ErrorUnsupportedSetting = (OMX_S32)0x80001019,
  OMX_ErrorUnsupportedIndex = (OMX_S32)0x8000101A,
  OMX_ErrorBadPortIndex = (OMX_S32)0x8000101B,
  OMX_ErrorPortUnpopulated = (OMX_S32)0x8000101C,
  OMX_ErrorComponentSuspended = (OMX_S32)0x8000101D,
  OMX_ErrorDynamicResourcesUnavailable = (OMX_S32)0x8000101E,
  OMX_ErrorMbErrorsInFrame = (OMX_S32)0x8000101F,
  OMX_ErrorFormatNotDetected = (OMX_S32)0x80001020,
  OMX_ErrorContentPipeOpenFailed = (OMX_S32)0x80001021,
  OMX_ErrorContentPipeCreationFailed = (OMX_S32)0x80001022,
  OMX_ErrorSeperateTablesUsed = (OMX_S32)0x80001023,
  OMX_ErrorTunnelingUnsupported = (OMX_S32)0x80001024,
  OMX_ErrorKhronosExtensions = (OMX_S32)0x8F000000,
  OMX_ErrorVendorStartUnused = (OMX_S32)0x90000000,
  OMX_ErrorMax = 0x7FFFFFFF
} OMX_ERRORTYPE;

typedef enum OMX_EVENTTYPE {
  OMX_EventCmdComplete,  ///< nData1: the OMX_COMMANDTYPE, nData2: the state reached or the port
  OMX_EventError,        ///< nData1: the OMX_ERRORTYPE, nData2: the port, where there is one
  OMX_EventMark,
  OMX_EventPortSettingsChanged,  ///< nData1: the port
  OMX_EventBufferFlag,           ///< nData1: the port, nData2: the flags
  OMX_EventResourcesAcquired,
  OMX_EventComponentResumed,
  OMX_EventDynamicResourcesAvailable,
  OMX_EventPortFormatDetected,
  OMX_EventKhronosExtensions = 0x6F000000,
  OMX_EventVendorStartUnused = 0x7F000000,
  OMX_EventMax = 0x7FFFFFFF
} OMX_EVENTTYPE;

#define OMX_BUFFERFLAG_EOS 0x00000001
#define OMX_BUFFERFLAG_STARTTIME 0x00000002
#define OMX_BUFFERFLAG_DECODEONLY 0x00000004
#define OMX_BUFFERFLAG_DATACORRUPT 0x00000008
#define OMX_BUFFERFLAG_ENDOFFRAME 0x00000010
#define OMX_BUFFERFLAG_SYNCFRAME 0x00000020
#define OMX_BUFFERFLAG_EXTRADATA 0x00000040
#define OMX_BUFFERFLAG_CODECCONFIG 0x00000080

/// The ports of one domain: `nPorts` of them, numbered from `nStartPortNumber`.
typedef struct OMX_PORT_PARAM_TYPE {
  OMX_U32 nSize;
  OMX_VERSIONTYPE nVersion;
  OMX_U32 nPorts;
  OMX_U32 nStartPortNumber;
} OMX_PORT_PARAM_TYPE;

#define OMX_MAX_STRINGNAME_SIZE 128

typedef struct OMX_PARAM_COMPONENTROLETYPE {
  OMX_U32 nSize;
  OMX_VERSIONTYPE nVersion;
  OMX_U8 cRole[OMX_MAX_STRINGNAME_SIZE];
} OMX_PARAM_COMPONENTROLETYPE;

/// One buffer. Header and, after OMX_AllocateBuffer, memory belong to the component from the
/// allocation to OMX_FreeBuffer; the contents belong to the component from OMX_EmptyThisBuffer or
/// OMX_FillThisBuffer to the callback, else to the client. Of an input buffer the component also
/// sets `nFilledLen` to 0 once its bytes are consumed, before EmptyBufferDone: the last thing it
/// writes there, with release order.
typedef struct OMX_BUFFERHEADERTYPE {
  OMX_U32 nSize;
  OMX_VERSIONTYPE nVersion;
  OMX_U8* pBuffer;
  OMX_U32 nAllocLen;   ///< bytes of memory at pBuffer
  OMX_U32 nFilledLen;  ///< bytes of data, from pBuffer + nOffset on
  OMX_U32 nOffset;
  OMX_PTR pAppPrivate;
  OMX_PTR pPlatformPrivate;
  OMX_PTR pInputPortPrivate;
  OMX_PTR pOutputPortPrivate;
  OMX_HANDLETYPE hMarkTargetComponent;
  OMX_PTR pMarkData;
  OMX_U32 nTickCount;
  OMX_TICKS nTimeStamp;
  OMX_U32 nFlags;
  OMX_U32 nOutputPortIndex;
  OMX_U32 nInputPortIndex;
} OMX_BUFFERHEADERTYPE;

/// What a component calls back, from its own thread. The table must stay while the handle lives.
typedef struct OMX_CALLBACKTYPE {
  OMX_ERRORTYPE(*EventHandler)
  (OMX_HANDLETYPE hComponent, OMX_PTR pAppData, OMX_EVENTTYPE eEvent, OMX_U32 nData1,
   OMX_U32 nData2, OMX_PTR pEventData);
  OMX_ERRORTYPE(*EmptyBufferDone)
  (OMX_HANDLETYPE hComponent, OMX_PTR pAppData, OMX_BUFFERHEADERTYPE* pBuffer);
  OMX_ERRORTYPE(*FillBufferDone)
  (OMX_HANDLETYPE hComponent, OMX_PTR pAppData, OMX_BUFFERHEADERTYPE* pBuffer);
} OMX_CALLBACKTYPE;

typedef enum OMX_BUFFERSUPPLIERTYPE {
  OMX_BufferSupplyUnspecified,
  OMX_BufferSupplyInput,
  OMX_BufferSupplyOutput,
  OMX_BufferSupplyMax = 0x7FFFFFFF
} OMX_BUFFERSUPPLIERTYPE;

typedef struct OMX_TUNNELSETUPTYPE {
  OMX_U32 nTunnelFlags;
  OMX_BUFFERSUPPLIERTYPE eSupplier;
} OMX_TUNNELSETUPTYPE;

// ------------------------------------------------- the component's operations, through its table

#define OMX_GetComponentVersion(hComponent, pComponentName, pComponentVersion, pSpecVersion, \
                                pComponentUUID)                                              \
  ((OMX_COMPONENTTYPE*)(hComponent))                                                         \
      ->GetComponentVersion(hComponent, pComponentName, pComponentVersion, pSpecVersion,     \
                            pComponentUUID)
#define OMX_SendCommand(hComponent, Cmd, nParam, pCmdData) \
  ((OMX_COMPONENTTYPE*)(hComponent))->SendCommand(hComponent, Cmd, nParam, pCmdData)
#define OMX_GetParameter(hComponent, nParamIndex, pParameter) \
  ((OMX_COMPONENTTYPE*)(hComponent))->GetParameter(hComponent, nParamIndex, pParameter)
#define OMX_SetParameter(hComponent, nParamIndex, pParameter) \
  ((OMX_COMPONENTTYPE*)(hComponent))->SetParameter(hComponent, nParamIndex, pParameter)
#define OMX_GetConfig(hComponent, nConfigIndex, pConfig) \
  ((OMX_COMPONENTTYPE*)(hComponent))->GetConfig(hComponent, nConfigIndex, pConfig)
#define OMX_SetConfig(hComponent, nConfigIndex, pConfig) \
  ((OMX_COMPONENTTYPE*)(hComponent))->SetConfig(hComponent, nConfigIndex, pConfig)
#define OMX_GetExtensionIndex(hComponent, cParameterName, pIndexType) \
  ((OMX_COMPONENTTYPE*)(hComponent))->GetExtensionIndex(hComponent, cParameterName, pIndexType)
#define OMX_GetState(hComponent, pState) \
  ((OMX_COMPONENTTYPE*)(hComponent))->GetState(hComponent, pState)
#define OMX_UseBuffer(hComponent, ppBufferHdr, nPortIndex, pAppPrivate, nSizeBytes, pBuffer) \
  ((OMX_COMPONENTTYPE*)(hComponent))                                                         \
      ->UseBuffer(hComponent, ppBufferHdr, nPortIndex, pAppPrivate, nSizeBytes, pBuffer)
#define OMX_AllocateBuffer(hComponent, ppBuffer, nPortIndex, pAppPrivate, nSizeBytes) \
  ((OMX_COMPONENTTYPE*)(hComponent))                                                  \
      ->AllocateBuffer(hComponent, ppBuffer, nPortIndex, pAppPrivate, nSizeBytes)
#define OMX_FreeBuffer(hComponent, nPortIndex, pBuffer) \
  ((OMX_COMPONENTTYPE*)(hComponent))->FreeBuffer(hComponent, nPortIndex, pBuffer)
#define OMX_EmptyThisBuffer(hComponent, pBuffer) \
  ((OMX_COMPONENTTYPE*)(hComponent))->EmptyThisBuffer(hComponent, pBuffer)
#define OMX_FillThisBuffer(hComponent, pBuffer) \
  ((OMX_COMPONENTTYPE*)(hComponent))->FillThisBuffer(hComponent, pBuffer)

// ---------------------------------------------------------------------------------- the core

/// Starts the core; each success is undone by one OMX_Deinit.
OMX_API OMX_ERRORTYPE OMX_APIENTRY OMX_Init(void);
OMX_API OMX_ERRORTYPE OMX_APIENTRY OMX_Deinit(void);

/// Names the components one after another.
/// @return OMX_ErrorNoMore past the last
OMX_API OMX_ERRORTYPE OMX_APIENTRY OMX_ComponentNameEnum(OMX_STRING cComponentName,
                                                         OMX_U32 nNameLength, OMX_U32 nIndex);

/// Makes a component, in Loaded with its ports enabled.
/// @return OMX_ErrorNotReady before OMX_Init, OMX_ErrorComponentNotFound for an unknown name
OMX_API OMX_ERRORTYPE OMX_APIENTRY OMX_GetHandle(OMX_HANDLETYPE* pHandle, OMX_STRING cComponentName,
                                                 OMX_PTR pAppData, OMX_CALLBACKTYPE* pCallBacks);

/// Destroys a component in any state, with whatever buffers it still has. No callback comes after
/// the return.
OMX_API OMX_ERRORTYPE OMX_APIENTRY OMX_FreeHandle(OMX_HANDLETYPE hComponent);

/// Role queries: with a null second array they answer the count alone.
OMX_API OMX_ERRORTYPE OMX_APIENTRY OMX_GetComponentsOfRole(OMX_STRING role, OMX_U32* pNumComps,
                                                           OMX_U8** compNames);
OMX_API OMX_ERRORTYPE OMX_APIENTRY OMX_GetRolesOfComponent(OMX_STRING compName, OMX_U32* pNumRoles,
                                                           OMX_U8** roles);

/// Tunnels are not part of this platform: OMX_ErrorTunnelingUnsupported.
OMX_API OMX_ERRORTYPE OMX_APIENTRY OMX_SetupTunnel(OMX_HANDLETYPE hOutput, OMX_U32 nPortOutput,
                                                   OMX_HANDLETYPE hInput, OMX_U32 nPortInput);

#ifdef __cplusplus
}
#endif

OMX_SIZE_ON_32_BITS(OMX_PORT_PARAM_TYPE, 16);
OMX_SIZE_ON_32_BITS(OMX_BUFFERHEADERTYPE, 72);

#endif
