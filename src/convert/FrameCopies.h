#ifndef TESSERA_SRC_CONVERT_FRAMECOPIES_H
#define TESSERA_SRC_CONVERT_FRAMECOPIES_H

#include <cstdint>

namespace convert {

/// What the exported functions of these names do. The OpenMAX IL encoder has them as its own.

void CopyYVYU(unsigned char* source, unsigned int sourceSize, unsigned int width,
              unsigned int height, unsigned char* destination, unsigned int capacity,
              unsigned int& outSize);

void CopyI420(unsigned char* source, unsigned int sourceSize, unsigned int width,
              unsigned int height, unsigned char* destination, unsigned int capacity,
              unsigned int& outSize);

void YUYVToNV12(const std::uint8_t* source, std::uint8_t* destination, std::int32_t width,
                std::int32_t height);

}  // namespace convert

#endif  // TESSERA_SRC_CONVERT_FRAMECOPIES_H
