#ifndef TESSERA_PLATFORM_SRC_MMAL_TEXT_H
#define TESSERA_PLATFORM_SRC_MMAL_TEXT_H

#include <string>

#include "interface/mmal/mmal.h"

/// Words for the journal.
namespace mmal::text {

/// "I420 640x480 crop 0,0 640x480 rate 30/1 aspect 1/1", "H264 2000000 bit/s".
std::string format(const MMAL_ES_FORMAT_T& format);

/// "3110400 bytes FRAME_START|FRAME_END pts 40000", "event EFCH".
std::string payload(const MMAL_BUFFER_HEADER_T& buffer);

/// "JPEG_Q_FACTOR 75"; an id that the platform does not know in hexadecimal.
std::string parameter(const MMAL_PARAMETER_HEADER_T& parameter);

}  // namespace mmal::text

#endif  // TESSERA_PLATFORM_SRC_MMAL_TEXT_H
