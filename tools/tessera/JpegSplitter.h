#ifndef TESSERA_TOOLS_JPEGSPLITTER_H
#define TESSERA_TOOLS_JPEGSPLITTER_H

#include <cstdint>
#include <vector>

#include "FrameLayout.h"
#include "InputFile.h"

namespace tool {

/// One JPEG of a sequence.
struct JpegPiece {
  std::uint8_t* data = nullptr;  ///< valid until the next call
  std::size_t size = 0;
  FrameSize picture;     ///< as its frame header says, of whichever kind; 0 x 0 without one
  bool complete = true;  ///< false: no end marker before the next picture or the input's end
};

/// Cuts JPEGs that lie one after another. Segments are skipped by their lengths, so that pictures
/// inside them (Exif thumbnails) are not taken for pictures of the sequence; what stands between
/// two pictures is left out and counted.
class JpegSplitter {
 public:
  explicit JpegSplitter(InputFile& input);

  bool next(JpegPiece& piece);

  /// Whether the input has ended without a byte.
  bool isEmpty() const { return empty_; }

  /// Bytes left out so far that belonged to no picture; zeroes, which writers pad with, do not
  /// count.
  std::uint64_t strayBytes() const { return stray_; }

 private:
  bool have(std::size_t end);
  bool findStart();
  bool passSegment(std::size_t& at, JpegPiece& piece);
  bool passEntropyCoded(std::size_t& at);

  InputFile& input_;
  std::vector<std::uint8_t> buffer_;
  std::size_t begin_ = 0;  ///< of what has not been handed out
  std::uint64_t stray_ = 0;
  bool empty_ = true;
};

}  // namespace tool

#endif  // TESSERA_TOOLS_JPEGSPLITTER_H
