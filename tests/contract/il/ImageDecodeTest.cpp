// OMX.broadcom.image_decode: JPEG in, planar 4:2:0 out, and the protocol of a new size.

#include "Rig.h"
#include "support/JpegOracle.h"

namespace {

using rig::Bytes;
using rig::Client;
using rig::Texts;
using support::Sampling;

constexpr OMX_U32 in = 320;
constexpr OMX_U32 out = 321;
const Texts decoded = {"emptied 320", "filled 321"};
constexpr OMX_U32 wholePicture = OMX_BUFFERFLAG_EOS | OMX_BUFFERFLAG_ENDOFFRAME;

class ImageDecode : public testing::Test {
 protected:
  /// Executing, with an output port of the size.
  void start(OMX_U32 width, OMX_U32 height, OMX_U32 inputBytes = 1024000) {
    auto definition = client.definition(in);
    definition.nBufferSize = inputBytes;
    ASSERT_EQ(client.define(definition), OMX_ErrorNone);
    definition = client.definition(out);
    definition.format.image.nFrameWidth = width;
    definition.format.image.nFrameHeight = height;
    definition.format.image.nStride = 0;
    definition.format.image.nSliceHeight = 0;
    definition.nBufferSize = 0;
    ASSERT_EQ(client.define(definition), OMX_ErrorNone);
    client.run();
  }

  /// What came out against what somebody else's decoder makes of the JPEG's luma.
  void expectPicture(const Bytes& jpeg) {
    const support::JpegPicture wanted = support::decodeJpeg(jpeg);
    ASSERT_TRUE(wanted.ok);
    const OMX_BUFFERHEADERTYPE& buffer = *client.out[0];
    const auto& image = client.definition(out).format.image;
    EXPECT_EQ(buffer.nFlags, wholePicture);
    ASSERT_EQ(buffer.nFilledLen, static_cast<OMX_U32>(image.nStride) * image.nSliceHeight * 3 / 2);
    for (int y = 0; y < wanted.height; ++y) {
      const OMX_U8* const row = buffer.pBuffer + y * image.nStride;
      const std::uint8_t* const wantedRow = &wanted.y[static_cast<std::size_t>(y) * wanted.width];
      ASSERT_TRUE(std::equal(row, row + wanted.width, wantedRow)) << "row " << y;
    }
  }

