#ifndef MMAL_TYPES_H
#define MMAL_TYPES_H

#include "interface/mmal/mmal_common.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef int32_t MMAL_BOOL_T;
#define MMAL_FALSE 0
#define MMAL_TRUE 1

typedef uint32_t MMAL_FOURCC_T;

/// Result of nearly every call. What to do with each:
typedef enum {
  MMAL_SUCCESS = 0,             ///< done
  MMAL_ENOMEM = 1,              ///< out of memory: free something, try again
  MMAL_ENOSPC = 2,              ///< no resources other than memory
  MMAL_EINVAL = 3,              ///< an argument, a format or the object's state does not allow it
  MMAL_ENOSYS = 4,              ///< this component, port or platform cannot do it at all
  MMAL_ENOENT = 5,              ///< nothing of that name
  MMAL_ENXIO = 6,               ///< no such device or address
  MMAL_EIO = 7,                 ///< the codec failed; what it was doing is lost
  MMAL_ESPIPE = 8,              ///< cannot seek
  MMAL_ECORRUPT = 9,            ///< the data is damaged
  MMAL_ENOTREADY = 10,          ///< too early: something else must be set up first
  MMAL_ECONFIG = 11,            ///< the component is not configured
  MMAL_EISCONN = 12,            ///< the port is connected already
  MMAL_ENOTCONN = 13,           ///< the port is not connected
  MMAL_EAGAIN = 14,             ///< nothing there yet: try again later
  MMAL_EFAULT = 15,             ///< bad address
  MMAL_STATUS_MAX = 0x7FFFFFFF  ///< makes the type 32 bits wide
} MMAL_STATUS_T;

typedef struct {
  int32_t x, y;
  int32_t width, height;
} MMAL_RECT_T;

typedef struct {
  int32_t num, den;
} MMAL_RATIONAL_T;

#ifdef __cplusplus
}
#endif

#endif  // MMAL_TYPES_H
