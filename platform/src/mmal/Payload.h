#ifndef TESSERA_PLATFORM_SRC_MMAL_PAYLOAD_H
#define TESSERA_PLATFORM_SRC_MMAL_PAYLOAD_H

#include <cstdint>

namespace mmal {

/// Owns a buffer's memory: zeroed, in a place that suits the codecs' vector loads.
class Payload {
 public:
  Payload() = default;
  /// Null data() when there is no memory or the size is 0.
  explicit Payload(std::uint32_t size);
  ~Payload();
  Payload(Payload&& other) noexcept;
  Payload& operator=(Payload&&) = delete;

  std::uint8_t* data() const { return data_; }
  std::uint32_t size() const { return size_; }

 private:
  std::uint8_t* data_ = nullptr;
  std::uint32_t size_ = 0;
};

}  // namespace mmal

#endif  // TESSERA_PLATFORM_SRC_MMAL_PAYLOAD_H
