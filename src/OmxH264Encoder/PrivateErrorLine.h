#ifndef TESSERA_SRC_OMXH264ENCODER_PRIVATEERRORLINE_H
#define TESSERA_SRC_OMXH264ENCODER_PRIVATEERRORLINE_H

#include "common/OmxErrorLine.h"

/// The H.264 encoder's own PrintOmxError, which knows one status more than the exported one. Both
/// have one signature, so no file includes this and <tessera/Diagnostics.h>.
static inline void PrintOmxError(const char* label, OMX_ERRORTYPE error) {
  common::WriteOmxErrorLine(
      label, error,
      error == OMX_ErrorPortUnpopulated
          ? "the port has lost one or more of its buffers and it thus unpopulated."
          : common::ShortOmxErrorText(error));
}

#endif  // TESSERA_SRC_OMXH264ENCODER_PRIVATEERRORLINE_H
