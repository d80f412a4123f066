#ifndef TESSERA_SRC_OMXJPEGENCODER_STEPS_H
#define TESSERA_SRC_OMXJPEGENCODER_STEPS_H

#include <tessera/COmxJpegEncoder.h>

#include <cstdint>

#include "common/JpegEncoding.h"
#include "common/OmxEncoderDriver.h"

/// What the encoder's operations are made of.
struct COmxJpegEncoder::Steps {
  /// A picture as the component sees it.
  struct PaddedPicture {
    OMX_COLOR_FORMATTYPE colorFormat;
    int bitsPerPixel;
    std::uint32_t width;
    std::uint32_t height;

    /// More than any frame where the bytes do not fit into 32 bits.
    std::uint64_t Bytes() const;
  };

  explicit Steps(COmxJpegEncoder& of);

  /// @return whether there is a component to encode on; else a line tells
  bool HasComponent() const;
  bool SetUpPorts(const PaddedPicture& picture);
  common::Answer StartExecuting();
  /// Encodes one picture on the component that executes.
  common::Answer EncodePicture(const common::RawFrame& frame, common::JpegMemory& jpeg);
  common::Answer ReturnToIdle();

  COmxJpegEncoder& encoder;
  common::OmxEncoderDriver driver;
};

#endif  // TESSERA_SRC_OMXJPEGENCODER_STEPS_H
