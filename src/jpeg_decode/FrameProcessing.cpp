// The decode cycle: one picture's bytes in, one picture out, and a new output buffer in between
// when the size changes.

#include <tessera/Diagnostics.h>
#include <tessera/JpegProbe.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <initializer_list>

#include "common/Geometry.h"
#include "common/Waits.h"
#include "jpeg_decode/Steps.h"

namespace {

/// Nothing is posted when an input buffer comes back: its length is looked at.
constexpr unsigned int busyInputPollMs = 10;
/// A new size is announced as soon as the header has been read, unless the picture is damaged.
constexpr unsigned int newSizeLimitMs = 1000;
/// All waits of a call together; the rest of the ten seconds is for the call's own work.
constexpr unsigned int callLimitMs = common::answerLimitMs - 50;
/// How many announcements of a size a fill may meet: a late one of the picture before, and its own.
constexpr int mostAnnouncements = 2;

/// Bytes of a 4:2:0 picture in the padded layout.
OMX_U32 PaddedPictureBytes(const common::PictureSize& size) {
  return common::PaddedWidth(static_cast<std::uint32_t>(size.width)) *
         common::PaddedHeight(static_cast<std::uint32_t>(size.height)) * 3 / 2;
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
  if (!bReady) {
    std::puts("DecoderPool::DecodeJpeg - the pool's setup failed");
    return nullptr;
  }
  common::PictureSize pictureSize{width, height};
  unsigned char* const picture = Steps(*this).Decode(jpeg, size, pictureSize);
  width = pictureSize.width;
  height = pictureSize.height;
  return picture;
}

/// @param pictureSize  what is expected; receives what the component tells
unsigned char* DecoderPool::Steps::Decode(const char* jpeg, OMX_U32 size,
                                          common::PictureSize& pictureSize) {
  pool.nWaitsEnd = common::SteadyDeadline(callLimitMs).Moment();
  if (!CatchUp()) return nullptr;

  const bool sameSize = pictureSize == CurrentSize();
  common::Empty(pool.semPortSettingsChanged);
  if (!Feed(jpeg, size)) return nullptr;
  // No size is announced by data that is no picture, nor by a picture that has the buffer's size
  // when the caller told another. The fill is asked for with the buffer there is, then.
  const auto announced = common::SteadyDeadline::At(pool.nWaitsEnd).Within(newSizeLimitMs);
  if (!sameSize &&
      common::SteadyWait(pool.semPortSettingsChanged, announced) == common::WaitResult::Done &&
      !TakeNewSize(pictureSize))
    return nullptr;
  return FetchPicture(pictureSize);
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
  nWaitsEnd = common::SteadyDeadline(callLimitMs).Moment();
  Steps(*this).Feed(jpeg, static_cast<OMX_U32>(size));
  return true;
}

/// @return false when an input buffer did not come back in time
bool DecoderPool::Steps::Feed(const char* jpeg, OMX_U32 size) {
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
    const OMX_ERRORTYPE error = OMX_EmptyThisBuffer(pool.hDecoder, buffer);
    if (error != OMX_ErrorNone) {
      std::printf("error during empty - %s \n", OmxErrorDescription(error));
      buffer->nFilledLen = 0;
    }
  }
  return true;
}

/// The buffers are used in turn. @return null when the one whose turn it is stays with the
/// component
OMX_BUFFERHEADERTYPE* DecoderPool::Steps::NextFreeInput() {
  OMX_BUFFERHEADERTYPE* const buffer = pool.ppInputBuffers[pool.nNextInputBuffer];
  const auto end = common::SteadyDeadline::At(pool.nWaitsEnd);
  while (FilledBytes(*buffer) != 0) {
    if (!end.Known() || end.Passed()) {
      std::puts(" DecoderPool::DecodeJpeg - the input buffers do not come back");
      pool.bOutOfStep = true;
      return nullptr;
    }
    std::printf("pBufHeader->nFilledLen != 0");
    common::SleepMs(busyInputPollMs);
  }
  pool.nNextInputBuffer = (pool.nNextInputBuffer + 1) % pool.nInputBuffers;
  return buffer;
}

