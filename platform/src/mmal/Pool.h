#ifndef TESSERA_PLATFORM_SRC_MMAL_POOL_H
#define TESSERA_PLATFORM_SRC_MMAL_POOL_H

#include <memory>
#include <mutex>
#include <vector>

#include "interface/mmal/mmal_pool.h"
#include "mmal/Header.h"
#include "mmal/Queue.h"

namespace mmal {

/// Buffer headers with their payloads, and the queue of the free ones.
class Pool final : public MMAL_POOL_T, public Home {
 public:
  /// @return null without memory
  static std::unique_ptr<Pool> create(unsigned headers, std::uint32_t payloadSize);
  Pool();
  ~Pool();
  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;

  void setCallback(MMAL_POOL_BH_CB_T callback, void* userData);

 private:
  void takeBack(Header& header) override;
  bool fill(unsigned headers, std::uint32_t payloadSize);

  std::mutex mutex_;  ///< guards the callback
  MMAL_POOL_BH_CB_T callback_ = nullptr;
  void* callbackData_ = nullptr;
  Queue free_{this};
  std::vector<std::unique_ptr<Header>> headers_;
  std::vector<MMAL_BUFFER_HEADER_T*> pointers_;
  tessera_platform::hooks::Counted counted_{tessera_platform::hooks::Kind::Pool};
};

}  // namespace mmal

#endif  // TESSERA_PLATFORM_SRC_MMAL_POOL_H
