// How the encoder configures its component's ports, and takes a setup back.

#include <interface/mmal/util/mmal_util_params.h>
#include <tessera/FrameConversion.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>

#include "MMALH264Encoder/Steps.h"
#include "common/Geometry.h"
#include "common/Waits.h"

namespace {

MMAL_STATUS_T SetHighProfile(MMAL_PORT_T* port) {
  MMAL_PARAMETER_VIDEO_PROFILE_T profile{};
  profile.hdr.id = MMAL_PARAMETER_PROFILE;
  profile.hdr.size = sizeof(profile);
  profile.profile[0].profile = MMAL_VIDEO_PROFILE_H264_HIGH;
  profile.profile[0].level = MMAL_VIDEO_LEVEL_H264_51;
  return mmal_port_parameter_set(port, &profile.hdr);
}

}  // namespace

MMAL_STATUS_T CMmalH264Encoder::SetInputFormat(MMAL_COMPONENT_T* component,
                                               unsigned int pixelFormat, int width, int height,
                                               unsigned int frameRateNum, unsigned int frameRateDen,
                                               unsigned int aspectNum, unsigned int aspectDen) {
  constexpr const char* operation = "CMmalH264Encoder::SetInputFormat";
  if (pixelFormat != MMAL_ENCODING_I420 && pixelFormat != MMAL_ENCODING_YUYV) {
    std::fprintf(stderr, "%s - image pixel format is not supported 0x%x.\n", operation,
                 pixelFormat);
    return MMAL_EINVAL;
  }
  pfnCopyFrame = pixelFormat == MMAL_ENCODING_I420 ? CopyI420 : CopyYVYU;
  const MMAL_RATIONAL_T frameRate{static_cast<std::int32_t>(frameRateNum),
                                  static_cast<std::int32_t>(frameRateDen)};
  const MMAL_RATIONAL_T aspect{static_cast<std::int32_t>(aspectNum),
                               static_cast<std::int32_t>(aspectDen)};
  if (width == 0 || height == 0)
    return common::RefuseArguments(operation, "image dimensions are", width, height);
  if (frameRate.num == 0 || frameRate.den == 0)
    return common::RefuseArguments(operation, "frame rate is", frameRate.num, frameRate.den);
  if (aspect.num == 0 || aspect.den == 0)
    return common::RefuseArguments(operation, "pixel aspect ratio is", aspect.num, aspect.den);

  MMAL_PORT_T* port = component->input[0];
  common::TellUnlessDisabled(operation, common::ClosePort(port));
  // YUYV frames become I420 on their way into the buffer.
  common::DeclarePicture(port->format, width, height);
  port->format->encoding = MMAL_ENCODING_I420;
  port->format->es->video.frame_rate = frameRate;
  port->format->es->video.par = aspect;
  const MMAL_STATUS_T status = common::CommitFormat(port, operation);
  if (status != MMAL_SUCCESS) return status;
  nWidth = common::Magnitude(width);
  nHeight = common::Magnitude(height);
  port->buffer_num = port->buffer_num_min;
  port->buffer_size = port->buffer_size_recommended;
  return MMAL_SUCCESS;
}

MMAL_STATUS_T CMmalH264Encoder::SetOutputFormat(MMAL_COMPONENT_T* component, int width, int height,
                                                unsigned int bitrate, unsigned int frameRateNum,
                                                unsigned int frameRateDen) {
  constexpr const char* operation = "CMmalH264Encoder::SetOutputFormat";
  MMAL_PORT_T* port = component->output[0];
  common::TellUnlessDisabled(operation, common::ClosePort(port));
  mmal_format_copy(port->format, component->input[0]->format);
  port->format->type = MMAL_ES_TYPE_VIDEO;
  port->format->encoding = MMAL_ENCODING_H264;
  port->format->encoding_variant = MMAL_ENCODING_VARIANT_H264_DEFAULT;
  port->format->bitrate = bitrate;
  port->buffer_num = port->buffer_num_min;
  port->buffer_size =
      std::max(common::Magnitude(width) * common::Magnitude(height), port->buffer_size_recommended);
  MMAL_STATUS_T status = common::CommitFormat(port, operation);
  if (status != MMAL_SUCCESS) return status;
  status = SetHighProfile(port);
  if (status != MMAL_SUCCESS) {
    std::fprintf(stderr, "%s - failed to set video profile. Error code [0x%x]\n", operation,
                 static_cast<unsigned int>(status));
    return status;
  }
  // A key frame a second: whoever joins late or loses data waits no longer than that.
  const bool known = frameRateNum != 0 && frameRateDen != 0;
  mmal_port_parameter_set_uint32(port, MMAL_PARAMETER_INTRAPERIOD,
                                 known ? frameRateNum / frameRateDen : 30);
  return MMAL_SUCCESS;
}

void CMmalH264Encoder::Steps::ReleaseSetup() {
  if (encoder.pInputPool == nullptr) return;
  common::ClosePort(encoder.pComponent->input[0]);
  common::ClosePort(encoder.pComponent->output[0]);
  common::ReleaseQueued(encoder.pOutputQueue);
  mmal_pool_destroy(encoder.pInputPool);
  mmal_pool_destroy(encoder.pOutputPool);
  encoder.pInputPool = encoder.pOutputPool = nullptr;
  common::Empty(encoder.semInput);
  common::Empty(encoder.semOutput);
}
