#ifndef TESSERA_PLATFORM_SRC_CODEC_CHOICE_H
#define TESSERA_PLATFORM_SRC_CODEC_CHOICE_H

#include <memory>

#include "codec/ImageDecoder.h"
#include "codec/ImageEncoder.h"
#include "codec/VideoDecoder.h"
#include "codec/VideoEncoder.h"

namespace codec {

enum class Codecs { Auto, Cpu, Kernel };

/// What TESSERA_CODECS says.
Codecs chosenCodecs();

// Coders for the components. Whose they are is decided when they are opened, by TESSERA_CODECS in
// the environment: "cpu", "kernel", or "auto" (also when it is not set), which takes a device of
// the kernel's that has what is asked for and otherwise the CPU.
std::unique_ptr<ImageEncoder> makeImageEncoder();
std::unique_ptr<ImageDecoder> makeImageDecoder();
std::unique_ptr<VideoEncoder> makeVideoEncoder();
std::unique_ptr<VideoDecoder> makeVideoDecoder();

}  // namespace codec

#endif  // TESSERA_PLATFORM_SRC_CODEC_CHOICE_H
