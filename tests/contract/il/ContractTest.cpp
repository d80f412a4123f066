// States, ports and buffers: what is allowed when, what is refused with which error, and which
// events come.

#include <IL/OMX_Component.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

/// A component that the library uses, and its ports.
struct Part {
  const char* name;
  OMX_U32 in;
  OMX_U32 out;
};
constexpr Part imageDecode = {"OMX.broadcom.image_decode", 320, 321};
constexpr Part imageEncode = {"OMX.broadcom.image_encode", 340, 341};
constexpr Part videoEncode = {"OMX.broadcom.video_encode", 200, 201};

std::string commandText(OMX_U32 command, OMX_U32 parameter) {
  const char* const commands[] = {"StateSet ", "Flush ", "PortDisable ", "PortEnable "};
  const char* const states[] = {"Invalid", "Loaded", "Idle", "Executing"};
  return commands[command] +
         (command == OMX_CommandStateSet ? states[parameter] : std::to_string(parameter));
}

std::string errorText(OMX_ERRORTYPE code) {
  return code == OMX_ErrorSameState                  ? "SameState"
         : code == OMX_ErrorIncorrectStateTransition ? "IncorrectStateTransition"
         : code == OMX_ErrorPortUnpopulated          ? "PortUnpopulated"
                                                     : std::to_string(code);
}

/// A handle whose callbacks are kept as texts, in their order: "done StateSet Idle",
/// "done PortDisable 320", "error SameState", "emptied 320", "filled 321".
class Client {
 public:
  explicit Client(const Part& wanted) : part(wanted) {
    static OMX_CALLBACKTYPE callbacks = {onEvent, onEmptied, onFilled};
    EXPECT_EQ(OMX_Init(), OMX_ErrorNone);
    EXPECT_EQ(OMX_GetHandle(&handle, const_cast<char*>(part.name), this, &callbacks),
              OMX_ErrorNone);
  }
  ~Client() {
    EXPECT_EQ(OMX_FreeHandle(handle), OMX_ErrorNone);
    EXPECT_EQ(OMX_Deinit(), OMX_ErrorNone);
  }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  /// The next callback, or "nothing" after a time that no platform needs.
  std::string next() {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!arrived_.wait_for(lock, std::chrono::seconds(20), [this] { return !texts_.empty(); }))
      return "nothing";
    std::string text = texts_.front();
    texts_.pop_front();
    return text;
  }
  OMX_ERRORTYPE send(OMX_COMMANDTYPE command, OMX_U32 parameter) {
    return OMX_SendCommand(handle, command, parameter, nullptr);
  }
  /// Sends it and expects its completion next.
  void complete(OMX_COMMANDTYPE command, OMX_U32 parameter) {
    EXPECT_EQ(send(command, parameter), OMX_ErrorNone);
    EXPECT_EQ(next(), "done " + commandText(static_cast<OMX_U32>(command), parameter));
  }
  /// Expects that nothing comes before the answer to a flush.
  void expectNothing() { complete(OMX_CommandFlush, part.in); }

  OMX_STATETYPE state() {
    OMX_STATETYPE state = OMX_StateMax;
    EXPECT_EQ(OMX_GetState(handle, &state), OMX_ErrorNone);
    return state;
  }
  OMX_PARAM_PORTDEFINITIONTYPE definition(OMX_U32 port) {
    OMX_PARAM_PORTDEFINITIONTYPE definition{};
    definition.nSize = sizeof definition;
    definition.nVersion.nVersion = 0x00020101;
    definition.nPortIndex = port;
    EXPECT_EQ(OMX_GetParameter(handle, OMX_IndexParamPortDefinition, &definition), OMX_ErrorNone);
    return definition;
  }
  OMX_ERRORTYPE define(OMX_PARAM_PORTDEFINITIONTYPE definition) {
    return OMX_SetParameter(handle, OMX_IndexParamPortDefinition, &definition);
  }

  /// One more buffer of the port's size (or another) in `in` or `out`.
  OMX_ERRORTYPE allocate(OMX_U32 port, OMX_U32 size = 0) {
    OMX_BUFFERHEADERTYPE* buffer = nullptr;
    if (size == 0) size = definition(port).nBufferSize;
    const OMX_ERRORTYPE error = OMX_AllocateBuffer(handle, &buffer, port, this, size);
    if (error == OMX_ErrorNone) of(port).push_back(buffer);
    return error;
  }
  /// As many as the port needs; all that it has.
  void populate(OMX_U32 port) {
    for (OMX_U32 left = definition(port).nBufferCountActual; left > 0; --left)
      ASSERT_EQ(allocate(port), OMX_ErrorNone);
  }
  void vacate(OMX_U32 port) {
    for (OMX_BUFFERHEADERTYPE* const buffer : of(port))
      EXPECT_EQ(OMX_FreeBuffer(handle, port, buffer), OMX_ErrorNone);
    of(port).clear();
  }
  /// From Loaded to Executing, with every port's buffers.
  void run() {
    EXPECT_EQ(send(OMX_CommandStateSet, OMX_StateIdle), OMX_ErrorNone);
    populate(part.in);
    populate(part.out);
    EXPECT_EQ(next(), "done StateSet Idle");
    complete(OMX_CommandStateSet, OMX_StateExecuting);
  }
  std::vector<OMX_BUFFERHEADERTYPE*>& of(OMX_U32 port) { return port == part.in ? in : out; }
  OMX_ERRORTYPE empty(OMX_BUFFERHEADERTYPE* buffer) { return OMX_EmptyThisBuffer(handle, buffer); }
  OMX_ERRORTYPE fill(OMX_BUFFERHEADERTYPE* buffer) { return OMX_FillThisBuffer(handle, buffer); }

  const Part part;
  OMX_HANDLETYPE handle = nullptr;
  std::vector<OMX_BUFFERHEADERTYPE*> in;
  std::vector<OMX_BUFFERHEADERTYPE*> out;

 private:
  static OMX_ERRORTYPE onEvent(OMX_HANDLETYPE, OMX_PTR self, OMX_EVENTTYPE event, OMX_U32 data1,
                               OMX_U32 data2, OMX_PTR) {
    return keep(self, event == OMX_EventCmdComplete ? "done " + commandText(data1, data2)
                      : event == OMX_EventError
                          ? "error " + errorText(static_cast<OMX_ERRORTYPE>(data1))
                          : "event " + std::to_string(event));
  }
  static OMX_ERRORTYPE onEmptied(OMX_HANDLETYPE, OMX_PTR self, OMX_BUFFERHEADERTYPE* buffer) {
    return keep(self, "emptied " + std::to_string(buffer->nInputPortIndex));
  }
  static OMX_ERRORTYPE onFilled(OMX_HANDLETYPE, OMX_PTR self, OMX_BUFFERHEADERTYPE* buffer) {
    return keep(self, "filled " + std::to_string(buffer->nOutputPortIndex));
  }
  static OMX_ERRORTYPE keep(OMX_PTR self, const std::string& text) {
    auto& client = *static_cast<Client*>(self);
    EXPECT_NE(std::this_thread::get_id(), client.caller_) << "from inside the client's own call";
    const std::lock_guard<std::mutex> lock(client.mutex_);
    client.texts_.push_back(text);
    client.arrived_.notify_one();
    return OMX_ErrorNone;
  }

  const std::thread::id caller_ = std::this_thread::get_id();
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::deque<std::string> texts_;
};

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
INSTANTIATE_TEST_SUITE_P(Parts, EveryPart, testing::Values(imageDecode, imageEncode, videoEncode),
                         [](const auto& tested) { return std::string(tested.param.name + 13); });

