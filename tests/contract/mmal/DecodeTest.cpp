#include <algorithm>

#include "Rig.h"
#include "support/H264Oracle.h"

namespace {

using namespace contract;
using support::H264Made;
using support::H264Options;
using support::Yuv;

H264Made clip(int width, int height, int frames) {
  H264Options options;
  options.width = width;
  options.height = height;
  options.frames = frames;
  return support::encodeH264(options);
}

Bytes unit(const H264Made& made, std::size_t i) {
  return {&made.stream[made.units[i]], made.stream.data() + made.units[i + 1]};
}

void setUp(Rig& rig, int width, int height) {
  rig.in().format->flags |= MMAL_ES_FORMAT_FLAG_FRAMED;
  rig.setUp(width, height, MMAL_ENCODING_H264, MMAL_ENCODING_I420);
  rig.in().buffer_num = std::max(4u, rig.in().buffer_num_min);
  rig.out().buffer_num = std::max(4u, rig.out().buffer_num_min);
  rig.in().buffer_size = 1 << 18;
}

void expectPicture(const Output& output, const Yuv& expected) {
  ASSERT_EQ(output.data.size(), static_cast<std::size_t>(support::round32(expected.width)) *
                                    support::round16(expected.height) * 3 / 2);
  const Yuv seen = support::unpadded(output.data.data(), expected.width, expected.height);
  EXPECT_TRUE(seen.y == expected.y && seen.u == expected.u && seen.v == expected.v);
}

TEST(Decoding, GivesOnePaddedPictureForOneUnitAtOnceUnlessItIsDecodeOnly) {
  const H264Made made = clip(100, 50, 6);
  const auto expected = support::decodeH264(made.stream).pictures;
  Rig rig(videoDecode);
  setUp(rig, 100, 50);
  rig.start();
  for (std::size_t i = 0; i < 6; ++i) {
    const bool shown = i != 1 && i != 3 && i != 4;
    rig.feed(unit(made, i),
             MMAL_BUFFER_HEADER_FLAG_FRAME | (shown ? 0u : MMAL_BUFFER_HEADER_FLAG_DECODEONLY),
             static_cast<std::int64_t>(i));
    if (!shown) continue;
    const Output output = rig.take();
    ASSERT_TRUE(output.came) << i;
    EXPECT_EQ(output.pts, static_cast<std::int64_t>(i));
    expectPicture(output, expected[i]);
  }
  rig.feed({}, MMAL_BUFFER_HEADER_FLAG_EOS);
  EXPECT_TRUE(rig.take().has(MMAL_BUFFER_HEADER_FLAG_EOS));
}

TEST(Decoding, TellsOfAnotherSize) {
  const H264Made made = clip(160, 96, 1);
  Rig rig(videoDecode);
  setUp(rig, 96, 64);
  rig.start();
  rig.feed(unit(made, 0), MMAL_BUFFER_HEADER_FLAG_FRAME);
  const Output output = rig.take();
  ASSERT_EQ(output.cmd, MMAL_EVENT_FORMAT_CHANGED);
  EXPECT_GE(output.data.size(), sizeof(MMAL_EVENT_FORMAT_CHANGED_T));
}

}  // namespace
