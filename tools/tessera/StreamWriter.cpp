#include "StreamWriter.h"

#include <cstring>
#include <exception>

#include "AvSupport.h"
#include "Failure.h"

namespace tool {
namespace {

class BareWriter : public StreamWriter {
 public:
  explicit BareWriter(OutputFile& output) : output_(output) {}

  void write(const std::vector<std::uint8_t>& frame, bool) override {
    output_.write(frame.data(), frame.size());
  }
  void finish() override {}

 private:
  OutputFile& output_;
};

/// Lets libavformat write through an OutputFile. A failure there is kept, since no exception may
/// pass through the C library, and thrown once that has returned.
class OutputBridge {
 public:
  explicit OutputBridge(OutputFile& output) : output_(output) {
    constexpr int bytes = 64 * 1024;
    io_.reset(avio_alloc_context(static_cast<unsigned char*>(av_malloc(bytes)), bytes, 1, this,
                                 nullptr, write, output.isSeekable() ? seek : nullptr));
    if (!io_) throw std::bad_alloc();
  }

  AVIOContext* io() const { return io_.get(); }

  void check(int result) const {
    if (failure_) std::rethrow_exception(failure_);
    if (result < 0) throw Failure("cannot write " + output_.name() + ": " + avErrorText(result));
  }

 private:
  static int write(void* self, std::uint8_t* data, int size) {
    auto* bridge = static_cast<OutputBridge*>(self);
    if (bridge->failure_) return AVERROR(EIO);
    try {
      bridge->output_.write(data, static_cast<std::size_t>(size));
      return size;
    } catch (...) {
      bridge->failure_ = std::current_exception();
      return AVERROR(EIO);
    }
  }

  static std::int64_t seek(void* self, std::int64_t offset, int whence) {
    const std::int64_t at = static_cast<OutputBridge*>(self)->output_.seek(offset, whence);
    return whence == AVSEEK_SIZE || at < 0 ? AVERROR(ENOSYS) : at;
  }

  OutputFile& output_;
  AvOwned<AVIOContext> io_;
  std::exception_ptr failure_;
};

struct MuxerFree {
  void operator()(AVFormatContext* context) const { avformat_free_context(context); }
};

class ContainerWriter : public StreamWriter {
 public:
  ContainerWriter(OutputFile& output, const AVOutputFormat* container, const Stream& stream)
      : bridge_(output),
        frameTime_(av_make_q(static_cast<int>(stream.rate.den), static_cast<int>(stream.rate.num))),
        packet_(av_packet_alloc()) {
    AVFormatContext* context = nullptr;
    if (avformat_alloc_output_context2(&context, container, nullptr, nullptr) < 0 || !packet_)
      throw std::bad_alloc();
    muxer_.reset(context);
    muxer_->pb = bridge_.io();
    muxer_->flags |= AVFMT_FLAG_CUSTOM_IO | AVFMT_FLAG_FLUSH_PACKETS;
    track_ = avformat_new_stream(context, nullptr);
    if (!track_) throw std::bad_alloc();
    track_->time_base = frameTime_;
    track_->avg_frame_rate = av_inv_q(frameTime_);
    const AVRational aspect = {static_cast<int>(stream.aspect.num),
                               static_cast<int>(stream.aspect.den)};
    track_->sample_aspect_ratio = track_->codecpar->sample_aspect_ratio = aspect;
    AVCodecParameters& codec = *track_->codecpar;
    codec.codec_type = AVMEDIA_TYPE_VIDEO;
    codec.codec_id = AV_CODEC_ID_H264;
    codec.width = stream.size.width;
    codec.height = stream.size.height;
    codec.bit_rate = stream.bitrate;
    codec.format = AV_PIX_FMT_YUV420P;
    codec.color_range = stream.range == Range::Full ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
  }

