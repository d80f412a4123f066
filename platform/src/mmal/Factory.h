#ifndef TESSERA_PLATFORM_SRC_MMAL_FACTORY_H
#define TESSERA_PLATFORM_SRC_MMAL_FACTORY_H

#include "mmal/Component.h"

namespace mmal {

/// Makes the component of a published name and starts it; the caller has its first reference.
/// @return MMAL_ENOSYS for an unknown name, MMAL_ENOMEM without memory or thread
MMAL_STATUS_T makeComponent(const char* name, Component*& component);

}  // namespace mmal

#endif  // TESSERA_PLATFORM_SRC_MMAL_FACTORY_H
