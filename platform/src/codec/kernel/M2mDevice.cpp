#include "codec/kernel/M2mDevice.h"

#include <fcntl.h>
#include <linux/videodev2.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>

namespace codec::kernel {

namespace {

constexpr std::uint64_t microseconds = 1000000;

/// Where the kernel has nothing to wait for, it answers at once, although an event may still come.
constexpr unsigned pauseMs = 1;

template <typename Structure>
Structure cleared() {
  Structure structure;
  std::memset(&structure, 0, sizeof structure);
  return structure;
}

/// A signal must not end a wait: its handler runs afterwards.
int pollUndisturbed(pollfd* descriptors, nfds_t count, unsigned milliseconds) {
  sigset_t all;
  sigfillset(&all);
  const timespec limit = {static_cast<time_t>(milliseconds / 1000),
                          static_cast<long>(milliseconds % 1000) * 1000000};
  return ppoll(descriptors, count, &limit, &all);
}

template <typename Letters>
std::string text(const Letters& letters) {
  const char* const begin = reinterpret_cast<const char*>(letters);
  return std::string(begin, strnlen(begin, sizeof letters));
}

/// A v4l2_buffer and the room for its planes.
struct Described {
  v4l2_buffer buffer = cleared<v4l2_buffer>();
  v4l2_plane planes[VIDEO_MAX_PLANES] = {};

