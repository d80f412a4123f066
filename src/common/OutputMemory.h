#ifndef TESSERA_SRC_COMMON_OUTPUTMEMORY_H
#define TESSERA_SRC_COMMON_OUTPUTMEMORY_H

#include <tessera/CodecStatus.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

namespace common {

/// Where a `ProcessOutput` puts its data: the caller's memory, or a new array of the right size.
class OutputMemory {
 public:
  OutputMemory() = default;
  OutputMemory(unsigned char* memory, unsigned int capacity)
      : memory_(memory), capacity_(capacity) {}

  /// Copies the data in.
  /// @return CodecOk; or CodecBufferTooSmall when there is no room for it: the caller's memory is
  ///         too small, or there was none for an array, which is told by Exhausted()
  CodecStatus Take(const std::uint8_t* data, std::uint32_t length) {
    if (memory_ == nullptr) {
      try {
        array_.reset(new unsigned char[length]);
      } catch (const std::bad_alloc&) {
        // Told to the caller once the platform's buffer has gone back.
        exhausted_ = true;
        return CodecBufferTooSmall;
      }
    } else if (length > capacity_) {
      return CodecBufferTooSmall;
    }
    if (length != 0) std::memcpy(array_ ? array_.get() : memory_, data, length);
    return CodecOk;
  }

  bool Exhausted() const { return exhausted_; }
  unsigned char* ReleaseArray() { return array_.release(); }

 private:
  unsigned char* memory_ = nullptr;
  unsigned int capacity_ = 0;
  std::unique_ptr<unsigned char[]> array_;
  bool exhausted_ = false;
};

/// Runs a `ProcessOutput` into a new array, which goes to the caller when it succeeds.
template <typename Collect>
CodecStatus CollectIntoNewArray(unsigned char** array, Collect collect) {
  OutputMemory memory;
  const CodecStatus status = collect(memory);
  if (memory.Exhausted()) throw std::bad_alloc();
  if (status == CodecOk) *array = memory.ReleaseArray();
  return status;
}

}  // namespace common

#endif  // TESSERA_SRC_COMMON_OUTPUTMEMORY_H
