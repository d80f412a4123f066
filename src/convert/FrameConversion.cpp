#include <tessera/FrameConversion.h>

#include "convert/FrameCopies.h"

void CopyYVYU(unsigned char* source, unsigned int sourceSize, unsigned int width,
              unsigned int height, unsigned char* destination, unsigned int capacity,
              unsigned int& outSize) {
  convert::CopyYVYU(source, sourceSize, width, height, destination, capacity, outSize);
}

void CopyI420(unsigned char* source, unsigned int sourceSize, unsigned int width,
              unsigned int height, unsigned char* destination, unsigned int capacity,
              unsigned int& outSize) {
  convert::CopyI420(source, sourceSize, width, height, destination, capacity, outSize);
}

void YUYVToNV12(void const* source, void* destination, int width, int height) {
  convert::YUYVToNV12(static_cast<const std::uint8_t*>(source),
                      static_cast<std::uint8_t*>(destination), width, height);
}
