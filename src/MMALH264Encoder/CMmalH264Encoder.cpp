#include <bcm_host.h>
#include <tessera/CMmalH264Encoder.h>
#include <tessera/FrameConversion.h>

#include <cstdio>

#include "MMALH264Encoder/Steps.h"

namespace {

constexpr common::MmalVideoUser user{"CMmalH264Encoder", "encoder", InputCallback, OutputCallback};

CMmalH264Encoder* EncoderOf(const MMAL_PORT_T* port) {
  return reinterpret_cast<CMmalH264Encoder*>(port->userdata);
}

}  // namespace

void InputCallback(MMAL_PORT_T* port, MMAL_BUFFER_HEADER_T* buffer) {
  mmal_buffer_header_release(buffer);
  if (CMmalH264Encoder* encoder = EncoderOf(port))
    CMmalH264Encoder::Steps(*encoder).driver.SignalInputReturned();
}

void OutputCallback(MMAL_PORT_T* port, MMAL_BUFFER_HEADER_T* buffer) {
  if (CMmalH264Encoder* encoder = EncoderOf(port))
    CMmalH264Encoder::Steps(*encoder).driver.SignalOutput(buffer);
}

CMmalH264Encoder::Steps::Steps(CMmalH264Encoder& of)
    : encoder(of),
      driver({of.pComponent, of.pOutputQueue, of.pInputPool, of.pOutputPool, of.semInput,
              of.semOutput},
             user) {}

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
  Steps(*this).driver.Close();
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
  const common::ComponentReference reference(pComponent);
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
  Steps steps(*this);
  steps.ReleaseSetup();
  return status == MMAL_SUCCESS && steps.driver.Start(this);
}
