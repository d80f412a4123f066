// How the decoder configures its component's ports, and takes a setup back.

#include <interface/mmal/util/mmal_component_wrapper.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "MMALH264Decoder/Steps.h"
#include "common/Geometry.h"

namespace {

/// A component may ask for one buffer only. Then it could not decode ahead of ProcessOutput, and
/// each picture would wait for the one before it to be fetched.
constexpr std::uint32_t fewestBuffers = 4;
/// Half a megabyte: a coded frame is rarely longer, and is sent in pieces if it is. Without this
/// bound four buffers of a byte a pixel would take megabytes of the platform's memory.
constexpr std::uint64_t largestInputBuffer = 0x80000;

bool IsSupported(int width, int height, const char* operation) {
  if (width != 0 && height != 0) return true;
  common::RefuseArguments(operation, "image dimensions are", width, height);
  return false;
}

/// Closes a port and declares the picture on it, with square pixels.
void DeclareOn(MMAL_PORT_T* port, int width, int height, const char* operation) {
  if (port->is_enabled) common::TellUnlessDisabled(operation, mmal_wrapper_port_disable(port));
  common::DeclarePicture(port->format, width, height);
  port->format->es->video.par = {1, 1};
}

/// Without memory for it the stream goes without extra data.
void SetExtraData(MMAL_ES_FORMAT_T* format, unsigned int size, const unsigned char* data) {
  format->extradata_size = 0;
  format->extradata = nullptr;
  if (size == 0 || data == nullptr) return;
  if (mmal_format_extradata_alloc(format, size) != MMAL_SUCCESS || format->extradata == nullptr)
    return;
  format->extradata_size = size;
  std::memcpy(format->extradata, data, size);
}

}  // namespace

MMAL_STATUS_T CMmalH264Decoder::SetInputFormat(MMAL_COMPONENT_T* component, int width, int height,
                                               unsigned int extraDataSize,
                                               const unsigned char* extraData) {
  constexpr const char* operation = "CMmalH264Decoder::SetInputFormat";
  if (!IsSupported(width, height, operation)) return MMAL_EINVAL;
  MMAL_PORT_T* port = component->input[0];
  DeclareOn(port, width, height, operation);
  port->format->encoding = MMAL_ENCODING_H264;
  port->format->es->video.frame_rate = {30, 1};
  port->format->flags |= MMAL_ES_FORMAT_FLAG_FRAMED;
  SetExtraData(port->format, extraDataSize, extraData);
  const MMAL_STATUS_T status = common::CommitFormat(port, operation);
  if (status != MMAL_SUCCESS) return status;
  port->buffer_num = std::max(fewestBuffers, port->buffer_num_min);
  const std::uint64_t pixels = std::uint64_t{common::Magnitude(width)} * common::Magnitude(height);
  port->buffer_size = static_cast<std::uint32_t>(std::min(largestInputBuffer, pixels));
  return MMAL_SUCCESS;
}

MMAL_STATUS_T CMmalH264Decoder::SetOutputFormat(MMAL_COMPONENT_T* component, int width,
                                                int height) {
  constexpr const char* operation = "CMmalH264Decoder::SetOutputFormat";
  if (!IsSupported(width, height, operation)) return MMAL_EINVAL;
  MMAL_PORT_T* port = component->output[0];
  DeclareOn(port, width, height, operation);
  port->format->encoding = MMAL_ENCODING_I420;
  port->format->encoding_variant = MMAL_ENCODING_I420;
  const MMAL_STATUS_T status = common::CommitFormat(port, operation);
  if (status != MMAL_SUCCESS) return status;
  nPictureWidth = common::Magnitude(width);
  nPictureHeight = common::Magnitude(height);
  port->buffer_num = std::max(fewestBuffers, port->buffer_num_min);
  port->buffer_size = port->buffer_size_recommended;
  return MMAL_SUCCESS;
}

void CMmalH264Decoder::ResetResources() {
  if (pComponent != nullptr) {
    common::ClosePort(pComponent->input[0]);
    if (pInputPool != nullptr) mmal_pool_destroy(pInputPool);
    pInputPool = nullptr;

    MMAL_PORT_T* output = pComponent->output[0];
    mmal_port_flush(output);
    common::ClosePort(output);
    // Pictures that nobody fetched go back before their pool does.
    if (pOutputPool != nullptr && pFrameQueue != nullptr) common::ReleaseQueued(pFrameQueue);
    if (pOutputPool != nullptr) mmal_pool_destroy(pOutputPool);
    pOutputPool = nullptr;
    mmal_component_disable(pComponent);
  }
  if (pFrameQueue != nullptr) mmal_queue_destroy(pFrameQueue);
  pFrameQueue = mmal_queue_create();
}
