#ifndef TESSERA_PLATFORM_SRC_CODEC_KERNEL_PATIENCE_H
#define TESSERA_PLATFORM_SRC_CODEC_KERNEL_PATIENCE_H

namespace codec::kernel {

/// Milliseconds without any sign of life after which a device counts as gone. Far below the limits
/// that applications have for a frame.
constexpr unsigned patienceMs = 3000;

/// How long after the input came back its output may still follow.
constexpr unsigned graceMs = 100;

}  // namespace codec::kernel

#endif  // TESSERA_PLATFORM_SRC_CODEC_KERNEL_PATIENCE_H
