// How the encoder obtains its component, configures it and gives it back.

#include <interface/mmal/util/mmal_util_params.h>

#include <cstdint>
#include <cstdio>

#include "MMALJpegEncoder/Steps.h"
#include "common/Geometry.h"

namespace {

/// The wrapper makes pool and payloads when it enables the port.
MMAL_STATUS_T EnablePort(MMAL_PORT_T* port) {
  port->buffer_size = port->buffer_size_recommended;
  port->buffer_num = port->buffer_num_recommended;
  return mmal_wrapper_port_enable(port, MMAL_WRAPPER_FLAG_PAYLOAD_ALLOCATE);
}

/// @return what failed, or null
const char* ConfigureInput(MMAL_PORT_T* port, unsigned int encoding, int width, int height) {
  if (port->is_enabled && mmal_wrapper_port_disable(port) != MMAL_SUCCESS)
    return "disable input port";
  port->format->encoding = encoding;
  MMAL_VIDEO_FORMAT_T& video = port->format->es->video;
  video.width = common::PaddedWidth(static_cast<std::uint32_t>(width));
  video.height = common::PaddedHeight(static_cast<std::uint32_t>(height));
  video.crop = {0, 0, width, height};
  if (mmal_port_format_commit(port) != MMAL_SUCCESS) return "commit input port format";
  return EnablePort(port) == MMAL_SUCCESS ? nullptr : "enable input port";
}

/// @return what failed, or null
const char* ConfigureOutput(MMAL_PORT_T* port, int quality) {
  if (port->is_enabled && mmal_wrapper_port_disable(port) != MMAL_SUCCESS)
    return "disable output port";
  port->format->encoding = MMAL_ENCODING_JPEG;
  if (mmal_port_format_commit(port) != MMAL_SUCCESS) return "commit output port format";
  mmal_port_parameter_set_uint32(port, MMAL_PARAMETER_JPEG_Q_FACTOR,
                                 static_cast<std::uint32_t>(quality));
  return EnablePort(port) == MMAL_SUCCESS ? nullptr : "enable output port";
}

}  // namespace

int CMmalJpegEncoder::Initialize(unsigned int encoding, int width, int height, int quality) {
  Steps steps(*this);
  if (pWrapper != nullptr) steps.ReleaseSetup();
  if (sem_init(&semaphore, 0, 0) != 0) {
    std::fputs("CMmalJpegEncoder::Initialize - failed to create semaphore\n", stderr);
    return 0;
  }
  MMAL_WRAPPER_T* wrapper = nullptr;
  if (mmal_wrapper_create(&wrapper, "vc.ril.image_encode") != MMAL_SUCCESS || wrapper == nullptr) {
    std::fputs("CMmalJpegEncoder::Initialize - failed to create mmal component\n", stderr);
    sem_destroy(&semaphore);
    return 0;
  }
  pWrapper = wrapper;
  pWrapper->callback = MMALEncoderCallback;
  pWrapper->user_data = this;
  pInputPort = pWrapper->input[0];
  pWrapper->status = MMAL_SUCCESS;

  const char* failed = ConfigureInput(pInputPort, encoding, width, height);
  if (failed == nullptr) {
    pOutputPort = pWrapper->output[0];
    failed = ConfigureOutput(pOutputPort, quality);
  }
  if (failed != nullptr) {
    std::fprintf(stderr, "CMmalJpegEncoder::Initialize - failed to %s\n", failed);
    steps.DestroyWrapper();
    return 0;
  }
  nWidth = width;
  nHeight = height;
  return 1;
}

void CMmalJpegEncoder::Steps::ReleaseSetup() {
  mmal_port_flush(encoder.pOutputPort);
  DestroyWrapper();
}

void CMmalJpegEncoder::Steps::DestroyWrapper() {
  mmal_wrapper_destroy(encoder.pWrapper);
  encoder.pWrapper = nullptr;
  encoder.pInputPort = encoder.pOutputPort = nullptr;
  encoder.pInputBuffer = encoder.pOutputBuffer = nullptr;
  sem_destroy(&encoder.semaphore);
}
