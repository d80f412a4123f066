#ifndef OMX_Component_h
#define OMX_Component_h

#include "OMX_Audio.h"
#include "OMX_Core.h"
#include "OMX_Image.h"
#include "OMX_Other.h"
#include "OMX_Video.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef enum OMX_PORTDOMAINTYPE {
  OMX_PortDomainAudio,
  OMX_PortDomainVideo,
  OMX_PortDomainImage,
  OMX_PortDomainOther,
  OMX_PortDomainKhronosExtensions = 0x6F000000,
  OMX_PortDomainVendorStartUnused = 0x7F000000,
  OMX_PortDomainMax = 0x7FFFFFFF
} OMX_PORTDOMAINTYPE;

/// All of a port. A component keeps eDir, nBufferCountMin, bEnabled, bPopulated and eDomain to
/// itself; it raises nBufferCountActual and nBufferSize to what the format needs.
typedef struct OMX_PARAM_PORTDEFINITIONTYPE {
  OMX_U32 nSize;
  OMX_VERSIONTYPE nVersion;
  OMX_U32 nPortIndex;
  OMX_DIRTYPE eDir;
  OMX_U32 nBufferCountActual;
  OMX_U32 nBufferCountMin;
  OMX_U32 nBufferSize;
  OMX_BOOL bEnabled;
  OMX_BOOL bPopulated;
  OMX_PORTDOMAINTYPE eDomain;
  union {
    OMX_AUDIO_PORTDEFINITIONTYPE audio;
    OMX_VIDEO_PORTDEFINITIONTYPE video;
    OMX_IMAGE_PORTDEFINITIONTYPE image;
    OMX_OTHER_PORTDEFINITIONTYPE other;
  } format;
  OMX_BOOL bBuffersContiguous;
  OMX_U32 nBufferAlignment;
} OMX_PARAM_PORTDEFINITIONTYPE;

/// What a handle points to. Clients call through the macros of OMX_Core.h.
typedef struct OMX_COMPONENTTYPE {
  OMX_U32 nSize;
  OMX_VERSIONTYPE nVersion;
  OMX_PTR pComponentPrivate;
  OMX_PTR pApplicationPrivate;
  OMX_ERRORTYPE(*GetComponentVersion)
  (OMX_HANDLETYPE hComponent, OMX_STRING pComponentName, OMX_VERSIONTYPE* pComponentVersion,
   OMX_VERSIONTYPE* pSpecVersion, OMX_UUIDTYPE* pComponentUUID);
  OMX_ERRORTYPE(*SendCommand)
  (OMX_HANDLETYPE hComponent, OMX_COMMANDTYPE Cmd, OMX_U32 nParam1, OMX_PTR pCmdData);
  OMX_ERRORTYPE(*GetParameter)
  (OMX_HANDLETYPE hComponent, OMX_INDEXTYPE nParamIndex, OMX_PTR pParameter);
  OMX_ERRORTYPE(*SetParameter)
  (OMX_HANDLETYPE hComponent, OMX_INDEXTYPE nIndex, OMX_PTR pParameter);
  OMX_ERRORTYPE (*GetConfig)(OMX_HANDLETYPE hComponent, OMX_INDEXTYPE nIndex, OMX_PTR pConfig);
  OMX_ERRORTYPE (*SetConfig)(OMX_HANDLETYPE hComponent, OMX_INDEXTYPE nIndex, OMX_PTR pConfig);
  OMX_ERRORTYPE(*GetExtensionIndex)
  (OMX_HANDLETYPE hComponent, OMX_STRING cParameterName, OMX_INDEXTYPE* pIndexType);
  OMX_ERRORTYPE (*GetState)(OMX_HANDLETYPE hComponent, OMX_STATETYPE* pState);
  OMX_ERRORTYPE(*ComponentTunnelRequest)
  (OMX_HANDLETYPE hComp, OMX_U32 nPort, OMX_HANDLETYPE hTunneledComp, OMX_U32 nTunneledPort,
   OMX_TUNNELSETUPTYPE* pTunnelSetup);
  OMX_ERRORTYPE(*UseBuffer)
  (OMX_HANDLETYPE hComponent, OMX_BUFFERHEADERTYPE** ppBufferHdr, OMX_U32 nPortIndex,
   OMX_PTR pAppPrivate, OMX_U32 nSizeBytes, OMX_U8* pBuffer);
  OMX_ERRORTYPE(*AllocateBuffer)
  (OMX_HANDLETYPE hComponent, OMX_BUFFERHEADERTYPE** ppBuffer, OMX_U32 nPortIndex,
   OMX_PTR pAppPrivate, OMX_U32 nSizeBytes);
  OMX_ERRORTYPE(*FreeBuffer)
  (OMX_HANDLETYPE hComponent, OMX_U32 nPortIndex, OMX_BUFFERHEADERTYPE* pBuffer);
  OMX_ERRORTYPE (*EmptyThisBuffer)(OMX_HANDLETYPE hComponent, OMX_BUFFERHEADERTYPE* pBuffer);
  OMX_ERRORTYPE (*FillThisBuffer)(OMX_HANDLETYPE hComponent, OMX_BUFFERHEADERTYPE* pBuffer);
  OMX_ERRORTYPE(*SetCallbacks)
  (OMX_HANDLETYPE hComponent, OMX_CALLBACKTYPE* pCallbacks, OMX_PTR pAppData);
  OMX_ERRORTYPE (*ComponentDeInit)(OMX_HANDLETYPE hComponent);
  OMX_ERRORTYPE(*UseEGLImage)
  (OMX_HANDLETYPE hComponent, OMX_BUFFERHEADERTYPE** ppBufferHdr, OMX_U32 nPortIndex,
   OMX_PTR pAppPrivate, void* eglImage);
  OMX_ERRORTYPE (*ComponentRoleEnum)(OMX_HANDLETYPE hComponent, OMX_U8* cRole, OMX_U32 nIndex);
} OMX_COMPONENTTYPE;

#ifdef __cplusplus
}
#endif

OMX_SIZE_ON_32_BITS(OMX_PARAM_PORTDEFINITIONTYPE, 96);
OMX_SIZE_ON_32_BITS(OMX_COMPONENTTYPE, 88);

#endif
