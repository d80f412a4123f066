#ifndef TESSERA_SRC_OMXH264ENCODER_STEPS_H
#define TESSERA_SRC_OMXH264ENCODER_STEPS_H

#include <tessera/COmxH264Encoder.h>

#include <cstddef>

#include "common/OmxEncoderDriver.h"
#include "common/OutputMemory.h"

/// What the encoder's operations are made of.
struct COmxH264Encoder::Steps {
  /// @param operation  named in the line of a missing answer
  Steps(COmxH264Encoder& of, const char* operation);

  // Create.
  bool StartExecuting();
  void BlackenInput(std::size_t lumaBytes);

  // The way of the frames.
  CodecStatus DropOwedOutput();
  CodecStatus CollectOutput(common::OutputMemory& memory, unsigned int& size, unsigned int& flags);
  CodecStatus AwaitOutput();
  OMX_ERRORTYPE RequestFill(const char* label);

  COmxH264Encoder& encoder;
  common::OmxEncoderDriver driver;
};

#endif  // TESSERA_SRC_OMXH264ENCODER_STEPS_H
