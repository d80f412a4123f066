// A V4L2 camera to H.264. YUYV frames go to the encoder as they are; MJPEG frames go through the
// decoder pool first, whose pictures already have the layout that the encoder takes.
//
//   example_camera /dev/video0 1280 720 yuyv|mjpeg 300 out.h264
//
// Try it without a camera: a file of raw YUYV frames may stand in for the device.

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "Recorder.h"

namespace {

[[noreturn]] void fail(const std::string& what) {
  std::perror(what.c_str());
  std::exit(1);
}

/// A buffer that the device fills, mapped into memory.
struct Mapping {
  void* data = MAP_FAILED;
  std::size_t size = 0;
  ~Mapping() {
    if (data != MAP_FAILED) munmap(data, size);
  }
};

/// Frames from a device, mapped into memory, or from a file.
class Camera {
 public:
  Camera(const char* path, unsigned width, unsigned height, bool mjpeg)
      : descriptor_(open(path, O_RDWR)) {
    if (descriptor_ < 0) descriptor_ = open(path, O_RDONLY);
    struct stat info {};
    if (descriptor_ < 0 || fstat(descriptor_, &info) != 0) fail(path);
    device_ = S_ISCHR(info.st_mode);
    frame_.resize(std::size_t{width} * height * 2);
    if (device_) start(width, height, mjpeg);
  }
  ~Camera() { close(descriptor_); }
  Camera(const Camera&) = delete;
  Camera& operator=(const Camera&) = delete;

  /// The next frame, or false at the end of a file. Valid until the next call, which gives its
  /// buffer back; meanwhile the device fills the others.
  bool next(unsigned char*& data, unsigned& size) {
    if (!device_) {
      data = frame_.data();
      size = static_cast<unsigned>(frame_.size());
      return readFrame();
    }
    if (taken_ && ioctl(descriptor_, VIDIOC_QBUF, &buffer_) != 0) fail("giving a buffer back");
    int result = 0;
    do result = ioctl(descriptor_, VIDIOC_DQBUF, &buffer_);
    while (result != 0 && errno == EINTR);
    if (result != 0) fail("taking a frame");
    taken_ = true;
    data = static_cast<unsigned char*>(mappings_[buffer_.index].data);
    size = buffer_.bytesused;
    return true;
  }

 private:
  void start(unsigned width, unsigned height, bool mjpeg) {
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    format.fmt.pix.width = width;
    format.fmt.pix.height = height;
    format.fmt.pix.pixelformat = mjpeg ? V4L2_PIX_FMT_MJPEG : V4L2_PIX_FMT_YUYV;
    if (ioctl(descriptor_, VIDIOC_S_FMT, &format) != 0) fail("setting the format");
    if (format.fmt.pix.width != width || format.fmt.pix.height != height)
      fail("the camera does not offer this size");
    if (!mjpeg && format.fmt.pix.bytesperline != width * 2) {
      std::fprintf(stderr, "the camera pads its rows; copy them together first\n");
      std::exit(1);
    }
    v4l2_requestbuffers request{};
    request.count = static_cast<unsigned>(mappings_.size());
    request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    request.memory = V4L2_MEMORY_MMAP;
    if (ioctl(descriptor_, VIDIOC_REQBUFS, &request) != 0) fail("asking for buffers");
    for (unsigned i = 0; i < request.count && i < mappings_.size(); ++i) map(i);
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (ioctl(descriptor_, VIDIOC_STREAMON, &type) != 0) fail("starting");
  }

  void map(unsigned index) {
    buffer_ = {};
    buffer_.index = index;
    buffer_.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buffer_.memory = V4L2_MEMORY_MMAP;
    if (ioctl(descriptor_, VIDIOC_QUERYBUF, &buffer_) != 0) fail("a buffer");
    Mapping& mapping = mappings_[index];
    mapping.size = buffer_.length;
    mapping.data = mmap(nullptr, mapping.size, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor_,
                        static_cast<off_t>(buffer_.m.offset));
    if (mapping.data == MAP_FAILED || ioctl(descriptor_, VIDIOC_QBUF, &buffer_) != 0)
      fail("a buffer");
  }

  bool readFrame() {
    std::size_t done = 0;
    while (done < frame_.size()) {
      const ssize_t got = read(descriptor_, &frame_[done], frame_.size() - done);
      if (got < 0 && errno != EINTR) fail("reading");
      if (got == 0) break;
      if (got > 0) done += static_cast<std::size_t>(got);
    }
    if (done > 0 && done < frame_.size()) std::fprintf(stderr, "the last frame is cut short\n");
    return done == frame_.size();
  }

  int descriptor_;
  bool device_ = false;
  std::vector<unsigned char> frame_;
  v4l2_buffer buffer_{};  // the one that was taken last
  bool taken_ = false;
  std::array<Mapping, 4> mappings_;
};

}  // namespace

int main(int argc, char** argv) {
  const bool mjpeg = argc == 7 && std::strcmp(argv[4], "mjpeg") == 0;
  const int width = argc == 7 ? std::atoi(argv[2]) : 0, height = argc == 7 ? std::atoi(argv[3]) : 0;
  const int wanted = argc == 7 ? std::atoi(argv[5]) : 0;
  if (width <= 0 || height <= 0 || wanted <= 0 || (!mjpeg && std::strcmp(argv[4], "yuyv") != 0)) {
    std::fprintf(stderr, "usage: %s DEVICE WIDTH HEIGHT yuyv|mjpeg FRAMES OUT.h264\n", argv[0]);
    return 2;
  }
  Camera camera(argv[1], static_cast<unsigned>(width), static_cast<unsigned>(height), mjpeg);
  const std::unique_ptr<DecoderPool, int (*)(DecoderPool*)> pool(mjpeg ? GetDecoderPool() : nullptr,
                                                                 ReleaseDecoderPool);
  Recorder recorder(argv[6]);
  if (!recorder.start(mjpeg ? tessera::fourccI420 : tessera::fourccYuyv, width, height, 30,
                      4000000))
    return 1;

  unsigned char* data = nullptr;
  unsigned size = 0;
  int frames = 0, bad = 0;
  while (frames < wanted && bad < 100 && camera.next(data, size)) {
    std::size_t bytes = size;
    if (mjpeg) {
      int w = 0, h = 0;
      data = pool->DecodeJpeg(reinterpret_cast<char*>(data), size, w, h);
      if (data == nullptr || w != width || h != height) {  // take the next one
        ++bad;
        continue;
      }
      toLimitedRange(data, w, h);
      bytes = tessera::PaddedSize(w, h);
    }
    if (!recorder.add(data, bytes)) return 1;
    ++frames;
  }
  if (!recorder.finish()) return 1;
  std::fprintf(stderr, "%d frames, %d that could not be decoded\n", frames, bad);
  return 0;
}
