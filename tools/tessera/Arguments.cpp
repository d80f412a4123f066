#include "Arguments.h"

#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <map>

#include "Failure.h"

namespace tool {
namespace {

const std::map<std::string, PixelFormat> rgbFormats = {{"yuyv", PixelFormat::Yuyv},
                                                       {"rgb16", PixelFormat::Rgb16},
                                                       {"rgb24", PixelFormat::Rgb24},
                                                       {"rgb32", PixelFormat::Rgb32}};
const std::map<std::string, PixelFormat> videoFormats = {{"i420", PixelFormat::I420},
                                                         {"yuyv", PixelFormat::Yuyv}};
const std::map<std::string, Range> ranges = {{"full", Range::Full}, {"limited", Range::Limited}};
const std::map<std::string, Via> vias = {{"mmal", Via::Mmal}, {"omx", Via::Omx}};

constexpr char filesText[] =
    "INPUT and OUTPUT are files, or '-' for standard input and output. Exit status: 0 done,\n"
    "1 failed (OUTPUT is then absent or as it was), 2 wrong usage, 128 and the signal's number\n"
    "when interrupted (OUTPUT then holds what came before).";

/// An option whose text goes through one of the parsers below.
template <typename Value>
CLI::Option* parsed(CLI::App& app, const std::string& name, std::optional<Value>& value,
                    std::optional<Value> (*parse)(const std::string&), const std::string& shape,
                    const std::string& help) {
  const auto take = [&value, parse, name, shape](const std::string& text) {
    value = parse(text);
    if (!value)
      throw CLI::ValidationError(name, "\"" + text + "\" is wrong; " + shape + " is needed");
  };
  return app.add_option_function<std::string>(name, take, help)
      ->type_name(shape.substr(0, shape.find_first_of(", ")));
}

/// An option that is one of a few names.
template <typename Value, typename Target>
void chosen(CLI::App& app, const std::string& name, Target& target,
            const std::map<std::string, Value>& choices, const std::string& help) {
  std::string names;
  for (const auto& choice : choices) names += (names.empty() ? "" : "|") + choice.first;
  const auto take = [&target, &choices, name, names](const std::string& text) {
    const auto found = choices.find(text);
    if (found == choices.end())
      throw CLI::ValidationError(name, "\"" + text + "\" is unknown; it can be " + names);
    target = found->second;
  };
  app.add_option_function<std::string>(name, take, help)->type_name(names);
}

void addFiles(CLI::App& app, Arguments& arguments) {
  app.add_option("INPUT", arguments.input, "What to read; '-' is standard input")
      ->required()
      ->type_name("");
  app.add_option("-o,--output", arguments.output, "What to write; '-' is standard output")
      ->required()
      ->type_name("OUTPUT");
  app.add_flag("-q,--quiet", arguments.quiet, "No progress and no last line");
  app.add_flag("-v,--verbose", arguments.verbose,
               "Show what the library prints; else that is shown where the command fails");
  app.add_flag("--json", arguments.json,
               "The last line (on standard error) as a JSON object, for scripts");
}

void addFormat(CLI::App& app, Arguments& arguments,
               const std::map<std::string, PixelFormat>& formats) {
  chosen(app, "--format", arguments.format, formats, "How the pixels lie in raw frames");
}

void addVia(CLI::App& app, Arguments& arguments) {
  chosen(app, "--via", arguments.via, vias, "The platform interface to go through (default: mmal)");
}

void addRange(CLI::App& app, Arguments& arguments, const std::string& help) {
  chosen(app, "--range", arguments.range, ranges, help);
}

void addSize(CLI::App& app, Arguments& arguments, const std::string& help) {
  parsed(app, "--size", arguments.size, parseSize, "WxH, for example 1280x720", help);
}

void addJpegEncode(CLI::App& app, Arguments& arguments) {
  addSize(app, arguments, "Size of the frames in pixels");
  addFormat(app, arguments, rgbFormats);
  addRange(app, arguments,
           "Whether YUYV goes from 16 to 235 or from 0 to 255 (default: the Y4M header's, else "
           "limited)");
  addVia(app, arguments);
  addFiles(app, arguments);
  app.footer(
      "INPUT is Y4M (4:2:0), which tells its own size, or raw frames one after another without\n"
      "padding, which need --size and --format. Every frame becomes a JPEG of quality 75, and the\n"
      "JPEGs are written one after another. --via omx does not crop: its JPEGs have\n"
      "the size rounded up to multiples of 32 x 16, the edge pixels repeated.\n\n"
      "  ffmpeg -i photo.png -pix_fmt rgb24 -f rawvideo - |\n"
      "    tessera jpeg-encode --size 640x480 --format rgb24 - -o photo.jpg\n\n"
      "ffmpeg's names of the formats: yuyv422, rgb565le (rgb16), rgb24, rgba (rgb32). JPEG means\n"
      "the full range of YUV: frames of the limited one, which is what ffmpeg and most cameras\n"
      "give, are brought to it; --range full leaves them as they are.");
}

void addJpegDecode(CLI::App& app, Arguments& arguments) {
  addSize(app, arguments, "Size of a picture whose header does not tell it");
  app.add_flag("--keep-going", arguments.keepGoing,
               "Leave out pictures that cannot be decoded, instead of failing");
  addFiles(app, arguments);
  app.footer(
      "INPUT is a JPEG, or many one after another (MJPEG). OUTPUT.y4m and '-' are Y4M,\n"
      "OUTPUT.i420 and OUTPUT.yuv planes of 4:2:0, chroma rounded up at odd sizes. Pictures of\n"
      "different sizes fit into planes only.\n\n"
      "  tessera jpeg-decode photo.jpg -o photo.y4m\n"
      "  tessera jpeg-decode camera.mjpeg -o - | ffplay -");
}

void addH264Encode(CLI::App& app, Arguments& arguments) {
  addSize(app, arguments, "Size of raw frames in pixels");
  addFormat(app, arguments, videoFormats);
  addRange(app, arguments,
           "Whether the frames go from 16 to 235 or from 0 to 255, which the stream then tells\n"
           "(default: the Y4M header's, else limited)");
  parsed(app, "--rate", arguments.rate, parseRatio, "N/D, for example 30 or 30000/1001",
         "Frames a second (default: the Y4M header's, else 25 for Y4M, 30 for raw frames)");
  parsed(app, "--aspect", arguments.aspect, parseRatio, "N/D, for example 4/3",
         "Pixel aspect ratio (default: the Y4M header's, else 1/1)");
  parsed(app, "--bitrate", arguments.bitrate, parseBitrate,
         "BPS from 1000 to 1000M, for example 4M or 500k",
         "Bits a second to aim at (default: fits size and rate)");
  addVia(app, arguments);
  addFiles(app, arguments);
  app.footer(
      "INPUT is Y4M (4:2:0), which tells its own size and rate, or raw frames one after another\n"
      "without padding, which need --size and --format. OUTPUT.mp4, .mkv, .ts and whatever\n"
      "else libavformat can put H.264 into become such files; OUTPUT.h264, .264 and '-' the bare\n"
      "stream. Killed half-way, .h264, .mkv and .ts leave a part that can be played.\n\n"
      "  ffmpeg -i any.mp4 -f yuv4mpegpipe -pix_fmt yuv420p - | tessera h264-encode - -o out.mp4\n"
      "  tessera h264-encode --size 640x480 --format yuyv --rate 15 camera.yuyv -o camera.h264");
}

void addH264Decode(CLI::App& app, Arguments& arguments) {
  app.add_flag("--low-delay", arguments.lowDelay,
               "Begin at once, also with a container, instead of looking into it first");
  addFiles(app, arguments);
  app.footer(
      "INPUT is a bare H.264 stream or any container that libavformat opens; its first H.264\n"
      "stream is decoded, every picture in presentation order. OUTPUT.y4m and '-' are Y4M,\n"
      "OUTPUT.i420 and OUTPUT.yuv planes of 4:2:0.\n\n"
      "  tessera h264-decode any.mp4 -o any.y4m\n"
      "  tessera h264-decode stream.264 -o - | ffplay -");
}

void checkTogether(const Arguments& arguments) {
  const bool encodes =
      arguments.command == Command::JpegEncode || arguments.command == Command::H264Encode;
  if (encodes && arguments.size && !arguments.format)
    throw CLI::ValidationError("--size WxH", "goes with --format NAME");
  if (encodes && arguments.format && !arguments.size)
    throw CLI::ValidationError("--format", "goes with --size WxH");
}

/// The first option that a command does not have. The parser would rather miss the INPUT that it
/// took for the option's value.
std::string unknownOption(const CLI::App& app, int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word == "--") break;
    if (word.size() < 2 || word[0] != '-') continue;
    std::string name = word[1] == '-' ? word.substr(0, word.find('=')) : word.substr(0, 2);
    if (!app.get_option_no_throw(name)) return name;
    const CLI::Option* option = app.get_option_no_throw(name);
    if (option->get_items_expected_max() > 0) ++i;  // its value may begin with a dash
  }
  return "";
}

}  // namespace

