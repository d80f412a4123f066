#include "mmal/VideoDecode.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>

#include "codec/Environment.h"
#include "interface/mmal/mmal_events.h"

namespace mmal {

namespace {

constexpr auto patience = std::chrono::milliseconds(500);
constexpr auto retry = std::chrono::milliseconds(10);
constexpr std::uint32_t recommendedInput = 80 * 1024;
constexpr std::uint32_t noPicture = 1;  ///< smallest buffer while the size is unknown

std::int64_t toPts(std::int64_t pts) {
  return pts == codec::VideoDecoder::noPts ? MMAL_TIME_UNKNOWN : pts;
}

/// Copies what lies in one piece by parts that a level-two cache holds: for those the C library
/// takes the processor's own block move, which spares fetching what it overwrites.
void copyBlock(std::uint8_t* to, const std::uint8_t* from, std::size_t size) {
  constexpr std::size_t part = 256 * 1024;
  for (; size > part; to += part, from += part, size -= part) std::memcpy(to, from, part);
  std::memcpy(to, from, size);
}

/// Copies a plane and fills what the padded layout has beyond it with its last column and row, so
/// that a buffer never shows a piece of an older picture.
void copyPlane(std::uint8_t* to, unsigned toStride, unsigned toRows, const std::uint8_t* from,
               unsigned fromStride, unsigned width, unsigned rows) {
  const bool alike = width == toStride && fromStride == toStride;
  if (alike) copyBlock(to, from, std::size_t{rows} * toStride);
  for (unsigned row = alike ? rows : 0; row < toRows; ++row) {
    std::uint8_t* const line = to + std::size_t{row} * toStride;
    if (row >= rows) {
      std::memcpy(line, line - toStride, toStride);
      continue;
    }
    std::memcpy(line, from + std::size_t{row} * fromStride, width);
    std::memset(line + width, line[width - 1], toStride - width);
  }
}

/// What a format-changed event carries: the event, and the format it points to.
struct FormatChanged {
  MMAL_EVENT_FORMAT_CHANGED_T event;
  MMAL_ES_FORMAT_T format;
  MMAL_ES_SPECIFIC_FORMAT_T specific;
};

void describe(FormatChanged& change, unsigned width, unsigned height) {
  change = FormatChanged{};
  change.format.type = MMAL_ES_TYPE_VIDEO;
  change.format.encoding = change.format.encoding_variant = MMAL_ENCODING_I420;
  change.format.es = &change.specific;
  MMAL_VIDEO_FORMAT_T& video = change.specific.video;
  video.width = codec::roundUp(width, 32);
  video.height = codec::roundUp(height, 16);
  video.crop = {0, 0, static_cast<std::int32_t>(width), static_cast<std::int32_t>(height)};
  video.frame_rate = {0, 1};
  video.par = {1, 1};
  change.event.format = &change.format;
  change.event.buffer_num_min = 1;
  change.event.buffer_num_recommended = 4;
  change.event.buffer_size_min = change.event.buffer_size_recommended =
      rawFrameBytes(MMAL_ENCODING_I420, video.width, video.height);
}

}  // namespace

VideoDecode::VideoDecode() : Component(publishedName) {
  input0().committed.encoding = MMAL_ENCODING_H264;
  output0().committed.encoding = MMAL_ENCODING_I420;
}

// The size of the input is a hint: the stream says what it is.
MMAL_STATUS_T VideoDecode::checkFormat(const Port& target, const MMAL_ES_FORMAT_T& format) const {
  const MMAL_VIDEO_FORMAT_T& video = format.es->video;
  if (!codec::board::takesVideo(video.width, video.height)) return MMAL_EINVAL;
  if (target.isInput()) {
    const bool fits = video.width <= largestSide && video.height <= largestSide;
    return format.encoding == MMAL_ENCODING_H264 && fits ? MMAL_SUCCESS : MMAL_EINVAL;
  }
  return format.encoding == MMAL_ENCODING_I420 && rawGeometryFits(video) ? MMAL_SUCCESS
                                                                         : MMAL_EINVAL;
}

void VideoDecode::setRequirements() {
  const MMAL_VIDEO_FORMAT_T& video = output0().committed.video();
  const std::uint32_t frame = rawFrameBytes(MMAL_ENCODING_I420, video.width, video.height);
  input0().require(4, recommendedInput, 1);
  output0().require(4, std::max(frame, noPicture), std::max(frame, noPicture));
}

std::vector<MMAL_FOURCC_T> VideoDecode::encodings(const Port& target) const {
  return {target.isInput() ? MMAL_ENCODING_H264 : MMAL_ENCODING_I420};
}

bool VideoDecode::work() {
  if (restart_ == Restart::No && takePicture()) return show();
  complain();
  if (ending_) {
    Header* const out = front(output0());
    if (out == nullptr) return false;
    out->flags = MMAL_BUFFER_HEADER_FLAG_EOS;
    ending_ = false;
    giveBack(output0());
    return true;
  }
  Header* const in = front(input0());
  if (in == nullptr) return false;
  if (restart_ != Restart::No && !restart()) throw std::bad_alloc();
  feed(*in);
  giveBack(input0());
  return true;
}

// What the decoder had of the stream went with the memory: it goes on with the next key frame.
void VideoDecode::lose() {
  if (restart_ == Restart::No) restart_ = Restart::KnowingItsSets;
  pictureWaits_ = false;
  const Header* const in = front(input0());
  ending_ = ending_ || (in != nullptr && (in->flags & MMAL_BUFFER_HEADER_FLAG_EOS) != 0);
  Component::lose();
}

// At the first input: until then the client may still commit a format with new parameter sets.
bool VideoDecode::restart() {
  const bool anew = restart_ == Restart::Anew;
  std::vector<std::uint8_t> extraData;
  {
    const auto held = lock();
    const Format& format = input0().committed;
    if (format.extradata != nullptr)
      extraData.assign(format.extradata, format.extradata + format.extradata_size);
  }
  if (!(anew ? decoder_->open(extraData.data(), extraData.size()) : decoder_->reopen()))
    return false;
  restart_ = Restart::No;
  failed_ = false;
  complained_ = complained_ && !anew;
  return true;
}

// Pictures that the codec cannot decode never come, which looks like a stream without any.
void VideoDecode::complain() {
  const bool failed = decoder_->failed();
  if (!complained_ && !decoder_->error().empty()) {
    std::fprintf(stderr, "vc.ril.video_decode cannot decode the stream: %s\n",
                 decoder_->error().c_str());
    complained_ = true;
  }
  if (failed && !failed_) raiseError(MMAL_EIO);
  failed_ = failed;
}

// Makes picture_ the next to go out. @return false when the decoder has none
bool VideoDecode::takePicture() {
  while (!pictureWaits_) {
    if (!decoder_->next(picture_)) return false;
    pictureWaits_ = !picture_.decodeOnly;
  }
  return true;
}

bool VideoDecode::show() {
  unsigned stride, sliceHeight;
  bool asDeclared;
  {
    const auto held = lock();
    const MMAL_VIDEO_FORMAT_T& video = output0().committed.video();
    const MMAL_RECT_T crop = pictureOf(video);
    asDeclared = picture_.width == static_cast<unsigned>(crop.width) &&
                 picture_.height == static_cast<unsigned>(crop.height);
    stride = video.width;
    sliceHeight = video.height;
    if (!output0().open()) return false;
  }
  if (!asDeclared) return keepOrLeaveOut();
  Header* const out = front(output0());
  if (out == nullptr) return false;
  write(*out, stride, sliceHeight);
  pictureWaits_ = announced_ = false;
  giveBack(output0());
  return true;
}

bool VideoDecode::keepOrLeaveOut() {
  if (!announced_) return announce();
  if (std::chrono::steady_clock::now() < patience_) {
    tryAgainAt(patience_);
    return false;
  }
  pictureWaits_ = false;
  return true;
}

bool VideoDecode::announce() {
  Header* const event = eventHeader(MMAL_EVENT_FORMAT_CHANGED);
  if (event == nullptr) {
    tryAgainAt(std::chrono::steady_clock::now() + retry);
    return false;
  }
  static_assert(sizeof(FormatChanged) <= 512, "an event header holds every event");
  auto* const change = new (event->data) FormatChanged;
  describe(*change, picture_.width, picture_.height);
  event->length = sizeof(FormatChanged);
  announced_ = true;
  patience_ = std::chrono::steady_clock::now() + patience;
  raise(output0(), *event);
  return true;
}

void VideoDecode::write(Header& out, unsigned stride, unsigned sliceHeight) const {
  const auto to = codec::planesOf(out.data, stride, sliceHeight);
  const codec::ConstPlanes& from = picture_.planes;
  const unsigned width = picture_.width, height = picture_.height;
  copyPlane(to.y, stride, sliceHeight, from.y, from.yStride, width, height);
  const unsigned chromaWidth = (width + 1) / 2, chromaRows = (height + 1) / 2;
  copyPlane(to.u, stride / 2, sliceHeight / 2, from.u, from.uvStride, chromaWidth, chromaRows);
  copyPlane(to.v, stride / 2, sliceHeight / 2, from.v, from.uvStride, chromaWidth, chromaRows);
  out.length = rawFrameBytes(MMAL_ENCODING_I420, stride, sliceHeight);
  out.flags = MMAL_BUFFER_HEADER_FLAG_FRAME;
  if (picture_.damaged) out.flags |= MMAL_BUFFER_HEADER_FLAG_CORRUPTED;
  out.pts = toPts(picture_.pts);
}

void VideoDecode::feed(const Header& in) {
  const std::int64_t pts = in.pts == MMAL_TIME_UNKNOWN ? codec::VideoDecoder::noPts : in.pts;
  const bool last = (in.flags & MMAL_BUFFER_HEADER_FLAG_EOS) != 0;
  const bool unitEnds = last || (in.flags & MMAL_BUFFER_HEADER_FLAG_FRAME_END) != 0;
  decoder_->feed(in.data + in.offset, in.length, pts,
                 (in.flags & MMAL_BUFFER_HEADER_FLAG_DECODEONLY) != 0, unitEnds);
  if (!last) return;
  decoder_->flush();
  ending_ = true;
}

// A gap in the input starts the stream anew. Giving the output buffers back loses no picture: that
// is how a client follows a change of size.
void VideoDecode::discard(Port& target) {
  if (target.isInput()) {
    restart_ = Restart::Anew;
    pictureWaits_ = ending_ = false;
  }
  if (target.isOutput()) announced_ = false;
}

}  // namespace mmal
