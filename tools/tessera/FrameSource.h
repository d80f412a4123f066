#ifndef TESSERA_TOOLS_FRAMESOURCE_H
#define TESSERA_TOOLS_FRAMESOURCE_H

#include <cstdint>
#include <vector>

#include "FrameLayout.h"

namespace tool {

/// A fraction such as a frame rate or a pixel's aspect ratio.
struct Ratio {
  unsigned num = 1;
  unsigned den = 1;

  double value() const { return static_cast<double>(num) / den; }
};

/// Which values stand for black and white: 16 and 235 (limited, video's) or 0 and 255 (full,
/// JPEG's).
enum class Range { Limited, Full };

/// Raw frames, one after another.
class FrameSource {
 public:
  enum class Layout {
    Packed,  ///< without padding: frameBytes(format(), size())
    Padded,  ///< as the codecs want them: frameBytes(format(), size().rounded()), see layOut()
  };

  virtual ~FrameSource() = default;

  virtual PixelFormat format() const = 0;
  virtual FrameSize size() const = 0;

  /// Reads the next frame. @return false at the end of the input; a frame cut short is a Failure
  bool next(std::vector<std::uint8_t>& frame, Layout layout) {
    // Where nothing is to be padded the frame is read into its place.
    if (layout == Layout::Packed || size() == size().rounded()) return read(frame);
    if (!read(packed_)) return false;
    frame.resize(frameBytes(format(), size().rounded()));
    layOut(format(), size(), packed_.data(), frame.data());
    return true;
  }

 protected:
  virtual bool read(std::vector<std::uint8_t>& packed) = 0;

 private:
  std::vector<std::uint8_t> packed_;
};

}  // namespace tool

#endif  // TESSERA_TOOLS_FRAMESOURCE_H
