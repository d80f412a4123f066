#ifndef BCM_HOST_H
#define BCM_HOST_H

#include "interface/vcos/vcos.h"

#ifdef __cplusplus
extern "C" {
#endif

/// Brings the host side of the GPU up. Needed once before anything else; calling it again, also
/// from several threads at once, does no harm.
VCOS_API void bcm_host_init(void);

/// Undoes bcm_host_init(). Components that still live go on living.
VCOS_API void bcm_host_deinit(void);

#ifdef __cplusplus
}
#endif

#endif  // BCM_HOST_H
