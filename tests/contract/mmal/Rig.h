#ifndef TESSERA_TESTS_CONTRACT_MMAL_RIG_H
#define TESSERA_TESTS_CONTRACT_MMAL_RIG_H

#include <bcm_host.h>
#include <gtest/gtest.h>
#include <interface/mmal/mmal.h>
#include <interface/mmal/util/mmal_component_wrapper.h>
#include <interface/mmal/util/mmal_util.h>
#include <interface/mmal/util/mmal_util_params.h>

#include <atomic>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "support/Pictures.h"

namespace contract {

using support::Bytes;

constexpr char imageEncode[] = "vc.ril.image_encode";
constexpr char videoEncode[] = "vc.ril.video_encode";
constexpr char videoDecode[] = "vc.ril.video_decode";
constexpr unsigned patienceMs = 10000;

/// A buffer that came out, with a copy of its payload.
struct Output {
  bool came = false;
  std::uint32_t cmd = 0;
  std::uint32_t flags = 0;
  std::int64_t pts = 0;
  Bytes data;
  bool has(std::uint32_t flag) const { return (flags & flag) == flag; }
};

/// The format of a picture in the padded layout.
void describe(MMAL_PORT_T& port, std::uint32_t encoding, int width, int height);

/// A component driven as the library drives it: port callbacks, a pool a port, a queue of what came
/// out. Goes down in the library's order too.
class Rig {
 public:
  explicit Rig(const char* name);
  ~Rig();
  Rig(const Rig&) = delete;
  Rig& operator=(const Rig&) = delete;

  MMAL_COMPONENT_T* component = nullptr;
  MMAL_PORT_T& in() { return *component->input[0]; }
  MMAL_PORT_T& out() { return *component->output[0]; }

  /// Sets both ports up for pictures of one size; bitrate is the encoder's.
  void setUp(int width, int height, std::uint32_t inEncoding, std::uint32_t outEncoding,
             std::uint32_t bitrate = 0);
  void setUpVideo(int width, int height, std::uint32_t bitrate = 0) {
    setUp(width, height, MMAL_ENCODING_I420, MMAL_ENCODING_H264, bitrate);
  }
  /// Enables ports and component and makes the pools, with the minimum of buffers.
  /// @param outputs  how many output buffers to hand over at once; -1: all
  void start(int outputs = -1);
  void makePools();
  void enablePorts();
  void sendOutputs(int count = -1);
  /// Waits for a free input buffer, fills and sends it. @return false when none came
  bool feed(const Bytes& data, std::uint32_t flags, std::int64_t pts = MMAL_TIME_UNKNOWN,
            unsigned limitMs = patienceMs);
  /// Feeds scene t of the port's size as a whole frame of time t * 40000.
  bool feedScene(int t, unsigned limitMs = patienceMs);
  /// Takes what comes out next, and hands every free output buffer back.
  Output take(unsigned limitMs = patienceMs, bool recycle = true);
  /// Puts what a flush brought back into its pool, all of which is there then.
  void expectOutputsBack();
  void stop();

  static void onInput(MMAL_PORT_T* port, MMAL_BUFFER_HEADER_T* buffer);
  static void onOutput(MMAL_PORT_T* port, MMAL_BUFFER_HEADER_T* buffer);

  std::atomic<int> inputsBack{0};
  std::atomic<int> outputsBack{0};
  std::atomic<bool> onCaller{false};  ///< a callback came on a thread that calls
  std::set<std::thread::id> threads;  ///< of the callbacks; read it when all is down
  MMAL_POOL_T* inPool = nullptr;
  MMAL_POOL_T* outPool = nullptr;
  MMAL_QUEUE_T* filled = nullptr;

 private:
  void note();
  const std::thread::id caller_ = std::this_thread::get_id();
};

}  // namespace contract

#endif  // TESSERA_TESTS_CONTRACT_MMAL_RIG_H
