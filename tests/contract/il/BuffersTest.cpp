// Buffers: when they may be made and handed over, how they come back, and how all ends.

#include <atomic>

#include "Rig.h"

namespace {

using rig::Bytes;
using rig::Client;
using rig::Part;
using rig::Texts;

class Buffers : public testing::TestWithParam<Part> {
 protected:
  Client client{GetParam()};
  const OMX_U32 in = GetParam().in;
  const OMX_U32 out = GetParam().out;
  const std::string emptied = "emptied " + std::to_string(in);
  const std::string filled = "filled " + std::to_string(out);
};
INSTANTIATE_TEST_SUITE_P(Parts, Buffers, testing::ValuesIn(rig::parts), [](const auto& tested) {
  return std::string(tested.param.name).substr(std::string("OMX.broadcom.").size());
});

TEST_P(Buffers, MakesBuffersOnTheWayToIdleOnly) {
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
  for (OMX_U32 left = client.definition(in).nBufferCountActual; left > 0; --left)
    client.in.push_back(client.allocate(in, client.definition(in).nBufferSize + 5));
  EXPECT_EQ(client.in.back()->nAllocLen, client.definition(in).nBufferSize + 5);
  EXPECT_EQ(client.next(), "done StateSet Idle");
  refused(in, 0, OMX_ErrorIncorrectStateOperation);
  client.rest();
}

TEST_P(Buffers, FillsInTheHeaders) {
  client.run();
  for (const OMX_BUFFERHEADERTYPE* const buffer : {client.in[0], client.out[0]}) {
    EXPECT_EQ(buffer->nSize, sizeof *buffer);
    EXPECT_EQ(buffer->nVersion.nVersion, 0x00020101u);
    EXPECT_NE(buffer->pBuffer, nullptr);
    EXPECT_EQ(buffer->pAppPrivate, &client);
    EXPECT_EQ(buffer->nFilledLen, 0u);
  }
  EXPECT_EQ(client.in[0]->nInputPortIndex, in);
  EXPECT_EQ(client.out[0]->nOutputPortIndex, out);
}

TEST_P(Buffers, TakesTheClientsOwnMemory) {
  client.complete(OMX_CommandPortDisable, in);
  client.send(OMX_CommandStateSet, OMX_StateIdle);
  Bytes memory(client.definition(out).nBufferSize);
  OMX_BUFFERHEADERTYPE* buffer = nullptr;
  ASSERT_EQ(OMX_UseBuffer(client.handle, &buffer, out, nullptr, static_cast<OMX_U32>(memory.size()),
                          memory.data()),
            OMX_ErrorNone);
  EXPECT_EQ(buffer->pBuffer, memory.data());
  client.out.push_back(buffer);
  EXPECT_EQ(client.next(), "done StateSet Idle");
  client.rest();
}

TEST_P(Buffers, RefusesBuffersThatItCannotTake) {
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
  own->nOffset = 0;
  EXPECT_EQ(client.fill(client.out[0]), OMX_ErrorNone);
  EXPECT_EQ(client.fill(client.out[0]), OMX_ErrorBadParameter) << "it has it already";
  EXPECT_EQ(client.free(in, client.out[0]), OMX_ErrorBadParameter);
  EXPECT_EQ(client.free(99, own), OMX_ErrorBadPortIndex);
}

TEST_P(Buffers, TakesBuffersInExecutingAndPauseOnly) {
  client.run();
  client.complete(OMX_CommandStateSet, OMX_StateIdle);
  EXPECT_EQ(client.empty(client.in[0], {}), OMX_ErrorIncorrectStateOperation);
  EXPECT_EQ(client.fill(client.out[0]), OMX_ErrorIncorrectStateOperation);
  client.complete(OMX_CommandStateSet, OMX_StatePause);
  EXPECT_EQ(client.fill(client.out[0]), OMX_ErrorNone);
  client.send(OMX_CommandPortDisable, in);
  EXPECT_EQ(client.empty(client.in[0], {}), OMX_ErrorIncorrectStateOperation) << "disabled";
}

TEST_P(Buffers, KeepsBuffersInPause) {
  client.run();
  client.complete(OMX_CommandStateSet, OMX_StatePause);
  EXPECT_EQ(client.empty(client.in[0], Bytes(10)), OMX_ErrorNone);
  EXPECT_EQ(client.fill(client.out[0]), OMX_ErrorNone);
  // The flush of the input port alone brings that port's buffer back; nothing else has come.
  EXPECT_EQ(client.soFar(), Texts{emptied});
  client.send(OMX_CommandStateSet, OMX_StateIdle);
  EXPECT_EQ(client.next(2), (Texts{filled, "done StateSet Idle"}));
}

/// Every way of taking buffers back does it before it completes, and empties them.
TEST_P(Buffers, GivesBuffersBackBeforeItCompletes) {
  client.run();
  for (const auto command : {OMX_CommandFlush, OMX_CommandPortDisable}) {
    ASSERT_EQ(client.fill(client.out[0]), OMX_ErrorNone);
    ASSERT_EQ(client.send(command, out), OMX_ErrorNone);
    EXPECT_EQ(client.next(), filled);
    EXPECT_EQ(client.out[0]->nFilledLen, 0u);
    if (command == OMX_CommandPortDisable) {
      client.free(out, client.out[0]);
    }
    EXPECT_EQ(client.next(), std::string("done ") +
                                 (command == OMX_CommandFlush ? "Flush " : "PortDisable ") +
                                 std::to_string(out));
  }
}

TEST_P(Buffers, GivesEverythingBackOnTheWayToIdle) {
  client.run();
  ASSERT_EQ(client.fill(client.out[0]), OMX_ErrorNone);
  ASSERT_EQ(client.send(OMX_CommandStateSet, OMX_StateIdle), OMX_ErrorNone);
  EXPECT_EQ(client.next(2), (Texts{filled, "done StateSet Idle"}));
  client.rest();
}

/// The decoder pool and the JPEG encoder free right after the command, before its completion.
TEST_P(Buffers, FreesABufferThatADisableIsBringingBack) {
  client.run();
  ASSERT_EQ(client.fill(client.out[0]), OMX_ErrorNone);
  ASSERT_EQ(client.send(OMX_CommandPortDisable, out), OMX_ErrorNone);
  EXPECT_EQ(client.free(out, client.out[0]), OMX_ErrorNone);
  EXPECT_EQ(client.next(2), (Texts{filled, "done PortDisable " + std::to_string(out)}));
}

TEST_P(Buffers, TellsOfABufferThatIsFreedUnderItsHands) {
  client.run();
  ASSERT_EQ(client.fill(client.out[0]), OMX_ErrorNone);
  EXPECT_EQ(client.free(out, client.out[0]), OMX_ErrorNone);
  EXPECT_EQ(client.next(), "error PortUnpopulated");
  EXPECT_EQ(client.definition(out).bPopulated, OMX_FALSE);
  EXPECT_EQ(client.free(in, client.in[0]), OMX_ErrorNone);
  EXPECT_EQ(client.next(), "error PortUnpopulated");
}

/// A handle may go in any state and with any buffers; nothing is called back afterwards.
TEST_P(Buffers, EndsInAnyState) {
  for (const OMX_STATETYPE state :
       {OMX_StateLoaded, OMX_StateIdle, OMX_StateExecuting, OMX_StatePause}) {
    Client other(GetParam());
    if (state != OMX_StateLoaded) {
      other.run();
      other.fill(other.out[0]);
      other.empty(other.in[0], Bytes(20), 0);
      if (state != OMX_StateExecuting) other.send(OMX_CommandStateSet, state);
    } else {
      other.send(OMX_CommandStateSet, OMX_StateIdle);
      other.allocate(in);
    }
    ASSERT_EQ(OMX_FreeHandle(other.handle), OMX_ErrorNone);
    other.handle = nullptr;
  }
}

/// Callbacks may call the component.
struct Refiller {
  std::atomic<int> fills{0};
  std::mutex mutex;
  std::condition_variable done;
  bool idle = false;
};

TEST(Callbacks, MayHandBuffersOverAgain) {
  Refiller refiller;
  OMX_CALLBACKTYPE callbacks = {
      [](OMX_HANDLETYPE, OMX_PTR self, OMX_EVENTTYPE, OMX_U32 command, OMX_U32, OMX_PTR) {
        auto& r = *static_cast<Refiller*>(self);
        const std::lock_guard<std::mutex> lock(r.mutex);
        r.idle = r.idle || command == OMX_CommandFlush;
        r.done.notify_one();
        return OMX_ErrorNone;
      },
      [](OMX_HANDLETYPE, OMX_PTR, OMX_BUFFERHEADERTYPE*) { return OMX_ErrorNone; },
      [](OMX_HANDLETYPE handle, OMX_PTR self, OMX_BUFFERHEADERTYPE* buffer) {
        ++static_cast<Refiller*>(self)->fills;
        return OMX_FillThisBuffer(handle, buffer);
      }};
  Client client(rig::imageDecode);
  OMX_HANDLETYPE handle = nullptr;
  ASSERT_EQ(OMX_GetHandle(&handle, const_cast<char*>(rig::imageDecode.name), &refiller, &callbacks),
            OMX_ErrorNone);
  OMX_SendCommand(handle, OMX_CommandPortDisable, 320, nullptr);
  OMX_SendCommand(handle, OMX_CommandStateSet, OMX_StateIdle, nullptr);
  OMX_BUFFERHEADERTYPE* buffer = nullptr;
  ASSERT_EQ(OMX_AllocateBuffer(handle, &buffer, 321, nullptr, client.definition(321).nBufferSize),
            OMX_ErrorNone);
  OMX_SendCommand(handle, OMX_CommandStateSet, OMX_StateExecuting, nullptr);
  OMX_STATETYPE state = OMX_StateLoaded;
  while (state != OMX_StateExecuting) OMX_GetState(handle, &state);
  ASSERT_EQ(OMX_FillThisBuffer(handle, buffer), OMX_ErrorNone);
  OMX_SendCommand(handle, OMX_CommandFlush, 321, nullptr);
  std::unique_lock<std::mutex> lock(refiller.mutex);
  refiller.done.wait(lock, [&] { return refiller.idle; });
  lock.unlock();
  EXPECT_EQ(refiller.fills, 1) << "a flush gives each buffer back once";
  EXPECT_EQ(OMX_FreeHandle(handle), OMX_ErrorNone);
}

}  // namespace
