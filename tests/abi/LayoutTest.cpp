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

/// Walks through an object from behind the table of its virtual operations.
template <class Class>
class Walk {
 public:
  /// The next fields are these, all of one type, each at the first place that suits it.
  template <class Type>
  Walk& next(std::initializer_list<Type Class::*> fields) {
    for (Type Class::*const field : fields) {
      std::ptrdiff_t offset = 0;  // which is what a pointer to a field holds
      static_assert(sizeof offset == sizeof field);
      std::memcpy(&offset, &field, sizeof offset);
      const auto alignment = static_cast<std::ptrdiff_t>(alignof(Type));
      EXPECT_EQ(offset, (end_ + alignment - 1) / alignment * alignment) << "field " << number_;
      // NOLINTNEXTLINE(bugprone-sizeof-expression): of a pointer too
      end_ = offset + static_cast<std::ptrdiff_t>(sizeof(Type));
      ++number_;
    }
    return *this;
  }

 private:
  std::ptrdiff_t end_ = sizeof(void*);
  int number_ = 0;
};

using CopyFrame = void (*)(unsigned char*, unsigned, unsigned, unsigned, unsigned char*, unsigned,
                           unsigned&);

}  // namespace

/// The friend of the six classes that sees their fields.
struct TesseraTestAccess {
  static void pool() {
    using C = DecoderPool;
    Walk<C>()
        .next<sem_t>({&C::semCommandDone, &C::semFillDone, &C::semPortSettingsChanged})
        .next<OMX_HANDLETYPE>({&C::hDecoder})
        .next<OMX_PORT_PARAM_TYPE>({&C::portParam})
        .next<OMX_ERRORTYPE>({&C::lastError})
        .next<OMX_PARAM_PORTDEFINITIONTYPE>({&C::portDef})
        .next<OMX_BUFFERHEADERTYPE*>({&C::pOutputBuffer})
        .next<std::int32_t>({&C::nInputBuffers})
        .next<OMX_BUFFERHEADERTYPE**>({&C::ppInputBuffers})
        .next<std::uint32_t>({&C::nInputPort, &C::nOutputPort})
        .next<std::int32_t>({&C::nCurrentWidth, &C::nCurrentHeight, &C::nNextInputBuffer});
  }

  static void mmalJpeg() {
    using C = CMmalJpegEncoder;
    Walk<C>()
        .next<MMAL_WRAPPER_T*>({&C::pWrapper})
        .next<MMAL_PORT_T*>({&C::pInputPort, &C::pOutputPort})
        .next<MMAL_BUFFER_HEADER_T*>({&C::pInputBuffer, &C::pOutputBuffer})
        .next<MMAL_STATUS_T>({&C::nLastStatus})
        .next<sem_t>({&C::semaphore})
        .next<std::int32_t>({&C::nWidth, &C::nHeight});
  }

  /// What both OpenMAX encoders start with.
  template <typename C>
  static Walk<C> omxEncoder() {
    return Walk<C>()
        .template next<sem_t>(
            {&C::semStateChanged, &C::semPortEnableDisable, &C::semFlushed, &C::semOutputFilled})
        .template next<OMX_HANDLETYPE>({&C::hEncoder})
        .template next<OMX_BUFFERHEADERTYPE*>({&C::pInputBuffer, &C::pOutputBuffer})
        .template next<std::uint32_t>({&C::nInputPort, &C::nOutputPort});
  }

  static void omxH264() {
    using C = COmxH264Encoder;
    omxEncoder<C>()
        .next<std::uint32_t>({&C::nWidth, &C::nHeight})
        .next<CopyFrame>({&C::pfnCopyFrame});
  }

  static void mmalH264Encoder() {
    using C = CMmalH264Encoder;
    Walk<C>()
        .next<MMAL_COMPONENT_T*>({&C::pComponent})
        .next<MMAL_QUEUE_T*>({&C::pOutputQueue})
        .next<MMAL_POOL_T*>({&C::pInputPool, &C::pOutputPool})
        .next<sem_t>({&C::semInput, &C::semOutput})
        .next<std::uint32_t>({&C::nWidth, &C::nHeight})
        .next<CopyFrame>({&C::pfnCopyFrame});
  }

  static void mmalH264Decoder() {
    using C = CMmalH264Decoder;
    Walk<C>()
        .next<MMAL_COMPONENT_T*>({&C::pComponent})
        .next<MMAL_QUEUE_T*>({&C::pFrameQueue})
        .next<MMAL_POOL_T*>({&C::pInputPool, &C::pOutputPool})
        .next<sem_t>({&C::semInput, &C::semOutput})
        .next<std::int32_t>({&C::nStreamWidth, &C::nStreamHeight})
        .next<std::uint32_t>({&C::nPictureWidth, &C::nPictureHeight})
        .next<std::mutex>({&C::lock});
  }
};

TEST(Layout, FieldsOfTheClassesStandInTheirOrderBehindTheTable) {
  TesseraTestAccess::pool();
  TesseraTestAccess::mmalJpeg();
  TesseraTestAccess::omxEncoder<COmxJpegEncoder>();
  TesseraTestAccess::omxH264();
  TesseraTestAccess::mmalH264Encoder();
  TesseraTestAccess::mmalH264Decoder();
}
