#include "StandIn.h"

#include <libyuv/convert.h>
#include <libyuv/convert_argb.h>
#include <libyuv/convert_from.h>
#include <linux/v4l2-controls.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "codec/H264Bits.h"

namespace standin {

const Layout& layoutOf(std::uint32_t fourcc) {
  static constexpr Layout all[] = {{V4L2_PIX_FMT_YUV420, "Planar YUV 4:2:0", 1, 1},
                                   {V4L2_PIX_FMT_NV12, "Y/CbCr 4:2:0", 1, 2},
                                   {V4L2_PIX_FMT_YUYV, "YUYV 4:2:2", 1, 0},
                                   {V4L2_PIX_FMT_YUV420M, "Planar YUV 4:2:0 (N-C)", 3, 1},
                                   {V4L2_PIX_FMT_NV12M, "Y/CbCr 4:2:0 (N-C)", 2, 2},
                                   {V4L2_PIX_FMT_H264, "H.264"},
                                   {V4L2_PIX_FMT_JPEG, "JFIF JPEG"}};
  return *std::find_if(std::begin(all), std::end(all),
                       [&](const Layout& each) { return each.fourcc == fourcc; });
}

namespace {

std::atomic<std::uint64_t> skipped{0};

constexpr unsigned smallest = 2, largest = 4096;
constexpr std::size_t page = 4096;

unsigned up(unsigned value, unsigned multiple) {
  return (value + multiple - 1) / multiple * multiple;
}

/// Where the planes of a frame lie, from a place in it on; of interleaved chroma in `u` alone.
codec::Planes view(const Format& format, const Buffer& buffer, std::size_t left = 0,
                   std::size_t top = 0) {
  const Layout& raw = layoutOf(format.fourcc);
  const unsigned stride = format.bytesPerLine[0], rows = format.height;
  const unsigned chroma = raw.chromaStep == 2 ? stride : stride / 2;
  const std::size_t at = top / 2 * chroma + left / 2 * raw.chromaStep;
  std::uint8_t* const u =
      raw.planes == 1 ? buffer.data[0] + std::size_t{stride} * rows : buffer.data[1];
  std::uint8_t* const v =
      raw.planes == 3 ? buffer.data[2] : u + std::size_t{chroma} * ((rows + 1) / 2);
  return {buffer.data[0] + top * stride + left, u + at, raw.chromaStep == 2 ? nullptr : v + at,
          stride, chroma};
}

template <typename Byte>
void copyPlanes(const codec::BasicPlanes<Byte>& from, const codec::Planes& to, unsigned width,
                unsigned height) {
  const auto whole = [](unsigned a) { return static_cast<int>(a); };
  const int w = whole(width), h = whole(height), fromY = whole(from.yStride),
            fromUv = whole(from.uvStride), toY = whole(to.yStride), toUv = whole(to.uvStride);
  if (from.v == nullptr)
    libyuv::NV12ToI420(from.y, fromY, from.u, fromUv, to.y, toY, to.u, toUv, to.v, toUv, w, h);
  else if (to.v == nullptr)
    libyuv::I420ToNV12(from.y, fromY, from.u, fromUv, from.v, fromUv, to.y, toY, to.u, toUv, w, h);
  else
    libyuv::I420Copy(from.y, fromY, from.u, fromUv, from.v, fromUv, to.y, toY, to.u, toUv, to.v,
                     toUv, w, h);
}

/// A picture's own planes, of even sides.
std::vector<std::uint8_t> blockOf(unsigned width, unsigned height) {
  return std::vector<std::uint8_t>(std::size_t{up(width, 2)} * up(height, 2) * 3 / 2);
}
template <typename Byte>
codec::BasicPlanes<Byte> planesOf(Byte* block, unsigned width, unsigned height) {
  return codec::planesOf(block, up(width, 2), up(height, 2));
}

}  // namespace

std::uint64_t nowMs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC_RAW, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1000 +
         static_cast<std::uint64_t>(now.tv_nsec) / 1000000 + skipped;
}

void skipTo(std::uint64_t moment) {
  skipped += moment - std::min(moment, nowMs());
}

