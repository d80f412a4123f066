// The decode cycle: one picture's bytes in, one picture out, and a new output buffer in between
// when the size changes.

#include <tessera/DecoderPool.h>
#include <tessera/Diagnostics.h>
#include <tessera/JpegProbe.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <initializer_list>

#include "common/Geometry.h"
#include "common/OmxAnswers.h"

namespace {

constexpr unsigned int busyInputPollUs = 10000;
constexpr unsigned int newSizeLimitMs = 1000;
/// Announcements of a size while a fill is waited for: one late, one of the picture itself.
constexpr int mostAnnouncements = 2;

/// Bytes of a 4:2:0 picture in the padded layout.
OMX_U32 PaddedPictureBytes(std::int32_t width, std::int32_t height) {
  return PaddedWidth(static_cast<std::uint32_t>(width)) *
         PaddedHeight(static_cast<std::uint32_t>(height)) * 3 / 2;
}

/// 0 once the component has consumed the buffer; its side writes it on another thread.
OMX_U32 FilledBytes(const OMX_BUFFERHEADERTYPE& buffer) {
  return __atomic_load_n(&buffer.nFilledLen, __ATOMIC_ACQUIRE);
}

}  // namespace

unsigned char* DecoderPool::DecodeJpeg(char* jpeg, unsigned int size, int& width, int& height) {
  GetJpegWidthAndHeight(width, height, jpeg, size);
  if (width == 0 && height == 0) {
    std::puts("DecoderPool::DecodeJpeg - no baseline header found, and no size given");
    return nullptr;
  }
  if (jpeg == nullptr || size == 0) {
    std::puts("DecoderPool::DecodeJpeg - no data");
    return nullptr;
  }
  if (!ready) {
    std::puts("DecoderPool::DecodeJpeg - the pool's setup failed");
    return nullptr;
  }
  if (!CatchUp()) return nullptr;

  const bool sameSize = width == nCurrentWidth && height == nCurrentHeight;
  ForgetOmxAnswers(semPortSettingsChanged);
  if (!PassJpegToDecoder(jpeg, static_cast<int>(size))) return nullptr;
  // A picture that is no picture, or whose size was told wrong, announces no size: then the
  // component answers to the buffer that it has been given so far.
  if (!sameSize && WaitForOmxAnswer(semPortSettingsChanged, newSizeLimitMs) &&
      !TakeNewSize(width, height))
    return nullptr;
  return FetchPicture(width, height);
}

bool DecoderPool::PassJpegToDecoder(char* jpeg, int size) {
  const char* piece = jpeg;
  for (auto left = static_cast<OMX_U32>(size); left != 0;) {
    OMX_BUFFERHEADERTYPE* const buffer = NextFreeInput();
    if (buffer == nullptr) return false;
    const OMX_U32 length = std::min(left, buffer->nAllocLen);
    buffer->nFilledLen = length;
    std::memcpy(buffer->pBuffer, piece, length);
    piece += length;
    left -= length;
    buffer->nOffset = 0;
    buffer->nFlags = left == 0 ? OMX_BUFFERFLAG_EOS : 0;
    const OMX_ERRORTYPE error = OMX_EmptyThisBuffer(hDecoder, buffer);
    if (error != OMX_ErrorNone) {
      std::printf("error during empty - %s \n", OmxErrorDescription(error));
      buffer->nFilledLen = 0;
    }
  }
  return true;
}

/// The buffers are used in turn. @return null when the one whose turn it is stays with the
/// component
OMX_BUFFERHEADERTYPE* DecoderPool::NextFreeInput() {
  if (nInputBuffers == 0) return nullptr;
  using Clock = std::chrono::steady_clock;
  OMX_BUFFERHEADERTYPE* const buffer = ppInputBuffers[nNextInputBuffer];
  const auto limit = Clock::now() + std::chrono::milliseconds(omxAnswerLimitMs);
  while (FilledBytes(*buffer) != 0) {
    if (Clock::now() >= limit) {
      std::puts(" DecoderPool::DecodeJpeg - the input buffers do not come back");
      behind = true;
      return nullptr;
    }
    std::printf("pBufHeader->nFilledLen != 0");
    usleep(busyInputPollUs);
  }
  nNextInputBuffer = (nNextInputBuffer + 1) % nInputBuffers;
  return buffer;
}

/// Takes over the size that the component announced, and a buffer for it.
bool DecoderPool::TakeNewSize(int& width, int& height) {
  OMX_IMAGE_PORTDEFINITIONTYPE& image = portDef.format.image;
  // What was expected stands in should the component not tell.
  image.nFrameWidth = static_cast<OMX_U32>(width);
  image.nFrameHeight = static_cast<OMX_U32>(height);
  ReadOutputSize();
  width = nCurrentWidth;
  height = nCurrentHeight;
  return portDef.bEnabled == OMX_FALSE || RebuildOutputBuffer();
}

/// @return whether the component's picture has another size than the pool's buffer
bool DecoderPool::ReadOutputSize() {
  lastError = ReadPort(nOutputPort);
  const auto width = static_cast<std::int32_t>(portDef.format.image.nFrameWidth);
  const auto height = static_cast<std::int32_t>(portDef.format.image.nFrameHeight);
  const bool changed = width != nCurrentWidth || height != nCurrentHeight;
  nCurrentWidth = width;
  nCurrentHeight = height;
  return changed;
}

