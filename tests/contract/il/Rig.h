#ifndef TESSERA_TESTS_CONTRACT_IL_RIG_H
#define TESSERA_TESTS_CONTRACT_IL_RIG_H

#include <IL/OMX_Component.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace rig {

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
constexpr Part parts[] = {imageDecode, imageEncode, videoEncode};

using Texts = std::vector<std::string>;
using Bytes = std::vector<std::uint8_t>;

/// A structure of the interface with its header filled in.
template <typename Structure>
Structure make(OMX_U32 port) {
  Structure s{};
  s.nSize = sizeof s;
  s.nVersion.nVersion = 0x00020101;
  s.nPortIndex = port;
  return s;
}

/// A handle whose callbacks are kept as texts, in their order: "done StateSet Idle",
/// "done PortDisable 320", "error SameState", "changed 321", "emptied 320", "filled 321".
class Client {
 public:
  explicit Client(const Part& part);
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  /// The next callback, or "nothing" after a time that no platform needs.
  std::string next();
  /// As many callbacks as are expected.
  Texts next(std::size_t count);
  /// What came before a flush was answered that is sent now: the way to see that nothing else came.
  Texts soFar();

  OMX_ERRORTYPE send(OMX_COMMANDTYPE command, OMX_U32 parameter);
  /// Sends it and expects its completion next.
  void complete(OMX_COMMANDTYPE command, OMX_U32 parameter);
  OMX_STATETYPE state();
  /// Ends a disable or enable that was sent: a port's buffers go or come, and its completion.
  void disabled(OMX_U32 port);
  void enabled(OMX_U32 port);
  /// From Loaded to Executing, with every port's buffers in `in` and `out`.
  void run();
  /// Back to Loaded from Executing or Idle, with every buffer of `in` and `out` freed.
  void rest();

  OMX_PARAM_PORTDEFINITIONTYPE definition(OMX_U32 port);
  OMX_ERRORTYPE define(OMX_PARAM_PORTDEFINITIONTYPE definition);

  /// A buffer of the port's size (or another), or null with `error` telling.
  OMX_BUFFERHEADERTYPE* allocate(OMX_U32 port, OMX_U32 size = 0);
  OMX_ERRORTYPE free(OMX_U32 port, OMX_BUFFERHEADERTYPE* buffer);
  /// As many as the port needs; all that it has.
  void populate(OMX_U32 port);
  void vacate(OMX_U32 port);
  std::vector<OMX_BUFFERHEADERTYPE*>& of(OMX_U32 port) { return port == part.in ? in : out; }
  OMX_ERRORTYPE empty(OMX_BUFFERHEADERTYPE* buffer, const Bytes& bytes,
                      OMX_U32 flags = OMX_BUFFERFLAG_EOS);
  OMX_ERRORTYPE fill(OMX_BUFFERHEADERTYPE* buffer);

  const Part part;
  OMX_HANDLETYPE handle = nullptr;
  OMX_ERRORTYPE error = OMX_ErrorNone;  ///< of the last allocate()
  std::vector<OMX_BUFFERHEADERTYPE*> in;
  std::vector<OMX_BUFFERHEADERTYPE*> out;

 private:
  static OMX_ERRORTYPE onEvent(OMX_HANDLETYPE, OMX_PTR self, OMX_EVENTTYPE event, OMX_U32 data1,
                               OMX_U32 data2, OMX_PTR);
  static OMX_ERRORTYPE onEmptied(OMX_HANDLETYPE, OMX_PTR self, OMX_BUFFERHEADERTYPE* buffer);
  static OMX_ERRORTYPE onFilled(OMX_HANDLETYPE, OMX_PTR self, OMX_BUFFERHEADERTYPE* buffer);
  void keep(std::string text);

  std::mutex mutex_;
  std::condition_variable arrived_;
  std::deque<std::string> texts_;
};

/// The bytes of a buffer that came back.
Bytes bytesOf(const OMX_BUFFERHEADERTYPE& buffer);

/// What holds for every part.
class EveryPart : public testing::TestWithParam<Part> {
 public:
  static std::string nameOf(const testing::TestParamInfo<Part>& tested) {
    return std::string(tested.param.name).substr(sizeof "OMX.broadcom." - 1);
  }

 protected:
  Client client{GetParam()};
  const OMX_U32 in = GetParam().in;
  const OMX_U32 out = GetParam().out;
  const std::string filled = "filled " + std::to_string(out);
};

}  // namespace rig

#endif  // TESSERA_TESTS_CONTRACT_IL_RIG_H