Session::Session(const Kind& kind, const Faults& faults) : kind_(kind), faults_(faults) {
  const bool multi = faults.multiPlanar != 0;
  in_.type = multi ? V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE : V4L2_BUF_TYPE_VIDEO_OUTPUT;
  out_.type = multi ? V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE : V4L2_BUF_TYPE_VIDEO_CAPTURE;
  for (Queue* const queue : {&in_, &out_}) {
    queue->format.colours[0] = V4L2_COLORSPACE_REC709;
    queue->format.fourcc = offered(*queue)[0];
    queue->format.setSize(640, 480);
    adjust(*queue, queue->format);
  }
  priorities(kind_)[this] = V4L2_PRIORITY_INTERACTIVE;
  crop_ = {0, 0, 640, 480};
  for (const ControlKind& control : controlsOf(kind)) values_[control.id] = control.initial;
}

std::vector<std::uint32_t> Session::offered(const Queue& queue) const {
  if (&queue == (kind_.encoder ? &out_ : &in_)) return {kind_.coded};
  if (faults_.multiPlanar != 0 && faults_.nv12 != 0) return {V4L2_PIX_FMT_NV12M};
  if (faults_.multiPlanar != 0) return {V4L2_PIX_FMT_YUV420M, V4L2_PIX_FMT_NV12M};
  if (faults_.nv12 != 0) return {V4L2_PIX_FMT_NV12};
  if (kind_.coded == V4L2_PIX_FMT_JPEG && kind_.encoder)
    return {V4L2_PIX_FMT_YUYV, V4L2_PIX_FMT_YUV420, V4L2_PIX_FMT_NV12};
  return {V4L2_PIX_FMT_YUV420, V4L2_PIX_FMT_NV12};
}

void Session::adjust(const Queue& queue, Format& format) const {
  const std::vector<std::uint32_t> all = offered(queue);
  if (std::find(all.begin(), all.end(), format.fourcc) == all.end()) format.fourcc = all[0];
  format.width = up(std::clamp(format.width, smallest, largest), faults_.align);
  format.height = up(std::clamp(format.height, smallest, largest), faults_.align);
  constexpr std::uint32_t jfif[] = {V4L2_COLORSPACE_SRGB, V4L2_YCBCR_ENC_601,
                                    V4L2_QUANTIZATION_FULL_RANGE, V4L2_XFER_FUNC_SRGB};
  if (kind_.coded == V4L2_PIX_FMT_JPEG) std::copy_n(jfif, 4, format.colours);
  const Layout& raw = layoutOf(format.fourcc);
  if (!raw.isRaw()) {
    const std::uint32_t least = std::max(format.width * format.height, 65536u);
    format.planes = 1;
    format.sizeImage[0] = std::min(std::max(format.sizeImage[0], least), 64u << 20);
    format.bytesPerLine[0] = 0;
    return;
  }
  const std::uint32_t stride = up(format.width, faults_.stride);
  const std::uint32_t chroma = stride / 2 * ((format.height + 1) / 2);
  format.planes = raw.planes;
  format.bytesPerLine[0] = raw.chromaStep == 0 ? stride * 2 : stride;
  format.sizeImage[0] = format.bytesPerLine[0] * format.height;
  if (raw.planes == 1 && raw.chromaStep != 0) format.sizeImage[0] += 2 * chroma;
  for (unsigned i = 1; i < raw.planes; ++i) {
    format.bytesPerLine[i] = raw.chromaStep == 2 ? stride : stride / 2;
    format.sizeImage[i] = raw.planes == 2 ? 2 * chroma : chroma;
  }
}

bool Session::allocate(Queue& queue, unsigned count, int fd) {
  for (Buffer& buffer : queue.buffers)
    for (unsigned i = 0; i < buffer.planes; ++i) munmap(buffer.data[i], up(buffer.length[i], page));
  queue.buffers.clear();
  queue.queued.clear();
  queue.done.clear();
  count = std::min(count, 32u);
  queue.buffers.reserve(count);
  for (unsigned n = 0; n < count; ++n) {
    Buffer buffer;
    buffer.planes = queue.format.planes;
    for (unsigned i = 0; i < buffer.planes; ++i) {
      buffer.length[i] = up(queue.format.sizeImage[i], page);
      buffer.offset[i] = static_cast<std::uint32_t>(end_);
      end_ += buffer.length[i];
      if (ftruncate(fd, static_cast<off_t>(end_)) != 0) return false;
      void* const memory =
          mmap(nullptr, buffer.length[i], PROT_READ | PROT_WRITE, MAP_SHARED, fd, buffer.offset[i]);
      if (memory == MAP_FAILED) return false;
      buffer.data[i] = static_cast<std::uint8_t*>(memory);
    }
    queue.buffers.push_back(buffer);
  }
  return true;
}

