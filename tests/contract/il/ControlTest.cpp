// What the software platform adds: the journal, the faults and the census of its OpenMAX IL half.

#include <chrono>
#include <memory>

#include "Rig.h"
#include "support/FaultTest.h"
#include "support/JpegOracle.h"

namespace {

namespace platform = tessera_platform;
using platform::CallFault;
using platform::CompletionFault;
using rig::Bytes;
using rig::Client;
using rig::Texts;

constexpr OMX_U32 out = 321;

const Bytes& jpeg() {
  static const Bytes made =
      support::encodeJpeg(support::scene(64, 48), support::Sampling::Yuv420, 80);
  return made;
}

/// Executing, with an output port of 64x48.
std::unique_ptr<Client> decoder() {
  auto client = std::make_unique<Client>(rig::imageDecode);
  auto definition = client->definition(out);
  definition.format.image.nFrameWidth = definition.format.image.nStride = 64;
  definition.format.image.nFrameHeight = definition.format.image.nSliceHeight = 48;
  definition.nBufferSize = 0;
  client->define(definition);
  client->run();
  return client;
}

class Control : public support::FaultTest {
 protected:
  /// The only fault from now on.
  static void fault(const support::AnyFault& fault) {
    platform::clearFaults();
    support::inject(fault);
  }
  /// A picture in and a buffer for it; what comes of it is the test's business.
  static void request(Client& client) {
    EXPECT_EQ(client.empty(client.in[0], jpeg()), OMX_ErrorNone);
    EXPECT_EQ(client.fill(client.out[0]), OMX_ErrorNone);
  }

 private:
  const support::VirtualTime time_;
};

TEST_F(Control, JournalReadsLikeTheConversationInEveryRun) {
  const std::string size = std::to_string(jpeg().size());
  for (int run = 0; run < 5; ++run) {
    platform::startJournal();
    {
      const auto client = decoder();
      request(*client);
      client->next(2);
      client->rest();
    }
    platform::stopJournal();
    const Texts calls = platform::journal(platform::Lines::Calls);
    ASSERT_EQ(calls.size(), 27u);
    EXPECT_EQ(calls[1], "OMX_GetHandle(OMX.broadcom.image_decode -> image_decode#1) = None");
    EXPECT_EQ(calls[3],
              "OMX_SetParameter(image_decode#1, PortDefinition 321: 64x48 stride 64 slice 48 "
              "YUV420PackedPlanar size 0) = None");
    EXPECT_EQ(calls[14], "OMX_AllocateBuffer(image_decode#1:321, 4608 bytes) = None");
    EXPECT_EQ(calls[15], "OMX_SendCommand(image_decode#1, StateSet Executing) = None");
    EXPECT_EQ(calls[16], "OMX_EmptyThisBuffer(image_decode#1:320, " + size + " bytes EOS) = None");
    EXPECT_EQ(platform::journal(platform::Lines::Completions),
              (Texts{"-> EventHandler(image_decode#1, CmdComplete StateSet Idle)",
                     "-> EventHandler(image_decode#1, CmdComplete StateSet Executing)",
                     "-> EmptyBufferDone(image_decode#1:320)",
                     "-> FillBufferDone(image_decode#1:321, 4608 bytes EOS ENDOFFRAME)",
                     "-> EventHandler(image_decode#1, CmdComplete StateSet Idle)",
                     "-> EventHandler(image_decode#1, CmdComplete StateSet Loaded)"}));
  }
}

TEST_F(Control, HoldsADroppedBufferUntilThePortIsDisabled) {
  const auto client = decoder();
  fault(support::lose("FillBufferDone"));
  support::inject(support::lose("EmptyBufferDone"));
  // A flush would overtake the work: the faults must have been met before it is sent.
  platform::inject(CallFault{"OMX_FillThisBuffer", 1, false, CallFault::FinishFirst});
  request(*client);
  ASSERT_EQ(platform::faultsHit(), 3u);
  EXPECT_EQ(client->soFar(), Texts{"emptied 320"}) << "held back until this flush";
  EXPECT_EQ(client->in[0]->nFilledLen, 0u);
  EXPECT_EQ(client->fill(client->out[0]), OMX_ErrorBadParameter) << "the component has it";
  client->send(OMX_CommandPortDisable, out);
  EXPECT_EQ(client->next(), "filled 321");
  client->disabled(out);
}

TEST_F(Control, DelaysDoublesAndReplacesCallbacks) {
  const auto client = decoder();
  fault(support::delay("FillBufferDone", 1, 60));
  const auto start = std::chrono::steady_clock::now();
  request(*client);
  EXPECT_EQ(client->next(2), (Texts{"emptied 320", "filled 321"}));
  EXPECT_EQ(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(60));
  EXPECT_GT(client->out[0]->nFilledLen, 0u);
  fault(support::mangle("FillBufferDone", CompletionFault::Double));
  request(*client);
  EXPECT_EQ(client->next(3), (Texts{"emptied 320", "filled 321", "filled 321"}));
  fault(support::mangle("FillBufferDone", CompletionFault::ZeroLength));
  request(*client);
  client->next(2);
  EXPECT_EQ(client->out[0]->nFilledLen, 0u);
  fault(support::mangle("FillBufferDone", CompletionFault::ErrorEvent, 1,
                        static_cast<std::uint32_t>(OMX_ErrorPortUnpopulated)));
  request(*client);
  EXPECT_EQ(client->next(2), (Texts{"emptied 320", "error PortUnpopulated"}));
  client->send(OMX_CommandFlush, out);
  EXPECT_EQ(client->next(2), (Texts{"filled 321", "done Flush 321"}));
}

TEST_F(Control, IsQuietWithNothingLeftToDoButWhatIsDueLater) {
  const auto client = decoder();
  fault(support::delay("FillBufferDone", 1, 60));
  request(*client);
  platform::awaitQuiet();
  EXPECT_EQ(client->soFar(), Texts{"emptied 320"});
  std::this_thread::sleep_for(std::chrono::milliseconds(60));
  platform::awaitQuiet();
  EXPECT_EQ(client->soFar(), Texts{"filled 321"});
}

/// A fault that holds a buffer back must not hold back the end.
TEST_F(Control, EndsWhileFaultsHoldEverythingBack) {
  for (const char* const completion : {"EventHandler", "EmptyBufferDone", "FillBufferDone"}) {
    const auto client = decoder();
    platform::inject(CompletionFault{completion, 1, true, CompletionFault::Delay, 60000});
    request(*client);
    client->send(OMX_CommandPortDisable, OMX_ALL);
    platform::clearFaults();
  }
}

}  // namespace
