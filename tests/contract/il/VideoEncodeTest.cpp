// OMX.broadcom.video_encode: planar 4:2:0 in, H.264 out.

#include "Rig.h"
#include "support/H264Oracle.h"

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
  void define(OMX_U32 rate, OMX_U32 bitrate, OMX_U32 outputBytes = 0) {
    auto definition = client.definition(in);
    auto& video = definition.format.video;
    definition.nBufferSize = width * height;
    video.nFrameWidth = width;
    video.nStride = width;
    video.nFrameHeight = height;
    video.nSliceHeight = height;
    video.xFramerate = rate;
    ASSERT_EQ(client.define(definition), OMX_ErrorNone);
    definition = client.definition(in);
    EXPECT_EQ(definition.format.video.xFramerate, rate);
    EXPECT_GE(definition.nBufferSize, static_cast<OMX_U32>(width * height * 3 / 2));
    definition.nPortIndex = out;
    video.nBitrate = bitrate;
    if (outputBytes > 0) definition.nBufferSize = outputBytes;
    definition.format.video.eCompressionFormat = OMX_VIDEO_CodingAVC;
    definition.format.video.eColorFormat = OMX_COLOR_FormatUnused;
    ASSERT_EQ(client.define(definition), OMX_ErrorNone);
    setRate(OMX_Video_ControlRateVariable, bitrate);
  }

  OMX_ERRORTYPE setRate(OMX_VIDEO_CONTROLRATETYPE mode, OMX_U32 bitrate) {
    auto rate = rig::make<OMX_VIDEO_PARAM_BITRATETYPE>(out);
    rate.eControlRate = mode;
    rate.nTargetBitrate = bitrate;
    return OMX_SetParameter(client.handle, OMX_IndexParamVideoBitrate, &rate);
  }

  OMX_ERRORTYPE setAvc(OMX_VIDEO_AVCPROFILETYPE profile, OMX_VIDEO_AVCLEVELTYPE level,
                       OMX_U32 pFrames = 0, OMX_U32 bFrames = 0) {
    auto avc = rig::make<OMX_VIDEO_PARAM_AVCTYPE>(out);
    EXPECT_EQ(OMX_GetParameter(client.handle, OMX_IndexParamVideoAvc, &avc), OMX_ErrorNone);
    avc.eProfile = profile;
    avc.eLevel = level;
    avc.nPFrames = pFrames;
    avc.nBFrames = bFrames;
    return OMX_SetParameter(client.handle, OMX_IndexParamVideoAvc, &avc);
  }

  OMX_ERRORTYPE send(const support::Image& picture, OMX_U32 time) {
    client.in[0]->nTimeStamp = {time, 1};
    return client.empty(client.in[0], support::padded(support::toYuv(picture)),
                        OMX_BUFFERFLAG_EOS | OMX_BUFFERFLAG_STARTTIME);
  }

  /// The next filled buffer, asked for now; its bytes join the stream.
  const OMX_BUFFERHEADERTYPE& fetch() {
    EXPECT_EQ(client.fill(client.out[0]), OMX_ErrorNone);
    std::string text = client.next();
    if (text == "emptied 200") text = client.next();
    EXPECT_EQ(text, "filled 201");
    const Bytes bytes = rig::bytesOf(*client.out[0]);
    stream.insert(stream.end(), bytes.begin(), bytes.end());
    return *client.out[0];
  }

  /// One frame in, all of its buffers out. @return their number and the flags of the last
  std::pair<int, OMX_U32> encode(const support::Image& picture, OMX_U32 time = 0) {
    EXPECT_EQ(send(picture, time), OMX_ErrorNone);
    for (int buffers = 1;; ++buffers) {
      const OMX_BUFFERHEADERTYPE& buffer = fetch();
      EXPECT_EQ(buffer.nTimeStamp.nLowPart, time);
      if ((buffer.nFlags & OMX_BUFFERFLAG_CODECCONFIG) != 0)
        --buffers;
      else if ((buffer.nFlags & OMX_BUFFERFLAG_ENDOFFRAME) != 0)
        return {buffers, buffer.nFlags};
      if (buffers > 500 || HasFailure()) return {buffers, 0};
    }
  }

  Client client{rig::videoEncode};
  Bytes stream;
};

