#ifndef TESSERA_PLATFORM_SRC_CODEC_REPORT_H
#define TESSERA_PLATFORM_SRC_CODEC_REPORT_H

#include <string>

namespace codec {

/// The devices of this system and which coder is taken for what, as JSON.
std::string codecReport();

}  // namespace codec

#endif  // TESSERA_PLATFORM_SRC_CODEC_REPORT_H
