#include <algorithm>

#include "Rig.h"
#include "support/H264Oracle.h"

namespace {

using namespace contract;
using support::H264Made;
using support::H264Options;
using support::Yuv;

H264Made clip(int width, int height, int frames, int bFrames = 0) {
  H264Options options;
  options.width = width;
  options.height = height;
  options.frames = frames;
  options.bFrames = bFrames;
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

/// Feeds a stream in pieces, the last flagged end of stream, while taking what comes out.
std::vector<Output> play(Rig& rig, const Bytes& stream, const std::vector<std::size_t>& cuts,
                         std::uint32_t flags) {
  std::thread feeder([&] {
    for (std::size_t i = 0; i + 1 < cuts.size(); ++i) {
      const bool last = i + 2 == cuts.size();
      EXPECT_TRUE(rig.feed(part(stream, cuts[i], cuts[i + 1]),
                           flags | (last ? MMAL_BUFFER_HEADER_FLAG_EOS : 0u),
                           static_cast<std::int64_t>(i) * 40000));
    }
  });
  std::vector<Output> outputs;
  for (;;) {
    outputs.push_back(rig.take());
    if (!outputs.back().came || outputs.back().has(MMAL_BUFFER_HEADER_FLAG_EOS)) break;
  }
  feeder.join();
  EXPECT_TRUE(outputs.back().came) << "the end of the stream does not come out";
  if (outputs.back().data.empty()) outputs.pop_back();
  return outputs;
}

void expectPicture(const Output& output, const Yuv& expected) {
  ASSERT_EQ(output.data.size(), static_cast<std::size_t>(support::round32(expected.width)) *
                                    support::round16(expected.height) * 3 / 2);
  const Yuv seen = support::unpadded(output.data.data(), expected.width, expected.height);
  EXPECT_TRUE(seen.y == expected.y && seen.u == expected.u && seen.v == expected.v);
}

struct Stream {
  int width, height, bFrames;
  std::size_t cut;  ///< bytes a piece; 0: access units
};

class Streams : public testing::TestWithParam<Stream> {};

TEST_P(Streams, ComeOutInThePaddedLayout) {
  const Stream& row = GetParam();
  const H264Made made = clip(row.width, row.height, 10, row.bFrames);
  const auto expected = support::decodeH264(made.stream).pictures;
  std::vector<std::size_t> cuts = made.units;
  if (row.cut != 0) {
    cuts.clear();
    for (std::size_t at = 0; at < made.stream.size(); at += row.cut) cuts.push_back(at);
    cuts.push_back(made.stream.size());
  }
  Rig rig(videoDecode);
  setUp(rig, row.width, row.height);
  rig.start();
  const auto seen = play(rig, made.stream, cuts, row.cut == 0 ? MMAL_BUFFER_HEADER_FLAG_FRAME : 0u);
  ASSERT_EQ(seen.size(), expected.size());
  for (std::size_t i = 0; i < seen.size(); ++i) {
    expectPicture(seen[i], expected[i]);
    if (row.cut == 0 && row.bFrames == 0) {
      EXPECT_EQ(seen[i].pts, static_cast<std::int64_t>(i) * 40000);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Cuts, Streams,
                         testing::Values(Stream{320, 240, 0, 0}, Stream{100, 50, 0, 0},
                                         Stream{100, 50, 2, 0}, Stream{96, 64, 0, 7},
                                         Stream{160, 96, 2, 1000}, Stream{96, 64, 0, 1 << 18}));

TEST(Decoding, GivesOnePictureForOneUnitAtOnceUnlessItIsDecodeOnly) {
  const H264Made made = clip(96, 64, 6);
  const auto expected = support::decodeH264(made.stream).pictures;
  Rig rig(videoDecode);
  setUp(rig, 96, 64);
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
}

TEST(Decoding, TakesParameterSetsFromTheFormat) {
  const H264Made made = clip(96, 64, 1);
  // Everything before the slice is parameter sets and information.
  const auto nals = support::nalStarts(made.stream);
  const std::size_t slice = nals[nals.size() - 2];
  Rig rig(videoDecode);
  setUp(rig, 96, 64);
  ASSERT_EQ(mmal_format_extradata_alloc(rig.in().format, static_cast<unsigned>(slice)),
            MMAL_SUCCESS);
  std::copy_n(made.stream.begin(), slice, rig.in().format->extradata);
  rig.in().format->extradata_size = static_cast<std::uint32_t>(slice);
  ASSERT_EQ(mmal_port_format_commit(&rig.in()), MMAL_SUCCESS);
  rig.start();
  rig.feed(part(made.stream, slice, made.stream.size()), MMAL_BUFFER_HEADER_FLAG_FRAME);
  expectPicture(rig.take(), support::decodeH264(made.stream).pictures[0]);
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
