#ifndef TESSERA_SRC_COMMON_MMALGUARDS_H
#define TESSERA_SRC_COMMON_MMALGUARDS_H

#include <interface/mmal/mmal.h>

#include <cstdint>
#include <memory>

namespace common {

/// An extra reference to a component for the length of an operation.
class ComponentReference {
 public:
  explicit ComponentReference(MMAL_COMPONENT_T* component) : component_(component) {
    mmal_component_acquire(component_);
  }
  ~ComponentReference() { mmal_component_release(component_); }
  ComponentReference(const ComponentReference&) = delete;
  ComponentReference& operator=(const ComponentReference&) = delete;

 private:
  MMAL_COMPONENT_T* component_;
};

struct PoolDestroyer {
  void operator()(MMAL_POOL_T* pool) const { mmal_pool_destroy(pool); }
};
/// A pool on its way into an object.
using PoolOwner = std::unique_ptr<MMAL_POOL_T, PoolDestroyer>;

struct HeaderReleaser {
  void operator()(MMAL_BUFFER_HEADER_T* header) const { mmal_buffer_header_release(header); }
};
/// A buffer header that goes back to its pool, unless a port takes it first.
using HeaderOwner = std::unique_ptr<MMAL_BUFFER_HEADER_T, HeaderReleaser>;

/// Lets go of a header that a port has taken.
inline void HandOver(HeaderOwner& header) {
  static_cast<void>(header.release());
}

/// The component's first port of a direction, or null.
inline MMAL_PORT_T* FirstPort(MMAL_PORT_T** ports, std::uint32_t count) {
  return count > 0 ? ports[0] : nullptr;
}

/// Closes a port that is open. Where that fails the port is made to give its buffers back at
/// least, since their pool is about to go.
MMAL_STATUS_T ClosePort(MMAL_PORT_T* port);

/// Hands every free buffer of the pool to the port. A refused one goes back to the pool and is
/// tried once more behind the others.
void SendFreeBuffers(MMAL_POOL_T* pool, MMAL_PORT_T* port);

/// Gives the buffers in a queue back to their pool.
void ReleaseQueued(MMAL_QUEUE_T* queue);

}  // namespace common

#endif  // TESSERA_SRC_COMMON_MMALGUARDS_H
