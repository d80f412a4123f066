#include <bcm_host.h>
#include <interface/mmal/util/mmal_component_wrapper.h>
#include <interface/vcos/vcos.h>
#include <tessera/CMmalH264Decoder.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "common/Geometry.h"
#include "common/MmalGuards.h"
#include "common/VideoComponent.h"

using namespace common;

namespace {

constexpr std::uint32_t fewestBuffers = 4;
constexpr std::uint64_t largestInputBuffer = 0x80000;

CMmalH264Decoder* DecoderOf(const MMAL_PORT_T* port) {
  return reinterpret_cast<CMmalH264Decoder*>(port->userdata);
}

bool MakeSemaphore(sem_t& semaphore) {
  return sem_init(&semaphore, 0, 0) == 0 || vcos_pthreads_map_errno() == VCOS_SUCCESS;
}

/// What both ports say of the picture: padded size, crop and square pixels.
void DescribePicture(MMAL_PORT_T* port, int width, int height) {
  port->format->type = MMAL_ES_TYPE_VIDEO;
  MMAL_VIDEO_FORMAT_T& video = port->format->es->video;
  video.width = PaddedWidth(Magnitude(width));
  video.height = PaddedHeight(Magnitude(height));
  video.crop = {0, 0, static_cast<std::int32_t>(Magnitude(width)),
                static_cast<std::int32_t>(Magnitude(height))};
  video.par = {1, 1};
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

void InputDecH264Callback(MMAL_PORT_T* port, MMAL_BUFFER_HEADER_T* buffer) {
  mmal_buffer_header_release(buffer);
  if (CMmalH264Decoder* decoder = DecoderOf(port)) sem_post(&decoder->semInput);
}

void OutputDecH264Callback(MMAL_PORT_T* port, MMAL_BUFFER_HEADER_T* buffer) {
  CMmalH264Decoder* decoder = DecoderOf(port);
  // The queue changes only while the port is disabled, so it needs no lock here.
  if (decoder != nullptr && decoder->pFrameQueue != nullptr)
    mmal_queue_put(decoder->pFrameQueue, buffer);
  else
    mmal_buffer_header_release(buffer);
  if (decoder != nullptr) sem_post(&decoder->semOutput);
}

CMmalH264Decoder::CMmalH264Decoder() {
  bcm_host_init();
  if (!MakeSemaphore(semInput))
    std::fputs("CMmalH264Decoder::CMmalH264Decoder - failed to create input semaphore\n", stderr);
  if (!MakeSemaphore(semOutput))
    std::fputs("CMmalH264Decoder::CMmalH264Decoder - failed to create output semaphore\n", stderr);
  pFrameQueue = mmal_queue_create();
}

CMmalH264Decoder::~CMmalH264Decoder() {
  if (pComponent != nullptr) ReleaseVideoComponent(pComponent);
  if (pFrameQueue != nullptr) mmal_queue_destroy(pFrameQueue);
  if (pInputPool != nullptr) mmal_pool_destroy(pInputPool);
  if (pOutputPool != nullptr) mmal_pool_destroy(pOutputPool);
  sem_destroy(&semInput);
  sem_destroy(&semOutput);
}

bool CMmalH264Decoder::Initialize() {
  if (pComponent != nullptr) return true;
  MMAL_COMPONENT_T* component = nullptr;
  const MMAL_STATUS_T status = mmal_component_create("vc.ril.video_decode", &component);
  if (status != MMAL_SUCCESS) {
    std::fprintf(stderr,
                 "CMmalH264Decoder::Initialize - failed to create mmal decoder component. Error "
                 "code [0x%x]\n",
                 static_cast<unsigned int>(status));
    return false;
  }
  pComponent = component;
  return component != nullptr;
}

bool CMmalH264Decoder::Create(int width, int height, unsigned int extraDataSize,
                              const unsigned char* extraData) {
  // A picture that is being copied out lives in a pool that goes in ResetResources.
  const std::lock_guard<std::mutex> noPicture(pictureLock);
  const std::lock_guard<std::mutex> guard(lock);
  if (pComponent == nullptr) {
    std::fprintf(stderr, "CMmalH264Decoder::Create - invalid state [%p]\n",
                 static_cast<void*>(pComponent));
    return false;
  }
  ResetResources();
  const ComponentReference reference(pComponent);
  MMAL_STATUS_T status = SetInputFormat(pComponent, width, height, extraDataSize, extraData);
  if (status != MMAL_SUCCESS) {
    std::fprintf(stderr, "CMmalH264Decoder::Create - SetInputFormat failed with 0x%x\n",
                 static_cast<unsigned int>(status));
    return false;
  }
  status = SetOutputFormat(pComponent, width, height);
  if (status != MMAL_SUCCESS) {
    std::fprintf(stderr, "CMmalH264Decoder::Create - SetOutputFormat failed with 0x%x\n",
                 static_cast<unsigned int>(status));
    return false;
  }
  if (!Start()) return false;
  nStreamWidth = width;
  nStreamHeight = height;
  return true;
}

bool CMmalH264Decoder::Start() {
  const VideoComponentUser user{"CMmalH264Decoder", "decoder", this, InputDecH264Callback,
                                OutputDecH264Callback};
  if (!StartVideoComponent(pComponent, user, pInputPool, pOutputPool)) return false;
  sem_post(&semInput);
  return true;
}

MMAL_STATUS_T CMmalH264Decoder::SetInputFormat(MMAL_COMPONENT_T* component, int width, int height,
                                               unsigned int extraDataSize,
                                               const unsigned char* extraData) {
  if (width == 0 || height == 0) {
    std::fprintf(stderr,
                 "CMmalH264Decoder::SetInputFormat - image dimensions are not supported %dx%d\n",
                 width, height);
    return MMAL_EINVAL;
  }
  MMAL_PORT_T* port = component->input[0];
  MMAL_STATUS_T status = port->is_enabled ? mmal_wrapper_port_disable(port) : MMAL_SUCCESS;
  if (status != MMAL_SUCCESS)
    std::fprintf(stderr,
                 "CMmalH264Decoder::SetInputFormat - failed to disable input port. Error code "
                 "[0x%x]\n",
                 static_cast<unsigned int>(status));

  DescribePicture(port, width, height);
  port->format->encoding = MMAL_ENCODING_H264;
  port->format->es->video.frame_rate = {30, 1};
  port->format->flags |= MMAL_ES_FORMAT_FLAG_FRAMED;
  SetExtraData(port->format, extraDataSize, extraData);
  status = mmal_port_format_commit(port);
  if (status != MMAL_SUCCESS) {
    std::fprintf(stderr,
                 "CMmalH264Decoder::SetInputFormat - failed to set format for input port[0x%x]\n",
                 static_cast<unsigned int>(status));
    return status;
  }
  port->buffer_num = std::max(fewestBuffers, port->buffer_num_min);
  const std::uint64_t pixels = std::uint64_t{Magnitude(width)} * Magnitude(height);
  port->buffer_size = static_cast<std::uint32_t>(std::min(largestInputBuffer, pixels));
  return MMAL_SUCCESS;
}

MMAL_STATUS_T CMmalH264Decoder::SetOutputFormat(MMAL_COMPONENT_T* component, int width,
                                                int height) {
  if (width == 0 || height == 0) {
    std::fprintf(stderr,
                 "CMmalH264Decoder::SetOutputFormat - image dimensions are not supported %dx%d\n",
                 width, height);
    return MMAL_EINVAL;
  }
  MMAL_PORT_T* port = component->output[0];
  MMAL_STATUS_T status = port->is_enabled ? mmal_wrapper_port_disable(port) : MMAL_SUCCESS;
  if (status != MMAL_SUCCESS)
    std::fprintf(stderr,
                 "CMmalH264Decoder::SetOutputFormat - failed to disable input port. Error code "
                 "[0x%x]\n",
                 static_cast<unsigned int>(status));

  DescribePicture(port, width, height);
  port->format->encoding = MMAL_ENCODING_I420;
  port->format->encoding_variant = MMAL_ENCODING_I420;
  status = mmal_port_format_commit(port);
  if (status != MMAL_SUCCESS) {
    std::fprintf(stderr,
                 "CMmalH264Decoder::SetOutputFormat - failed to set format for input port[0x%x]\n",
                 static_cast<unsigned int>(status));
    return status;
  }
  nPictureWidth = Magnitude(width);
  nPictureHeight = Magnitude(height);
  port->buffer_num = std::max(fewestBuffers, port->buffer_num_min);
  port->buffer_size = port->buffer_size_recommended;
  return MMAL_SUCCESS;
}

void CMmalH264Decoder::ResetResources() {
  if (pComponent != nullptr) {
    ClosePort(pComponent->input[0]);
    if (pInputPool != nullptr) mmal_pool_destroy(pInputPool);
    pInputPool = nullptr;

    MMAL_PORT_T* output = pComponent->output[0];
    mmal_port_flush(output);
    ClosePort(output);
    // Pictures that nobody fetched go back before their pool does.
    if (pOutputPool != nullptr && pFrameQueue != nullptr) ReleaseQueued(pFrameQueue);
    if (pOutputPool != nullptr) mmal_pool_destroy(pOutputPool);
    pOutputPool = nullptr;
    mmal_component_disable(pComponent);
  }
  if (pFrameQueue != nullptr) mmal_queue_destroy(pFrameQueue);
  pFrameQueue = mmal_queue_create();
}
