// Counts what is copied by the C library's functions. Preloaded, it takes their place for every
// library of the process.

#include <dlfcn.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace {

std::atomic<std::uint64_t> copied{0};

using Copy = void* (*)(void*, const void*, std::size_t);

// One that copes with overlaps serves all.
void* copy(void* to, const void* from, std::size_t size) {
  static const auto next = reinterpret_cast<Copy>(dlsym(RTLD_NEXT, "memmove"));
  copied.fetch_add(size, std::memory_order_relaxed);
  return next(to, from, size);
}

}  // namespace

#define COUNTED extern "C" __attribute__((visibility("default")))

COUNTED std::uint64_t tesseraBenchCopied() {
  return copied;
}

COUNTED void* memcpy(void* to, const void* from, std::size_t size) noexcept {
  return copy(to, from, size);
}
COUNTED void* memmove(void* to, const void* from, std::size_t size) noexcept {
  return copy(to, from, size);
}
COUNTED void* mempcpy(void* to, const void* from, std::size_t size) noexcept {
  return static_cast<char*>(copy(to, from, size)) + size;
}
// What Debian's hardened libraries call instead.
COUNTED void* __memcpy_chk(void* to, const void* from, std::size_t size, std::size_t) noexcept {
  return copy(to, from, size);
}
COUNTED void* __memmove_chk(void* to, const void* from, std::size_t size, std::size_t) noexcept {
  return copy(to, from, size);
}
