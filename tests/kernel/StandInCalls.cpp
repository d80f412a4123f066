#include <fcntl.h>
#include <linux/v4l2-controls.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <iterator>

#include "StandIn.h"

namespace standin {

namespace {

int fails(int error) {
  errno = error;
  return -1;
}

template <typename Letter, std::size_t size>
void copyText(Letter (&to)[size], const char* text) {
  std::memset(to, 0, size);
  std::memcpy(to, text, std::min(std::strlen(text), size - 1));
}

bool isMulti(std::uint32_t type) {
  return type == V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE || type == V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
}

bool isCodedFormat(std::uint32_t fourcc) {
  return fourcc == V4L2_PIX_FMT_H264 || fourcc == V4L2_PIX_FMT_JPEG;
}

/// As the kernel itself calls them.
const char* nameOf(std::uint32_t fourcc) {
  switch (fourcc) {
    case V4L2_PIX_FMT_H264:
      return "H.264";
    case V4L2_PIX_FMT_JPEG:
      return "JFIF JPEG";
    case V4L2_PIX_FMT_NV12:
      return "Y/CbCr 4:2:0";
    case V4L2_PIX_FMT_NV12M:
      return "Y/CbCr 4:2:0 (N-C)";
    case V4L2_PIX_FMT_YUYV:
      return "YUYV 4:2:2";
    case V4L2_PIX_FMT_YUV420M:
      return "Planar YUV 4:2:0 (N-C)";
    default:
      return "Planar YUV 4:2:0";
  }
}

void write(const Format& format, v4l2_format& to) {
  if (isMulti(to.type)) {
    v4l2_pix_format_mplane& pixels = to.fmt.pix_mp;
    std::memset(&pixels, 0, sizeof pixels);
    pixels.width = format.width;
    pixels.height = format.height;
    pixels.pixelformat = format.fourcc;
    pixels.field = V4L2_FIELD_NONE;
    pixels.colorspace = format.colours[0];
    pixels.ycbcr_enc = static_cast<__u8>(format.colours[1]);
    pixels.quantization = static_cast<__u8>(format.colours[2]);
    pixels.xfer_func = static_cast<__u8>(format.colours[3]);
    pixels.num_planes = static_cast<__u8>(format.planes);
    for (unsigned i = 0; i < format.planes; ++i)
      pixels.plane_fmt[i] = {format.sizeImage[i], format.bytesPerLine[i], {}};
    return;
  }
  v4l2_pix_format& pixels = to.fmt.pix;
  std::memset(&pixels, 0, sizeof pixels);
  pixels.width = format.width;
  pixels.height = format.height;
  pixels.pixelformat = format.fourcc;
  pixels.field = V4L2_FIELD_NONE;
  pixels.colorspace = format.colours[0];
  pixels.ycbcr_enc = format.colours[1];
  pixels.quantization = format.colours[2];
  pixels.xfer_func = format.colours[3];
  pixels.bytesperline = format.bytesPerLine[0];
  pixels.sizeimage = format.sizeImage[0];
  pixels.priv = V4L2_PIX_FMT_PRIV_MAGIC;
}

Format read(const v4l2_format& from) {
  Format format;
  const bool multi = isMulti(from.type);
  format.fourcc = multi ? from.fmt.pix_mp.pixelformat : from.fmt.pix.pixelformat;
  format.width = multi ? from.fmt.pix_mp.width : from.fmt.pix.width;
  format.height = multi ? from.fmt.pix_mp.height : from.fmt.pix.height;
  format.sizeImage[0] = multi ? from.fmt.pix_mp.plane_fmt[0].sizeimage : from.fmt.pix.sizeimage;
  const std::uint32_t single[] = {from.fmt.pix.colorspace, from.fmt.pix.ycbcr_enc,
                                  from.fmt.pix.quantization, from.fmt.pix.xfer_func};
  const std::uint32_t several[] = {from.fmt.pix_mp.colorspace, from.fmt.pix_mp.ycbcr_enc,
                                   from.fmt.pix_mp.quantization, from.fmt.pix_mp.xfer_func};
  std::copy_n(multi ? several : single, 4, format.colours);
  return format;
}

const std::vector<const char*> levelNames = {"1", "1b",  "1.1", "1.2", "1.3", "2",   "2.1", "2.2",
                                             "3", "3.1", "3.2", "4",   "4.1", "4.2", "5",   "5.1"};

const ControlKind codecClass = {V4L2_CID_CODEC_CLASS,
                                V4L2_CTRL_TYPE_CTRL_CLASS,
                                "Codec Controls",
                                0,
                                0,
                                0,
                                {},
                                V4L2_CTRL_FLAG_READ_ONLY | V4L2_CTRL_FLAG_WRITE_ONLY};

}  // namespace

/// In the order of their numbers.
const std::vector<ControlKind>& controlsOf(const Kind& kind) {
  constexpr auto number = V4L2_CTRL_TYPE_INTEGER;
  constexpr auto menu = V4L2_CTRL_TYPE_MENU;
  constexpr auto flag = V4L2_CTRL_TYPE_BOOLEAN;
  static const std::vector<ControlKind> encoder = {
      {V4L2_CID_USER_CLASS,
       V4L2_CTRL_TYPE_CTRL_CLASS,
       "User Controls",
       0,
       0,
       0,
       {},
       V4L2_CTRL_FLAG_READ_ONLY | V4L2_CTRL_FLAG_WRITE_ONLY},
      {V4L2_CID_MIN_BUFFERS_FOR_OUTPUT,
       number,
       "Min Number of Output Buffers",
       1,
       32,
       1,
       {},
       V4L2_CTRL_FLAG_READ_ONLY},
      codecClass,
      {V4L2_CID_MPEG_VIDEO_GOP_SIZE, number, "Video GOP Size", 1, 100000, 12},
      {V4L2_CID_MPEG_VIDEO_BITRATE_MODE,
       menu,
       "Video Bitrate Mode",
       0,
       1,
       0,
       {"Variable Bitrate", "Constant Bitrate"}},
      {V4L2_CID_MPEG_VIDEO_BITRATE, number, "Video Bitrate", 1000, 100000000, 2000000},
      {V4L2_CID_MPEG_VIDEO_REPEAT_SEQ_HEADER, flag, "Repeat Sequence Header", 0, 1, 1},
      {V4L2_CID_MPEG_VIDEO_FORCE_KEY_FRAME,
       V4L2_CTRL_TYPE_BUTTON,
       "Force Key Frame",
       0,
       0,
       0,
       {},
       V4L2_CTRL_FLAG_WRITE_ONLY | V4L2_CTRL_FLAG_EXECUTE_ON_WRITE},
      {V4L2_CID_MPEG_VIDEO_H264_LEVEL, menu, "H264 Level", 0, 15, 11, levelNames},
      {V4L2_CID_MPEG_VIDEO_H264_PROFILE,
       menu,
       "H264 Profile",
       0,
       4,
       4,
       {"Baseline", "Constrained Baseline", "Main", nullptr, "High"}},
      {V4L2_CID_MPEG_VIDEO_H264_VUI_EXT_SAR_HEIGHT, number, "Vertical Size of SAR", 1, 65535, 1},
      {V4L2_CID_MPEG_VIDEO_H264_VUI_EXT_SAR_WIDTH, number, "Horizontal Size of SAR", 1, 65535, 1},
  };
  static const std::vector<ControlKind> decoder = {
      {V4L2_CID_USER_CLASS,
       V4L2_CTRL_TYPE_CTRL_CLASS,
       "User Controls",
       0,
       0,
       0,
       {},
       V4L2_CTRL_FLAG_READ_ONLY | V4L2_CTRL_FLAG_WRITE_ONLY},
      {V4L2_CID_MIN_BUFFERS_FOR_CAPTURE,
       number,
       "Min Number of Capture Buffers",
       1,
       32,
       2,
       {},
       V4L2_CTRL_FLAG_READ_ONLY},
  };
  static const std::vector<ControlKind> jpeg = {
      {V4L2_CID_JPEG_CLASS,
       V4L2_CTRL_TYPE_CTRL_CLASS,
       "JPEG Compression Controls",
       0,
       0,
       0,
       {},
       V4L2_CTRL_FLAG_READ_ONLY | V4L2_CTRL_FLAG_WRITE_ONLY},
      {V4L2_CID_JPEG_COMPRESSION_QUALITY, number, "Compression Quality", 1, 100, 80},
  };
  if (!kind.encoder) return decoder;
  return kind.coded == V4L2_PIX_FMT_JPEG ? jpeg : encoder;
}

bool Session::knows(unsigned long request) {
  static const unsigned long all[] = {
      VIDIOC_QUERYCAP,       VIDIOC_ENUM_FMT,        VIDIOC_ENUM_FRAMESIZES,
      VIDIOC_G_FMT,          VIDIOC_S_FMT,           VIDIOC_TRY_FMT,
      VIDIOC_REQBUFS,        VIDIOC_CREATE_BUFS,     VIDIOC_QUERYBUF,
      VIDIOC_QBUF,           VIDIOC_DQBUF,           VIDIOC_STREAMON,
      VIDIOC_STREAMOFF,      VIDIOC_G_SELECTION,     VIDIOC_S_SELECTION,
      VIDIOC_G_PARM,         VIDIOC_S_PARM,          VIDIOC_QUERYCTRL,
      VIDIOC_QUERY_EXT_CTRL, VIDIOC_QUERYMENU,       VIDIOC_G_CTRL,
      VIDIOC_S_CTRL,         VIDIOC_G_EXT_CTRLS,     VIDIOC_S_EXT_CTRLS,
      VIDIOC_TRY_EXT_CTRLS,  VIDIOC_SUBSCRIBE_EVENT, VIDIOC_UNSUBSCRIBE_EVENT,
      VIDIOC_DQEVENT,        VIDIOC_ENCODER_CMD,     VIDIOC_TRY_ENCODER_CMD,
      VIDIOC_DECODER_CMD,    VIDIOC_TRY_DECODER_CMD, VIDIOC_G_PRIORITY,
      VIDIOC_S_PRIORITY};
  return std::find(std::begin(all), std::end(all), request) != std::end(all);
}

int Session::call(int fd, unsigned long request, void* argument) {
  pump();
  if (gone_) return fails(ENODEV);
  const auto type = [&] { return queueOf(*static_cast<std::uint32_t*>(argument)); };
  switch (request) {
    case VIDIOC_QUERYCAP:
      return queryCapability(*static_cast<v4l2_capability*>(argument));
    case VIDIOC_ENUM_FMT:
      return enumerateFormat(*static_cast<v4l2_fmtdesc*>(argument));
    case VIDIOC_ENUM_FRAMESIZES:
      return enumerateSize(*static_cast<v4l2_frmsizeenum*>(argument));
    case VIDIOC_G_FMT:
    case VIDIOC_S_FMT:
    case VIDIOC_TRY_FMT:
      return format(request, *static_cast<v4l2_format*>(argument));
    case VIDIOC_REQBUFS:
      return this->request(fd, *static_cast<v4l2_requestbuffers*>(argument));
    case VIDIOC_CREATE_BUFS:
      return create(fd, *static_cast<v4l2_create_buffers*>(argument));
    case VIDIOC_QUERYBUF:
    case VIDIOC_QBUF:
    case VIDIOC_DQBUF:
      return exchange(fd, request, *static_cast<v4l2_buffer*>(argument));
    case VIDIOC_STREAMON:
      if (type() == nullptr || type()->buffers.empty()) return fails(EINVAL);
      if (!type()->streaming) start(*type());
      return 0;
    case VIDIOC_STREAMOFF:
      if (type() == nullptr) return fails(EINVAL);
      stop(*type());
      return 0;
    case VIDIOC_G_SELECTION:
    case VIDIOC_S_SELECTION:
      return selection(request == VIDIOC_S_SELECTION, *static_cast<v4l2_selection*>(argument));
    case VIDIOC_G_PARM:
    case VIDIOC_S_PARM:
      return interval(request == VIDIOC_S_PARM, *static_cast<v4l2_streamparm*>(argument));
    case VIDIOC_QUERY_EXT_CTRL:
      return queryControl(*static_cast<v4l2_query_ext_ctrl*>(argument));
    case VIDIOC_QUERYCTRL: {
      auto& old = *static_cast<v4l2_queryctrl*>(argument);
      v4l2_query_ext_ctrl query = {};
      query.id = old.id;
      if (queryControl(query) != 0) return -1;
      old = {query.id,
             query.type,
             {},
             static_cast<__s32>(query.minimum),
             static_cast<__s32>(query.maximum),
             static_cast<__s32>(query.step),
             static_cast<__s32>(query.default_value),
             query.flags,
             {}};
      copyText(old.name, query.name);
      return 0;
    }
    case VIDIOC_QUERYMENU:
      return queryMenu(*static_cast<v4l2_querymenu*>(argument));
    case VIDIOC_G_CTRL:
    case VIDIOC_S_CTRL: {
      auto& control = *static_cast<v4l2_control*>(argument);
      v4l2_ext_control one = {};
      one.id = control.id;
      one.value = control.value;
      v4l2_ext_controls all = {};
      all.count = 1;
      all.controls = &one;
      if (controls(request == VIDIOC_G_CTRL ? VIDIOC_G_EXT_CTRLS : VIDIOC_S_EXT_CTRLS, all) != 0)
        return -1;
      control.value = one.value;
      return 0;
    }
    case VIDIOC_G_EXT_CTRLS:
    case VIDIOC_S_EXT_CTRLS:
    case VIDIOC_TRY_EXT_CTRLS:
      return controls(request, *static_cast<v4l2_ext_controls*>(argument));
    case VIDIOC_SUBSCRIBE_EVENT:
      return subscribe(*static_cast<v4l2_event_subscription*>(argument));
    case VIDIOC_UNSUBSCRIBE_EVENT: {
      const auto& which = *static_cast<v4l2_event_subscription*>(argument);
      if (which.type == V4L2_EVENT_ALL) subscribed_.clear();
      subscribed_.erase({which.type, which.id});
      return 0;
    }
    case VIDIOC_DQEVENT:
      return takeEvent(fd, *static_cast<v4l2_event*>(argument));
    case VIDIOC_ENCODER_CMD:
    case VIDIOC_TRY_ENCODER_CMD: {
      auto& wanted = *static_cast<v4l2_encoder_cmd*>(argument);
      if (!kind_.encoder) return fails(ENOTTY);
      wanted.flags = 0;
      if (wanted.cmd != V4L2_ENC_CMD_STOP && wanted.cmd != V4L2_ENC_CMD_START) return fails(EINVAL);
      if (request == VIDIOC_ENCODER_CMD) command(wanted.cmd == V4L2_ENC_CMD_STOP);
      return 0;
    }
    case VIDIOC_DECODER_CMD:
    case VIDIOC_TRY_DECODER_CMD: {
      auto& wanted = *static_cast<v4l2_decoder_cmd*>(argument);
      if (kind_.encoder) return fails(ENOTTY);
      wanted.flags = 0;
      if (wanted.cmd == V4L2_DEC_CMD_START) wanted.start = {0, 0};
      if (wanted.cmd == V4L2_DEC_CMD_STOP) wanted.stop.pts = 0;
      if (wanted.cmd != V4L2_DEC_CMD_STOP && wanted.cmd != V4L2_DEC_CMD_START) return fails(EINVAL);
      if (request == VIDIOC_DECODER_CMD) command(wanted.cmd == V4L2_DEC_CMD_STOP);
      return 0;
    }
    case VIDIOC_G_PRIORITY:
      *static_cast<std::uint32_t*>(argument) = highestPriority();
      return 0;
    case VIDIOC_S_PRIORITY: {
      const std::uint32_t wanted = *static_cast<std::uint32_t*>(argument);
      if (wanted < V4L2_PRIORITY_BACKGROUND || wanted > V4L2_PRIORITY_RECORD) return fails(EINVAL);
      if (highestPriority() == V4L2_PRIORITY_RECORD && priority_ != V4L2_PRIORITY_RECORD)
        return fails(EBUSY);
      priority_ = wanted;
      return 0;
    }
    default:
      return fails(ENOTTY);
  }
}

Queue* Session::queueOf(std::uint32_t type) {
  return type == in_.type ? &in_ : type == out_.type ? &out_ : nullptr;
}

// ---- formats

int Session::queryCapability(v4l2_capability& capability) const {
  std::memset(&capability, 0, sizeof capability);
  copyText(capability.driver, "stand-in");
  copyText(capability.card, kind_.card);
  copyText(capability.bus_info, "platform:stand-in");
  capability.version = 6 << 16 | 1 << 8;
  capability.device_caps = V4L2_CAP_STREAMING | V4L2_CAP_EXT_PIX_FORMAT |
                           (faults_.multiPlanar ? V4L2_CAP_VIDEO_M2M_MPLANE : V4L2_CAP_VIDEO_M2M);
  capability.capabilities = capability.device_caps | V4L2_CAP_DEVICE_CAPS;
  return 0;
}

int Session::enumerateFormat(v4l2_fmtdesc& description) {
  const Queue* const queue = queueOf(description.type);
  if (queue == nullptr) return fails(EINVAL);
  const std::vector<std::uint32_t> all = offered(*queue);
  if (description.index >= all.size()) return fails(EINVAL);
  const std::uint32_t fourcc = all[description.index];
  description = {description.index, description.type, 0, {}, fourcc, 0, {}};
  copyText(description.description, nameOf(fourcc));
  if (!isCodedFormat(fourcc)) return 0;
  description.flags = V4L2_FMT_FLAG_COMPRESSED;
  if (!kind_.encoder) description.flags |= V4L2_FMT_FLAG_DYN_RESOLUTION;
  return 0;
}

int Session::enumerateSize(v4l2_frmsizeenum& size) {
  std::vector<std::uint32_t> all = offered(in_);
  for (const std::uint32_t each : offered(out_)) all.push_back(each);
  if (size.index != 0 || std::find(all.begin(), all.end(), size.pixel_format) == all.end())
    return fails(EINVAL);
  size = {0, size.pixel_format, V4L2_FRMSIZE_TYPE_STEPWISE, {}, {}};
  const unsigned align = faults_.align, least = std::max(2u, align);
  size.stepwise = {least, 4096, align, least, 4096, align};
  return 0;
}

int Session::format(unsigned long request, v4l2_format& format) {
  Queue* const queue = queueOf(format.type);
  if (queue == nullptr) return fails(EINVAL);
  if (request != VIDIOC_G_FMT) {
    Format wanted = read(format);
    // The size of what a coder works on follows its other side.
    if (queue == &out_) {
      wanted.width = in_.format.width, wanted.height = in_.format.height;
      std::copy_n(in_.format.colours, 4, wanted.colours);
    }
    adjust(*queue, wanted);
    if (request == VIDIOC_S_FMT && !setFormat(*queue, wanted)) return -1;
    write(wanted, format);
    return 0;
  }
  write(queue->format, format);
  return 0;
}

// ---- buffers

int Session::request(int fd, v4l2_requestbuffers& request) {
  Queue* const queue = queueOf(request.type);
  if (queue == nullptr || request.memory != V4L2_MEMORY_MMAP) return fails(EINVAL);
  if (queue->streaming && request.count != 0) return fails(EBUSY);
  if (request.count == 0) stop(*queue);
  if (!allocate(*queue, request.count, fd)) return fails(ENOMEM);
  request.count = static_cast<__u32>(queue->buffers.size());
  request.capabilities = V4L2_BUF_CAP_SUPPORTS_MMAP | V4L2_BUF_CAP_SUPPORTS_ORPHANED_BUFS;
  request.flags = 0;
  std::memset(request.reserved, 0, sizeof request.reserved);
  return 0;
}

int Session::create(int fd, v4l2_create_buffers& request) {
  Queue* const queue = queueOf(request.format.type);
  if (queue == nullptr || request.memory != V4L2_MEMORY_MMAP) return fails(EINVAL);
  request.index = static_cast<__u32>(queue->buffers.size());
  request.capabilities = V4L2_BUF_CAP_SUPPORTS_MMAP | V4L2_BUF_CAP_SUPPORTS_ORPHANED_BUFS;
  request.flags = 0;
  std::memset(request.reserved, 0, sizeof request.reserved);
  Format wanted = queue->format;
  const bool multi = isMulti(request.format.type);
  for (unsigned i = 0; request.count > 0 && i < wanted.planes; ++i) {
    const std::uint32_t size =
        multi ? request.format.fmt.pix_mp.plane_fmt[i].sizeimage : request.format.fmt.pix.sizeimage;
    if (size < wanted.sizeImage[i]) return fails(EINVAL);
    wanted.sizeImage[i] = size;
  }
  if (multi && request.count > 0 && request.format.fmt.pix_mp.num_planes != wanted.planes)
    return fails(EINVAL);
  const unsigned room = 32 - std::min(32u, request.index);
  request.count = std::min(request.count, room);
  return addBuffers(*queue, request.count, wanted.sizeImage, fd) ? 0 : fails(ENOMEM);
}

void Session::describe(const Queue& queue, unsigned index, v4l2_buffer& to) const {
  const Buffer& buffer = queue.buffers[index];
  v4l2_plane* const planes = to.m.planes;
  const bool multi = isMulti(queue.type);
  to.index = index;
  to.type = queue.type;
  to.flags = V4L2_BUF_FLAG_TIMESTAMP_COPY |
             (buffer.state == Buffer::Queued ? V4L2_BUF_FLAG_QUEUED : 0u) |
             (buffer.state == Buffer::Done ? V4L2_BUF_FLAG_DONE : 0u) | buffer.flags;
  to.field = V4L2_FIELD_NONE;
  to.timestamp = {static_cast<time_t>(buffer.stamp / 1000000),
                  static_cast<suseconds_t>(buffer.stamp % 1000000)};
  to.sequence = buffer.sequence;
  to.memory = V4L2_MEMORY_MMAP;
  to.reserved2 = 0;
  if (!multi) {
    to.bytesused = buffer.used[0];
    to.length = buffer.length[0];
    to.m.offset = buffer.offset[0];
    return;
  }
  to.bytesused = 0;
  to.length = buffer.planes;
  for (unsigned i = 0; i < buffer.planes; ++i) {
    std::memset(&planes[i], 0, sizeof planes[i]);
    planes[i].bytesused = buffer.used[i];
    planes[i].length = buffer.length[i];
    planes[i].m.mem_offset = buffer.offset[i];
  }
}

int Session::exchange(int fd, unsigned long request, v4l2_buffer& buffer) {
  Queue* const queue = queueOf(buffer.type);
  if (queue == nullptr) return fails(EINVAL);
  if (request != VIDIOC_QUERYBUF && buffer.memory != V4L2_MEMORY_MMAP) return fails(EINVAL);
  if (isMulti(queue->type) && (buffer.m.planes == nullptr || buffer.length < queue->format.planes))
    return fails(EINVAL);
  if (request == VIDIOC_DQBUF) return dequeue(fd, *queue, buffer);
  if (buffer.index >= queue->buffers.size()) return fails(EINVAL);
  if (request == VIDIOC_QBUF && enqueue(*queue, queue->buffers[buffer.index], buffer) != 0)
    return -1;
  describe(*queue, buffer.index, buffer);
  if (request == VIDIOC_QBUF) pump();
  return 0;
}

int Session::enqueue(Queue& queue, Buffer& buffer, const v4l2_buffer& from) {
  if (buffer.state != Buffer::Idle) return fails(EINVAL);
  const bool multi = isMulti(queue.type);
  for (unsigned i = 0; &queue == &in_ && i < buffer.planes; ++i) {
    const std::uint32_t used = multi ? from.m.planes[i].bytesused : from.bytesused;
    if (used > buffer.length[i]) return fails(EINVAL);
    buffer.used[i] = used != 0 ? used : buffer.length[i];
  }
  if (&queue == &in_) {
    if (from.field != V4L2_FIELD_NONE && from.field != V4L2_FIELD_ANY) return fails(EINVAL);
    buffer.stamp = static_cast<std::uint64_t>(from.timestamp.tv_sec) * 1000000 +
                   static_cast<std::uint64_t>(from.timestamp.tv_usec);
  }
  buffer.flags = 0;
  buffer.state = Buffer::Queued;
  queue.queued.push_back(from.index);
  return 0;
}

int Session::dequeue(int fd, Queue& queue, v4l2_buffer& to) {
  if (!queue.streaming) return fails(EINVAL);
  if (&queue == &out_ && queue.done.empty() && lastTaken_) return fails(EPIPE);
  if (queue.done.empty()) return fails((fcntl(fd, F_GETFL) & O_NONBLOCK) != 0 ? EAGAIN : EINTR);
  const unsigned index = queue.done.front();
  queue.done.pop_front();
  Buffer& buffer = queue.buffers[index];
  buffer.state = Buffer::Idle;
  buffer.sequence = queue.sequence++;
  describe(queue, index, to);
  if ((buffer.flags & V4L2_BUF_FLAG_LAST) != 0) lastTaken_ = true;
  return 0;
}

// ---- the rest

int Session::selection(bool set, v4l2_selection& selection) {
  const bool in = selection.type == V4L2_BUF_TYPE_VIDEO_OUTPUT;
  if (!in && selection.type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return fails(EINVAL);
  if (kind_.encoder != in || (kind_.encoder && kind_.coded != V4L2_PIX_FMT_H264))
    return fails(kind_.encoder && kind_.coded == V4L2_PIX_FMT_H264 ? EINVAL
                 : kind_.encoder                                   ? ENOTTY
                                                                   : EINVAL);
  std::memset(selection.reserved, 0, sizeof selection.reserved);
  const v4l2_rect whole = {0, 0, in_.format.width, in_.format.height};
  switch (selection.target) {
    case V4L2_SEL_TGT_CROP:
      if (!kind_.encoder) return fails(EINVAL);
      if (set) {
        v4l2_rect& rect = selection.r;
        rect.width = std::clamp(rect.width & ~1u, 2u, whole.width);
        rect.height = std::clamp(rect.height & ~1u, 2u, whole.height);
        rect.left = std::clamp(rect.left & ~1, 0, static_cast<int>(whole.width - rect.width));
        rect.top = std::clamp(rect.top & ~1, 0, static_cast<int>(whole.height - rect.height));
        crop_ = rect;
        return 0;
      }
      selection.r = crop_;
      return 0;
    case V4L2_SEL_TGT_CROP_DEFAULT:
    case V4L2_SEL_TGT_CROP_BOUNDS:
      if (set || !kind_.encoder) return fails(EINVAL);
      selection.r = whole;
      return 0;
    case V4L2_SEL_TGT_COMPOSE:
    case V4L2_SEL_TGT_COMPOSE_DEFAULT:
    case V4L2_SEL_TGT_COMPOSE_BOUNDS:
    case V4L2_SEL_TGT_COMPOSE_PADDED:
      if (kind_.encoder || set) return fails(EINVAL);
      selection.r = crop_;
      return 0;
    default:
      return fails(EINVAL);
  }
}

int Session::interval(bool set, v4l2_streamparm& parameters) {
  if (!kind_.encoder || kind_.coded != V4L2_PIX_FMT_H264) return fails(ENOTTY);
  if (queueOf(parameters.type) == nullptr) return fails(EINVAL);
  v4l2_fract wanted = parameters.parm.output.timeperframe;
  std::memset(&parameters.parm, 0, sizeof parameters.parm);
  if (wanted.numerator == 0 || wanted.denominator == 0) wanted = {1, 30};
  if (set) interval_ = wanted;
  parameters.parm.output.capability = V4L2_CAP_TIMEPERFRAME;
  parameters.parm.output.timeperframe = interval_;
  return 0;
}

const ControlKind* Session::findControl(std::uint32_t& id) const {
  if (faults_.plain && kind_.coded == V4L2_PIX_FMT_H264 && kind_.encoder) return nullptr;
  const std::uint32_t flags = id & (V4L2_CTRL_FLAG_NEXT_CTRL | V4L2_CTRL_FLAG_NEXT_COMPOUND);
  const std::uint32_t plain = id & V4L2_CTRL_ID_MASK;
  for (const ControlKind& each : controlsOf(kind_))
    if (flags == 0 ? each.id == plain
                   : (flags & V4L2_CTRL_FLAG_NEXT_CTRL) != 0 && each.id > plain) {
      id = each.id;
      return &each;
    }
  return nullptr;
}

int Session::queryControl(v4l2_query_ext_ctrl& query) const {
  const ControlKind* const control = findControl(query.id);
  if (control == nullptr) return fails(EINVAL);
  const std::uint32_t id = query.id;
  std::memset(&query, 0, sizeof query);
  query.id = id;
  query.type = control->type;
  copyText(query.name, control->name);
  query.minimum = control->minimum;
  query.maximum = control->maximum;
  const bool valued =
      control->type != V4L2_CTRL_TYPE_CTRL_CLASS && control->type != V4L2_CTRL_TYPE_BUTTON;
  query.step = valued ? 1 : 0;
  query.default_value = control->initial;
  query.flags = control->flags;
  query.elem_size = valued ? sizeof(__s32) : 0;
  query.elems = 1;
  return 0;
}

int Session::queryMenu(v4l2_querymenu& entry) const {
  std::uint32_t id = entry.id;
  const ControlKind* const control = findControl(id);
  if (control == nullptr || entry.index >= control->entries.size() ||
      control->entries[entry.index] == nullptr)
    return fails(EINVAL);
  const char* const name = control->entries[entry.index];
  std::memset(entry.name, 0, sizeof entry.name);
  std::memcpy(entry.name, name, std::strlen(name));
  entry.reserved = 0;
  return 0;
}

int Session::setValue(std::uint32_t id, std::int64_t& value, bool apply) {
  const ControlKind* const control = findControl(id);
  if (control == nullptr) return fails(EINVAL);
  if (faults_.stubborn && kind_.coded == V4L2_PIX_FMT_H264) return fails(EBUSY);
  if ((control->flags & V4L2_CTRL_FLAG_READ_ONLY) != 0) return fails(EACCES);
  if (control->type == V4L2_CTRL_TYPE_MENU &&
      (value < 0 || value > control->maximum ||
       control->entries[static_cast<std::size_t>(value)] == nullptr))
    return fails(value < 0 || value > control->maximum ? ERANGE : EINVAL);
  if (control->type == V4L2_CTRL_TYPE_BOOLEAN) value = value != 0;
  value = std::clamp(value, control->minimum, control->maximum);
  if (!apply) return 0;
  if (id == V4L2_CID_MPEG_VIDEO_FORCE_KEY_FRAME) keyFrameAsked_ = true;
  values_[id] = value;
  return 0;
}

int Session::controls(unsigned long request, v4l2_ext_controls& all) {
  const bool get = request == VIDIOC_G_EXT_CTRLS;
  all.error_idx = all.count;
  if (all.which == V4L2_CTRL_WHICH_REQUEST_VAL) return fails(EINVAL);
  const bool defaults = all.which == V4L2_CTRL_WHICH_DEF_VAL;
  if (defaults && !get) return fails(EINVAL);
  const std::uint32_t group = defaults ? 0 : V4L2_CTRL_ID2WHICH(all.which);
  if (all.count == 0 && group != 0) {
    for (const ControlKind& each : controlsOf(kind_))
      if (V4L2_CTRL_ID2WHICH(each.id) == group) return 0;
    return fails(EINVAL);
  }
  for (const bool apply : {false, true}) {
    for (unsigned i = 0; i < all.count; ++i) {
      v4l2_ext_control& one = all.controls[i];
      if (request == VIDIOC_TRY_EXT_CTRLS || apply) all.error_idx = i;
      std::uint32_t id = one.id & V4L2_CTRL_ID_MASK;
      const ControlKind* const control = id == one.id ? findControl(id) : nullptr;
      if (control == nullptr || (group != 0 && V4L2_CTRL_ID2WHICH(id) != group))
        return fails(EINVAL);
      if (control->type == V4L2_CTRL_TYPE_CTRL_CLASS) return fails(get ? EACCES : EACCES);
      if (get) {
        if ((control->flags & V4L2_CTRL_FLAG_WRITE_ONLY) != 0) return fails(EACCES);
        one.value = static_cast<__s32>(defaults ? control->initial : values_[id]);
        continue;
      }
      std::int64_t value = one.value;
      if (setValue(id, value, apply && request == VIDIOC_S_EXT_CTRLS) != 0) return -1;
      if (apply) one.value = static_cast<__s32>(value);
    }
  }
  all.error_idx = all.count;
  return 0;
}

int Session::subscribe(const v4l2_event_subscription& wanted) {
  const bool known =
      wanted.type == V4L2_EVENT_EOS || (wanted.type == V4L2_EVENT_SOURCE_CHANGE && !kind_.encoder);
  if (wanted.type == V4L2_EVENT_CTRL) {
    std::uint32_t id = wanted.id;
    const ControlKind* const control = findControl(id);
    if (control == nullptr) return fails(EINVAL);
    subscribed_.insert({wanted.type, wanted.id});
    if ((wanted.flags & V4L2_EVENT_SUB_FL_SEND_INITIAL) == 0 ||
        control->type == V4L2_CTRL_TYPE_CTRL_CLASS)
      return 0;
    v4l2_event event = {};
    event.type = wanted.type;
    event.id = wanted.id;
    event.u.ctrl.changes = V4L2_EVENT_CTRL_CH_VALUE | V4L2_EVENT_CTRL_CH_FLAGS;
    event.u.ctrl.type = control->type;
    event.u.ctrl.value = static_cast<__s32>(values_[id]);
    post(event);
    return 0;
  }
  if (!known) return fails(EINVAL);
  subscribed_.insert({wanted.type, wanted.id});
  return 0;
}

int Session::takeEvent(int fd, v4l2_event& event) {
  if (events_.empty()) return fails((fcntl(fd, F_GETFL) & O_NONBLOCK) != 0 ? ENOENT : EINTR);
  event = events_.front();
  events_.pop_front();
  event.pending = static_cast<__u32>(events_.size());
  return 0;
}

}  // namespace standin