  Described(std::uint32_t type, bool multiPlanar, unsigned index) {
    buffer.type = type;
    buffer.memory = V4L2_MEMORY_MMAP;
    buffer.index = index;
    if (!multiPlanar) return;
    buffer.m.planes = planes;
    buffer.length = mostPlanes;
  }
};

}  // namespace

std::string nameOf(std::uint32_t fourcc) {
  std::string name;
  for (unsigned shift = 0; shift < 32; shift += 8) {
    const auto letter = static_cast<char>(fourcc >> shift & 0x7f);
    if (letter > ' ') name += letter;
  }
  return name;
}

// ---- opening

bool M2mDevice::open(const std::string& path) {
  close();
  path_ = path;
  error_.clear();
  fd_ = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (fd_ < 0) return refused("open");
  auto capability = cleared<v4l2_capability>();
  // What does not know the call is no video device at all.
  const bool answered = call(VIDIOC_QUERYCAP, &capability);
  if (!answered && errno != ENOTTY) {
    refused("VIDIOC_QUERYCAP");
    close();
    return false;
  }
  const std::uint32_t able = (capability.capabilities & V4L2_CAP_DEVICE_CAPS) != 0
                                 ? capability.device_caps
                                 : capability.capabilities;
  multiPlanar_ = (able & V4L2_CAP_VIDEO_M2M_MPLANE) != 0;
  if (!answered || (able & V4L2_CAP_STREAMING) == 0 ||
      (able & (V4L2_CAP_VIDEO_M2M | V4L2_CAP_VIDEO_M2M_MPLANE)) == 0) {
    close();
    return refused(std::string(stranger));
  }
  card_ = text(capability.card);
  driver_ = text(capability.driver);
  return true;
}

void M2mDevice::close() {
  if (fd_ < 0) return;
  for (const Side side : {Side::In, Side::Out}) {
    stop(side);
    release(side);
  }
  ::close(fd_);
  fd_ = -1;
  subscribed_ = atEnd_ = false;
}

std::uint32_t M2mDevice::type(Side side) const {
  if (multiPlanar_)
    return side == Side::In ? V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE
                            : V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
  return side == Side::In ? V4L2_BUF_TYPE_VIDEO_OUTPUT : V4L2_BUF_TYPE_VIDEO_CAPTURE;
}

bool M2mDevice::call(unsigned long request, void* argument) {
  int answer;
  do {
    answer = ioctl(fd_, request, argument);
  } while (answer < 0 && errno == EINTR);
  return answer >= 0;
}

bool M2mDevice::refused(const char* call) {
  return refused(std::string(call) + ": " + std::strerror(errno));
}

bool M2mDevice::refused(const std::string& why) {
  error_ = path_ + ": " + why;
  return false;
}

// ---- formats and controls

std::vector<std::uint32_t> M2mDevice::formats(Side side) {
  std::vector<std::uint32_t> all;
  auto each = cleared<v4l2_fmtdesc>();
  each.type = type(side);
  for (; call(VIDIOC_ENUM_FMT, &each); ++each.index) all.push_back(each.pixelformat);
  return all;
}

bool M2mDevice::largestSize(std::uint32_t fourcc, unsigned& width, unsigned& height) {
  width = height = 0;
  auto size = cleared<v4l2_frmsizeenum>();
  size.pixel_format = fourcc;
  for (; call(VIDIOC_ENUM_FRAMESIZES, &size); ++size.index) {
    const bool discrete = size.type == V4L2_FRMSIZE_TYPE_DISCRETE;
    width = std::max(width, discrete ? size.discrete.width : size.stepwise.max_width);
    height = std::max(height, discrete ? size.discrete.height : size.stepwise.max_height);
    if (!discrete) break;
  }
  return width != 0;
}

bool M2mDevice::setFormat(Side side, Format& format) {
  auto wanted = cleared<v4l2_format>();
  wanted.type = type(side);
  if (multiPlanar_) {
    v4l2_pix_format_mplane& pixels = wanted.fmt.pix_mp;
    pixels.pixelformat = format.fourcc;
    pixels.width = format.width;
    pixels.height = format.height;
    pixels.field = V4L2_FIELD_NONE;
    pixels.num_planes = static_cast<std::uint8_t>(format.planes);
    pixels.plane_fmt[0].sizeimage = format.sizeImage[0];
  } else {
    v4l2_pix_format& pixels = wanted.fmt.pix;
    pixels.pixelformat = format.fourcc;
    pixels.width = format.width;
    pixels.height = format.height;
    pixels.field = V4L2_FIELD_NONE;
    pixels.sizeimage = format.sizeImage[0];
  }
  const std::uint32_t fourcc = format.fourcc;
  if (!call(VIDIOC_S_FMT, &wanted)) return refused("VIDIOC_S_FMT");
  if (!getFormat(side, format)) return false;
  return format.fourcc == fourcc || refused("does not take the format " + nameOf(fourcc));
}

bool M2mDevice::getFormat(Side side, Format& format) {
  auto set = cleared<v4l2_format>();
  set.type = type(side);
  if (!call(VIDIOC_G_FMT, &set)) return refused("VIDIOC_G_FMT");
  if (!multiPlanar_) {
    const v4l2_pix_format& pixels = set.fmt.pix;
    format = {pixels.pixelformat, pixels.width, pixels.height, 1, {}, {}};
    format.bytesPerLine[0] = pixels.bytesperline;
    format.sizeImage[0] = pixels.sizeimage;
    return true;
  }
  const v4l2_pix_format_mplane& pixels = set.fmt.pix_mp;
  if (pixels.num_planes == 0 || pixels.num_planes > mostPlanes)
    return refused(std::string("a format of more than three planes"));
  format = {pixels.pixelformat, pixels.width, pixels.height, pixels.num_planes, {}, {}};
  for (unsigned i = 0; i < format.planes; ++i) {
    format.bytesPerLine[i] = pixels.plane_fmt[i].bytesperline;
    format.sizeImage[i] = pixels.plane_fmt[i].sizeimage;
  }
  return true;
}

// The selection calls take the single-planar types for either interface.
bool M2mDevice::setCrop(const Rect& rect) {
  auto selection = cleared<v4l2_selection>();
  selection.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
  selection.target = V4L2_SEL_TGT_CROP;
  selection.r = {static_cast<std::int32_t>(rect.left), static_cast<std::int32_t>(rect.top),
                 rect.width, rect.height};
  if (!call(VIDIOC_S_SELECTION, &selection)) return refused("VIDIOC_S_SELECTION");
  const bool taken = selection.r.left == static_cast<std::int32_t>(rect.left) &&
                     selection.r.top == static_cast<std::int32_t>(rect.top) &&
                     selection.r.width == rect.width && selection.r.height == rect.height;
  return taken || refused("does not crop to " + std::to_string(rect.width) + "x" +
                          std::to_string(rect.height));
}

Rect M2mDevice::visible() {
  Format format;
  if (!getFormat(Side::Out, format)) return Rect();
  const Rect whole{0, 0, format.width, format.height};
  auto selection = cleared<v4l2_selection>();
  selection.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  selection.target = V4L2_SEL_TGT_COMPOSE;
  if (!call(VIDIOC_G_SELECTION, &selection)) return whole;
  const v4l2_rect& shown = selection.r;
  if (shown.left < 0 || shown.top < 0 || shown.width == 0 || shown.height == 0) return whole;
  const Rect rect{static_cast<unsigned>(shown.left), static_cast<unsigned>(shown.top), shown.width,
                  shown.height};
  const bool inside =
      rect.left + rect.width <= whole.width && rect.top + rect.height <= whole.height;
  return inside ? rect : whole;
}

bool M2mDevice::setFrameInterval(unsigned numerator, unsigned denominator) {
  auto parameters = cleared<v4l2_streamparm>();
  parameters.type = type(Side::In);
  parameters.parm.output.timeperframe = {numerator, denominator};
  return call(VIDIOC_S_PARM, &parameters) || refused("VIDIOC_S_PARM");
}

bool M2mDevice::findControl(std::uint32_t id, Control& control) {
  auto query = cleared<v4l2_query_ext_ctrl>();
  query.id = id;
  if (!call(VIDIOC_QUERY_EXT_CTRL, &query)) return false;
  if ((query.flags & V4L2_CTRL_FLAG_DISABLED) != 0) return false;
  control = {query.minimum, query.maximum, query.type == V4L2_CTRL_TYPE_MENU};
  return true;
}

std::vector<std::string> M2mDevice::controlNames() {
  std::vector<std::string> names;
  auto query = cleared<v4l2_query_ext_ctrl>();
  query.id = V4L2_CTRL_FLAG_NEXT_CTRL;
  for (; call(VIDIOC_QUERY_EXT_CTRL, &query); query.id |= V4L2_CTRL_FLAG_NEXT_CTRL)
    if (query.type != V4L2_CTRL_TYPE_CTRL_CLASS) names.push_back(text(query.name));
  return names;
}

bool M2mDevice::hasMenuEntry(std::uint32_t id, std::int64_t value) {
  Control control;
  if (!findControl(id, control) || value < control.minimum || value > control.maximum) return false;
  auto entry = cleared<v4l2_querymenu>();
  entry.id = id;
  entry.index = static_cast<std::uint32_t>(value);
  return call(VIDIOC_QUERYMENU, &entry);
}

bool M2mDevice::setControl(std::uint32_t id, std::int64_t value) {
  auto one = cleared<v4l2_ext_control>();
  one.id = id;
  one.value = static_cast<std::int32_t>(value);
  auto all = cleared<v4l2_ext_controls>();
  all.which = V4L2_CTRL_WHICH_CUR_VAL;
  all.count = 1;
  all.controls = &one;
  return call(VIDIOC_S_EXT_CTRLS, &all) || refused("VIDIOC_S_EXT_CTRLS");
}

std::int64_t M2mDevice::control(std::uint32_t id, std::int64_t otherwise) {
  auto one = cleared<v4l2_control>();
  one.id = id;
  return call(VIDIOC_G_CTRL, &one) ? one.value : otherwise;
}

// ---- buffers

bool M2mDevice::allocate(Side side, unsigned count) {
  release(side);
  auto request = cleared<v4l2_requestbuffers>();
  request.count = count;
  request.type = type(side);
  request.memory = V4L2_MEMORY_MMAP;
  if (!call(VIDIOC_REQBUFS, &request) || request.count == 0) return refused("VIDIOC_REQBUFS");
  queue(side).buffers.resize(request.count);
  for (unsigned i = 0; i < request.count; ++i)
    if (!map(side, i)) return false;
  return true;
}

bool M2mDevice::map(Side side, unsigned index) {
  Buffer& buffer = queue(side).buffers[index];
  Described described(type(side), multiPlanar_, index);
  if (!call(VIDIOC_QUERYBUF, &described.buffer)) return refused("VIDIOC_QUERYBUF");
  buffer.index = index;
  buffer.planes = multiPlanar_ ? std::min(described.buffer.length, mostPlanes) : 1;
  for (unsigned i = 0; i < buffer.planes; ++i) {
    const v4l2_plane& plane = described.planes[i];
    const std::size_t length = multiPlanar_ ? plane.length : described.buffer.length;
    const off_t offset = multiPlanar_ ? plane.m.mem_offset : described.buffer.m.offset;
    void* const memory = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, offset);
    if (memory == MAP_FAILED) return refused("mmap");
    buffer.data[i] = static_cast<std::uint8_t*>(memory);
    buffer.capacity[i] = length;
  }
  return true;
}

