#include "UnitHeaders.h"

#include <tessera/Basics.h>

#include <new>

#include "Failure.h"

namespace tool {
namespace {

bool isPlain420(int format) {
  return format == AV_PIX_FMT_NONE || format == AV_PIX_FMT_YUV420P ||
         format == AV_PIX_FMT_YUVJ420P || format == AV_PIX_FMT_GRAY8;
}

char orderOf(const AVCodecParserContext& parser) {
  switch (parser.field_order) {
    case AV_FIELD_TT:
    case AV_FIELD_TB:
      return 't';
    case AV_FIELD_BB:
    case AV_FIELD_BT:
      return 'b';
    default:
      return parser.picture_structure == AV_PICTURE_STRUCTURE_BOTTOM_FIELD ? 'b'
             : parser.picture_structure == AV_PICTURE_STRUCTURE_TOP_FIELD  ? 't'
                                                                           : 'p';
  }
}

}  // namespace

UnitHeaders::UnitHeaders(const std::string& input)
    : input_(input),
      context_(avcodec_alloc_context3(nullptr)),
      parser_(av_parser_init(AV_CODEC_ID_H264)) {
  if (!context_ || !parser_) throw std::bad_alloc();
  // What it gets are whole access units: it is asked for their headers alone.
  parser_->flags |= PARSER_FLAG_COMPLETE_FRAMES;
  context_->codec_id = AV_CODEC_ID_H264;
}

void UnitHeaders::checkPixels(int format) const {
  if (isPlain420(format)) return;
  const AVPixFmtDescriptor* description = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(format));
  throw Failure(input_ + " has " + (description ? description->name : "unknown") +
                " pictures; the decoder takes 8-bit 4:2:0 only");
}

void UnitHeaders::read(AccessUnit& unit) {
  std::uint8_t* ignored = nullptr;
  int ignoredSize = 0;
  parser_->picture_structure = AV_PICTURE_STRUCTURE_UNKNOWN;
  parser_->field_order = AV_FIELD_UNKNOWN;
  av_parser_parse2(parser_.get(), context_.get(), &ignored, &ignoredSize, unit.data,
                   static_cast<int>(unit.size), AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
  checkPixels(parser_->format);
  if (parser_->width > 0 && parser_->height > 0) unit.picture = {parser_->width, parser_->height};
  const bool field = parser_->picture_structure == AV_PICTURE_STRUCTURE_TOP_FIELD ||
                     parser_->picture_structure == AV_PICTURE_STRUCTURE_BOTTOM_FIELD;
  unit.fields = parser_->picture_structure == AV_PICTURE_STRUCTURE_FRAME ? 2 : field ? 1 : 0;
  unit.order = orderOf(*parser_);
  unit.keyFrame = parser_->key_frame == 1;
  unit.missing = missingBefore(unit);
}

/// Frame numbers go up by one with every picture that later ones may refer to.
unsigned UnitHeaders::missingBefore(const AccessUnit& unit) {
  using namespace tessera::annexb;
  if (const auto found = tool::SequenceParameters::find(unit.data, unit.size)) parameters_ = found;
  std::size_t slice = NextUnit(unit.data, unit.size, 0);
  while (slice < unit.size && !IsPicture(TypeOf(unit.data, slice)))
    slice = NextUnit(unit.data, unit.size, slice);
  if (slice >= unit.size || !parameters_) return 0;

  const unsigned numbers = 1u << parameters_->frameNumBits;
  const unsigned number =
      frameNumber(unit.data + slice, unit.size - slice, parameters_->frameNumBits);
  const bool starts = TypeOf(unit.data, slice) == KeySlice || number == 0;
  unsigned missing = 0;
  if (lastReference_ && !starts && !parameters_->gapsAllowed && number != *lastReference_)
    missing = (number - *lastReference_ - 1) % numbers;
  const bool reference = (unit.data[slice] & 0x60) != 0;
  if (reference || missing > 0) lastReference_ = number;
  if (!reference && missing > 0) lastReference_ = (number - 1) % numbers;
  // A step back is another cut of the stream, not a gap of nearly all numbers.
  return missing < numbers / 2 ? missing : 0;
}

}  // namespace tool
