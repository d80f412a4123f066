#ifndef TESSERA_PLATFORM_SRC_MMAL_VIDEODECODE_H
#define TESSERA_PLATFORM_SRC_MMAL_VIDEODECODE_H

#include "codec/Choice.h"
#include "mmal/Component.h"

namespace mmal {

/// "vc.ril.video_decode": H.264, cut anywhere, to I420 pictures in presentation order, laid out as
/// the output port's format says. While a picture waits for an output buffer, input is held.
///
/// A picture of another size than the format's crop raises the format-changed event and is kept
/// until the output port has been disabled, given the new format, and enabled again; it is then the
/// first that comes out. A client that has done nothing of the kind after half a second does not
/// follow changes: pictures of that size are then left out, so that the input runs on, and those of
/// the declared size come as before.
class VideoDecode final : public Component {
 public:
  static constexpr char publishedName[] = "vc.ril.video_decode";

  VideoDecode();

 private:
  MMAL_STATUS_T checkFormat(const Port& target, const MMAL_ES_FORMAT_T& format) const override;
  void setRequirements() override;
  std::vector<MMAL_FOURCC_T> encodings(const Port& target) const override;
  bool work() override;
  bool awaits(const Port& target) const override {
    return (pictureWaits_ || ending_) == target.isOutput();
  }
  void discard(Port& target) override;
  void lose() override;

  bool restart();
  bool takePicture();
  bool show();
  void feed(const Header& in);
  void complain();
  bool keepOrLeaveOut();
  bool announce();
  void write(Header& out, unsigned stride, unsigned sliceHeight) const;

  const std::unique_ptr<codec::VideoDecoder> decoder_ = codec::makeVideoDecoder();
  codec::VideoDecoder::Picture picture_;
  bool pictureWaits_ = false;  ///< picture_ waits to go out
  bool announced_ = false;     ///< its size was told; the output port has not been set up since
  std::chrono::steady_clock::time_point patience_;  ///< how long it is kept
  bool ending_ = false;      ///< the end of the stream is yet to be passed on
  bool failed_ = false;      ///< the decoder, and that was told
  bool complained_ = false;  ///< of this stream
  enum class Restart { No, Anew, KnowingItsSets };
  Restart restart_ = Restart::Anew;  ///< before the next input is fed
};

}  // namespace mmal

#endif  // TESSERA_PLATFORM_SRC_MMAL_VIDEODECODE_H
