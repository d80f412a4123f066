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

  Bytes encode(const Bytes& picture) {
    EXPECT_EQ(client.empty(client.in[0], picture), OMX_ErrorNone);
    EXPECT_EQ(client.fill(client.out[0]), OMX_ErrorNone);
    EXPECT_EQ(client.next(2), encoded);
    EXPECT_EQ(client.out[0]->nFlags, unsigned{OMX_BUFFERFLAG_EOS | OMX_BUFFERFLAG_ENDOFFRAME});
    return rig::bytesOf(*client.out[0]);
  }

  Client client{rig::imageEncode};
};

TEST_F(ImageEncode, HoldsAnyJpegOfItsSize) {
  ASSERT_EQ(define(OMX_COLOR_Format32bitARGB8888, 160, 96, 640), OMX_ErrorNone);
  client.run();
  EXPECT_EQ(client.in.size(), 1u);
  EXPECT_EQ(client.out.size(), 1u);
  auto factor = rig::make<OMX_IMAGE_PARAM_QFACTORTYPE>(out);
  factor.nQFactor = 100;
  ASSERT_EQ(OMX_SetParameter(client.handle, OMX_IndexParamQFactor, &factor), OMX_ErrorNone);
  EXPECT_TRUE(support::decodeJpeg(encode(support::toRgb(support::noise(160, 96, 4), 32))).ok);
}

TEST_F(ImageEncode, AnswersWhatItCannotEncode) {
  ASSERT_EQ(define(OMX_COLOR_FormatYCbYCr, 64, 48, 128), OMX_ErrorNone);
  client.run();
  client.empty(client.in[0], {});
  client.fill(client.out[0]);
  EXPECT_EQ(client.next(2), encoded);
  EXPECT_EQ(client.out[0]->nFilledLen, 0u);
  EXPECT_NE(client.out[0]->nFlags & OMX_BUFFERFLAG_DATACORRUPT, 0u);
}

TEST_F(ImageEncode, RefusesFormatsAndSizesBeyondItsMeans) {
  EXPECT_EQ(define(OMX_COLOR_FormatYUV420PackedPlanar, 64, 48, 64), OMX_ErrorUnsupportedSetting);
  auto definition = client.definition(in);
  definition.format.image.nFrameWidth = 1u << 20;
  EXPECT_EQ(client.define(definition), OMX_ErrorUnsupportedSetting);
}

}  // namespace