void M2mDevice::release(Side side) {
  std::vector<Buffer>& buffers = queue(side).buffers;
  if (buffers.empty()) return;
  for (const Buffer& buffer : buffers)
    for (unsigned i = 0; i < mostPlanes; ++i)
      if (buffer.data[i] != nullptr) munmap(buffer.data[i], buffer.capacity[i]);
  buffers.clear();
  auto request = cleared<v4l2_requestbuffers>();
  request.type = type(side);
  request.memory = V4L2_MEMORY_MMAP;
  call(VIDIOC_REQBUFS, &request);
}

bool M2mDevice::start(Side side) {
  std::uint32_t which = type(side);
  if (!call(VIDIOC_STREAMON, &which)) return refused("VIDIOC_STREAMON");
  queue(side).streaming = true;
  if (side == Side::Out) atEnd_ = false;
  return true;
}

bool M2mDevice::stop(Side side) {
  Queue& stopped = queue(side);
  for (Buffer& buffer : stopped.buffers) buffer.queued = false;
  stopped.queued = 0;
  if (side == Side::Out) atEnd_ = false;
  if (!stopped.streaming) return true;
  stopped.streaming = false;
  std::uint32_t which = type(side);
  return call(VIDIOC_STREAMOFF, &which) || refused("VIDIOC_STREAMOFF");
}

