// Runs all six classes on one scene, says how large, how fast and how close to the original each
// result is, and leaves the results where a viewer finds them.

#include <tessera/tessera.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>

#include "Scene.h"

namespace demo {
namespace {

constexpr int pictures = 20;
constexpr int frames = 60;
constexpr unsigned bitrate = 4000000;

class Stopwatch {
 public:
  double milliseconds() const {
    return std::chrono::duration<double, std::milli>(Clock::now() - start_).count();
  }

 private:
  using Clock = std::chrono::steady_clock;
  Clock::time_point start_ = Clock::now();
};

/// What the library prints goes to a file, and is shown where something fails.
class HeldLines {
 public:
  HeldLines() : stdout_(dup(STDOUT_FILENO)), stderr_(dup(STDERR_FILENO)), kept_(std::tmpfile()) {
    if (kept_ == nullptr) return;
    dup2(fileno(kept_), STDOUT_FILENO);
    dup2(fileno(kept_), STDERR_FILENO);
  }

  int standardOutput() const { return stdout_; }

  void show() {
    std::fflush(stdout);
    dup2(stderr_, STDERR_FILENO);
    if (kept_ == nullptr) return;
    std::rewind(kept_);
    for (int c; (c = std::getc(kept_)) != EOF;) std::fputc(c, stderr);
  }

 private:
  int stdout_;
  int stderr_;
  std::FILE* kept_;
};

HeldLines& heldLines() {
  static HeldLines lines;
  return lines;
}

/// Data goes to the real standard output.
class Table {
 public:
  Table() : out_(fdopen(heldLines().standardOutput(), "w")) {
    std::fprintf(out_, "%-17s %-16s %-10s %10s %9s %9s  %s\n", "class", "work", "size", "bytes",
                 "ms/frame", "PSNR dB", "remark");
  }
  ~Table() { std::fclose(out_); }
  Table(const Table&) = delete;
  Table& operator=(const Table&) = delete;

  void row(const char* name, const char* work, std::size_t bytes, double ms, double psnr,
           const std::string& remark) {
    std::fprintf(out_, "%-17s %-16s %-10s %10zu %9.2f %9.1f  %s\n", name, work, "1280x720", bytes,
                 ms, psnr, remark.c_str());
    std::fflush(out_);
  }

