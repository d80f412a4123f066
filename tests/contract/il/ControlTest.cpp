// What the software platform adds: the journal, the faults and the census of its OpenMAX IL half.

#include <tessera_platform/control.h>

#include <chrono>
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

Bytes jpeg() {
  static const Bytes made =
      support::encodeJpeg(support::scene(64, 48), support::Sampling::Yuv420, 80);
  return made;
}

/// Executing, with an output port of 64x48.
std::unique_ptr<Client> decoder() {
  auto client = std::make_unique<Client>(rig::imageDecode);
  auto definition = client->definition(out);
  definition.format.image.nFrameWidth = 64;
  definition.format.image.nFrameHeight = 48;
  definition.format.image.nStride = 64;
  definition.format.image.nSliceHeight = 48;
  definition.nBufferSize = 0;
  client->define(definition);
  client->run();
  return client;
}

class Control : public testing::Test {
 protected:
  void TearDown() override {
    platform::clearFaults();
    platform::stopJournal();
    EXPECT_TRUE(platform::census().empty()) << platform::describe(platform::census());
  }
  static void fault(const char* completion, CompletionFault::Action action, unsigned delayMs = 0,
                    OMX_ERRORTYPE code = OMX_ErrorNone) {
    CompletionFault wanted;
    wanted.completion = completion;
    wanted.action = action;
    wanted.delayMs = delayMs;
    wanted.code = static_cast<std::uint32_t>(code);
    platform::inject(wanted);
  }
  /// A picture in and a buffer for it; what comes of it is the test's business.
  static void request(Client& client) {
    EXPECT_EQ(client.empty(client.in[0], jpeg()), OMX_ErrorNone);
    EXPECT_EQ(client.fill(client.out[0]), OMX_ErrorNone);
  }
};

Texts decodeOnceJournalled() {
  platform::startJournal();
  {
    const auto client = decoder();
    client->empty(client->in[0], jpeg());
    client->fill(client->out[0]);
    client->next(2);
    client->rest();
  }
  platform::stopJournal();
  return platform::journal(platform::Lines::Calls);
}

TEST_F(Control, JournalReadsLikeTheConversation) {
  const Texts calls = decodeOnceJournalled();
  const std::string size = std::to_string(jpeg().size());
  const Texts wanted = {
      "OMX_Init() = None",
      "OMX_GetHandle(OMX.broadcom.image_decode -> image_decode#1) = None",
      "OMX_GetParameter(image_decode#1, PortDefinition 321) = None",
      "OMX_SetParameter(image_decode#1, PortDefinition 321: 64x48 stride 64 slice 48 "
      "YUV420PackedPlanar size 0) = None",
      "OMX_SendCommand(image_decode#1, StateSet Idle) = None",
      "OMX_GetParameter(image_decode#1, PortDefinition 320) = None",
      "OMX_GetParameter(image_decode#1, PortDefinition 320) = None",
      "OMX_AllocateBuffer(image_decode#1:320, 81920 bytes) = None",
      "OMX_GetParameter(image_decode#1, PortDefinition 320) = None",
      "OMX_AllocateBuffer(image_decode#1:320, 81920 bytes) = None",
      "OMX_GetParameter(image_decode#1, PortDefinition 320) = None",
      "OMX_AllocateBuffer(image_decode#1:320, 81920 bytes) = None",
      "OMX_GetParameter(image_decode#1, PortDefinition 321) = None",
      "OMX_GetParameter(image_decode#1, PortDefinition 321) = None",
      "OMX_AllocateBuffer(image_decode#1:321, 4608 bytes) = None",
      "OMX_SendCommand(image_decode#1, StateSet Executing) = None",
      "OMX_EmptyThisBuffer(image_decode#1:320, " + size + " bytes EOS) = None",
      "OMX_FillThisBuffer(image_decode#1:321) = None",
      "OMX_GetState(image_decode#1) = None",
      "OMX_SendCommand(image_decode#1, StateSet Idle) = None",
      "OMX_SendCommand(image_decode#1, StateSet Loaded) = None",
      "OMX_FreeBuffer(image_decode#1:320) = None",
      "OMX_FreeBuffer(image_decode#1:320) = None",
      "OMX_FreeBuffer(image_decode#1:320) = None",
      "OMX_FreeBuffer(image_decode#1:321) = None",
      "OMX_FreeHandle(image_decode#1) = None",
      "OMX_Deinit() = None",
  };
  EXPECT_EQ(calls, wanted);
  EXPECT_EQ(platform::journal(platform::Lines::Completions),
            (Texts{"-> EventHandler(image_decode#1, CmdComplete StateSet Idle)",
                   "-> EventHandler(image_decode#1, CmdComplete StateSet Executing)",
                   "-> EmptyBufferDone(image_decode#1:320)",
                   "-> FillBufferDone(image_decode#1:321, 4608 bytes EOS ENDOFFRAME)",
                   "-> EventHandler(image_decode#1, CmdComplete StateSet Idle)",
                   "-> EventHandler(image_decode#1, CmdComplete StateSet Loaded)"}));
  for (int run = 0; run < 5; ++run) EXPECT_EQ(decodeOnceJournalled(), wanted) << run;
}

