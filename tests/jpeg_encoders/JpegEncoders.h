#ifndef TESSERA_TESTS_JPEG_ENCODERS_JPEGENCODERS_H
#define TESSERA_TESTS_JPEG_ENCODERS_JPEGENCODERS_H

#include "support/Calls.h"
#include "support/FaultTest.h"

/// Tests of both classes.
class BothJpeg : public support::FaultTest,
                 public testing::WithParamInterface<const support::JpegClass*> {};

#endif  // TESSERA_TESTS_JPEG_ENCODERS_JPEGENCODERS_H
