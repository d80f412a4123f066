// The binary interface as a compiler lays it out: the platform's structures that cross it by size,
// and the fields of the six classes, which applications have compiled in.

#include <IL/OMX_Component.h>
#include <IL/OMX_Image.h>
#include <IL/OMX_Video.h>
#include <gtest/gtest.h>
#include <tessera/tessera.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr bool is32Bit = sizeof(void*) == 4;

struct Size {
  const char* name;
  std::size_t actual;
  std::size_t expected;
};

struct Field {
  const char* name;
  std::size_t offset, size;
  std::size_t expectedSize, alignment;
};

using CopyFrame = void (*)(unsigned char*, unsigned, unsigned, unsigned, unsigned char*, unsigned,
                           unsigned&);

}  // namespace

// offsetof is defined for these classes by both compilers, if not by the language.
#pragma GCC diagnostic ignored "-Winvalid-offsetof"

#define FIELD(type, name)                                                          \
  Field {                                                                          \
#name, offsetof(Class, name), sizeof(Class::name), sizeof(type), alignof(type) \
  }

/// The friend of the six classes that sees their fields. Each list has them in the order and of the
/// types that applications rely on.
struct TesseraTestAccess {
  using Fields = std::vector<Field>;

  static Fields pool() {
    using Class = DecoderPool;
    return {FIELD(sem_t, semCommandDone),
            FIELD(sem_t, semFillDone),
            FIELD(sem_t, semPortSettingsChanged),
            FIELD(OMX_HANDLETYPE, hDecoder),
            FIELD(OMX_PORT_PARAM_TYPE, portParam),
            FIELD(OMX_ERRORTYPE, lastError),
            FIELD(OMX_PARAM_PORTDEFINITIONTYPE, portDef),
            FIELD(OMX_BUFFERHEADERTYPE*, pOutputBuffer),
            FIELD(std::int32_t, nInputBuffers),
            FIELD(OMX_BUFFERHEADERTYPE**, ppInputBuffers),
            FIELD(std::uint32_t, nInputPort),
            FIELD(std::uint32_t, nOutputPort),
            FIELD(std::int32_t, nCurrentWidth),
            FIELD(std::int32_t, nCurrentHeight),
            FIELD(std::int32_t, nNextInputBuffer)};
  }

  static Fields mmalJpeg() {
    using Class = CMmalJpegEncoder;
    return {FIELD(MMAL_WRAPPER_T*, pWrapper),
            FIELD(MMAL_PORT_T*, pInputPort),
            FIELD(MMAL_PORT_T*, pOutputPort),
            FIELD(MMAL_BUFFER_HEADER_T*, pInputBuffer),
            FIELD(MMAL_BUFFER_HEADER_T*, pOutputBuffer),
            FIELD(MMAL_STATUS_T, nLastStatus),
            FIELD(sem_t, semaphore),
            FIELD(std::int32_t, nWidth),
            FIELD(std::int32_t, nHeight)};
  }

  /// What both OpenMAX encoders start with.
  template <typename Class>
  static Fields omxEncoder() {
    return {FIELD(sem_t, semStateChanged),
            FIELD(sem_t, semPortEnableDisable),
            FIELD(sem_t, semFlushed),
            FIELD(sem_t, semOutputFilled),
            FIELD(OMX_HANDLETYPE, hEncoder),
            FIELD(OMX_BUFFERHEADERTYPE*, pInputBuffer),
            FIELD(OMX_BUFFERHEADERTYPE*, pOutputBuffer),
            FIELD(std::uint32_t, nInputPort),
            FIELD(std::uint32_t, nOutputPort)};
  }

  static Fields omxH264() {
    using Class = COmxH264Encoder;
    Fields fields = omxEncoder<Class>();
    fields.insert(fields.end(), {FIELD(std::uint32_t, nWidth), FIELD(std::uint32_t, nHeight),
                                 FIELD(CopyFrame, pfnCopyFrame)});
    return fields;
  }

  static Fields mmalH264Encoder() {
    using Class = CMmalH264Encoder;
    return {FIELD(MMAL_COMPONENT_T*, pComponent),
            FIELD(MMAL_QUEUE_T*, pOutputQueue),
            FIELD(MMAL_POOL_T*, pInputPool),
            FIELD(MMAL_POOL_T*, pOutputPool),
            FIELD(sem_t, semInput),
            FIELD(sem_t, semOutput),
            FIELD(std::uint32_t, nWidth),
            FIELD(std::uint32_t, nHeight),
            FIELD(CopyFrame, pfnCopyFrame)};
  }

