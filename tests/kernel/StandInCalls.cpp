#include <fcntl.h>
#include <linux/media.h>
#include <linux/v4l2-controls.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "StandIn.h"

namespace standin {

namespace {

constexpr unsigned version = 6 << 16 | 1 << 8;  // of the kernel that is stood in for

template <typename Letter, std::size_t size>
void copyText(Letter (&to)[size], const char* text) {
  std::memset(to, 0, size);
  std::memcpy(to, text, std::min(std::strlen(text), size - 1));
}

bool isMulti(std::uint32_t type) {
  return type == V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE || type == V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
}

/// What both kinds of pixel formats have.
template <typename Pixels>
void writeCommon(const Format& format, Pixels& pixels) {
  std::memset(&pixels, 0, sizeof pixels);
  pixels.width = format.width;
  pixels.height = format.height;
  pixels.pixelformat = format.fourcc;
  pixels.field = V4L2_FIELD_NONE;
  pixels.colorspace = format.colours[0];
  pixels.ycbcr_enc = static_cast<decltype(pixels.ycbcr_enc)>(format.colours[1]);
  pixels.quantization = static_cast<decltype(pixels.quantization)>(format.colours[2]);
  pixels.xfer_func = static_cast<decltype(pixels.xfer_func)>(format.colours[3]);
}
template <typename Pixels>
Format readCommon(const Pixels& pixels, std::uint32_t size) {
  return {pixels.pixelformat,
          pixels.width,
          pixels.height,
          1,
          {},
          {size},
          {pixels.colorspace, pixels.ycbcr_enc, pixels.quantization, pixels.xfer_func}};
}

void write(const Format& format, v4l2_format& to) {
  if (!isMulti(to.type)) {
    writeCommon(format, to.fmt.pix);
    to.fmt.pix.bytesperline = format.bytesPerLine[0];
    to.fmt.pix.sizeimage = format.sizeImage[0];
    to.fmt.pix.priv = V4L2_PIX_FMT_PRIV_MAGIC;
    return;
  }
  writeCommon(format, to.fmt.pix_mp);
  to.fmt.pix_mp.num_planes = static_cast<__u8>(format.planes);
  for (unsigned i = 0; i < format.planes; ++i)
    to.fmt.pix_mp.plane_fmt[i] = {format.sizeImage[i], format.bytesPerLine[i], {}};
}

Format read(const v4l2_format& from) {
  const auto& several = from.fmt.pix_mp;
  return isMulti(from.type) ? readCommon(several, several.plane_fmt[0].sizeimage)
                            : readCommon(from.fmt.pix, from.fmt.pix.sizeimage);
}

constexpr auto group = V4L2_CTRL_TYPE_CTRL_CLASS;
constexpr auto number = V4L2_CTRL_TYPE_INTEGER;
constexpr auto menu = V4L2_CTRL_TYPE_MENU;
constexpr auto boolean = V4L2_CTRL_TYPE_BOOLEAN;
constexpr auto button = V4L2_CTRL_TYPE_BUTTON;
using Entries = std::vector<const char*>;
const Entries modes = {"Variable", "Constant"};
const Entries levels = {"1", "1b",  "1.1", "1.2", "1.3", "2",   "2.1", "2.2",
                        "3", "3.1", "3.2", "4",   "4.1", "4.2", "5",   "5.1"};
const Entries profiles = {"Baseline", "Constrained Baseline", "Main", nullptr, "High"};

// In the order of their numbers.
const std::vector<ControlKind> encoderControls = {
    {V4L2_CID_USER_CLASS, group, "User Controls"},
    {V4L2_CID_MIN_BUFFERS_FOR_OUTPUT, number, "Min Number of Output Buffers", 1, 1, 32},
    {V4L2_CID_CODEC_CLASS, group, "Codec Controls"},
    {V4L2_CID_MPEG_VIDEO_GOP_SIZE, number, "Video GOP Size", 12, 1, 100000},
    {V4L2_CID_MPEG_VIDEO_BITRATE_MODE, menu, "Video Bitrate Mode", 0, 0, 1, modes},
    {V4L2_CID_MPEG_VIDEO_BITRATE, number, "Video Bitrate", 2000000, 1000, 100000000},
    {V4L2_CID_MPEG_VIDEO_REPEAT_SEQ_HEADER, boolean, "Repeat Sequence Header", 1, 0, 1},
    {V4L2_CID_MPEG_VIDEO_FORCE_KEY_FRAME, button, "Force Key Frame"},
    {V4L2_CID_MPEG_VIDEO_H264_LEVEL, menu, "H264 Level", 11, 0, 15, levels},
    {V4L2_CID_MPEG_VIDEO_H264_PROFILE, menu, "H264 Profile", 4, 0, 4, profiles},
    {V4L2_CID_MPEG_VIDEO_H264_VUI_EXT_SAR_HEIGHT, number, "Vertical Size of SAR", 1, 1, 65535},
    {V4L2_CID_MPEG_VIDEO_H264_VUI_EXT_SAR_WIDTH, number, "Horizontal Size of SAR", 1, 1, 65535}};
const std::vector<ControlKind> decoderControls = {
    {V4L2_CID_USER_CLASS, group, "User Controls"},
    {V4L2_CID_MIN_BUFFERS_FOR_CAPTURE, number, "Min Number of Capture Buffers", 2, 1, 32}};
const std::vector<ControlKind> jpegControls = {
    {V4L2_CID_JPEG_CLASS, group, "JPEG Compression Controls"},
    {V4L2_CID_JPEG_COMPRESSION_QUALITY, number, "Compression Quality", 80, 1, 100}};

std::uint32_t flagsOf(const ControlKind& control) {
  if (control.type == group) return V4L2_CTRL_FLAG_READ_ONLY | V4L2_CTRL_FLAG_WRITE_ONLY;
  if (control.type == button) return V4L2_CTRL_FLAG_WRITE_ONLY | V4L2_CTRL_FLAG_EXECUTE_ON_WRITE;
  const bool fixed = control.id == V4L2_CID_MIN_BUFFERS_FOR_OUTPUT ||
                     control.id == V4L2_CID_MIN_BUFFERS_FOR_CAPTURE;
  return fixed ? V4L2_CTRL_FLAG_READ_ONLY : 0u;
}

}  // namespace

const std::vector<ControlKind>& controlsOf(const Kind& kind) {
  if (!kind.encoder) return decoderControls;
  return kind.coded == V4L2_PIX_FMT_JPEG ? jpegControls : encoderControls;
}

std::map<const Session*, std::uint32_t>& priorities(const Kind& kind) {
  static std::map<const Kind*, std::map<const Session*, std::uint32_t>> all;
  return all[&kind];
}

Session::Answer Session::answerTo(unsigned long request) {
  static const std::pair<Answer, std::vector<unsigned long>> all[] = {
      {&Session::queryCapability, {VIDIOC_QUERYCAP}},
      {&Session::enumerateFormat, {VIDIOC_ENUM_FMT}},
      {&Session::enumerateSize, {VIDIOC_ENUM_FRAMESIZES}},
      {&Session::format, {VIDIOC_G_FMT, VIDIOC_S_FMT, VIDIOC_TRY_FMT}},
      {&Session::request, {VIDIOC_REQBUFS}},
      {&Session::exchange, {VIDIOC_QUERYBUF, VIDIOC_QBUF, VIDIOC_DQBUF}},
      {&Session::stream, {VIDIOC_STREAMON, VIDIOC_STREAMOFF}},
      {&Session::selection, {VIDIOC_G_SELECTION, VIDIOC_S_SELECTION}},
      {&Session::interval, {VIDIOC_G_PARM, VIDIOC_S_PARM}},
      {&Session::queryOldControl, {VIDIOC_QUERYCTRL}},
      {&Session::queryControl, {VIDIOC_QUERY_EXT_CTRL}},
      {&Session::queryMenu, {VIDIOC_QUERYMENU}},
      {&Session::oldControl, {VIDIOC_G_CTRL, VIDIOC_S_CTRL}},
      {&Session::controls, {VIDIOC_G_EXT_CTRLS, VIDIOC_S_EXT_CTRLS, VIDIOC_TRY_EXT_CTRLS}},
      {&Session::subscribe, {VIDIOC_SUBSCRIBE_EVENT, VIDIOC_UNSUBSCRIBE_EVENT}},
      {&Session::takeEvent, {VIDIOC_DQEVENT}},
      {&Session::command, {VIDIOC_ENCODER_CMD, VIDIOC_TRY_ENCODER_CMD}},
      {&Session::command, {VIDIOC_DECODER_CMD, VIDIOC_TRY_DECODER_CMD}},
      {&Session::mediaInfo, {MEDIA_IOC_DEVICE_INFO}},
      {&Session::topology, {MEDIA_IOC_G_TOPOLOGY}},
      {&Session::priority, {VIDIOC_G_PRIORITY, VIDIOC_S_PRIORITY}}};
  for (const auto& [answer, requests] : all)
    if (std::find(requests.begin(), requests.end(), request) != requests.end()) return answer;
  return nullptr;
}

int Session::call(const Call& call) {
  pump();
  if (gone_) return fails(ENODEV);
  const Answer answer = answerTo(call.request);
  return answer != nullptr ? (this->*answer)(call) : fails(ENOTTY);
}

Queue* Session::queueOf(std::uint32_t type) {
  return type == in_.type ? &in_ : type == out_.type ? &out_ : nullptr;
}

int Session::queryCapability(const Call& call) {
  auto& capability = call.blank<v4l2_capability>();
  copyText(capability.driver, "stand-in");
  copyText(capability.card, kind_.card);
  copyText(capability.bus_info, "platform:stand-in");
  capability.version = version;
  capability.device_caps =
      V4L2_CAP_STREAMING | V4L2_CAP_EXT_PIX_FORMAT |
      (faults_.multiPlanar != 0 ? V4L2_CAP_VIDEO_M2M_MPLANE : V4L2_CAP_VIDEO_M2M);
  capability.capabilities = capability.device_caps | V4L2_CAP_DEVICE_CAPS;
  return 0;
}

int Session::enumerateFormat(const Call& call) {
  auto& description = call.as<v4l2_fmtdesc>();
  const Queue* const queue = queueOf(description.type);
  if (queue == nullptr || description.index >= offered(*queue).size()) return fails(EINVAL);
  const Layout& layout = layoutOf(offered(*queue)[description.index]);
  description = {description.index, description.type, 0, {}, layout.fourcc, 0, {}};
  copyText(description.description, layout.name);
  if (layout.isRaw()) return 0;
  description.flags = V4L2_FMT_FLAG_COMPRESSED;
  if (!kind_.encoder) description.flags |= V4L2_FMT_FLAG_DYN_RESOLUTION;
  return 0;
}

int Session::enumerateSize(const Call& call) {
  auto& size = call.as<v4l2_frmsizeenum>();
  std::vector<std::uint32_t> all = offered(in_);
  for (const std::uint32_t each : offered(out_)) all.push_back(each);
  if (size.index != 0 || std::find(all.begin(), all.end(), size.pixel_format) == all.end())
    return fails(EINVAL);
  size = {0, size.pixel_format, V4L2_FRMSIZE_TYPE_STEPWISE, {}, {}};
  const unsigned align = faults_.align, least = std::max(2u, align);
  size.stepwise = {least, 4096, align, least, 4096, align};
  return 0;
}

int Session::format(const Call& call) {
  auto& format = call.as<v4l2_format>();
  Queue* const queue = queueOf(format.type);
  if (queue == nullptr) return fails(EINVAL);
  Format wanted = call.request == VIDIOC_G_FMT ? queue->format : read(format);
  // The size of what a coder works on follows its other side.
  if (call.request != VIDIOC_G_FMT && queue == &out_) {
    wanted.setSize(in_.format.width, in_.format.height);
    std::copy_n(in_.format.colours, 4, wanted.colours);
  }
  if (call.request != VIDIOC_G_FMT) adjust(*queue, wanted);
  if (call.request == VIDIOC_S_FMT) {
    if (!queue->buffers.empty()) return fails(EBUSY);
    queue->format = wanted;
  }
  if (call.request == VIDIOC_S_FMT && queue == &in_) {
    out_.format.setSize(wanted.width, wanted.height);
    std::copy_n(wanted.colours, 4, out_.format.colours);
    crop_ = {0, 0, wanted.width, wanted.height};
    if (out_.buffers.empty()) adjust(out_, out_.format);
  }
  write(wanted, format);
  return 0;
}

int Session::request(const Call& call) {
  auto& request = call.as<v4l2_requestbuffers>();
  Queue* const queue = queueOf(request.type);
  if (queue == nullptr || request.memory != V4L2_MEMORY_MMAP) return fails(EINVAL);
  if (queue->streaming && request.count != 0) return fails(EBUSY);
  if (request.count == 0) stop(*queue);
  if (!allocate(*queue, request.count, call.fd)) return fails(ENOMEM);
  constexpr auto can = V4L2_BUF_CAP_SUPPORTS_MMAP | V4L2_BUF_CAP_SUPPORTS_ORPHANED_BUFS;
  const auto made = static_cast<__u32>(queue->buffers.size());
  request = {made, request.type, request.memory, can, 0, {}};
  return 0;
}

int Session::stream(const Call& call) {
  Queue* const queue = queueOf(call.as<std::uint32_t>());
  const bool on = call.request == VIDIOC_STREAMON;
  if (queue == nullptr || (on && queue->buffers.empty())) return fails(EINVAL);
  if (on && !queue->streaming) start(*queue);
  if (!on) stop(*queue);
  return 0;
}

void Session::describe(const Queue& queue, unsigned index, v4l2_buffer& to) const {
  const Buffer& buffer = queue.buffers[index];
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
  if (!isMulti(queue.type)) {
    to.bytesused = buffer.used[0];
    to.length = buffer.length[0];
    to.m.offset = buffer.offset[0];
    return;
  }
  to.bytesused = 0;
  to.length = buffer.planes;
  for (unsigned i = 0; i < buffer.planes; ++i)
    to.m.planes[i] = {buffer.used[i], buffer.length[i], {buffer.offset[i]}, 0, {}};
}

int Session::exchange(const Call& call) {
  auto& buffer = call.as<v4l2_buffer>();
  Queue* const queue = queueOf(buffer.type);
  if (queue == nullptr) return fails(EINVAL);
  if (call.request != VIDIOC_QUERYBUF && buffer.memory != V4L2_MEMORY_MMAP) return fails(EINVAL);
  if (isMulti(queue->type) && (buffer.m.planes == nullptr || buffer.length < queue->format.planes))
    return fails(EINVAL);
  if (call.request == VIDIOC_DQBUF) return dequeue(call.fd, *queue, buffer);
  if (buffer.index >= queue->buffers.size()) return fails(EINVAL);
  const bool queued = call.request == VIDIOC_QBUF;
  if (queued && enqueue(*queue, queue->buffers[buffer.index], buffer) != 0) return -1;
  describe(*queue, buffer.index, buffer);
  if (queued) pump();
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

int Session::selection(const Call& call) {
  auto& selection = call.as<v4l2_selection>();
  if (kind_.encoder && kind_.coded != V4L2_PIX_FMT_H264) return fails(ENOTTY);
  if (selection.type != (kind_.encoder ? V4L2_BUF_TYPE_VIDEO_OUTPUT : V4L2_BUF_TYPE_VIDEO_CAPTURE))
    return fails(EINVAL);
  std::memset(selection.reserved, 0, sizeof selection.reserved);
  const bool set = call.request == VIDIOC_S_SELECTION;
  const std::uint32_t target = selection.target;
  const v4l2_rect whole = {0, 0, in_.format.width, in_.format.height};
  v4l2_rect& rect = selection.r;
  if (kind_.encoder && target == V4L2_SEL_TGT_CROP && set) {
    rect.width = std::clamp(rect.width & ~1u, 2u, whole.width);
    rect.height = std::clamp(rect.height & ~1u, 2u, whole.height);
    rect.left = std::clamp(rect.left & ~1, 0, static_cast<int>(whole.width - rect.width));
    rect.top = std::clamp(rect.top & ~1, 0, static_cast<int>(whole.height - rect.height));
    crop_ = rect;
    return 0;
  }
  const bool bounds = target == V4L2_SEL_TGT_CROP_DEFAULT || target == V4L2_SEL_TGT_CROP_BOUNDS;
  const bool composed = target >= V4L2_SEL_TGT_COMPOSE && target <= V4L2_SEL_TGT_COMPOSE_PADDED;
  if (set || (kind_.encoder ? !bounds && target != V4L2_SEL_TGT_CROP : !composed))
    return fails(EINVAL);
  rect = bounds ? whole : crop_;
  return 0;
}

int Session::interval(const Call& call) {
  auto& parameters = call.as<v4l2_streamparm>();
  if (!kind_.encoder || kind_.coded != V4L2_PIX_FMT_H264) return fails(ENOTTY);
  if (queueOf(parameters.type) == nullptr) return fails(EINVAL);
  v4l2_fract wanted = parameters.parm.output.timeperframe;
  std::memset(&parameters.parm, 0, sizeof parameters.parm);
  if (wanted.numerator == 0 || wanted.denominator == 0) wanted = {1, 30};
  if (call.request == VIDIOC_S_PARM) interval_ = wanted;
  parameters.parm.output.capability = V4L2_CAP_TIMEPERFRAME;
  parameters.parm.output.timeperframe = interval_;
  return 0;
}

const ControlKind* Session::findControl(std::uint32_t& id) const {
  if (faults_.plain != 0 && kind_.encoder) return nullptr;
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

int Session::queryControl(const Call& call) {
  auto& query = call.as<v4l2_query_ext_ctrl>();
  const ControlKind* const control = findControl(query.id);
  if (control == nullptr) return fails(EINVAL);
  std::memset(&query, 0, sizeof query);
  query.id = control->id;
  query.type = control->type;
  copyText(query.name, control->name);
  query.minimum = control->minimum;
  query.maximum = control->maximum;
  query.default_value = control->initial;
  query.flags = flagsOf(*control);
  query.elems = 1;
  if (control->type == group || control->type == button) return 0;
  query.step = 1;
  query.elem_size = sizeof(__s32);
  return 0;
}

int Session::queryOldControl(const Call& call) {
  auto& old = call.as<v4l2_queryctrl>();
  v4l2_query_ext_ctrl query = {};
  query.id = old.id;
  if (queryControl({call.fd, call.request, &query}) != 0) return -1;
  const auto narrow = [](auto value) { return static_cast<__s32>(value); };
  old = {query.id,
         query.type,
         {},
         narrow(query.minimum),
         narrow(query.maximum),
         narrow(query.step),
         narrow(query.default_value),
         query.flags,
         {}};
  copyText(old.name, query.name);
  return 0;
}

int Session::queryMenu(const Call& call) {
  auto& entry = call.as<v4l2_querymenu>();
  std::uint32_t id = entry.id;
  const ControlKind* const control = findControl(id);
  if (control == nullptr || entry.index >= control->entries.size() ||
      control->entries[entry.index] == nullptr)
    return fails(EINVAL);
  std::memset(entry.name, 0, sizeof entry.name);
  std::strcpy(reinterpret_cast<char*>(entry.name), control->entries[entry.index]);
  entry.reserved = 0;
  return 0;
}

int Session::oldControl(const Call& call) {
  auto& control = call.as<v4l2_control>();
  v4l2_ext_control one = {control.id, 0, {}, {control.value}};
  v4l2_ext_controls all = {{}, 1, 0, 0, {}, &one};
  const bool get = call.request == VIDIOC_G_CTRL;
  if (controls({call.fd, get ? VIDIOC_G_EXT_CTRLS : VIDIOC_S_EXT_CTRLS, &all}) != 0) return -1;
  control.value = one.value;
  return 0;
}

int Session::setValue(const ControlKind& control, std::int64_t& value, bool apply) {
  if (faults_.stubborn != 0) return fails(EBUSY);
  if ((flagsOf(control) & V4L2_CTRL_FLAG_READ_ONLY) != 0) return fails(EACCES);
  if (control.type == menu && (value < 0 || value > control.maximum)) return fails(ERANGE);
  if (control.type == menu && control.entries[static_cast<std::size_t>(value)] == nullptr)
    return fails(EINVAL);
  if (control.type == boolean) value = value != 0;
  value = std::clamp(value, control.minimum, control.maximum);
  if (!apply) return 0;
  if (control.id == V4L2_CID_MPEG_VIDEO_FORCE_KEY_FRAME) keyFrameAsked_ = true;
  values_[control.id] = value;
  return 0;
}

int Session::controls(const Call& call) {
  auto& all = call.as<v4l2_ext_controls>();
  const unsigned long request = call.request;
  const bool get = request == VIDIOC_G_EXT_CTRLS;
  all.error_idx = all.count;
  if (all.which == V4L2_CTRL_WHICH_REQUEST_VAL) return fails(EINVAL);
  const bool defaults = all.which == V4L2_CTRL_WHICH_DEF_VAL;
  if (defaults && !get) return fails(EINVAL);
  const std::uint32_t which = defaults ? 0 : V4L2_CTRL_ID2WHICH(all.which);
  if (all.count == 0 && which != 0) {
    for (const ControlKind& each : controlsOf(kind_))
      if (V4L2_CTRL_ID2WHICH(each.id) == which) return 0;
    return fails(EINVAL);
  }
  for (const bool apply : {false, true}) {
    for (unsigned i = 0; i < all.count; ++i) {
      v4l2_ext_control& one = all.controls[i];
      if (request == VIDIOC_TRY_EXT_CTRLS || apply) all.error_idx = i;
      std::uint32_t id = one.id & V4L2_CTRL_ID_MASK;
      const ControlKind* const control = id == one.id ? findControl(id) : nullptr;
      if (control == nullptr || (which != 0 && V4L2_CTRL_ID2WHICH(id) != which))
        return fails(EINVAL);
      if (control->type == group) return fails(EACCES);
      if (get) {
        if ((flagsOf(*control) & V4L2_CTRL_FLAG_WRITE_ONLY) != 0) return fails(EACCES);
        one.value = static_cast<__s32>(defaults ? control->initial : values_[id]);
        continue;
      }
      std::int64_t value = one.value;
      if (setValue(*control, value, apply && request == VIDIOC_S_EXT_CTRLS) != 0) return -1;
      if (apply) one.value = static_cast<__s32>(value);
    }
  }
  all.error_idx = all.count;
  return 0;
}

int Session::subscribe(const Call& call) {
  const auto& wanted = call.as<v4l2_event_subscription>();
  if (call.request == VIDIOC_UNSUBSCRIBE_EVENT) {
    if (wanted.type == V4L2_EVENT_ALL) subscribed_.clear();
    subscribed_.erase({wanted.type, wanted.id});
    return 0;
  }
  std::uint32_t id = wanted.id;
  const ControlKind* const control = wanted.type == V4L2_EVENT_CTRL ? findControl(id) : nullptr;
  if (control == nullptr && wanted.type != V4L2_EVENT_EOS &&
      (wanted.type != V4L2_EVENT_SOURCE_CHANGE || kind_.encoder))
    return fails(EINVAL);
  subscribed_.insert({wanted.type, wanted.id});
  if (control == nullptr || control->type == group ||
      (wanted.flags & V4L2_EVENT_SUB_FL_SEND_INITIAL) == 0)
    return 0;
  post(wanted.type, V4L2_EVENT_CTRL_CH_VALUE | V4L2_EVENT_CTRL_CH_FLAGS, control);
  return 0;
}

int Session::takeEvent(const Call& call) {
  if (events_.empty()) return fails((fcntl(call.fd, F_GETFL) & O_NONBLOCK) != 0 ? ENOENT : EINTR);
  auto& event = call.as<v4l2_event>();
  event = events_.front();
  events_.pop_front();
  event.pending = static_cast<__u32>(events_.size());
  return 0;
}

/// The drain of either kind: their calls begin alike, and so do their commands.
int Session::command(const Call& call) {
  const bool toTry =
      call.request == VIDIOC_TRY_ENCODER_CMD || call.request == VIDIOC_TRY_DECODER_CMD;
  if (kind_.encoder !=
      (call.request == VIDIOC_ENCODER_CMD || call.request == VIDIOC_TRY_ENCODER_CMD))
    return fails(ENOTTY);
  auto& wanted = call.as<v4l2_encoder_cmd>();
  wanted.flags = 0;
  if (wanted.cmd > V4L2_ENC_CMD_STOP) return fails(EINVAL);
  if (!kind_.encoder)
    std::memset(&call.as<v4l2_decoder_cmd>().raw, 0, sizeof(v4l2_decoder_cmd::raw));
  if (toTry) return 0;
  const bool stop = wanted.cmd == V4L2_ENC_CMD_STOP;
  if (stop && in_.streaming && out_.streaming) drainAsked_ = true;
  if (!stop) stopped_ = drainAsked_ = draining_ = lastTaken_ = restart_ = lastDue_ = false;
  return 0;
}

/// Who records keeps others of the device from changing anything.
int Session::priority(const Call& call) {
  auto& priority = call.as<std::uint32_t>();
  std::uint32_t& mine = priorities(kind_)[this];
  std::uint32_t highest = 0;
  for (const auto& each : priorities(kind_)) highest = std::max(highest, each.second);
  if (call.request == VIDIOC_G_PRIORITY) {
    priority = highest;
    return 0;
  }
  if (priority < V4L2_PRIORITY_BACKGROUND || priority > V4L2_PRIORITY_RECORD) return fails(EINVAL);
  if (highest == V4L2_PRIORITY_RECORD && mine != V4L2_PRIORITY_RECORD) return fails(EBUSY);
  mine = priority;
  return 0;
}

/// Of the media device of the same number, which says no more than which function this one has.
int Session::mediaInfo(const Call& call) {
  auto& info = call.blank<media_device_info>();
  copyText(info.driver, "stand-in");
  copyText(info.model, "stand-in");
  copyText(info.bus_info, "platform:stand-in");
  info.media_version = info.driver_version = version;
  return 0;
}

int Session::topology(const Call& call) {
  const std::uint32_t function =
      kind_.encoder ? MEDIA_ENT_F_PROC_VIDEO_ENCODER : MEDIA_ENT_F_PROC_VIDEO_DECODER;
  const media_v2_entity entities[] = {{1, "stand-in-source", MEDIA_ENT_F_IO_V4L, 0, {}},
                                      {2, "stand-in-proc", function, 0, {}}};
  media_v2_interface interface = {};
  interface.id = 3;
  interface.intf_type = MEDIA_INTF_T_V4L_VIDEO;
  interface.devnode = {81, kind_.number};
  const media_v2_pad pads[] = {{4, 1, MEDIA_PAD_FL_SOURCE, 0, {}},
                               {5, 2, MEDIA_PAD_FL_SINK, 0, {}}};
  constexpr std::uint32_t fixed = MEDIA_LNK_FL_IMMUTABLE | MEDIA_LNK_FL_ENABLED;
  const media_v2_link links[] = {{6, 4, 5, fixed, {}},
                                 {7, 3, 1, fixed | MEDIA_LNK_FL_INTERFACE_LINK, {}}};
  auto& topology = call.as<media_v2_topology>();
  const auto put = [](const auto& value, std::uint64_t where) {
    if (where != 0) std::memcpy(reinterpret_cast<void*>(where), &value, sizeof value);
  };
  put(entities, topology.ptr_entities);
  put(interface, topology.ptr_interfaces);
  put(pads, topology.ptr_pads);
  put(links, topology.ptr_links);
  topology.topology_version = topology.num_interfaces = 1;
  topology.num_entities = topology.num_pads = topology.num_links = 2;
  return 0;
}

}  // namespace standin
