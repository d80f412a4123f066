#include <bcm_host.h>
#include <tessera/DecoderPool.h>

#include <cstdio>

#include "common/Waits.h"
#include "jpeg_decode/Steps.h"

DecoderPool::DecoderPool() {
  bcm_host_init();
  Steps steps(*this);
  bReady = steps.OpenComponent() && steps.RequestIdle() && steps.SetUpInputPort() &&
           steps.AllocateInputBuffers() && steps.SetUpOutputPort() && steps.StartExecuting();
}

DecoderPool::~DecoderPool() {
  std::puts("DecoderPool::~DecoderPool ");
  if (bStarted) {
    int count = 0;
    sem_getvalue(&semCommandDone, &count);
    std::printf("sem get is [%x] \n", static_cast<unsigned int>(count));
  }
  const bool takenDown = hDecoder == nullptr || Steps(*this).TakeDownComponent();
  if (takenDown && bStarted) {
    OMX_Deinit();
    common::DestroySemaphores(semCommandDone, semFillDone, semPortSettingsChanged, semLoaded);
  }
  delete[] ppInputBuffers;
}
