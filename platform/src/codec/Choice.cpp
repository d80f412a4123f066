#include "codec/Choice.h"

#include "codec/cpu/H264Decoder.h"
#include "codec/cpu/H264Encoder.h"
#include "codec/cpu/JpegDecoder.h"
#include "codec/cpu/JpegEncoder.h"

namespace codec {

std::unique_ptr<ImageEncoder> makeImageEncoder() {
  return std::make_unique<JpegEncoder>();
}

std::unique_ptr<ImageDecoder> makeImageDecoder() {
  return std::make_unique<JpegDecoder>();
}

std::unique_ptr<VideoEncoder> makeVideoEncoder() {
  return std::make_unique<H264Encoder>();
}

std::unique_ptr<VideoDecoder> makeVideoDecoder() {
  return std::make_unique<H264Decoder>();
}

}  // namespace codec
