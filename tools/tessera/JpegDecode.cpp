#include <tessera/DecoderPool.h>

#include <memory>

#include "Commands.h"
#include "Ending.h"
#include "Failure.h"
#include "InputFile.h"
#include "Interrupt.h"
#include "JpegSplitter.h"
#include "OutputFile.h"
#include "PictureWriter.h"
#include "Progress.h"

namespace tool {
namespace {

struct PoolRelease {
  void operator()(DecoderPool* pool) const { ReleaseDecoderPool(pool); }
};
using Pool = std::unique_ptr<DecoderPool, PoolRelease>;

/// JPEGs are of the full range with centred chroma, and tell no rate.
PictureWriter::Header jpegHeader() {
  PictureWriter::Header header;
  header.fullRange = true;
  header.chromaCentred = true;
  return header;
}

class JpegDecoding {
 public:
  JpegDecoding(const Arguments& arguments, InputFile& input, OutputFile& output,
               PictureWriter::Kind kind)
      : arguments_(arguments),
        input_(input),
        output_(output),
        writer_(output, kind, jpegHeader()),
        progress_(arguments),
        pool_(GetDecoderPool()) {}

  void run() {
    JpegSplitter splitter(input_);
    JpegPiece piece;
    while (splitter.next(piece)) {
      if (!piece.complete && Interrupt::signal() != 0) break;
      ++number_;
      decode(piece);
    }
    const Ending ending;
    ending.check(progress_.frames());
    if (splitter.isEmpty()) throw Failure(input_.name() + " is empty");
    if (number_ == 0)
      throw Failure(input_.name() + " holds no JPEG: no start marker (FF D8) in it");
    if (progress_.frames() == 0)
      throw Failure("none of the pictures in " + input_.name() + " can be decoded");
    if (splitter.strayBytes() > 0)
      progress_.warn(std::to_string(splitter.strayBytes()) + " bytes of " + input_.name() +
                     " belong to no picture; they were passed over");
    pool_.reset();
    output_.commit();
    progress_.finish({size_, input_.position(), output_.bytes(), leftOut_, {}});
    ending.tell(progress_.frames(), output_.name());
  }

 private:
  std::string which() const {
    return "picture " + std::to_string(number_) + " of " + input_.name();
  }

  void decode(const JpegPiece& piece) {
    // The library's probe knows baseline headers only; for the rest it takes what it is given.
    FrameSize size = piece.picture;
    if (size.width == 0 && size.height == 0 && arguments_.size) size = *arguments_.size;
    const unsigned char* picture =
        pool_->DecodeJpeg(reinterpret_cast<char*>(piece.data), static_cast<unsigned>(piece.size),
                          size.width, size.height);
    if (!picture) return refuse(piece);
    if (!piece.complete) progress_.warn(which() + " is cut short; the rest of it is made up");
    size_ = size;
    writer_.write(size, picture);
    progress_.frame(input_.fraction());
  }

  void refuse(const JpegPiece& piece) {
    const std::string why = piece.picture.width == 0 && !arguments_.size
                                ? ": no frame header tells its size (--size WxH can)"
                            : isBeyondDecoders(piece.picture)
                                ? " (" + piece.picture.text() + "): " + decoderLimits()
                                : " (" + piece.picture.text() + ")";
    const std::string text = which() + " cannot be decoded" + why;
    if (!arguments_.keepGoing)
      throw Failure(text + (number_ > 1 ? "; --keep-going leaves such pictures out" : ""));
    progress_.warn(text + ", left out");
    ++leftOut_;
  }

  const Arguments& arguments_;
  InputFile& input_;
  OutputFile& output_;
  PictureWriter writer_;
  Progress progress_;
  Pool pool_;
  FrameSize size_;
  std::uint64_t number_ = 0;  ///< of the picture at hand, from 1
  std::uint64_t leftOut_ = 0;
};

}  // namespace

void jpegDecode(const Arguments& arguments) {
  const PictureWriter::Kind kind = PictureWriter::kindFor(arguments.output);
  InputFile input(arguments.input);
  if (input.isSameAs(arguments.output))
    throw UsageFailure("INPUT and OUTPUT are the same file: " + arguments.output);
  OutputFile output(arguments.output);
  JpegDecoding(arguments, input, output, kind).run();
}

}  // namespace tool
