// An application as users write them: one include, one factory, one picture.
#include <tessera/tessera.h>

#include <cstdio>
#include <vector>

int main() {
  constexpr int width = 64, height = 32;
  std::vector<unsigned char> frame(tessera::PaddedWidth(width) * height * 2, 0x80);
  std::vector<unsigned char> jpeg(frame.size());
  unsigned int size = 0;

  IJPEGEncoder* encoder = CreateEncoderJPEG();
  const int done =
      encoder->EncodeYUYV(frame.data(), static_cast<unsigned int>(frame.size()), width, height,
                          jpeg.data(), static_cast<unsigned int>(jpeg.size()), size);
  ReleaseEncoderJPEG(encoder);

  int probedWidth = 0, probedHeight = 0;
  const bool probed =
      done != 0 &&
      GetJpegWidthAndHeight(probedWidth, probedHeight, reinterpret_cast<char*>(jpeg.data()), size);
  std::printf("jpeg %u bytes, %d x %d\n", size, probedWidth, probedHeight);
  return probed && probedWidth == width && probedHeight == height ? 0 : 1;
}
