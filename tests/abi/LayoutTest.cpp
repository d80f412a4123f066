// What applications have compiled in: the fields of the six classes, the result codes and the
// signatures behind the unmangled names.

#include <gtest/gtest.h>
#include <tessera/tessera.h>

#include <cstring>
#include <type_traits>

static_assert(CodecOk == 0 && CodecNoBuffer == -1 && CodecSendFailed == 0x1000 &&
              CodecInvalidArgument == 0x1002 && CodecInvalidState == 0x1003 &&
              CodecWaitFailed == 0x1004 && CodecTimeout == 0x1005 &&
              CodecBufferTooSmall == 0x1006 && CodecStreamMismatch == 0x1009);
static_assert(std::is_same_v<decltype(GetDecoderPool), DecoderPool*()> &&
              std::is_same_v<decltype(ReleaseDecoderPool), int(DecoderPool*)> &&
              std::is_same_v<decltype(CreateEncoderJPEG), IJPEGEncoder*()> &&
              std::is_same_v<decltype(ReleaseEncoderJPEG), int(IJPEGEncoder*)> &&
              std::is_same_v<decltype(CreateEncoderH264), IH264Encoder*()> &&
              std::is_same_v<decltype(ReleaseEncoderH264), int(IH264Encoder*)> &&
              std::is_same_v<decltype(CreateH264Decoder), int(IH264Decoder**)> &&
              std::is_same_v<decltype(FreeH264Decoder), int(IH264Decoder*)>);

namespace {

/// Expects that an object's fields stand one after another behind the table of its virtual
/// operations, each at the first place that suits it, and end where they do with pointers of 64 or
/// of 32 bits.
template <class Class, class... Types>
void expectFields(std::size_t end64, std::size_t end32, Types Class::*... fields) {
  std::size_t end = sizeof(void*);
  int number = 0;
  const auto expectNext = [&](auto field, std::size_t size, std::size_t alignment) {
    std::size_t offset = 0;  // which is what a pointer to a field holds
    static_assert(sizeof offset == sizeof field);
    std::memcpy(&offset, &field, sizeof offset);
    EXPECT_EQ(offset, (end + alignment - 1) / alignment * alignment) << "field " << number;
    end = offset + size;
    ++number;
  };
  // NOLINTNEXTLINE(bugprone-sizeof-expression): of a pointer too
  (expectNext(fields, sizeof(Types), alignof(Types)), ...);
  EXPECT_EQ(end, sizeof(void*) == 8 ? end64 : end32) << number << " fields";
}

}  // namespace

/// The friend of the six classes that sees their fields.
struct TesseraTestAccess {
  static void expectLayouts() {
    using Pool = DecoderPool;
    expectFields(292, 204, &Pool::semCommandDone, &Pool::semFillDone, &Pool::semPortSettingsChanged,
                 &Pool::hDecoder, &Pool::portParam, &Pool::lastError, &Pool::portDef,
                 &Pool::pOutputBuffer, &Pool::nInputBuffers, &Pool::ppInputBuffers,
                 &Pool::nInputPort, &Pool::nOutputPort, &Pool::nCurrentWidth, &Pool::nCurrentHeight,
                 &Pool::nNextInputBuffer);
    using Jpeg = CMmalJpegEncoder;
    expectFields(96, 52, &Jpeg::pWrapper, &Jpeg::pInputPort, &Jpeg::pOutputPort,
                 &Jpeg::pInputBuffer, &Jpeg::pOutputBuffer, &Jpeg::nLastStatus, &Jpeg::semaphore,
                 &Jpeg::nWidth, &Jpeg::nHeight);
    using OmxJpeg = COmxJpegEncoder;
    expectFields(168, 88, &OmxJpeg::semStateChanged, &OmxJpeg::semPortEnableDisable,
                 &OmxJpeg::semFlushed, &OmxJpeg::semOutputFilled, &OmxJpeg::hEncoder,
                 &OmxJpeg::pInputBuffer, &OmxJpeg::pOutputBuffer, &OmxJpeg::nInputPort,
                 &OmxJpeg::nOutputPort);
    using Omx = COmxH264Encoder;
    expectFields(184, 100, &Omx::semStateChanged, &Omx::semPortEnableDisable, &Omx::semFlushed,
                 &Omx::semOutputFilled, &Omx::hEncoder, &Omx::pInputBuffer, &Omx::pOutputBuffer,
                 &Omx::nInputPort, &Omx::nOutputPort, &Omx::nWidth, &Omx::nHeight,
                 &Omx::pfnCopyFrame);
    using Mmal = CMmalH264Encoder;
    expectFields(120, 64, &Mmal::pComponent, &Mmal::pOutputQueue, &Mmal::pInputPool,
                 &Mmal::pOutputPool, &Mmal::semInput, &Mmal::semOutput, &Mmal::nWidth,
                 &Mmal::nHeight, &Mmal::pfnCopyFrame);
    using Decoder = CMmalH264Decoder;
    constexpr std::size_t lock = sizeof Decoder::lock;  // 40 bytes on a PC, 48 on 64-bit ARM
    expectFields(120 + lock, 68 + lock, &Decoder::pComponent, &Decoder::pFrameQueue,
                 &Decoder::pInputPool, &Decoder::pOutputPool, &Decoder::semInput,
                 &Decoder::semOutput, &Decoder::nStreamWidth, &Decoder::nStreamHeight,
                 &Decoder::nPictureWidth, &Decoder::nPictureHeight, &Decoder::lock);
  }
};

TEST(Layout, FieldsOfTheClassesStandInTheirOrderBehindTheTable) {
  TesseraTestAccess::expectLayouts();
}
