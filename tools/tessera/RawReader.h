#ifndef TESSERA_TOOLS_RAWREADER_H
#define TESSERA_TOOLS_RAWREADER_H

#include "FrameSource.h"
#include "InputFile.h"

namespace tool {

/// Unpadded raw frames without any header: size and format are the user's word for it, which is
/// checked against the length of the input where that is known.
class RawReader : public FrameSource {
 public:
  RawReader(InputFile& input, PixelFormat format, FrameSize size);

  PixelFormat format() const override { return format_; }
  FrameSize size() const override { return size_; }

 protected:
  bool read(std::vector<std::uint8_t>& packed) override;

 private:
  void checkLength() const;

  InputFile& input_;
  PixelFormat format_;
  FrameSize size_;
  std::uint64_t frames_ = 0;  ///< read so far
};

}  // namespace tool

#endif  // TESSERA_TOOLS_RAWREADER_H
