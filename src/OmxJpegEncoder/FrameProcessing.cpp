// How a picture becomes a JPEG: the way of the component from Idle to Executing and back.

#include <tessera/Diagnostics.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "OmxJpegEncoder/Steps.h"
#include "common/Geometry.h"

using common::Answer;

namespace {

void PrintShortFrame(unsigned int frameSize, std::uint64_t needed) {
  std::printf("COmxJpegEncoder::Encode - frame of %u bytes, the input buffer takes %llu\n",
              frameSize, static_cast<unsigned long long>(needed));
}

}  // namespace

int COmxJpegEncoder::Encode(unsigned char* frame, unsigned int frameSize,
                            OMX_COLOR_FORMATTYPE colorFormat, int bitsPerPixel, int width,
                            int height, unsigned char* jpeg, unsigned int jpegCapacity,
                            unsigned int& jpegSize) {
  if (frame == nullptr || frameSize == 0) {
    std::puts("COmxJpegEncoder::Encode - invalid input buffer size or buffer pointer");
    return 0;
  }
  if (jpeg == nullptr || jpegCapacity == 0) {
    std::puts("COmxJpegEncoder::Encode - invalid output buffer or buffer size pointer");
    return 0;
  }
  // An answer that is still owed would be taken for the answer to a later request. A component that
  // is gone owes nothing.
  if (bAnswerOwed) {
    ReleaseHardware();
    InitializeHardware();
  }
  Steps steps(*this);
  if (!steps.HasComponent()) return 0;
  if (width <= 0 || height <= 0) {
    std::printf("COmxJpegEncoder::Encode- invalid input image size %dx%d\n", width, height);
    return 0;
  }
  const Steps::PaddedPicture picture{colorFormat, bitsPerPixel,
                                     common::PaddedWidth(common::Magnitude(width)),
                                     common::PaddedHeight(common::Magnitude(height))};
  if (frameSize < picture.Bytes()) {
    PrintShortFrame(frameSize, picture.Bytes());
    return 0;
  }
  if (!steps.SetUpPorts(picture)) return 0;

  Answer answer = steps.StartExecuting();
  common::JpegMemory memory{jpeg, jpegCapacity, jpegSize};
  if (answer == Answer::Done) {
    OMX_PARAM_PORTDEFINITIONTYPE definition;
    if (steps.driver.Ports().Read(nInputPort, definition,
                                  "COmxJpegEncoder::Encode::OMX_IndexParamPortDefinition::Input") !=
        OMX_ErrorNone)
      return 0;
    answer = steps.EncodePicture({frame, frameSize}, memory);
    if (answer != Answer::Unanswered) answer = steps.ReturnToIdle();
  }
  bAnswerOwed = answer == Answer::Unanswered;
  if (bAnswerOwed) return 0;
  jpegSize = memory.size;
  return memory.whole;
}

std::uint64_t COmxJpegEncoder::Steps::PaddedPicture::Bytes() const {
  constexpr std::uint64_t tooMany = std::uint64_t{1} << 32;
  const std::uint64_t pixels = std::uint64_t{width} * height;
  const std::uint64_t bytesPerPixel =
      bitsPerPixel < 8 ? 0 : static_cast<unsigned>(bitsPerPixel) / 8;
  return pixels >= tooMany ? tooMany : pixels * bytesPerPixel;
}

bool COmxJpegEncoder::Steps::HasComponent() const {
  if (encoder.hEncoder == nullptr) {
    std::puts("COmxJpegEncoder::Encode - encoder handle is empty");
    return false;
  }
  if (encoder.nInputPort == 0 || encoder.nOutputPort == 0) {
    std::printf("COmxJpegEncoder::Encode - invalid value for port inp[%d] out[%d]\n",
                static_cast<int>(encoder.nInputPort), static_cast<int>(encoder.nOutputPort));
    return false;
  }
  return true;
}

bool COmxJpegEncoder::Steps::SetUpPorts(const PaddedPicture& picture) {
  const int width = static_cast<int>(picture.width);
  const int height = static_cast<int>(picture.height);
  if (!encoder.SetupInputPort(picture.colorFormat, picture.bitsPerPixel, width, height)) {
    std::puts("COmxJpegEncoder::Encode - SetupInputPort failed");
    return false;
  }
  if (!encoder.SetupOutputPort(width, height, common::defaultJpegQuality)) {
    std::puts("COmxJpegEncoder::Encode - SetupOutputPort failed");
    return false;
  }
  return true;
}

