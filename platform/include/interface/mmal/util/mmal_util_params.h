#ifndef MMAL_UTIL_PARAMS_H
#define MMAL_UTIL_PARAMS_H

#include "interface/mmal/mmal_port.h"

#ifdef __cplusplus
extern "C" {
#endif

// mmal_port_parameter_set() and _get() for parameters of one plain value; results as for those.

MMAL_API MMAL_STATUS_T mmal_port_parameter_set_boolean(MMAL_PORT_T* port, uint32_t id,
                                                       MMAL_BOOL_T value);
MMAL_API MMAL_STATUS_T mmal_port_parameter_get_boolean(MMAL_PORT_T* port, uint32_t id,
                                                       MMAL_BOOL_T* value);
MMAL_API MMAL_STATUS_T mmal_port_parameter_set_uint32(MMAL_PORT_T* port, uint32_t id,
                                                      uint32_t value);
MMAL_API MMAL_STATUS_T mmal_port_parameter_get_uint32(MMAL_PORT_T* port, uint32_t id,
                                                      uint32_t* value);

#ifdef __cplusplus
}
#endif

#endif  // MMAL_UTIL_PARAMS_H
