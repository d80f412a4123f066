#ifndef MMAL_H
#define MMAL_H

/// The Multi-Media Abstraction Layer: components whose ports take and return buffer headers.
#include "interface/mmal/mmal_buffer.h"
#include "interface/mmal/mmal_common.h"
#include "interface/mmal/mmal_component.h"
#include "interface/mmal/mmal_encodings.h"
#include "interface/mmal/mmal_events.h"
#include "interface/mmal/mmal_format.h"
#include "interface/mmal/mmal_parameters.h"
#include "interface/mmal/mmal_pool.h"
#include "interface/mmal/mmal_port.h"
#include "interface/mmal/mmal_queue.h"
#include "interface/mmal/mmal_types.h"

#endif  // MMAL_H
