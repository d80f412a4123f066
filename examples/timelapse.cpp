// JPEGs of one size to an H.264 clip.
//
//   example_timelapse out.h264 25 one.jpg two.jpg three.jpg ...

#include <cstdlib>
#include <fstream>
#include <iterator>

#include "Recorder.h"

namespace {

struct Release {
  void operator()(DecoderPool* pool) const { ReleaseDecoderPool(pool); }
};

std::vector<char> load(const char* path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace

int main(int argc, char** argv) {
  const int rate = argc >= 4 ? std::atoi(argv[2]) : 0;
  if (rate <= 0) {
    std::fprintf(stderr, "usage: %s OUT.h264 FRAMES_A_SECOND JPEG...\n", argv[0]);
    return 2;
  }
  const std::unique_ptr<DecoderPool, Release> pool(GetDecoderPool());
  Recorder recorder(argv[1]);
  int clipWidth = 0, clipHeight = 0, leftOut = 0;

  for (int i = 3; i < argc; ++i) {
    std::vector<char> jpeg = load(argv[i]);
    int width = 0, height = 0;
    unsigned char* const picture =
        pool->DecodeJpeg(jpeg.data(), static_cast<unsigned>(jpeg.size()), width, height);
    if (picture == nullptr) {
      std::fprintf(stderr, "%s: not a JPEG that can be decoded, left out\n", argv[i]);
      ++leftOut;
      continue;
    }
    if (clipWidth == 0) {  // the first picture decides
      clipWidth = width;
      clipHeight = height;
      if (!recorder.start(tessera::fourccI420, width, height, static_cast<unsigned>(rate), 8000000))
        return 1;
    }
    if (width != clipWidth || height != clipHeight) {
      std::fprintf(stderr, "%s: %dx%d, but the clip is %dx%d; left out\n", argv[i], width, height,
                   clipWidth, clipHeight);
      ++leftOut;
      continue;
    }
    toLimitedRange(picture, width, height);
    // The pool's picture has the padded layout that the encoder takes.
    if (!recorder.add(picture, tessera::PaddedSize(width, height))) return 1;
  }
  if (!recorder.finish()) return 1;
  std::fprintf(stderr, "%llu frames of %dx%d, %d left out\n", recorder.frames(), clipWidth,
               clipHeight, leftOut);
  return leftOut == 0 ? 0 : 1;
}
