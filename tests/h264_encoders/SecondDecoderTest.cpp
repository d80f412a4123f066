#include <wels/codec_api.h>

#include "H264Encoders.h"

namespace {

struct Closer {
  void operator()(ISVCDecoder* decoder) const {
    decoder->Uninitialize();
    WelsDestroyDecoder(decoder);
  }
};

/// The cropped luma of each picture that OpenH264 makes of a stream, which it takes by NAL units.
std::vector<Bytes> decodeWithOpenH264(const Bytes& stream) {
  ISVCDecoder* made = nullptr;
  EXPECT_EQ(WelsCreateDecoder(&made), 0);
  const std::unique_ptr<ISVCDecoder, Closer> decoder(made);
  SDecodingParam param{};
  param.sVideoProperty.eVideoBsType = VIDEO_BITSTREAM_AVC;
  EXPECT_EQ(decoder->Initialize(&param), 0);
  std::vector<Bytes> pictures;
  const std::vector<std::size_t> cuts = support::nalStarts(stream);
  for (std::size_t i = 0; i < cuts.size(); ++i) {
    unsigned char* planes[3] = {};
    SBufferInfo info{};
    const bool more = i + 1 < cuts.size();  // else the picture that is held back comes out
    const int size = more ? static_cast<int>(cuts[i + 1] - cuts[i]) : 0;
    EXPECT_EQ(more ? decoder->DecodeFrameNoDelay(&stream[cuts[i]], size, planes, &info)
                   : decoder->FlushFrame(planes, &info),
              dsErrorFree);
    if (info.iBufferStatus != 1) continue;
    const SSysMEMBuffer& layout = info.UsrData.sSystemBuffer;
    Bytes& luma = pictures.emplace_back();
    for (int y = 0; y < layout.iHeight; ++y) {
      const unsigned char* const row = planes[0] + std::ptrdiff_t{y} * layout.iStride[0];
      luma.insert(luma.end(), row, row + layout.iWidth);
    }
  }
  return pictures;
}

TEST_P(BothH264, TwoDecodersOfDifferentMakeAgreeOnTheStream) {
  H264Encoder encoder(*GetParam());
  const Bytes stream = encode(encoder, {i420, 152, 100}, 12, [](int t) {
                         return support::scene(152, 100, t);
                       }).stream;
  const support::H264Stream expected = support::decodeH264(stream);
  const std::vector<Bytes> seen = decodeWithOpenH264(stream);
  ASSERT_EQ(expected.pictures.size(), 12u);
  ASSERT_EQ(seen.size(), 12u);
  for (std::size_t i = 0; i < seen.size(); ++i) EXPECT_EQ(seen[i], expected.pictures[i].y) << i;
}

}  // namespace
