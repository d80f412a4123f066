// Makes an H.264 stream (Annex B) smaller: one thread feeds the decoder, the main thread drains it
// and encodes again.
//
//   example_transcode in.h264 1280 720 1000000 out.h264

#include <tessera/tessera.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <thread>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;
constexpr unsigned fourccI420 = 0x30323449;

struct Release {
  void operator()(IH264Encoder* e) const { ReleaseEncoderH264(e); }
  void operator()(IH264Decoder* d) const { FreeH264Decoder(d); }
};

/// Where the next NAL unit starts, from `from` on.
std::size_t nextUnit(const Bytes& stream, std::size_t from) {
  for (std::size_t i = from; i + 3 < stream.size(); ++i)
    if (stream[i] == 0 && stream[i + 1] == 0 && stream[i + 2] == 1)
      return i > from && stream[i - 1] == 0 ? i - 1 : i;
  return stream.size();
}

/// Feeds the whole stream and an end-of-sequence unit, after which the decoder hands out all that
/// it holds. Any cut will do; NAL units are handy.
void feed(IH264Decoder& decoder, Bytes stream, int width, int height, std::atomic<bool>& done) {
  stream.insert(stream.end(), {0, 0, 0, 1, 10});
  for (std::size_t at = 0; at < stream.size();) {
    const std::size_t end = nextUnit(stream, at + 4);
    CodecStatus status;
    do {  // a time-out means that the drain is slow, nothing more
      status =
          decoder.ProcessInput(&stream[at], static_cast<unsigned>(end - at), width, height, 0, 0);
    } while (status == CodecTimeout);
    if (status != CodecOk) std::fprintf(stderr, "feeding answered 0x%x\n", status);
    at = end;
  }
  done = true;
}

/// Takes buffers until the frame that went in is out: a buffer that starts a slice ends the wait.
void collect(IH264Encoder& encoder, Bytes& buffer, std::ofstream& out) {
  for (;;) {
    unsigned size = 0, flags = 0;
    if (encoder.ProcessOutput(buffer.data(), static_cast<unsigned>(buffer.size()), size, flags) !=
        CodecOk)
      return;
    out.write(reinterpret_cast<const char*>(buffer.data()), size);
    const int type = size > 4 ? buffer[4] & 31 : 0;
    if (type != 7) return;  // parameter sets come alone, before their key frame
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) {
    std::fprintf(stderr, "usage: %s IN.h264 WIDTH HEIGHT BITRATE OUT.h264\n", argv[0]);
    return 2;
  }
  const int width = std::atoi(argv[2]), height = std::atoi(argv[3]);
  std::ifstream in(argv[1], std::ios::binary);
  if (!in) {
    std::perror(argv[1]);
    return 1;
  }
  const Bytes stream{std::istreambuf_iterator<char>(in), {}};
  std::ofstream out(argv[5], std::ios::binary);

  IH264Decoder* made = nullptr;
  if (CreateH264Decoder(&made) == 0) return 1;
  const std::unique_ptr<IH264Decoder, Release> decoder(made);
  const std::unique_ptr<IH264Encoder, Release> encoder(CreateEncoderH264());
  if (!decoder->Create(width, height, 0, nullptr) ||
      !encoder->Create(fourccI420, width, height, 30, 1, 1, 1,
                       static_cast<unsigned>(std::atol(argv[4]))))
    return 1;

  std::atomic<bool> done{false};
  std::thread feeder([&] { feed(*decoder, stream, width, height, done); });
  const unsigned padded = static_cast<unsigned>((width + 31) / 32 * 32 * ((height + 15) / 16 * 16));
  Bytes picture(padded * 3 / 2), coded(padded * 3 + 65536);
  int pictures = 0;
  for (int idle = 0; idle < 3;) {  // three time-outs after the last byte went in: nothing is left
    unsigned size = 0, w = 0, h = 0;
    unsigned long long timestamp = 0;
    const CodecStatus status = decoder->ProcessOutput(
        picture.data(), static_cast<unsigned>(picture.size()), size, w, h, timestamp);
    if (status == CodecTimeout) idle += done;
    if (status != CodecOk) continue;
    // The decoder's padded layout is the encoder's.
    if (encoder->ProcessInput(picture.data(), size, 0, 0) != CodecOk) break;
    ++pictures;
    collect(*encoder, coded, out);
  }
  feeder.join();
  std::fprintf(stderr, "%d pictures, %zu bytes became %lld\n", pictures, stream.size(),
               static_cast<long long>(out.tellp()));
  return pictures > 0 && out.good() ? 0 : 1;
}
