#include "mmal/Payload.h"

#include <cstdlib>
#include <utility>

namespace mmal {

namespace {
constexpr std::uintptr_t alignment = 64;
}

// calloc takes large blocks straight from the kernel's zero pages, which aligned_alloc and memset
// would touch. The block's start is kept just before the payload.
std::uint8_t* allocatePayload(std::uint32_t size) {
  const std::size_t total = std::size_t{size} + alignment + sizeof(void*);
  void* const block = total > size ? std::calloc(1, total) : nullptr;
  if (block == nullptr) return nullptr;
  const auto start = reinterpret_cast<std::uintptr_t>(block) + sizeof(void*);
  auto* const payload = reinterpret_cast<std::uint8_t*>((start + alignment - 1) & ~(alignment - 1));
  reinterpret_cast<void**>(payload)[-1] = block;
  return payload;
}

void freePayload(std::uint8_t* payload) {
  if (payload != nullptr) std::free(reinterpret_cast<void**>(payload)[-1]);
}

Payload::Payload(std::uint32_t size, const Allocator& allocator) : allocator_(allocator) {
  if (size == 0) return;
  data_ = allocator_.alloc != nullptr
              ? static_cast<std::uint8_t*>(allocator_.alloc(allocator_.context, size))
              : allocatePayload(size);
  size_ = data_ != nullptr ? size : 0;
}

Payload::Payload(Payload&& other) noexcept
    : allocator_(other.allocator_),
      data_(std::exchange(other.data_, nullptr)),
      size_(std::exchange(other.size_, 0)) {}

Payload::~Payload() {
  if (data_ == nullptr) return;
  if (allocator_.alloc == nullptr)
    freePayload(data_);
  else if (allocator_.free != nullptr)
    allocator_.free(allocator_.context, data_);
}

}  // namespace mmal
