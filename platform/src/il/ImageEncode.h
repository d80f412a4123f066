#ifndef TESSERA_PLATFORM_SRC_IL_IMAGEENCODE_H
#define TESSERA_PLATFORM_SRC_IL_IMAGEENCODE_H

#include "codec/Choice.h"
#include "il/Component.h"

namespace il {

/// OMX.broadcom.image_encode: packed pictures on port 340 to JPEG on port 341.
///
/// Every input buffer is a picture of the input port's size and stride; EOS on it ends nothing.
/// Every picture is answered by one output buffer with the whole JPEG, flagged ENDOFFRAME. One that
/// cannot be encoded is answered by an empty buffer flagged DATACORRUPT, without ENDOFFRAME. The
/// output port's buffer size always suffices for its frame size, at any quality.
class ImageEncode : public Component {
 public:
  static const Kind kind;

  ImageEncode(const OMX_CALLBACKTYPE& callbacks, OMX_PTR appData);

 protected:
  OMX_ERRORTYPE adapt(const Port& port, OMX_PARAM_PORTDEFINITIONTYPE& definition) override;
  OMX_ERRORTYPE getOwnParameter(OMX_INDEXTYPE index, OMX_PTR structure) override;
  OMX_ERRORTYPE setOwnParameter(OMX_INDEXTYPE index, OMX_PTR structure) override;
  bool work(Lock& lock) override;
  bool hasWork() override { return !input().queue.empty() && !output().queue.empty(); }
  void discard(Lock&, Port&, OMX_COMMANDTYPE) override {}

 private:
  codec::PackedPicture pictureIn(const Buffer& buffer);

  const std::unique_ptr<codec::ImageEncoder> encoder_ = codec::makeImageEncoder();
  OMX_U32 quality_ = 75;
};

}  // namespace il

#endif  // TESSERA_PLATFORM_SRC_IL_IMAGEENCODE_H
