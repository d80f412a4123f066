#ifndef TESSERA_TOOLS_PICTUREWRITER_H
#define TESSERA_TOOLS_PICTUREWRITER_H

#include <cstdint>
#include <string>
#include <vector>

#include "FrameLayout.h"
#include "FrameSource.h"
#include "OutputFile.h"

namespace tool {

/// Writes decoded pictures, cropped: Y4M, or planar I420 one after another.
class PictureWriter {
 public:
  enum class Kind { Y4m, I420 };

  /// What a Y4M header says beside the size.
  struct Header {
    Ratio rate{25, 1};
    Ratio aspect{1, 1};
    bool fullRange = false;
    char order = 'p';            ///< p: progressive; t or b: the field that comes first
    bool chromaCentred = false;  ///< as in JPEG; otherwise left, as in H.264
  };

  /// By the output's name: .y4m and "-" (and devices) are Y4M, .i420 and .yuv are planes. Another
  /// name is a UsageFailure.
  static Kind kindFor(const std::string& output);

  PictureWriter(OutputFile& output, Kind kind, const Header& header);

  /// @param padded  the picture in the codecs' layout
  /// A size other than the first picture's is a Failure in Y4M, which has one size for all.
  void write(FrameSize size, const std::uint8_t* padded);

  Kind kind() const { return kind_; }

  /// As long as nothing has been written.
  void setOrder(char order) { header_.order = order; }

 private:
  void writeHeader(FrameSize size);

  OutputFile& output_;
  Kind kind_;
  Header header_;
  FrameSize size_;  ///< of the first picture; 0 x 0 before
  std::vector<std::uint8_t> frame_;
};

}  // namespace tool

#endif  // TESSERA_TOOLS_PICTUREWRITER_H
