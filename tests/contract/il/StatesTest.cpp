// States, ports and parameters: what is allowed when, what is refused with which error, which
// events come.

#include <functional>

#include "Rig.h"

namespace {

using rig::Client;
using rig::make;
using rig::Part;
using rig::Texts;

class PortStates : public testing::TestWithParam<Part> {
 protected:
  Client client{GetParam()};
  const OMX_U32 in = GetParam().in;
  const OMX_U32 out = GetParam().out;
};
INSTANTIATE_TEST_SUITE_P(Parts, PortStates, testing::ValuesIn(rig::parts), [](const auto& tested) {
  return std::string(tested.param.name).substr(std::string("OMX.broadcom.").size());
});

TEST_P(PortStates, StartsLoadedWithItsPortsEnabledAndEmpty) {
  EXPECT_EQ(client.state(), OMX_StateLoaded);
  for (const OMX_U32 port : {in, out}) {
    const auto definition = client.definition(port);
    EXPECT_EQ(definition.nPortIndex, port);
    EXPECT_EQ(definition.eDir, port == in ? OMX_DirInput : OMX_DirOutput);
    EXPECT_EQ(definition.bEnabled, OMX_TRUE);
    EXPECT_EQ(definition.bPopulated, OMX_FALSE);
    EXPECT_GE(definition.nBufferCountActual, definition.nBufferCountMin);
  }
}

TEST_P(PortStates, HasItsPortsInOneDomain) {
  for (const OMX_INDEXTYPE domain : {OMX_IndexParamAudioInit, OMX_IndexParamVideoInit,
                                     OMX_IndexParamImageInit, OMX_IndexParamOtherInit}) {
    OMX_PORT_PARAM_TYPE range{};
    range.nSize = sizeof range;
    range.nVersion.nVersion = 0x00020101;
    ASSERT_EQ(OMX_GetParameter(client.handle, domain, &range), OMX_ErrorNone);
    EXPECT_EQ(range.nPorts, domain == GetParam().domain ? 2u : 0u);
    if (range.nPorts > 0) {
      EXPECT_EQ(range.nStartPortNumber, in);
    }
  }
}

TEST_P(PortStates, WaitsForBuffersOnTheWayToIdleAndBack) {
  ASSERT_EQ(client.send(OMX_CommandStateSet, OMX_StateIdle), OMX_ErrorNone);
  for (const OMX_U32 port : {in, out})
    for (OMX_U32 left = client.definition(port).nBufferCountActual; left > 0; --left) {
      EXPECT_EQ(client.soFar(), Texts{});
      EXPECT_EQ(client.state(), OMX_StateLoaded);
      (port == in ? client.in : client.out).push_back(client.allocate(port));
      EXPECT_EQ(client.error, OMX_ErrorNone);
      EXPECT_EQ(client.definition(port).bPopulated, left == 1 ? OMX_TRUE : OMX_FALSE);
    }
  EXPECT_EQ(client.next(), "done StateSet Idle");

  ASSERT_EQ(client.send(OMX_CommandStateSet, OMX_StateLoaded), OMX_ErrorNone);
  EXPECT_EQ(client.soFar(), Texts{});
  for (OMX_BUFFERHEADERTYPE* const buffer : client.in) client.free(in, buffer);
  EXPECT_EQ(client.soFar(), Texts{});
  EXPECT_EQ(client.state(), OMX_StateIdle);
  for (OMX_BUFFERHEADERTYPE* const buffer : client.out) client.free(out, buffer);
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

/// The decoder pool's setup: six commands, six completions, in an order of their own.
TEST_P(PortStates, AnswersEachCommandOfAnInterleavedSetupOnce) {
  client.send(OMX_CommandStateSet, OMX_StateIdle);
  client.complete(OMX_CommandPortDisable, in);
  client.complete(OMX_CommandPortEnable, in);
  for (OMX_U32 left = client.definition(in).nBufferCountActual; left > 0; --left)
    client.in.push_back(client.allocate(in));
  client.send(OMX_CommandPortDisable, out);
  client.next();
  client.send(OMX_CommandPortEnable, out);
  client.next();
  client.out.push_back(client.allocate(out));
  client.next();
  client.complete(OMX_CommandStateSet, OMX_StateExecuting);
  client.rest();
}

TEST_P(PortStates, DisablesAndEnablesInEveryState) {
  for (const OMX_U32 port : {in, out}) {  // Loaded: at once
    client.complete(OMX_CommandPortDisable, port);
    EXPECT_EQ(client.definition(port).bEnabled, OMX_FALSE);
    client.complete(OMX_CommandPortEnable, port);
  }
  client.run();
  for (const OMX_STATETYPE state : {OMX_StateExecuting, OMX_StatePause, OMX_StateIdle}) {
    if (client.state() != state) client.complete(OMX_CommandStateSet, state);
    ASSERT_EQ(client.send(OMX_CommandPortDisable, out), OMX_ErrorNone);
    EXPECT_EQ(client.definition(out).bEnabled, OMX_FALSE) << "cleared at once";
    EXPECT_EQ(client.soFar(), Texts{}) << "waits for its buffers to be freed";
    client.free(out, client.out[0]);
    EXPECT_EQ(client.next(), "done PortDisable " + std::to_string(out));
    ASSERT_EQ(client.send(OMX_CommandPortEnable, out), OMX_ErrorNone);
    EXPECT_EQ(client.definition(out).bEnabled, OMX_TRUE) << "set at once";
    EXPECT_EQ(client.soFar(), Texts{}) << "waits for its buffers";
    client.out[0] = client.allocate(out);
    EXPECT_EQ(client.next(), "done PortEnable " + std::to_string(out));
  }
  client.rest();
}

TEST_P(PortStates, TakesAllPortsInOneCommand) {
  for (const OMX_COMMANDTYPE command :
       {OMX_CommandFlush, OMX_CommandPortDisable, OMX_CommandPortEnable}) {
    ASSERT_EQ(client.send(command, OMX_ALL), OMX_ErrorNone);
    const Texts both = client.next(2);
    EXPECT_NE(both[0], both[1]);
    EXPECT_EQ(client.soFar(), Texts{});
  }
}

TEST_P(PortStates, RefusesCommandsThatMakeNoSense) {
  EXPECT_EQ(client.send(OMX_CommandPortDisable, 7), OMX_ErrorBadPortIndex);
  EXPECT_EQ(client.send(OMX_CommandPortEnable, out + 1), OMX_ErrorBadPortIndex);
  EXPECT_EQ(client.send(OMX_CommandFlush, in - 1), OMX_ErrorBadPortIndex);
  EXPECT_EQ(client.send(static_cast<OMX_COMMANDTYPE>(99), 0), OMX_ErrorBadParameter);
  EXPECT_EQ(client.soFar(), Texts{});
}

TEST_P(PortStates, RefusesStructuresThatAreNotItsOwn) {
  using Spoil = std::function<void(OMX_PARAM_PORTDEFINITIONTYPE&)>;
  const struct {
    Spoil spoil;
    OMX_ERRORTYPE error;
  } rows[] = {
      {[](auto& d) { d.nSize -= 4; }, OMX_ErrorVersionMismatch},
      {[](auto& d) { d.nSize += 4; }, OMX_ErrorVersionMismatch},
      {[](auto& d) { d.nVersion.nVersion = 0; }, OMX_ErrorVersionMismatch},
      {[](auto& d) { d.nVersion.s.nVersionMajor = 2; }, OMX_ErrorVersionMismatch},
      {[](auto& d) { d.nPortIndex = 0; }, OMX_ErrorBadPortIndex},
      {[](auto& d) { d.nPortIndex += 2; }, OMX_ErrorBadPortIndex},
  };
  for (const auto& row : rows) {
    auto definition = client.definition(in);
    row.spoil(definition);
    EXPECT_EQ(client.define(definition), row.error);
    EXPECT_EQ(OMX_GetParameter(client.handle, OMX_IndexParamPortDefinition, &definition),
              row.error);
  }
  OMX_PORT_PARAM_TYPE range{};
  EXPECT_EQ(OMX_GetParameter(client.handle, OMX_IndexParamImageInit, &range),
            OMX_ErrorVersionMismatch);
  auto definition = client.definition(in);
  EXPECT_EQ(OMX_GetParameter(client.handle, OMX_IndexParamAudioPortFormat, &definition),
            OMX_ErrorUnsupportedIndex);
  EXPECT_EQ(OMX_GetParameter(client.handle, OMX_IndexParamPortDefinition, nullptr),
            OMX_ErrorBadParameter);
}

TEST_P(PortStates, KeepsWhatIsTheComponentsOwnInADefinition) {
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
}

TEST_P(PortStates, ChangesAPortOnlyWhileItIsDisabledOrLoaded) {
  auto definition = client.definition(out);
  EXPECT_EQ(client.define(definition), OMX_ErrorNone);
  client.run();
  EXPECT_EQ(client.define(definition), OMX_ErrorIncorrectStateOperation);
  client.send(OMX_CommandPortDisable, out);
  client.free(out, client.out[0]);
  client.next();
  EXPECT_EQ(client.define(definition), OMX_ErrorNone);
}

// ------------------------------------------------------------------------------- transitions

struct Transition {
  OMX_STATETYPE from;
  OMX_STATETYPE to;
  const char* answer;
};

class Transitions : public testing::TestWithParam<Transition> {};

/// With both ports disabled, so that no transition waits for buffers.
TEST_P(Transitions, AreAnsweredAsTheStandardSays) {
  Client client(rig::imageEncode);
  client.send(OMX_CommandPortDisable, OMX_ALL);
  client.next(2);
  const auto [from, to, answer] = GetParam();
  if (from != OMX_StateLoaded) client.complete(OMX_CommandStateSet, OMX_StateIdle);
  if (from != OMX_StateLoaded && from != OMX_StateIdle) client.complete(OMX_CommandStateSet, from);
  ASSERT_EQ(client.send(OMX_CommandStateSet, to), OMX_ErrorNone);
  EXPECT_EQ(client.next(), answer);
  EXPECT_EQ(client.state(), std::string(answer).rfind("done", 0) == 0 ? to : from);
}

constexpr auto loaded = OMX_StateLoaded;
constexpr auto idle = OMX_StateIdle;
constexpr auto executing = OMX_StateExecuting;
constexpr auto pause = OMX_StatePause;

INSTANTIATE_TEST_SUITE_P(
    All, Transitions,
    testing::Values(Transition{loaded, loaded, "error SameState"},
                    Transition{loaded, idle, "done StateSet Idle"},
                    Transition{loaded, executing, "error IncorrectStateTransition"},
                    Transition{loaded, pause, "error IncorrectStateTransition"},
                    Transition{idle, loaded, "done StateSet Loaded"},
                    Transition{idle, idle, "error SameState"},
                    Transition{idle, executing, "done StateSet Executing"},
                    Transition{idle, pause, "done StateSet Pause"},
                    Transition{idle, OMX_StateWaitForResources, "error IncorrectStateTransition"},
                    Transition{executing, loaded, "error IncorrectStateTransition"},
                    Transition{executing, idle, "done StateSet Idle"},
                    Transition{executing, executing, "error SameState"},
                    Transition{executing, pause, "done StateSet Pause"},
                    Transition{pause, loaded, "error IncorrectStateTransition"},
                    Transition{pause, idle, "done StateSet Idle"},
                    Transition{pause, executing, "done StateSet Executing"},
                    Transition{pause, pause, "error SameState"}));

// -------------------------------------------------------------------------------------- core

TEST(Core, RefusesWhatItDoesNotKnow) {
  OMX_HANDLETYPE handle = nullptr;
  OMX_CALLBACKTYPE callbacks{};
  char unknown[] = "OMX.broadcom.nothing";
  EXPECT_NE(OMX_GetHandle(&handle, const_cast<char*>(rig::imageDecode.name), nullptr, &callbacks),
            OMX_ErrorNone)
      << "before OMX_Init";
  ASSERT_EQ(OMX_Init(), OMX_ErrorNone);
  ASSERT_EQ(OMX_Init(), OMX_ErrorNone) << "counts";
  EXPECT_EQ(OMX_Deinit(), OMX_ErrorNone);
  EXPECT_EQ(OMX_GetHandle(&handle, unknown, nullptr, &callbacks), OMX_ErrorComponentNotFound);
  EXPECT_EQ(handle, nullptr);
  EXPECT_EQ(OMX_GetHandle(nullptr, unknown, nullptr, &callbacks), OMX_ErrorBadParameter);
  EXPECT_EQ(OMX_FreeHandle(nullptr), OMX_ErrorBadParameter);
  EXPECT_EQ(OMX_Deinit(), OMX_ErrorNone);
}

TEST(Core, NamesItsComponents) {
  ASSERT_EQ(OMX_Init(), OMX_ErrorNone);
  std::vector<std::string> names;
  char name[OMX_MAX_STRINGNAME_SIZE];
  while (OMX_ComponentNameEnum(name, sizeof name, static_cast<OMX_U32>(names.size())) ==
         OMX_ErrorNone)
    names.push_back(name);
  for (const Part& part : rig::parts)
    EXPECT_NE(std::find(names.begin(), names.end(), part.name), names.end()) << part.name;
  EXPECT_EQ(OMX_Deinit(), OMX_ErrorNone);
}

}  // namespace
