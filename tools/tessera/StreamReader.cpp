#include "StreamReader.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <exception>

extern "C" {
#include <libavutil/display.h>
}

#include "AvSupport.h"
#include "BareStreamReader.h"
#include "Failure.h"
#include "Interrupt.h"
#include "UnitHeaders.h"

namespace tool {
namespace {

struct DemuxerFree {
  void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};

Ratio toRatio(AVRational value, Ratio otherwise) {
  if (value.num <= 0 || value.den <= 0) return otherwise;
  return {static_cast<unsigned>(value.num), static_cast<unsigned>(value.den)};
}

/// The H.264 stream of whatever libavformat opens.
class ContainerReader : public StreamReader {
 public:
  ContainerReader(InputFile& file, bool lowDelay)
      : input_(file), headers_(file.name()), packet_(av_packet_alloc()) {
    if (!packet_) throw std::bad_alloc();
    openDemuxer(lowDelay);
    openFilter();
    describe();
  }

  bool next(AccessUnit& unit) override {
    if (!ahead_ && !read()) return false;
    ahead_ = false;
    unit = {};
    unit.data = packet_->data;
    unit.size = static_cast<std::size_t>(packet_->size);
    if (packet_->pos >= 0) reached_ = packet_->pos;
    unit.decodeOnly = packet_->flags & AV_PKT_FLAG_DISCARD;
    unit.damaged = discarded_ || (packet_->flags & AV_PKT_FLAG_CORRUPT);
    discarded_ = false;
    if (start_ == AV_NOPTS_VALUE) start_ = packet_->pts;
    if (packet_->pts != AV_NOPTS_VALUE)
      unit.milliseconds = static_cast<std::uint64_t>(std::max<std::int64_t>(
          1, 1 + av_rescale_q(packet_->pts - start_, track_->time_base, av_make_q(1, 1000))));
    unit.picture = size_;
    headers_.read(unit);
    if (unit.picture.width == 0) unit.picture = {track_->codecpar->width, track_->codecpar->height};
    size_ = unit.picture;
    return true;
  }

  std::optional<double> fraction() const override {
    if (!input_.length()) return std::nullopt;
    return std::min(1.0, static_cast<double>(reached_) / static_cast<double>(*input_.length()));
  }

 private:
  void openDemuxer(bool lowDelay) {
    constexpr int bytes = 64 * 1024;
    io_.reset(avio_alloc_context(static_cast<unsigned char*>(av_malloc(bytes)), bytes, 0, this,
                                 readInput, nullptr, input_.length() ? seekInput : nullptr));
    AVFormatContext* context = avformat_alloc_context();
    if (!context || !io_) throw std::bad_alloc();
    context->pb = io_.get();
    if (lowDelay) {
      context->probesize = 32 * 1024;
      context->max_analyze_duration = 1;
      context->fps_probe_size = 0;
    }
    const int opened = avformat_open_input(&context, nullptr, nullptr, nullptr);
    if (failure_) std::rethrow_exception(failure_);
    if (opened < 0) {
      if (io_->pos == 0) throw Failure(input_.name() + " is empty");
      throw Failure(input_.name() +
                    " is neither an H.264 stream nor a container that libavformat " + "knows (" +
                    avErrorText(opened) + ")" + pipeHint());
    }
    demuxer_.reset(context);
    avformat_find_stream_info(context, nullptr);
    if (failure_) std::rethrow_exception(failure_);
    track_ = chooseTrack();
  }

  const char* pipeHint() const {
    return input_.length() ? "" : "; an MP4 with its index at the end must be read from a file";
  }

  /// The first H.264 stream. Every other one is skipped while reading.
  AVStream* chooseTrack() {
    std::string others;
    AVStream* chosen = nullptr;
    for (unsigned i = 0; i < demuxer_->nb_streams; ++i) {
      AVStream* stream = demuxer_->streams[i];
      stream->discard = AVDISCARD_ALL;
      if (!chosen && stream->codecpar->codec_id == AV_CODEC_ID_H264) chosen = stream;
      const char* type = av_get_media_type_string(stream->codecpar->codec_type);
      others += (others.empty() ? "" : ", ") +
                std::string(avcodec_get_name(stream->codecpar->codec_id)) + " " +
                (type ? type : "data");
    }
    if (!chosen)
      throw Failure(input_.name() + " holds no H.264 video but " +
                    (others.empty() ? "nothing at all" : others) +
                    "; convert it first, for example with ffmpeg -c:v libx264");
    chosen->discard = AVDISCARD_DEFAULT;
    headers_.checkPixels(chosen->codecpar->format);
    return chosen;
  }

  void openFilter() {
    AVBSFContext* context = nullptr;
    const AVBitStreamFilter* kind = av_bsf_get_by_name("h264_mp4toannexb");
    if (!kind || av_bsf_alloc(kind, &context) < 0) throw std::bad_alloc();
    filter_.reset(context);
    avcodec_parameters_copy(context->par_in, track_->codecpar);
    context->time_base_in = track_->time_base;
    const int result = av_bsf_init(context);
    if (result < 0)
      throw Failure(input_.name() + " has damaged codec data (" + avErrorText(result) + ")");
  }

