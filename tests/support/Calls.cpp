#include "support/Calls.h"

#include <cstdlib>

namespace support {
namespace {

template <typename Encoder>
int encodeRgb(IJPEGEncoder& encoder, Bytes& frame, unsigned bits, int width, int height,
              Bytes& jpeg, unsigned& size) {
  return static_cast<Encoder&>(encoder).EncodeRGB(frame.data(), length(frame), bits, width, height,
                                                  jpeg.data(), length(jpeg), size);
}

}  // namespace

const JpegClass& mmalJpeg() {
  static const JpegClass kind{"CMmalJpegEncoder", true, CreateEncoderJPEG,
                              encodeRgb<CMmalJpegEncoder>};
  return kind;
}
const JpegClass& omxJpeg() {
  static const JpegClass kind{"COmxJpegEncoder", false,
                              []() -> IJPEGEncoder* { return new COmxJpegEncoder; },
                              encodeRgb<COmxJpegEncoder>};
  return kind;
}

Encoded JpegEncoder::encode(Bytes frame, Bits bits, int width, int height, unsigned capacity) {
  Encoded out{0, Bytes(capacity, poison)};
  // A negative size counts by its magnitude, for RGB.
  if (bits == 0)
    out.result = made_->EncodeYUYV(frame.data(), length(frame), width, height, out.jpeg.data(),
                                   capacity, out.size);
  else if (bits == 32)
    out.result = made_->EncodeRGB32(frame.data(), length(frame), -width, -height, out.jpeg.data(),
                                    capacity, out.size);
  else
    out.result = kind_.encodeRgb(*made_, frame, static_cast<unsigned>(bits), width, height,
                                 out.jpeg, out.size);
  if (out.result == 1) out.jpeg.resize(out.size);
  return out;
}

Bytes JpegEncoder::raw(const Image& image, Bits bits) const {
  const int width = round32(image.width), height = round16(image.height);
  if (bits == 0) return toYuyv(image, width, height);
  Bytes raw = toRgb(image, bits, width, height);
  if (kind_.mmal || bits == 16) return raw;
  // 32 bits: bytes B G R A. 24 bits: a word of 1, 8, 8 and 7 bits.
  for (std::size_t i = 0; i + 2 < raw.size(); i += static_cast<std::size_t>(bits) / 8) {
    const unsigned r = raw[i], g = raw[i + 1], b = raw[i + 2];
    const unsigned word = bits == 32 ? r << 16 | g << 8 | b : r << 15 | g << 7 | b >> 1;
    for (unsigned byte = 0; byte < 3; ++byte)
      raw[i + byte] = static_cast<std::uint8_t>(word >> (8 * byte));
  }
  return raw;
}

Image JpegEncoder::expected(const Image& image) const {
  if (kind_.mmal) return image;
  Image whole{round32(image.width), round16(image.height), {}};
  whole.rgb = toRgb(image, 24, whole.width, whole.height);
  return whole;
}

double quality(const Bytes& jpeg, const Image& picture) {
  return psnr(decodeJpegToRgb(jpeg).rgb, picture.rgb);
}

const H264Class& mmalH264() {
  static const H264Class kind{"CMmalH264Encoder", true, CreateEncoderH264};
  return kind;
}
const H264Class& omxH264() {
  static const H264Class kind{"COmxH264Encoder", false,
                              []() -> IH264Encoder* { return new COmxH264Encoder; }};
  return kind;
}

bool H264Encoder::create(const Wish& wish) {
  wish_ = wish;
  return made_->Create(wish.format, wish.width, wish.height, wish.rateNum, wish.rateDen,
                       wish.aspectNum, wish.aspectDen, wish.bitrate);
}

CodecStatus H264Encoder::feed(int t) {
  return feed(scene(std::abs(wish_.width), std::abs(wish_.height), t));
}

CodecStatus H264Encoder::feed(const Image& image) {
  Bytes raw = wish_.format == yuyv ? toYuyv(image) : padded(toYuv(image));
  return made_->ProcessInput(raw.data(), length(raw), 0, timestamp);
}

Output H264Encoder::take(unsigned capacity) {
  Output out{CodecOk, Bytes(capacity, poison)};
  out.status = made_->ProcessOutput(out.data.data(), capacity, out.size, out.flags);
  if (out.status == CodecOk) out.data.resize(out.size);
  return out;
}

Output H264Encoder::takeArray() {
  Output out;
  unsigned char* array = nullptr;
  out.status = made_->ProcessOutput(&array, out.size, out.flags);
  if (array != nullptr) out.data.assign(array, array + out.size);
  delete[] array;
  return out;
}

bool H264Encoder::collect(Video& video) {
  for (;;) {
    const Output out = video.buffers++ % 2 == 1 ? takeArray() : take();
    if (out.status != CodecOk || out.flags > 1) return false;
    video.stream.insert(video.stream.end(), out.data.begin(), out.data.end());
    if (!holdsSlice(out.data)) continue;
    video.keyFrames.push_back(out.flags == 1);
    return true;
  }
}

bool H264Encoder::works(int frames) {
  Video video;
  for (int t = 0; t < frames; ++t)
    if (feed(t) != CodecOk || !collect(video)) return false;
  return decodeH264(video.stream).pictures.size() == static_cast<std::size_t>(frames);
}

const Clip& clip(int which) {
  static const std::vector<Clip> clips = [] {
    std::vector<Clip> all;
    for (const Size& size : sizes) {
      Clip& each = all.emplace_back();
      each.made = encodeH264({size.width, size.height, 4, 0, 1, 2});
      each.pictures = decodeH264(each.made.stream).pictures;
    }
    return all;
  }();
  return clips[static_cast<std::size_t>(which)];
}

CodecStatus feed(IH264Decoder& decoder, int unit, int which) {
  const H264Made& made = clip(which).made;
  Bytes stream = made.stream;
  const auto i = static_cast<std::size_t>(unit);
  return decoder.ProcessInput(&stream[made.units[i]],
                              static_cast<unsigned>(made.units[i + 1] - made.units[i]),
                              sizes[which].width, sizes[which].height, 0, i * 40 + 40);
}

Picture take(IH264Decoder& decoder, unsigned capacity) {
  Picture out{CodecOk, Bytes(capacity, poison)};
  out.status = decoder.ProcessOutput(out.data.data(), capacity, out.size, out.width, out.height,
                                     out.timestamp);
  return out;
}

Picture takeArray(IH264Decoder& decoder) {
  Picture out;
  unsigned char* array = nullptr;
  out.status = decoder.ProcessOutput(&array, out.size, out.width, out.height, out.timestamp);
  if (array != nullptr) out.data.assign(array, array + out.size);
  delete[] array;
  return out;
}

}  // namespace support