  void write(const std::vector<std::uint8_t>& frame, bool keyFrame) override {
    if (frames_ == 0) begin(frame);
    // The muxer reads the packet during the call only.
    packet_->data = const_cast<std::uint8_t*>(frame.data());
    packet_->size = static_cast<int>(frame.size());
    packet_->pts = packet_->dts = av_rescale_q(frames_++, frameTime_, track_->time_base);
    packet_->duration = av_rescale_q(1, frameTime_, track_->time_base);
    packet_->flags = keyFrame ? AV_PKT_FLAG_KEY : 0;
    packet_->stream_index = 0;
    bridge_.check(av_write_frame(muxer_.get(), packet_.get()));
  }

  void finish() override {
    if (frames_ == 0) return;
    bridge_.check(av_write_trailer(muxer_.get()));
    avio_flush(bridge_.io());
    bridge_.check(0);
  }

 private:
  /// The parameter sets at the head of the first frame are the container's codec data.
  void begin(const std::vector<std::uint8_t>& frame) {
    const std::size_t length = parameterSetBytes(frame);
    AVCodecParameters& codec = *track_->codecpar;
    codec.extradata = static_cast<std::uint8_t*>(av_mallocz(length + AV_INPUT_BUFFER_PADDING_SIZE));
    if (!codec.extradata) throw std::bad_alloc();
    std::memcpy(codec.extradata, frame.data(), length);
    codec.extradata_size = static_cast<int>(length);

    AVDictionary* options = nullptr;
    // What a killed process leaves lacks no more than the last second.
    av_dict_set(&options, "cluster_time_limit", "1000", 0);
    // Without seeking an MP4 can only be written in fragments.
    if (!bridge_.io()->seekable && (muxer_->oformat->flags & AVFMT_GLOBALHEADER))
      av_dict_set(&options, "movflags", "frag_keyframe+empty_moov+default_base_moof", 0);
    const int result = avformat_write_header(muxer_.get(), &options);
    av_dict_free(&options);
    bridge_.check(result);
  }

  static std::size_t parameterSetBytes(const std::vector<std::uint8_t>& frame) {
    for (std::size_t at = 0; at + 3 < frame.size(); ++at) {
      const bool start = frame[at] == 0 && frame[at + 1] == 0 && frame[at + 2] == 1;
      const int type = frame[at + 3] & 0x1F;
      if (start && type != 7 && type != 8 && type != 9)
        return at > 0 && !frame[at - 1] ? at - 1 : at;
    }
    return frame.size();
  }

  OutputBridge bridge_;
  AVRational frameTime_;
  AvOwned<AVPacket> packet_;
  std::unique_ptr<AVFormatContext, MuxerFree> muxer_;
  AVStream* track_ = nullptr;  ///< the muxer's
  std::int64_t frames_ = 0;
};

}  // namespace

const AVOutputFormat* StreamWriter::containerFor(const std::string& output) {
  const std::size_t dot = output.rfind('.');
  const bool named = dot != std::string::npos && output.find('/', dot) == std::string::npos;
  if (output == "-" || !named) return nullptr;
  const std::string ending = output.substr(dot);
  const AVOutputFormat* format = av_guess_format(nullptr, ("x" + ending).c_str(), nullptr);
  if (ending == ".h264" || ending == ".264" || ending == ".avc") return nullptr;
  // MPEG-TS takes any codec and so names none.
  const bool transport = format && std::strcmp(format->name, "mpegts") == 0;
  if (!format || (format->flags & AVFMT_NOFILE) ||
      (!transport && avformat_query_codec(format, AV_CODEC_ID_H264, FF_COMPLIANCE_NORMAL) != 1))
    throw UsageFailure("OUTPUT " + output + ": " + ending +
                       " cannot hold H.264; use .mp4, .mkv or .ts, or .h264 for the bare stream");
  return format;
}

std::unique_ptr<StreamWriter> StreamWriter::make(OutputFile& output,
                                                 const AVOutputFormat* container,
                                                 const Stream& stream) {
  if (!container) return std::make_unique<BareWriter>(output);
  return std::make_unique<ContainerWriter>(output, container, stream);
}

}  // namespace tool
