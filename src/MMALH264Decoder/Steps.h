#ifndef TESSERA_SRC_MMALH264DECODER_STEPS_H
#define TESSERA_SRC_MMALH264DECODER_STEPS_H

#include <tessera/CMmalH264Decoder.h>

#include <cstdint>

#include "common/MmalVideoDriver.h"

/// What the decoder's operations are made of.
struct CMmalH264Decoder::Steps {
  /// The data of a ProcessInput, and how far it has gone.
  struct Input {
    const unsigned char* data;
    unsigned int size;
    int width;
    int height;
    bool decodeOnly;
    std::int64_t pts;

    unsigned int sent = 0;
    std::uint32_t frameFlags = MMAL_BUFFER_HEADER_FLAG_FRAME_START;  ///< of the next buffer
    CodecStatus status = CodecNoBuffer;                              ///< of the last one
  };

  /// What a ProcessOutput tells of its picture.
  struct Picture {
    unsigned int& size;
    unsigned int& width;
    unsigned int& height;
    unsigned long long& timestamp;
  };

  explicit Steps(CMmalH264Decoder& of);

  /// Whether data of that size is what the decoder is set up for; else a line tells. The lock is
  /// held.
  bool FitsStream(int width, int height) const;
  bool SendPiece(Input& input);
  CodecStatus CollectPicture(common::OutputMemory& memory, const Picture& picture);

  CMmalH264Decoder& decoder;
  common::MmalVideoDriver driver;
};

#endif  // TESSERA_SRC_MMALH264DECODER_STEPS_H
