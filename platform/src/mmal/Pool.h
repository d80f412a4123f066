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
  static std::unique_ptr<Pool> create(unsigned headers, std::uint32_t payloadSize,
                                      const Payload::Allocator& allocator = {});
  explicit Pool(const Payload::Allocator& allocator);
  ~Pool();
  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;

  MMAL_STATUS_T resize(unsigned headers, std::uint32_t payloadSize);
  void setCallback(MMAL_POOL_BH_CB_T callback, void* userData);
  void setPreRelease(MMAL_BH_PRE_RELEASE_CB_T callback, void* userData);

 private:
  using Headers = std::vector<std::unique_ptr<Header>>;

  void takeBack(Header& header) override;
  bool make(Headers& made, std::vector<MMAL_BUFFER_HEADER_T*>& pointers, unsigned headers,
            std::uint32_t payloadSize);
  void adopt(Headers&& made, std::vector<MMAL_BUFFER_HEADER_T*>&& pointers);

  const Payload::Allocator allocator_;
  std::mutex mutex_;  ///< guards the callback
  MMAL_POOL_BH_CB_T callback_ = nullptr;
  void* callbackData_ = nullptr;
  MMAL_BH_PRE_RELEASE_CB_T preRelease_ = nullptr;
  void* preReleaseData_ = nullptr;
  Queue free_{this};
  Headers headers_;
  std::vector<MMAL_BUFFER_HEADER_T*> pointers_;
  tessera_platform::hooks::Counted counted_{tessera_platform::hooks::Kind::Pool};
};

}  // namespace mmal

#endif  // TESSERA_PLATFORM_SRC_MMAL_POOL_H
