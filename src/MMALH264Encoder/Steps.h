#ifndef TESSERA_SRC_MMALH264ENCODER_STEPS_H
#define TESSERA_SRC_MMALH264ENCODER_STEPS_H

#include <tessera/CMmalH264Encoder.h>

#include "common/MmalVideoDriver.h"

/// What the encoder's operations are made of.
struct CMmalH264Encoder::Steps {
  explicit Steps(CMmalH264Encoder& of);

  /// Ends a setup that ran: no pools, no credits, nothing stale in the queue.
  void ReleaseSetup();
  CodecStatus CollectOutput(common::OutputMemory& memory, unsigned int& size, unsigned int& flags);

  CMmalH264Encoder& encoder;
  common::MmalVideoDriver driver;
};

#endif  // TESSERA_SRC_MMALH264ENCODER_STEPS_H
