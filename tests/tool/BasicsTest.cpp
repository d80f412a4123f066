#include <tessera/Basics.h>

#include "Shell.h"
#include "support/H264Oracle.h"

namespace {

using support::Bytes;

/// A NAL unit of a type, with a start code of three or four bytes. Slices begin a picture or go on.
Bytes unit(int type, bool first = true, bool longCode = true) {
  const auto header = static_cast<std::uint8_t>(0x60 | type);
  const Bytes bytes = {0, 0, 1, header, std::uint8_t(first ? 0x88 : 0x48), 0x11, 0, 0, 3, 1, 0x22};
  return longCode ? Bytes(1) + bytes : bytes;
}

std::vector<Bytes> cut(const Bytes& stream) {
  std::vector<Bytes> units;
  for (std::size_t at = 0, end = 0; at < stream.size(); at = end) {
    end = tessera::AccessUnitEnd(stream.data(), stream.size(), at);
    units.emplace_back(&stream[at], &stream[at] + (end - at));
  }
  return units;
}

TEST(Basics, GeometryAndTextsAreThoseOfTheCodecs) {
  EXPECT_EQ(tessera::PaddedSize(1920, 1080), 1920u * 1088 * 3 / 2);
  EXPECT_EQ(tessera::PaddedSize(1, 1), 32u * 16 * 3 / 2);
  EXPECT_EQ(tessera::DecoderBufferSize(640, -480), 307200u);
  EXPECT_EQ(tessera::DecoderBufferSize(1920, 1080), 524288u);
  for (const int value : {0, -1, 0x1000, 0x1002, 0x1003, 0x1004, 0x1005, 0x1006, 0x1009})
    EXPECT_EQ(std::string(tessera::StatusText(static_cast<CodecStatus>(value))).find("Codec"), 0u);
  EXPECT_STREQ(tessera::StatusText(static_cast<CodecStatus>(7)), "unknown status");
}

TEST(Basics, AccessUnitsAreCutBeforeWhatBelongsToTheNextPicture) {
  const Bytes sets = unit(7) + unit(8), key = unit(5), more = unit(5, false, false);
  const std::vector<Bytes> expected = {
      unit(9) + sets + unit(6) + key + more, unit(1) + unit(1, false),
      unit(9, true, false) + unit(1),
      sets + key + Bytes(tessera::endOfSequence.begin(), tessera::endOfSequence.end())};
  Bytes stream;
  for (const Bytes& each : expected) stream = stream + each;
  EXPECT_EQ(cut(stream), expected);
  EXPECT_FALSE(tessera::HasPicture(sets.data(), sets.size()));
  EXPECT_TRUE(tessera::HasPicture(expected[0].data(), expected[0].size()));
  for (std::size_t size = 0; size <= stream.size(); ++size)  // whatever the end cuts through
    EXPECT_LE(tessera::AccessUnitEnd(stream.data(), size, 0), size);
}

TEST(Basics, ARealStreamIsCutWhereItsEncoderEndedTheFrames) {
  const support::H264Made made = support::encodeH264({320, 240, 10, 2, 3});
  std::vector<std::size_t> starts = {0};
  for (const Bytes& each : cut(made.stream)) starts.push_back(starts.back() + each.size());
  EXPECT_EQ(starts, made.units);
}

/// Frames of some lengths, out of a component with a buffer of 1000 bytes for 20 x 20 pixels.
TEST(EncodedFrames, AreToldApartWhateverPiecesTheyComeIn) {
  tessera::EncodedFrames frames(20, 20);
  const auto frame = [](std::size_t size) {
    Bytes bytes = unit(1);
    bytes.resize(size, 0x55);
    return bytes;
  };
  const struct {
    Bytes data;
    bool begins;
    unsigned begun;
    bool mayGoOn;
  } steps[] = {
      {unit(7) + unit(8), true, 0, true},  // parameter sets: the frame is still to come
      {frame(399), false, 1, false},       // shorter than a byte a pixel: complete
      {frame(700), true, 2, true},         // perhaps
      {frame(700), true, 3, false},        // it was: the same length no longer says anything
      {unit(7) + unit(8) + frame(300), true, 4, false},
      {frame(1000), true, 5, true},
      {Bytes(1000, 0x55), false, 5, true},  // the buffer's size shows
      {Bytes(10, 0x55), false, 5, false},
      {frame(999), true, 6, false},
      {frame(1000), true, 7, true},  // by chance just that long
      {unit(1) + unit(1, false), true, 8, false},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(&step - steps);
    EXPECT_EQ(frames.Add(step.data.data(), step.data.size()), step.begins);
    EXPECT_EQ(frames.Begun(), step.begun);
    EXPECT_EQ(frames.MayGoOn(), step.mayGoOn);
  }
  EXPECT_EQ(frames.BufferSize(), 1000u);
}

}  // namespace
