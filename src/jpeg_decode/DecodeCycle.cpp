// The decode cycle: one picture's bytes in, one picture out, and a new output buffer in between
// when the size changes.

#include <tessera/DecoderPool.h>
#include <tessera/Diagnostics.h>
#include <tessera/JpegProbe.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <initializer_list>

#include "common/Geometry.h"
#include "common/Waits.h"

using namespace common;

namespace {

constexpr unsigned int busyInputPollMs = 10;
constexpr unsigned int newSizeLimitMs = 1000;
/// All waits of a call together: with the call's own work it stays under ten seconds.
constexpr unsigned int callLimitMs = answerLimitMs - 50;
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
  if (width == 0 && height == 0) return nullptr;
  if (jpeg == nullptr || size == 0) {
    std::puts("DecoderPool::DecodeJpeg - no data");
    return nullptr;
  }
  if (!ready) {
    std::puts("DecoderPool::DecodeJpeg - the pool's setup failed");
    return nullptr;
  }
  nWaitsEnd = SteadyDeadline(callLimitMs).Moment();
  if (!CatchUp()) return nullptr;

  const bool sameSize = width == nCurrentWidth && height == nCurrentHeight;
  Empty(semPortSettingsChanged);
  if (!Feed(jpeg, size)) return nullptr;
  // A picture that is no picture, or whose size was told wrong, announces no size: then the
  // component answers to the buffer that it has been given so far.
  const SteadyDeadline announced = SteadyDeadline::At(nWaitsEnd).Within(newSizeLimitMs);
  if (!sameSize && SteadyWait(semPortSettingsChanged, announced) == WaitResult::Done &&
      !TakeNewSize(width, height))
    return nullptr;
  return FetchPicture(width, height);
}

bool DecoderPool::PassJpegToDecoder(char* jpeg, int size) {
  if (size == 0) return true;
  if (jpeg == nullptr) {
    std::puts("DecoderPool::PassJpegToDecoder - no data");
    return false;
  }
  // They are allocated in turn, so that the last one tells whether all are there.
  if (nInputBuffers == 0 || ppInputBuffers[nInputBuffers - 1] == nullptr) {
    std::puts("DecoderPool::PassJpegToDecoder - no input buffers");
    return false;
  }
  nWaitsEnd = SteadyDeadline(callLimitMs).Moment();
  Feed(jpeg, static_cast<OMX_U32>(size));
  return true;
}

/// @return false when an input buffer did not come back in time
bool DecoderPool::Feed(const char* jpeg, OMX_U32 size) {
  const char* piece = jpeg;
  for (OMX_U32 left = size; left != 0;) {
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
  OMX_BUFFERHEADERTYPE* const buffer = ppInputBuffers[nNextInputBuffer];
  const auto end = SteadyDeadline::At(nWaitsEnd);
  while (FilledBytes(*buffer) != 0) {
    if (!end.Known() || end.Passed()) {
      std::puts(" DecoderPool::DecodeJpeg - the input buffers do not come back");
      behind = true;
      return nullptr;
    }
    std::printf("pBufHeader->nFilledLen != 0");
    SleepMs(busyInputPollMs);
  }
  nNextInputBuffer = (nNextInputBuffer + 1) % nInputBuffers;
  return buffer;
}

/// Takes over the size that the component announced, and a buffer for it.
bool DecoderPool::TakeNewSize(int& width, int& height) {
  ReadOutputSize(width, height);
  width = nCurrentWidth;
  height = nCurrentHeight;
  return portDef.bEnabled == OMX_FALSE || RebuildOutputBuffer();
}

/// Should the component not tell, what was expected stands in, on a port that is enabled.
/// @return whether the component's picture has another size than the pool's buffer
bool DecoderPool::ReadOutputSize(std::int32_t expectedWidth, std::int32_t expectedHeight) {
  OMX_IMAGE_PORTDEFINITIONTYPE& image = portDef.format.image;
  image.nFrameWidth = static_cast<OMX_U32>(expectedWidth);
  image.nFrameHeight = static_cast<OMX_U32>(expectedHeight);
  portDef.bEnabled = OMX_TRUE;
  lastError = ReadPort(nOutputPort);
  const auto width = static_cast<std::int32_t>(image.nFrameWidth);
  const auto height = static_cast<std::int32_t>(image.nFrameHeight);
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
    if (nCompletionsOwed == 0) Empty(semCommandDone);
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
    const Posted answer =
        AwaitEither(semFillDone, semPortSettingsChanged, SteadyDeadline::At(nWaitsEnd));
    if (answer == Posted::First) break;
    if (answer == Posted::Neither || ++announced > mostAnnouncements) {
      Unanswered("OMX_FillThisBuffer");
      return nullptr;
    }
    if (ReadOutputSize(width, height) && (!RebuildOutputBuffer() || !RequestFill())) return nullptr;
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
  Empty(semFillDone);
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
  if (nCompletionsOwed == 0) {
    Empty(semCommandDone);
    for (const OMX_U32 port : {nInputPort, nOutputPort})
      if (Send(OMX_CommandFlush, port) != OMX_ErrorNone) return Failed("flushed");
  }
  if (!Completed("OMX_CommandFlush")) return false;
  if (fillOutstanding && !Answered(semFillDone, "OMX_FillThisBuffer")) return false;
  fillOutstanding = false;
  if (ReadOutputSize(nCurrentWidth, nCurrentHeight) && !RebuildOutputBuffer()) return false;
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
    answerLate = !secondChance;
    return false;
  }
  answerLate = false;
  return true;
}

bool DecoderPool::Answered(sem_t& answer, const char* request) {
  return SteadyWait(answer, SteadyDeadline::At(nWaitsEnd)) == WaitResult::Done ||
         Unanswered(request);
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
