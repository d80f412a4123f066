#ifndef VCOS_H
#define VCOS_H

#include "interface/vcos/vcos_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/// The status for the calling thread's errno. Call it straight after the POSIX call that failed.
/// @return VCOS_SUCCESS for errno 0, VCOS_EINVAL for an errno without a status of its own
VCOS_API VCOS_STATUS_T vcos_pthreads_map_errno(void);

#ifdef __cplusplus
}
#endif

#endif  // VCOS_H
