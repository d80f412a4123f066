// What the software platform adds: the journal, the faults and the census of its OpenMAX IL half.

#include <tessera_platform/control.h>

#include <chrono>
#include <functional>
#include <memory>

#include "Rig.h"
#include "support/JpegOracle.h"

namespace {

namespace platform = tessera_platform;
using platform::CallFault;
using platform::CompletionFault;
using rig::Bytes;
using rig::Client;
using rig::Texts;

constexpr OMX_U32 in = 320;
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

class Control : public testing::Test {
 protected:
  void TearDown() override {
    platform::clearFaults();
    EXPECT_TRUE(platform::census().empty()) << platform::describe(platform::census());
  }
  /// The only fault from now on.
  static void fault(const char* completion, CompletionFault::Action action, unsigned delayMs = 0,
                    OMX_ERRORTYPE code = OMX_ErrorNone) {
    CompletionFault wanted;
    wanted.completion = completion;
    wanted.action = action;
    wanted.delayMs = delayMs;
    wanted.code = static_cast<std::uint32_t>(code);
    platform::clearFaults();
    platform::inject(wanted);
  }
  /// A picture in and a buffer for it; what comes of it is the test's business.
  static void request(Client& client) {
    EXPECT_EQ(client.empty(client.in[0], jpeg()), OMX_ErrorNone);
    EXPECT_EQ(client.fill(client.out[0]), OMX_ErrorNone);
  }
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

/// None of its work, that is, that the next call or the end would meet.
TEST_F(Control, FailsCallsWithoutDoingTheirWork) {
  const auto client = decoder();
  OMX_BUFFERHEADERTYPE* buffer = nullptr;
  OMX_HANDLETYPE other = nullptr, own = client->handle;
  OMX_CALLBACKTYPE callbacks{};
  char name[] = "OMX.broadcom.image_decode";
  const std::pair<const char*, std::function<OMX_ERRORTYPE()>> rows[] = {
      {"OMX_GetHandle", [&] { return OMX_GetHandle(&other, name, nullptr, &callbacks); }},
      {"OMX_FreeHandle", [&] { return OMX_FreeHandle(own); }},
      {"OMX_SendCommand", [&] { return client->send(OMX_CommandFlush, in); }},
      {"OMX_AllocateBuffer",
       [&] { return OMX_AllocateBuffer(own, &buffer, in, nullptr, 1024000); }},
      {"OMX_FreeBuffer", [&] { return client->free(in, client->in[0]); }},
      {"OMX_EmptyThisBuffer", [&] { return client->empty(client->in[0], jpeg()); }},
      {"OMX_FillThisBuffer", [&] { return client->fill(client->out[0]); }},
  };
  for (const auto action : {CallFault::Fail, CallFault::NullResult})
    for (const auto& [call, work] : rows) {
      platform::clearFaults();
      platform::inject(CallFault{call, 1, false, action, OMX_ErrorHardware});
      EXPECT_EQ(work(), action == CallFault::Fail ? OMX_ErrorHardware : OMX_ErrorNone) << call;
      EXPECT_EQ(platform::faultsHit(), 1u) << call;
    }
  EXPECT_EQ(other, nullptr);
  EXPECT_EQ(buffer, nullptr);
  platform::clearFaults();
  EXPECT_EQ(client->soFar(), Texts{}) << "no command and no buffer went through";
}

TEST_F(Control, HoldsADroppedBufferUntilThePortIsDisabled) {
  const auto client = decoder();
  fault("FillBufferDone", CompletionFault::Drop);
  platform::inject(CompletionFault{"EmptyBufferDone", 1, false, CompletionFault::Drop});
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
  fault("FillBufferDone", CompletionFault::Delay, 60);
  const auto start = std::chrono::steady_clock::now();
  request(*client);
  EXPECT_EQ(client->next(2), (Texts{"emptied 320", "filled 321"}));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(60));
  EXPECT_GT(client->out[0]->nFilledLen, 0u);
  fault("FillBufferDone", CompletionFault::Double);
  request(*client);
  EXPECT_EQ(client->next(3), (Texts{"emptied 320", "filled 321", "filled 321"}));
  fault("FillBufferDone", CompletionFault::ZeroLength);
  request(*client);
  client->next(2);
  EXPECT_EQ(client->out[0]->nFilledLen, 0u);
  fault("FillBufferDone", CompletionFault::ErrorEvent, 0, OMX_ErrorPortUnpopulated);
  request(*client);
  EXPECT_EQ(client->next(2), (Texts{"emptied 320", "error PortUnpopulated"}));
  client->send(OMX_CommandFlush, out);
  EXPECT_EQ(client->next(2), (Texts{"filled 321", "done Flush 321"}));
}

TEST_F(Control, MeddlesWithEvents) {
  const std::pair<CompletionFault::Action, Texts> rows[] = {
      {CompletionFault::Drop, {}},
      {CompletionFault::Double, {"done Flush 321", "done Flush 321"}},
      {CompletionFault::ErrorEvent, {"error SameState"}},
  };
  const auto client = decoder();
  for (const auto& [action, wanted] : rows) {
    fault("EventHandler", action, 0, OMX_ErrorSameState);
    client->send(OMX_CommandFlush, out);
    EXPECT_EQ(client->soFar(), wanted);
  }
  fault("EventHandler", CompletionFault::Delay, 400);
  client->send(OMX_CommandFlush, out);
  client->send(OMX_CommandFlush, in);
  EXPECT_EQ(client->next(2), (Texts{"done Flush 320", "done Flush 321"})) << "overtaken";
}

TEST_F(Control, CountsWhatIsAliveAndTheLastDeinitTakesItAlong) {
  {
    const auto client = decoder();
    const platform::Census census = platform::census();
    EXPECT_EQ(census.coreInits, 1);
    EXPECT_EQ(census.handles, 1);
    EXPECT_EQ(census.threads, 1);
    EXPECT_EQ(census.buffers, 4);
  }
  ASSERT_EQ(OMX_Init(), OMX_ErrorNone);
  OMX_HANDLETYPE handle = nullptr;
  OMX_CALLBACKTYPE callbacks{};
  for (const rig::Part& part : rig::parts)
    OMX_GetHandle(&handle, const_cast<char*>(part.name), nullptr, &callbacks);
  EXPECT_EQ(platform::census().handles, 3);
  EXPECT_EQ(OMX_Deinit(), OMX_ErrorNone);
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
