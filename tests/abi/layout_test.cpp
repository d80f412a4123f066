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
#include <utility>
#include <vector>

namespace {

constexpr bool is32Bit = sizeof(void*) == 4;

struct Size {
  const char* name;
  std::size_t actual;
  std::size_t expected;
};

struct Offset {
  const char* name;
  std::size_t actual;
  std::size_t expected;
  bool sameSize;
};

// Each mirror holds the fields of one class with its table pointer first, in the order and of the
// types that applications rely on.

using CopyFrame = void (*)(unsigned char*, unsigned, unsigned, unsigned, unsigned char*, unsigned,
                           unsigned&);

struct PoolMirror {
  void* table;
  sem_t semCommandDone, semFillDone, semPortSettingsChanged;
  OMX_HANDLETYPE hDecoder;
  OMX_PORT_PARAM_TYPE portParam;
  OMX_ERRORTYPE lastError;
  OMX_PARAM_PORTDEFINITIONTYPE portDef;
  OMX_BUFFERHEADERTYPE* pOutputBuffer;
  std::int32_t nInputBuffers;
  OMX_BUFFERHEADERTYPE** ppInputBuffers;
  std::uint32_t nInputPort, nOutputPort;
  std::int32_t nCurrentWidth, nCurrentHeight, nNextInputBuffer;
};

struct MmalJpegMirror {
  void* table;
  MMAL_WRAPPER_T* pWrapper;
  MMAL_PORT_T *pInputPort, *pOutputPort;
  MMAL_BUFFER_HEADER_T *pInputBuffer, *pOutputBuffer;
  MMAL_STATUS_T nLastStatus;
  sem_t semaphore;
  std::int32_t nWidth, nHeight;
};

struct OmxJpegMirror {
  void* table;
  sem_t semStateChanged, semPortEnableDisable, semFlushed, semOutputFilled;
  OMX_HANDLETYPE hEncoder;
  OMX_BUFFERHEADERTYPE *pInputBuffer, *pOutputBuffer;
  std::uint32_t nInputPort, nOutputPort;
};

struct OmxH264Mirror {
  void* table;
  sem_t semStateChanged, semPortEnableDisable, semFlushed, semOutputFilled;
  OMX_HANDLETYPE hEncoder;
  OMX_BUFFERHEADERTYPE *pInputBuffer, *pOutputBuffer;
  std::uint32_t nInputPort, nOutputPort, nWidth, nHeight;
  CopyFrame pfnCopyFrame;
};

struct MmalH264EncoderMirror {
  void* table;
  MMAL_COMPONENT_T* pComponent;
  MMAL_QUEUE_T* pOutputQueue;
  MMAL_POOL_T *pInputPool, *pOutputPool;
  sem_t semInput, semOutput;
  std::uint32_t nWidth, nHeight;
  CopyFrame pfnCopyFrame;
};

struct MmalH264DecoderMirror {
  void* table;
  MMAL_COMPONENT_T* pComponent;
  MMAL_QUEUE_T* pFrameQueue;
  MMAL_POOL_T *pInputPool, *pOutputPool;
  sem_t semInput, semOutput;
  std::int32_t nStreamWidth, nStreamHeight;
  std::uint32_t nPictureWidth, nPictureHeight;
  std::mutex lock;
};

}  // namespace

// offsetof is defined for these classes by both compilers, if not by the language.
#pragma GCC diagnostic ignored "-Winvalid-offsetof"

#define FIELD(name)                                       \
  Offset {                                                \
#name, offsetof(Class, name), offsetof(Mirror, name), \
        sizeof(Class::name) == sizeof(Mirror::name)       \
  }

/// The friend of the six classes that sees their fields.
struct TesseraLayout {
  using Offsets = std::vector<Offset>;

  static Offsets pool() {
    using Class = DecoderPool;
    using Mirror = PoolMirror;
    return {FIELD(semCommandDone), FIELD(semFillDone),    FIELD(semPortSettingsChanged),
            FIELD(hDecoder),       FIELD(portParam),      FIELD(lastError),
            FIELD(portDef),        FIELD(pOutputBuffer),  FIELD(nInputBuffers),
            FIELD(ppInputBuffers), FIELD(nInputPort),     FIELD(nOutputPort),
            FIELD(nCurrentWidth),  FIELD(nCurrentHeight), FIELD(nNextInputBuffer)};
  }

