#include "StreamReader.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include "AvSupport.h"
#include "Failure.h"

namespace tool {
namespace {

struct DemuxerFree {
  void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};

/// A bare stream begins with a start code and a NAL unit that may stand first. Short ones are too
/// little for libavformat's own guess.
bool isBareStream(InputFile& input) {
  const std::vector<std::uint8_t>& start = input.peek(5);
  if (start.size() < 5 || start[0] != 0 || start[1] != 0) return false;
  const std::size_t at = start[2] == 1 ? 3 : start[2] == 0 && start[3] == 1 ? 4 : 0;
  const int type = start[at] & 0x1F;
  return at > 0 && !(start[at] & 0x80) && (type == 1 || (type >= 5 && type <= 9));
}

Ratio toRatio(AVRational value, Ratio otherwise) {
  if (value.num <= 0 || value.den <= 0) return otherwise;
  return {static_cast<unsigned>(value.num), static_cast<unsigned>(value.den)};
}

bool isPlain420(int format) {
  return format == AV_PIX_FMT_NONE || format == AV_PIX_FMT_YUV420P ||
         format == AV_PIX_FMT_YUVJ420P || format == AV_PIX_FMT_GRAY8;
}

}  // namespace

struct StreamReader::Impl {
  explicit Impl(InputFile& file) : input(file) {
    openDemuxer();
    openFilter();
    parserContext.reset(avcodec_alloc_context3(nullptr));
    parser.reset(av_parser_init(AV_CODEC_ID_H264));
    packet.reset(av_packet_alloc());
    if (!parserContext || !parser || !packet) throw std::bad_alloc();
    // Packets are whole access units already: it is asked for their headers alone.
    parser->flags |= PARSER_FLAG_COMPLETE_FRAMES;
    parserContext->codec_id = AV_CODEC_ID_H264;
  }

  void openDemuxer() {
    const bool bare = isBareStream(input);
    constexpr int bytes = 64 * 1024;
    io.reset(avio_alloc_context(static_cast<unsigned char*>(av_malloc(bytes)), bytes, 0, this,
                                readInput, nullptr, input.length() ? seekInput : nullptr));
    AVFormatContext* context = avformat_alloc_context();
    if (!context || !io) throw std::bad_alloc();
    context->pb = io.get();
    const int opened = avformat_open_input(&context, nullptr,
                                           bare ? av_find_input_format("h264") : nullptr, nullptr);
    if (failure) std::rethrow_exception(failure);
    if (opened < 0)
      throw Failure(input.name() + " is neither an H.264 stream nor a container that libavformat " +
                    "knows (" + avErrorText(opened) + ")" + pipeHint());
    demuxer.reset(context);
    avformat_find_stream_info(context, nullptr);
    if (failure) std::rethrow_exception(failure);
    track = chooseTrack();
  }

  const char* pipeHint() const {
    return input.length() ? "" : "; an MP4 with its index at the end must be read from a file";
  }

  /// The first H.264 stream. Every other one is skipped while reading.
  AVStream* chooseTrack() {
    std::string others;
    AVStream* chosen = nullptr;
    for (unsigned i = 0; i < demuxer->nb_streams; ++i) {
      AVStream* stream = demuxer->streams[i];
      stream->discard = AVDISCARD_ALL;
      if (!chosen && stream->codecpar->codec_id == AV_CODEC_ID_H264) chosen = stream;
      const char* type = av_get_media_type_string(stream->codecpar->codec_type);
      others += (others.empty() ? "" : ", ") +
                std::string(avcodec_get_name(stream->codecpar->codec_id)) + " " +
                (type ? type : "data");
    }
    if (!chosen)
      throw Failure(input.name() + " holds no H.264 video but " +
                    (others.empty() ? "nothing at all" : others) +
                    "; convert it first, for example with ffmpeg -c:v libx264");
    chosen->discard = AVDISCARD_DEFAULT;
    checkPixels(chosen->codecpar->format);
    return chosen;
  }

  void checkPixels(int format) const {
    if (isPlain420(format)) return;
    const AVPixFmtDescriptor* description = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(format));
    throw Failure(input.name() + " has " + (description ? description->name : "unknown") +
                  " pictures; the decoder takes 8-bit 4:2:0 only");
  }

  void openFilter() {
    AVBSFContext* context = nullptr;
    const AVBitStreamFilter* kind = av_bsf_get_by_name("h264_mp4toannexb");
    if (!kind || av_bsf_alloc(kind, &context) < 0) throw std::bad_alloc();
    filter.reset(context);
    avcodec_parameters_copy(context->par_in, track->codecpar);
    context->time_base_in = track->time_base;
    const int result = av_bsf_init(context);
    if (result < 0)
      throw Failure(input.name() + " has damaged codec data (" + avErrorText(result) + ")");
  }