Session::~Session() {
  priorities(kind_).erase(this);
  allocate(in_, 0, -1);
  allocate(out_, 0, -1);
}

void Session::start(Queue& queue) {
  queue.streaming = true;
  stopped_ = false;
  if (&queue == &out_) lastTaken_ = restart_ = lastDue_ = false;
  if (&queue == &out_ && kind_.encoder) encoding_ = false;
  if (&queue == &in_ && !kind_.encoder) decoder_.open(nullptr, 0);
}

void Session::stop(Queue& queue) {
  queue.streaming = false;
  queue.queued.clear();
  queue.done.clear();
  for (Buffer& buffer : queue.buffers) buffer.state = Buffer::Idle;
  busy_ = false;
  if (&queue == &in_) {
    draining_ = drainAsked_;
    drainAsked_ = false;
  } else {
    drainAsked_ = draining_ = stopped_ = lastTaken_ = false;
  }
  // Either kind loses what it has made of the coded side's buffers.
  if (&queue == &coded()) waiting_.clear();
}

void Session::pump() {
  for (bool more = true; more;) more = step();
}

bool Session::step() {
  if (gone_ || silent_ || stopped_) return false;
  if (deliver()) return true;
  if (hasResult() || !in_.streaming) return false;
  // An encoder works on both queues at once, a decoder looks at its data before there is an output.
  if (kind_.encoder && (!out_.streaming || out_.queued.empty())) return false;
  if (in_.queued.empty()) {
    if (!drainAsked_) return false;
    if (!draining_ && !kind_.encoder) decoder_.flush(), takePictures();
    draining_ = true;
    return deliver();
  }
  if (faults_.delayMs != 0) {
    if (!busy_) due_ = nowMs() + faults_.delayMs;
    busy_ = true;
    if (nowMs() < due_) return false;
    busy_ = false;
  }
  ++frames_;
  silent_ = faults_.silentAfter != 0 && frames_ > faults_.silentAfter;
  gone_ = faults_.goneAfter != 0 && frames_ > faults_.goneAfter;
  if (gone_) gone.insert(&kind_);
  if (gone_ || silent_) return false;
  const unsigned index = in_.queued.front();
  in_.queued.pop_front();
  Buffer& from = in_.buffers[index];
  from.flags = 0;
  const bool dropped =
      toDrop_ != 0 || (kind_.encoder && faults_.dropEach != 0 && frames_ % faults_.dropEach == 0);
  toDrop_ -= std::min(toDrop_, 1u);
  if (!dropped) kind_.encoder ? encode(from) : decode(from);
  from.state = Buffer::Done;
  in_.done.push_back(index);
  return true;
}

void Session::encode(const Buffer& from) {
  Coded coded;
  coded.stamp = from.stamp;
  const unsigned width = crop_.width, height = crop_.height, stride = in_.format.bytesPerLine[0];
  const unsigned step = layoutOf(in_.format.fourcc).chromaStep;
  std::vector<std::uint8_t> block = blockOf(width, height);
  const auto planes = planesOf<const std::uint8_t>(block.data(), width, height);
  const auto left = static_cast<unsigned>(crop_.left), top = static_cast<unsigned>(crop_.top);
  if (step != 0)
    copyPlanes(view(in_.format, from, left, top), planesOf(block.data(), width, height), width,
               height);
  if (kind_.coded == V4L2_PIX_FMT_JPEG) {
    // Packed pairs become 4:2:2; planes take the way over B G R, which becomes 4:2:0 again.
    codec::PackedPicture picture = {from.data[0], from.length[0], codec::PixelFormat::Yuyv,
                                    stride,       width,          height};
    std::vector<std::uint8_t> pixels(std::size_t{width} * height * 4);
    if (step != 0) {
      const int half = static_cast<int>(planes.uvStride), row = static_cast<int>(width);
      libyuv::J420ToARGB(planes.y, half * 2, planes.u, half, planes.v, half, pixels.data(), row * 4,
                         row, static_cast<int>(height));
      picture = {pixels.data(), pixels.size(), codec::PixelFormat::Bgra32,
                 width * 4,     width,         height};
    }
    if (jpegEncoder_.encode(picture, static_cast<int>(values_[V4L2_CID_JPEG_COMPRESSION_QUALITY])))
      coded.bytes.assign(jpegEncoder_.data(), jpegEncoder_.data() + jpegEncoder_.size());
    coded.keyFrame = true;
  } else {
    if (!encoding_) startEncoder();
    if (h264Encoder_.encode(planes, 0, keyFrameAsked_)) {
      if (first_) coded.bytes = h264Encoder_.parameterSets();
      coded.bytes.insert(coded.bytes.end(), h264Encoder_.data(),
                         h264Encoder_.data() + h264Encoder_.size());
      coded.keyFrame = h264Encoder_.isKeyFrame();
    }
    first_ = keyFrameAsked_ = false;
  }
  waiting_.push_back(std::move(coded));
}