TEST_P(EveryPart, WaitsForItsBuffersToComeAndToGo) {
  expectPorts(OMX_TRUE, OMX_FALSE);
  client.complete(OMX_CommandPortDisable, out);  // at once in Loaded
  client.complete(OMX_CommandPortEnable, out);
  ASSERT_EQ(client.send(OMX_CommandStateSet, OMX_StateIdle), OMX_ErrorNone);
  for (const OMX_U32 each : {in, out})
    for (OMX_U32 left = client.definition(each).nBufferCountActual; left > 0; --left) {
      client.expectNothing();
      EXPECT_EQ(client.state(), OMX_StateLoaded);
      ASSERT_EQ(client.allocate(each), OMX_ErrorNone);
    }
  EXPECT_EQ(client.next(), "done StateSet Idle");

  for (const OMX_STATETYPE state : {OMX_StateExecuting, OMX_StateIdle}) {
    client.complete(OMX_CommandStateSet, state);
    ASSERT_EQ(client.send(OMX_CommandPortDisable, out), OMX_ErrorNone);
    expectPorts(OMX_FALSE, OMX_TRUE);
    client.expectNothing();
    client.vacate(out);
    EXPECT_EQ(client.next(), "done PortDisable " + port);
    ASSERT_EQ(client.send(OMX_CommandPortEnable, out), OMX_ErrorNone);
    expectPorts(OMX_TRUE, OMX_FALSE);
    client.expectNothing();
    client.populate(out);
    EXPECT_EQ(client.next(), "done PortEnable " + port);
  }

  ASSERT_EQ(client.send(OMX_CommandStateSet, OMX_StateLoaded), OMX_ErrorNone);
  for (const OMX_U32 each : {in, out}) {
    client.expectNothing();
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

/// A component may take descriptors, but does its work without them too: where there are none, and
/// when a process has closed all that it has.
TEST_P(EveryPart, WorksWithoutDescriptors) {
  rlimit limit;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  for (const bool closed : {false, true}) {
    SCOPED_TRACE(closed ? "closed" : "none to be had");
    const rlimit none = {0, limit.rlim_max};
    const int next[] = {dup(STDIN_FILENO), dup(STDIN_FILENO)};
    for (const int each : next) close(each);
    if (!closed) setrlimit(RLIMIT_NOFILE, &none);
    Client other(GetParam());
    setrlimit(RLIMIT_NOFILE, &limit);
    // Not by close(), which the thread sanitizer holds against the thread that reads there.
    for (const int each : next)
      if (closed) syscall(SYS_close, each);
    other.run();
    ASSERT_EQ(other.fill(other.out[0]), OMX_ErrorNone);
    ASSERT_EQ(other.send(OMX_CommandFlush, out), OMX_ErrorNone);
    EXPECT_EQ(other.next(), "filled " + port);
    EXPECT_EQ(other.next(), "done Flush " + port);
  }
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
      Client client(imageEncode);
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
