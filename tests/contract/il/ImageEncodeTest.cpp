// OMX.broadcom.image_encode: packed pictures in, JPEG out.

#include "Rig.h"
#include "support/JpegOracle.h"

namespace {

using rig::Bytes;
using rig::Client;
using rig::Texts;
using support::Image;

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

Bytes packed(const Image& image, OMX_COLOR_FORMATTYPE colour) {
  if (colour == OMX_COLOR_FormatYCbYCr) return support::toYuyv(image);
  if (colour == OMX_COLOR_Format16bitRGB565) return support::toRgb(image, 16);
  const bool narrow = colour == OMX_COLOR_Format24bitARGB1887;
  Bytes bytes;
  for (std::size_t i = 0; i < image.rgb.size(); i += 3) {
    const unsigned r = image.rgb[i], g = image.rgb[i + 1], b = image.rgb[i + 2];
    const unsigned word = narrow ? r << 15 | g << 7 | b >> 1 : 0xffu << 24 | r << 16 | g << 8 | b;
    for (int shift = 0; shift < (narrow ? 24 : 32); shift += 8)
      bytes.push_back(static_cast<std::uint8_t>(word >> shift));
  }
  return bytes;
}

class Colours : public ImageEncode, public testing::WithParamInterface<OMX_COLOR_FORMATTYPE> {};

/// Once as wide as its rows, once with bytes after each row that must not show.
TEST_P(Colours, LandInTheirPlaces) {
  const Image bars = support::bars(160, 96);
  const Bytes picture = packed(bars, GetParam());
  const int stride = static_cast<int>(picture.size()) / 96;
  for (const int width : {160, 134}) {
    ASSERT_EQ(define(GetParam(), static_cast<OMX_U32>(width), 96, stride), OMX_ErrorNone);
    EXPECT_EQ(client.definition(in).format.image.nStride, stride);
    client.run();
    const Image back = support::decodeJpegToRgb(encode(picture));
    ASSERT_EQ(back.width, width);
    ASSERT_EQ(back.height, 96);
    for (int x = 10; x < width; x += 20)
      for (int component = 0; component < 3; ++component)
        EXPECT_NEAR(back.at(x, 48)[component], bars.at(x, 48)[component], 12)
            << "column " << x << " component " << component;
    client.rest();
  }
}

INSTANTIATE_TEST_SUITE_P(All, Colours,
                         testing::Values(OMX_COLOR_FormatYCbYCr, OMX_COLOR_Format16bitRGB565,
                                         OMX_COLOR_Format24bitARGB1887,
                                         OMX_COLOR_Format32bitARGB8888));

TEST_F(ImageEncode, HonoursTheQualityAndHoldsAnyJpegOfItsSize) {
  const Bytes picture = packed(support::noise(160, 96, 4), OMX_COLOR_Format32bitARGB8888);
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
