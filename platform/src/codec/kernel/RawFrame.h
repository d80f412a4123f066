#ifndef TESSERA_PLATFORM_SRC_CODEC_KERNEL_RAWFRAME_H
#define TESSERA_PLATFORM_SRC_CODEC_KERNEL_RAWFRAME_H

#include <vector>

#include "codec/Picture.h"
#include "codec/kernel/M2mDevice.h"

namespace codec::kernel {

/// The planar 4:2:0 format of those that a device offers which costs the least to fill or read;
/// 0 when there is none.
std::uint32_t planarFormat(const std::vector<std::uint32_t>& offered);

/// Writes a picture into a frame laid out as the device wants it. What the frame has beyond the
/// picture repeats its last column and row. Sets how much of the buffer is used.
/// @return false when the buffer does not hold the layout that the device told
bool writeFrame(const Format& format, const ConstPlanes& picture, unsigned width, unsigned height,
                Buffer& buffer);

/// Reads the visible part of a frame into planes of at least that size, chroma rounded up.
bool readFrame(const Format& format, const Rect& visible, const Buffer& buffer,
               const Planes& picture);

}  // namespace codec::kernel

#endif  // TESSERA_PLATFORM_SRC_CODEC_KERNEL_RAWFRAME_H
