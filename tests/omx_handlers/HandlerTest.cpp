#include <semaphore.h>
#include <tessera/COmxH264Encoder.h>
#include <tessera/COmxJpegEncoder.h>
#include <tessera/tessera.h>
#include <unistd.h>

#include "support/FaultTest.h"

/// Sees the semaphores of an encoder: state, ports, flush, output.
struct TesseraTestAccess {
  template <typename Encoder>
  static std::vector<int> counts(Encoder& encoder) {
    std::vector<int> counts;
    for (sem_t* semaphore : {&encoder.semStateChanged, &encoder.semPortEnableDisable,
                             &encoder.semFlushed, &encoder.semOutputFilled}) {
      counts.push_back(-1);
      sem_getvalue(semaphore, &counts.back());
    }
    return counts;
  }
};

namespace {

using Counts = std::vector<int>;

/// The callbacks of both encoders are alike but for their names, and for one error text.
struct Handlers {
  const char* prefix;
  const char* className;
  decltype(&OmxEventsHandler) event;
  decltype(&OmxEmptyInputBufferHandler) empty;
  decltype(&OmxFillOutputBufferHandler) fill;
  const char* unpopulated;
};
const Handlers both[] = {{"Omx", "COmxJpegEncoder", OmxEventsHandler, OmxEmptyInputBufferHandler,
                          OmxFillOutputBufferHandler, "(no description)."},
                         {"OmxH264", "COmxH264Encoder", OmxH264EventsHandler,
                          OmxH264EmptyInputBufferHandler, OmxH264FillOutputBufferHandler,
                          "the port has lost one or more of its buffers and it thus unpopulated."}};

struct EventCase {
  OMX_EVENTTYPE event;
  OMX_U32 data;
  Counts posted;
  std::string out = {}, err = {};
};

template <typename Encoder>
void takeEvents(const Handlers& handlers) {
  const Counts none{0, 0, 0, 0};
  const std::string line = "OmxEventsHandler - 0x8000",
                    unknown = "OmxEventsHandler  unknown event ";
  const EventCase table[] = {
      {OMX_EventCmdComplete, OMX_CommandStateSet, {1, 0, 0, 0}},
      {OMX_EventCmdComplete, OMX_CommandFlush, {0, 0, 1, 0}},
      {OMX_EventCmdComplete, OMX_CommandPortDisable, {0, 1, 0, 0}},
      {OMX_EventCmdComplete, OMX_CommandPortEnable, {0, 1, 0, 0}},
      {OMX_EventCmdComplete, OMX_CommandMarkBuffer, none},
      {OMX_EventError, 0x80001012, {1, 0, 0, 0}},
      {OMX_EventError, 0x80001009, none, "",
       line + "1009:the hardware failed to respond as expected\n"},
      {OMX_EventError, 0x8000101C, none, "", line + "101c:" + handlers.unpopulated + "\n"},
      {OMX_EventPortSettingsChanged, 1, none, "--------- OMX_EventPortSettingsChanged\n"},
      {OMX_EventBufferFlag, 1, none},
      {OMX_EventMark, 0, none, unknown + "2\n"},
      {OMX_EventResourcesAcquired, 0, none, unknown + "5\n"}};
  for (const EventCase& tested : table) {
    SCOPED_TRACE(testing::Message() << "event " << tested.event << ", " << tested.data);
    Encoder encoder;
    support::Capture capture;
    EXPECT_EQ(handlers.event(nullptr, &encoder, tested.event, tested.data, 0, nullptr),
              OMX_ErrorNone);
    EXPECT_EQ(capture.out(), tested.out);
    EXPECT_EQ(capture.err(), tested.err);
    EXPECT_EQ(TesseraTestAccess::counts(encoder), tested.posted);
  }
  Encoder encoder;
  OMX_BUFFERHEADERTYPE buffer{};
  EXPECT_EQ(handlers.empty(nullptr, &encoder, &buffer), OMX_ErrorNone);
  EXPECT_EQ(TesseraTestAccess::counts(encoder), none);
  EXPECT_EQ(handlers.fill(nullptr, &encoder, &buffer), OMX_ErrorNone);
  EXPECT_EQ(TesseraTestAccess::counts(encoder), (Counts{0, 0, 0, 1}));
  EXPECT_TRUE(encoder.WaitForOutputBufferFilled());
}

using Handler = support::FaultTest;

TEST_F(Handler, EventsPrintAndPost) {
  takeEvents<COmxJpegEncoder>(both[0]);
  takeEvents<COmxH264Encoder>(both[1]);
}

TEST_F(Handler, WithoutAnObjectTheyPrintTheirName) {
  for (const Handlers& handlers : both) {
    const auto line = [&](const char* name) {
      return std::string(handlers.prefix) + name + " : nullptr of the " + handlers.className +
             " object\n";
    };
    support::Capture capture;
    EXPECT_EQ(handlers.event(nullptr, nullptr, OMX_EventError, 0, 0, nullptr), OMX_ErrorNone);
    EXPECT_EQ(handlers.empty(nullptr, nullptr, nullptr), OMX_ErrorNone);
    EXPECT_EQ(handlers.fill(nullptr, nullptr, nullptr), OMX_ErrorNone);
    EXPECT_EQ(capture.out(), line("EventsHandler") + line("EmptyInputBufferHandler") +
                                 line("FillOutputBufferHandler"));
    EXPECT_EQ(capture.err(), "");
  }
}

TEST_F(Handler, FactoriesThrowWithoutMemory) {
  for (void (*const create)() :
       {+[] { CreateEncoderJPEG(); }, +[] { CreateEncoderH264(); }, +[] { GetDecoderPool(); }}) {
    support::interpose::allocation.arm(1);
    EXPECT_THROW(create(), std::bad_alloc);
  }
}

/// The handle stays, so it happens elsewhere.
template <typename Encoder>
void leave() {
  {
    Encoder encoder;
    support::inject(support::refuse("OMX_FreeHandle"));
  }
  _exit(0);
}

TEST_F(Handler, HandlesThatCannotBeFreedAreTold) {
  const std::string line = support::omxLine("::ReleaseHardware::OMX_FreeHandle");
  const testing::ExitedWithCode good(0);
  EXPECT_EXIT(leave<COmxJpegEncoder>(), good, "^CJpegHardwareEncoder" + line + "$");
  EXPECT_EXIT(leave<COmxH264Encoder>(), good, "^COmxH264Encoder" + line + "$");
}

}  // namespace
