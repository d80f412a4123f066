#include <wels/codec_api.h>

#include "H264Encoders.h"

namespace {

using support::Bytes;

struct Closer {
  void operator()(ISVCDecoder* decoder) const {
    decoder->Uninitialize();
    WelsDestroyDecoder(decoder);
  }
};

TEST_P(BothH264, TwoDecodersOfDifferentMakeAgreeOnTheStream) {
  support::H264Encoder encoder(*GetParam());
  support::Video video;
  ASSERT_TRUE(encoder.create({support::i420, 152, 100}));
  for (int t = 0; t < 12; ++t) ASSERT_TRUE(encoder.feed(t) == CodecOk && encoder.collect(video));
  const std::vector<support::Yuv> expected = support::decodeH264(video.stream).pictures;
  ASSERT_EQ(expected.size(), 12u);
  ISVCDecoder* made = nullptr;
  ASSERT_EQ(WelsCreateDecoder(&made), 0);
  const std::unique_ptr<ISVCDecoder, Closer> decoder(made);
  SDecodingParam param{};
  param.sVideoProperty.eVideoBsType = VIDEO_BITSTREAM_AVC;
  ASSERT_EQ(decoder->Initialize(&param), 0);
  // OpenH264 takes a stream by NAL units; what it holds back then is flushed.
  const std::vector<std::size_t> cuts = support::nalStarts(video.stream);
  std::size_t picture = 0;
  for (std::size_t i = 0; i < cuts.size(); ++i) {
    unsigned char* planes[3] = {};
    SBufferInfo info{};
    const bool more = i + 1 < cuts.size();
    const int size = more ? static_cast<int>(cuts[i + 1] - cuts[i]) : 0;
    ASSERT_EQ(more ? decoder->DecodeFrameNoDelay(&video.stream[cuts[i]], size, planes, &info)
                   : decoder->FlushFrame(planes, &info),
              dsErrorFree);
    if (info.iBufferStatus != 1) continue;
    const SSysMEMBuffer& layout = info.UsrData.sSystemBuffer;
    Bytes luma;
    for (int y = 0; y < layout.iHeight; ++y) {
      const unsigned char* const row = planes[0] + std::ptrdiff_t{y} * layout.iStride[0];
      luma.insert(luma.end(), row, row + layout.iWidth);
    }
    ASSERT_LT(picture, expected.size());
    EXPECT_EQ(luma, expected[picture++].y);
  }
  EXPECT_EQ(picture, 12u);
}

}  // namespace