/// Takes over the size that the component announced, and a buffer for it.
bool DecoderPool::Steps::TakeNewSize(common::PictureSize& pictureSize) {
  ReadOutputSize(pictureSize);
  pictureSize = CurrentSize();
  return pool.portDef.bEnabled == OMX_FALSE || RebuildOutputBuffer();
}

common::PictureSize DecoderPool::Steps::CurrentSize() const {
  return {pool.nCurrentWidth, pool.nCurrentHeight};
}

/// Where the component does not tell, `expected` stands in, and the port counts as enabled.
/// @return whether the component's picture has another size than the pool's buffer
bool DecoderPool::Steps::ReadOutputSize(const common::PictureSize& expected) {
  const common::PictureSize former = CurrentSize();
  OMX_IMAGE_PORTDEFINITIONTYPE& image = pool.portDef.format.image;
  image.nFrameWidth = static_cast<OMX_U32>(expected.width);
  image.nFrameHeight = static_cast<OMX_U32>(expected.height);
  pool.portDef.bEnabled = OMX_TRUE;
  pool.lastError = ReadPort(pool.nOutputPort);
  pool.nCurrentWidth = static_cast<std::int32_t>(image.nFrameWidth);
  pool.nCurrentHeight = static_cast<std::int32_t>(image.nFrameHeight);
  return !(CurrentSize() == former);
}

/// Replaces the output buffer by one for the current size. After a failure the next call goes on
/// with the step that failed.
bool DecoderPool::Steps::RebuildOutputBuffer() {
  if (pool.eOutputPort == OutputPort::Ready) pool.eOutputPort = OutputPort::Outdated;
  if (pool.eOutputPort == OutputPort::Outdated) {
    if (pool.nAnswersOwed == 0) common::Empty(pool.semCommandDone);
    if (Send(OMX_CommandPortDisable, pool.nOutputPort) != OMX_ErrorNone)
      return PortsFailed("disabled");
    pool.eOutputPort = OutputPort::Disabling;
  }
  if (pool.eOutputPort == OutputPort::Disabling) {
    if (!ReleaseOldBuffer()) return false;
    if (Send(OMX_CommandPortEnable, pool.nOutputPort) != OMX_ErrorNone)
      return PortsFailed("enabled");
    pool.eOutputPort = OutputPort::Enabling;
  }
  if (pool.pOutputBuffer == nullptr) {
    pool.portDef.nBufferSize = PaddedPictureBytes(CurrentSize());
    OMX_BUFFERHEADERTYPE* allocated = nullptr;
    pool.lastError = OMX_AllocateBuffer(pool.hDecoder, &allocated, pool.nOutputPort, nullptr,
                                        pool.portDef.nBufferSize);
    if (pool.lastError != OMX_ErrorNone || allocated == nullptr) {
      errno = ENOMEM;
      std::perror("Eror allocating buffer");
      pool.bOutOfStep = true;
      return false;
    }
    pool.pOutputBuffer = allocated;
  }
  if (!CommandsAnswered("OMX_CommandPortEnable")) return false;
  pool.eOutputPort = OutputPort::Ready;
  return true;
}

bool DecoderPool::Steps::ReleaseOldBuffer() {
  // The component hands a buffer back that it was filling.
  if (pool.bFillOwed && !Answered(pool.semFillDone, "OMX_FillThisBuffer")) return false;
  pool.bFillOwed = false;
  if (pool.pOutputBuffer != nullptr) {
    pool.lastError = OMX_FreeBuffer(pool.hDecoder, pool.nOutputPort, pool.pOutputBuffer);
    if (pool.lastError != OMX_ErrorNone) {
      std::puts("error freeing buffer!");
      pool.bOutOfStep = true;
      return false;
    }
    pool.pOutputBuffer = nullptr;
  }
  return CommandsAnswered("OMX_CommandPortDisable");
}

