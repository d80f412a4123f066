#ifndef TESSERA_PLATFORM_SRC_MMAL_QUEUE_H
#define TESSERA_PLATFORM_SRC_MMAL_QUEUE_H

#include <condition_variable>
#include <mutex>
#include <string>

#include "interface/mmal/mmal_pool.h"
#include "interface/mmal/mmal_queue.h"
#include "mmal/Header.h"

struct MMAL_QUEUE_T {};

namespace mmal {

/// A queue of headers. Entry points and the platform's own code share these operations.
struct Queue final : MMAL_QUEUE_T, Holder {
  /// @param itsPool  the pool whose free queue this is, for the journal
  explicit Queue(const MMAL_POOL_T* itsPool = nullptr) : pool(itsPool) {}
  /// Headers that are still in it become the client's again.
  ~Queue();
  Queue(const Queue&) = delete;
  Queue& operator=(const Queue&) = delete;

  /// A header that is not the client's (in a queue or a port already) is left where it is.
  void put(Header& header, bool atFront = false);
  Header* get();
  Header* wait();
  Header* wait(std::chrono::milliseconds limit);
  unsigned length();
  void letGo(Header& header) override;

  const MMAL_POOL_T* const pool;

 private:
  Header* take();

  std::mutex mutex_;
  std::condition_variable filled_;
  unsigned waiters_ = 0;
  HeaderList headers_;
};

/// For the journal. A pool's queue goes by the name of its pool.
std::string nameOf(MMAL_QUEUE_T* queue);
std::string nameOf(const MMAL_POOL_T* pool);

inline Queue& queueOf(MMAL_QUEUE_T* queue) {
  return *static_cast<Queue*>(queue);
}

}  // namespace mmal

#endif  // TESSERA_PLATFORM_SRC_MMAL_QUEUE_H
