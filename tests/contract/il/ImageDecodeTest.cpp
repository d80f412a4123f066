// OMX.broadcom.image_decode: JPEG in, planar 4:2:0 out, and the protocol of a new size.

#include "Rig.h"
#include "support/JpegOracle.h"

namespace {

using rig::Bytes;
using rig::Client;
using rig::Texts;

constexpr OMX_U32 in = 320;
constexpr OMX_U32 out = 321;
const Texts decoded = {"emptied 320", "filled 321"};
constexpr OMX_U32 wholePicture = OMX_BUFFERFLAG_EOS | OMX_BUFFERFLAG_ENDOFFRAME;

class ImageDecode : public testing::Test {
 protected:
  /// Executing, with an output port of the size.
  void start(OMX_U32 width, OMX_U32 height) {
    auto definition = client.definition(out);
    auto& image = definition.format.image;
    image.nFrameWidth = width;
    image.nFrameHeight = height;
    image.nStride = 0;
    image.nSliceHeight = 0;
    definition.nBufferSize = 0;
    ASSERT_EQ(client.define(definition), OMX_ErrorNone);
    client.run();
  }

  /// Asks for a picture and sends it.
  void request(const Bytes& jpeg) {
    ASSERT_EQ(client.fill(client.out[0]), OMX_ErrorNone);
    ASSERT_EQ(client.empty(client.in[0], jpeg), OMX_ErrorNone);
  }

  /// What came out against what somebody else's decoder makes of the JPEG's luma.
  void expectPicture(const Bytes& jpeg) {
    const support::JpegPicture wanted = support::decodeJpeg(jpeg);
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

Bytes jpegOf(int width, int height, int t = 0) {
  return support::encodeJpeg(support::scene(width, height, t), support::Sampling::Yuv420, 85);
}

TEST_F(ImageDecode, DecodesPicturesOneByOneAndInTheirOrder) {
  start(160, 96);
  std::vector<Bytes> jpegs;
  for (std::size_t i = 0; i < client.in.size(); ++i) {
    jpegs.push_back(jpegOf(160, 96, static_cast<int>(i) * 9));
    client.in[i]->nTimeStamp = {7, static_cast<OMX_U32>(i)};
    ASSERT_EQ(client.empty(client.in[i], jpegs[i]), OMX_ErrorNone);
  }
  for (std::size_t i = 0; i < jpegs.size(); ++i) {
    client.fill(client.out[0]);
    ASSERT_EQ(client.next(2), decoded);
    EXPECT_EQ(__atomic_load_n(&client.in[i]->nFilledLen, __ATOMIC_ACQUIRE), 0u);
    EXPECT_EQ(client.out[0]->nTimeStamp.nLowPart, 7u);
    EXPECT_EQ(client.out[0]->nTimeStamp.nHighPart, i);
    expectPicture(jpegs[i]);
  }
}

TEST_F(ImageDecode, AnnouncesANewSizeAndHoldsThePictureUntilThePortIsRebuilt) {
  start(64, 64);
  for (const auto& [width, height, bytes] :
       {std::tuple(640, 480, 460800u), {100, 75, 15360u}, {1, 1, 768u}, {321, 241, 135168u}}) {
    const Bytes jpeg = jpegOf(width, height);
    request(jpeg);
    EXPECT_EQ(client.next(), "changed 321");
    const auto definition = client.definition(out);
    EXPECT_EQ(definition.format.image.nFrameWidth, static_cast<OMX_U32>(width));
    EXPECT_EQ(definition.format.image.nFrameHeight, static_cast<OMX_U32>(height));
    EXPECT_EQ(definition.format.image.nStride, support::round32(width));
    EXPECT_EQ(definition.format.image.nSliceHeight, static_cast<OMX_U32>(support::round16(height)));
    EXPECT_EQ(definition.nBufferSize, bytes);
    client.send(OMX_CommandPortDisable, out);
    EXPECT_EQ(client.next(), "filled 321") << "the buffer that was there already is not used";
    client.disabled(out);
    client.send(OMX_CommandPortEnable, out);
    client.enabled(out);
    ASSERT_EQ(client.fill(client.out[0]), OMX_ErrorNone);
    ASSERT_EQ(client.next(2), decoded);
    expectPicture(jpeg);
    request(jpeg);
    EXPECT_EQ(client.next(2), decoded) << "the next of that size needs no announcement";
  }
}

/// A picture may be dropped while it is held; the one after it is announced afresh.
TEST_F(ImageDecode, DropsAHeldPictureWithAFlush) {
  const Bytes large = jpegOf(2000, 96);
  for (const OMX_U32 port : {in, out}) {
    Client own(rig::imageDecode);
    own.run();
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

}  // namespace
