// Buffers: when they may be made and handed over, how they come back, and how all ends.

#include "Rig.h"

namespace {

using rig::Bytes;
using rig::Client;
using rig::Part;
using rig::Texts;

using Buffers = rig::EveryPart;
INSTANTIATE_TEST_SUITE_P(Parts, Buffers, testing::ValuesIn(rig::parts), Buffers::nameOf);

TEST_P(Buffers, AreMadeOnTheWayToIdleOnly) {
  const auto refused = [&](OMX_U32 port, OMX_U32 size, OMX_ERRORTYPE error) {
    EXPECT_EQ(client.allocate(port, size), nullptr);
    EXPECT_EQ(client.error, error);
  };
  refused(in, 0, OMX_ErrorIncorrectStateOperation);
  client.complete(OMX_CommandPortDisable, out);
  client.send(OMX_CommandStateSet, OMX_StateIdle);
  refused(out, 0, OMX_ErrorIncorrectStateOperation);
  refused(99, 1, OMX_ErrorBadPortIndex);
  refused(in, client.definition(in).nBufferSize - 1, OMX_ErrorBadParameter);
  client.populate(in);
  EXPECT_EQ(client.next(), "done StateSet Idle");
  refused(in, 0, OMX_ErrorIncorrectStateOperation);
  client.rest();
}

TEST_P(Buffers, AreRefusedWhenTheyCannotBeTaken) {
  client.run();
  OMX_BUFFERHEADERTYPE foreign = *client.in[0];
  OMX_BUFFERHEADERTYPE* const own = client.in[0];
  EXPECT_EQ(OMX_EmptyThisBuffer(client.handle, nullptr), OMX_ErrorBadParameter);
  EXPECT_EQ(OMX_EmptyThisBuffer(client.handle, &foreign), OMX_ErrorBadParameter);
  EXPECT_EQ(OMX_EmptyThisBuffer(client.handle, client.out[0]), OMX_ErrorBadPortIndex);
  EXPECT_EQ(client.fill(own), OMX_ErrorBadPortIndex);
  own->nFilledLen = own->nAllocLen + 1;
  EXPECT_EQ(OMX_EmptyThisBuffer(client.handle, own), OMX_ErrorBadParameter);
  own->nFilledLen = 1;
  own->nOffset = own->nAllocLen;
  EXPECT_EQ(OMX_EmptyThisBuffer(client.handle, own), OMX_ErrorBadParameter);
  EXPECT_EQ(client.fill(client.out[0]), OMX_ErrorNone);
  EXPECT_EQ(client.fill(client.out[0]), OMX_ErrorBadParameter) << "it has it already";
  EXPECT_EQ(client.free(in, client.out[0]), OMX_ErrorBadParameter);
  EXPECT_EQ(client.free(99, own), OMX_ErrorBadPortIndex);
}

TEST_P(Buffers, HaveTheirHeadersFilledInAndAreTakenInExecuting) {
  client.run();
  for (const OMX_BUFFERHEADERTYPE* const buffer : {client.in[0], client.out[0]}) {
    const bool isIn = buffer == client.in[0];
    EXPECT_EQ(buffer->nSize, sizeof *buffer);
    EXPECT_EQ(buffer->nVersion.nVersion, 0x00020101u);
    EXPECT_EQ(buffer->pAppPrivate, &client);
    EXPECT_NE(buffer->pBuffer, nullptr);
    EXPECT_EQ(buffer->nFilledLen, 0u);
    EXPECT_EQ(buffer->nAllocLen, client.definition(isIn ? in : out).nBufferSize);
    EXPECT_EQ(isIn ? buffer->nInputPortIndex : buffer->nOutputPortIndex, isIn ? in : out);
  }
  client.complete(OMX_CommandStateSet, OMX_StateIdle);
  EXPECT_EQ(client.empty(client.in[0], {}), OMX_ErrorIncorrectStateOperation);
  EXPECT_EQ(client.fill(client.out[0]), OMX_ErrorIncorrectStateOperation);
}

/// Every way of taking buffers back does it before it completes, and empties them. The decoder pool
/// and the JPEG encoder free right after a disable, before its completion.
TEST_P(Buffers, ComeBackBeforeTheCommandCompletes) {
  client.run();
  const std::string port = std::to_string(out);
  const auto expectBack = [&](OMX_COMMANDTYPE command, OMX_U32 what, const std::string& done) {
    ASSERT_EQ(client.fill(client.out[0]), OMX_ErrorNone);
    ASSERT_EQ(client.send(command, what), OMX_ErrorNone);
    if (command == OMX_CommandPortDisable) client.vacate(out);
    EXPECT_EQ(client.next(2), (Texts{filled, done}));
  };
  expectBack(OMX_CommandFlush, out, "done Flush " + port);
  EXPECT_EQ(client.out[0]->nFilledLen, 0u);
  expectBack(OMX_CommandPortDisable, out, "done PortDisable " + port);
  client.send(OMX_CommandPortEnable, out);
  client.enabled(out);
  expectBack(OMX_CommandStateSet, OMX_StateIdle, "done StateSet Idle");
  client.rest();
}

TEST_P(Buffers, AreToldOfWhenFreedUnderTheComponentsHands) {
  client.run();
  ASSERT_EQ(client.fill(client.out[0]), OMX_ErrorNone);
  for (const OMX_U32 port : {out, in}) {
    EXPECT_EQ(client.free(port, client.of(port)[0]), OMX_ErrorNone);
    EXPECT_EQ(client.next(), "error PortUnpopulated");
    EXPECT_EQ(client.definition(port).bPopulated, OMX_FALSE);
  }
}

/// A handle may go in any state and with any buffers; nothing is called back afterwards.
TEST_P(Buffers, GoWithTheirHandleInAnyState) {
  for (const auto state : {OMX_StateLoaded, OMX_StateIdle, OMX_StateExecuting}) {
    Client other(GetParam());
    if (state == OMX_StateLoaded) {
      other.send(OMX_CommandStateSet, OMX_StateIdle);
      other.allocate(in);
      continue;
    }
    other.run();
    other.fill(other.out[0]);
    other.empty(other.in[0], Bytes(20), 0);
    if (state != OMX_StateExecuting) other.send(OMX_CommandStateSet, state);
  }
}

}  // namespace
