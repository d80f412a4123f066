// How the software platform's OpenMAX IL half ends while faults hold it up.

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
  /// A picture in and a buffer for it; what comes of it is the test's business.
  static void request(Client& client) {
    EXPECT_EQ(client.empty(client.in[0], jpeg()), OMX_ErrorNone);
    EXPECT_EQ(client.fill(client.out[0]), OMX_ErrorNone);
  }

 private:
  const support::VirtualTime time_;
};

TEST_F(Control, HoldsADroppedBufferUntilThePortIsDisabled) {
  const auto client = decoder();
  support::inject(support::lose("FillBufferDone"));
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

TEST_F(Control, IsQuietWithNothingLeftToDoButWhatIsDueLater) {
  const auto client = decoder();
  support::inject(support::delay("FillBufferDone", 1, 60));
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
