#ifndef TESSERA_TESTS_SUPPORT_GUARDEDMEMORY_H
#define TESSERA_TESTS_SUPPORT_GUARDEDMEMORY_H

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <stdexcept>

/// Memory between two unreadable pages: a byte read or written outside ends the test.
class GuardedMemory {
 public:
  explicit GuardedMemory(std::size_t size)
      : page_(static_cast<std::size_t>(sysconf(_SC_PAGESIZE))) {
    size_ = (size + page_ - 1) / page_ * page_;
    void* mapped = mmap(nullptr, size_ + 2 * page_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED) throw std::runtime_error("no memory to guard");
    mapped_ = static_cast<std::uint8_t*>(mapped);
    if (mprotect(start(), size_, PROT_READ | PROT_WRITE) != 0) {
      throw std::runtime_error("cannot open the guarded memory");
    }
  }
  ~GuardedMemory() { munmap(mapped_, size_ + 2 * page_); }
  GuardedMemory(const GuardedMemory&) = delete;
  GuardedMemory& operator=(const GuardedMemory&) = delete;

  /// `size` bytes that touch the page before or the page behind.
  std::uint8_t* atStart() { return start(); }
  std::uint8_t* atEnd(std::size_t size) { return start() + size_ - size; }

 private:
  std::uint8_t* start() { return mapped_ + page_; }

  std::size_t page_;
  std::size_t size_ = 0;
  std::uint8_t* mapped_ = nullptr;
};

#endif  // TESSERA_TESTS_SUPPORT_GUARDEDMEMORY_H
