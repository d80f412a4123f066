#ifndef TESSERA_PLATFORM_SRC_MMAL_WRAPPER_H
#define TESSERA_PLATFORM_SRC_MMAL_WRAPPER_H

#include <condition_variable>
#include <memory>
#include <mutex>

#include "interface/mmal/util/mmal_component_wrapper.h"
#include "mmal/Component.h"
#include "mmal/Pool.h"

namespace mmal {

/// A component with a pool for each port and a queue of filled output buffers.
class Wrapper final : public MMAL_WRAPPER_T {
 public:
  /// Takes over the creator's reference to the component.
  explicit Wrapper(Component& component);
  ~Wrapper();
  Wrapper(const Wrapper&) = delete;
  Wrapper& operator=(const Wrapper&) = delete;

  MMAL_STATUS_T enablePort(Port& port, std::uint32_t flags);
  MMAL_STATUS_T disablePort(Port& port);
  MMAL_STATUS_T getEmpty(Port& port, MMAL_BUFFER_HEADER_T*& buffer, bool waiting);
  MMAL_STATUS_T getFull(Port& port, MMAL_BUFFER_HEADER_T*& buffer, bool waiting);

 private:
  static void onBuffer(MMAL_PORT_T* port, MMAL_BUFFER_HEADER_T* buffer);
  void take(Port& port, Header& header);
  MMAL_STATUS_T get(Queue& queue, MMAL_BUFFER_HEADER_T*& buffer, bool waiting);
  std::unique_ptr<Pool>& poolOf(const Port& port) { return port.isInput() ? inPool_ : outPool_; }
  void publishPools();

  Component& component_;
  std::unique_ptr<Pool> inPool_, outPool_;
  Queue filled_;
  MMAL_POOL_T* inPools_[1] = {nullptr};
  MMAL_POOL_T* outPools_[1] = {nullptr};
  MMAL_QUEUE_T* outQueues_[1] = {&filled_};

  std::mutex mutex_;  ///< guards status
  std::condition_variable changed_;
  tessera_platform::hooks::Counted counted_{tessera_platform::hooks::Kind::Wrapper};
};

}  // namespace mmal

#endif  // TESSERA_PLATFORM_SRC_MMAL_WRAPPER_H
