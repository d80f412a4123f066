#include <gtest/gtest.h>
#include <tessera_platform/control.h>

#include "PoolFixture.h"

namespace {

namespace control = tessera_platform;

const char* const setupCalls =
    "bcm_host_init()\n"
    "OMX_Init() = None\n"
    "OMX_GetHandle(OMX.broadcom.image_decode -> image_decode#1) = None\n"
    "OMX_GetParameter(image_decode#1, ImageInit) = None\n"
    "OMX_SendCommand(image_decode#1, StateSet Idle) = None\n"
    "OMX_SendCommand(image_decode#1, PortDisable 320) = None\n"
    "OMX_SetParameter(image_decode#1, ImagePortFormat 320: JPEG) = None\n"
    "OMX_GetParameter(image_decode#1, PortDefinition 320) = None\n"
    "OMX_SetParameter(image_decode#1, PortDefinition 320: 0x0 stride 0 slice 0 JPEG size 1024000) "
    "= None\n"
    "OMX_SendCommand(image_decode#1, PortEnable 320) = None\n"
    "OMX_AllocateBuffer(image_decode#1:320, 1024000 bytes) = None\n"
    "OMX_AllocateBuffer(image_decode#1:320, 1024000 bytes) = None\n"
    "OMX_AllocateBuffer(image_decode#1:320, 1024000 bytes) = None\n"
    "OMX_SetParameter(image_decode#1, ImagePortFormat 321: YUV420PackedPlanar) = None\n"
    "OMX_SendCommand(image_decode#1, PortDisable 321) = None\n"
    "OMX_GetParameter(image_decode#1, PortDefinition 321) = None\n"
    "OMX_SetParameter(image_decode#1, PortDefinition 321: 1280x720 stride 1280 slice 720 "
    "YUV420PackedPlanar size 1382400) = None\n"
    "OMX_SendCommand(image_decode#1, PortEnable 321) = None\n"
    "OMX_AllocateBuffer(image_decode#1:321, 1382400 bytes) = None\n"
    "OMX_SendCommand(image_decode#1, StateSet Executing) = None\n";

const char* const newSizeCalls =
    "OMX_GetParameter(image_decode#1, PortDefinition 321) = None\n"
    "OMX_SendCommand(image_decode#1, PortDisable 321) = None\n"
    "OMX_FreeBuffer(image_decode#1:321) = None\n"
    "OMX_SendCommand(image_decode#1, PortEnable 321) = None\n"
    "OMX_AllocateBuffer(image_decode#1:321, 460800 bytes) = None\n";

const char* const teardownCalls =
    "OMX_SendCommand(image_decode#1, Flush 321) = None\n"
    "OMX_SendCommand(image_decode#1, PortDisable 320) = None\n"
    "OMX_FreeBuffer(image_decode#1:320) = None\n"
    "OMX_FreeBuffer(image_decode#1:320) = None\n"
    "OMX_FreeBuffer(image_decode#1:320) = None\n"
    "OMX_SendCommand(image_decode#1, PortDisable 321) = None\n"
    "OMX_FreeBuffer(image_decode#1:321) = None\n"
    "OMX_SendCommand(image_decode#1, StateSet Idle) = None\n"
    "OMX_SendCommand(image_decode#1, StateSet Loaded) = None\n"
    "OMX_FreeHandle(image_decode#1) = None\n"
    "OMX_Deinit() = None\n";

TEST(Journal, TheWholeConversationOfAPool) {
  const support::Bytes jpeg =
      support::encodeJpeg(support::scene(640, 480), support::Sampling::Yuv420, 85);
  std::size_t seen = 0;
  // The calls since the last time.
  const auto calls = [&seen] {
    const auto lines = control::journal(control::Lines::Calls);
    std::string text;
    for (; seen < lines.size(); ++seen) text += lines[seen] + "\n";
    return text;
  };
  const std::string size = std::to_string(jpeg.size());
  const std::string empty =
      "OMX_EmptyThisBuffer(image_decode#1:320, " + size + " bytes EOS) = None\n";
  const std::string fill = "OMX_FillThisBuffer(image_decode#1:321) = None\n";

  support::Capture capture;
  control::startJournal();
  DecoderPool* const pool = GetDecoderPool();
  EXPECT_EQ(calls(), setupCalls);
  EXPECT_EQ(capture.out(),
            "State changed to: OMX_StateIdle\nState changed to: OMX_StateExecuting\n");
  decode(*pool, jpeg);
  EXPECT_EQ(calls(), empty + newSizeCalls + fill);
  decode(*pool, jpeg);
  EXPECT_EQ(calls(), empty + fill) << "the same size again";
  const std::size_t printed = capture.out().size();
  ReleaseDecoderPool(pool);
  EXPECT_EQ(calls(), teardownCalls);
  EXPECT_EQ(capture.out().substr(printed),
            "DecoderPool::~DecoderPool \nsem get is [0] \nSending command!\nFinished waiting!\n"
            "State changed to: OMX_StateIdle\nState changed to: OMX_StateLoaded\n");
  control::stopJournal();
  EXPECT_TRUE(control::census().empty());
}

}  // namespace