Answer COmxJpegEncoder::Steps::StartExecuting() {
  Answer answer = driver.SetState(OMX_StateIdle,
                                  "CJpegHardwareEncoder::Encode::OMX_SendCommand::OMX_StateIdle");
  if (answer != Answer::Done) return answer;
  answer = driver.EnablePort(
      encoder.nInputPort, "COmxJpegEncoder::Encode::OMX_CommandPortEnable::Input", [this] {
        const bool allocated = encoder.AllocateOmxInputBuffer() != 0;
        if (!allocated) std::puts("COmxJpegEncoder::Encode - AllocateOmxInputBuffer failed");
        return allocated;
      });
  if (answer != Answer::Done) return answer;
  answer = driver.EnablePort(
      encoder.nOutputPort, "CJpegHardwareEncoder::Encode::OMX_CommandPortEnable::Output", [this] {
        const bool allocated = encoder.AllocateOmxOutputBuffer() != 0;
        if (!allocated) std::puts("COmxJpegEncoder::Encode - AllocateOmxOutputBuffer failed");
        return allocated;
      });
  if (answer != Answer::Done) return answer;
  return driver.SetState(OMX_StateExecuting,
                         "COmxJpegEncoder::Encode::OMX_CommandStateSet::OMX_StateExecuting");
}

Answer COmxJpegEncoder::Steps::EncodePicture(const common::RawFrame& frame,
                                             common::JpegMemory& jpeg) {
  OMX_BUFFERHEADERTYPE& input = *encoder.pInputBuffer;
  // The component may have made its buffer longer than the picture.
  if (frame.size < input.nAllocLen) {
    PrintShortFrame(frame.size, input.nAllocLen);
    return Answer::Refused;
  }
  std::memcpy(input.pBuffer, frame.data, input.nAllocLen);
  input.nFilledLen = input.nAllocLen;
  input.nOffset = 0;
  input.nFlags = OMX_BUFFERFLAG_EOS;
  driver.Expect(encoder.semOutputFilled);
  OMX_ERRORTYPE error = OMX_EmptyThisBuffer(encoder.hEncoder, &input);
  if (error != OMX_ErrorNone) {
    PrintOmxError("COmxJpegEncoder::Encode - signal new input buffer", error);
    return Answer::Refused;
  }
  error = OMX_FillThisBuffer(encoder.hEncoder, encoder.pOutputBuffer);
  if (error != OMX_ErrorNone) {
    PrintOmxError("COmxJpegEncoder::Encode - failed to request filling", error);
    return Answer::Refused;
  }
  const Answer filled = driver.Await(encoder.semOutputFilled, "OMX_FillThisBuffer");
  if (filled != Answer::Done) return filled;
  const OMX_BUFFERHEADERTYPE& output = *encoder.pOutputBuffer;
  if ((output.nFlags & OMX_BUFFERFLAG_ENDOFFRAME) == 0) return Answer::Done;
  if (output.nFilledLen == 0)
    std::puts("COmxJpegEncoder::Encode - the component delivered no whole picture");
  else
    jpeg.Take(output.pBuffer, output.nFilledLen);
  return Answer::Done;
}

/// Goes on after a refused flush or pause. After a refused disable it does not: the port keeps its
/// buffer.
Answer COmxJpegEncoder::Steps::ReturnToIdle() {
  Answer answer =
      driver.FlushPort(encoder.nInputPort, "COmxJpegEncoder::Encode::OMX_CommandFlush::Input");
  if (answer == Answer::Done)
    answer =
        driver.FlushPort(encoder.nOutputPort, "COmxJpegEncoder::Encode::OMX_CommandFlush::Output");
  if (answer == Answer::Unanswered) return answer;
  answer = driver.SetState(OMX_StatePause,
                           "COmxJpegEncoder::Encode::OMX_CommandStateSet::OMX_StatePause");
  if (answer == Answer::Unanswered) return answer;
  answer = driver.DisablePort(encoder.nInputPort, encoder.pInputBuffer,
                              "COmxJpegEncoder::Encode::OMX_CommandPortDisable::Input");
  if (answer != Answer::Done) return answer;
  answer = driver.DisablePort(encoder.nOutputPort, encoder.pOutputBuffer,
                              "COmxJpegEncoder::Encode::OMX_CommandPortDisable::Output");
  if (answer != Answer::Done) return answer;
  return driver.SetState(OMX_StateIdle,
                         "COmxJpegEncoder::Encode::OMX_CommandStateSet::OMX_StateIdle");
}
