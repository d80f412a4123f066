#include "Client.h"

#include <gtest/gtest.h>

#include <chrono>
#include <map>

namespace contract {
namespace {

constexpr std::chrono::seconds patience{20};

std::string commandText(OMX_U32 command, OMX_U32 parameter) {
  const char* const commands[] = {"StateSet", "Flush", "PortDisable", "PortEnable"};
  const char* const states[] = {"Invalid", "Loaded", "Idle", "Executing"};
  const std::string name = commands[command];
  return name + ' ' +
         (command == OMX_CommandStateSet ? states[parameter] : std::to_string(parameter));
}

std::string errorText(OMX_U32 code) {
  static const std::map<OMX_U32, std::string> names = {
      {OMX_ErrorSameState, "SameState"},
      {OMX_ErrorIncorrectStateTransition, "IncorrectStateTransition"},
      {OMX_ErrorPortUnpopulated, "PortUnpopulated"}};
  const auto found = names.find(code);
  return found == names.end() ? std::to_string(code) : found->second;
}

}  // namespace

Client::Client(const Part& wanted) : part(wanted) {
  static OMX_CALLBACKTYPE callbacks = {onEvent, onEmptied, onFilled};
  EXPECT_EQ(OMX_Init(), OMX_ErrorNone);
  EXPECT_EQ(OMX_GetHandle(&handle, const_cast<char*>(part.name), this, &callbacks), OMX_ErrorNone);
}

Client::~Client() {
  EXPECT_EQ(OMX_FreeHandle(handle), OMX_ErrorNone);
  EXPECT_EQ(OMX_Deinit(), OMX_ErrorNone);
}

void Client::keep(std::string text) {
  const std::lock_guard<std::mutex> lock(mutex_);
  EXPECT_NE(std::this_thread::get_id(), caller_) << "from inside the client's own call";
  texts_.push_back(std::move(text));
  arrived_.notify_one();
}

OMX_ERRORTYPE Client::onEvent(OMX_HANDLETYPE, OMX_PTR self, OMX_EVENTTYPE event, OMX_U32 data1,
                              OMX_U32 data2, OMX_PTR) {
  auto& client = *static_cast<Client*>(self);
  if (event == OMX_EventCmdComplete)
    client.keep("done " + commandText(data1, data2));
  else if (event == OMX_EventError)
    client.keep("error " + errorText(data1));
  return OMX_ErrorNone;
}

OMX_ERRORTYPE Client::onEmptied(OMX_HANDLETYPE, OMX_PTR self, OMX_BUFFERHEADERTYPE* buffer) {
  static_cast<Client*>(self)->keep("emptied " + std::to_string(buffer->nInputPortIndex));
  return OMX_ErrorNone;
}

OMX_ERRORTYPE Client::onFilled(OMX_HANDLETYPE, OMX_PTR self, OMX_BUFFERHEADERTYPE* buffer) {
  static_cast<Client*>(self)->keep("filled " + std::to_string(buffer->nOutputPortIndex));
  return OMX_ErrorNone;
}

std::string Client::next() {
  std::unique_lock<std::mutex> lock(mutex_);
  if (!arrived_.wait_for(lock, patience, [this] { return !texts_.empty(); })) return "nothing";
  std::string text = texts_.front();
  texts_.pop_front();
  return text;
}

Texts Client::soFar() {
  EXPECT_EQ(send(OMX_CommandFlush, part.in), OMX_ErrorNone);
  const std::string marker = "done " + commandText(OMX_CommandFlush, part.in);
  Texts texts;
  for (std::string text = next(); text != marker && text != "nothing"; text = next())
    texts.push_back(text);
  return texts;
}

OMX_ERRORTYPE Client::send(OMX_COMMANDTYPE command, OMX_U32 parameter) {
  return OMX_SendCommand(handle, command, parameter, nullptr);
}

void Client::complete(OMX_COMMANDTYPE command, OMX_U32 parameter) {
  EXPECT_EQ(send(command, parameter), OMX_ErrorNone);
  EXPECT_EQ(next(), "done " + commandText(static_cast<OMX_U32>(command), parameter));
}

OMX_STATETYPE Client::state() {
  OMX_STATETYPE state = OMX_StateMax;
  EXPECT_EQ(OMX_GetState(handle, &state), OMX_ErrorNone);
  return state;
}

OMX_PARAM_PORTDEFINITIONTYPE Client::definition(OMX_U32 port) {
  OMX_PARAM_PORTDEFINITIONTYPE definition{};
  definition.nSize = sizeof definition;
  definition.nVersion.nVersion = 0x00020101;
  definition.nPortIndex = port;
  EXPECT_EQ(OMX_GetParameter(handle, OMX_IndexParamPortDefinition, &definition), OMX_ErrorNone);
  return definition;
}

OMX_ERRORTYPE Client::define(OMX_PARAM_PORTDEFINITIONTYPE definition) {
  return OMX_SetParameter(handle, OMX_IndexParamPortDefinition, &definition);
}

OMX_ERRORTYPE Client::allocate(OMX_U32 port, OMX_U32 size) {
  OMX_BUFFERHEADERTYPE* buffer = nullptr;
  if (size == 0) size = definition(port).nBufferSize;
  const OMX_ERRORTYPE error = OMX_AllocateBuffer(handle, &buffer, port, this, size);
  if (error == OMX_ErrorNone) of(port).push_back(buffer);
  return error;
}

void Client::populate(OMX_U32 port) {
  for (OMX_U32 left = definition(port).nBufferCountActual; left > 0; --left)
    ASSERT_EQ(allocate(port), OMX_ErrorNone);
}

void Client::vacate(OMX_U32 port) {
  for (OMX_BUFFERHEADERTYPE* const buffer : of(port))
    EXPECT_EQ(OMX_FreeBuffer(handle, port, buffer), OMX_ErrorNone);
  of(port).clear();
}

void Client::run() {
  EXPECT_EQ(send(OMX_CommandStateSet, OMX_StateIdle), OMX_ErrorNone);
  populate(part.in);
  populate(part.out);
  EXPECT_EQ(next(), "done StateSet Idle");
  complete(OMX_CommandStateSet, OMX_StateExecuting);
}

}  // namespace contract
