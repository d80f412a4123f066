// What the decoder keeps of streams that only somebody malicious sends.

#include <gtest/gtest.h>
#include <malloc.h>

#include "codec/cpu/H264Decoder.h"
#include "support/MadeStream.h"

using support::Bytes;

namespace {

std::size_t held() {
  const auto info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

unsigned feed(codec::H264Decoder& decoder, const Bytes& bytes) {
  unsigned pictures = 0;
  codec::H264Decoder::Picture picture;
  decoder.feed(bytes.data(), bytes.size(), 0, false, true);
  while (decoder.next(picture)) ++pictures;
  return pictures;
}

/// libavcodec keeps something for each NAL unit of an access unit, whatever is in it.
TEST(H264Decoder, AFloodOfTinyUnitsPinsNoMemory) {
  constexpr std::size_t count = 150000, most = 64u << 20, afterwards = 16u << 20;
  const Bytes stream = made::pictures("iff", false).stream;
  for (const Bytes& tiny :
       {Bytes{0, 0, 1, 9}, Bytes{0, 0, 1, 0x41, 0x9a}, Bytes{0, 0, 1, 6, 0x80}}) {
    SCOPED_TRACE(static_cast<int>(tiny[3]));
    codec::H264Decoder decoder;
    ASSERT_TRUE(decoder.open(nullptr, 0));
    const std::size_t before = held();
    feed(decoder, stream);
    Bytes flood;
    for (std::size_t i = 0; i < count; ++i) flood.insert(flood.end(), tiny.begin(), tiny.end());
    feed(decoder, flood);
    EXPECT_LT(held(), before + most);
    EXPECT_GE(feed(decoder, stream), 2u);
    EXPECT_LT(held(), before + afterwards);
  }
}

}  // namespace