/// Every entry point that a client meets can be made to fail, and does none of its work then.
TEST_F(Control, FailsCallsWithoutDoingTheirWork) {
  const auto client = decoder();
  OMX_BUFFERHEADERTYPE* buffer = nullptr;
  OMX_STATETYPE state = OMX_StateMax;
  auto definition = client->definition(out);
  OMX_HANDLETYPE other = nullptr;
  OMX_CALLBACKTYPE callbacks{};
  const struct {
    const char* call;
    std::function<OMX_ERRORTYPE()> work;
  } rows[] = {
      {"OMX_Init", [] { return OMX_Init(); }},
      {"OMX_GetHandle",
       [&] {
         return OMX_GetHandle(&other, const_cast<char*>(rig::imageDecode.name), nullptr,
                              &callbacks);
       }},
      {"OMX_FreeHandle", [&] { return OMX_FreeHandle(client->handle); }},
      {"OMX_Deinit", [] { return OMX_Deinit(); }},
      {"OMX_SendCommand", [&] { return client->send(OMX_CommandFlush, in); }},
      {"OMX_GetParameter",
       [&] { return OMX_GetParameter(client->handle, OMX_IndexParamPortDefinition, &definition); }},
      {"OMX_SetParameter", [&] { return client->define(definition); }},
      {"OMX_GetState", [&] { return OMX_GetState(client->handle, &state); }},
      {"OMX_AllocateBuffer",
       [&] { return OMX_AllocateBuffer(client->handle, &buffer, in, nullptr, 1024000); }},
      {"OMX_FreeBuffer", [&] { return client->free(in, client->in[0]); }},
      {"OMX_EmptyThisBuffer", [&] { return client->empty(client->in[0], jpeg()); }},
      {"OMX_FillThisBuffer", [&] { return client->fill(client->out[0]); }},
  };
  for (const auto action : {CallFault::Fail, CallFault::NullResult})
    for (const auto& row : rows) {
      SCOPED_TRACE(row.call);
      platform::clearFaults();
      CallFault wanted;
      wanted.call = row.call;
      wanted.action = action;
      wanted.status = OMX_ErrorHardware;
      platform::inject(wanted);
      EXPECT_EQ(row.work(), action == CallFault::Fail ? OMX_ErrorHardware : OMX_ErrorNone);
      EXPECT_EQ(platform::faultsHit(), 1u);
    }
  EXPECT_EQ(other, nullptr);
  EXPECT_EQ(buffer, nullptr);
  platform::clearFaults();
  EXPECT_EQ(client->soFar(), Texts{}) << "no command and no buffer went through";
}

TEST_F(Control, HoldsADroppedBufferUntilThePortIsDisabled) {
  const auto client = decoder();
  fault("FillBufferDone", CompletionFault::Drop);
  fault("EmptyBufferDone", CompletionFault::Drop);
  // A flush would overtake the work: the faults must have been met before it is sent.
  CallFault settled;
  settled.call = "OMX_FillThisBuffer";
  settled.action = CallFault::FinishFirst;
  platform::inject(settled);
  request(*client);
  ASSERT_EQ(platform::faultsHit(), 3u);
  EXPECT_EQ(client->soFar(), Texts{"emptied 320"}) << "held back until this flush";
  EXPECT_EQ(client->in[0]->nFilledLen, 0u);
  EXPECT_EQ(client->fill(client->out[0]), OMX_ErrorBadParameter) << "the component has it";
  client->send(OMX_CommandPortDisable, out);
  EXPECT_EQ(client->next(), "filled 321");
  client->free(out, client->out[0]);
  EXPECT_EQ(client->next(), "done PortDisable 321");
}