  static Fields mmalH264Decoder() {
    using Class = CMmalH264Decoder;
    return {FIELD(MMAL_COMPONENT_T*, pComponent),
            FIELD(MMAL_QUEUE_T*, pFrameQueue),
            FIELD(MMAL_POOL_T*, pInputPool),
            FIELD(MMAL_POOL_T*, pOutputPool),
            FIELD(sem_t, semInput),
            FIELD(sem_t, semOutput),
            FIELD(std::int32_t, nStreamWidth),
            FIELD(std::int32_t, nStreamHeight),
            FIELD(std::uint32_t, nPictureWidth),
            FIELD(std::uint32_t, nPictureHeight),
            FIELD(std::mutex, lock)};
  }
};

TEST(Layout, FieldsOfTheClassesStandInTheirOrderBehindTheTable) {
  const std::pair<const char*, TesseraTestAccess::Fields> classes[] = {
      {"DecoderPool", TesseraTestAccess::pool()},
      {"CMmalJpegEncoder", TesseraTestAccess::mmalJpeg()},
      {"COmxJpegEncoder", TesseraTestAccess::omxEncoder<COmxJpegEncoder>()},
      {"COmxH264Encoder", TesseraTestAccess::omxH264()},
      {"CMmalH264Encoder", TesseraTestAccess::mmalH264Encoder()},
      {"CMmalH264Decoder", TesseraTestAccess::mmalH264Decoder()},
  };
  for (const auto& [name, fields] : classes) {
    std::size_t end = sizeof(void*);
    for (const Field& field : fields) {
      SCOPED_TRACE(std::string(name) + "::" + field.name);
      const std::size_t start = (end + field.alignment - 1) / field.alignment * field.alignment;
      EXPECT_EQ(field.offset, start);
      EXPECT_EQ(field.size, field.expectedSize);
      end = start + field.expectedSize;
    }
  }
}

TEST(Layout, OpenMaxStructuresHaveThePublishedSizes) {
  const Size sizes[] = {
      {"port definition", sizeof(OMX_PARAM_PORTDEFINITIONTYPE), is32Bit ? 96u : 112u},
      {"port range", sizeof(OMX_PORT_PARAM_TYPE), 16},
      {"quality factor", sizeof(OMX_IMAGE_PARAM_QFACTORTYPE), 16},
      {"bit rate", sizeof(OMX_VIDEO_PARAM_BITRATETYPE), 20},
      {"video port format", sizeof(OMX_VIDEO_PARAM_PORTFORMATTYPE), 28},
      {"AVC", sizeof(OMX_VIDEO_PARAM_AVCTYPE), 108},
      {"time stamp", sizeof(OMX_TICKS), 8},
      {"enumeration", sizeof(OMX_ERRORTYPE), 4},
  };
  for (const Size& size : sizes) EXPECT_EQ(size.actual, size.expected) << size.name;
}

TEST(Layout, PortDefinitionFieldsStandWhereComponentsReadThem) {
  using Definition = OMX_PARAM_PORTDEFINITIONTYPE;
  // A word each, up to the format.
  std::size_t next = 0;
  for (const std::size_t offset :
       {offsetof(Definition, nSize), offsetof(Definition, nVersion),
        offsetof(Definition, nPortIndex), offsetof(Definition, eDir),
        offsetof(Definition, nBufferCountActual), offsetof(Definition, nBufferCountMin),
        offsetof(Definition, nBufferSize), offsetof(Definition, bEnabled),
        offsetof(Definition, bPopulated), offsetof(Definition, eDomain),
        offsetof(Definition, format)}) {
    EXPECT_EQ(offset, next);
    next += 4;
  }
  const std::size_t afterFormat = is32Bit ? 88 : 104;
  EXPECT_EQ(offsetof(Definition, bBuffersContiguous), afterFormat);
  EXPECT_EQ(offsetof(Definition, nBufferAlignment), afterFormat + 4);
}

TEST(Layout, VersionOneOneTwoIsOneWord) {
  OMX_VERSIONTYPE version{};
  version.s.nVersionMajor = 1;
  version.s.nVersionMinor = 1;
  version.s.nRevision = 2;
  version.s.nStep = 0;
  EXPECT_EQ(version.nVersion, 0x00020101u);
}
