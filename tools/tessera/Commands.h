#ifndef TESSERA_TOOLS_COMMANDS_H
#define TESSERA_TOOLS_COMMANDS_H

#include "Arguments.h"

namespace tool {

// Each does the whole of one command and throws a Failure or a BrokenPipe where it cannot.

void jpegEncode(const Arguments& arguments);
void jpegDecode(const Arguments& arguments);
void h264Encode(const Arguments& arguments);
void h264Decode(const Arguments& arguments);
void info(const Arguments& arguments);

}  // namespace tool

#endif  // TESSERA_TOOLS_COMMANDS_H