/// Has the output buffer filled, and gives its pixels.
unsigned char* DecoderPool::Steps::FetchPicture(common::PictureSize& pictureSize) {
  if (!RequestFill()) return nullptr;
  for (int announced = 0;;) {
    const common::Posted answer = common::AwaitEither(pool.semFillDone, pool.semPortSettingsChanged,
                                                      common::SteadyDeadline::At(pool.nWaitsEnd));
    if (answer == common::Posted::First) break;
    if (answer == common::Posted::Neither || ++announced > mostAnnouncements) {
      Unanswered("OMX_FillThisBuffer");
      return nullptr;
    }
    if (ReadOutputSize(pictureSize) && (!RebuildOutputBuffer() || !RequestFill())) return nullptr;
  }
  pool.bFillOwed = false;
  if (pool.pOutputBuffer->nFilledLen == 0 ||
      (pool.pOutputBuffer->nFlags & OMX_BUFFERFLAG_DATACORRUPT) != 0) {
    std::puts("DecoderPool::DecodeJpeg - the picture cannot be decoded");
    return nullptr;
  }
  pictureSize = CurrentSize();
  return pool.pOutputBuffer->pBuffer;
}

bool DecoderPool::Steps::RequestFill() {
  pool.pOutputBuffer->nFilledLen = 0;
  pool.pOutputBuffer->nFlags = 0;
  common::Empty(pool.semFillDone);
  pool.lastError = OMX_FillThisBuffer(pool.hDecoder, pool.pOutputBuffer);
  if (pool.lastError == OMX_ErrorNone) return pool.bFillOwed = true;
  std::printf("Filling output buffer error %s \n", OmxErrorDescription(pool.lastError));
  pool.bOutOfStep = true;
  return false;
}

/// Brings pool and component back together after a call that gave up half way: the output buffer
/// is there and of the component's size, and nothing is under way any more. The component answers a
/// flush after everything that was asked of it before.
bool DecoderPool::Steps::CatchUp() {
  if (!pool.bOutOfStep) return true;
  if (pool.eOutputPort != OutputPort::Ready) {
    // The size that the buffer was to have may have been a guess.
    ReadOutputSize(CurrentSize());
    if (!RebuildOutputBuffer()) return false;
  }
  if (pool.nAnswersOwed == 0) {
    common::Empty(pool.semCommandDone);
    for (const OMX_U32 port : {pool.nInputPort, pool.nOutputPort})
      if (Send(OMX_CommandFlush, port) != OMX_ErrorNone) return PortsFailed("flushed");
  }
  if (!CommandsAnswered("OMX_CommandFlush")) return false;
  if (pool.bFillOwed && !Answered(pool.semFillDone, "OMX_FillThisBuffer")) return false;
  pool.bFillOwed = false;
  if (ReadOutputSize(CurrentSize()) && !RebuildOutputBuffer()) return false;
  pool.bOutOfStep = false;
  return true;
}

/// Waits for all commands under way. What does not come in time is waited for once more by the next
/// call, and then written off.
bool DecoderPool::Steps::CommandsAnswered(const char* command) {
  const bool secondChance = pool.bOutOfStep;
  for (; pool.nAnswersOwed > 0; --pool.nAnswersOwed) {
    if (Answered(pool.semCommandDone, command)) continue;
    if (secondChance) pool.nAnswersOwed = 0;
    pool.bWaitedInVain = !secondChance;
    return false;
  }
  pool.bWaitedInVain = false;
  return true;
}

bool DecoderPool::Steps::Answered(sem_t& answer, const char* request) {
  return common::SteadyWait(answer, common::SteadyDeadline::At(pool.nWaitsEnd)) ==
             common::WaitResult::Done ||
         Unanswered(request);
}

bool DecoderPool::Steps::Unanswered(const char* request) {
  std::printf("DecoderPool::DecodeJpeg - no answer to %s\n", request);
  pool.bOutOfStep = true;
  return false;
}

bool DecoderPool::Steps::PortsFailed(const char* what) {
  std::printf("DecoderPool::DecodeJpeg - the ports cannot be %s\n", what);
  pool.bOutOfStep = true;
  return false;
}