TEST_F(VideoEncode, StartsWithTheParameterSetsAndGivesOneFrameForEach) {
  define(25u << 16, 500000);
  EXPECT_EQ(client.definition(in).nBufferCountActual, 1u);
  EXPECT_EQ(client.definition(out).nBufferCountActual, 1u);
  client.run();
  ASSERT_EQ(send(support::scene(width, height, 0), 70), OMX_ErrorNone);
  EXPECT_NE(fetch().nFlags & OMX_BUFFERFLAG_CODECCONFIG, 0u);
  EXPECT_LT(client.out[0]->nFilledLen, 100u);
  const OMX_BUFFERHEADERTYPE& first = fetch();
  EXPECT_NE(first.nFlags & OMX_BUFFERFLAG_SYNCFRAME, 0u);
  EXPECT_NE(first.nFlags & OMX_BUFFERFLAG_ENDOFFRAME, 0u);
  EXPECT_EQ(first.nTimeStamp.nLowPart, 70u);
  EXPECT_EQ(first.nTimeStamp.nHighPart, 1u);
  client.soFar();
  for (int t = 1; t < 30; ++t) {
    const auto [buffers, flags] = encode(support::scene(width, height, t), 70 + t);
    EXPECT_EQ(buffers, 1);
    EXPECT_EQ((flags & OMX_BUFFERFLAG_SYNCFRAME) != 0, t == 25) << "one second";
    client.soFar();
  }
  const support::H264Stream made = support::decodeH264(stream);
  ASSERT_EQ(made.pictures.size(), 30u);
  EXPECT_EQ(made.profile, 100);
  EXPECT_EQ(made.level, 40);
  EXPECT_EQ(made.frameRateNum, made.frameRateDen * 25);
  for (int t = 0; t < 30; ++t)
    EXPECT_GT(support::lumaPsnr(made.pictures[t], support::toYuv(support::scene(width, height, t))),
              28)
        << t;
}

TEST_F(VideoEncode, SplitsFramesThatAreLongerThanTheBuffer) {
  define(30u << 16, 20000000, 4096);
  client.run();
  ASSERT_EQ(client.out[0]->nAllocLen, 4096u);
  for (int t = 0; t < 3; ++t) {
    EXPECT_GT(encode(support::noise(width, height, t)).first, 1);
    client.soFar();
  }
  EXPECT_EQ(support::decodeH264(stream).pictures.size(), 3u);
}

TEST_F(VideoEncode, HonoursProfileLevelAndKeyFrames) {
  define(30u << 16, 0);
  ASSERT_EQ(setAvc(OMX_VIDEO_AVCProfileBaseline, OMX_VIDEO_AVCLevel31, 3), OMX_ErrorNone);
  client.run();
  std::string keys;
  for (int t = 0; t < 10; ++t) {
    if (t == 6) {
      auto refresh = rig::make<OMX_CONFIG_INTRAREFRESHVOPTYPE>(out);
      refresh.IntraRefreshVOP = OMX_TRUE;
      ASSERT_EQ(OMX_SetConfig(client.handle, OMX_IndexConfigVideoIntraVOPRefresh, &refresh),
                OMX_ErrorNone);
    }
    keys += encode(support::scene(width, height, t)).second & OMX_BUFFERFLAG_SYNCFRAME ? 'K' : '.';
    client.soFar();
  }
  EXPECT_EQ(keys.substr(0, 7), "K...K.K");
  const support::H264Stream made = support::decodeH264(stream);
  EXPECT_EQ(made.profile, 66);
  EXPECT_EQ(made.level, 31);
  EXPECT_EQ(made.pictures.size(), 10u);
}

TEST_F(VideoEncode, StartsAfreshAfterIdle) {
  define(30u << 16, 500000);
  client.run();
  for (int round = 0; round < 2; ++round) {
    stream.clear();
    encode(support::scene(width, height, round));
    client.soFar();
    EXPECT_EQ(support::decodeH264(stream).pictures.size(), 1u) << "parameter sets included";
    client.rest();
    client.run();
  }
}

TEST_F(VideoEncode, ReadsBackWhatItTook) {
  EXPECT_EQ(setRate(OMX_Video_ControlRateConstant, 123456), OMX_ErrorNone);
  auto rate = rig::make<OMX_VIDEO_PARAM_BITRATETYPE>(out);
  ASSERT_EQ(OMX_GetParameter(client.handle, OMX_IndexParamVideoBitrate, &rate), OMX_ErrorNone);
  EXPECT_EQ(rate.eControlRate, OMX_Video_ControlRateConstant);
  EXPECT_EQ(rate.nTargetBitrate, 123456u);
  EXPECT_EQ(client.definition(out).format.video.nBitrate, 123456u);
  // A whole number of frames in Q16 beyond what a signed number holds.
  define(60000u << 16, 1000);
}

TEST_F(VideoEncode, RefusesWhatItCannotDo) {
  EXPECT_EQ(setRate(static_cast<OMX_VIDEO_CONTROLRATETYPE>(9), 1), OMX_ErrorUnsupportedSetting);
  EXPECT_EQ(setAvc(OMX_VIDEO_AVCProfileHigh444, OMX_VIDEO_AVCLevel4), OMX_ErrorUnsupportedSetting);
  EXPECT_EQ(setAvc(OMX_VIDEO_AVCProfileHigh, static_cast<OMX_VIDEO_AVCLEVELTYPE>(3)),
            OMX_ErrorUnsupportedSetting);
  EXPECT_EQ(setAvc(OMX_VIDEO_AVCProfileHigh, OMX_VIDEO_AVCLevel4, 0, 2),
            OMX_ErrorUnsupportedSetting);
  auto avc = rig::make<OMX_VIDEO_PARAM_AVCTYPE>(in);
  EXPECT_EQ(OMX_GetParameter(client.handle, OMX_IndexParamVideoAvc, &avc), OMX_ErrorBadPortIndex);
  auto definition = client.definition(in);
  definition.format.video.nFrameWidth = 1u << 20;
  EXPECT_EQ(client.define(definition), OMX_ErrorUnsupportedSetting);
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
