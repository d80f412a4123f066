#include <bcm_host.h>
#include <interface/mmal/util/mmal_util_params.h>
#include <tessera/CMmalH264Encoder.h>
#include <tessera/FrameConversion.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>

#include "common/Geometry.h"
#include "common/MmalGuards.h"
#include "common/VideoComponent.h"

using namespace common;

namespace {

CMmalH264Encoder* EncoderOf(const MMAL_PORT_T* port) {
  return reinterpret_cast<CMmalH264Encoder*>(port->userdata);
}

/// @return whether no argument is 0, after a line for the first that is
bool Supported(int width, int height, unsigned int frameRateNum, unsigned int frameRateDen,
               unsigned int aspectNum, unsigned int aspectDen) {
  const auto refuse = [](const char* what, int first, int second) {
    std::fprintf(stderr, "CMmalH264Encoder::SetInputFormat - %s not supported %dx%d\n", what, first,
                 second);
    return false;
  };
  if (width == 0 || height == 0) return refuse("image dimensions are", width, height);
  if (frameRateNum == 0 || frameRateDen == 0)
    return refuse("frame rate is", static_cast<int>(frameRateNum), static_cast<int>(frameRateDen));
  if (aspectNum == 0 || aspectDen == 0)
    return refuse("pixel aspect ratio is", static_cast<int>(aspectNum),
                  static_cast<int>(aspectDen));
  return true;
}

MMAL_STATUS_T SetHighProfile(MMAL_PORT_T* port) {
  MMAL_PARAMETER_VIDEO_PROFILE_T profile{};
  profile.hdr.id = MMAL_PARAMETER_PROFILE;
  profile.hdr.size = sizeof(profile);
  profile.profile[0].profile = MMAL_VIDEO_PROFILE_H264_HIGH;
  profile.profile[0].level = MMAL_VIDEO_LEVEL_H264_51;
  return mmal_port_parameter_set(port, &profile.hdr);
}

void Drain(sem_t& semaphore) {
  while (sem_trywait(&semaphore) == 0) {
  }
}

}  // namespace

void InputCallback(MMAL_PORT_T* port, MMAL_BUFFER_HEADER_T* buffer) {
  mmal_buffer_header_release(buffer);
  if (CMmalH264Encoder* encoder = EncoderOf(port)) sem_post(&encoder->semInput);
}

void OutputCallback(MMAL_PORT_T* port, MMAL_BUFFER_HEADER_T* buffer) {
  CMmalH264Encoder* encoder = EncoderOf(port);
  if (encoder == nullptr) return;
  if (encoder->pOutputQueue != nullptr)
    mmal_queue_put(encoder->pOutputQueue, buffer);
  else
    mmal_buffer_header_release(buffer);
  sem_post(&encoder->semOutput);
}

CMmalH264Encoder::CMmalH264Encoder() : pfnCopyFrame(CopyI420) {
  bcm_host_init();
  if (sem_init(&semInput, 0, 0) != 0)
    std::fputs("CMmalH264Encoder::CMmalH264Encoder - failed to create input semaphore\n", stderr);
  if (sem_init(&semOutput, 0, 0) != 0)
    std::fputs("CMmalH264Encoder::CMmalH264Encoder - failed to create output semaphore\n", stderr);
  pOutputQueue = mmal_queue_create();
  MMAL_COMPONENT_T* component = nullptr;
  const MMAL_STATUS_T status = mmal_component_create("vc.ril.video_encode", &component);
  if (status == MMAL_SUCCESS && component != nullptr)
    pComponent = component;
  else
    std::fprintf(stderr,
                 "CMmalH264Encoder::CMmalH264Encoder - failed to create mmal encoder component. "
                 "Error code [0x%x]\n",
                 static_cast<unsigned int>(status));
}

CMmalH264Encoder::~CMmalH264Encoder() {
  if (pComponent != nullptr) ReleaseVideoComponent(pComponent);
  if (pOutputQueue != nullptr) mmal_queue_destroy(pOutputQueue);
  if (pInputPool != nullptr) mmal_pool_destroy(pInputPool);
  if (pOutputPool != nullptr) mmal_pool_destroy(pOutputPool);
  sem_destroy(&semInput);
  sem_destroy(&semOutput);
}

MMAL_STATUS_T CMmalH264Encoder::SetInputFormat(MMAL_COMPONENT_T* component,
                                               unsigned int pixelFormat, int width, int height,
                                               unsigned int frameRateNum, unsigned int frameRateDen,
                                               unsigned int aspectNum, unsigned int aspectDen) {
  if (pixelFormat != MMAL_ENCODING_I420 && pixelFormat != MMAL_ENCODING_YUYV) {
    std::fprintf(stderr,
                 "CMmalH264Encoder::SetInputFormat - image pixel format is not supported 0x%x.\n",
                 pixelFormat);
    return MMAL_EINVAL;
  }
  pfnCopyFrame = pixelFormat == MMAL_ENCODING_I420 ? CopyI420 : CopyYVYU;
  if (!Supported(width, height, frameRateNum, frameRateDen, aspectNum, aspectDen))
    return MMAL_EINVAL;

  MMAL_PORT_T* port = component->input[0];
  MMAL_STATUS_T status = ClosePort(port);
  if (status != MMAL_SUCCESS)
    std::fprintf(stderr,
                 "CMmalH264Encoder::SetInputFormat - failed to disable input port. Error code "
                 "[0x%x]\n",
                 static_cast<unsigned int>(status));

  // YUYV frames become I420 on their way into the buffer.
  port->format->type = MMAL_ES_TYPE_VIDEO;
  port->format->encoding = MMAL_ENCODING_I420;
  MMAL_VIDEO_FORMAT_T& video = port->format->es->video;
  video.width = PaddedWidth(Magnitude(width));
  video.height = PaddedHeight(Magnitude(height));
  video.crop = {0, 0, static_cast<std::int32_t>(Magnitude(width)),
                static_cast<std::int32_t>(Magnitude(height))};
  video.frame_rate = {static_cast<std::int32_t>(frameRateNum),
                      static_cast<std::int32_t>(frameRateDen)};
  video.par = {static_cast<std::int32_t>(aspectNum), static_cast<std::int32_t>(aspectDen)};
  status = mmal_port_format_commit(port);
  if (status != MMAL_SUCCESS) {
    std::fprintf(stderr,
                 "CMmalH264Encoder::SetInputFormat - failed to set format for input port[0x%x]\n",
                 static_cast<unsigned int>(status));
    return status;
  }
  nWidth = Magnitude(width);
  nHeight = Magnitude(height);
  port->buffer_num = port->buffer_num_min;
  port->buffer_size = port->buffer_size_recommended;
  return MMAL_SUCCESS;
}

