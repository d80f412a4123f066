#include <tessera/FrameConversion.h>

#include "convert/FrameCopies.h"

void CopyYVYU(unsigned char* source, unsigned int sourceSize, unsigned int width,
              unsigned int height, unsigned char* destination, unsigned int capacity,
              unsigned int& outSize) {
  convert::yuyvToPaddedI420(source, sourceSize, width, height, destination, capacity);
  outSize = capacity;
}

void CopyI420(unsigned char* source, unsigned int sourceSize, unsigned int, unsigned int,
              unsigned char* destination, unsigned int capacity, unsigned int& outSize) {
  outSize = convert::copyFrame(source, sourceSize, destination, capacity);
}

void YUYVToNV12(void const* source, void* destination, int width, int height) {
  convert::yuyvToNv12(static_cast<const unsigned char*>(source),
                      static_cast<unsigned char*>(destination), width, height);
}
