#ifndef TESSERA_PLATFORM_SRC_CODEC_PACKEDROWS_H
#define TESSERA_PLATFORM_SRC_CODEC_PACKEDROWS_H

#include "codec/Picture.h"

namespace codec {

/// Rows of a packed picture, never a byte outside it: a row that the picture's size does not cover
/// is the last one that it does.
class PackedRows {
 public:
  explicit PackedRows(const PackedPicture& picture);

  /// Rows that the picture covers; 0 means that there is nothing to read.
  unsigned covered() const { return covered_; }

  const std::uint8_t* row(unsigned index) const;

  /// Takes a YUYV row apart into luma and chroma. An odd width's last V, where the row ends before
  /// it, is that of the pair before.
  void deinterleave(unsigned index, std::uint8_t* y, std::uint8_t* u, std::uint8_t* v) const;

  /// Expands a row of 16-bit or 1887 pixels to R G B bytes.
  void expand(unsigned index, std::uint8_t* rgb) const;

 private:
  const PackedPicture& picture_;
  unsigned covered_ = 0;
};

}  // namespace codec

#endif  // TESSERA_PLATFORM_SRC_CODEC_PACKEDROWS_H
