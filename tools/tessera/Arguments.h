#ifndef TESSERA_TOOLS_ARGUMENTS_H
#define TESSERA_TOOLS_ARGUMENTS_H

#include <optional>
#include <string>

#include "FrameSource.h"

namespace tool {

constexpr int largestSide = 65535;

enum class Command { JpegEncode, JpegDecode, H264Encode, H264Decode, Info };
enum class Via { Mmal, Omx };

/// The command line, checked as far as it can be without looking at a file.
struct Arguments {
  Command command = Command::Info;
  std::string input;
  std::string output;
  std::optional<FrameSize> size;
  std::optional<PixelFormat> format;
  std::optional<Ratio> rate;
  std::optional<Ratio> aspect;
  std::optional<unsigned> bitrate;  ///< bits a second
  Via via = Via::Mmal;
  bool keepGoing = false;
  bool quiet = false;
  bool verbose = false;  ///< the library's own lines are shown
  bool lowDelay = false;
  std::optional<Range> range;
  bool json = false;
};

const char* nameOf(Command command);

/// Reads the command line. Where it asks for help or the version, or is wrong, prints that and
/// returns nothing; `status` is then the process's exit status.
std::optional<Arguments> parseArguments(int argc, char** argv, int& status);

/// "1280x720"; empty where the text is nothing of the kind.
std::optional<FrameSize> parseSize(const std::string& text);
/// "30", "30000/1001", "30000:1001" or "29.97" (which stands for 30000/1001).
std::optional<Ratio> parseRatio(const std::string& text);
/// "4000000", "500k", "4M" or "2.5M".
std::optional<unsigned> parseBitrate(const std::string& text);

}  // namespace tool

#endif  // TESSERA_TOOLS_ARGUMENTS_H
