#ifndef TESSERA_PLATFORM_SRC_MMAL_IMAGEENCODE_H
#define TESSERA_PLATFORM_SRC_MMAL_IMAGEENCODE_H

#include "codec/Choice.h"
#include "mmal/Component.h"

namespace mmal {

/// "vc.ril.image_encode": every input buffer is a picture, and becomes a JPEG in one output buffer,
/// flagged end of stream. An output buffer that is too small gets what it holds; the rest follows
/// in the next ones, and the last carries the flag.
class ImageEncode final : public Component {
 public:
  static constexpr char publishedName[] = "vc.ril.image_encode";

  ImageEncode();

 private:
  MMAL_STATUS_T checkFormat(const Port& target, const MMAL_ES_FORMAT_T& format) const override;
  void setRequirements() override;
  MMAL_STATUS_T setOwnParameter(Port& target, const MMAL_PARAMETER_HEADER_T& parameter) override;
  MMAL_STATUS_T getOwnParameter(Port& target, MMAL_PARAMETER_HEADER_T& parameter) override;
  std::vector<MMAL_FOURCC_T> encodings(const Port& target) const override;
  bool work() override;
  bool awaits(const Port& target) const override { return ready_ == target.isOutput(); }
  void discard(Port& target) override;

  bool encode(const Header& in);
  void write(Header& out);

  const std::unique_ptr<codec::ImageEncoder> encoder_ = codec::makeImageEncoder();
  std::uint32_t quality_ = 85;  ///< guarded by the component's lock
  std::size_t written_ = 0;     ///< bytes of the JPEG handed out
  bool ready_ = false;          ///< there is a JPEG to hand out
  std::int64_t pts_ = MMAL_TIME_UNKNOWN;
};

}  // namespace mmal

#endif  // TESSERA_PLATFORM_SRC_MMAL_IMAGEENCODE_H
