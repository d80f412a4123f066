#ifndef TESSERA_PLATFORM_SRC_IL_IMAGEDECODE_H
#define TESSERA_PLATFORM_SRC_IL_IMAGEDECODE_H

#include <vector>

#include "codec/Choice.h"
#include "il/Component.h"

namespace il {

/// OMX.broadcom.image_decode: JPEG on port 320 to planar 4:2:0 on port 321.
///
/// A picture is the bytes of the input buffers up to one flagged EOS: decoded in place where that
/// is a single buffer, gathered first where it is several. Each picture is answered by exactly one
/// filled buffer, flagged EOS and ENDOFFRAME, in its order:
///
/// - A picture of the output port's size goes straight into the next output buffer.
/// - A picture of another size, or one that the output buffer has no room for, puts its size,
///   stride (rounded to 32) and slice height (rounded to 16) into the port's definition and raises
///   OMX_EventPortSettingsChanged. It is held until the port has been disabled; the first buffer
///   that is handed over after that gets it. Pictures behind it wait.
/// - Data that cannot be decoded at all raises OMX_EventPortSettingsChanged with the definition
///   unchanged, and the next output buffer comes back empty, flagged DATACORRUPT as well. The event
///   is for a client that has found another size in the header by itself and waits for it: it
///   would wait for good. A client that found the port's own size ignores an event that it does
///   not expect; the event always comes before the buffer.
/// - A damaged picture goes as far as its data does, and is a picture like any other.
///
/// A flush of either port, and a disable of the input port, drop the picture that is held.
class ImageDecode : public Component {
 public:
  static const Kind kind;

  ImageDecode(const OMX_CALLBACKTYPE& callbacks, OMX_PTR appData);

 protected:
  OMX_ERRORTYPE adapt(const Port& port, OMX_PARAM_PORTDEFINITIONTYPE& definition) override;
  bool work(Lock& lock) override;
  bool hasWork() override;
  void discard(Lock& lock, Port& port, OMX_COMMANDTYPE reason) override;

 private:
  enum class Picture {
    None,
    Gathering,  ///< the first buffers are in, the last is not
    Opened,
    Unusable,
  };

  bool wantsInput() const;
  bool takeInput(Lock& lock);
  void gather(Lock& lock, Buffer& buffer);
  void open(Lock& lock, const OMX_U8* data, std::size_t size);
  void announceShape();
  bool fill(Lock& lock);
  void returnInput(Lock& lock);
  void discardPicture();
  OMX_U32 neededBytes();

  const std::unique_ptr<codec::ImageDecoder> decoder_ = codec::makeImageDecoder();
  Picture picture_ = Picture::None;
  std::vector<OMX_U8> gathered_;
  bool oversized_ = false;   ///< more bytes came than one picture may have
  Buffer* input_ = nullptr;  ///< the buffer that is decoded in place
  OMX_TICKS timeStamp_{};    ///< of the picture
  bool reshaping_ = false;   ///< announced, and the output port not yet disabled
};

}  // namespace il

#endif  // TESSERA_PLATFORM_SRC_IL_IMAGEDECODE_H