Buffer* M2mDevice::idle(Side side) {
  for (Buffer& buffer : queue(side).buffers)
    if (!buffer.queued) return &buffer;
  return nullptr;
}

bool M2mDevice::enqueue(Side side, Buffer& buffer) {
  Described described(type(side), multiPlanar_, buffer.index);
  v4l2_buffer& out = described.buffer;
  if (side == Side::In) {
    out.timestamp.tv_sec = static_cast<time_t>(buffer.serial / microseconds);
    out.timestamp.tv_usec = static_cast<suseconds_t>(buffer.serial % microseconds);
    out.bytesused = static_cast<std::uint32_t>(buffer.used[0]);
    out.field = V4L2_FIELD_NONE;
  }
  if (multiPlanar_) {
    out.length = buffer.planes;
    for (unsigned i = 0; i < buffer.planes; ++i) {
      described.planes[i].length = static_cast<std::uint32_t>(buffer.capacity[i]);
      if (side == Side::In)
        described.planes[i].bytesused = static_cast<std::uint32_t>(buffer.used[i]);
    }
  }
  if (!call(VIDIOC_QBUF, &out)) return refused("VIDIOC_QBUF");
  buffer.queued = true;
  ++queue(side).queued;
  return true;
}

bool M2mDevice::enqueueAll(Side side) {
  for (Buffer& buffer : queue(side).buffers)
    if (!buffer.queued && !enqueue(side, buffer)) return false;
  return true;
}

// ---- events

bool M2mDevice::subscribe() {
  subscribed_ = true;
  for (const std::uint32_t kind : {V4L2_EVENT_SOURCE_CHANGE, V4L2_EVENT_EOS}) {
    auto subscription = cleared<v4l2_event_subscription>();
    subscription.type = kind;
    if (!call(VIDIOC_SUBSCRIBE_EVENT, &subscription) && kind == V4L2_EVENT_SOURCE_CHANGE)
      return refused("VIDIOC_SUBSCRIBE_EVENT");
  }
  return true;
}

bool M2mDevice::beginDrain(bool encoder) {
  auto command = cleared<v4l2_encoder_cmd>();
  command.cmd = V4L2_ENC_CMD_STOP;
  auto decoderCommand = cleared<v4l2_decoder_cmd>();
  decoderCommand.cmd = V4L2_DEC_CMD_STOP;
  return encoder ? call(VIDIOC_ENCODER_CMD, &command) || refused("VIDIOC_ENCODER_CMD")
                 : call(VIDIOC_DECODER_CMD, &decoderCommand) || refused("VIDIOC_DECODER_CMD");
}

bool M2mDevice::endDrain(bool encoder) {
  atEnd_ = false;
  auto command = cleared<v4l2_encoder_cmd>();
  command.cmd = V4L2_ENC_CMD_START;
  auto decoderCommand = cleared<v4l2_decoder_cmd>();
  decoderCommand.cmd = V4L2_DEC_CMD_START;
  return encoder ? call(VIDIOC_ENCODER_CMD, &command) || refused("VIDIOC_ENCODER_CMD")
                 : call(VIDIOC_DECODER_CMD, &decoderCommand) || refused("VIDIOC_DECODER_CMD");
}

