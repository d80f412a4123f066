#ifndef MMAL_PARAMETERS_H
#define MMAL_PARAMETERS_H

#include "interface/mmal/mmal_parameters_camera.h"
#include "interface/mmal/mmal_parameters_common.h"
#include "interface/mmal/mmal_parameters_video.h"

#endif  // MMAL_PARAMETERS_H
