// Makes an H.264 stream (Annex B, progressive) smaller: one thread feeds the decoder, the main
// thread takes its pictures and encodes them again.
//
//   example_transcode in.h264 1280 720 1000000 out.h264

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <thread>

#include "Recorder.h"

namespace {

using Bytes = std::vector<unsigned char>;

struct Release {
  void operator()(IH264Decoder* decoder) const { FreeH264Decoder(decoder); }
};

/// What the feeding thread tells the other one.
struct Feed {
  std::atomic<int> pictures{0};
  std::atomic<bool> ended{false};
  std::atomic<bool> stop{false};
};

/// Waits out time-outs, which mean that the pictures are not taken fast enough.
CodecStatus feedPiece(IH264Decoder& decoder, unsigned char* data, std::size_t size, int width,
                      int height, const Feed& feed) {
  CodecStatus status = CodecTimeout;
  while (status == CodecTimeout && !feed.stop)
    status = decoder.ProcessInput(data, static_cast<unsigned>(size), width, height, 0, 0);
  return status;
}

/// One access unit after another, in pieces that the decoder takes as a whole or not at all.
void feedAll(IH264Decoder& decoder, Bytes stream, int width, int height, Feed& feed) {
  stream.insert(stream.end(), tessera::endOfSequence.begin(), tessera::endOfSequence.end());
  const std::size_t most = tessera::DecoderBufferSize(width, height);
  CodecStatus status = CodecOk;
  for (std::size_t at = 0, end = 0; at < stream.size() && status == CodecOk;) {
    if (at == end) {
      end = tessera::AccessUnitEnd(stream.data(), stream.size(), at);
      if (tessera::HasPicture(&stream[at], end - at)) ++feed.pictures;
    }
    const std::size_t size = std::min(end - at, most);
    status = feedPiece(decoder, &stream[at], size, width, height, feed);
    at += size;
  }
  if (status != CodecOk && !feed.stop)
    std::fprintf(stderr, "the decoder: %s\n", tessera::StatusText(status));
  feed.ended = true;
}

/// @return the pictures taken; negative when one could not be used
int recordAll(IH264Decoder& decoder, int width, int height, const Feed& feed, Recorder& recorder) {
  Bytes picture(tessera::PaddedSize(width, height));
  int pictures = 0;
  for (int waits = 0; waits < 20 && (!feed.ended || pictures < feed.pictures);) {
    unsigned size = 0, w = 0, h = 0;
    unsigned long long timestamp = 0;
    const CodecStatus status = decoder.ProcessOutput(
        picture.data(), static_cast<unsigned>(picture.size()), size, w, h, timestamp);
    if (status == CodecOk && size != picture.size()) {
      std::fprintf(stderr, "the pictures are not of %d x %d\n", width, height);
      return -1;
    }
    if (status == CodecOk) {
      // The decoder's padded layout is the encoder's.
      if (!recorder.add(picture.data(), size)) return -1;
      ++pictures;
    } else if (status != CodecTimeout && status != CodecNoBuffer) {
      std::fprintf(stderr, "the decoder: %s\n", tessera::StatusText(status));
      return -1;
    }
    // Once all is fed, two seconds without a picture: there are no more.
    waits = status == CodecOk || !feed.ended ? 0 : waits + 1;
  }
  return pictures;
}

}  // namespace

int main(int argc, char** argv) {
  const int width = argc == 6 ? std::atoi(argv[2]) : 0, height = argc == 6 ? std::atoi(argv[3]) : 0;
  const long bitrate = argc == 6 ? std::atol(argv[4]) : 0;
  if (width <= 0 || height <= 0 || bitrate <= 0) {
    std::fprintf(stderr, "usage: %s IN.h264 WIDTH HEIGHT BITRATE OUT.h264\n", argv[0]);
    return 2;
  }
  std::ifstream in(argv[1], std::ios::binary);
  if (!in) {
    std::perror(argv[1]);
    return 1;
  }
  const Bytes stream{std::istreambuf_iterator<char>(in), {}};

  IH264Decoder* made = nullptr;
  if (CreateH264Decoder(&made) == 0) return 1;
  const std::unique_ptr<IH264Decoder, Release> decoder(made);
  Recorder recorder(argv[5]);
  if (!decoder->Create(width, height, 0, nullptr) ||
      !recorder.start(tessera::fourccI420, width, height, 30, static_cast<unsigned>(bitrate)))
    return 1;

  Feed feed;
  std::thread feeder([&] { feedAll(*decoder, stream, width, height, feed); });
  const int pictures = recordAll(*decoder, width, height, feed, recorder);
  feed.stop = true;
  feeder.join();
  if (pictures < 0 || !recorder.finish()) return 1;
  std::fprintf(stderr, "%d of %d pictures\n", pictures, feed.pictures.load());
  return pictures == feed.pictures ? 0 : 1;
}
