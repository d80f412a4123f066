#include "Y4mReader.h"

#include <cstdlib>
#include <cstring>
#include <sstream>

#include "Arguments.h"
#include "Ending.h"
#include "Failure.h"
#include "Interrupt.h"

namespace tool {
namespace {

constexpr char magic[] = "YUV4MPEG2";
constexpr std::size_t longestLine = 1024;

}  // namespace

bool Y4mReader::recognises(InputFile& input) {
  const auto& start = input.peek(sizeof magic - 1);
  return start.size() >= sizeof magic - 1 &&
         std::memcmp(start.data(), magic, sizeof magic - 1) == 0;
}

Y4mReader::Y4mReader(InputFile& input) : input_(input) {
  std::string line;
  if (!readLine(line)) throw Failure(input_.name() + " ends in the middle of its Y4M header");
  readHeader(line);
}

bool Y4mReader::readLine(std::string& line) {
  line.clear();
  char c = 0;
  while (line.size() < longestLine && input_.read(&c, 1) == 1) {
    if (c == '\n') return true;
    line += c;
  }
  return false;
}

void Y4mReader::readHeader(const std::string& line) {
  std::istringstream words(line);
  std::string word;
  words >> word;
  while (words >> word) {
    const std::string value = word.substr(1);
    switch (word[0]) {
      case 'W':
        size_.width = std::atoi(value.c_str());
        break;
      case 'H':
        size_.height = std::atoi(value.c_str());
        break;
      case 'F':
        rate_ = parseRatio(value);
        break;
      case 'A':
        aspect_ = parseRatio(value);
        break;
      case 'I':
        interlaced_ = value != "p" && value != "?";
        break;
      case 'C':
        checkColours(value);
        break;
      case 'X':
        if (value == "COLORRANGE=FULL") range_ = Range::Full;
        if (value == "COLORRANGE=LIMITED") range_ = Range::Limited;
        break;
      default:
        break;
    }
  }
  if (size_.width < 1 || size_.height < 1 || size_.width > largestSide ||
      size_.height > largestSide)
    throw Failure(input_.name() + " has a Y4M header without a usable size: \"" + line + "\"");
}

void Y4mReader::checkColours(const std::string& tag) const {
  if (tag == "420" || tag == "420jpeg" || tag == "420mpeg2" || tag == "420paldv") return;
  throw Failure(input_.name() + " has C" + tag +
                " frames; 8-bit 4:2:0 (C420) is needed. Convert with: ffmpeg -i INPUT -pix_fmt "
                "yuv420p -f yuv4mpegpipe -");
}

std::unique_ptr<Y4mReader> openY4m(const Arguments& arguments, InputFile& input) {
  const bool y4m = Y4mReader::recognises(input);
  Ending().check(0);
  if (!y4m) return nullptr;
  auto reader = std::make_unique<Y4mReader>(input);
  if (arguments.size && *arguments.size != reader->size())
    throw UsageFailure(input.name() + " is Y4M of " + reader->size().text() + ", not " +
                       arguments.size->text() + "; leave --size and --format out");
  return reader;
}

UsageFailure rawNeedsSize(const std::string& input, const std::string& formats) {
  return UsageFailure(
      input +
      " is not Y4M, and raw frames do not tell what they are: both --size WxH and --format " +
      formats + " are needed");
}

bool Y4mReader::read(std::vector<std::uint8_t>& packed) {
  std::string line;
  if (input_.peek(1).empty()) {
    if (Interrupt::signal() != 0) return false;
    if (frames_ == 0) throw Failure(input_.name() + " has a Y4M header but no frame");
    return false;
  }
  const std::string number = std::to_string(frames_ + 1);
  if (!readLine(line) || line.compare(0, 5, "FRAME") != 0) {
    if (Interrupt::signal() != 0) return false;
    throw InputCut(input_.name() + ": frame " + number +
                   " does not start with FRAME; the file is damaged");
  }
  packed.resize(frameBytes(PixelFormat::I420, size_));
  if (input_.read(packed.data(), packed.size()) < packed.size()) {
    if (Interrupt::signal() != 0) return false;
    throw InputCut(input_.name() + " ends in the middle of frame " + number);
  }
  ++frames_;
  return true;
}

}  // namespace tool
