#ifndef TESSERA_SRC_COMMON_VIDEOCOMPONENT_H
#define TESSERA_SRC_COMMON_VIDEOCOMPONENT_H

#include <interface/mmal/mmal.h>

namespace common {

/// What a class wants of its video component's two ports.
struct VideoComponentUser {
  const char* className;
  const char* role;  ///< "encoder" or "decoder", for the lines
  void* object;      ///< the ports' user data
  MMAL_PORT_BH_CB_T onInput;
  MMAL_PORT_BH_CB_T onOutput;
};

/// Enables both ports and the component, makes the pools that the ports ask for and gives the
/// component its output buffers.
/// @return false after a line, with no pool set
bool StartVideoComponent(MMAL_COMPONENT_T* component, const VideoComponentUser& user,
                         MMAL_POOL_T*& inputPool, MMAL_POOL_T*& outputPool);

/// Gets every buffer back from the component and lets go of it.
void ReleaseVideoComponent(MMAL_COMPONENT_T* component);

}  // namespace common

#endif  // TESSERA_SRC_COMMON_VIDEOCOMPONENT_H
