#ifndef TESSERA_TESTS_H264_ENCODERS_H264ENCODERS_H
#define TESSERA_TESTS_H264_ENCODERS_H264ENCODERS_H

#include "support/Calls.h"
#include "support/FaultTest.h"

/// Tests of both classes.
class BothH264 : public support::FaultTest,
                 public testing::WithParamInterface<const support::H264Class*> {
  const support::VirtualTime time_;
};

#endif  // TESSERA_TESTS_H264_ENCODERS_H264ENCODERS_H
