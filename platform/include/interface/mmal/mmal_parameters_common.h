#ifndef MMAL_PARAMETERS_COMMON_H
#define MMAL_PARAMETERS_COMMON_H

#include "interface/mmal/mmal_types.h"

// A parameter's upper 16 bits name its group.
#define MMAL_PARAMETER_GROUP_COMMON (0 << 16)
#define MMAL_PARAMETER_GROUP_CAMERA (1 << 16)
#define MMAL_PARAMETER_GROUP_VIDEO (2 << 16)

enum {
  MMAL_PARAMETER_UNUSED = MMAL_PARAMETER_GROUP_COMMON,
  MMAL_PARAMETER_SUPPORTED_ENCODINGS = 0x1,  ///< get: MMAL_PARAMETER_ENCODING_T
  MMAL_PARAMETER_ZERO_COPY = 0x4,            ///< MMAL_PARAMETER_BOOLEAN_T; no effect here
  MMAL_PARAMETER_BUFFER_REQUIREMENTS = 0x5   ///< get: MMAL_PARAMETER_BUFFER_REQUIREMENTS_T
};

/// Starts every parameter. size counts the whole parameter, this header included.
typedef struct MMAL_PARAMETER_HEADER_T {
  uint32_t id;
  uint32_t size;
} MMAL_PARAMETER_HEADER_T;

typedef struct {
  MMAL_PARAMETER_HEADER_T hdr;
  MMAL_BOOL_T enable;
} MMAL_PARAMETER_BOOLEAN_T;

typedef struct {
  MMAL_PARAMETER_HEADER_T hdr;
  uint32_t value;
} MMAL_PARAMETER_UINT32_T;

/// As many encodings as hdr.size says.
typedef struct {
  MMAL_PARAMETER_HEADER_T hdr;
  MMAL_FOURCC_T encoding[1];
} MMAL_PARAMETER_ENCODING_T;

typedef struct {
  MMAL_PARAMETER_HEADER_T hdr;
  uint32_t buffer_num_min;
  uint32_t buffer_size_min;
  uint32_t buffer_alignment_min;
  uint32_t buffer_num_recommended;
  uint32_t buffer_size_recommended;
} MMAL_PARAMETER_BUFFER_REQUIREMENTS_T;

#endif  // MMAL_PARAMETERS_COMMON_H
