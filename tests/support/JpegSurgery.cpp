#include "support/JpegSurgery.h"

#include <turbojpeg.h>

#include <algorithm>
#include <cstdlib>

namespace surgery {
namespace {

constexpr std::uint8_t baseline = 0xC0, huffmanTables = 0xC4, scan = 0xDA;

std::size_t lengthAt(const Bytes& jpeg, std::size_t at) {
  return std::size_t{jpeg[at + 2]} * 256 + jpeg[at + 3] + 2;
}

}  // namespace

std::vector<std::size_t> segments(const Bytes& jpeg, std::uint8_t code) {
  std::vector<std::size_t> found;
  for (std::size_t at = 2; at + 4 <= jpeg.size(); at += lengthAt(jpeg, at)) {
    if (jpeg[at + 1] == code) found.push_back(at);
    if (jpeg[at + 1] == scan) break;
  }
  return found;
}

Bytes insert(const Bytes& jpeg, std::size_t at, const Bytes& bytes) {
  Bytes result = jpeg;
  result.insert(result.begin() + static_cast<std::ptrdiff_t>(at), bytes.begin(), bytes.end());
  return result;
}

Bytes withoutTables(Bytes jpeg) {
  for (auto found = segments(jpeg, huffmanTables); !found.empty();
       found = segments(jpeg, huffmanTables)) {
    const auto from = jpeg.begin() + static_cast<std::ptrdiff_t>(found[0]);
    jpeg.erase(from, from + static_cast<std::ptrdiff_t>(lengthAt(jpeg, found[0])));
  }
  return jpeg;
}

Bytes withHeader(Bytes jpeg, std::size_t offset, const Bytes& bytes) {
  std::copy(bytes.begin(), bytes.end(), &jpeg.at(segments(jpeg, baseline).at(0) + offset));
  return jpeg;
}

Bytes withSize(Bytes jpeg, int width, int height) {
  const auto byte = [](int value) { return static_cast<std::uint8_t>(value); };
  return withHeader(jpeg, 5, {byte(height >> 8), byte(height), byte(width >> 8), byte(width)});
}

Bytes withScans(const Bytes& jpeg, int count) {
  const Bytes marker{0xFF, scan};
  const auto last = std::find_end(jpeg.begin(), jpeg.end() - 2, marker.begin(), marker.end());
  const Bytes repeated(last, jpeg.end() - 2);
  Bytes result(jpeg.begin(), last);
  for (int i = 0; i < count; ++i) result.insert(result.end(), repeated.begin(), repeated.end());
  result.insert(result.end(), {0xFF, 0xD9});
  return result;
}

Bytes withHiddenScans(const Bytes& grey, int before, int after) {
  const Bytes scanOfOne{0xFF, scan, 0, 8, 1, 1, 0, 0, 63, 0};
  const std::size_t frame = segments(grey, baseline).at(0), data = segments(grey, scan).at(0);
  Bytes result(grey.begin(), grey.begin() + static_cast<std::ptrdiff_t>(data));
  const auto append = [&result](const Bytes& bytes) {
    result.insert(result.end(), bytes.begin(), bytes.end());
  };
  // Two more components, and a restart interval of one block.
  result[frame + 3] = 17;
  result[frame + 9] = 3;
  result = insert(result, frame + 13, {2, 0x11, 0, 3, 0x11, 0});
  append({0xFF, 0xDD, 0, 4, 0, 1});
  append(scanOfOne);
  append({0xFF, 0x02, 0xFF});
  for (int i = 0; i < before; ++i) append(scanOfOne);
  append({0xFF, 0xDD, 0, 4, 0, 0});
  append(scanOfOne);
  append(
      Bytes(grey.begin() + static_cast<std::ptrdiff_t>(data + scanOfOne.size()), grey.end() - 2));
  for (int i = 0; i < after; ++i) append(scanOfOne);
  append({0xFF, 0xD9});
  return result;
}

Bytes cmyk(int width, int height) {
  const Bytes pixels(static_cast<std::size_t>(width) * height * 4, 100);
  const tjhandle handle = tjInitCompress();
  unsigned char* data = nullptr;
  unsigned long size = 0;
  tjCompress2(handle, pixels.data(), width, 0, height, TJPF_CMYK, &data, &size, TJSAMP_444, 80, 0);
  const Bytes jpeg(data, data + size);
  tjFree(data);
  tjDestroy(handle);
  return jpeg;
}

Bytes encodeWith(const char* variable, const char* value, const support::Image& image,
                 support::Sampling sampling) {
  setenv(variable, value, 1);
  const Bytes jpeg = support::encodeJpeg(image, sampling, 85);
  unsetenv(variable);
  return jpeg;
}

}  // namespace surgery
