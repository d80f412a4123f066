#ifndef MMAL_COMPONENT_H
#define MMAL_COMPONENT_H

#include "interface/mmal/mmal_port.h"
#include "interface/mmal/mmal_types.h"

#ifdef __cplusplus
extern "C" {
#endif

struct MMAL_COMPONENT_PRIVATE_T;
struct MMAL_COMPONENT_USERDATA_T;

/// A codec with its ports. All but userdata is for the client to read.
typedef struct MMAL_COMPONENT_T {
  struct MMAL_COMPONENT_PRIVATE_T* priv;
  struct MMAL_COMPONENT_USERDATA_T* userdata;
  const char* name;
  uint32_t is_enabled;
  MMAL_PORT_T* control;
  uint32_t input_num;
  MMAL_PORT_T** input;
  uint32_t output_num;
  MMAL_PORT_T** output;
  uint32_t clock_num;
  MMAL_PORT_T** clock;
  uint32_t port_num;
  MMAL_PORT_T** port;  ///< all of them
  uint32_t id;
} MMAL_COMPONENT_T;

/// Makes a component, "vc.ril.image_encode", "vc.ril.video_encode" or "vc.ril.video_decode", with
/// its ports disabled and one reference to it.
/// @return MMAL_ENOSYS for another name, MMAL_ENOMEM without memory or thread; *component is then
/// null
MMAL_API MMAL_STATUS_T mmal_component_create(const char* name, MMAL_COMPONENT_T** component);

/// Takes another reference.
MMAL_API void mmal_component_acquire(MMAL_COMPONENT_T* component);

/// Gives a reference back. The last one takes the component down: its ports are disabled (their
/// buffers come back), its thread ends, its memory goes. Not from a callback of the component.
MMAL_API MMAL_STATUS_T mmal_component_release(MMAL_COMPONENT_T* component);

/// Gives the creator's reference back.
MMAL_API MMAL_STATUS_T mmal_component_destroy(MMAL_COMPONENT_T* component);

/// Lets the component work on its buffers, or stops it from doing so. Ports keep their state and
/// their buffers; both succeed when it is so already. Disabling waits for the frame in work.
MMAL_API MMAL_STATUS_T mmal_component_enable(MMAL_COMPONENT_T* component);
MMAL_API MMAL_STATUS_T mmal_component_disable(MMAL_COMPONENT_T* component);

#ifdef __cplusplus
}
#endif

#endif  // MMAL_COMPONENT_H
