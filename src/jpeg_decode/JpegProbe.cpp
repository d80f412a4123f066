#include <tessera/JpegProbe.h>

#include <cstddef>

namespace {

constexpr unsigned char baselineFrame = 0xC0;
constexpr std::size_t shortestPicture = 10;
/// From the 0xFF of a frame header to the end of its width.
constexpr std::size_t headerLength = 9;

}  // namespace

bool GetJpegWidthAndHeight(int& width, int& height, char* data, unsigned int size) {
  if (data == nullptr || size < shortestPicture) return false;
  const auto* const bytes = reinterpret_cast<const unsigned char*>(data);
  const auto word = [bytes](std::size_t at) { return bytes[at] * 256 + bytes[at + 1]; };

  for (std::size_t i = 2;;) {
    if (bytes[i] != 0xFF) return false;
    if (bytes[i + 1] == baselineFrame) {
      // Cut off: only with ten bytes and the header at offset 2.
      if (size - i < headerLength) return false;
      height = word(i + 5);
      width = word(i + 7);
      return true;
    }
    i += static_cast<std::size_t>(word(i + 2)) + 2;
    if (i > size - shortestPicture) return false;
  }
}
