#ifndef TESSERA_PLATFORM_SRC_CODEC_ENVIRONMENT_H
#define TESSERA_PLATFORM_SRC_CODEC_ENVIRONMENT_H

#include <cstdint>
#include <cstdlib>
#include <cstring>

/// What a user sets in the environment, read whenever it matters.
namespace codec {

/// TESSERA_THREADS: how many threads an encoder may take, 1 to 64. @return 0 where it is not set
inline unsigned threadsAsked() {
  const char* const text = std::getenv("TESSERA_THREADS");
  const long count = text != nullptr ? std::strtol(text, nullptr, 10) : 0;
  return count >= 1 && count <= 64 ? static_cast<unsigned>(count) : 0;
}

/// TESSERA_BOARD_LIMITS=1: refuse what the board would refuse, by its published figures.
inline bool hasBoardLimits() {
  const char* const text = std::getenv("TESSERA_BOARD_LIMITS");
  return text != nullptr && std::strcmp(text, "1") == 0;
}

namespace board {

constexpr std::uint64_t macroblocksAFrame = 8192;  ///< 1920 x 1088 is 8,160
constexpr std::uint64_t macroblocksASecond = 245760;
constexpr std::uint32_t bitsASecond = 25000000;

inline std::uint64_t macroblocks(std::uint32_t width, std::uint32_t height) {
  return (std::uint64_t{width} + 15) / 16 * ((std::uint64_t{height} + 15) / 16);
}

inline bool takesVideo(std::uint32_t width, std::uint32_t height) {
  return !hasBoardLimits() || macroblocks(width, height) <= macroblocksAFrame;
}

inline bool takesRate(std::uint32_t width, std::uint32_t height, double framesASecond) {
  return !hasBoardLimits() || static_cast<double>(macroblocks(width, height)) * framesASecond <=
                                  static_cast<double>(macroblocksASecond);
}

inline bool takesBitrate(std::uint32_t bits) {
  return !hasBoardLimits() || bits <= bitsASecond;
}

}  // namespace board
}  // namespace codec

#endif  // TESSERA_PLATFORM_SRC_CODEC_ENVIRONMENT_H