/// Replaces the output buffer by one for the current size. After a failure the next call goes on
/// with the step that failed.
bool DecoderPool::RebuildOutputBuffer() {
  if (outputPort == OutputPort::Ready) outputPort = OutputPort::Outdated;
  if (outputPort == OutputPort::Outdated) {
    if (nCompletionsOwed == 0) ForgetOmxAnswers(semCommandDone);
    if (Send(OMX_CommandPortDisable, nOutputPort) != OMX_ErrorNone) return Failed("disabled");
    outputPort = OutputPort::Disabling;
  }
  if (outputPort == OutputPort::Disabling) {
    if (!ReleaseOldBuffer()) return false;
    if (Send(OMX_CommandPortEnable, nOutputPort) != OMX_ErrorNone) return Failed("enabled");
    outputPort = OutputPort::Enabling;
  }
  if (pOutputBuffer == nullptr) {
    portDef.nBufferSize = PaddedPictureBytes(nCurrentWidth, nCurrentHeight);
    OMX_BUFFERHEADERTYPE* allocated = nullptr;
    lastError = OMX_AllocateBuffer(hDecoder, &allocated, nOutputPort, nullptr, portDef.nBufferSize);
    if (lastError != OMX_ErrorNone || allocated == nullptr) {
      errno = ENOMEM;
      std::perror("Eror allocating buffer");
      behind = true;
      return false;
    }
    pOutputBuffer = allocated;
  }
  if (!Completed("OMX_CommandPortEnable")) return false;
  outputPort = OutputPort::Ready;
  return true;
}

bool DecoderPool::ReleaseOldBuffer() {
  // The component hands a buffer back that it was filling.
  if (fillOutstanding && !Answered(semFillDone, "OMX_FillThisBuffer")) return false;
  fillOutstanding = false;
  if (pOutputBuffer != nullptr) {
    lastError = OMX_FreeBuffer(hDecoder, nOutputPort, pOutputBuffer);
    if (lastError != OMX_ErrorNone) {
      std::puts("error freeing buffer!");
      behind = true;
      return false;
    }
    pOutputBuffer = nullptr;
  }
  return Completed("OMX_CommandPortDisable");
}

/// Has the output buffer filled, and gives its pixels.
unsigned char* DecoderPool::FetchPicture(int& width, int& height) {
  if (!RequestFill()) return nullptr;
  for (int announced = 0;;) {
    const OmxAnswer answer =
        WaitForOmxAnswer(semFillDone, semPortSettingsChanged, omxAnswerLimitMs);
    if (answer == OmxAnswer::Came) break;
    if (answer == OmxAnswer::None || ++announced > mostAnnouncements) {
      Unanswered("OMX_FillThisBuffer");
      return nullptr;
    }
    if (ReadOutputSize() && (!RebuildOutputBuffer() || !RequestFill())) return nullptr;
  }
  fillOutstanding = false;
  if (pOutputBuffer->nFilledLen == 0 || (pOutputBuffer->nFlags & OMX_BUFFERFLAG_DATACORRUPT) != 0) {
    std::puts("DecoderPool::DecodeJpeg - the picture cannot be decoded");
    return nullptr;
  }
  width = nCurrentWidth;
  height = nCurrentHeight;
  return pOutputBuffer->pBuffer;
}

bool DecoderPool::RequestFill() {
  pOutputBuffer->nFilledLen = 0;
  pOutputBuffer->nFlags = 0;
  ForgetOmxAnswers(semFillDone);
  lastError = OMX_FillThisBuffer(hDecoder, pOutputBuffer);
  if (lastError == OMX_ErrorNone) return fillOutstanding = true;
  std::printf("Filling output buffer error %s \n", OmxErrorDescription(lastError));
  behind = true;
  return false;
}

/// Brings pool and component back together after a call that gave up half way: the output buffer
/// is there and of the component's size, and nothing is under way any more. The component answers a
/// flush after everything that was asked of it before.
bool DecoderPool::CatchUp() {
  if (!behind) return true;
  if (outputPort != OutputPort::Ready && !RebuildOutputBuffer()) return false;
  if (nCompletionsOwed == 0)
    for (const OMX_U32 port : {nInputPort, nOutputPort})
      if (Send(OMX_CommandFlush, port) != OMX_ErrorNone) return Failed("flushed");
  if (!Completed("OMX_CommandFlush")) return false;
  if (fillOutstanding && !Answered(semFillDone, "OMX_FillThisBuffer")) return false;
  fillOutstanding = false;
  if (ReadOutputSize() && !RebuildOutputBuffer()) return false;
  behind = false;
  return true;
}

/// Waits for all commands under way. An answer that has not come by the end of the next call either
/// is written off: the component is asked anew from then on.
bool DecoderPool::Completed(const char* command) {
  const bool secondChance = behind;
  for (; nCompletionsOwed > 0; --nCompletionsOwed) {
    if (Answered(semCommandDone, command)) continue;
    if (secondChance) nCompletionsOwed = 0;
    return false;
  }
  return true;
}

bool DecoderPool::Answered(sem_t& answer, const char* request) {
  return WaitForOmxAnswer(answer, omxAnswerLimitMs) || Unanswered(request);
}

bool DecoderPool::Unanswered(const char* request) {
  std::printf("DecoderPool::DecodeJpeg - no answer to %s\n", request);
  behind = true;
  return false;
}

bool DecoderPool::Failed(const char* what) {
  std::printf("DecoderPool::DecodeJpeg - the ports cannot be %s\n", what);
  behind = true;
  return false;
}
