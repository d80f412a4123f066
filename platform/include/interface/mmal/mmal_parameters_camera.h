#ifndef MMAL_PARAMETERS_CAMERA_H
#define MMAL_PARAMETERS_CAMERA_H

#include "interface/mmal/mmal_parameters_common.h"

enum {
  /// Quality of a JPEG, 1 to 100; on the output port of an image encoder, MMAL_PARAMETER_UINT32_T.
  /// Holds from the next picture on.
  MMAL_PARAMETER_JPEG_Q_FACTOR = MMAL_PARAMETER_GROUP_CAMERA + 0x19
};

#endif  // MMAL_PARAMETERS_CAMERA_H