void Session::startEncoder() {
  codec::VideoEncoder::Config config;
  config.width = crop_.width;
  config.height = crop_.height;
  config.frameRateNum = interval_.denominator;
  config.frameRateDen = interval_.numerator;
  config.bitrate = static_cast<unsigned>(values_[V4L2_CID_MPEG_VIDEO_BITRATE]);
  config.intraPeriod = static_cast<unsigned>(values_[V4L2_CID_MPEG_VIDEO_GOP_SIZE]);
  constexpr unsigned levels[] = {10, 9, 11, 12, 13, 20, 21, 22, 30, 31, 32, 40, 41, 42, 50, 51};
  config.level = levels[values_[V4L2_CID_MPEG_VIDEO_H264_LEVEL]];
  using Profile = codec::VideoEncoder::Profile;
  const auto profile = values_[V4L2_CID_MPEG_VIDEO_H264_PROFILE];
  config.profile = profile >= V4L2_MPEG_VIDEO_H264_PROFILE_HIGH   ? Profile::High
                   : profile == V4L2_MPEG_VIDEO_H264_PROFILE_MAIN ? Profile::Main
                                                                  : Profile::Baseline;
  config.constantBitrate =
      values_[V4L2_CID_MPEG_VIDEO_BITRATE_MODE] == V4L2_MPEG_VIDEO_BITRATE_MODE_CBR;
  config.aspectNum = static_cast<unsigned>(values_[V4L2_CID_MPEG_VIDEO_H264_VUI_EXT_SAR_WIDTH]);
  config.aspectDen = static_cast<unsigned>(values_[V4L2_CID_MPEG_VIDEO_H264_VUI_EXT_SAR_HEIGHT]);
  encoding_ = first_ = true;
  h264Encoder_.open(config);
}

void Session::decode(Buffer& from) {
  if (kind_.coded == V4L2_PIX_FMT_JPEG) {
    decodeJpeg(from);
  } else if (codec::nextNal(from.data[0], 0, from.used[0]) == from.used[0]) {
    refuse(from);
  } else {
    decoder_.feed(from.data[0], from.used[0], static_cast<std::int64_t>(from.stamp), false, true);
    takePictures();
  }
}

void Session::decodeJpeg(Buffer& from) {
  if (!jpegDecoder_.open(from.data[0], from.used[0])) return refuse(from);
  const unsigned width = jpegDecoder_.width(), height = jpegDecoder_.height();
  const unsigned stride = up(width, 32), rows = up(height, 16);
  std::vector<std::uint8_t> block(std::size_t{stride} * rows * 3 / 2);
  const codec::Planes planes = codec::planesOf(block.data(), stride, rows);
  if (jpegDecoder_.decode(planes) != codec::ImageDecoder::Result::Complete) return refuse(from);
  keep({{}, from.stamp, width, height},
       codec::planesOf<const std::uint8_t>(block.data(), stride, rows));
}

/// Data that is none goes back as faulty, and an empty picture with it where somebody waits for one.
void Session::refuse(Buffer& from) {
  from.flags |= V4L2_BUF_FLAG_ERROR;
  if (out_.streaming)
    waiting_.push_back({{}, from.stamp, shown_.width, shown_.height, false, true});
}

void Session::takePictures() {
  codec::VideoDecoder::Picture shown;
  while (decoder_.next(shown)) {
    // Several pictures out of one buffer carry its stamp all of them.
    if (shown.pts != codec::VideoDecoder::noPts) stamp_ = static_cast<std::uint64_t>(shown.pts);
    keep({{}, stamp_, shown.width, shown.height, false, shown.damaged}, shown.planes);
  }
}

