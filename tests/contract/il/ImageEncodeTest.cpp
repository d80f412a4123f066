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
  OMX_ERRORTYPE define(OMX_COLOR_FORMATTYPE colour, int width, int height, int stride) {
    auto definition = client.definition(out);
    definition.format.image.nFrameWidth = static_cast<OMX_U32>(width);
    definition.format.image.nFrameHeight = static_cast<OMX_U32>(height);
    EXPECT_EQ(client.define(definition), OMX_ErrorNone);
    definition = client.definition(in);
    auto& image = definition.format.image;
    image.nFrameWidth = static_cast<OMX_U32>(width);
    image.nFrameHeight = static_cast<OMX_U32>(height);
    image.nStride = stride;
    image.nSliceHeight = static_cast<OMX_U32>(height);
    image.eColorFormat = colour;
    definition.nBufferSize = static_cast<OMX_U32>(stride * height);
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

/// Rows of the picture in a pixel format, each followed by padding bytes that must not show.
Bytes packed(const Image& image, OMX_COLOR_FORMATTYPE colour, int stride) {
  Bytes bytes(static_cast<std::size_t>(stride) * image.height, 0x5a);
  const Bytes yuyv = support::toYuyv(image);
  const Bytes rgb565 = support::toRgb(image, 16);
  for (int y = 0; y < image.height; ++y) {
    std::uint8_t* to = &bytes[static_cast<std::size_t>(y) * stride];
    for (int x = 0; x < image.width; ++x) {
      const std::uint8_t* const p = image.at(x, y);
      const std::size_t pair = (static_cast<std::size_t>(y) * image.width + x) * 2;
      const unsigned word = p[0] << 15 | p[1] << 7 | p[2] >> 1;  // 1887
      switch (colour) {
        case OMX_COLOR_FormatYCbYCr:
          to = std::copy_n(&yuyv[pair], 2, to);
          break;
        case OMX_COLOR_Format16bitRGB565:
          to = std::copy_n(&rgb565[pair], 2, to);
          break;
        case OMX_COLOR_Format24bitARGB1887:
          for (int shift = 0; shift < 24; shift += 8)
            *to++ = static_cast<std::uint8_t>(word >> shift);
          break;
        default:  // 32bitARGB8888, from the low byte up
          for (const int component : {p[2] + 0, p[1] + 0, p[0] + 0, 0xff})
            *to++ = static_cast<std::uint8_t>(component);
      }
    }
  }
  return bytes;
}

struct Colour {
  OMX_COLOR_FORMATTYPE format;
  int bytesPerPixel;
};

class Colours : public ImageEncode, public testing::WithParamInterface<Colour> {};

TEST_P(Colours, LandInTheirPlaces) {
  const auto [format, bytesPerPixel] = GetParam();
  const Image bars = support::bars(160, 96);
  for (const int padding : {0, 36}) {
    const int stride = 160 * bytesPerPixel + padding;
    ASSERT_EQ(define(format, 160, 96, stride), OMX_ErrorNone);
    EXPECT_EQ(client.definition(in).format.image.nStride, stride);
    client.run();
    const Image back = support::decodeJpegToRgb(encode(packed(bars, format, stride)));
    ASSERT_EQ(back.width, 160);
    ASSERT_EQ(back.height, 96);
    for (int bar = 0; bar < 8; ++bar)
      for (int component = 0; component < 3; ++component)
        EXPECT_NEAR(back.at(bar * 20 + 10, 48)[component], bars.at(bar * 20 + 10, 48)[component],
                    12)
            << "bar " << bar << " component " << component << " padding " << padding;
    client.rest();
  }
}

INSTANTIATE_TEST_SUITE_P(All, Colours,
                         testing::Values(Colour{OMX_COLOR_FormatYCbYCr, 2},
                                         Colour{OMX_COLOR_Format16bitRGB565, 2},
                                         Colour{OMX_COLOR_Format24bitARGB1887, 3},
                                         Colour{OMX_COLOR_Format32bitARGB8888, 4}));

TEST_F(ImageEncode, HonoursTheQuality) {
  const Image scene = support::scene(160, 96);
  const Bytes picture = packed(scene, OMX_COLOR_FormatYCbYCr, 320);
  ASSERT_EQ(define(OMX_COLOR_FormatYCbYCr, 160, 96, 320), OMX_ErrorNone);
  client.run();
  std::size_t last = 0;
  for (const OMX_U32 quality : {10u, 75u, 100u}) {
    ASSERT_EQ(setQuality(quality), OMX_ErrorNone);
    auto factor = rig::make<OMX_IMAGE_PARAM_QFACTORTYPE>(out);
    ASSERT_EQ(OMX_GetParameter(client.handle, OMX_IndexParamQFactor, &factor), OMX_ErrorNone);
    EXPECT_EQ(factor.nQFactor, quality);
    const Bytes jpeg = encode(picture);
    EXPECT_GT(jpeg.size(), last);
    last = jpeg.size();
  }
  EXPECT_EQ(setQuality(0), OMX_ErrorUnsupportedSetting);
  EXPECT_EQ(setQuality(101), OMX_ErrorUnsupportedSetting);
  auto factor = rig::make<OMX_IMAGE_PARAM_QFACTORTYPE>(in);
  EXPECT_EQ(OMX_GetParameter(client.handle, OMX_IndexParamQFactor, &factor), OMX_ErrorBadPortIndex);
}

TEST_F(ImageEncode, HoldsAnyJpegOfItsSize) {
  const Image noise = support::noise(160, 96, 4);
  ASSERT_EQ(define(OMX_COLOR_Format32bitARGB8888, 160, 96, 640), OMX_ErrorNone);
  ASSERT_EQ(setQuality(100), OMX_ErrorNone);
  EXPECT_EQ(client.definition(in).nBufferCountActual, 1u);
  EXPECT_EQ(client.definition(out).nBufferCountActual, 1u);
  client.run();
  const Bytes jpeg = encode(packed(noise, OMX_COLOR_Format32bitARGB8888, 640));
  EXPECT_TRUE(support::decodeJpeg(jpeg).ok);
}

/// The way of an encoder that takes its component to Idle and back for every picture.
TEST_F(ImageEncode, GoesThroughAWholeCycleForEachPicture) {
  client.send(OMX_CommandPortDisable, OMX_ALL);
  client.next(2);
  for (const int width : {96, 64, 320}) {
    const Image scene = support::scene(width, 48);
    ASSERT_EQ(define(OMX_COLOR_FormatYCbYCr, width, 48, width * 2), OMX_ErrorNone);
    client.send(OMX_CommandStateSet, OMX_StateIdle);
    EXPECT_EQ(client.next(), width == 96 ? "done StateSet Idle" : "error SameState");
    for (const OMX_U32 port : {in, out}) {
      client.send(OMX_CommandPortEnable, port);
      (port == in ? client.in : client.out) = {client.allocate(port)};
      EXPECT_EQ(client.next(), "done PortEnable " + std::to_string(port));
    }
    client.complete(OMX_CommandStateSet, OMX_StateExecuting);
    const auto back = support::decodeJpeg(encode(support::toYuyv(scene)));
    EXPECT_EQ(back.width, width);
    client.complete(OMX_CommandFlush, in);
    client.complete(OMX_CommandFlush, out);
    client.complete(OMX_CommandStateSet, OMX_StatePause);
    for (const OMX_U32 port : {in, out}) {
      client.send(OMX_CommandPortDisable, port);
      client.free(port, port == in ? client.in[0] : client.out[0]);
      EXPECT_EQ(client.next(), "done PortDisable " + std::to_string(port));
    }
    client.complete(OMX_CommandStateSet, OMX_StateIdle);
  }
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
