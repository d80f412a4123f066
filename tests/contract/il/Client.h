#ifndef TESSERA_TESTS_CONTRACT_IL_CLIENT_H
#define TESSERA_TESTS_CONTRACT_IL_CLIENT_H

#include <IL/OMX_Component.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace contract {

/// A component that the library uses, and its ports.
struct Part {
  const char* name;
  OMX_INDEXTYPE domain;
  OMX_U32 in;
  OMX_U32 out;
};
constexpr Part imageDecode = {"OMX.broadcom.image_decode", OMX_IndexParamImageInit, 320, 321};
constexpr Part imageEncode = {"OMX.broadcom.image_encode", OMX_IndexParamImageInit, 340, 341};
constexpr Part videoEncode = {"OMX.broadcom.video_encode", OMX_IndexParamVideoInit, 200, 201};

using Texts = std::vector<std::string>;

/// A handle whose callbacks are kept as texts, in their order: "done StateSet Idle",
/// "done PortDisable 320", "error SameState", "emptied 320", "filled 321".
class Client {
 public:
  explicit Client(const Part& part);
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  /// The next callback, or "nothing" after a time that no platform needs.
  std::string next();
  /// What came before a flush was answered that is sent now: the way to see that nothing else came.
  Texts soFar();

  OMX_ERRORTYPE send(OMX_COMMANDTYPE command, OMX_U32 parameter);
  /// Sends it and expects its completion next.
  void complete(OMX_COMMANDTYPE command, OMX_U32 parameter);
  OMX_STATETYPE state();
  OMX_PARAM_PORTDEFINITIONTYPE definition(OMX_U32 port);
  OMX_ERRORTYPE define(OMX_PARAM_PORTDEFINITIONTYPE definition);

  /// One more buffer of the port's size (or another) in `in` or `out`.
  OMX_ERRORTYPE allocate(OMX_U32 port, OMX_U32 size = 0);
  /// As many as the port needs; all that it has.
  void populate(OMX_U32 port);
  void vacate(OMX_U32 port);
  std::vector<OMX_BUFFERHEADERTYPE*>& of(OMX_U32 port) { return port == part.in ? in : out; }
  /// From Loaded to Executing, with every port's buffers.
  void run();
  OMX_ERRORTYPE empty(OMX_BUFFERHEADERTYPE* buffer) { return OMX_EmptyThisBuffer(handle, buffer); }
  OMX_ERRORTYPE fill(OMX_BUFFERHEADERTYPE* buffer) { return OMX_FillThisBuffer(handle, buffer); }

  const Part part;
  OMX_HANDLETYPE handle = nullptr;
  std::vector<OMX_BUFFERHEADERTYPE*> in;
  std::vector<OMX_BUFFERHEADERTYPE*> out;

 private:
  static OMX_ERRORTYPE onEvent(OMX_HANDLETYPE, OMX_PTR self, OMX_EVENTTYPE event, OMX_U32 data1,
                               OMX_U32 data2, OMX_PTR);
  static OMX_ERRORTYPE onEmptied(OMX_HANDLETYPE, OMX_PTR self, OMX_BUFFERHEADERTYPE* buffer);
  static OMX_ERRORTYPE onFilled(OMX_HANDLETYPE, OMX_PTR self, OMX_BUFFERHEADERTYPE* buffer);
  void keep(std::string text);

  const std::thread::id caller_ = std::this_thread::get_id();
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::deque<std::string> texts_;
};

}  // namespace contract

#endif  // TESSERA_TESTS_CONTRACT_IL_CLIENT_H