const char* nameOf(Command command) {
  constexpr const char* names[] = {"jpeg-encode", "jpeg-decode", "h264-encode", "h264-decode",
                                   "info"};
  return names[static_cast<int>(command)];
}

std::optional<FrameSize> parseSize(const std::string& text) {
  FrameSize size;
  int end = 0;
  if (std::sscanf(text.c_str(), "%5d%*1[xX]%5d%n", &size.width, &size.height, &end) != 2 ||
      static_cast<std::size_t>(end) != text.size())
    return std::nullopt;
  if (size.width < 1 || size.height < 1 || size.width > largestSide || size.height > largestSide)
    return std::nullopt;
  return size;
}

std::optional<Ratio> parseRatio(const std::string& text) {
  Ratio ratio;
  char divider = 0;
  int end = 0;
  const auto whole = [&] { return static_cast<std::size_t>(end) == text.size(); };
  if (std::sscanf(text.c_str(), "%9u%c%9u%n", &ratio.num, &divider, &ratio.den, &end) == 3 &&
      (divider == '/' || divider == ':') && whole())
    return ratio.num > 0 && ratio.den > 0 ? std::optional<Ratio>(ratio) : std::nullopt;

  double value = 0;
  if (std::sscanf(text.c_str(), "%9lf%n", &value, &end) != 1 || !whole() || !(value > 0) ||
      value > 1e6)
    return std::nullopt;
  // 23.976, 29.97, 59.94: what people write for the rates of analogue television.
  const double ntsc = std::round(value * 1.001);
  if (value != std::round(value) && std::abs(value - ntsc / 1.001) < 0.005)
    return Ratio{static_cast<unsigned>(ntsc) * 1000, 1001};
  if (value == std::round(value)) return Ratio{static_cast<unsigned>(value), 1};
  const auto thousandths = static_cast<unsigned>(std::lround(value * 1000));
  return thousandths > 0 ? std::optional<Ratio>(Ratio{thousandths, 1000}) : std::nullopt;
}

