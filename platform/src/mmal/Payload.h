#ifndef TESSERA_PLATFORM_SRC_MMAL_PAYLOAD_H
#define TESSERA_PLATFORM_SRC_MMAL_PAYLOAD_H

#include <cstdint>

#include "interface/mmal/mmal_pool.h"

namespace mmal {

/// Owns a buffer's memory, from an allocator of the client's or the platform's own.
class Payload {
 public:
  struct Allocator {
    void* context = nullptr;
    mmal_pool_allocator_alloc_t alloc = nullptr;
    mmal_pool_allocator_free_t free = nullptr;
  };

  Payload() = default;
  /// Null data() when there is no memory or the size is 0.
  Payload(std::uint32_t size, const Allocator& allocator);
  ~Payload();
  Payload(Payload&& other) noexcept;
  Payload& operator=(Payload&&) = delete;

  std::uint8_t* data() const { return data_; }
  std::uint32_t size() const { return size_; }

 private:
  Allocator allocator_;
  std::uint8_t* data_ = nullptr;
  std::uint32_t size_ = 0;
};

/// Zeroed memory that suits the codecs' vector loads; big blocks cost nothing until touched.
std::uint8_t* allocatePayload(std::uint32_t size);
void freePayload(std::uint8_t* payload);

}  // namespace mmal

#endif  // TESSERA_PLATFORM_SRC_MMAL_PAYLOAD_H
