#ifndef TESSERA_SRC_COMMON_OUTPUTMEMORY_H
#define TESSERA_SRC_COMMON_OUTPUTMEMORY_H

#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

/// Where a `ProcessOutput` puts its data: the caller's memory, or a new array of the right size.
class OutputMemory {
 public:
  OutputMemory() = default;
  OutputMemory(unsigned char* memory, unsigned int capacity)
      : memory_(memory), capacity_(capacity) {}

  /// Copies the data in. @return false when there is no room for it: the caller's memory is too
  /// small, or there was none for an array, which is told by exhausted()
  bool take(const std::uint8_t* data, std::uint32_t length) {
    if (memory_ == nullptr) {
      try {
        array_.reset(new unsigned char[length]);
      } catch (const std::bad_alloc&) {
        // Told to the caller once the platform's buffer has gone back.
        exhausted_ = true;
        return false;
      }
    } else if (length > capacity_) {
      return false;
    }
    if (length != 0) std::memcpy(array_ ? array_.get() : memory_, data, length);
    return true;
  }

  bool exhausted() const { return exhausted_; }
  unsigned char* releaseArray() { return array_.release(); }

 private:
  unsigned char* memory_ = nullptr;
  unsigned int capacity_ = 0;
  std::unique_ptr<unsigned char[]> array_;
  bool exhausted_ = false;
};

#endif  // TESSERA_SRC_COMMON_OUTPUTMEMORY_H
