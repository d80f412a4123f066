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
#include <tessera/tessera.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr unsigned fourccI420 = 0x30323449, fourccYuyv = 0x56595559;

[[noreturn]] void fail(const std::string& what) {
  std::perror(what.c_str());
  std::exit(1);
}

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
  ~Camera() {
    if (data_ != nullptr) munmap(data_, size_);
    close(descriptor_);
  }
  Camera(const Camera&) = delete;
  Camera& operator=(const Camera&) = delete;

  /// The next frame, or false at the end. Valid until the next call.
  bool next(unsigned char*& data, unsigned& size) {
    if (!device_) {
      data = frame_.data();
      size = static_cast<unsigned>(frame_.size());
      return read(descriptor_, data, size) == static_cast<ssize_t>(size);
    }
    if (ioctl(descriptor_, VIDIOC_QBUF, &buffer_) != 0 ||
        ioctl(descriptor_, VIDIOC_DQBUF, &buffer_) != 0)
      return false;
    data = static_cast<unsigned char*>(data_);
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
    v4l2_requestbuffers request{};
    request.count = 1;
    request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    request.memory = V4L2_MEMORY_MMAP;
    if (ioctl(descriptor_, VIDIOC_REQBUFS, &request) != 0) fail("asking for a buffer");
    buffer_.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buffer_.memory = V4L2_MEMORY_MMAP;
    if (ioctl(descriptor_, VIDIOC_QUERYBUF, &buffer_) != 0) fail("the buffer");
    size_ = buffer_.length;
    data_ = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor_,
                 static_cast<off_t>(buffer_.m.offset));
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (data_ == MAP_FAILED || ioctl(descriptor_, VIDIOC_STREAMON, &type) != 0) fail("starting");
  }

  int descriptor_;
  bool device_ = false;
  std::vector<unsigned char> frame_;
  v4l2_buffer buffer_{};
  void* data_ = nullptr;
  std::size_t size_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 7) {
    std::fprintf(stderr, "usage: %s DEVICE WIDTH HEIGHT yuyv|mjpeg FRAMES OUT.h264\n", argv[0]);
    return 2;
  }
  const int width = std::atoi(argv[2]), height = std::atoi(argv[3]);
  const bool mjpeg = std::strcmp(argv[4], "mjpeg") == 0;
  if (width <= 0 || height <= 0) return 2;
  Camera camera(argv[1], static_cast<unsigned>(width), static_cast<unsigned>(height), mjpeg);
  std::ofstream out(argv[6], std::ios::binary);

  const std::unique_ptr<DecoderPool, int (*)(DecoderPool*)> pool(mjpeg ? GetDecoderPool() : nullptr,
                                                                 ReleaseDecoderPool);
  const std::unique_ptr<IH264Encoder, int (*)(IH264Encoder*)> encoder(CreateEncoderH264(),
                                                                      ReleaseEncoderH264);
  if (!encoder->Create(mjpeg ? fourccI420 : fourccYuyv, width, height, 30, 1, 1, 1, 4000000))
    return 1;

  // Frames may come in pieces of at most one output buffer; this is room for the largest.
  std::vector<unsigned char> coded(static_cast<std::size_t>(width) * height * 3 + 65536);
  unsigned char* data = nullptr;
  unsigned size = 0;
  int frames = 0;
  while (frames < std::atoi(argv[5]) && camera.next(data, size)) {
    if (mjpeg) {
      int w = 0, h = 0;
      data = pool->DecodeJpeg(reinterpret_cast<char*>(data), size, w, h);
      if (data == nullptr || w != width || h != height) continue;  // a bad frame: take the next
      size = static_cast<unsigned>((w + 31) / 32 * 32 * ((h + 15) / 16 * 16) * 3 / 2);
    }
    if (encoder->ProcessInput(data, size, 0, 0) != CodecOk) return 1;
    ++frames;
    // CodecTimeout after 100 ms says that everything is out; at 30 frames a second the next frame
    // is due before that, so take what the first calls give and leave the rest for the next round.
    unsigned bytes = 0, flags = 0;
    while (encoder->ProcessOutput(coded.data(), static_cast<unsigned>(coded.size()), bytes,
                                  flags) == CodecOk) {
      out.write(reinterpret_cast<const char*>(coded.data()), bytes);
      const bool parameterSets = bytes > 4 && (coded[4] & 31) == 7 && bytes < 256;
      if (!parameterSets) break;
    }
  }
  std::fprintf(stderr, "%d frames\n", frames);
  return out.good() && frames > 0 ? 0 : 1;
}
