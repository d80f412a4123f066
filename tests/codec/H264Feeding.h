#ifndef TESSERA_TESTS_CODEC_H264FEEDING_H
#define TESSERA_TESTS_CODEC_H264FEEDING_H

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>

#include "codec/H264Decoder.h"
#include "support/H264Oracle.h"

struct OpenDecoder : codec::H264Decoder {
  explicit OpenDecoder(const support::Bytes& sets = {}) {
    EXPECT_TRUE(open(sets.empty() ? nullptr : sets.data(), sets.size())) << error();
  }
};

/// What came out of a decoder.
struct Shown {
  std::vector<support::Yuv> pictures;
  std::vector<std::int64_t> pts;
  std::vector<bool> damaged;
  std::vector<bool> decodeOnly;

  void take(codec::H264Decoder& decoder) {
    codec::H264Decoder::Picture picture;
    const auto& planes = picture.planes;
    while (decoder.next(picture)) {
      support::Yuv yuv{
          static_cast<int>(picture.width), static_cast<int>(picture.height), {}, {}, {}};
      append(yuv.y, planes.y, planes.yStride, yuv.width, yuv.height);
      append(yuv.u, planes.u, planes.uvStride, yuv.chromaWidth(), yuv.chromaHeight());
      append(yuv.v, planes.v, planes.uvStride, yuv.chromaWidth(), yuv.chromaHeight());
      pictures.push_back(std::move(yuv));
      pts.push_back(picture.pts);
      damaged.push_back(picture.damaged);
      decodeOnly.push_back(picture.decodeOnly);
    }
  }

 private:
  static void append(support::Bytes& to, const std::uint8_t* from, unsigned stride, int width,
                     int height) {
    for (int y = 0; y < height; ++y, from += stride) to.insert(to.end(), from, from + width);
  }
};

inline bool same(const support::Yuv& a, const support::Yuv& b) {
  return a.width == b.width && a.height == b.height && a.y == b.y && a.u == b.u && a.v == b.v;
}

/// Index of the first picture that differs, the common length when none does.
inline std::size_t firstDifference(const std::vector<support::Yuv>& a,
                                   const std::vector<support::Yuv>& b) {
  const std::size_t count = std::min(a.size(), b.size());
  std::size_t i = 0;
  while (i < count && same(a[i], b[i])) ++i;
  return i;
}

/// Feeds stream[cuts[i] .. cuts[i + 1]) with i as its time stamp.
inline Shown feed(codec::H264Decoder& decoder, const support::Bytes& stream,
                  const std::vector<std::size_t>& cuts, bool unitEnds = true, bool flush = true) {
  Shown shown;
  for (std::size_t i = 0; i + 1 < cuts.size(); ++i) {
    decoder.feed(stream.data() + cuts[i], cuts[i + 1] - cuts[i], static_cast<std::int64_t>(i),
                 false, unitEnds);
    shown.take(decoder);
  }
  if (flush) decoder.flush();
  shown.take(decoder);
  return shown;
}

/// The ways to cut a stream of these access units.
inline std::vector<std::size_t> cut(const support::H264Made& made, const std::string& how) {
  const std::size_t size = made.stream.size();
  std::vector<std::size_t> cuts = {0};
  if (how == "unit") return made.units;
  if (how == "NAL") return support::nalStarts(made.stream);
  if (how.rfind("unit", 0) == 0) {
    // So many bytes before the end of each unit.
    for (std::size_t i = 1; i + 1 < made.units.size(); ++i)
      cuts.push_back(made.units[i] - std::stoul(how.substr(5)));
  } else if (how.rfind("random", 0) == 0) {
    std::mt19937 random(static_cast<unsigned>(std::stoul(how.substr(6))));
    while (cuts.back() + 4000 < size)
      cuts.push_back(cuts.back() + 1 + random() % (1u << (2 + random() % 11)));
  } else if (how != "whole") {
    for (std::size_t at = std::stoul(how); at < size; at += std::stoul(how)) cuts.push_back(at);
  }
  cuts.push_back(size);
  return cuts;
}

#endif  // TESSERA_TESTS_CODEC_H264FEEDING_H
