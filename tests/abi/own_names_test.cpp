// An application that drives OpenMAX IL or MMAL itself has functions of these names, too. The
// library's own are called all the same.

#include <gtest/gtest.h>
#include <tessera/tessera.h>

#include <atomic>

#include "support/Capture.h"
#include "support/JpegOracle.h"

namespace {
std::atomic<int> calls{0};
}  // namespace

OMX_ERRORTYPE EventHandler(OMX_HANDLETYPE, OMX_PTR, OMX_EVENTTYPE, OMX_U32, OMX_U32, OMX_PTR) {
  return ++calls, OMX_ErrorNone;
}
OMX_ERRORTYPE OmxEventsHandler(OMX_HANDLETYPE, OMX_PTR, OMX_EVENTTYPE, OMX_U32, OMX_U32, OMX_PTR) {
  return ++calls, OMX_ErrorNone;
}
OMX_ERRORTYPE OmxFillOutputBufferHandler(OMX_HANDLETYPE, OMX_PTR, OMX_BUFFERHEADERTYPE*) {
  return ++calls, OMX_ErrorNone;
}
const char* OmxErrorDescription(OMX_ERRORTYPE) {
  return ++calls, "";
}
void PrintOmxError(const char*, OMX_ERRORTYPE) {
  ++calls;
}
bool GetJpegWidthAndHeight(int&, int&, char*, unsigned int) {
  return ++calls, false;
}
void MMALEncoderCallback(MMAL_WRAPPER_T*) {
  ++calls;
}
void InputCallback(MMAL_PORT_T*, MMAL_BUFFER_HEADER_T*) {
  ++calls;
}
void OutputCallback(MMAL_PORT_T*, MMAL_BUFFER_HEADER_T*) {
  ++calls;
}
void CopyYVYU(unsigned char*, unsigned int, unsigned int, unsigned int, unsigned char*,
              unsigned int, unsigned int&) {
  ++calls;
}
void CopyI420(unsigned char*, unsigned int, unsigned int, unsigned int, unsigned char*,
              unsigned int, unsigned int&) {
  ++calls;
}

namespace {

using support::Bytes;

int encodeJpeg(IJPEGEncoder* encoder) {
  Bytes frame(64 * 48 * 2, 128), jpeg(frame.size());
  unsigned size = 0;
  const int result = encoder->EncodeYUYV(frame.data(), static_cast<unsigned>(frame.size()), 64, 48,
                                         jpeg.data(), static_cast<unsigned>(jpeg.size()), size);
  ReleaseEncoderJPEG(encoder);
  return result;
}

TEST(OwnNames, AreNotCalledByTheLibrary) {
  const support::Capture quiet;
  Bytes jpeg = support::encodeJpeg(support::scene(64, 48), support::Sampling::Yuv420, 85);
  DecoderPool* const pool = GetDecoderPool();
  int width = 0, height = 0;
  EXPECT_NE(pool->DecodeJpeg(reinterpret_cast<char*>(jpeg.data()),
                             static_cast<unsigned>(jpeg.size()), width, height),
            nullptr);
  EXPECT_EQ(width, 64);
  ReleaseDecoderPool(pool);
  EXPECT_EQ(encodeJpeg(CreateEncoderJPEG()), 1);
  EXPECT_EQ(encodeJpeg(new COmxJpegEncoder), 1);

  IH264Encoder* const encoder = CreateEncoderH264();
  for (const unsigned format : {0x56595559u, 0x30323449u}) {
    EXPECT_TRUE(encoder->Create(format, 64, 48, 30, 1, 1, 1, 500000));
    Bytes frame(64 * 48 * 2, 128), data(1 << 18);
    EXPECT_EQ(encoder->ProcessInput(frame.data(), 64 * 48 * 2, 0, 0), CodecOk);
    unsigned size = 0, flags = 0;
    CodecStatus status = CodecTimeout;
    while (status == CodecTimeout)
      status = encoder->ProcessOutput(data.data(), static_cast<unsigned>(data.size()), size, flags);
    EXPECT_EQ(status, CodecOk);
  }
  ReleaseEncoderH264(encoder);
  EXPECT_EQ(calls, 0);
}

}  // namespace
