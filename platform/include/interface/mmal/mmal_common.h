#ifndef MMAL_COMMON_H
#define MMAL_COMMON_H

#include "interface/vcos/vcos.h"

/// Marks what the platform's shared object offers.
#define MMAL_API VCOS_API

/// A four-character code: the first character in the lowest byte.
#define MMAL_FOURCC(a, b, c, d) \
  ((uint32_t)(a) | ((uint32_t)(b) << 8) | ((uint32_t)(c) << 16) | ((uint32_t)(d) << 24))

/// "No time stamp" in pts and dts.
#define MMAL_TIME_UNKNOWN INT64_MIN

#endif  // MMAL_COMMON_H
