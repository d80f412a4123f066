#include <bcm_host.h>
#include <interface/vcos/vcos.h>
#include <tessera/CMmalH264Decoder.h>

#include <cstdio>

#include "MMALH264Decoder/Steps.h"

namespace {

constexpr common::MmalVideoUser user{"CMmalH264Decoder", "decoder", InputDecH264Callback,
                                     OutputDecH264Callback};

CMmalH264Decoder* DecoderOf(const MMAL_PORT_T* port) {
  return reinterpret_cast<CMmalH264Decoder*>(port->userdata);
}

bool MakeSemaphore(sem_t& semaphore) {
  return sem_init(&semaphore, 0, 0) == 0 || vcos_pthreads_map_errno() == VCOS_SUCCESS;
}

}  // namespace

void InputDecH264Callback(MMAL_PORT_T* port, MMAL_BUFFER_HEADER_T* buffer) {
  mmal_buffer_header_release(buffer);
  if (CMmalH264Decoder* decoder = DecoderOf(port))
    CMmalH264Decoder::Steps(*decoder).driver.SignalInputReturned();
}

void OutputDecH264Callback(MMAL_PORT_T* port, MMAL_BUFFER_HEADER_T* buffer) {
  if (CMmalH264Decoder* decoder = DecoderOf(port))
    CMmalH264Decoder::Steps(*decoder).driver.SignalOutput(buffer);
  else
    mmal_buffer_header_release(buffer);
}

CMmalH264Decoder::Steps::Steps(CMmalH264Decoder& of)
    : decoder(of),
      driver(
          {of.pComponent, of.pFrameQueue, of.pInputPool, of.pOutputPool, of.semInput, of.semOutput},
          user) {}

CMmalH264Decoder::CMmalH264Decoder() {
  bcm_host_init();
  if (!MakeSemaphore(semInput))
    std::fputs("CMmalH264Decoder::CMmalH264Decoder - failed to create input semaphore\n", stderr);
  if (!MakeSemaphore(semOutput))
    std::fputs("CMmalH264Decoder::CMmalH264Decoder - failed to create output semaphore\n", stderr);
  pFrameQueue = mmal_queue_create();
}

CMmalH264Decoder::~CMmalH264Decoder() {
  Steps(*this).driver.Close();
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
  const common::ComponentReference reference(pComponent);
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
  if (!Steps(*this).driver.Start(this)) return false;
  nStreamWidth = width;
  nStreamHeight = height;
  return true;
}
