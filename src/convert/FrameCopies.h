#ifndef TESSERA_SRC_CONVERT_FRAMECOPIES_H
#define TESSERA_SRC_CONVERT_FRAMECOPIES_H

#include <cstdint>

namespace convert {

/// What CopyYVYU does, and the OpenMAX IL encoder's own copy function of that name with it.
/// Clips at the end of both buffers.
void yuyvToPaddedI420(const std::uint8_t* source, std::uint32_t sourceSize, std::uint32_t width,
                      std::uint32_t height, std::uint8_t* destination, std::uint32_t capacity);

/// Likewise for CopyI420. @return the bytes copied: the smaller of the two sizes
std::uint32_t copyFrame(const std::uint8_t* source, std::uint32_t sourceSize,
                        std::uint8_t* destination, std::uint32_t capacity);

/// Likewise for YUYVToNV12: nothing happens below width 1 or height 1.
void yuyvToNv12(const std::uint8_t* source, std::uint8_t* destination, std::int32_t width,
                std::int32_t height);

}  // namespace convert

#endif  // TESSERA_SRC_CONVERT_FRAMECOPIES_H
