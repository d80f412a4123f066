#include "mmal/Text.h"

#include <sstream>

#include "interface/mmal/util/mmal_util.h"

namespace mmal::text {

namespace {

struct Flag {
  std::uint32_t value;
  const char* name;
};

constexpr Flag bufferFlags[] = {
    {MMAL_BUFFER_HEADER_FLAG_EOS, "EOS"},
    {MMAL_BUFFER_HEADER_FLAG_FRAME_START, "FRAME_START"},
    {MMAL_BUFFER_HEADER_FLAG_FRAME_END, "FRAME_END"},
    {MMAL_BUFFER_HEADER_FLAG_KEYFRAME, "KEYFRAME"},
    {MMAL_BUFFER_HEADER_FLAG_DISCONTINUITY, "DISCONTINUITY"},
    {MMAL_BUFFER_HEADER_FLAG_CONFIG, "CONFIG"},
    {MMAL_BUFFER_HEADER_FLAG_CORRUPTED, "CORRUPTED"},
    {MMAL_BUFFER_HEADER_FLAG_DECODEONLY, "DECODEONLY"},
};

constexpr Flag parameters[] = {
    {MMAL_PARAMETER_SUPPORTED_ENCODINGS, "SUPPORTED_ENCODINGS"},
    {MMAL_PARAMETER_ZERO_COPY, "ZERO_COPY"},
    {MMAL_PARAMETER_BUFFER_REQUIREMENTS, "BUFFER_REQUIREMENTS"},
    {MMAL_PARAMETER_JPEG_Q_FACTOR, "JPEG_Q_FACTOR"},
    {MMAL_PARAMETER_PROFILE, "PROFILE"},
    {MMAL_PARAMETER_INTRAPERIOD, "INTRAPERIOD"},
    {MMAL_PARAMETER_RATECONTROL, "RATECONTROL"},
    {MMAL_PARAMETER_VIDEO_REQUEST_I_FRAME, "VIDEO_REQUEST_I_FRAME"},
    {MMAL_PARAMETER_VIDEO_BIT_RATE, "VIDEO_BIT_RATE"},
};

std::string rational(const MMAL_RATIONAL_T& value) {
  return std::to_string(value.num) + '/' + std::to_string(value.den);
}

std::string fourcc(std::uint32_t code) {
  if (code == 0) return "none";
  char text[5];
  return mmal_4cc_to_string(text, sizeof(text), code);
}

}  // namespace

std::string format(const MMAL_ES_FORMAT_T& format) {
  std::ostringstream text;
  text << fourcc(format.encoding);
  if (format.encoding_variant != 0) text << " variant " << fourcc(format.encoding_variant);
  if (format.type == MMAL_ES_TYPE_VIDEO && format.es != nullptr) {
    const MMAL_VIDEO_FORMAT_T& video = format.es->video;
    text << ' ' << video.width << 'x' << video.height << " crop " << video.crop.x << ','
         << video.crop.y << ' ' << video.crop.width << 'x' << video.crop.height << " rate "
         << rational(video.frame_rate) << " aspect " << rational(video.par);
  }
  if (format.bitrate != 0) text << ' ' << format.bitrate << " bit/s";
  if ((format.flags & MMAL_ES_FORMAT_FLAG_FRAMED) != 0) text << " framed";
  if (format.extradata_size != 0) text << " extradata " << format.extradata_size;
  return text.str();
}

std::string payload(const MMAL_BUFFER_HEADER_T& buffer) {
  if (buffer.cmd != 0) return "event " + fourcc(buffer.cmd);
  std::string text = std::to_string(buffer.length) + " bytes";
  char separator = ' ';
  for (const Flag& flag : bufferFlags) {
    if ((buffer.flags & flag.value) == 0) continue;
    text += separator;
    text += flag.name;
    separator = '|';
  }
  if (buffer.pts != MMAL_TIME_UNKNOWN) text += " pts " + std::to_string(buffer.pts);
  if (buffer.dts != MMAL_TIME_UNKNOWN) text += " dts " + std::to_string(buffer.dts);
  return text;
}

std::string parameter(const MMAL_PARAMETER_HEADER_T& parameter) {
  std::ostringstream text;
  const Flag* known = nullptr;
  for (const Flag& each : parameters)
    if (each.value == parameter.id) known = &each;
  if (known != nullptr)
    text << known->name;
  else
    text << "0x" << std::hex << parameter.id << std::dec;
  const auto* const words = reinterpret_cast<const std::uint32_t*>(&parameter);
  for (std::uint32_t i = 2; i < parameter.size / 4 && i < 8; ++i) text << ' ' << words[i];
  return text.str();
}

}  // namespace mmal::text
