// OMX.broadcom.video_encode: planar 4:2:0 in, H.264 out.

#include "Rig.h"
#include "support/Pictures.h"

namespace {

using rig::Bytes;
using rig::Client;
using rig::Texts;

constexpr OMX_U32 in = 200;
constexpr OMX_U32 out = 201;
constexpr int width = 160;
constexpr int height = 96;

class VideoEncode : public testing::Test {
 protected:
  /// The steps of the library: the output's definition is a copy of the input's.
  void define(OMX_U32 rate, OMX_U32 bitrate) {
    auto definition = client.definition(in);
    auto& video = definition.format.video;
    video.nFrameWidth = video.nStride = width;
    video.nFrameHeight = video.nSliceHeight = height;
    video.xFramerate = rate;
    ASSERT_EQ(client.define(definition), OMX_ErrorNone);
    definition = client.definition(in);
    EXPECT_EQ(video.xFramerate, rate);
    EXPECT_GE(definition.nBufferSize, static_cast<OMX_U32>(width * height * 3 / 2));
    definition.nPortIndex = out;
    video.nBitrate = bitrate;
    video.eCompressionFormat = OMX_VIDEO_CodingAVC;
    video.eColorFormat = OMX_COLOR_FormatUnused;
    ASSERT_EQ(client.define(definition), OMX_ErrorNone);
    setRate(OMX_Video_ControlRateVariable, bitrate);
  }

  OMX_ERRORTYPE setRate(OMX_VIDEO_CONTROLRATETYPE mode, OMX_U32 bitrate) {
    auto rate = rig::make<OMX_VIDEO_PARAM_BITRATETYPE>(out);
    rate.eControlRate = mode;
    rate.nTargetBitrate = bitrate;
    return OMX_SetParameter(client.handle, OMX_IndexParamVideoBitrate, &rate);
  }

  OMX_ERRORTYPE send(const support::Image& picture, OMX_U32 time) {
    client.in[0]->nTimeStamp = {time, 1};
    return client.empty(client.in[0], support::padded(support::toYuv(picture)),
                        OMX_BUFFERFLAG_EOS | OMX_BUFFERFLAG_STARTTIME);
  }

  /// The flags of the next filled buffer, asked for now.
  OMX_U32 fetch() {
    EXPECT_EQ(client.fill(client.out[0]), OMX_ErrorNone);
    std::string text = client.next();
    if (text == "emptied 200") text = client.next();
    EXPECT_EQ(text, "filled 201");
    return client.out[0]->nFlags;
  }

  Client client{rig::videoEncode};
};

/// Back from Loaded it starts afresh, parameter sets included.
TEST_F(VideoEncode, GivesOneFrameForEachAfterTheParameterSets) {
  define(25u << 16, 500000);
  for (int round = 0; round < 2; ++round) {
    client.run();
    EXPECT_EQ(client.in.size(), 1u);
    EXPECT_EQ(client.out.size(), 1u);
    for (OMX_U32 t = 0; t < 30; ++t) {
      EXPECT_EQ(send(support::scene(width, height, static_cast<int>(t)), 70 + t), OMX_ErrorNone);
      if (t == 0) {
        EXPECT_EQ(fetch() & OMX_BUFFERFLAG_CODECCONFIG, unsigned{OMX_BUFFERFLAG_CODECCONFIG});
      }
      const OMX_U32 flags = fetch();
      EXPECT_EQ(flags & OMX_BUFFERFLAG_CODECCONFIG, 0u);
      EXPECT_NE(flags & OMX_BUFFERFLAG_ENDOFFRAME, 0u);
      EXPECT_EQ((flags & OMX_BUFFERFLAG_SYNCFRAME) != 0, t % 25 == 0) << "one second";
      EXPECT_EQ(client.out[0]->nTimeStamp.nLowPart, 70 + t);
      EXPECT_EQ(client.out[0]->nTimeStamp.nHighPart, 1u);
      client.soFar();
    }
    client.rest();
  }
}

TEST_F(VideoEncode, ReadsBackWhatItTookAndRefusesWhatItCannotDo) {
  EXPECT_EQ(setRate(OMX_Video_ControlRateConstant, 123456), OMX_ErrorNone);
  EXPECT_EQ(client.definition(out).format.video.nBitrate, 123456u);
  // A whole number of frames in Q16 beyond what a signed number holds.
  define(60000u << 16, 1000);
  EXPECT_EQ(setRate(static_cast<OMX_VIDEO_CONTROLRATETYPE>(9), 1), OMX_ErrorUnsupportedSetting);
}

/// A picture without pixels is no reason to hang or to end: it is taken, told of, and given back.
TEST_F(VideoEncode, TellsOfAConfigurationThatCannotBeEncoded) {
  auto definition = client.definition(in);
  definition.format.video.nFrameWidth = 0;
  definition.format.video.nStride = 0;
  ASSERT_EQ(client.define(definition), OMX_ErrorNone);
  client.run();
  client.fill(client.out[0]);
  ASSERT_EQ(client.empty(client.in[0], Bytes(16)), OMX_ErrorNone);
  EXPECT_EQ(client.next(2), (Texts{"emptied 200", "error UnsupportedSetting"}));
}

}  // namespace
