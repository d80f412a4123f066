#ifndef OMX_Types_h
#define OMX_Types_h

/// OpenMAX IL 1.1.2, basic types. Everything here means the same on 32-bit and 64-bit targets:
/// integers have their named width, enumerations are 32 bits wide, and time stamps are two 32-bit
/// halves (what the standard calls OMX_SKIP64BIT), so that no structure needs 64-bit alignment.

#include <stddef.h>
#include <stdint.h>

#define OMX_VERSION_MAJOR 1
#define OMX_VERSION_MINOR 1
#define OMX_VERSION_REVISION 2
#define OMX_VERSION_STEP 0

/// What every structure carries as nVersion.nVersion: 0x00020101.
#define OMX_VERSION                                                                     \
  ((OMX_VERSION_STEP << 24) | (OMX_VERSION_REVISION << 16) | (OMX_VERSION_MINOR << 8) | \
   OMX_VERSION_MAJOR)

#ifndef OMX_API
#define OMX_API __attribute__((visibility("default")))
#endif
#ifndef OMX_APIENTRY
#define OMX_APIENTRY
#endif

/// Directions of an argument, for the reader: read, written, both, and their optional forms.
#define OMX_IN
#define OMX_OUT
#define OMX_INOUT

/// The index of "all ports" in commands.
#define OMX_ALL 0xFFFFFFFF

typedef uint8_t OMX_U8;
typedef int8_t OMX_S8;
typedef uint16_t OMX_U16;
typedef int16_t OMX_S16;
typedef uint32_t OMX_U32;
typedef int32_t OMX_S32;

typedef enum OMX_BOOL { OMX_FALSE = 0, OMX_TRUE = 1, OMX_BOOL_MAX = 0x7FFFFFFF } OMX_BOOL;

typedef void* OMX_PTR;
typedef char* OMX_STRING;
typedef unsigned char* OMX_BYTE;
typedef unsigned char OMX_UUIDTYPE[128];
typedef void* OMX_HANDLETYPE;
typedef void* OMX_NATIVE_DEVICETYPE;
typedef void* OMX_NATIVE_WINDOWTYPE;

typedef enum OMX_DIRTYPE { OMX_DirInput, OMX_DirOutput, OMX_DirMax = 0x7FFFFFFF } OMX_DIRTYPE;

typedef enum OMX_ENDIANTYPE {
  OMX_EndianBig,
  OMX_EndianLittle,
  OMX_EndianMax = 0x7FFFFFFF
} OMX_ENDIANTYPE;

typedef enum OMX_NUMERICALDATATYPE {
  OMX_NumericalDataSigned,
  OMX_NumericalDataUnsigned,
  OMX_NumercialDataMax = 0x7FFFFFFF
} OMX_NUMERICALDATATYPE;

/// Microseconds, in halves.
typedef struct OMX_TICKS {
  OMX_U32 nLowPart;
  OMX_U32 nHighPart;
} OMX_TICKS;

typedef union OMX_VERSIONTYPE {
  struct {
    OMX_U8 nVersionMajor;
    OMX_U8 nVersionMinor;
    OMX_U8 nRevision;
    OMX_U8 nStep;
  } s;
  OMX_U32 nVersion;
} OMX_VERSIONTYPE;

/// Closes the header of a file that checks its sizes: on 32-bit targets the layouts are the ABI of
/// the board's own components.
#ifdef __cplusplus
#define OMX_SIZE_ON_32_BITS(type, bytes)                       \
  static_assert(sizeof(void*) != 4 || sizeof(type) == (bytes), \
                #type " must be " #bytes " bytes on 32-bit targets")
#else
#define OMX_SIZE_ON_32_BITS(type, bytes)                        \
  _Static_assert(sizeof(void*) != 4 || sizeof(type) == (bytes), \
                 #type " must be " #bytes " bytes on 32-bit targets")
#endif

OMX_SIZE_ON_32_BITS(OMX_VERSIONTYPE, 4);
OMX_SIZE_ON_32_BITS(OMX_BOOL, 4);

#endif
