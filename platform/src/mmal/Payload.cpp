#include "mmal/Payload.h"

#include <cstdlib>
#include <utility>

namespace mmal {

namespace {
constexpr std::uintptr_t alignment = 64;
}

// calloc takes large blocks straight from the kernel's zero pages, which aligned_alloc and memset
// would touch. The block's start is kept just before the payload.
Payload::Payload(std::uint32_t size) {
  const std::size_t total = std::size_t{size} + alignment + sizeof(void*);
  void* const block = size > 0 && total > size ? std::calloc(1, total) : nullptr;
  if (block == nullptr) return;
  const auto start = reinterpret_cast<std::uintptr_t>(block) + sizeof(void*);
  data_ = reinterpret_cast<std::uint8_t*>((start + alignment - 1) & ~(alignment - 1));
  reinterpret_cast<void**>(data_)[-1] = block;
  size_ = size;
}

Payload::Payload(Payload&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}

Payload::~Payload() {
  if (data_ != nullptr) std::free(reinterpret_cast<void**>(data_)[-1]);
}

}  // namespace mmal