  static Offsets mmalJpeg() {
    using Class = CMmalJpegEncoder;
    using Mirror = MmalJpegMirror;
    return {FIELD(pWrapper),     FIELD(pInputPort),    FIELD(pOutputPort),
            FIELD(pInputBuffer), FIELD(pOutputBuffer), FIELD(nLastStatus),
            FIELD(semaphore),    FIELD(nWidth),        FIELD(nHeight)};
  }

  static Offsets omxJpeg() {
    using Class = COmxJpegEncoder;
    using Mirror = OmxJpegMirror;
    return {FIELD(semStateChanged), FIELD(semPortEnableDisable),
            FIELD(semFlushed),      FIELD(semOutputFilled),
            FIELD(hEncoder),        FIELD(pInputBuffer),
            FIELD(pOutputBuffer),   FIELD(nInputPort),
            FIELD(nOutputPort)};
  }

  static Offsets omxH264() {
    using Class = COmxH264Encoder;
    using Mirror = OmxH264Mirror;
    return {FIELD(semStateChanged), FIELD(semPortEnableDisable),
            FIELD(semFlushed),      FIELD(semOutputFilled),
            FIELD(hEncoder),        FIELD(pInputBuffer),
            FIELD(pOutputBuffer),   FIELD(nInputPort),
            FIELD(nOutputPort),     FIELD(nWidth),
            FIELD(nHeight),         FIELD(pfnCopyFrame)};
  }

  static Offsets mmalH264Encoder() {
    using Class = CMmalH264Encoder;
    using Mirror = MmalH264EncoderMirror;
    return {FIELD(pComponent),  FIELD(pOutputQueue), FIELD(pInputPool),
            FIELD(pOutputPool), FIELD(semInput),     FIELD(semOutput),
            FIELD(nWidth),      FIELD(nHeight),      FIELD(pfnCopyFrame)};
  }

  static Offsets mmalH264Decoder() {
    using Class = CMmalH264Decoder;
    using Mirror = MmalH264DecoderMirror;
    return {FIELD(pComponent),    FIELD(pFrameQueue),    FIELD(pInputPool),   FIELD(pOutputPool),
            FIELD(semInput),      FIELD(semOutput),      FIELD(nStreamWidth), FIELD(nStreamHeight),
            FIELD(nPictureWidth), FIELD(nPictureHeight), FIELD(lock)};
  }
};

TEST(Layout, FieldsOfTheClassesStandInTheirOrder) {
  const std::pair<const char*, TesseraLayout::Offsets> classes[] = {
      {"DecoderPool", TesseraLayout::pool()},
      {"CMmalJpegEncoder", TesseraLayout::mmalJpeg()},
      {"COmxJpegEncoder", TesseraLayout::omxJpeg()},
      {"COmxH264Encoder", TesseraLayout::omxH264()},
      {"CMmalH264Encoder", TesseraLayout::mmalH264Encoder()},
      {"CMmalH264Decoder", TesseraLayout::mmalH264Decoder()},
  };
  for (const auto& [name, offsets] : classes) {
    SCOPED_TRACE(name);
    for (const Offset& field : offsets) {
      EXPECT_EQ(field.actual, field.expected) << field.name;
      EXPECT_TRUE(field.sameSize) << field.name;
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
  const std::size_t afterFormat = is32Bit ? 88 : 104;
  const Size offsets[] = {
      {"nSize", offsetof(Definition, nSize), 0},
      {"nVersion", offsetof(Definition, nVersion), 4},
      {"nPortIndex", offsetof(Definition, nPortIndex), 8},
      {"eDir", offsetof(Definition, eDir), 12},
      {"nBufferCountActual", offsetof(Definition, nBufferCountActual), 16},
      {"nBufferCountMin", offsetof(Definition, nBufferCountMin), 20},
      {"nBufferSize", offsetof(Definition, nBufferSize), 24},
      {"bEnabled", offsetof(Definition, bEnabled), 28},
      {"bPopulated", offsetof(Definition, bPopulated), 32},
      {"eDomain", offsetof(Definition, eDomain), 36},
      {"format", offsetof(Definition, format), 40},
      {"bBuffersContiguous", offsetof(Definition, bBuffersContiguous), afterFormat},
      {"nBufferAlignment", offsetof(Definition, nBufferAlignment), afterFormat + 4},
  };
  for (const Size& offset : offsets) EXPECT_EQ(offset.actual, offset.expected) << offset.name;
}

TEST(Layout, VersionOneOneTwoIsOneWord) {
  OMX_VERSIONTYPE version{};
  version.s.nVersionMajor = 1;
  version.s.nVersionMinor = 1;
  version.s.nRevision = 2;
  version.s.nStep = 0;
  EXPECT_EQ(version.nVersion, 0x00020101u);
}
