#include <wels/codec_api.h>

#include <memory>

#include "H264Fixture.h"

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
  const std::vector<std::size_t> starts = support::nalStarts(stream);
  for (std::size_t i = 0; i < starts.size(); ++i) {
    unsigned char* planes[3] = {};
    SBufferInfo info{};
    const bool more = i + 1 < starts.size();  // else the picture that is held back comes out
    EXPECT_EQ(
        more ? decoder->DecodeFrameNoDelay(
                   &stream[starts[i]], static_cast<int>(starts[i + 1] - starts[i]), planes, &info)
             : decoder->FlushFrame(planes, &info),
        dsErrorFree);
    if (info.iBufferStatus != 1) continue;
    const SSysMEMBuffer& size = info.UsrData.sSystemBuffer;
    Bytes& luma = pictures.emplace_back();
    for (int y = 0; y < size.iHeight; ++y) {
      const unsigned char* const row = planes[0] + std::ptrdiff_t{y} * size.iStride[0];
      luma.insert(luma.end(), row, row + size.iWidth);
    }
  }
  return pictures;
}

Bytes encodeScenes(int width, int height, int frames) {
  const std::unique_ptr<IH264Encoder, int (*)(IH264Encoder*)> encoder(CreateEncoderH264(),
                                                                      ReleaseEncoderH264);
  EXPECT_TRUE(encoder->Create(i420, width, height, 30, 1, 1, 1, 500000));
  Bytes stream;
  for (int t = 0; t < frames; ++t) {
    Bytes frame = support::padded(support::toYuv(support::scene(width, height, t)));
    EXPECT_EQ(encoder->ProcessInput(frame.data(), length(frame), 0, 0), CodecOk);
    for (int left = t == 0 ? 2 : 1; left > 0; --left) {  // the parameter sets come by themselves
      Bytes data(200000);
      unsigned int size = 0, flags = 0;
      EXPECT_EQ(
          patiently([&] { return encoder->ProcessOutput(data.data(), length(data), size, flags); }),
          CodecOk);
      stream.insert(stream.end(), data.begin(), data.begin() + size);
    }
  }
  return stream;
}

TEST_F(H264Test, TwoDecodersOfDifferentMakeAgreeOnTheStream) {
  const Bytes stream = encodeScenes(152, 100, 12);
  const support::H264Stream expected = support::decodeH264(stream);
  const std::vector<Bytes> seen = decodeWithOpenH264(stream);
  ASSERT_EQ(expected.pictures.size(), 12u);
  ASSERT_EQ(seen.size(), 12u);
  for (std::size_t i = 0; i < seen.size(); ++i) EXPECT_EQ(seen[i], expected.pictures[i].y) << i;
}

}  // namespace