MMAL_STATUS_T CMmalH264Encoder::SetOutputFormat(MMAL_COMPONENT_T* component, int width, int height,
                                                unsigned int bitrate, unsigned int frameRateNum,
                                                unsigned int frameRateDen) {
  MMAL_PORT_T* port = component->output[0];
  MMAL_STATUS_T status = ClosePort(port);
  if (status != MMAL_SUCCESS)
    std::fprintf(stderr,
                 "CMmalH264Encoder::SetOutputFormat - failed to disable input port. Error code "
                 "[0x%x]\n",
                 static_cast<unsigned int>(status));

  mmal_format_copy(port->format, component->input[0]->format);
  port->format->type = MMAL_ES_TYPE_VIDEO;
  port->format->encoding = MMAL_ENCODING_H264;
  port->format->encoding_variant = MMAL_ENCODING_VARIANT_H264_DEFAULT;
  port->format->bitrate = bitrate;
  port->buffer_num = port->buffer_num_min;
  port->buffer_size = std::max(Magnitude(width) * Magnitude(height), port->buffer_size_recommended);
  status = mmal_port_format_commit(port);
  if (status != MMAL_SUCCESS) {
    std::fprintf(stderr,
                 "CMmalH264Encoder::SetOutputFormat - failed to set format for input port[0x%x]\n",
                 static_cast<unsigned int>(status));
    return status;
  }
  status = SetHighProfile(port);
  if (status != MMAL_SUCCESS) {
    std::fprintf(stderr,
                 "CMmalH264Encoder::SetOutputFormat - failed to set video profile. Error code "
                 "[0x%x]\n",
                 static_cast<unsigned int>(status));
    return status;
  }
  const bool known = frameRateNum != 0 && frameRateDen != 0;
  mmal_port_parameter_set_uint32(port, MMAL_PARAMETER_INTRAPERIOD,
                                 known ? frameRateNum / frameRateDen : 30);
  return MMAL_SUCCESS;
}

bool CMmalH264Encoder::Create(unsigned int pixelFormat, int width, int height,
                              unsigned int frameRateNum, unsigned int frameRateDen,
                              unsigned int aspectNum, unsigned int aspectDen,
                              unsigned int bitrate) {
  if (pComponent == nullptr) {
    std::fprintf(stderr, "CMmalH264Encoder::Create - invalid state [%p]\n",
                 static_cast<void*>(pComponent));
    return false;
  }
  // Without it the component's output would go back unread.
  if (pOutputQueue == nullptr) pOutputQueue = mmal_queue_create();
  if (pOutputQueue == nullptr) {
    std::fputs("CMmalH264Encoder::Create - failed to create output queue\n", stderr);
    return false;
  }
  const ComponentReference reference(pComponent);
  MMAL_STATUS_T status = SetInputFormat(pComponent, pixelFormat, width, height, frameRateNum,
                                        frameRateDen, aspectNum, aspectDen);
  if (status != MMAL_SUCCESS) {
    std::fprintf(stderr, "CMmalH264Encoder::Create - SetInputFormat failed with 0x%x\n",
                 static_cast<unsigned int>(status));
  } else {
    status = SetOutputFormat(pComponent, width, height, bitrate, frameRateNum, frameRateDen);
    if (status != MMAL_SUCCESS)
      std::fprintf(stderr, "CMmalH264Encoder::Create - SetOutputFormat failed with 0x%x\n",
                   static_cast<unsigned int>(status));
  }
  // What ran before ends here, whether or not something follows it.
  ReleaseSetup();
  return status == MMAL_SUCCESS && Start();
}

bool CMmalH264Encoder::Start() {
  const VideoComponentUser user{"CMmalH264Encoder", "encoder", this, InputCallback, OutputCallback};
  if (!StartVideoComponent(pComponent, user, pInputPool, pOutputPool)) return false;
  sem_post(&semInput);
  return true;
}

/// Ends a setup that ran: no pools, no credits, nothing stale in the queue.
void CMmalH264Encoder::ReleaseSetup() {
  if (pInputPool == nullptr) return;
  ClosePort(pComponent->input[0]);
  ClosePort(pComponent->output[0]);
  ReleaseQueued(pOutputQueue);
  mmal_pool_destroy(pInputPool);
  mmal_pool_destroy(pOutputPool);
  pInputPool = pOutputPool = nullptr;
  Drain(semInput);
  Drain(semOutput);
}
