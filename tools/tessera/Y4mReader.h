#ifndef TESSERA_TOOLS_Y4MREADER_H
#define TESSERA_TOOLS_Y4MREADER_H

#include <memory>
#include <optional>
#include <string>

#include "Arguments.h"
#include "Failure.h"
#include "FrameSource.h"
#include "InputFile.h"

namespace tool {

/// YUV4MPEG2 with 8-bit 4:2:0 frames. Anything else is a Failure that says how to convert it.
class Y4mReader : public FrameSource {
 public:
  /// Whether the input starts like one. Takes nothing from it.
  static bool recognises(InputFile& input);

  explicit Y4mReader(InputFile& input);

  PixelFormat format() const override { return PixelFormat::I420; }
  FrameSize size() const override { return size_; }

  /// Empty where the header says that it is not known.
  std::optional<Ratio> rate() const { return rate_; }
  std::optional<Ratio> aspect() const { return aspect_; }
  bool interlaced() const { return interlaced_; }
  std::optional<Range> range() const { return range_; }

 protected:
  bool read(std::vector<std::uint8_t>& packed) override;

 private:
  bool readLine(std::string& line);
  void readHeader(const std::string& line);
  void checkColours(const std::string& tag) const;

  InputFile& input_;
  FrameSize size_;
  std::optional<Ratio> rate_;
  std::optional<Ratio> aspect_;
  bool interlaced_ = false;
  std::optional<Range> range_;
  std::uint64_t frames_ = 0;
};

/// Opens an input that is Y4M, null where it is not. It tells its size; another one on the command
/// line is a UsageFailure.
std::unique_ptr<Y4mReader> openY4m(const Arguments& arguments, InputFile& input);

/// For raw frames of which the command line does not tell enough.
UsageFailure rawNeedsSize(const std::string& input, const std::string& formats);

}  // namespace tool

#endif  // TESSERA_TOOLS_Y4MREADER_H
