// OMX.broadcom.image_encode: packed pictures in, JPEG out.

#include "Rig.h"
#include "support/JpegOracle.h"

namespace {

using rig::Bytes;
using rig::Client;
using rig::Texts;

constexpr OMX_U32 in = 340;
constexpr OMX_U32 out = 341;
const Texts encoded = {"emptied 340", "filled 341"};

class ImageEncode : public testing::Test {
 protected:
  OMX_ERRORTYPE define(OMX_COLOR_FORMATTYPE colour, OMX_U32 width, OMX_U32 height, int stride) {
    auto definition = client.definition(out);
    definition.format.image.nFrameWidth = width;
    definition.format.image.nFrameHeight = height;
    EXPECT_EQ(client.define(definition), OMX_ErrorNone);
    definition = client.definition(in);
    auto& image = definition.format.image;
    image.nFrameWidth = width;
    image.nFrameHeight = image.nSliceHeight = height;
    image.nStride = stride;
    image.eColorFormat = colour;
    definition.nBufferSize = static_cast<OMX_U32>(stride) * height;
    return client.define(definition);
  }

  OMX_ERRORTYPE setQuality(OMX_U32 quality) {
    auto factor = rig::make<OMX_IMAGE_PARAM_QFACTORTYPE>(out);
    factor.nQFactor = quality;
    return OMX_SetParameter(client.handle, OMX_IndexParamQFactor, &factor);
  }

  Bytes encode(const Bytes& picture) {
    EXPECT_EQ(client.empty(client.in[0], picture), OMX_ErrorNone);
    EXPECT_EQ(client.fill(client.out[0]), OMX_ErrorNone);
    EXPECT_EQ(client.next(2), encoded);
    EXPECT_EQ(client.out[0]->nFlags, unsigned{OMX_BUFFERFLAG_EOS | OMX_BUFFERFLAG_ENDOFFRAME});
    return rig::bytesOf(*client.out[0]);
  }

  Client client{rig::imageEncode};
};

TEST_F(ImageEncode, HonoursTheQualityAndHoldsAnyJpegOfItsSize) {
  const Bytes picture = support::toRgb(support::noise(160, 96, 4), 32);
  ASSERT_EQ(define(OMX_COLOR_Format32bitARGB8888, 160, 96, 640), OMX_ErrorNone);
  client.run();
  EXPECT_EQ(client.in.size(), 1u);
  EXPECT_EQ(client.out.size(), 1u);
  std::size_t last = 0;
  auto factor = rig::make<OMX_IMAGE_PARAM_QFACTORTYPE>(out);
  for (const OMX_U32 quality : {10u, 75u, 100u}) {
    ASSERT_EQ(setQuality(quality), OMX_ErrorNone);
    ASSERT_EQ(OMX_GetParameter(client.handle, OMX_IndexParamQFactor, &factor), OMX_ErrorNone);
    EXPECT_EQ(factor.nQFactor, quality);
    const Bytes jpeg = encode(picture);
    EXPECT_TRUE(support::decodeJpeg(jpeg).ok);
    EXPECT_GT(jpeg.size(), last);
    last = jpeg.size();
  }
  EXPECT_EQ(setQuality(0), OMX_ErrorUnsupportedSetting);
  EXPECT_EQ(setQuality(101), OMX_ErrorUnsupportedSetting);
  factor.nPortIndex = in;
  EXPECT_EQ(OMX_GetParameter(client.handle, OMX_IndexParamQFactor, &factor), OMX_ErrorBadPortIndex);
}

/// Bytes after each row must not show.
TEST_F(ImageEncode, TakesRowsThatAreLongerThanThePicture) {
  const support::Image bars = support::bars(160, 96);
  ASSERT_EQ(define(OMX_COLOR_FormatYCbYCr, 134, 96, 320), OMX_ErrorNone);
  EXPECT_EQ(client.definition(in).format.image.nStride, 320);
  client.run();
  const support::Image back = support::decodeJpegToRgb(encode(support::toYuyv(bars)));
  ASSERT_EQ(back.width, 134);
  ASSERT_EQ(back.height, 96);
  for (int x = 10; x < 134; x += 20)
    for (int component = 0; component < 3; ++component)
      EXPECT_NEAR(back.at(x, 48)[component], bars.at(x, 48)[component], 12) << "column " << x;
}

TEST_F(ImageEncode, AnswersWhatItCannotEncode) {
  ASSERT_EQ(define(OMX_COLOR_FormatYCbYCr, 64, 48, 128), OMX_ErrorNone);
  client.run();
  client.empty(client.in[0], {});
  client.fill(client.out[0]);
  EXPECT_EQ(client.next(2), encoded);
  EXPECT_EQ(client.out[0]->nFilledLen, 0u);
  EXPECT_EQ(client.out[0]->nFlags & OMX_BUFFERFLAG_ENDOFFRAME, 0u);
}

TEST_F(ImageEncode, RefusesFormatsAndSizesBeyondItsMeans) {
  EXPECT_EQ(define(OMX_COLOR_FormatYUV420PackedPlanar, 64, 48, 64), OMX_ErrorUnsupportedSetting);
  auto definition = client.definition(in);
  definition.format.image.nFrameWidth = 1u << 20;
  EXPECT_EQ(client.define(definition), OMX_ErrorUnsupportedSetting);
  definition = client.definition(in);
  definition.format.image.nStride = INT32_MAX;
  EXPECT_EQ(client.define(definition), OMX_ErrorUnsupportedSetting);
}

}  // namespace