 private:
  std::FILE* out_;
};

[[noreturn]] void fail(const char* what) {
  heldLines().show();
  std::fprintf(stderr, "tessera_demo: %s failed\n", what);
  std::exit(1);
}

struct Release {
  void operator()(DecoderPool* p) const { ReleaseDecoderPool(p); }
  void operator()(IJPEGEncoder* e) const { ReleaseEncoderJPEG(e); }
  void operator()(IH264Encoder* e) const { ReleaseEncoderH264(e); }
  void operator()(IH264Decoder* d) const { FreeH264Decoder(d); }
};
template <typename T>
using Owned = std::unique_ptr<T, Release>;

void save(const std::string& path, const Bytes& data) {
  std::ofstream file(path, std::ios::binary);
  file.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
  if (!file) fail(path.c_str());
}

Bytes jpegRow(Table& table, DecoderPool& pool, const char* name, Owned<IJPEGEncoder> encoder) {
  Bytes raw = yuyv(0), jpeg(raw.size());
  const Bytes truth = i420(0);
  unsigned size = 0;
  double ms = 0;
  for (int i = 0; i <= pictures; ++i) {  // the first one sets the component up
    const Stopwatch watch;
    if (encoder->EncodeYUYV(raw.data(), static_cast<unsigned>(raw.size()), width, height,
                            jpeg.data(), static_cast<unsigned>(jpeg.size()), size) == 0)
      fail(name);
    if (i > 0) ms += watch.milliseconds();
  }
  jpeg.resize(size);
  int w = 0, h = 0;
  const unsigned char* const seen =
      pool.DecodeJpeg(reinterpret_cast<char*>(jpeg.data()), size, w, h);
  if (seen == nullptr || w != width || h != height) fail("decoding the JPEG");
  table.row(name, "YUYV to JPEG", size, ms / pictures, lumaPsnr(seen, truth.data()), "quality 75");
  return jpeg;
}

void poolRow(Table& table, DecoderPool& pool, Bytes jpeg) {
  const Bytes truth = i420(0);
  const unsigned char* seen = nullptr;
  const Stopwatch watch;
  for (int i = 0; i < pictures; ++i) {
    int w = 0, h = 0;
    seen = pool.DecodeJpeg(reinterpret_cast<char*>(jpeg.data()), static_cast<unsigned>(jpeg.size()),
                           w, h);
    if (seen == nullptr) fail("DecoderPool");
  }
  table.row("DecoderPool", "JPEG to 4:2:0", pictureBytes, watch.milliseconds() / pictures,
            lumaPsnr(seen, truth.data()), "read in place");
}

/// The stream, and where each frame ends in it.
struct Clip {
  Bytes stream;
  std::vector<std::size_t> ends;
};

/// Decodes the clip frame by frame; returns the mean PSNR and counts the frames that lag.
double decode(IH264Decoder& decoder, const Clip& clip, double& ms, int& lag) {
  Bytes picture(pictureBytes);
  double psnr = 0;
  int out = 0;
  if (!decoder.Create(width, height, 0, nullptr)) fail("CMmalH264Decoder::Create");
  std::size_t from = 0;
  for (int i = 0; i < frames; ++i) {
    Bytes unit(clip.stream.begin() + static_cast<std::ptrdiff_t>(from),
               clip.stream.begin() + static_cast<std::ptrdiff_t>(clip.ends[i]));
    from = clip.ends[i];
    const Stopwatch watch;
    if (decoder.ProcessInput(unit.data(), static_cast<unsigned>(unit.size()), width, height, 0,
                             static_cast<unsigned long long>(i) * 1000 / 30 + 1) != CodecOk)
      fail("CMmalH264Decoder::ProcessInput");
    unsigned size = 0, w = 0, h = 0;
    unsigned long long timestamp = 0;
    CodecStatus status = CodecTimeout;
    // A time-out is a busy machine's; no buffer, an earlier set-up's count on the semaphore.
    for (int tries = 0; (status == CodecTimeout || status == CodecNoBuffer) && tries < 9; ++tries)
      status = decoder.ProcessOutput(picture.data(), static_cast<unsigned>(picture.size()), size, w,
                                     h, timestamp);
    ms += watch.milliseconds();
    if (status == CodecOk) psnr += lumaPsnr(picture.data(), i420(out++).data());
  }
  lag = frames - out;
  return out == 0 ? 0 : psnr / out;
}

Clip videoRow(Table& table, IH264Decoder& decoder, const char* name, Owned<IH264Encoder> encoder) {
  if (!encoder->Create(tessera::fourccI420, width, height, 30, 1, 1, 1, bitrate)) fail(name);
  Clip clip;
  Bytes data(pictureBytes);
  double ms = 0;
  for (int t = 0; t < frames; ++t) {
    Bytes raw = i420(t);
    const Stopwatch watch;
    if (encoder->ProcessInput(raw.data(), static_cast<unsigned>(raw.size()), 0, t) != CodecOk)
      fail(name);
    for (bool whole = false; !whole;) {
      unsigned size = 0, flags = 0;
      const CodecStatus status =
          encoder->ProcessOutput(data.data(), static_cast<unsigned>(data.size()), size, flags);
      if (status == CodecTimeout) continue;  // a busy machine
      if (status != CodecOk) fail(name);
      whole = tessera::HasPicture(data.data(), size);
      clip.stream.insert(clip.stream.end(), data.begin(), data.begin() + size);
    }
    ms += watch.milliseconds();
    clip.ends.push_back(clip.stream.size());
  }
  double decodeMs = 0;
  int lag = 0;
  const double psnr = decode(decoder, clip, decodeMs, lag);
  char remark[80];
  std::snprintf(remark, sizeof remark, "%.2f Mb/s of %.2f asked for",
                static_cast<double>(clip.stream.size()) * 8 * 30 / frames / 1e6, bitrate / 1e6);
  table.row(name, "I420 to H.264", clip.stream.size(), ms / frames, psnr, remark);
  return clip;
}

void decoderRow(Table& table, IH264Decoder& decoder, const Clip& clip) {
  double ms = 0;
  int lag = 0;
  const double psnr = decode(decoder, clip, ms, lag);
  table.row("CMmalH264Decoder", "H.264 to I420", pictureBytes, ms / frames, psnr,
            "lag " + std::to_string(lag) + " frames");
}

int run(const std::string& folder) {
  Table table;
  const Owned<DecoderPool> pool(GetDecoderPool());
  IH264Decoder* made = nullptr;
  if (CreateH264Decoder(&made) == 0) fail("CreateH264Decoder");
  const Owned<IH264Decoder> decoder(made);
  const Bytes jpeg =
      jpegRow(table, *pool, "CMmalJpegEncoder", Owned<IJPEGEncoder>(CreateEncoderJPEG()));
  jpegRow(table, *pool, "COmxJpegEncoder", Owned<IJPEGEncoder>(new COmxJpegEncoder));
  poolRow(table, *pool, jpeg);
  const Clip clip =
      videoRow(table, *decoder, "CMmalH264Encoder", Owned<IH264Encoder>(CreateEncoderH264()));
  videoRow(table, *decoder, "COmxH264Encoder", Owned<IH264Encoder>(new COmxH264Encoder));
  decoderRow(table, *decoder, clip);
  save(folder + "/picture.jpg", jpeg);
  save(folder + "/clip.h264", clip.stream);
  return 0;
}

}  // namespace
}  // namespace demo

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: tessera_demo FOLDER\n");
    return 2;
  }
  return demo::run(argv[1]);
}
