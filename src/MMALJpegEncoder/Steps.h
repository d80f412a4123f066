#ifndef TESSERA_SRC_MMALJPEGENCODER_STEPS_H
#define TESSERA_SRC_MMALJPEGENCODER_STEPS_H

#include <tessera/CMmalJpegEncoder.h>

#include "common/JpegEncoding.h"

/// What the encoder's operations are made of.
struct CMmalJpegEncoder::Steps {
  enum class Submission {
    Sent,
    NoBuffer,  ///< the component has it; it announces its return
    Refused,   ///< the wrapper did not answer: no event to be expected
    Failed,
  };

  explicit Steps(CMmalJpegEncoder& of) : encoder(of) {}

  void SignalEvent() { sem_post(&encoder.semaphore); }

  bool EncodePicture(const common::RawFrame& frame, common::JpegMemory& jpeg);
  bool FeedOutput();
  Submission SubmitFrame(const common::RawFrame& frame);
  void TakeJpeg(common::JpegMemory& jpeg);

  void ReleaseSetup();
  void DestroyWrapper();

  CMmalJpegEncoder& encoder;
  bool refusalTold = false;  ///< a request tells of its first refused output buffer only
};

#endif  // TESSERA_SRC_MMALJPEGENCODER_STEPS_H