void Session::keep(Coded picture, const codec::ConstPlanes& from) {
  picture.bytes = blockOf(picture.width, picture.height);
  copyPlanes(from, planesOf(picture.bytes.data(), picture.width, picture.height), picture.width,
             picture.height);
  waiting_.push_back(std::move(picture));
}

/// Hands the next result out, or the end. @return whether anything came of it
bool Session::deliver() {
  if (!waiting_.empty() && !kind_.encoder && !restart_) announce(waiting_.front());
  if (!out_.streaming || out_.queued.empty()) return false;
  if (restart_ ? !lastDue_ : !hasResult() && !draining_) return false;
  const unsigned index = out_.queued.front();
  out_.queued.pop_front();
  Buffer& to = out_.buffers[index];
  to.flags = 0;
  std::fill(std::begin(to.used), std::end(to.used), 0);
  if (restart_) {
    to.flags = V4L2_BUF_FLAG_LAST;
    stopped_ = true;
    lastDue_ = false;
  } else if (waiting_.empty()) {
    finish(to);
  } else {
    fill(to, waiting_.front());
    waiting_.pop_front();
  }
  to.state = Buffer::Done;
  out_.done.push_back(index);
  return true;
}

void Session::fill(Buffer& to, const Coded& result) {
  const Format& format = out_.format;
  const std::size_t size = result.bytes.size();
  const bool fits = to.length[0] >= (kind_.encoder ? size : format.sizeImage[0]);
  to.stamp = result.stamp;
  if (result.error || !fits) to.flags |= V4L2_BUF_FLAG_ERROR;
  if (kind_.encoder) to.flags |= result.keyFrame ? V4L2_BUF_FLAG_KEYFRAME : V4L2_BUF_FLAG_PFRAME;
  if (!fits || size == 0) return;
  if (kind_.encoder) {
    std::memcpy(to.data[0], result.bytes.data(), size);
    to.used[0] = static_cast<std::uint32_t>(size);
    return;
  }
  copyPlanes(planesOf(result.bytes.data(), result.width, result.height), view(format, to),
             result.width, result.height);
  std::copy_n(format.sizeImage, to.planes, to.used);
}

void Session::finish(Buffer& last) {
  last.flags |= V4L2_BUF_FLAG_LAST;
  stopped_ = true;
  draining_ = drainAsked_ = false;
  post(V4L2_EVENT_EOS);
}

/// Tells a new size; the buffers of the old one end with an empty last one.
void Session::announce(const Coded& picture) {
  if (shown_.width == picture.width && shown_.height == picture.height) return;
  shown_ = crop_ = {0, 0, picture.width, picture.height};
  for (Queue* const queue : {&in_, &out_}) {
    queue->format.setSize(picture.width, picture.height);
    adjust(*queue, queue->format);
  }
  restart_ = true;
  lastDue_ = out_.streaming;
  post(V4L2_EVENT_SOURCE_CHANGE, V4L2_EVENT_SRC_CH_RESOLUTION);
}

void Session::post(std::uint32_t type, std::uint32_t changes, const ControlKind* control) {
  v4l2_event event = {};
  event.type = type;
  event.id = control != nullptr ? control->id : 0;
  if (subscribed_.count({type, event.id}) == 0) return;
  event.sequence = sequence_++;
  clock_gettime(CLOCK_MONOTONIC_RAW, &event.timestamp);
  event.u.ctrl.changes = changes;  // where a change of source has them, too
  if (control != nullptr) {
    event.u.ctrl.type = control->type;
    event.u.ctrl.value = static_cast<__s32>(values_[control->id]);
  }
  events_.push_back(event);
}

short Session::look(short wanted) {
  pump();
  short events = 0;
  if (gone_) return POLLERR | POLLHUP;
  if (!events_.empty()) events |= POLLPRI;
  if (!in_.done.empty()) events |= POLLOUT | POLLWRNORM;
  if (!out_.done.empty() || lastTaken_) events |= POLLIN | POLLRDNORM;
  const bool idleIn = !in_.streaming || (in_.queued.empty() && in_.done.empty());
  const bool idleOut = !out_.streaming || (out_.queued.empty() && out_.done.empty() && !lastTaken_);
  if (idleIn && idleOut && (wanted & (POLLIN | POLLOUT)) != 0) events |= POLLERR;
  return events & static_cast<short>(wanted | POLLERR | POLLHUP);
}

}  // namespace standin
