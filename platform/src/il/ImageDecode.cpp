#include "il/ImageDecode.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace il {
namespace {

constexpr OMX_U32 inputPort = 320;
constexpr OMX_U32 outputPort = 321;
constexpr OMX_U32 inputBuffers = 3;
constexpr OMX_U32 defaultInputBytes = 80 * 1024;
constexpr unsigned strideMultiple = 32;
constexpr unsigned sliceMultiple = 16;

/// Beyond any picture within the decoder's limits.
constexpr std::size_t mostBytes = std::size_t{64} << 20;
constexpr unsigned largestSide = 65535;

std::vector<Port> ports() {
  std::vector<Port> both;
  both.emplace_back(inputPort, OMX_PortDomainImage, OMX_DirInput, inputBuffers,
                    std::vector<Format>{{OMX_IMAGE_CodingJPEG, OMX_COLOR_FormatUnused}});
  both.emplace_back(
      outputPort, OMX_PortDomainImage, OMX_DirOutput, 1,
      std::vector<Format>{{OMX_IMAGE_CodingUnused, OMX_COLOR_FormatYUV420PackedPlanar}});
  both[0].definition.nBufferSize = defaultInputBytes;
  return both;
}

void shape(OMX_PARAM_PORTDEFINITIONTYPE& definition, unsigned width, unsigned height) {
  OMX_IMAGE_PORTDEFINITIONTYPE& image = definition.format.image;
  image.nFrameWidth = width;
  image.nFrameHeight = height;
  image.nStride = static_cast<OMX_S32>(codec::roundUp(width, strideMultiple));
  image.nSliceHeight = codec::roundUp(height, sliceMultiple);
  definition.nBufferSize = static_cast<OMX_U32>(image.nStride) * image.nSliceHeight / 2 * 3;
}

/// Fills what a plane has beyond its picture with the last column and row, as the H.264 decoder
/// does: nothing of an older picture shows there, and no edge.
void pad(OMX_U8* plane, unsigned stride, unsigned rows, unsigned width, unsigned height) {
  for (unsigned row = 0; row < height && width < stride; ++row) {
    OMX_U8* const line = plane + std::size_t{row} * stride;
    std::memset(line + width, line[width - 1], stride - width);
  }
  OMX_U8* const last = plane + std::size_t{height - 1} * stride;
  for (unsigned row = height; row < rows; ++row)
    std::memcpy(plane + std::size_t{row} * stride, last, stride);
}

void pad(const codec::Planes& planes, unsigned sliceHeight, unsigned width, unsigned height) {
  pad(planes.y, planes.yStride, sliceHeight, width, height);
  for (OMX_U8* const plane : {planes.u, planes.v})
    pad(plane, planes.uvStride, sliceHeight / 2, (width + 1) / 2, (height + 1) / 2);
}

}  // namespace

const Kind ImageDecode::kind = {"OMX.broadcom.image_decode", "image_decode", "image_decoder.JPEG"};

ImageDecode::ImageDecode(const OMX_CALLBACKTYPE& callbacks, OMX_PTR appData)
    : Component(kind, callbacks, appData, ports()) {
  shape(output().definition, defaultWidth, defaultHeight);
}

OMX_ERRORTYPE ImageDecode::adapt(const Port& port, OMX_PARAM_PORTDEFINITIONTYPE& definition) {
  if (port.isInput()) {
    definition.nBufferSize = std::max(definition.nBufferSize, OMX_U32{1});
    return OMX_ErrorNone;
  }
  OMX_IMAGE_PORTDEFINITIONTYPE& image = definition.format.image;
  if (image.nFrameWidth > largestSide || image.nFrameHeight > largestSide ||
      image.nStride > 4 * static_cast<OMX_S32>(largestSide) || image.nSliceHeight > largestSide)
    return OMX_ErrorUnsupportedSetting;
  const auto asked = static_cast<OMX_U32>(std::max(image.nStride, OMX_S32{0}));
  const OMX_U32 stride = codec::roundUp(std::max(asked, image.nFrameWidth), strideMultiple);
  const OMX_U32 slice =
      codec::roundUp(std::max(image.nSliceHeight, image.nFrameHeight), sliceMultiple);
  const std::uint64_t bytes = std::uint64_t{stride} * slice / 2 * 3;
  if (bytes > INT32_MAX) return OMX_ErrorUnsupportedSetting;
  image.nStride = static_cast<OMX_S32>(stride);
  image.nSliceHeight = slice;
  definition.nBufferSize = std::max(definition.nBufferSize, static_cast<OMX_U32>(bytes));
  return OMX_ErrorNone;
}

bool ImageDecode::work(Lock& lock) {
  return wantsInput() ? takeInput(lock) : fill(lock);
}

bool ImageDecode::wantsInput() const {
  return picture_ == Picture::None || picture_ == Picture::Gathering;
}