TEST_F(Control, DelaysDoublesAndReplacesCallbacks) {
  const auto client = decoder();
  fault("FillBufferDone", CompletionFault::Delay, 60);
  const auto start = std::chrono::steady_clock::now();
  request(*client);
  EXPECT_EQ(client->next(2), (Texts{"emptied 320", "filled 321"}));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(60));
  EXPECT_GT(client->out[0]->nFilledLen, 0u);

  platform::clearFaults();
  fault("FillBufferDone", CompletionFault::Double);
  request(*client);
  EXPECT_EQ(client->next(3), (Texts{"emptied 320", "filled 321", "filled 321"}));

  platform::clearFaults();
  fault("FillBufferDone", CompletionFault::ZeroLength);
  request(*client);
  client->next(2);
  EXPECT_EQ(client->out[0]->nFilledLen, 0u);

  platform::clearFaults();
  fault("FillBufferDone", CompletionFault::ErrorEvent, 0, OMX_ErrorPortUnpopulated);
  request(*client);
  EXPECT_EQ(client->next(2), (Texts{"emptied 320", "error PortUnpopulated"}));
  client->send(OMX_CommandFlush, out);
  EXPECT_EQ(client->next(2), (Texts{"filled 321", "done Flush 321"}));
}

TEST_F(Control, MeddlesWithEvents) {
  const struct {
    CompletionFault::Action action;
    Texts wanted;
  } rows[] = {
      {CompletionFault::Drop, {}},
      {CompletionFault::Double, {"done Flush 321", "done Flush 321"}},
      {CompletionFault::ErrorEvent, {"error SameState"}},
  };
  const auto client = decoder();
  for (const auto& row : rows) {
    platform::clearFaults();
    fault("EventHandler", row.action, 0, OMX_ErrorSameState);
    client->send(OMX_CommandFlush, out);
    EXPECT_EQ(client->soFar(), row.wanted);
  }
  platform::clearFaults();
  fault("EventHandler", CompletionFault::Delay, 400);
  client->send(OMX_CommandFlush, out);
  client->send(OMX_CommandFlush, in);
  EXPECT_EQ(client->next(2), (Texts{"done Flush 320", "done Flush 321"})) << "overtaken";
}

/// Callbacks come before the call returns that started them.
TEST_F(Control, FinishesFirst) {
  const auto client = decoder();
  for (const char* const call : {"OMX_FillThisBuffer", "OMX_SendCommand"}) {
    CallFault wanted;
    wanted.call = call;
    wanted.action = CallFault::FinishFirst;
    platform::inject(wanted);
  }
  platform::startJournal();
  request(*client);
  client->send(OMX_CommandFlush, in);
  const Texts names = platform::journalNames(platform::Lines::All);
  const auto at = [&](const char* name) {
    return std::find(names.begin(), names.end(), name) - names.begin();
  };
  EXPECT_LT(at("FillBufferDone"), at("OMX_FillThisBuffer"));
  EXPECT_LT(at("EventHandler"), at("OMX_SendCommand"));
  EXPECT_EQ(platform::faultsHit(), 2u);
}

TEST_F(Control, CountsWhatIsAlive) {
  {
    const auto client = decoder();
    const platform::Census census = platform::census();
    EXPECT_EQ(census.coreInits, 1);
    EXPECT_EQ(census.handles, 1);
    EXPECT_EQ(census.threads, 1);
    EXPECT_EQ(census.buffers, 4);
  }
  EXPECT_TRUE(platform::census().empty());
  // The last OMX_Deinit takes along what was not freed.
  ASSERT_EQ(OMX_Init(), OMX_ErrorNone);
  OMX_HANDLETYPE handle = nullptr;
  OMX_CALLBACKTYPE callbacks{};
  for (const rig::Part& part : rig::parts) {
    ASSERT_EQ(OMX_GetHandle(&handle, const_cast<char*>(part.name), nullptr, &callbacks),
              OMX_ErrorNone);
  }
  EXPECT_EQ(platform::census().handles, 3);
  EXPECT_EQ(OMX_Deinit(), OMX_ErrorNone);
}

/// A fault that holds a buffer back must not hold back the end.
TEST_F(Control, EndsWhileFaultsHoldEverythingBack) {
  for (const char* const completion : {"EventHandler", "EmptyBufferDone", "FillBufferDone"}) {
    const auto client = decoder();
    CompletionFault wanted;
    wanted.completion = completion;
    wanted.sticky = true;
    wanted.action = CompletionFault::Delay;
    wanted.delayMs = 60000;
    platform::inject(wanted);
    request(*client);
    client->send(OMX_CommandPortDisable, OMX_ALL);
    platform::clearFaults();
  }
}

}  // namespace
