// JPEGs of one size to an H.264 clip.
//
//   example_timelapse out.h264 25 one.jpg two.jpg three.jpg ...

#include <tessera/tessera.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;
constexpr unsigned fourccI420 = 0x30323449;

struct Release {
  void operator()(DecoderPool* p) const { ReleaseDecoderPool(p); }
  void operator()(IH264Encoder* e) const { ReleaseEncoderH264(e); }
};

std::vector<char> load(const char* path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "usage: %s OUT.h264 FRAMES_A_SECOND JPEG...\n", argv[0]);
    return 2;
  }
  const std::unique_ptr<DecoderPool, Release> pool(GetDecoderPool());
  const std::unique_ptr<IH264Encoder, Release> encoder(CreateEncoderH264());
  std::ofstream out(argv[1], std::ios::binary);
  Bytes coded;
  int clipWidth = 0, clipHeight = 0, frames = 0;

  for (int i = 3; i < argc; ++i) {
    std::vector<char> jpeg = load(argv[i]);
    int width = 0, height = 0;
    unsigned char* const picture =
        pool->DecodeJpeg(jpeg.data(), static_cast<unsigned>(jpeg.size()), width, height);
    if (picture == nullptr) {
      std::fprintf(stderr, "%s: not a JPEG that can be decoded, left out\n", argv[i]);
      continue;
    }
    if (clipWidth == 0) {  // the first picture decides
      clipWidth = width;
      clipHeight = height;
      coded.resize(static_cast<std::size_t>(width) * height * 3 + 65536);
      if (!encoder->Create(fourccI420, width, height, static_cast<unsigned>(std::atoi(argv[2])), 1,
                           1, 1, 8000000))
        return 1;
    }
    if (width != clipWidth || height != clipHeight) {
      std::fprintf(stderr, "%s: %dx%d, but the clip is %dx%d; left out\n", argv[i], width, height,
                   clipWidth, clipHeight);
      continue;
    }
    // The pool's picture has the padded layout that the encoder takes.
    const auto size =
        static_cast<unsigned>((width + 31) / 32 * 32 * ((height + 15) / 16 * 16) * 3 / 2);
    if (encoder->ProcessInput(picture, size, 0, 0) != CodecOk) return 1;
    ++frames;
    // Nothing hurries a time-lapse: drain until a time-out says that everything is out.
    unsigned bytes = 0, flags = 0;
    while (encoder->ProcessOutput(coded.data(), static_cast<unsigned>(coded.size()), bytes,
                                  flags) == CodecOk)
      out.write(reinterpret_cast<const char*>(coded.data()), bytes);
  }
  std::fprintf(stderr, "%d frames of %dx%d\n", frames, clipWidth, clipHeight);
  return frames > 0 && out.good() ? 0 : 1;
}