  Client client{rig::imageDecode};
};

Bytes jpegOf(int width, int height, Sampling sampling = Sampling::Yuv420, int t = 0) {
  return support::encodeJpeg(support::scene(width, height, t), sampling, 85);
}

TEST_F(ImageDecode, DecodesPicturesOfThePortsSizeOneByOne) {
  start(160, 96);
  for (int t = 0; t < 4; ++t) {
    const Bytes jpeg = jpegOf(160, 96, Sampling::Yuv420, t);
    client.in[0]->nTimeStamp = {7, static_cast<OMX_U32>(t)};
    ASSERT_EQ(client.empty(client.in[0], jpeg), OMX_ErrorNone);
    ASSERT_EQ(client.fill(client.out[0]), OMX_ErrorNone);
    ASSERT_EQ(client.next(2), decoded);
    EXPECT_EQ(__atomic_load_n(&client.in[0]->nFilledLen, __ATOMIC_ACQUIRE), 0u);
    EXPECT_EQ(client.out[0]->nTimeStamp.nLowPart, 7u);
    EXPECT_EQ(client.out[0]->nTimeStamp.nHighPart, static_cast<OMX_U32>(t));
    expectPicture(jpeg);
  }
}

TEST_F(ImageDecode, KeepsTheGeometryOfASetup) {
  auto definition = client.definition(out);
  definition.format.image.nFrameWidth = 1280;
  definition.format.image.nFrameHeight = 720;
  definition.format.image.nStride = 1280;
  definition.format.image.nSliceHeight = 720;
  definition.nBufferSize = 1382400;
  ASSERT_EQ(client.define(definition), OMX_ErrorNone);
  definition = client.definition(out);
  EXPECT_EQ(definition.format.image.nStride, 1280);
  EXPECT_EQ(definition.format.image.nSliceHeight, 720u);
  EXPECT_EQ(definition.nBufferSize, 1382400u);
  definition.format.image.nFrameWidth = 5000;  // too wide for stride and buffer
  ASSERT_EQ(client.define(definition), OMX_ErrorNone);
  definition = client.definition(out);
  EXPECT_GE(definition.format.image.nStride, 5000);
  EXPECT_GE(definition.nBufferSize, 5000u * 720 * 3 / 2);
}

struct NewSize {
  int width, height;
  OMX_U32 bytes;
  Sampling sampling;
};

class NewSizes : public ImageDecode, public testing::WithParamInterface<NewSize> {};

TEST_P(NewSizes, AreAnnouncedAndHeldUntilThePortIsRebuilt) {
  const auto [width, height, bytes, sampling] = GetParam();
  start(64, 64);
  const Bytes jpeg = jpegOf(width, height, sampling);
  // The buffer that is there already is not used for it.
  ASSERT_EQ(client.fill(client.out[0]), OMX_ErrorNone);
  ASSERT_EQ(client.empty(client.in[0], jpeg), OMX_ErrorNone);
  EXPECT_EQ(client.next(), "changed 321");
  const auto definition = client.definition(out);
  EXPECT_EQ(definition.format.image.nFrameWidth, static_cast<OMX_U32>(width));
  EXPECT_EQ(definition.format.image.nFrameHeight, static_cast<OMX_U32>(height));
  EXPECT_EQ(definition.format.image.nStride, (width + 31) / 32 * 32);
  EXPECT_EQ(definition.format.image.nSliceHeight, static_cast<OMX_U32>((height + 15) / 16 * 16));
  EXPECT_EQ(definition.nBufferSize, bytes);
  client.send(OMX_CommandPortDisable, out);
  EXPECT_EQ(client.next(), "filled 321") << "the unused buffer";
  client.free(out, client.out[0]);
  EXPECT_EQ(client.next(), "done PortDisable 321");
  client.send(OMX_CommandPortEnable, out);
  client.out[0] = client.allocate(out);
  EXPECT_EQ(client.next(), "done PortEnable 321");
  ASSERT_EQ(client.fill(client.out[0]), OMX_ErrorNone);
  ASSERT_EQ(client.next(2), decoded);
  expectPicture(jpeg);
  // The next of that size needs no announcement.
  client.fill(client.out[0]);
  client.empty(client.in[1], jpeg);
  EXPECT_EQ(client.next(2), decoded);
}

INSTANTIATE_TEST_SUITE_P(Sizes, NewSizes,
                         testing::Values(NewSize{640, 480, 460800, Sampling::Yuv420},
                                         NewSize{100, 75, 15360, Sampling::Yuv422},
                                         NewSize{1, 1, 768, Sampling::Yuv444},
                                         NewSize{321, 241, 135168, Sampling::Grey}));

TEST_F(ImageDecode, GathersAPictureFromSeveralBuffers) {
  start(320, 240, 1000);
  const Bytes jpeg = jpegOf(320, 240);
  ASSERT_GT(jpeg.size(), 4000u);
  client.fill(client.out[0]);
  std::size_t turn = 0;
  for (std::size_t at = 0; at < jpeg.size(); at += 1000) {
    const std::size_t end = std::min(jpeg.size(), at + 1000);
    const Bytes piece(jpeg.begin() + static_cast<std::ptrdiff_t>(at),
                      jpeg.begin() + static_cast<std::ptrdiff_t>(end));
    ASSERT_EQ(client.empty(client.in[turn++ % client.in.size()], piece,
                           end == jpeg.size() ? OMX_BUFFERFLAG_EOS : 0),
              OMX_ErrorNone);
    EXPECT_EQ(client.next(), "emptied 320");
  }
  EXPECT_EQ(client.next(), "filled 321");
  expectPicture(jpeg);
}

TEST_F(ImageDecode, AnswersEveryPictureInItsOrder) {
  start(64, 64);
  std::vector<Bytes> jpegs;
  for (std::size_t i = 0; i < client.in.size(); ++i) {
    jpegs.push_back(jpegOf(64, 64, Sampling::Yuv444, static_cast<int>(i) * 9));
    ASSERT_EQ(client.empty(client.in[i], jpegs[i]), OMX_ErrorNone);
  }
  for (const Bytes& jpeg : jpegs) {
    client.fill(client.out[0]);
    EXPECT_EQ(client.next(2), decoded);
    expectPicture(jpeg);
  }
}

/// A client that found a size of its own in the header waits for the announcement before it asks
/// for the picture: it must get one.
TEST_F(ImageDecode, AnnouncesAndThenAnswersWhatCannotBeDecoded) {
  start(160, 96);
  const Bytes good = jpegOf(160, 96);
  const Bytes other = jpegOf(320, 240);
  const Bytes rows[] = {Bytes(500, 0x5a), Bytes(other.begin(), other.begin() + 200), {}};
  for (const Bytes& bad : rows) {
    ASSERT_EQ(client.empty(client.in[0], bad), OMX_ErrorNone);
    EXPECT_EQ(client.next(2), (Texts{"emptied 320", "changed 321"}));
    EXPECT_EQ(client.definition(out).format.image.nFrameWidth, 160u);
    client.rebuild(out, client.out[0]);
    client.fill(client.out[0]);
    EXPECT_EQ(client.next(), "filled 321");
    EXPECT_EQ(client.out[0]->nFilledLen, 0u);
    EXPECT_EQ(client.out[0]->nFlags, wholePicture | OMX_BUFFERFLAG_DATACORRUPT);
    client.fill(client.out[0]);
    client.empty(client.in[0], good);
    EXPECT_EQ(client.next(2), decoded);
    expectPicture(good);
  }
}

TEST_F(ImageDecode, GivesADamagedPictureAsFarAsItGoes) {
  start(320, 240);
  Bytes jpeg = jpegOf(320, 240);
  jpeg.resize(jpeg.size() / 2);
  client.fill(client.out[0]);
  client.empty(client.in[0], jpeg);
  ASSERT_EQ(client.next(2), decoded);
  EXPECT_EQ(client.out[0]->nFlags, wholePicture);
  EXPECT_EQ(client.out[0]->nFilledLen, 320u * 240 * 3 / 2);
}

/// A picture may be dropped while it is held; the one after it is announced afresh.
TEST_F(ImageDecode, DropsAHeldPictureWithAFlush) {
  for (const OMX_U32 port : {in, out}) {
    Client own(rig::imageDecode);
    own.run();
    const auto& image = own.definition(out).format.image;
    const Bytes large = jpegOf(static_cast<int>(image.nFrameWidth) * 2, 96);
    own.empty(own.in[0], large);
    EXPECT_EQ(own.next(), "changed 321");
    own.send(OMX_CommandFlush, port);
    EXPECT_EQ(own.next(2), (Texts{"emptied 320", "done Flush " + std::to_string(port)}));
    own.fill(own.out[0]);
    EXPECT_EQ(own.soFar(), Texts{}) << "nothing is left of it";
    own.empty(own.in[0], large);
    EXPECT_EQ(own.next(), "changed 321");
  }
}

TEST_F(ImageDecode, SupportsItsFormatsAlone) {
  const auto set = [&](OMX_U32 port, OMX_IMAGE_CODINGTYPE coding, OMX_COLOR_FORMATTYPE colour) {
    auto format = rig::make<OMX_IMAGE_PARAM_PORTFORMATTYPE>(port);
    format.eCompressionFormat = coding;
    format.eColorFormat = colour;
    return OMX_SetParameter(client.handle, OMX_IndexParamImagePortFormat, &format);
  };
  EXPECT_EQ(set(in, OMX_IMAGE_CodingJPEG, OMX_COLOR_FormatUnused), OMX_ErrorNone);
  EXPECT_EQ(set(out, OMX_IMAGE_CodingUnused, OMX_COLOR_FormatYUV420PackedPlanar), OMX_ErrorNone);
  EXPECT_EQ(set(in, OMX_IMAGE_CodingPNG, OMX_COLOR_FormatUnused), OMX_ErrorUnsupportedSetting);
  EXPECT_EQ(set(out, OMX_IMAGE_CodingUnused, OMX_COLOR_FormatMonochrome),
            OMX_ErrorUnsupportedSetting);
  auto format = rig::make<OMX_IMAGE_PARAM_PORTFORMATTYPE>(out);
  EXPECT_EQ(OMX_GetParameter(client.handle, OMX_IndexParamImagePortFormat, &format), OMX_ErrorNone);
  EXPECT_EQ(format.eColorFormat, OMX_COLOR_FormatYUV420PackedPlanar);
  format.nIndex = 99;
  EXPECT_EQ(OMX_GetParameter(client.handle, OMX_IndexParamImagePortFormat, &format),
            OMX_ErrorNoMore);
}

}  // namespace
