#ifndef VCOS_TYPES_H
#define VCOS_TYPES_H

#include <stddef.h>
#include <stdint.h>

/// Marks what the platform's shared object offers.
#define VCOS_API __attribute__((visibility("default")))

typedef uint32_t VCOS_UNSIGNED;

#define VCOS_SUSPEND ((VCOS_UNSIGNED)-1)

/// Results of the operating-system layer.
typedef enum {
  VCOS_SUCCESS = 0,
  VCOS_EAGAIN = 1,   ///< not now: try again
  VCOS_ENOENT = 2,   ///< no such object
  VCOS_ENOSPC = 3,   ///< no room
  VCOS_EINVAL = 4,   ///< bad argument, and every error without a code of its own
  VCOS_EACCESS = 5,  ///< not permitted
  VCOS_ENOMEM = 6,   ///< out of memory
  VCOS_ENOSYS = 7,   ///< not supported
  VCOS_EEXIST = 8,   ///< there already
  VCOS_ENXIO = 9,    ///< no such device
  VCOS_EINTR = 10    ///< interrupted by a signal
} VCOS_STATUS_T;

#endif  // VCOS_TYPES_H