  void describe() {
    const AVCodecParameters& codec = *track_->codecpar;
    ahead_ = read();
    start_ = track_->start_time;
    auto parameters =
        ahead_ ? SequenceParameters::find(packet_->data, packet_->size) : std::nullopt;
    const AVRational rate = av_guess_frame_rate(demuxer_.get(), track_, nullptr);
    info_.rate = toRatio(rate, parameters ? parameters->rate.value_or(info_.rate) : info_.rate);
    info_.aspect = toRatio(av_guess_sample_aspect_ratio(demuxer_.get(), track_, nullptr),
                           parameters ? parameters->aspect : info_.aspect);
    info_.fullRange = codec.color_range == AVCOL_RANGE_UNSPECIFIED && parameters
                          ? parameters->fullRange
                          : codec.color_range == AVCOL_RANGE_JPEG;
    info_.reorder = std::max(codec.video_delay, parameters ? parameters->reorder : 0);
    const auto* matrix = reinterpret_cast<const std::int32_t*>(
        av_stream_get_side_data(track_, AV_PKT_DATA_DISPLAYMATRIX, nullptr));
    if (matrix)
      info_.rotation = (360 - static_cast<int>(std::lround(av_display_rotation_get(matrix)))) % 360;
  }

  /// The next packet in Annex B. @return false at the end
  bool read() {
    for (;;) {
      av_packet_unref(packet_.get());
      const int filtered = av_bsf_receive_packet(filter_.get(), packet_.get());
      if (filtered == 0) return true;
      if (filtered == AVERROR_EOF) return false;
      const int result = av_read_frame(demuxer_.get(), packet_.get());
      if (failure_) std::rethrow_exception(failure_);
      if (result == 0 && packet_->stream_index != track_->index) continue;
      if (result < 0) endAt(result);
      if (result == 0) lastDamaged_ = packet_->flags & AV_PKT_FLAG_CORRUPT;
      // A packet that the filter cannot make anything of is damage, and no reason to end.
      if (av_bsf_send_packet(filter_.get(), result == 0 ? packet_.get() : nullptr) < 0)
        discarded_ = true;
    }
  }

  void endAt(int result) {
    if (Interrupt::signal() != 0) return;
    if (result != AVERROR_EOF)
      cut_ = "cannot read " + input_.name() + " to its end: " + avErrorText(result) + pipeHint();
    else if (lastDamaged_)
      cut_ = input_.name() + " ends in the middle of a picture";
  }

  static int readInput(void* self, std::uint8_t* data, int bytes) {
    auto* reader = static_cast<ContainerReader*>(self);
    try {
      const std::size_t got = reader->input_.readSome(data, static_cast<std::size_t>(bytes));
      return got > 0 ? static_cast<int>(got) : AVERROR_EOF;
    } catch (...) {  // no exception may pass through the C library
      reader->failure_ = std::current_exception();
      return AVERROR(EIO);
    }
  }

  static std::int64_t seekInput(void* self, std::int64_t offset, int whence) {
    InputFile& file = static_cast<ContainerReader*>(self)->input_;
    const auto length = static_cast<std::int64_t>(*file.length());
    if (whence & AVSEEK_SIZE) return length;
    whence &= ~AVSEEK_FORCE;
    if (whence == SEEK_CUR) offset += static_cast<std::int64_t>(file.position());
    if (whence == SEEK_END) offset += length;
    return offset >= 0 && file.seek(static_cast<std::uint64_t>(offset)) ? offset : AVERROR(EINVAL);
  }

  InputFile& input_;
  UnitHeaders headers_;
  std::exception_ptr failure_;
  AvOwned<AVIOContext> io_;
  std::unique_ptr<AVFormatContext, DemuxerFree> demuxer_;
  AVStream* track_ = nullptr;  ///< the demuxer's
  AvOwned<AVBSFContext> filter_;
  AvOwned<AVPacket> packet_;
  bool ahead_ = false;                   ///< the packet has not been handed out
  bool lastDamaged_ = false;             ///< the packet that the demuxer gave last
  bool discarded_ = false;               ///< a packet was, since the last access unit
  std::int64_t start_ = AV_NOPTS_VALUE;  ///< the first presentation time
  FrameSize size_;
  std::atomic<std::int64_t> reached_{0};  ///< where in the input the last packet stands
};

}  // namespace

std::unique_ptr<StreamReader> StreamReader::open(InputFile& input, bool lowDelay) {
  av_log_set_level(AV_LOG_FATAL);
  if (BareStreamReader::recognises(input)) return std::make_unique<BareStreamReader>(input);
  return std::make_unique<ContainerReader>(input, lowDelay);
}

}  // namespace tool
