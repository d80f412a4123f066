#include "il/ImageEncode.h"

#include <algorithm>
#include <cstring>

namespace il {
namespace {

constexpr OMX_U32 inputPort = 340;
constexpr OMX_U32 outputPort = 341;

/// What libjpeg takes.
constexpr OMX_U32 largestSide = 65500;

/// A JPEG at its worst: four bytes a pixel of the whole blocks, and its headers.
constexpr std::uint64_t worstBytesPerPixel = 4;
constexpr std::uint64_t headerBytes = 4096;
constexpr unsigned blockSide = 16;

codec::PixelFormat pixelFormat(OMX_COLOR_FORMATTYPE colour) {
  switch (colour) {
    case OMX_COLOR_Format16bitRGB565:
      return codec::PixelFormat::Rgb565;
    case OMX_COLOR_Format24bitARGB1887:
      return codec::PixelFormat::Argb1887;
    case OMX_COLOR_Format32bitARGB8888:
      return codec::PixelFormat::Bgra32;
    default:
      return codec::PixelFormat::Yuyv;
  }
}

std::vector<Port> ports() {
  std::vector<Port> both;
  both.emplace_back(inputPort, OMX_PortDomainImage, OMX_DirInput, 1,
                    std::vector<Format>{{OMX_IMAGE_CodingUnused, OMX_COLOR_FormatYCbYCr},
                                        {OMX_IMAGE_CodingUnused, OMX_COLOR_Format16bitRGB565},
                                        {OMX_IMAGE_CodingUnused, OMX_COLOR_Format24bitARGB1887},
                                        {OMX_IMAGE_CodingUnused, OMX_COLOR_Format32bitARGB8888}});
  both.emplace_back(outputPort, OMX_PortDomainImage, OMX_DirOutput, 1,
                    std::vector<Format>{{OMX_IMAGE_CodingJPEG, OMX_COLOR_FormatUnused}});
  return both;
}

OMX_ERRORTYPE adaptInput(OMX_PARAM_PORTDEFINITIONTYPE& definition) {
  OMX_IMAGE_PORTDEFINITIONTYPE& image = definition.format.image;
  const OMX_U32 rowBytes =
      codec::bytesPerPixel(pixelFormat(image.eColorFormat)) * image.nFrameWidth;
  const auto asked = static_cast<OMX_U32>(std::max(image.nStride, OMX_S32{0}));
  const OMX_U32 stride = std::max(asked, rowBytes);
  const OMX_U32 slice = std::max(image.nSliceHeight, image.nFrameHeight);
  const std::uint64_t bytes = std::uint64_t{stride} * slice;
  if (bytes > INT32_MAX) return OMX_ErrorUnsupportedSetting;
  image.nStride = static_cast<OMX_S32>(stride);
  image.nSliceHeight = slice;
  definition.nBufferSize = std::max(definition.nBufferSize, static_cast<OMX_U32>(bytes));
  return OMX_ErrorNone;
}

/// A buffer size left as it was read follows the frame size, down as well as up.
OMX_ERRORTYPE adaptOutput(const Port& port, OMX_PARAM_PORTDEFINITIONTYPE& definition) {
  const OMX_IMAGE_PORTDEFINITIONTYPE& image = definition.format.image;
  const std::uint64_t pixels = std::uint64_t{codec::roundUp(image.nFrameWidth, blockSide)} *
                               codec::roundUp(image.nFrameHeight, blockSide);
  const std::uint64_t bytes = pixels * worstBytesPerPixel + headerBytes;
  if (bytes > INT32_MAX) return OMX_ErrorUnsupportedSetting;
  const auto needed = static_cast<OMX_U32>(bytes);
  const bool asked = definition.nBufferSize != port.definition.nBufferSize;
  definition.nBufferSize = asked ? std::max(definition.nBufferSize, needed) : needed;
  return OMX_ErrorNone;
}

}  // namespace

const Kind ImageEncode::kind = {"OMX.broadcom.image_encode", "image_encode", "image_encoder.JPEG"};

ImageEncode::ImageEncode(const OMX_CALLBACKTYPE& callbacks, OMX_PTR appData)
    : Component(kind, callbacks, appData, ports()) {
  for (Port* const port : {&input(), &output()}) {
    port->image().nFrameWidth = defaultWidth;
    port->image().nFrameHeight = defaultHeight;
    ImageEncode::adapt(*port, port->definition);
  }
}

OMX_ERRORTYPE ImageEncode::adapt(const Port& port, OMX_PARAM_PORTDEFINITIONTYPE& definition) {
  const OMX_IMAGE_PORTDEFINITIONTYPE& image = definition.format.image;
  if (image.nFrameWidth > largestSide || image.nFrameHeight > largestSide)
    return OMX_ErrorUnsupportedSetting;
  return port.isInput() ? adaptInput(definition) : adaptOutput(port, definition);
}

OMX_ERRORTYPE ImageEncode::getOwnParameter(OMX_INDEXTYPE index, OMX_PTR structure) {
  if (index != OMX_IndexParamQFactor) return OMX_ErrorUnsupportedIndex;
  const OMX_ERRORTYPE error = check<OMX_IMAGE_PARAM_QFACTORTYPE>(structure, &output());
  if (error == OMX_ErrorNone)
    static_cast<OMX_IMAGE_PARAM_QFACTORTYPE*>(structure)->nQFactor = quality_;
  return error;
}

OMX_ERRORTYPE ImageEncode::setOwnParameter(OMX_INDEXTYPE index, OMX_PTR structure) {
  if (index != OMX_IndexParamQFactor) return OMX_ErrorUnsupportedIndex;
  const OMX_ERRORTYPE error = check<OMX_IMAGE_PARAM_QFACTORTYPE>(structure, &output());
  if (error != OMX_ErrorNone) return error;
  const OMX_U32 quality = static_cast<OMX_IMAGE_PARAM_QFACTORTYPE*>(structure)->nQFactor;
  if (quality < 1 || quality > 100) return OMX_ErrorUnsupportedSetting;
  quality_ = quality;
  return OMX_ErrorNone;
}

codec::PackedPicture ImageEncode::pictureIn(const Buffer& buffer) {
  const OMX_IMAGE_PORTDEFINITIONTYPE& image = input().image();
  codec::PackedPicture picture;
  picture.data = buffer.data();
  picture.size = buffer.header.nFilledLen;
  picture.format = pixelFormat(image.eColorFormat);
  picture.stride = static_cast<unsigned>(image.nStride);
  picture.width = image.nFrameWidth;
  picture.height = image.nFrameHeight;
  return picture;
}

bool ImageEncode::work(Lock& lock) {
  if (!hasWork()) return false;
  Buffer& from = *input().take();
  Buffer& to = *output().take();
  to.prepare();
  const codec::PackedPicture picture = pictureIn(from);
  const auto quality = static_cast<int>(quality_);
  bool encoded = false;
  {
    const Unlocked unlocked(lock);
    encoded = encoder_->encode(picture, quality) && encoder_->size() <= to.header.nAllocLen;
    if (encoded) std::memcpy(to.header.pBuffer, encoder_->data(), encoder_->size());
  }
  to.header.nFilledLen = encoded ? static_cast<OMX_U32>(encoder_->size()) : 0;
  // A picture that could not be encoded is one that ended without data.
  to.header.nFlags = (from.header.nFlags & OMX_BUFFERFLAG_EOS) | OMX_BUFFERFLAG_ENDOFFRAME |
                     (encoded ? 0 : OMX_BUFFERFLAG_DATACORRUPT);
  to.header.nTimeStamp = from.header.nTimeStamp;
  giveBack(lock, input(), from);
  giveBack(lock, output(), to);
  return true;
}

}  // namespace il
