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

Bytes part(const Bytes& stream, std::size_t from, std::size_t to) {
  return {stream.data() + from, stream.data() + to};
}

Bytes unit(const H264Made& made, std::size_t i) {
  return part(made.stream, made.units[i], made.units[i + 1]);
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

/// The client's part of a change of size: the new format, new buffers, the port enabled again.
void follow(Rig& rig, const MMAL_EVENT_FORMAT_CHANGED_T& change) {
  ASSERT_EQ(mmal_port_disable(&rig.out()), MMAL_SUCCESS);
  ASSERT_EQ(mmal_format_full_copy(rig.out().format, change.format), MMAL_SUCCESS);
  ASSERT_EQ(mmal_port_format_commit(&rig.out()), MMAL_SUCCESS);
  rig.out().buffer_num = change.buffer_num_recommended;
  rig.out().buffer_size = change.buffer_size_recommended;
}

TEST(Decoding, TellsOfAnotherSizeAndGoesOnWhenFollowed) {
  const H264Made made = clip(160, 96, 6);
  const auto expected = support::decodeH264(made.stream).pictures;
  Rig rig(videoDecode);
  setUp(rig, 96, 64);
  rig.start();
  std::thread feeder([&] {
    for (std::size_t i = 0; i < 6; ++i) rig.feed(unit(made, i), MMAL_BUFFER_HEADER_FLAG_FRAME);
  });
  MMAL_BUFFER_HEADER_T* const event = mmal_queue_timedwait(rig.filled, patienceMs);
  ASSERT_NE(event, nullptr);
  EXPECT_EQ(event->cmd, MMAL_EVENT_FORMAT_CHANGED);
  const MMAL_EVENT_FORMAT_CHANGED_T* const change = mmal_event_format_changed_get(event);
  ASSERT_NE(change, nullptr);
  EXPECT_EQ(change->format->es->video.crop.width, 160);
  EXPECT_EQ(change->format->es->video.crop.height, 96);
  follow(rig, *change);
  mmal_buffer_header_release(event);
  MMAL_POOL_T* const former = rig.outPool;
  rig.outPool = mmal_pool_create(rig.out().buffer_num, rig.out().buffer_size);
  mmal_pool_destroy(former);
  ASSERT_EQ(mmal_port_enable(&rig.out(), Rig::onOutput), MMAL_SUCCESS);
  rig.sendOutputs();
  for (const Yuv& picture : expected) expectPicture(rig.take(), picture);
  feeder.join();
}

TEST(Decoding, StartsAfreshWithItsInputPort) {
  const H264Made made = clip(96, 64, 4);
  const auto expected = support::decodeH264(made.stream).pictures;
  Rig rig(videoDecode);
  setUp(rig, 96, 64);
  rig.start();
  rig.feed(part(made.stream, 0, made.units[2] - 20), MMAL_BUFFER_HEADER_FLAG_FRAME_START);
  ASSERT_EQ(mmal_port_disable(&rig.in()), MMAL_SUCCESS);
  ASSERT_EQ(mmal_port_flush(&rig.out()), MMAL_SUCCESS);
  rig.expectOutputsBack();
  ASSERT_EQ(mmal_port_enable(&rig.in(), Rig::onInput), MMAL_SUCCESS);
  rig.sendOutputs();
  for (std::size_t i = 0; i < expected.size(); ++i) {
    rig.feed(unit(made, i), MMAL_BUFFER_HEADER_FLAG_FRAME);
    expectPicture(rig.take(), expected[i]);
  }
}

}  // namespace
