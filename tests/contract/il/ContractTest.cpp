// States, ports and buffers: what is allowed when, what is refused with which error, and which
// events come.

#include <gtest/gtest.h>

#include <functional>

#include "Client.h"

namespace {

using contract::Client;
using contract::Part;
using contract::Texts;

class EveryPart : public testing::TestWithParam<Part> {
 protected:
  void expectPorts(OMX_BOOL enabled, OMX_BOOL populated) {
    EXPECT_EQ(client.definition(out).bEnabled, enabled);
    EXPECT_EQ(client.definition(out).bPopulated, populated);
  }

  Client client{GetParam()};
  const OMX_U32 in = GetParam().in;
  const OMX_U32 out = GetParam().out;
  const std::string port = std::to_string(out);
};
INSTANTIATE_TEST_SUITE_P(Parts, EveryPart,
                         testing::Values(contract::imageDecode, contract::imageEncode,
                                         contract::videoEncode),
                         [](const auto& tested) { return std::string(tested.param.name + 13); });

TEST_P(EveryPart, HasItsPortsInOneDomain) {
  OMX_PORT_PARAM_TYPE range{};
  EXPECT_EQ(OMX_GetParameter(client.handle, OMX_IndexParamImageInit, &range),
            OMX_ErrorVersionMismatch);
  range.nSize = sizeof range;
  range.nVersion.nVersion = 0x00020101;
  for (const OMX_INDEXTYPE domain : {OMX_IndexParamAudioInit, OMX_IndexParamVideoInit,
                                     OMX_IndexParamImageInit, OMX_IndexParamOtherInit}) {
    ASSERT_EQ(OMX_GetParameter(client.handle, domain, &range), OMX_ErrorNone);
    EXPECT_EQ(range.nPorts, domain == GetParam().domain ? 2u : 0u);
    EXPECT_TRUE(range.nPorts == 0 || range.nStartPortNumber == in);
  }
}

TEST_P(EveryPart, WaitsForItsBuffersToComeAndToGo) {
  expectPorts(OMX_TRUE, OMX_FALSE);
  client.complete(OMX_CommandPortDisable, out);  // at once in Loaded
  client.complete(OMX_CommandPortEnable, out);
  ASSERT_EQ(client.send(OMX_CommandStateSet, OMX_StateIdle), OMX_ErrorNone);
  for (const OMX_U32 each : {in, out})
    for (OMX_U32 left = client.definition(each).nBufferCountActual; left > 0; --left) {
      EXPECT_EQ(client.soFar(), Texts{});
      EXPECT_EQ(client.state(), OMX_StateLoaded);
      ASSERT_EQ(client.allocate(each), OMX_ErrorNone);
    }
  EXPECT_EQ(client.next(), "done StateSet Idle");

  for (const OMX_STATETYPE state : {OMX_StateExecuting, OMX_StateIdle}) {
    client.complete(OMX_CommandStateSet, state);
    ASSERT_EQ(client.send(OMX_CommandPortDisable, out), OMX_ErrorNone);
    expectPorts(OMX_FALSE, OMX_TRUE);
    EXPECT_EQ(client.soFar(), Texts{});
    client.vacate(out);
    EXPECT_EQ(client.next(), "done PortDisable " + port);
    ASSERT_EQ(client.send(OMX_CommandPortEnable, out), OMX_ErrorNone);
    expectPorts(OMX_TRUE, OMX_FALSE);
    EXPECT_EQ(client.soFar(), Texts{});
    client.populate(out);
    EXPECT_EQ(client.next(), "done PortEnable " + port);
  }

  ASSERT_EQ(client.send(OMX_CommandStateSet, OMX_StateLoaded), OMX_ErrorNone);
  for (const OMX_U32 each : {in, out}) {
    EXPECT_EQ(client.soFar(), Texts{});
    EXPECT_EQ(client.state(), OMX_StateIdle);
    client.vacate(each);
  }
  EXPECT_EQ(client.next(), "done StateSet Loaded");
}

/// The decoder pool and the JPEG encoder free right after a disable, before its completion.
TEST_P(EveryPart, GivesBuffersBackBeforeACommandCompletes) {
  client.run();
  const auto expectBack = [&](OMX_COMMANDTYPE command, OMX_U32 what, const std::string& done) {
    ASSERT_EQ(client.fill(client.out[0]), OMX_ErrorNone);
    ASSERT_EQ(client.send(command, what), OMX_ErrorNone);
    if (command == OMX_CommandPortDisable) client.vacate(out);
    EXPECT_EQ(client.next(), "filled " + port);
    EXPECT_EQ(client.next(), "done " + done);
  };
  expectBack(OMX_CommandFlush, out, "Flush " + port);
  expectBack(OMX_CommandPortDisable, out, "PortDisable " + port);
  client.send(OMX_CommandPortEnable, out);
  client.populate(out);
  EXPECT_EQ(client.next(), "done PortEnable " + port);
  expectBack(OMX_CommandStateSet, OMX_StateIdle, "StateSet Idle");
  client.complete(OMX_CommandStateSet, OMX_StateExecuting);
  ASSERT_EQ(client.fill(client.out[0]), OMX_ErrorNone);
  client.vacate(out);
  EXPECT_EQ(client.next(), "error PortUnpopulated") << "freed under the component's hands";
}

TEST_P(EveryPart, RefusesStructuresAndPortsThatAreNotItsOwn) {
  const struct {
    std::function<void(OMX_PARAM_PORTDEFINITIONTYPE&)> spoil;
    OMX_ERRORTYPE error;
  } rows[] = {
      {[](auto& d) { d.nSize -= 4; }, OMX_ErrorVersionMismatch},
      {[](auto& d) { d.nVersion.nVersion = 0; }, OMX_ErrorVersionMismatch},
      {[](auto& d) { d.nPortIndex = 0; }, OMX_ErrorBadPortIndex},
      {[](auto& d) { d.nPortIndex += 2; }, OMX_ErrorBadPortIndex},
  };
  for (const auto& row : rows) {
    auto spoilt = client.definition(in);
    row.spoil(spoilt);
    EXPECT_EQ(client.define(spoilt), row.error);
    EXPECT_EQ(OMX_GetParameter(client.handle, OMX_IndexParamPortDefinition, &spoilt), row.error);
  }
  for (const auto command : {OMX_CommandFlush, OMX_CommandPortDisable, OMX_CommandPortEnable})
    EXPECT_EQ(client.send(command, out + 1), OMX_ErrorBadPortIndex);
}

/// Whoever does something too early, too late or with the wrong buffer learns it here.
TEST_P(EveryPart, RefusesBuffersAtTheWrongTime) {
  const auto refused = OMX_ErrorIncorrectStateOperation;
  EXPECT_EQ(client.allocate(in), refused) << "in Loaded";
  client.complete(OMX_CommandPortDisable, out);
  client.send(OMX_CommandStateSet, OMX_StateIdle);
  EXPECT_EQ(client.allocate(out), refused) << "disabled";
  EXPECT_EQ(client.allocate(in, client.definition(in).nBufferSize - 1), OMX_ErrorBadParameter);
  client.populate(in);
  EXPECT_EQ(client.next(), "done StateSet Idle");
  EXPECT_EQ(client.allocate(in), refused) << "it has all";
  client.send(OMX_CommandPortEnable, out);
  client.populate(out);
  EXPECT_EQ(client.next(), "done PortEnable " + port);
  EXPECT_EQ(client.empty(client.in[0]), refused) << "in Idle";
  EXPECT_EQ(client.fill(client.out[0]), refused) << "in Idle";

  client.complete(OMX_CommandStateSet, OMX_StateExecuting);
  EXPECT_EQ(client.define(client.definition(out)), refused) << "enabled and not in Loaded";
  EXPECT_EQ(client.empty(client.out[0]), OMX_ErrorBadPortIndex);
  EXPECT_EQ(client.fill(client.in[0]), OMX_ErrorBadPortIndex);
  client.in[0]->nFilledLen = client.in[0]->nAllocLen + 1;
  EXPECT_EQ(client.empty(client.in[0]), OMX_ErrorBadParameter);
  EXPECT_EQ(client.fill(client.out[0]), OMX_ErrorNone);
  EXPECT_EQ(client.fill(client.out[0]), OMX_ErrorBadParameter) << "it has it already";
}

/// With both ports disabled, so that no transition waits for buffers.
TEST(Transitions, AreAnsweredAsTheStandardSays) {
  const std::string states[] = {"Loaded", "Idle", "Executing"};
  // A row for each state held; a column for each one asked for: + done, = the same, - none.
  const char* const table[] = {"=+-", "+=+", "-+="};
  for (int from = 0; from < 3; ++from)
    for (int to = 0; to < 3; ++to) {
      SCOPED_TRACE(states[from] + " to " + states[to]);
      Client client(contract::imageEncode);
      for (const OMX_U32 port : {client.part.in, client.part.out})
        client.complete(OMX_CommandPortDisable, port);
      for (int held = 1; held <= from; ++held)
        client.complete(OMX_CommandStateSet, static_cast<OMX_U32>(OMX_StateLoaded + held));
      ASSERT_EQ(client.send(OMX_CommandStateSet, static_cast<OMX_U32>(OMX_StateLoaded + to)),
                OMX_ErrorNone);
      const char answer = table[from][to];
      EXPECT_EQ(client.next(), answer == '+'   ? "done StateSet " + states[to]
                               : answer == '=' ? "error SameState"
                                               : "error IncorrectStateTransition");
      EXPECT_EQ(client.state(), OMX_StateLoaded + (answer == '+' ? to : from));
    }
}

}  // namespace