std::optional<unsigned> parseBitrate(const std::string& text) {
  double value = 0;
  int end = 0;
  if (std::sscanf(text.c_str(), "%12lf%n", &value, &end) != 1) return std::nullopt;
  const std::string unit = text.substr(static_cast<std::size_t>(end));
  if (unit == "k" || unit == "K")
    value *= 1e3;
  else if (unit == "m" || unit == "M")
    value *= 1e6;
  else if (!unit.empty())
    return std::nullopt;
  if (!(value >= 1e3) || value > 1e9) return std::nullopt;
  return static_cast<unsigned>(value);
}

std::optional<Arguments> parseArguments(int argc, char** argv, int& status) {
  Arguments arguments;
  CLI::App app("JPEG and H.264 through the GPU's codecs, or the software platform's.", "tessera");
  app.set_version_flag("--version", "tessera " TESSERA_VERSION);
  app.require_subcommand(1);
  app.footer(std::string(filesText) + "\n'tessera COMMAND --help' tells the rest.");

  const std::pair<Command, const char*> commands[] = {
      {Command::JpegEncode, "Raw frames to JPEG"},
      {Command::JpegDecode, "JPEG to planar 4:2:0"},
      {Command::H264Encode, "Raw frames or Y4M to H.264"},
      {Command::H264Decode, "H.264 to planar 4:2:0"},
      {Command::Info, "What platform is there and which of the codecs work"}};
  void (*const options[])(CLI::App&, Arguments&) = {
      addJpegEncode, addJpegDecode, addH264Encode, addH264Decode,
      [](CLI::App& info, Arguments& a) { info.add_flag("--json", a.json, "As a JSON object"); }};
  for (const auto& [command, help] : commands) {
    CLI::App* sub = app.add_subcommand(nameOf(command), help);
    options[static_cast<int>(command)](*sub, arguments);
    sub->callback([&arguments, which = command] {
      arguments.command = which;
      checkTogether(arguments);
    });
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& answer) {
    status = app.exit(answer) == 0 && std::cout.flush() ? ExitDone : ExitFailed;
    return std::nullopt;
  } catch (const CLI::ParseError& error) {
    const auto known = app.get_subcommands();
    const std::string command = known.empty() ? "" : known.front()->get_name() + " ";
    std::string what = error.what();
    const std::string option = unknownOption(known.empty() ? app : *known.front(), argc, argv);
    if (!option.empty()) what = "unknown option " + option;
    if (known.empty() && argc > 1 && argv[1][0] != '-')
      what = std::string("unknown command ") + argv[1];
    std::fprintf(stderr, "tessera: %s\nSee: tessera %s--help\n", what.c_str(), command.c_str());
    status = ExitUsage;
    return std::nullopt;
  }
  return arguments;
}

}  // namespace tool