bool ImageDecode::hasWork() {
  if (wantsInput()) return !input().queue.empty();
  return !output().queue.empty() && !(picture_ == Picture::Opened && reshaping_);
}

bool ImageDecode::takeInput(Lock& lock) {
  Buffer* const buffer = input().take();
  if (buffer == nullptr) return false;
  const bool last = (buffer->header.nFlags & OMX_BUFFERFLAG_EOS) != 0;
  if (picture_ == Picture::None) timeStamp_ = buffer->header.nTimeStamp;
  if (last && picture_ == Picture::None) {
    input_ = buffer;
    open(lock, buffer->data(), buffer->header.nFilledLen);
    return true;
  }
  picture_ = Picture::Gathering;
  gather(lock, *buffer);
  if (last) {
    if (oversized_) gathered_.clear();
    open(lock, gathered_.data(), gathered_.size());
  }
  return true;
}

void ImageDecode::gather(Lock& lock, Buffer& buffer) {
  const OMX_U32 size = buffer.header.nFilledLen;
  oversized_ = oversized_ || size > mostBytes - gathered_.size();
  try {
    if (!oversized_) gathered_.insert(gathered_.end(), buffer.data(), buffer.data() + size);
  } catch (const std::bad_alloc&) {
    oversized_ = true;
  }
  giveBack(lock, input(), buffer);
}

void ImageDecode::open(Lock& lock, const OMX_U8* data, std::size_t size) {
  bool opened = false;
  {
    const Unlocked unlocked(lock);
    opened = size > 0 && decoder_->open(data, size);
  }
  const OMX_IMAGE_PORTDEFINITIONTYPE& image = output().image();
  if (!opened) {
    picture_ = Picture::Unusable;
    returnInput(lock);
    raise(OMX_EventPortSettingsChanged, outputPort, 0);
    return;
  }
  picture_ = Picture::Opened;
  if (reshaping_ || image.nFrameWidth != decoder_->width() ||
      image.nFrameHeight != decoder_->height())
    announceShape();
}

void ImageDecode::announceShape() {
  shape(output().definition, decoder_->width(), decoder_->height());
  reshaping_ = output().enabled();
  raise(OMX_EventPortSettingsChanged, outputPort, 0);
}

OMX_U32 ImageDecode::neededBytes() {
  const OMX_IMAGE_PORTDEFINITIONTYPE& image = output().image();
  return static_cast<OMX_U32>(image.nStride) * image.nSliceHeight / 2 * 3;
}

/// Answers the picture at hand, once there is a buffer of the right size for it.
bool ImageDecode::fill(Lock& lock) {
  if (!hasWork()) return false;
  const bool opened = picture_ == Picture::Opened;
  const OMX_IMAGE_PORTDEFINITIONTYPE& image = output().image();
  // While the port was disabled the client may have given it yet another shape.
  if (opened &&
      (image.nFrameWidth != decoder_->width() || image.nFrameHeight != decoder_->height() ||
       output().queue.front()->header.nAllocLen < neededBytes())) {
    announceShape();
    return true;
  }
  Buffer& buffer = *output().take();
  buffer.prepare();
  const codec::Planes planes = codec::planesOf(
      buffer.header.pBuffer, static_cast<unsigned>(image.nStride), image.nSliceHeight);
  const OMX_U32 bytes = neededBytes(), sliceHeight = image.nSliceHeight;
  bool decoded = false;
  if (opened) {
    const Unlocked unlocked(lock);
    decoded = decoder_->decode(planes) != codec::ImageDecoder::Result::Unusable;
    if (decoded) pad(planes, sliceHeight, decoder_->width(), decoder_->height());
  }
  buffer.header.nFilledLen = decoded ? bytes : 0;
  buffer.header.nFlags = OMX_BUFFERFLAG_EOS | OMX_BUFFERFLAG_ENDOFFRAME |
                         (decoded ? 0u : OMX_U32{OMX_BUFFERFLAG_DATACORRUPT});
  buffer.header.nTimeStamp = timeStamp_;
  discardPicture();
  returnInput(lock);
  giveBack(lock, output(), buffer);
  return true;
}

void ImageDecode::returnInput(Lock& lock) {
  Buffer* const buffer = input_;
  input_ = nullptr;
  if (buffer != nullptr) giveBack(lock, input(), *buffer);
}

void ImageDecode::discard(Lock& lock, Port& port, OMX_COMMANDTYPE reason) {
  if (!port.isInput()) {
    if (reason != OMX_CommandFlush) reshaping_ = false;
    // A picture that is not yet complete is the input port's.
    if (reason == OMX_CommandPortDisable || picture_ == Picture::Gathering) return;
    returnInput(lock);
  }
  input_ = nullptr;
  discardPicture();
}

void ImageDecode::discardPicture() {
  picture_ = Picture::None;
  gathered_.clear();
  oversized_ = false;
}

}  // namespace il