  /// The next packet in Annex B. @return false at the end
  bool read() {
    for (;;) {
      av_packet_unref(packet.get());
      const int filtered = av_bsf_receive_packet(filter.get(), packet.get());
      if (filtered == 0) return true;
      if (filtered == AVERROR_EOF) return false;
      const int result = av_read_frame(demuxer.get(), packet.get());
      if (failure) std::rethrow_exception(failure);
      if (result < 0 && result != AVERROR_EOF)
        throw Failure("cannot read " + input.name() + ": " + avErrorText(result) + pipeHint());
      if (result == 0 && packet->stream_index != track->index) continue;
      // A packet that the filter cannot make anything of is damage, and no reason to end.
      av_bsf_send_packet(filter.get(), result == 0 ? packet.get() : nullptr);
    }
  }

  void readHeaders(AccessUnit& unit) {
    std::uint8_t* ignored = nullptr;
    int ignoredSize = 0;
    parser->picture_structure = AV_PICTURE_STRUCTURE_UNKNOWN;
    av_parser_parse2(parser.get(), parserContext.get(), &ignored, &ignoredSize, packet->data,
                     packet->size, packet->pts, packet->dts, packet->pos);
    checkPixels(parser->format);
    if (parser->width > 0 && parser->height > 0) size = {parser->width, parser->height};
    if (size.width == 0) size = {track->codecpar->width, track->codecpar->height};
    unit.picture = size;
    const bool field = parser->picture_structure == AV_PICTURE_STRUCTURE_TOP_FIELD ||
                       parser->picture_structure == AV_PICTURE_STRUCTURE_BOTTOM_FIELD;
    unit.fields = parser->picture_structure == AV_PICTURE_STRUCTURE_FRAME ? 2 : field ? 1 : 0;
  }

  static int readInput(void* self, std::uint8_t* data, int bytes) {
    auto* impl = static_cast<Impl*>(self);
    try {
      const std::size_t got = impl->input.readSome(data, static_cast<std::size_t>(bytes));
      return got > 0 ? static_cast<int>(got) : AVERROR_EOF;
    } catch (...) {  // no exception may pass through the C library
      impl->failure = std::current_exception();
      return AVERROR(EIO);
    }
  }

  static std::int64_t seekInput(void* self, std::int64_t offset, int whence) {
    InputFile& file = static_cast<Impl*>(self)->input;
    const auto length = static_cast<std::int64_t>(*file.length());
    if (whence & AVSEEK_SIZE) return length;
    whence &= ~AVSEEK_FORCE;
    if (whence == SEEK_CUR) offset += static_cast<std::int64_t>(file.position());
    if (whence == SEEK_END) offset += length;
    return offset >= 0 && file.seek(static_cast<std::uint64_t>(offset)) ? offset : AVERROR(EINVAL);
  }

  InputFile& input;
  std::exception_ptr failure;
  AvOwned<AVIOContext> io;
  std::unique_ptr<AVFormatContext, DemuxerFree> demuxer;
  AVStream* track = nullptr;  ///< the demuxer's
  AvOwned<AVBSFContext> filter;
  AvOwned<AVCodecContext> parserContext;
  AvOwned<AVCodecParserContext> parser;
  AvOwned<AVPacket> packet;
  FrameSize size;
  std::atomic<std::int64_t> reached{0};  ///< where in the input the last packet stands
};

StreamReader::StreamReader(InputFile& input) {
  av_log_set_level(AV_LOG_FATAL);
  impl_ = std::make_unique<Impl>(input);
}

StreamReader::~StreamReader() = default;

bool StreamReader::next(AccessUnit& unit) {
  if (!impl_->read()) return false;
  const AVPacket& packet = *impl_->packet;
  unit.data = packet.data;
  unit.size = static_cast<std::size_t>(packet.size);
  if (packet.pos >= 0) impl_->reached = packet.pos;
  unit.decodeOnly = packet.flags & AV_PKT_FLAG_DISCARD;
  const std::int64_t start =
      impl_->track->start_time == AV_NOPTS_VALUE ? 0 : impl_->track->start_time;
  unit.milliseconds = 0;
  if (packet.pts != AV_NOPTS_VALUE)
    unit.milliseconds = static_cast<std::uint64_t>(std::max<std::int64_t>(
        1, 1 + av_rescale_q(packet.pts - start, impl_->track->time_base, av_make_q(1, 1000))));
  impl_->readHeaders(unit);
  return true;
}

Ratio StreamReader::rate() const {
  return toRatio(av_guess_frame_rate(impl_->demuxer.get(), impl_->track, nullptr), {25, 1});
}

Ratio StreamReader::aspect() const {
  return toRatio(av_guess_sample_aspect_ratio(impl_->demuxer.get(), impl_->track, nullptr), {1, 1});
}

bool StreamReader::fullRange() const {
  return impl_->track->codecpar->color_range == AVCOL_RANGE_JPEG;
}

int StreamReader::reorderDelay() const {
  return impl_->track->codecpar->video_delay;
}

std::optional<double> StreamReader::fraction() const {
  if (!impl_->input.length()) return std::nullopt;
  return std::min(
      1.0, static_cast<double>(impl_->reached) / static_cast<double>(*impl_->input.length()));
}

}  // namespace tool
