#ifndef TESSERA_TESTS_CONTRACT_MMAL_RIG_H
#define TESSERA_TESTS_CONTRACT_MMAL_RIG_H

#include <bcm_host.h>
#include <interface/mmal/mmal.h>
#include <interface/mmal/util/mmal_util.h>
#include <interface/mmal/util/mmal_util_params.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "support/Pictures.h"

namespace contract {

constexpr char imageEncode[] = "vc.ril.image_encode";
constexpr char videoEncode[] = "vc.ril.video_encode";
constexpr char videoDecode[] = "vc.ril.video_decode";

/// A buffer that came out, without its payload.
struct Output {
  std::uint32_t length = 0, flags = 0;
  std::int64_t pts = 0;
  bool has(std::uint32_t flag) const { return (flags & flag) != 0; }
};

/// The format of a picture in the padded layout.
void describe(MMAL_PORT_T& port, std::uint32_t encoding, int width, int height);

/// A component driven as the library drives it: port callbacks, and a pool a port. Goes down in the
/// library's order too.
class Rig {
 public:
  explicit Rig(const char* name);
  ~Rig();
  Rig(const Rig&) = delete;
  Rig& operator=(const Rig&) = delete;

  MMAL_PORT_T& in() { return *component->input[0]; }
  MMAL_PORT_T& out() { return *component->output[0]; }

  /// Sets both ports of an encoder up for pictures of one size, with the fewest buffers.
  void setUpVideo(int width, int height);
  void makePools();
  void enablePorts();
  /// All of these, and the component enabled, with every output buffer sent.
  void start();
  void sendOutputs();
  /// Waits for a free input buffer, and sends scene t of the port's size as a frame of that time.
  void feedScene(int t);
  /// Waits for what comes out next, and hands every free output buffer back.
  Output take();
  /// Expects that every buffer of a port was called back and is in its pool.
  void expectInputsBack(unsigned times);
  void expectOutputsBack();
  void stop();

  static void onInput(MMAL_PORT_T* port, MMAL_BUFFER_HEADER_T* buffer);
  static void onOutput(MMAL_PORT_T* port, MMAL_BUFFER_HEADER_T* buffer);

  MMAL_COMPONENT_T* component = nullptr;
  MMAL_POOL_T* inPool = nullptr;
  MMAL_POOL_T* outPool = nullptr;

 private:
  void expectAll(MMAL_POOL_T& pool);
  void note();

  const std::thread::id caller_ = std::this_thread::get_id();
  std::thread::id worker_;
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::deque<Output> filled_;
  unsigned inputsBack_ = 0;
};

}  // namespace contract

#endif  // TESSERA_TESTS_CONTRACT_MMAL_RIG_H
