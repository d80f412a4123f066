// States, ports and parameters: what is allowed when, what is refused with which error, which
// events come.

#include <algorithm>
#include <functional>

#include "Rig.h"

namespace {

using rig::Client;
using rig::Texts;

using PortStates = rig::EveryPart;
INSTANTIATE_TEST_SUITE_P(Parts, PortStates, testing::ValuesIn(rig::parts), PortStates::nameOf);

TEST_P(PortStates, StartsLoadedWithItsPortsOfOneDomainEnabledAndEmpty) {
  EXPECT_EQ(client.state(), OMX_StateLoaded);
  for (const OMX_U32 port : {in, out}) {
    const auto definition = client.definition(port);
    EXPECT_EQ(definition.eDir, port == in ? OMX_DirInput : OMX_DirOutput);
    EXPECT_EQ(definition.bEnabled, OMX_TRUE);
    EXPECT_EQ(definition.bPopulated, OMX_FALSE);
    EXPECT_GE(definition.nBufferCountActual, definition.nBufferCountMin);
  }
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

TEST_P(PortStates, WaitsForBuffersOnTheWayToIdleAndBack) {
  ASSERT_EQ(client.send(OMX_CommandStateSet, OMX_StateIdle), OMX_ErrorNone);
  for (const OMX_U32 port : {in, out})
    for (OMX_U32 left = client.definition(port).nBufferCountActual; left > 0; --left) {
      EXPECT_EQ(client.soFar(), Texts{});
      EXPECT_EQ(client.state(), OMX_StateLoaded);
      client.of(port).push_back(client.allocate(port));
      EXPECT_EQ(client.definition(port).bPopulated, left == 1 ? OMX_TRUE : OMX_FALSE);
    }
  EXPECT_EQ(client.next(), "done StateSet Idle");

  ASSERT_EQ(client.send(OMX_CommandStateSet, OMX_StateLoaded), OMX_ErrorNone);
  EXPECT_EQ(client.soFar(), Texts{});
  client.vacate(in);
  EXPECT_EQ(client.soFar(), Texts{});
  EXPECT_EQ(client.state(), OMX_StateIdle);
  client.vacate(out);
  EXPECT_EQ(client.next(), "done StateSet Loaded");
}

TEST_P(PortStates, CountsADisabledPortAsNone) {
  client.complete(OMX_CommandPortDisable, in);
  ASSERT_EQ(client.send(OMX_CommandStateSet, OMX_StateIdle), OMX_ErrorNone);
  EXPECT_EQ(client.soFar(), Texts{});
  client.send(OMX_CommandPortDisable, out);
  // The two are independent; either may be reported first.
  Texts both = client.next(2);
  std::sort(both.begin(), both.end());
  EXPECT_EQ(both, (Texts{"done PortDisable " + std::to_string(out), "done StateSet Idle"}));
}

TEST_P(PortStates, DisablesAndEnablesInEveryState) {
  client.complete(OMX_CommandPortDisable, out);  // in Loaded at once
  client.complete(OMX_CommandPortEnable, out);
  client.run();
  for (const OMX_STATETYPE state : {OMX_StateExecuting, OMX_StateIdle}) {
    if (client.state() != state) client.complete(OMX_CommandStateSet, state);
    ASSERT_EQ(client.send(OMX_CommandPortDisable, out), OMX_ErrorNone);
    EXPECT_EQ(client.definition(out).bEnabled, OMX_FALSE) << "cleared at once";
    EXPECT_EQ(client.soFar(), Texts{}) << "waits for its buffers to be freed";
    client.disabled(out);
    ASSERT_EQ(client.send(OMX_CommandPortEnable, out), OMX_ErrorNone);
    EXPECT_EQ(client.definition(out).bEnabled, OMX_TRUE) << "set at once";
    EXPECT_EQ(client.soFar(), Texts{}) << "waits for its buffers";
    client.enabled(out);
  }
  client.rest();
}

TEST_P(PortStates, RefusesStructuresAndPortsThatAreNotItsOwn) {
  const struct {
    std::function<void(OMX_PARAM_PORTDEFINITIONTYPE&)> spoil;
    OMX_ERRORTYPE error;
  } rows[] = {
      {[](auto& d) { d.nSize -= 4; }, OMX_ErrorVersionMismatch},
      {[](auto& d) { d.nSize += 4; }, OMX_ErrorVersionMismatch},
      {[](auto& d) { d.nVersion.nVersion = 0; }, OMX_ErrorVersionMismatch},
      {[](auto& d) { d.nVersion.s.nVersionMajor = 2; }, OMX_ErrorVersionMismatch},
      {[](auto& d) { d.nPortIndex = 0; }, OMX_ErrorBadPortIndex},
      {[](auto& d) { d.nPortIndex += 2; }, OMX_ErrorBadPortIndex},
  };
  auto definition = client.definition(in);
  for (const auto& row : rows) {
    auto spoilt = definition;
    row.spoil(spoilt);
    EXPECT_EQ(client.define(spoilt), row.error);
    EXPECT_EQ(OMX_GetParameter(client.handle, OMX_IndexParamPortDefinition, &spoilt), row.error);
  }
  EXPECT_EQ(OMX_GetParameter(client.handle, OMX_IndexParamAudioPortFormat, &definition),
            OMX_ErrorUnsupportedIndex);
  for (const auto command : {OMX_CommandFlush, OMX_CommandPortDisable, OMX_CommandPortEnable})
    for (const OMX_U32 port : {OMX_U32{7}, out + 1, in - 1})
      EXPECT_EQ(client.send(command, port), OMX_ErrorBadPortIndex);
}

TEST_P(PortStates, ChangesAPortOnlyWhileDisabledOrLoadedAndKeepsWhatIsItsOwn) {
  auto wanted = client.definition(out);
  wanted.eDir = OMX_DirInput;
  wanted.bEnabled = OMX_FALSE;
  wanted.bPopulated = OMX_TRUE;
  wanted.eDomain = OMX_PortDomainOther;
  const auto before = client.definition(out);
  ASSERT_EQ(client.define(wanted), OMX_ErrorNone);
  const auto after = client.definition(out);
  EXPECT_EQ(after.eDir, OMX_DirOutput);
  EXPECT_EQ(after.bEnabled, OMX_TRUE);
  EXPECT_EQ(after.bPopulated, OMX_FALSE);
  EXPECT_EQ(after.eDomain, before.eDomain);
  client.run();
  EXPECT_EQ(client.define(after), OMX_ErrorIncorrectStateOperation);
  client.send(OMX_CommandPortDisable, out);
  client.disabled(out);
  EXPECT_EQ(client.define(after), OMX_ErrorNone);
}

/// With both ports disabled, so that no transition waits for buffers.
TEST(Transitions, AreAnsweredAsTheStandardSays) {
  const std::string same = "error SameState", wrong = "error IncorrectStateTransition";
  const std::string states[] = {"Loaded", "Idle", "Executing"};
  // A row for each state held; a column for each one asked for: + done, = the same, - none.
  const char* const table[] = {"=+-", "+=+", "-+="};
  for (int from = 0; from < 3; ++from)
    for (int to = 0; to < 3; ++to) {
      SCOPED_TRACE(states[from] + " to " + states[to]);
      Client client(rig::imageEncode);
      for (const OMX_U32 port : {client.part.in, client.part.out})
        client.complete(OMX_CommandPortDisable, port);
      if (from > 0) client.complete(OMX_CommandStateSet, OMX_StateIdle);
      const OMX_STATETYPE held = static_cast<OMX_STATETYPE>(OMX_StateLoaded + from);
      if (from > 1) client.complete(OMX_CommandStateSet, held);
      const OMX_STATETYPE wanted = static_cast<OMX_STATETYPE>(OMX_StateLoaded + to);
      ASSERT_EQ(client.send(OMX_CommandStateSet, wanted), OMX_ErrorNone);
      const char answer = table[from][to];
      EXPECT_EQ(client.next(), answer == '+'   ? "done StateSet " + states[to]
                               : answer == '=' ? same
                                               : wrong);
      EXPECT_EQ(client.state(), answer == '+' ? wanted : held);
    }
}

TEST(Core, CountsItsUsersAndRefusesWhatItDoesNotKnow) {
  OMX_HANDLETYPE handle = nullptr;
  OMX_CALLBACKTYPE callbacks{};
  char known[] = "OMX.broadcom.image_decode", unknown[] = "OMX.broadcom.nothing";
  EXPECT_NE(OMX_GetHandle(&handle, known, nullptr, &callbacks), OMX_ErrorNone) << "before OMX_Init";
  ASSERT_EQ(OMX_Init(), OMX_ErrorNone);
  ASSERT_EQ(OMX_Init(), OMX_ErrorNone);
  EXPECT_EQ(OMX_Deinit(), OMX_ErrorNone);
  EXPECT_EQ(OMX_GetHandle(&handle, unknown, nullptr, &callbacks), OMX_ErrorComponentNotFound);
  EXPECT_EQ(handle, nullptr);
  EXPECT_EQ(OMX_FreeHandle(nullptr), OMX_ErrorBadParameter);
  EXPECT_EQ(OMX_Deinit(), OMX_ErrorNone);
}

}  // namespace
