#include <tessera/CMmalH264Encoder.h>
#include <tessera/CMmalJpegEncoder.h>

IJPEGEncoder* CreateEncoderJPEG() {
  return new CMmalJpegEncoder;
}

int ReleaseEncoderJPEG(IJPEGEncoder* encoder) {
  if (encoder == nullptr) return 0;
  delete encoder;
  return 1;
}

IH264Encoder* CreateEncoderH264() {
  return new CMmalH264Encoder;
}

int ReleaseEncoderH264(IH264Encoder* encoder) {
  if (encoder == nullptr) return 0;
  delete encoder;
  return 1;
}