M2mDevice::Happened M2mDevice::wait(unsigned milliseconds, Buffer*& buffer) {
  buffer = nullptr;
  if (fd_ < 0) {
    refused(std::string("not open"));
    return Happened::Failed;
  }
  unsigned left = milliseconds;
  for (;;) {
    const Happened happened = poll(left, buffer);
    if (happened != Happened::Nothing || left == 0) return happened;
    pollUndisturbed(nullptr, 0, pauseMs);
    left -= std::min(left, pauseMs);
  }
}

/// One look at the device. `left` becomes 0 when the time is up.
M2mDevice::Happened M2mDevice::poll(unsigned& left, Buffer*& buffer) {
  pollfd descriptor = {fd_, POLLOUT, 0};
  if (subscribed_) descriptor.events |= POLLPRI;
  // Past the end the kernel answers at once that there is something: the end.
  if (!atEnd_ && isStreaming(Side::Out)) descriptor.events |= POLLIN;
  const int ready = pollUndisturbed(&descriptor, 1, left);
  if (ready == 0) {
    left = 0;
    return Happened::Nothing;
  }
  if (ready < 0 && errno != EINTR) {
    refused("poll");
    return Happened::Failed;
  }
  // An event comes before the buffers that it is about.
  const Happened event = subscribed_ ? takeEvent() : Happened::Nothing;
  if (event != Happened::Nothing) return event;
  bool failed = false;
  for (const Side side : {Side::Out, Side::In}) {
    if (!isStreaming(side) || (side == Side::Out && atEnd_) || queue(side).queued == 0) continue;
    const Dequeued dequeued = dequeue(side, buffer);
    if (dequeued == Dequeued::Yes)
      return side == Side::Out ? Happened::Output : Happened::InputBack;
    if (dequeued == Dequeued::End) {
      atEnd_ = true;
      return Happened::Ended;
    }
    failed = failed || dequeued == Dequeued::Error;
  }
  return failed ? Happened::Failed : Happened::Nothing;
}

M2mDevice::Happened M2mDevice::takeEvent() {
  auto event = cleared<v4l2_event>();
  while (call(VIDIOC_DQEVENT, &event))
    if (event.type == V4L2_EVENT_SOURCE_CHANGE &&
        (event.u.src_change.changes & V4L2_EVENT_SRC_CH_RESOLUTION) != 0)
      return Happened::FormatChange;
  return Happened::Nothing;
}

M2mDevice::Dequeued M2mDevice::dequeue(Side side, Buffer*& buffer) {
  Described described(type(side), multiPlanar_, 0);
  if (!call(VIDIOC_DQBUF, &described.buffer)) {
    if (errno == EAGAIN) return Dequeued::No;
    if (errno == EPIPE && side == Side::Out) return Dequeued::End;
    refused("VIDIOC_DQBUF");
    return Dequeued::Error;
  }
  Queue& from = queue(side);
  if (described.buffer.index >= from.buffers.size()) {
    refused(std::string("gives a buffer that it does not have"));
    return Dequeued::Error;
  }
  buffer = &from.buffers[described.buffer.index];
  buffer->queued = false;
  if (from.queued > 0) --from.queued;
  readBack(described.buffer, *buffer);
  if (side == Side::Out && buffer->last) atEnd_ = true;
  return Dequeued::Yes;
}

void M2mDevice::readBack(const v4l2_buffer& from, Buffer& buffer) const {
  buffer.serial = static_cast<std::uint64_t>(from.timestamp.tv_sec) * microseconds +
                  static_cast<std::uint64_t>(from.timestamp.tv_usec);
  buffer.keyFrame = (from.flags & V4L2_BUF_FLAG_KEYFRAME) != 0;
  buffer.error = (from.flags & V4L2_BUF_FLAG_ERROR) != 0;
  buffer.last = (from.flags & V4L2_BUF_FLAG_LAST) != 0;
  for (unsigned i = 0; i < buffer.planes; ++i) {
    const std::size_t used = multiPlanar_ ? from.m.planes[i].bytesused : from.bytesused;
    buffer.used[i] = std::min(used, buffer.capacity[i]);
  }
}

}  // namespace codec::kernel
